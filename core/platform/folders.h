// Folders that the system knows by purpose.
#pragma once

#include <boost/filesystem/path.hpp>

namespace velmora::platform {

// Where applications keep the user's data. Empty if the system does not tell; `code` then holds its number.
[[nodiscard]] boost::filesystem::path userDataFolder(int& code);

// Creates a folder with the parents that are missing. On Linux they are for the user alone (mode 0700); on Windows they
// inherit their rights. Throws boost::filesystem::filesystem_error.
void createFolders(const boost::filesystem::path& path);

// Whether nobody else can have put something into the folder, or put the folder there. On Linux it has to be a folder,
// not a link to one, that belongs to the user and that not everybody may write to. Always on Windows, where the folders
// in question lie in the user's profile.
[[nodiscard]] bool isUsersOwn(const boost::filesystem::path& folder);

}  // namespace velmora::platform
