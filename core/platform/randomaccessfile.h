// The file of the disk queue: unbuffered reads and writes at offsets. A write that has returned is with the system, so
// it survives the end of the process; nothing is synced to the device.
#pragma once

#include <boost/filesystem/path.hpp>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

namespace velmora::platform {

// Not copyable; used by one thread at a time. Closed by its destructor, and not inherited by child processes.
class RandomAccessFile {
public:
    virtual ~RandomAccessFile() = default;

    // Reads or writes exactly `size` bytes at `offset`; false for anything less, after which the contents of the buffer
    // or of that range of the file are unspecified.
    [[nodiscard]] virtual bool read(uint64_t offset, void* buffer, size_t size) noexcept = 0;
    [[nodiscard]] virtual bool write(uint64_t offset, const void* data, size_t size) noexcept = 0;

    // Gives the file that size; what is added reads as zeros, and the disk has room for all of it as far as the file
    // system can tell, so that no write below fails for want of it. On failure the size is as before.
    [[nodiscard]] virtual bool resize(uint64_t bytes) noexcept = 0;

    // Size in bytes at the time of the call; false if the system does not tell.
    [[nodiscard]] virtual bool size(uint64_t& bytes) noexcept = 0;
};

// `create` makes the file, or empties it; without it the file has to exist. Others may open, rename or delete the file
// meanwhile. Null on failure.
using RandomAccessFileOpener =
    std::function<std::unique_ptr<RandomAccessFile>(const boost::filesystem::path& path, bool create)>;

// The system's own file. Whoever opens files takes an opener, so that others can stand in, such as ones that fail.
[[nodiscard]] std::unique_ptr<RandomAccessFile> openSystemFile(const boost::filesystem::path& path, bool create);

// The same for reading only: never creates, and every write fails.
[[nodiscard]] std::unique_ptr<RandomAccessFile> openReadOnlyFile(const boost::filesystem::path& path);

}  // namespace velmora::platform
