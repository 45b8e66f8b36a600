// What the sources of this folder share: a process told from the children that it forks, and the small text files in
// which the kernel shows its facts.
#pragma once

#include <boost/filesystem/path.hpp>
#include <cstdint>
#include <string>
#include <vector>

namespace velmora::platform {

// From the first call on, every fork is noticed by the child. Throws std::system_error.
void watchForks();

// Another number in a forked child than in its parent, never 0. Any thread.
[[nodiscard]] uint32_t processGeneration() noexcept;

// Notes that the library starts threads in this process; a child that is forked later lacks them. Watches forks.
void noteThreads();

// Takes that back: no thread of the library runs any more.
void noteNoThreads() noexcept;

// Whether this process is a child that was forked while threads were noted.
[[nodiscard]] bool lacksThreads() noexcept;

// The first line without blanks around it; empty if there is no such file, or if it is no UTF-8.
[[nodiscard]] std::string readFirstLine(const boost::filesystem::path& path);

// The children of a folder by name; none if there is no such folder.
[[nodiscard]] std::vector<boost::filesystem::path> childrenOf(const boost::filesystem::path& folder);

// A bit of a mask that is written as hexadecimal words, the highest first.
[[nodiscard]] bool maskHasBit(const std::string& mask, size_t bit);

}  // namespace velmora::platform
