// A child process that a test starts, reads from, and kills without warning.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace velmora::test {

// Its standard output comes here; its standard input ends when closeInput() is called or this process dies, so that a
// child that watches it never outlives the test. Standard error is shared.
//
// Threads: one at a time. Start children from one thread of the process only.
class ChildProcess {
public:
    static constexpr int kKilled = -1;

    // Throws std::system_error if it can't be started.
    ChildProcess(const std::string& program, const std::vector<std::string>& arguments);

    // Kills it if it still runs.
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // The next line of its output, without the line end; false when the output has ended. Blocks.
    bool readLine(std::string& line);

    void closeInput();

    // Ends it at whatever it is doing, without its knowledge. Its files are closed and its locks are free when kill()
    // returns. Nothing happens to a child that has ended.
    void kill();

    // Blocks until it has ended. kKilled if it was killed, else its exit code; a crash of its own counts as one.
    int wait();

private:
    struct Handles;

    size_t read(char* buffer, size_t size);  // 0 when the output has ended

    std::unique_ptr<Handles> handles_;
    std::string pending_;
};

}  // namespace velmora::test
