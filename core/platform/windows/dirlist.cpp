#include "core/platform/dirlist.h"

#include <windows.h>

#include <array>

namespace velmora::platform {
namespace {

using OnChild = std::function<bool(const boost::filesystem::path& name)>;

class Search {
public:
    explicit Search(HANDLE handle) : handle_(handle) {}
    ~Search() { ::FindClose(handle_); }
    Search(const Search&) = delete;
    Search& operator=(const Search&) = delete;

private:
    const HANDLE handle_;
};

class Folder {
public:
    explicit Folder(const boost::filesystem::path& path)
        : handle_(::CreateFileW(path.c_str(), FILE_LIST_DIRECTORY,
                                FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                                FILE_FLAG_BACKUP_SEMANTICS, nullptr)) {}
    ~Folder() {
        if (isOpen()) ::CloseHandle(handle_);
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    bool isOpen() const { return handle_ != INVALID_HANDLE_VALUE; }
    HANDLE handle() const { return handle_; }

private:
    const HANDLE handle_;
};

ListOutcome outcomeOf(DWORD lastError, int& code) {
    code = static_cast<int>(lastError);
    return lastError == ERROR_NO_MORE_FILES ? ListOutcome::complete : ListOutcome::readFailed;
}

// By a handle that shares everything.
ListOutcome listShared(const boost::filesystem::path& path, const OnChild& onChild, int& code) {
    const Folder folder(path);
    if (!folder.isOpen()) {
        code = static_cast<int>(::GetLastError());
        return ListOutcome::openFailed;
    }
    alignas(FILE_ID_BOTH_DIR_INFO) std::array<char, 16384> block{};
    const auto size = static_cast<DWORD>(block.size());
    while (::GetFileInformationByHandleEx(folder.handle(), FileIdBothDirectoryInfo, block.data(), size) != FALSE) {
        const char* at = block.data();
        for (DWORD next = 1; next != 0; at += next) {
            const auto* const child = reinterpret_cast<const FILE_ID_BOTH_DIR_INFO*>(at);
            const std::wstring name(child->FileName, child->FileNameLength / sizeof(wchar_t));
            if (!onChild(boost::filesystem::path(name))) return ListOutcome::complete;
            next = child->NextEntryOffset;
        }
    }
    return outcomeOf(::GetLastError(), code);
}

}  // namespace

ListOutcome listFolder(const boost::filesystem::path& path, const OnChild& onChild, int& code) {
    WIN32_FIND_DATAW child{};
    const HANDLE search = ::FindFirstFileW((path / L"*").c_str(), &child);
    if (search == INVALID_HANDLE_VALUE) {
        code = static_cast<int>(::GetLastError());
        // Not every system's search shares the right to delete, which the holder of an instance folder has.
        return code == ERROR_SHARING_VIOLATION ? listShared(path, onChild, code) : ListOutcome::openFailed;
    }
    const Search closedAtTheEnd(search);
    do {
        if (!onChild(boost::filesystem::path(child.cFileName))) return ListOutcome::complete;
    } while (::FindNextFileW(search, &child) != FALSE);
    return outcomeOf(::GetLastError(), code);
}

}  // namespace velmora::platform
