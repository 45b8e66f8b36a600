// Whole files as bytes, and the files of tests/data.
#pragma once

#include <boost/filesystem/fstream.hpp>
#include <iterator>
#include <string>

namespace velmora::test {

inline std::string readFile(const boost::filesystem::path& path) {
    boost::filesystem::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

inline void writeFile(const boost::filesystem::path& path, const std::string& bytes) {
    boost::filesystem::ofstream(path, std::ios::binary) << bytes;
}

inline boost::filesystem::path dataFile(const std::string& name) {
    return boost::filesystem::path(VELMORA_TEST_DATA) / name;
}

}  // namespace velmora::test
