#include "tools/velmora/files.h"

#include <iostream>
#include <iterator>
#include <stdexcept>

#include "core/filesystem/filesystem.h"

namespace velmora::tool {

void openToRead(std::ifstream& file, const std::string& name) {
    if (!Filesystem::open(file, Path(name), std::ios::binary)) throw std::runtime_error("can't read " + name);
}

void openToWrite(std::ofstream& file, const std::string& name, std::ios::openmode mode) {
    if (!Filesystem::open(file, Path(name), std::ios::binary | mode)) throw std::runtime_error("can't write " + name);
}

std::string readWhole(const std::string& name) {
    std::ifstream file;
    if (name != "-") openToRead(file, name);
    std::istream& stream = name == "-" ? std::cin : file;
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

}  // namespace velmora::tool
