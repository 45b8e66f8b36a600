#include "core/filesystem/path.h"

#include <boost/filesystem/operations.hpp>

#include "core/platform/pathtext.h"

namespace velmora {

namespace fs = boost::filesystem;

Path::Path() : Path(fs::path()) {}
Path::Path(const std::string& utf8) : Path(platform::pathFromUtf8(utf8)) {}
Path::Path(const char* utf8) : Path(std::string(utf8)) {}
Path::Path(const std::wstring& text) : Path(platform::pathFromWide(text)) {}
Path::Path(const fs::path& path) : path_(std::make_unique<fs::path>(path)) {}
Path::Path(const Path& other) : Path(*other.path_) {}
Path::Path(Path&& other) noexcept = default;
Path::~Path() = default;

Path& Path::operator=(const Path& other) {
    path_ = std::make_unique<fs::path>(*other.path_);
    return *this;
}

Path& Path::operator=(Path&& other) noexcept = default;

Path Path::operator/(const std::string& name) const { return Path(*path_ / platform::pathFromUtf8(name)); }

Path& Path::operator/=(const std::string& name) {
    *path_ /= platform::pathFromUtf8(name);
    return *this;
}

Path& Path::operator+=(const std::string& text) {
    *path_ += platform::pathFromUtf8(text);
    return *this;
}

bool Path::operator<(const Path& other) const { return path_->compare(*other.path_) < 0; }
bool Path::operator==(const Path& other) const { return path_->compare(*other.path_) == 0; }

bool Path::exists() const {
    boost::system::error_code ignored;
    const fs::file_type type = fs::status(*path_, ignored).type();
    return type != fs::status_error && type != fs::file_not_found;
}

bool Path::isDirectory() const {
    boost::system::error_code ignored;
    return fs::status(*path_, ignored).type() == fs::directory_file;
}

bool Path::isFile() const {
    boost::system::error_code ignored;
    return fs::status(*path_, ignored).type() == fs::regular_file;
}

bool Path::empty() const { return path_->empty(); }
uint64_t Path::fileSize() const { return fs::file_size(*path_); }
int64_t Path::lastWriteTime() const { return fs::last_write_time(*path_); }
Path Path::filename() const { return Path(path_->filename()); }
Path Path::parent() const { return Path(path_->parent_path()); }
std::string Path::string() const { return platform::pathToUtf8(*path_); }

}  // namespace velmora
