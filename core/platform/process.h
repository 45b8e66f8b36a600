// What the process knows of itself and asks of the system in passing: threads, environment, time zone, randomness, and
// what a program on the command line needs. Any thread; text is UTF-8.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace velmora::platform {

// The system's number of the calling thread.
[[nodiscard]] uint64_t currentThreadId() noexcept;

// Whether the pools' threads are gone, so that waiting for them would never end: on Windows in a process that is being
// taken down, on Linux in a child that was forked while the parent had them.
[[nodiscard]] bool isTerminating() noexcept;

// Whether this process was forked from one in which the library's pools had threads: what the library holds here is a
// copy of the parent's, and only the parent's serves. Never on Windows. Cheap.
[[nodiscard]] bool isForkedChild() noexcept;

// Holds back the calling thread's cancellation by another thread (pthread_cancel) until the end of the scope; the
// thread then ends at its next point of cancellation outside. Scopes may be nested. Nothing on Windows.
class [[nodiscard]] CancellationHold {
public:
    CancellationHold() noexcept;
    ~CancellationHold();
    CancellationHold(const CancellationHold&) = delete;
    CancellationHold& operator=(const CancellationHold&) = delete;

private:
    int before_ = 0;
};

// True if the variable is set, also if it is set to nothing; `value` receives its text in UTF-8.
[[nodiscard]] bool environmentVariable(const std::string& name, std::string& value);

// How far local time is ahead of UTC at that second since 1970. Follows changes of the zone. False if the system does
// not tell.
[[nodiscard]] bool localOffset(int64_t utcSeconds, std::chrono::seconds& offset) noexcept;

// Sixteen fresh bytes for an identifier, random but for the bits of version and variant, which may be set already; in
// the order of RFC 4122. Cheap: no system call per identifier where the system allows it. A forked child never repeats
// its parent's. Throws std::system_error if the system has no randomness to give.
[[nodiscard]] std::array<uint8_t, 16> randomGuidBytes();

// The arguments as UTF-8, without the program's name.
[[nodiscard]] std::vector<std::string> commandLineArguments(int argc, const char* const* argv);

// From now on standard input and output pass bytes on as they are, and a terminal takes what is written as UTF-8. Call
// it before anything is read or written.
void prepareStandardStreams();

}  // namespace velmora::platform
