#include "tests/support/tempfolder.h"

#include <boost/filesystem/operations.hpp>

namespace velmora::test {

namespace fs = boost::filesystem;

TempFolder::TempFolder() : path_(fs::temp_directory_path() / fs::unique_path("velmora-test-%%%%-%%%%-%%%%")) {
    fs::create_directories(path_);
}

TempFolder::~TempFolder() {
    boost::system::error_code ignored;
    fs::remove_all(path_, ignored);
}

}  // namespace velmora::test
