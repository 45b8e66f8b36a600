#include "httpstack/linux/curltransport.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <stdexcept>
#include <utility>

#include "velmora/http.h"

namespace velmora::httpstack {
namespace {

constexpr int kPollMs = 1000;
constexpr std::chrono::milliseconds kPauseAfterFailure{100};

std::atomic<pid_t> processOfThread = 0;  // set by each transport; a child that is forked later has no such thread

CURLM* makeMulti() {
    static const CURLcode kInitialised = curl_global_init(CURL_GLOBAL_DEFAULT);
    CURLM* const multi = kInitialised == CURLE_OK ? curl_multi_init() : nullptr;
    if (multi == nullptr) throw std::runtime_error("libcurl can't be initialised");
    return multi;
}

// Blocks every signal of the calling thread for a while: a thread that is started meanwhile inherits that, so the
// host's handlers never run on it and a write to a closed connection does not end the process.
class SignalsBlocked {
public:
    SignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

private:
    sigset_t before_{};
};

// A scheme may be left out.
bool isProxyUrl(const std::string& text) {
    const std::unique_ptr<CURLU, void (*)(CURLU*)> url(curl_url(), curl_url_cleanup);
    return url && curl_url_set(url.get(), CURLUPART_URL, text.c_str(), CURLU_GUESS_SCHEME | CURLU_NON_SUPPORT_SCHEME) ==
                      CURLUE_OK;
}

int32_t resultOf(CURLcode code) {
    if (code == CURLE_OK) return VELMORA_HTTP_OK;
    return code == CURLE_URL_MALFORMAT ? VELMORA_HTTP_NON_RETRIABLE : VELMORA_HTTP_RETRIABLE;
}

}  // namespace

std::unique_ptr<Transport> makeTransport(const Settings& settings, ExchangeTable& table) {
    if (settings.proxy && !settings.proxy->empty() && !isProxyUrl(*settings.proxy)) {
        throw std::invalid_argument("the proxy is no URL");
    }
    if (!settings.caBundle.empty() && ::access(settings.caBundle.c_str(), R_OK) != 0) {
        throw std::invalid_argument("the bundle of certificates can't be read");
    }
    return std::make_unique<CurlTransport>(settings, table);
}

bool threadsAreGone() noexcept { return processOfThread != ::getpid(); }

CurlTransport::CurlTransport(const Settings& settings, ExchangeTable& table)
    : settings_(settings), table_(table), multi_(makeMulti()) {
    try {
        const SignalsBlocked blocked;
        thread_ = std::thread([this] { run(); });
        processOfThread = ::getpid();
    } catch (...) {
        curl_multi_cleanup(multi_);
        throw;
    }
}

CurlTransport::~CurlTransport() {
    stop();
    curl_multi_cleanup(multi_);
}

void CurlTransport::start(std::shared_ptr<Exchange> exchange) {
    post([&](Inbox& inbox) { inbox.started.push_back(std::move(exchange)); });
}

void CurlTransport::cancel(uint32_t id) {
    post([id](Inbox& inbox) { inbox.cancelled.push_back(id); });
}

void CurlTransport::stop() {
    post([](Inbox& inbox) { inbox.ending = true; });
    if (thread_.joinable()) thread_.join();
}

template <typename Change>
void CurlTransport::post(Change change) {
    {
        const MutexLock lock(mutex_);
        change(inbox_);
        posted_.notifyAll();
    }
    curl_multi_wakeup(multi_);
}

void CurlTransport::run() {
    while (takeInbox()) {
        int stillRunning = 0;
        curl_multi_perform(multi_, &stillRunning);
        endDone();
        if (curl_multi_poll(multi_, nullptr, 0, kPollMs, nullptr) != CURLM_OK) waitWithoutPoll();
    }
}

// Where the system refuses to poll, a wakeup would not be seen either.
void CurlTransport::waitWithoutPoll() {
    const MutexLock lock(mutex_);
    posted_.waitUntil(mutex_, std::chrono::steady_clock::now() + kPauseAfterFailure,
                      [this]() VELMORA_REQUIRES(mutex_) { return !inbox_.isEmpty(); });
}

bool CurlTransport::takeInbox() {
    Inbox taken;
    {
        const MutexLock lock(mutex_);
        taken.started.swap(inbox_.started);
        taken.cancelled.swap(inbox_.cancelled);
        taken.ending = inbox_.ending;
    }
    for (auto& exchange : taken.started) begin(std::move(exchange));
    for (const uint32_t id : taken.cancelled) endCancelled(id);
    return !taken.ending;
}

void CurlTransport::begin(std::shared_ptr<Exchange> exchange) {
    if (table_.isCancelled(exchange->id())) return table_.finish(*exchange, VELMORA_HTTP_CANCELLED, "");
    if (!isHttpUrl(exchange->url())) return table_.finish(*exchange, VELMORA_HTTP_NON_RETRIABLE, "malformed URL");
    try {
        auto handle = std::make_unique<CurlExchange>(exchange, settings_);
        CURL* const easy = handle->easy();
        running_.emplace(exchange->id(), std::move(handle));
        if (curl_multi_add_handle(multi_, easy) == CURLM_OK) return;
        running_.erase(exchange->id());
    } catch (const std::invalid_argument& problem) {
        return table_.finish(*exchange, VELMORA_HTTP_NON_RETRIABLE, problem.what());
    } catch (const std::exception&) {
        running_.erase(exchange->id());
    }
    table_.finish(*exchange, VELMORA_HTTP_RETRIABLE, "the request can't be started");
}

void CurlTransport::endCancelled(uint32_t id) {
    if (running_.count(id) != 0) end(id, CURLE_ABORTED_BY_CALLBACK);
}

void CurlTransport::endDone() {
    int left = 0;
    while (CURLMsg* const message = curl_multi_info_read(multi_, &left)) {
        if (message->msg == CURLMSG_DONE) end(CurlExchange::of(message->easy_handle).id(), message->data.result);
    }
}

void CurlTransport::end(uint32_t id, CURLcode code) {
    const auto found = running_.find(id);
    const std::unique_ptr<CurlExchange> done = std::move(found->second);
    running_.erase(found);
    curl_multi_remove_handle(multi_, done->easy());
    if (code == CURLE_OK) code = done->reportEnd();
    table_.finish(done->exchange(), resultOf(code), done->message(code));
}

}  // namespace velmora::httpstack
