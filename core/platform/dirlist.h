// The children of one folder.
#pragma once

#include <boost/filesystem/path.hpp>
#include <functional>

namespace velmora::platform {

enum class ListOutcome { complete, openFailed, readFailed };

// Calls back with the name of each child, "." and ".." perhaps among them, in the system's order. The callback ends the
// listing by returning false, which counts as complete; what it throws passes through. Unless complete, `code` holds
// the system's error number.
[[nodiscard]] ListOutcome listFolder(const boost::filesystem::path& path,
                                     const std::function<bool(const boost::filesystem::path& name)>& onChild,
                                     int& code);

}  // namespace velmora::platform
