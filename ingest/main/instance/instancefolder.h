// The numbered folders of a configuration's instances, <data folder>/<configuration guid>/v1/<number>. Whoever runs an
// instance holds its folder; a folder whose hold can be had is abandoned, with all events in it.
#pragma once

#include <memory>
#include <string>

#include "core/filesystem/lockedpath.h"

namespace velmora {

// Holds the first folder that nobody else holds. With `create` a new one is made if there is none, and
// `cache_lock_error` is thrown if folders can't be created or held at all. Without, the result may be null, and a child
// whose name is no number raises std::invalid_argument or std::out_of_range: what is found here is going to be deleted
// in the end, so nothing foreign is touched.
[[nodiscard]] std::unique_ptr<LockedPath> acquireInstanceFolder(const std::string& configGuid, bool create);

}  // namespace velmora
