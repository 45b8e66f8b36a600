// A host's HTTP stack for tests: a small working thing behind the four callbacks of velmora/http.h, with scripted
// answers. It keeps the rules of the interface unless an answer says otherwise.
//
//     FakeHost host;
//     host.answer({.status = 503, .headers = {{"retry-after", "2"}}});
//     host.answer(Answer::failure(VELMORA_HTTP_RETRIABLE));        // then 200 for whatever else comes
//     ... let the library send ...
//     ASSERT_TRUE(host.waitForRequests(2));
//     EXPECT_EQ(host.requests()[0].text(), R"({"events":[...]})");
//
// One FakeHost lives at a time. Threads: all operations from any. Everything that a request is to be answered with runs
// on threads of the host, unless the answer comes from within send.
#pragma once

#include <velmora/http.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace velmora::test {

inline constexpr std::chrono::milliseconds kPatience{20000};

// Inflates a gzip or zlib stream; throws std::runtime_error for anything else.
[[nodiscard]] std::string gunzip(const std::string& bytes);

// A request as the host got to see it.
struct HostRequest {
    uint32_t id = 0;   // as given to the library
    int32_t verb = 0;  // velmora_http_verb
    int32_t version = 0;
    std::string url;
    std::map<std::string, std::string> headers;
    std::string body;        // bytes, as pulled
    int cancels = 0;         // how often the library asked for its end
    bool completed = false;  // the last completion has been reported, and has returned

    // The body, inflated if the headers say that it is gzip.
    [[nodiscard]] std::string text() const;
};

struct Answer {
    enum class Where {
        worker,      // on a thread of the host, after send has returned or while it does
        withinSend,  // everything, the completion too, before send returns
        nowhere,     // taken over and never heard of again
    };
    using Pairs = std::vector<std::pair<std::string, std::string>>;
    using Chunks = std::vector<std::pair<uint64_t, std::string>>;

    uint32_t status = 200;  // 0: no status line
    Pairs headers = {};
    std::string body = {};
    Chunks chunks = {};                 // if any: what is reported in place of `body`, in this order
    uint32_t result = VELMORA_HTTP_OK;  // of the completion
    std::string message = {};
    int32_t sendResult = 0;  // not 0: send returns it, and nothing else happens
    Where where = Where::worker;
    int completions = 1;
    bool held = false;  // waits for release(), also if the host is not on hold

    [[nodiscard]] static Answer failure(uint32_t result, std::string message = "");  // of the transport
    [[nodiscard]] static Answer refusal(int32_t sendResult);
};

// What the cancel callback does for a request that is not complete.
enum class OnCancel {
    complete,  // returns 0, drops the answer and completes with VELMORA_HTTP_CANCELLED on a thread of the host
    silent,    // returns 0, drops the answer, and never completes
    unknown,   // returns 2, drops the answer, and never completes
    ignored,   // returns 3; the answer comes as scripted
};

class FakeHost {
public:
    // Installs the callbacks.
    explicit FakeHost(int threads = 1);

    // Removes the callbacks, completes what is still open as cancelled and ends the threads.
    ~FakeHost();
    FakeHost(const FakeHost&) = delete;
    FakeHost& operator=(const FakeHost&) = delete;

    // The next request that has no answer yet gets this one; the answers of several calls queue up.
    void answer(Answer next);
    void answerAll(Answer always);                                      // what comes when the queue is empty; 200
    void answerBy(std::function<Answer(const HostRequest&)> function);  // the same, by looking at the request

    // While on hold, requests are taken over and recorded, and their answers wait. release() ends the hold and lets all
    // answers go in the order of their requests, release(1) only the oldest one and the hold goes on.
    void hold();
    void release();
    void release(size_t count);

    void onCancel(OnCancel behaviour);
    void failNewSessions(bool fail);

    // Everything recorded so far, in the order of the send calls. A request is recorded when its body has been pulled.
    [[nodiscard]] std::vector<HostRequest> requests() const;
    [[nodiscard]] size_t sends() const;  // calls, refused ones included
    [[nodiscard]] size_t cancels() const;
    [[nodiscard]] size_t deletedSessions() const;

    // False if it has not come about after the patience.
    bool waitForRequests(size_t count, std::chrono::milliseconds patience = kPatience) const;
    bool waitForCompletions(size_t count, std::chrono::milliseconds patience = kPatience) const;
    bool waitUntil(const std::function<bool()>& predicate, std::chrono::milliseconds patience = kPatience) const;

private:
    struct Exchange;
    class Visit;

    static void* newSession();
    static void deleteSession(void* session);
    static int32_t sendRequest(void* session, int32_t verb, const char* url, int32_t version, void* context,
                               uint32_t* requestId);
    static int32_t cancelRequest(void* session, uint32_t requestId);

    int32_t send(const std::shared_ptr<Exchange>& exchange, uint32_t* requestId);
    int32_t cancel(uint32_t requestId);
    [[nodiscard]] std::shared_ptr<Exchange> accept(void* session, int32_t verb, const char* url, int32_t version,
                                                   void* context);
    void queue(const std::shared_ptr<Exchange>& exchange);
    void pull(Exchange& exchange);
    [[nodiscard]] Answer pickAnswer(const HostRequest& request);
    void report(Exchange& exchange, const Answer& answer);
    void complete(Exchange& exchange, const Answer& answer);
    void work();
    void changed() const { change_.notify_all(); }
    template <typename Value>
    Value read(const Value& member) const {
        const std::lock_guard lock(mutex_);
        return member;
    }
    template <typename Value>
    void set(Value& member, Value value) {
        const std::lock_guard lock(mutex_);
        member = std::move(value);
    }

    mutable std::mutex mutex_;
    mutable std::condition_variable change_;
    std::vector<std::shared_ptr<Exchange>> exchanges_;  // every one taken over, by send order
    std::vector<std::shared_ptr<Exchange>> recorded_;
    std::deque<std::shared_ptr<Exchange>> held_;
    std::deque<std::shared_ptr<Exchange>> ready_;
    std::deque<Answer> answers_;
    std::function<Answer(const HostRequest&)> byRequest_;
    std::vector<std::unique_ptr<char>> sessions_;  // their addresses are the handles
    OnCancel onCancel_ = OnCancel::complete;
    bool holding_ = false;
    bool ending_ = false;
    bool failNewSessions_ = false;
    size_t sends_ = 0;
    size_t cancels_ = 0;
    size_t deletedSessions_ = 0;
    int visitors_ = 0;
    std::vector<std::thread> threads_;
};

}  // namespace velmora::test
