#include "core/platform/randomaccessfile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace velmora::platform {
namespace {

constexpr mode_t kOwnerOnly = 0600;

class PosixFile final : public RandomAccessFile {
public:
    explicit PosixFile(int descriptor) : descriptor_(descriptor) {}
    ~PosixFile() override { ::close(descriptor_); }
    PosixFile(const PosixFile&) = delete;
    PosixFile& operator=(const PosixFile&) = delete;

    bool read(uint64_t offset, void* buffer, size_t size) noexcept override {
        auto* const bytes = static_cast<char*>(buffer);
        return transfer(size, [&](size_t done) {
            return ::pread(descriptor_, bytes + done, size - done, static_cast<off_t>(offset + done));
        });
    }

    bool write(uint64_t offset, const void* data, size_t size) noexcept override {
        const auto* const bytes = static_cast<const char*>(data);
        return transfer(size, [&](size_t done) {
            return ::pwrite(descriptor_, bytes + done, size - done, static_cast<off_t>(offset + done));
        });
    }

    bool resize(uint64_t bytes) noexcept override {
        uint64_t previous = 0;
        if (!size(previous) || !truncate(bytes)) return false;
        int failed = -1;
        do {
            failed = ::fallocate(descriptor_, 0, 0, static_cast<off_t>(bytes));
        } while (failed != 0 && errno == EINTR);
        if (failed == 0 || errno == EOPNOTSUPP || errno == ENOSYS) return true;
        static_cast<void>(truncate(previous));
        return false;
    }

    bool size(uint64_t& bytes) noexcept override {
        struct stat status {};
        if (::fstat(descriptor_, &status) != 0) return false;
        bytes = static_cast<uint64_t>(status.st_size);
        return true;
    }

private:
    bool truncate(uint64_t bytes) const noexcept {
        int failed = -1;
        do {
            failed = ::ftruncate(descriptor_, static_cast<off_t>(bytes));
        } while (failed != 0 && errno == EINTR);
        return failed == 0;
    }

    // A transfer may be short, at a signal for example; one that moves nothing is the end of the file.
    template <typename Step>
    static bool transfer(size_t size, Step step) noexcept {
        size_t done = 0;
        while (done < size) {
            const ssize_t moved = step(done);
            if (moved < 0 && errno == EINTR) continue;
            if (moved <= 0) return false;
            done += static_cast<size_t>(moved);
        }
        return true;
    }

    const int descriptor_;
};

std::unique_ptr<RandomAccessFile> open(const boost::filesystem::path& path, int flags) {
    int descriptor = -1;
    do {
        descriptor = ::open(path.c_str(), flags | O_CLOEXEC, kOwnerOnly);
    } while (descriptor < 0 && errno == EINTR);
    if (descriptor < 0) return nullptr;
    return std::make_unique<PosixFile>(descriptor);
}

}  // namespace

std::unique_ptr<RandomAccessFile> openSystemFile(const boost::filesystem::path& path, bool create) {
    return open(path, create ? O_RDWR | O_CREAT | O_TRUNC : O_RDWR);
}

std::unique_ptr<RandomAccessFile> openReadOnlyFile(const boost::filesystem::path& path) { return open(path, O_RDONLY); }

}  // namespace velmora::platform
