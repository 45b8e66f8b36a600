#include "core/platform/linux/system.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <boost/filesystem/operations.hpp>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <system_error>

#include "core/types/text.h"

namespace velmora::platform {
namespace {

// Written by the handler of a fork in the child's only thread, read by every thread.
std::atomic<uint32_t> generation{1};

// Of the process whose threads they are; 0 while there are none.
std::atomic<uint32_t> generationOfThreads{0};

}  // namespace

void watchForks() {
    static const int registered =
        ::pthread_atfork(nullptr, nullptr, [] { generation.fetch_add(1, std::memory_order_relaxed); });
    if (registered != 0) throw std::system_error(registered, std::system_category(), "pthread_atfork");
}

uint32_t processGeneration() noexcept { return generation.load(std::memory_order_relaxed); }

void noteThreads() {
    watchForks();
    uint32_t none = 0;
    generationOfThreads.compare_exchange_strong(none, processGeneration());
}

void noteNoThreads() noexcept { generationOfThreads = 0; }

bool lacksThreads() noexcept {
    const uint32_t owner = generationOfThreads;
    return owner != 0 && owner != processGeneration();
}

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
