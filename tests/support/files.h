// Whole files as bytes, and the files of tests/data.
#pragma once

#include <boost/filesystem/fstream.hpp>
#include <boost/filesystem/operations.hpp>
#include <iterator>
#include <string>

namespace velmora::test {

inline std::string readFile(const boost::filesystem::path& path) {
    boost::filesystem::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// Makes its folders, too.
inline void writeFile(const boost::filesystem::path& path, const std::string& bytes = "") {
    boost::filesystem::create_directories(path.parent_path());
    boost::filesystem::ofstream(path, std::ios::binary) << bytes;
}

inline boost::filesystem::path dataFile(const std::string& name) {
    return boost::filesystem::path(VELMORA_TEST_DATA) / name;
}

}  // namespace velmora::test
