#include "tests/support/childprocess.h"

#include <array>

namespace velmora::test {

bool ChildProcess::readLine(std::string& line) {
    std::array<char, 4096> buffer{};
    size_t end = pending_.find('\n');
    while (end == std::string::npos) {
        const size_t count = read(buffer.data(), buffer.size());
        if (count == 0) return false;
        pending_.append(buffer.data(), count);
        end = pending_.find('\n');
    }
    line = pending_.substr(0, end);
    pending_.erase(0, end + 1);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return true;
}

}  // namespace velmora::test
