// A folder of its own for one test, removed with everything in it at the end.
#pragma once

#include <boost/filesystem/path.hpp>
#include <string>

namespace velmora::test {

class TempFolder {
public:
    TempFolder();
    ~TempFolder();
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const boost::filesystem::path& path() const { return path_; }
    std::string string() const { return path_.string(); }
    boost::filesystem::path operator/(const std::string& name) const { return path_ / name; }

private:
    boost::filesystem::path path_;
};

}  // namespace velmora::test
