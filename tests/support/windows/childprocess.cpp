#include "tests/support/childprocess.h"

#include <windows.h>

#include <boost/filesystem/path.hpp>
#include <system_error>
#include <utility>

namespace velmora::test {
namespace {

// What kill() makes of a child's exit code; no child of ours ends with it by itself.
constexpr UINT kKilledCode = 0xDEAD;

class Handle {
public:
    explicit Handle(HANDLE handle = nullptr) : handle_(handle) {}
    ~Handle() { close(); }
    Handle(Handle&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
    Handle& operator=(Handle&& other) noexcept {
        std::swap(handle_, other.handle_);
        return *this;
    }
    HANDLE get() const { return handle_; }
    void close() {
        if (handle_ != nullptr) CloseHandle(std::exchange(handle_, nullptr));
    }

private:
    HANDLE handle_;
};

void check(BOOL worked, const std::string& what) {
    if (!worked) throw std::system_error(static_cast<int>(GetLastError()), std::system_category(), what);
}

// First the end to read from. Both are inherited unless kept.
std::pair<Handle, Handle> makePipe() {
    SECURITY_ATTRIBUTES inherited{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    HANDLE reader = nullptr;
    HANDLE writer = nullptr;
    check(CreatePipe(&reader, &writer, &inherited, 0), "CreatePipe");
    return {Handle(reader), Handle(writer)};
}

void keep(const Handle& end) { check(SetHandleInformation(end.get(), HANDLE_FLAG_INHERIT, 0), "SetHandleInformation"); }

std::wstring quoted(const std::string& text) { return L"\"" + boost::filesystem::path(text).wstring() + L"\""; }

}  // namespace

struct ChildProcess::Handles {
    Handle process;
    Handle input;
    Handle output;
};

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& arguments)
    : handles_(std::make_unique<Handles>()) {
    auto [childInput, input] = makePipe();
    auto [output, childOutput] = makePipe();
    keep(input);
    keep(output);
    std::wstring commandLine = quoted(program);
    for (const std::string& argument : arguments) commandLine += L" " + quoted(argument);
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = childInput.get();
    startup.hStdOutput = childOutput.get();
    startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
    PROCESS_INFORMATION started{};
    check(CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &started),
          program);
    CloseHandle(started.hThread);
    handles_->process = Handle(started.hProcess);
    handles_->input = std::move(input);
    handles_->output = std::move(output);
}

ChildProcess::~ChildProcess() { kill(); }

size_t ChildProcess::read(char* buffer, size_t size) {
    DWORD count = 0;
    return ReadFile(handles_->output.get(), buffer, static_cast<DWORD>(size), &count, nullptr) ? count : 0;
}

void ChildProcess::closeInput() { handles_->input.close(); }

void ChildProcess::kill() {
    TerminateProcess(handles_->process.get(), kKilledCode);  // refused if it has ended
    wait();
}

int ChildProcess::wait() {
    WaitForSingleObject(handles_->process.get(), INFINITE);
    DWORD code = kKilledCode;
    GetExitCodeProcess(handles_->process.get(), &code);
    return code == kKilledCode ? kKilled : static_cast<int>(code);
}

}  // namespace velmora::test
