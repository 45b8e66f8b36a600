// A path in the file tree. Text that goes in or out is UTF-8; the path itself is held in the system's own form.
#pragma once

#include <boost/filesystem/path.hpp>
#include <cstdint>
#include <memory>
#include <string>

namespace velmora {

// A value; one object is not shared between threads. A moved-from Path must only be destroyed or assigned. Text that
// can't be converted raises std::range_error "bad conversion".
class Path {
public:
    Path();
    Path(const std::string& utf8);
    Path(const char* utf8);
    Path(const std::wstring& text);
    Path(const boost::filesystem::path& path);
    Path(const Path& other);
    Path(Path&& other) noexcept;
    Path& operator=(const Path& other);
    Path& operator=(Path&& other) noexcept;
    virtual ~Path();

    [[nodiscard]] Path operator/(const std::string& name) const;  // appended with a separator
    Path& operator/=(const std::string& name);
    Path& operator+=(const std::string& text);  // appended without one
    [[nodiscard]] bool operator<(const Path& other) const;
    [[nodiscard]] bool operator==(const Path& other) const;

    [[nodiscard]] bool exists() const;
    [[nodiscard]] bool isDirectory() const;
    [[nodiscard]] bool isFile() const;
    [[nodiscard]] bool empty() const;
    [[nodiscard]] uint64_t fileSize() const;      // bytes; throws on failure
    [[nodiscard]] int64_t lastWriteTime() const;  // seconds since 1970; throws on failure
    [[nodiscard]] Path filename() const;
    [[nodiscard]] Path parent() const;
    [[nodiscard]] std::string string() const;
    [[nodiscard]] const boost::filesystem::path& native() const { return *path_; }

protected:
    void swap(Path& other) noexcept { path_.swap(other.path_); }

private:
    std::unique_ptr<boost::filesystem::path> path_;
};

}  // namespace velmora
