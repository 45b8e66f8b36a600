// A file that several processes write to at the same time, each record whole and at the end.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace velmora::test {

// Unbuffered: what append() has written survives the death of the process. Threads: any.
class AppendFile {
public:
    // Opened for appending, made if it is not there. Throws std::system_error.
    explicit AppendFile(const std::string& path);
    ~AppendFile();
    AppendFile(const AppendFile&) = delete;
    AppendFile& operator=(const AppendFile&) = delete;

    // One write call. A process killed in the middle of it may leave the beginning of the text. Throws
    // std::system_error.
    void append(std::string_view text);

private:
    intptr_t handle_;
};

}  // namespace velmora::test
