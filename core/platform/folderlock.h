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

enum class HoldState { free, held, unknown };

// Whether somebody, this process included, holds the path, without taking a hold. The answer may be out of date when it
// arrives.
//
// Linux asks the kernel's list of locks and touches nothing. The list leaves out processes of other containers, whose
// holds look free. Windows can only ask by opening the path for a moment in a way that a hold excludes: a process that
// tries to hold a free path in that very moment finds it busy.
[[nodiscard]] HoldState probeHold(const boost::filesystem::path& path);

}  // namespace velmora::platform
