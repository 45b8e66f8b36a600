// One request to one server: a WinHTTP request handle and what belongs to it.
#pragma once

#include <windows.h>
// After windows.h.
#include <winhttp.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "httpstack/exchange.h"
#include "httpstack/windows/mailbox.h"

namespace velmora::httpstack {

// Between UTF-8 and the system's wide text. What can't be converted becomes the replacement character.
[[nodiscard]] std::wstring wideText(std::string_view text);
[[nodiscard]] std::string utf8Text(std::wstring_view text);

struct CloseWinHttpHandle {
    void operator()(HINTERNET handle) const { ::WinHttpCloseHandle(handle); }
};

// Closes on destruction. Closing returns at once; what is under way ends by a report later.
using WinHttpHandle = std::unique_ptr<void, CloseWinHttpHandle>;

// An absolute URL of http or https, taken apart as the system wants it. A user name in it is dropped.
struct Target {
    bool isSecure = false;
    std::wstring host;
    uint16_t port = 0;
    std::wstring path;  // with the query

    // False if the system can't make sense of the URL; `target` may have changed then.
    [[nodiscard]] static bool parse(const std::string& url, Target& target);
};

// Every step is begun here and reports its end to the mailbox under the hop's number. A step that can't even begin
// gives the system's code; 0 stands for "begun". One step at a time.
//
// Owns both handles; its end closes them, which aborts a step under way. The buffer and the mailbox's address belong to
// the request handle and live until the system reports it closed, which may be later. Threads: the transport's only,
// but for the system's reports, which come on threads of its own and do no more than post.
class WinHttpHop {
public:
    // Sends nothing yet. Throws std::system_error if the system refuses.
    WinHttpHop(HINTERNET session, const Target& target, bool isPost, uint64_t number, std::shared_ptr<Mailbox> mailbox);
    WinHttpHop(const WinHttpHop&) = delete;
    WinHttpHop& operator=(const WinHttpHop&) = delete;

    // Connects, and sends the head; bodyLength is what will be written in all. Reports Connected and Sent.
    [[nodiscard]] DWORD beginSend(const std::vector<Header>& headers, uint32_t bodyLength);

    // For the body, both ways. It is the system's while a write or a read is under way.
    [[nodiscard]] std::vector<char>& buffer() const;
    [[nodiscard]] DWORD beginWrite(uint32_t length);  // the buffer's first bytes; reports Written

    // Waits for a head, after an interim response for the next one. Reports Headers.
    [[nodiscard]] DWORD beginResponse();

    // How much of the body has come (reports Available, 0 at its end), and reading of at most that (reports Read).
    [[nodiscard]] DWORD beginQuery();
    [[nodiscard]] DWORD beginRead(uint32_t length);

    // Of the response whose headers have come, and of the last such one.
    [[nodiscard]] uint32_t status() const;
    [[nodiscard]] std::string text(DWORD which) const;  // UTF-8; empty if there is no such header
    [[nodiscard]] bool isHeadTooLong() const;           // beyond kMaxHeadBytes
    [[nodiscard]] std::vector<Header> headers() const;

private:
    // What the system's reports need. Made here, freed by the last report.
    struct Shared;
    static void CALLBACK onStatus(HINTERNET handle, DWORD_PTR context, DWORD status, void* information, DWORD length);

    WinHttpHandle connection_;
    WinHttpHandle request_;
    Shared* shared_;  // belongs to the request handle, which outlives this object by its last report
};

}  // namespace velmora::httpstack
