// Folders that the system knows by purpose.
#pragma once

#include <boost/filesystem/path.hpp>

namespace velmora::platform {

// Where applications keep the user's data. Empty if the system does not tell; `code` then holds its number.
[[nodiscard]] boost::filesystem::path userDataFolder(int& code);

}  // namespace velmora::platform
