#include "core/json/jsonparser.h"

#include <rapidjson/error/en.h>

#include <stdexcept>
#include <utility>

#include "core/json/jsonreader.h"
#include "core/types/errors.h"
#include "core/types/logger.h"
#include "core/types/text.h"

namespace velmora {
namespace {

// Hands the reader's events to the parser of the innermost open container.
class PushHandler : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, PushHandler> {
public:
    explicit PushHandler(std::shared_ptr<JsonParser> root) : root_(std::move(root)) {}

    bool Null() { return top().onNull(name_), nameUsed(); }
    bool Bool(bool value) { return top().onBool(name_, value), nameUsed(); }
    bool Int(int value) { return Int64(value); }
    bool Int64(int64_t value) { return top().onInt(name_, value), nameUsed(); }
    bool Uint(unsigned value) { return Uint64(value); }
    bool Uint64(uint64_t value) { return top().onUint(name_, value), nameUsed(); }
    bool Double(double value) { return top().onDouble(name_, value), nameUsed(); }
    bool String(const char* text, rapidjson::SizeType length, bool) {
        if (isUtf8(name_) && isUtf8({text, length})) top().onString(name_, std::string(text, length));
        return nameUsed();
    }
    bool Key(const char* text, rapidjson::SizeType length, bool) {
        name_.assign(text, length);
        return true;
    }
    bool StartObject() {
        if (!std::exchange(rootSeen_, true)) return push(root_);
        return push(top().onObject(name_)), nameUsed();
    }
    bool StartArray() { return push(top().onArray(name_)), nameUsed(); }
    bool EndObject(rapidjson::SizeType) { return end(); }
    bool EndArray(rapidjson::SizeType) { return end(); }

private:
    // A parser that a handler left out counts as none.
    JsonParser& top() {
        if (stack_.empty() || !stack_.back()) {
            throw std::runtime_error("JSON Parse Error: No Current Handler for item: " + name_);
        }
        return *stack_.back();
    }
    bool push(std::shared_ptr<JsonParser> parser) {
        stack_.push_back(std::move(parser));
        return true;
    }
    bool nameUsed() {
        name_.clear();
        return true;
    }
    bool end() {
        if (!name_.empty()) throw std::runtime_error("End Object with a spare name: " + name_);
        top().onEnd();
        stack_.pop_back();
        return true;
    }

    std::shared_ptr<JsonParser> root_;
    std::vector<std::shared_ptr<JsonParser>> stack_;
    std::string name_;  // of the member whose value comes next
    bool rootSeen_ = false;
};

void logFailure(size_t offset, const char* reason) {
    VELMORA_LOG_AT(debug, "json", "velmora::JsonParser::parse")
        << "JsonParser Failed to parse at: " << offset << " Reason: " << reason;
}

}  // namespace

std::error_code JsonParser::parse(const std::string& text, std::shared_ptr<JsonParser> root) {
    PushHandler handler(std::move(root));
    size_t reached = 0;
    try {
        const rapidjson::ParseResult result = readText(text, handler, {.refusesBadUtf8 = false}, reached);
        if (result.IsError()) logFailure(result.Offset(), rapidjson::GetParseError_En(result.Code()));
        return static_cast<JsonError>(result.Code());
    } catch (const std::exception& e) {
        logFailure(reached, e.what());
        return JsonError::exception_thrown;
    }
}

}  // namespace velmora
