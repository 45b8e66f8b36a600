#include "core/platform/linux/sysfs.h"

#include <algorithm>
#include <boost/filesystem/operations.hpp>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "core/platform/linux/utf8.h"

namespace velmora::platform {

namespace fs = boost::filesystem;

std::string readFirstLine(const fs::path& path) {
    std::ifstream file(path.native());
    std::string line;
    std::getline(file, line);
    const size_t first = line.find_first_not_of(" \t\r");
    if (first == std::string::npos || !isUtf8(line)) return {};
    return line.substr(first, line.find_last_not_of(" \t\r") - first + 1);
}

std::vector<fs::path> childrenOf(const fs::path& folder) {
    std::vector<fs::path> children;
    boost::system::error_code failure;
    for (fs::directory_iterator child(folder, failure), end; !failure && child != end; child.increment(failure)) {
        children.push_back(child->path());
    }
    std::sort(children.begin(), children.end());
    return children;
}

bool maskHasBit(const std::string& mask, size_t bit) {
    constexpr size_t kBitsPerWord = 8 * sizeof(unsigned long);
    std::istringstream words(mask);
    std::vector<std::string> highestFirst;
    for (std::string word; words >> word;) highestFirst.push_back(word);
    const size_t index = bit / kBitsPerWord;
    if (index >= highestFirst.size()) return false;
    const std::string& word = highestFirst[highestFirst.size() - 1 - index];
    return (std::strtoul(word.c_str(), nullptr, 16) >> (bit % kBitsPerWord) & 1) != 0;
}

}  // namespace velmora::platform
