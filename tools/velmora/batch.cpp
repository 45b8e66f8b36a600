#include "tools/velmora/batch.h"

#include <rapidjson/error/en.h>
#include <rapidjson/reader.h>
#include <zlib.h>

#include <algorithm>
#include <stdexcept>

#include "core/types/function.h"

namespace velmora::tool {
namespace {

constexpr size_t kMaxDepth = 1000;
constexpr size_t kFirstInflated = 64 * 1024;

// The body as the parser's stream; its place tells where an event begins and ends. A zero ends it, as the string's own
// does.
using Source = rapidjson::StringStream;

// Follows the parser through {"events":[EVENT,...]} and notes of each event where it stands and the few members that
// decide where it goes. Depths: 1 the batch, 2 its array of events, 3 an event, 4 its data.
class EventFinder : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, EventFinder> {
public:
    EventFinder(const std::string& body, const Source& source, std::vector<ReceivedEvent>& events)
        : body_(body), source_(source), events_(events) {}

    const char* complaint = nullptr;
    bool hasEvents = false;

    bool Default() { return takeValue({}); }
    bool RawNumber(const char*, rapidjson::SizeType, bool) { return takeValue({}); }
    bool String(const char* text, rapidjson::SizeType length, bool) { return takeValue({text, length}); }
    bool Key(const char* text, rapidjson::SizeType length, bool) {
        key_ = keyOf({text, length});
        return true;
    }
    bool StartObject() {
        if (depth_ == 2 && inEvents_) {
            begin_ = source_.Tell();
            events_.emplace_back();
        }
        if (depth_ == 3 && inEvents_) inData_ = key_ == Known::data;
        return enter();
    }
    bool EndObject(rapidjson::SizeType) {
        --depth_;
        if (depth_ == 3) inData_ = false;
        if (depth_ == 2 && inEvents_)
            events_.back().text = std::string_view(body_).substr(begin_, source_.Tell() + 1 - begin_);
        return true;
    }
    bool StartArray() {
        if (depth_ == 0) return refuse("the body is not a JSON object");
        if (depth_ == 2 && inEvents_) return refuse("an event is not a JSON object");
        if (depth_ == 1) inEvents_ = hasEvents = key_ == Known::events;
        return enter();
    }
    bool EndArray(rapidjson::SizeType) {
        --depth_;
        if (depth_ == 1) inEvents_ = false;
        return true;
    }

private:
    enum class Known { none, events, project, environment, data, guid, user };

    Known keyOf(std::string_view key) const {
        if (depth_ == 1) return key == "events" && !hasEvents ? Known::events : Known::none;
        if (depth_ == 3 && inEvents_) {
            if (key == "project") return Known::project;
            if (key == "environment") return Known::environment;
            if (key == "data") return Known::data;
        } else if (depth_ == 4 && inData_) {
            if (key == "event.guid") return Known::guid;
            if (key == "event.user_guid") return Known::user;
        }
        return Known::none;
    }

    bool takeValue(std::string_view text) {
        if (depth_ == 0) return refuse("the body is not a JSON object");
        if (depth_ == 2 && inEvents_) return refuse("an event is not a JSON object");
        const Known key = std::exchange(key_, Known::none);
        if (key == Known::none || key == Known::data || key == Known::events) return true;
        ReceivedEvent& event = events_.back();
        if (key == Known::project) event.project = text;
        if (key == Known::environment) event.environment = text;
        if (key == Known::guid) event.guid = text;
        if (key == Known::user) event.isSignedIn = !text.empty();
        return true;
    }

    bool enter() {
        key_ = Known::none;
        return ++depth_ <= kMaxDepth || refuse("the body is nested too deeply");
    }

    bool refuse(const char* reason) {
        complaint = reason;
        return false;
    }

    const std::string& body_;
    const Source& source_;
    std::vector<ReceivedEvent>& events_;
    size_t depth_ = 0;
    size_t begin_ = 0;
    bool inEvents_ = false;
    bool inData_ = false;
    Known key_ = Known::none;
};

}  // namespace

std::shared_ptr<const Batch> readBatch(std::string body) {
    const auto batch = std::make_shared<Batch>();
    batch->body = std::move(body);
    Source source(batch->body.c_str());
    EventFinder finder(batch->body, source, batch->events);
    rapidjson::Reader reader;
    // Iterative: the depth of what is posted must not be that of this thread's stack. Numbers stay text.
    constexpr unsigned kFlags =
        rapidjson::kParseIterativeFlag | rapidjson::kParseValidateEncodingFlag | rapidjson::kParseNumbersAsStringsFlag;
    const rapidjson::ParseResult result = reader.Parse<kFlags>(source, finder);
    if (finder.complaint) throw std::invalid_argument(finder.complaint);
    if (result.IsError()) {
        throw std::invalid_argument("the body is not valid JSON at byte " + std::to_string(result.Offset()) + ": " +
                                    rapidjson::GetParseError_En(result.Code()));
    }
    if (!finder.hasEvents) throw std::invalid_argument("the body has no events");
    return batch;
}

std::string inflateGzip(std::string_view compressed, size_t limit) {
    constexpr int kGzipOnly = 16 + MAX_WBITS;
    z_stream stream{};
    if (inflateInit2(&stream, kGzipOnly) != Z_OK) throw std::bad_alloc();
    const ScopeExit release([&] { inflateEnd(&stream); });
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(compressed.data()));
    stream.avail_in = static_cast<uInt>(compressed.size());
    std::string text(std::min(limit + 1, std::max(kFirstInflated, compressed.size() * 4)), '\0');
    size_t length = 0;
    while (true) {
        stream.next_out = reinterpret_cast<Bytef*>(text.data()) + length;
        stream.avail_out = static_cast<uInt>(text.size() - length);
        const int result = inflate(&stream, Z_NO_FLUSH);
        length = text.size() - stream.avail_out;
        if (length > limit) throw std::length_error("the body is too large");
        const bool isEnd = result == Z_STREAM_END;
        if (isEnd && stream.avail_in == 0) break;
        if (isEnd ? inflateReset(&stream) != Z_OK : result != Z_OK && result != Z_BUF_ERROR)
            throw std::invalid_argument("the body is not valid gzip");
        if (stream.avail_out == 0)
            text.resize(std::min(limit + 1, text.size() * 2));
        else if (!isEnd && stream.avail_in == 0)
            throw std::invalid_argument("the body is cut gzip");
    }
    text.resize(length);
    return text;
}

}  // namespace velmora::tool
