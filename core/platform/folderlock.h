// An exclusive hold on a folder or file that ends with the holder's process, however that ends. What is held can be
// read by everybody; only a second hold is refused, in the same process as in another.
#pragma once

#include <boost/filesystem/path.hpp>
#include <cstdint>
#include <system_error>

namespace velmora::platform {

constexpr intptr_t kInvalidLockHandle = -1;

// Tries once, never waits, creates nothing. On success `handle` is to be given to releaseLock; on failure it is
// kInvalidLockHandle and the system's code is returned.
[[nodiscard]] std::error_code acquireLock(const boost::filesystem::path& path, intptr_t& handle) noexcept;

// A failure leaves the handle as it is.
[[nodiscard]] std::error_code releaseLock(intptr_t handle) noexcept;

// Whether a code of acquireLock says that somebody holds the path, or has just taken it away.
[[nodiscard]] bool isHeldByOther(const std::error_code& code) noexcept;

}  // namespace velmora::platform
