// One exchange as a libcurl easy handle.
#pragma once

#include <curl/curl.h>

#include <array>
#include <memory>
#include <string>
#include <vector>

#include "httpstack/exchange.h"
#include "httpstack/settings.h"

namespace velmora::httpstack {

// Streams the request's body from the library and the response to it. Of a chain of interim and redirected responses
// only the last one is reported, so status and headers wait until its first body byte or its end. A redirect to another
// origin, a head or a body that is too long, and a last status that is no answer of the service fail the exchange.
//
//   head of a response -> another head (interim, redirect): what was kept is dropped
//                      -> first byte of the body, or the end: status and headers are reported, once
//
// Owns the easy handle and what that one reads: request headers and error text. Lives until it has left the multi
// handle. Threads: the transport's only; libcurl's callbacks run there, too.
class CurlExchange {
public:
    // Asks the library for headers and body length. `settings` are read now, and not kept. Throws std::bad_alloc if
    // libcurl is out of memory, and std::invalid_argument for a header that must not be sent.
    CurlExchange(std::shared_ptr<Exchange> exchange, const Settings& settings);
    CurlExchange(const CurlExchange&) = delete;
    CurlExchange& operator=(const CurlExchange&) = delete;

    // The exchange whose handle that is.
    [[nodiscard]] static CurlExchange& of(CURL* easy);

    [[nodiscard]] CURL* easy() const { return easy_.get(); }
    [[nodiscard]] uint32_t id() const { return exchange_->id(); }
    [[nodiscard]] const Exchange& exchange() const { return *exchange_; }

    // Ends a transfer that libcurl calls good: reports status and headers of a response that had no body. A response
    // that broke off in its headers, which libcurl lets pass, gives an error, and so does a failure of the library.
    [[nodiscard]] CURLcode reportEnd();

    // What went wrong, for the host's log; empty for CURLE_OK.
    [[nodiscard]] std::string message(CURLcode code) const;

private:
    struct FreeEasy {
        void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
    };
    struct FreeList {
        void operator()(curl_slist* list) const { curl_slist_free_all(list); }
    };

    // What libcurl calls; `self` is the exchange. Each returns what libcurl takes for success, or ends the transfer.
    static curl_socket_t onOpenSocket(void*, curlsocktype, curl_sockaddr* address);
    static size_t onRead(char* buffer, size_t size, size_t count, void* self);
    static int onSeek(void* self, curl_off_t offset, int origin);
    static size_t onHeader(char* line, size_t size, size_t count, void* self);
    static size_t onWrite(char* data, size_t size, size_t count, void* self);

    // Throws std::bad_alloc: the options are right, so only memory can be missing.
    template <typename Value>
    void set(CURLoption option, Value value);
    void setTransport(const Settings& settings);  // where to, by what way, trusting whom
    void setLimits(const Settings& settings);
    void setRedirects(const Settings& settings);
    void setRequest();
    void addHeader(const std::string& line);

    // The next bytes of the request's body; 0 at its end.
    size_t readBody(char* buffer, size_t capacity);

    // The checks give false, and have noted why, where the exchange is to be ended.
    [[nodiscard]] bool takeHeaderLine(std::string_view line);
    [[nodiscard]] bool mayFollow(std::string_view location) const;
    [[nodiscard]] bool refuse(const char* why);  // notes it; always false

    // A head begins: what was kept of an earlier one is dropped, since that was not the last.
    void beginResponse(std::string_view statusLine);

    // Tells the library of status and headers, the first time it is called; false if the library can't take them.
    bool reportHead();
    size_t takeBody(const char* data, size_t length);

    const std::shared_ptr<Exchange> exchange_;
    const uint64_t maxResponseBytes_;
    const char* refusal_ = nullptr;                         // why the exchange was ended here, if it was
    uint64_t headBytes_ = 0;                                // of all heads so far
    std::unique_ptr<curl_slist, FreeList> requestHeaders_;  // used by the handle, so declared before it
    std::array<char, CURL_ERROR_SIZE> error_{};
    std::unique_ptr<CURL, FreeEasy> easy_;

    // Both ways, in bytes.
    uint64_t requestLength_ = 0;
    uint64_t requestOffset_ = 0;   // of the byte that is sent next; back to 0 for a redirect
    uint64_t responseOffset_ = 0;  // of the byte that comes next

    // Of the head that came last.
    bool headComplete_ = false;  // the empty line of the last head has come
    bool headReported_ = false;
    std::string protocol_;
    std::string reason_;
    std::vector<Header> responseHeaders_;
};

}  // namespace velmora::httpstack
