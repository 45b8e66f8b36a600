#include "tests/support/childprocess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

extern char** environ;

namespace velmora::test {
namespace {

constexpr int kSignalled = 128;  // what a shell adds to the number of a signal

class Descriptor {
public:
    explicit Descriptor(int number = -1) : number_(number) {}
    ~Descriptor() { close(); }
    Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(number_, other.number_);
        return *this;
    }
    int number() const { return number_; }
    void close() {
        if (number_ >= 0) ::close(std::exchange(number_, -1));
    }

private:
    int number_;
};

void check(int error, const std::string& what) {
    if (error != 0) throw std::system_error(error, std::generic_category(), what);
}

// First the end to read from.
std::pair<Descriptor, Descriptor> makePipe() {
    std::array<int, 2> ends{};
    check(::pipe2(ends.data(), O_CLOEXEC) == 0 ? 0 : errno, "pipe");
    return {Descriptor(ends[0]), Descriptor(ends[1])};
}

}  // namespace

struct ChildProcess::Handles {
    pid_t pid = -1;
    bool ended = false;
    int exitCode = kKilled;
    Descriptor input;
    Descriptor output;
};

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& arguments)
    : handles_(std::make_unique<Handles>()) {
    auto [childInput, input] = makePipe();
    auto [output, childOutput] = makePipe();
    posix_spawn_file_actions_t actions;
    check(posix_spawn_file_actions_init(&actions), "posix_spawn_file_actions_init");
    posix_spawn_file_actions_adddup2(&actions, childInput.number(), STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, childOutput.number(), STDOUT_FILENO);
    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    const int error = posix_spawn(&handles_->pid, program.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    check(error, program);
    handles_->input = std::move(input);
    handles_->output = std::move(output);
}

ChildProcess::~ChildProcess() { kill(); }

size_t ChildProcess::read(char* buffer, size_t size) {
    const ssize_t count = ::read(handles_->output.number(), buffer, size);
    return count > 0 ? static_cast<size_t>(count) : 0;
}

void ChildProcess::closeInput() { handles_->input.close(); }

void ChildProcess::kill() {
    if (!handles_->ended) ::kill(handles_->pid, SIGKILL);
    wait();
}

int ChildProcess::wait() {
    if (handles_->ended) return handles_->exitCode;
    int status = 0;
    while (::waitpid(handles_->pid, &status, 0) < 0) {
        if (errno != EINTR) throw std::system_error(errno, std::generic_category(), "waitpid");
    }
    handles_->ended = true;
    if (WIFEXITED(status)) handles_->exitCode = WEXITSTATUS(status);
    if (WIFSIGNALED(status) && WTERMSIG(status) != SIGKILL) handles_->exitCode = kSignalled + WTERMSIG(status);
    return handles_->exitCode;
}

}  // namespace velmora::test
