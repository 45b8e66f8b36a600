#include "core/platform/dirlist.h"

#include <windows.h>

namespace velmora::platform {
namespace {

class Search {
public:
    explicit Search(HANDLE handle) : handle_(handle) {}
    ~Search() { ::FindClose(handle_); }
    Search(const Search&) = delete;
    Search& operator=(const Search&) = delete;

private:
    const HANDLE handle_;
};

}  // namespace

ListOutcome listFolder(const boost::filesystem::path& path,
                       const std::function<bool(const boost::filesystem::path& name)>& onChild, int& code) {
    WIN32_FIND_DATAW child{};
    const HANDLE search = ::FindFirstFileW((path / L"*").c_str(), &child);
    if (search == INVALID_HANDLE_VALUE) {
        code = static_cast<int>(::GetLastError());
        return ListOutcome::openFailed;
    }
    const Search closedAtTheEnd(search);
    do {
        if (!onChild(boost::filesystem::path(child.cFileName))) return ListOutcome::complete;
    } while (::FindNextFileW(search, &child) != FALSE);
    code = static_cast<int>(::GetLastError());
    return code == ERROR_NO_MORE_FILES ? ListOutcome::complete : ListOutcome::readFailed;
}

}  // namespace velmora::platform
