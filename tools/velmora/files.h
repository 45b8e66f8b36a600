// Files that the command line names: names are UTF-8, content is bytes. What can't be opened is thrown as
// std::runtime_error "can't read NAME" or "can't write NAME".
#pragma once

#include <fstream>
#include <string>

namespace velmora::tool {

void openToRead(std::ifstream& file, const std::string& name);

// Emptied first, unless `mode` is std::ios::app.
void openToWrite(std::ofstream& file, const std::string& name, std::ios::openmode mode = std::ios::trunc);

// The whole content; of standard input for "-".
[[nodiscard]] std::string readWhole(const std::string& name);

}  // namespace velmora::tool
