// One request to one server: a WinHTTP request handle and what belongs to it.
#pragma once

#include <windows.h>
// After windows.h.
#include <winhttp.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "httpstack/exchange.h"
#include "httpstack/windows/mailbox.h"

namespace velmora::httpstack {

struct CloseWinHttpHandle {
    void operator()(HINTERNET handle) const { ::WinHttpCloseHandle(handle); }
};
using WinHttpHandle = std::unique_ptr<void, CloseWinHttpHandle>;

// An absolute URL of http or https, taken apart.
struct Target {
    bool isSecure = false;
    std::wstring host;
    uint16_t port = 0;
    std::wstring path;  // with the query

    // False if the system can't make sense of the URL.
    [[nodiscard]] static bool parse(const std::string& url, Target& target);
};

// Every step is begun here and reports its end to the mailbox under the hop's number. A step that can't even begin
// gives the system's code; 0 stands for "begun".
//
// The end of the object closes the handle, which aborts a step under way. Buffers live until the system has let go of
// them. Threads: the transport's only.
class WinHttpHop {
public:
    // Throws std::system_error if the system refuses.
    WinHttpHop(HINTERNET session, const Target& target, bool isPost, uint64_t number, std::shared_ptr<Mailbox> mailbox);
    WinHttpHop(const WinHttpHop&) = delete;
    WinHttpHop& operator=(const WinHttpHop&) = delete;

    [[nodiscard]] DWORD beginSend(const std::vector<Header>& headers, uint32_t bodyLength);
    [[nodiscard]] std::vector<char>& buffer() const;  // for the body, both ways
    [[nodiscard]] DWORD beginWrite(uint32_t length);
    [[nodiscard]] DWORD beginResponse();
    [[nodiscard]] DWORD beginQuery();
    [[nodiscard]] DWORD beginRead(uint32_t length);

    // Of the response whose headers have come.
    [[nodiscard]] uint32_t status() const;
    [[nodiscard]] std::string text(DWORD which) const;  // UTF-8; empty if there is no such header
    [[nodiscard]] bool isHeadTooLong() const;           // beyond kMaxHeadBytes
    [[nodiscard]] std::vector<Header> headers() const;

private:
    struct Shared;
    static void CALLBACK onStatus(HINTERNET handle, DWORD_PTR context, DWORD status, void* information, DWORD length);

    WinHttpHandle connection_;
    WinHttpHandle request_;
    Shared* shared_;  // belongs to the request handle, which outlives this object by its last report
};

}  // namespace velmora::httpstack
