#include "core/platform/folders.h"

#include <windows.h>
// After windows.h.
#include <initguid.h>
#include <knownfolders.h>
#include <objbase.h>
#include <shlobj.h>

#include <boost/filesystem/operations.hpp>

namespace velmora::platform {

boost::filesystem::path userDataFolder(int& code) {
    PWSTR text = nullptr;
    code = ::SHGetKnownFolderPath(FOLDERID_RoamingAppData, 0, nullptr, &text);
    boost::filesystem::path folder;
    if (SUCCEEDED(code)) folder = text;
    ::CoTaskMemFree(text);
    return folder;
}

void createFolders(const boost::filesystem::path& path) { boost::filesystem::create_directories(path); }

bool isUsersOwn(const boost::filesystem::path&) { return true; }

}  // namespace velmora::platform
