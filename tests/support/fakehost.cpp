#include "tests/support/fakehost.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <stdexcept>

namespace velmora::test {

std::string gunzip(const std::string& bytes) {
    z_stream stream{};
    if (inflateInit2(&stream, 15 + 32) != Z_OK) throw std::runtime_error("inflate init failed");
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
    stream.avail_in = static_cast<uInt>(bytes.size());
    std::string text;
    std::array<char, 16384> buffer{};
    int rc = Z_OK;
    while (rc == Z_OK) {
        stream.next_out = reinterpret_cast<Bytef*>(buffer.data());
        stream.avail_out = static_cast<uInt>(buffer.size());
        rc = inflate(&stream, Z_NO_FLUSH);
        text.append(buffer.data(), buffer.size() - stream.avail_out);
    }
    inflateEnd(&stream);
    if (rc != Z_STREAM_END || stream.avail_in != 0) throw std::runtime_error("not a whole gzip stream");
    return text;
}

std::string HostRequest::text() const {
    const bool zipped = std::any_of(headers.begin(), headers.end(), [](const auto& header) {
        std::string key = header.first;
        std::transform(key.begin(), key.end(), key.begin(),
                       [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
        return key == "content-encoding" && header.second == "gzip";
    });
    return zipped ? gunzip(body) : body;
}

Answer Answer::failure(uint32_t result, std::string message) {
    Answer answer;
    answer.status = 0;
    answer.result = result;
    answer.message = std::move(message);
    return answer;
}

Answer Answer::refusal(int32_t sendResult) {
    Answer answer;
    answer.sendResult = sendResult;
    return answer;
}

struct FakeHost::Exchange {
    void* session = nullptr;
    void* context = nullptr;
    HostRequest request;  // guarded by the host's mutex once recorded
    Answer answer;
    bool cancelled = false;  // only a cancel-completion is still to come, or nothing
    bool claimed = false;    // a thread is reporting, or has reported
};

namespace {

std::mutex currentMutex;
std::condition_variable currentChange;
FakeHost* current = nullptr;

}  // namespace

// Keeps the host from going away while one of its callbacks runs.
class FakeHost::Visit {
public:
    Visit() {
        const std::lock_guard lock(currentMutex);
        host_ = current;
        if (host_) ++host_->visitors_;
    }
    ~Visit() {
        if (!host_) return;
        const std::lock_guard lock(currentMutex);
        --host_->visitors_;
        currentChange.notify_all();
    }
    Visit(const Visit&) = delete;
    Visit& operator=(const Visit&) = delete;
    FakeHost* host() const { return host_; }

private:
    FakeHost* host_;
};

FakeHost::FakeHost(int threads) {
    answerAll({});
    for (int i = 0; i < threads; ++i) threads_.emplace_back([this] { work(); });
    const std::lock_guard lock(currentMutex);
    if (current) throw std::logic_error("another FakeHost is alive");
    current = this;
    velmora_http_setNewSessionCallback(newSession);
    velmora_http_setDeleteSessionCallback(deleteSession);
    velmora_http_setSendRequestCallback(sendRequest);
    velmora_http_setCancelRequestCallback(cancelRequest);
}

FakeHost::~FakeHost() {
    velmora_http_setNewSessionCallback(nullptr);
    velmora_http_setDeleteSessionCallback(nullptr);
    velmora_http_setSendRequestCallback(nullptr);
    velmora_http_setCancelRequestCallback(nullptr);
    {
        std::unique_lock lock(currentMutex);
        current = nullptr;
        currentChange.wait(lock, [this] { return visitors_ == 0; });
    }
    {
        const std::lock_guard lock(mutex_);
        for (const auto& exchange : exchanges_) {
            if (exchange->claimed) continue;
            exchange->cancelled = true;
            ready_.push_back(exchange);
        }
        ending_ = true;
    }
    changed();
    for (std::thread& thread : threads_) thread.join();
}

void FakeHost::answer(Answer next) {
    const std::lock_guard lock(mutex_);
    answers_.push_back(std::move(next));
}

void FakeHost::answerAll(Answer always) {
    answerBy([always = std::move(always)](const HostRequest&) { return always; });
}

void FakeHost::answerBy(std::function<Answer(const HostRequest&)> function) { set(byRequest_, std::move(function)); }

void FakeHost::hold() { set(holding_, true); }

void FakeHost::release() {
    {
        const std::lock_guard lock(mutex_);
        holding_ = false;
        ready_.insert(ready_.end(), held_.begin(), held_.end());
        held_.clear();
    }
    changed();
}

void FakeHost::release(size_t count) {
    {
        const std::lock_guard lock(mutex_);
        for (; count > 0 && !held_.empty(); --count) {
            ready_.push_back(held_.front());
            held_.pop_front();
        }
    }
    changed();
}

void FakeHost::onCancel(OnCancel behaviour) { set(onCancel_, behaviour); }

void FakeHost::failNewSessions(bool fail) { set(failNewSessions_, fail); }

std::vector<HostRequest> FakeHost::requests() const {
    const std::lock_guard lock(mutex_);
    std::vector<HostRequest> all;
    for (const auto& exchange : recorded_) all.push_back(exchange->request);
    std::sort(all.begin(), all.end(), [](const HostRequest& a, const HostRequest& b) { return a.id < b.id; });
    return all;
}

size_t FakeHost::sends() const { return read(sends_); }
size_t FakeHost::cancels() const { return read(cancels_); }
size_t FakeHost::deletedSessions() const { return read(deletedSessions_); }

bool FakeHost::waitForRequests(size_t count, std::chrono::milliseconds patience) const {
    std::unique_lock lock(mutex_);
    return change_.wait_for(lock, patience, [&] { return recorded_.size() >= count; });
}

bool FakeHost::waitForCompletions(size_t count, std::chrono::milliseconds patience) const {
    std::unique_lock lock(mutex_);
    return change_.wait_for(lock, patience, [&] {
        const auto completed = std::count_if(exchanges_.begin(), exchanges_.end(),
                                             [](const auto& exchange) { return exchange->request.completed; });
        return static_cast<size_t>(completed) >= count;
    });
}

bool FakeHost::waitUntil(const std::function<bool()>& predicate, std::chrono::milliseconds patience) const {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (!predicate()) {
        std::unique_lock lock(mutex_);
        if (std::chrono::steady_clock::now() >= deadline) return false;
        change_.wait_for(lock, std::chrono::milliseconds(2));
    }
    return true;
}

void* FakeHost::newSession() {
    const Visit visit;
    if (!visit.host()) return nullptr;
    FakeHost& host = *visit.host();
    const std::lock_guard lock(host.mutex_);
    if (host.failNewSessions_) return nullptr;
    return host.sessions_.emplace_back(std::make_unique<char>()).get();
}

void FakeHost::deleteSession(void*) {
    const Visit visit;
    if (!visit.host()) return;
    {
        const std::lock_guard lock(visit.host()->mutex_);
        ++visit.host()->deletedSessions_;
    }
    visit.host()->changed();
}

int32_t FakeHost::sendRequest(void* session, int32_t verb, const char* url, int32_t version, void* context,
                              uint32_t* requestId) {
    const Visit visit;
    if (!visit.host()) return VELMORA_HTTP_UNKNOWN;
    return visit.host()->send(visit.host()->accept(session, verb, url, version, context), requestId);
}

int32_t FakeHost::cancelRequest(void*, uint32_t requestId) {
    const Visit visit;
    return visit.host() ? visit.host()->cancel(requestId) : int32_t{VELMORA_HTTP_INVALID_INPUT};
}

std::shared_ptr<FakeHost::Exchange> FakeHost::accept(void* session, int32_t verb, const char* url, int32_t version,
                                                     void* context) {
    auto exchange = std::make_shared<Exchange>();
    exchange->session = session;
    exchange->context = context;
    exchange->request.verb = verb;
    exchange->request.url = url;
    exchange->request.version = version;
    const std::lock_guard lock(mutex_);
    exchange->request.id = static_cast<uint32_t>(++sends_);
    return exchange;
}

int32_t FakeHost::send(const std::shared_ptr<Exchange>& exchange, uint32_t* requestId) {
    *requestId = exchange->request.id;
    pull(*exchange);
    exchange->answer = pickAnswer(exchange->request);
    const bool refused = exchange->answer.sendResult != 0;
    const bool atOnce = exchange->answer.where == Answer::Where::withinSend;
    {
        const std::lock_guard lock(mutex_);
        recorded_.push_back(exchange);
        exchange->claimed = refused || atOnce;
        if (!refused) exchanges_.push_back(exchange);
    }
    changed();
    if (refused) return exchange->answer.sendResult;
    if (atOnce) {
        report(*exchange, exchange->answer);
    } else if (exchange->answer.where == Answer::Where::worker) {
        queue(exchange);
    }
    return VELMORA_HTTP_OK;
}

void FakeHost::queue(const std::shared_ptr<Exchange>& exchange) {
    {
        const std::lock_guard lock(mutex_);
        (holding_ || exchange->answer.held ? held_ : ready_).push_back(exchange);
    }
    changed();
}

void FakeHost::pull(Exchange& exchange) {
    constexpr uint32_t kCapacity = 64;
    const auto headers = std::make_unique<std::array<velmora_http_header, kCapacity>>();
    uint32_t count = 0;
    velmora_http_onRequestHeaders(exchange.session, headers->data(), kCapacity, &count, exchange.context);
    for (uint32_t i = 0; i < count; ++i) exchange.request.headers[(*headers)[i].key] = (*headers)[i].value;

    uint64_t length = 0;
    velmora_http_onRequestBodyLength(exchange.session, &length, exchange.context);
    std::array<char, 4096> buffer{};
    uint64_t written = 0;
    do {
        written = 0;
        velmora_http_onRequestBody(exchange.session, exchange.request.body.size(), buffer.data(), &written,
                                   buffer.size(), exchange.context);
        exchange.request.body.append(buffer.data(), written);
    } while (written != 0);
    if (exchange.request.body.size() != length) throw std::logic_error("body and its length differ");
}

Answer FakeHost::pickAnswer(const HostRequest& request) {
    std::function<Answer(const HostRequest&)> function;
    {
        const std::lock_guard lock(mutex_);
        if (!answers_.empty()) {
            Answer next = std::move(answers_.front());
            answers_.pop_front();
            return next;
        }
        function = byRequest_;
    }
    return function(request);
}

int32_t FakeHost::cancel(uint32_t requestId) {
    {
        const std::lock_guard lock(mutex_);
        ++cancels_;
        const auto found = std::find_if(exchanges_.begin(), exchanges_.end(),
                                        [&](const auto& exchange) { return exchange->request.id == requestId; });
        if (found == exchanges_.end()) return VELMORA_HTTP_INVALID_INPUT;
        const std::shared_ptr<Exchange> exchange = *found;
        ++exchange->request.cancels;
        if (exchange->claimed || onCancel_ == OnCancel::ignored) return VELMORA_HTTP_CANCEL_IGNORED;
        exchange->cancelled = true;
        exchange->claimed = onCancel_ != OnCancel::complete;
        held_.erase(std::remove(held_.begin(), held_.end(), exchange), held_.end());
        if (onCancel_ == OnCancel::unknown) return VELMORA_HTTP_INVALID_INPUT;
        if (onCancel_ == OnCancel::complete) ready_.push_back(exchange);
    }
    changed();
    return VELMORA_HTTP_OK;
}

void FakeHost::report(Exchange& exchange, const Answer& answer) {
    if (answer.status != 0) {
        velmora_http_onResponseStatus(exchange.session, "HTTP/1.1", answer.status, "", exchange.context);
        std::vector<const char*> pairs;
        for (const auto& [key, value] : answer.headers) pairs.insert(pairs.end(), {key.c_str(), value.c_str()});
        velmora_http_onResponseHeaders(exchange.session, pairs.data(), static_cast<uint32_t>(answer.headers.size()),
                                       exchange.context);
    }
    const Answer::Chunks whole{{0, answer.body}};
    for (const auto& [offset, data] : answer.chunks.empty() && !answer.body.empty() ? whole : answer.chunks) {
        velmora_http_onResponseBody(exchange.session, offset, data.data(), data.size(), exchange.context);
    }
    complete(exchange, answer);
}

void FakeHost::complete(Exchange& exchange, const Answer& answer) {
    for (int i = 0; i < answer.completions; ++i) {
        velmora_http_onCompletion(exchange.session, answer.result, answer.message.c_str(), exchange.context);
    }
    {
        const std::lock_guard lock(mutex_);
        exchange.request.completed = true;
    }
    changed();
}

void FakeHost::work() {
    std::unique_lock lock(mutex_);
    while (true) {
        change_.wait(lock, [this] { return ending_ || !ready_.empty(); });
        if (ready_.empty()) return;
        const std::shared_ptr<Exchange> exchange = ready_.front();
        ready_.pop_front();
        if (exchange->claimed) continue;
        exchange->claimed = true;
        const bool cancelled = exchange->cancelled;
        lock.unlock();
        if (cancelled) {
            complete(*exchange, Answer::failure(VELMORA_HTTP_CANCELLED));
        } else {
            report(*exchange, exchange->answer);
        }
        lock.lock();
    }
}

}  // namespace velmora::test
