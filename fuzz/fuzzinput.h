// What the fuzz targets share: their entry point's declaration, and how a promise that does not hold ends a run.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace velmora::fuzz {

inline void require(bool promise) {
    if (!promise) std::abort();
}

inline std::string toText(const uint8_t* data, size_t size) { return {reinterpret_cast<const char*>(data), size}; }

// Two texts out of one input, parted by the first line feed.
inline std::pair<std::string, std::string> splitInTwo(const std::string& text) {
    const size_t end = text.find('\n');
    if (end == std::string::npos) return {text, {}};
    return {text.substr(0, end), text.substr(end + 1)};
}

}  // namespace velmora::fuzz
