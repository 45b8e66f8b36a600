#include "tests/support/appendfile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace velmora::test {

AppendFile::AppendFile(const std::string& path)
    : handle_(::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644)) {
    if (handle_ < 0) throw std::system_error(errno, std::generic_category(), path);
}

AppendFile::~AppendFile() { ::close(static_cast<int>(handle_)); }

void AppendFile::append(std::string_view text) {
    const ssize_t written = ::write(static_cast<int>(handle_), text.data(), text.size());
    if (written != static_cast<ssize_t>(text.size())) throw std::system_error(errno, std::generic_category(), "append");
}

}  // namespace velmora::test
