// The code of the calling thread's last failed call.
#pragma once

#include <windows.h>

#include <system_error>

namespace velmora::platform {

inline std::error_code lastError() noexcept { return {static_cast<int>(::GetLastError()), std::system_category()}; }

}  // namespace velmora::platform
