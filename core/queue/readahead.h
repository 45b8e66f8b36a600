// Small reads of a queue file out of large ones.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "core/platform/randomaccessfile.h"

namespace velmora {

// Serves one walk over the records: what it has read ahead is not refreshed. The file outlives it.
class ReadAhead {
public:
    ReadAhead(platform::RandomAccessFile& file, uint64_t fileSize) noexcept : file_(file), fileSize_(fileSize) {}

    // Whether that many bytes lie inside the file.
    [[nodiscard]] bool contains(uint64_t position, uint64_t size) const noexcept {
        return position <= fileSize_ && size <= fileSize_ - position;
    }

    // Exactly `size` bytes; false if they are not all inside the file or can't be read.
    [[nodiscard]] bool read(uint64_t position, void* buffer, size_t size);

private:
    static constexpr size_t kWindowSize = 65536;

    bool fill(uint64_t position);

    platform::RandomAccessFile& file_;
    uint64_t fileSize_;
    std::unique_ptr<char[]> window_;  // made at the first use
    uint64_t windowPosition_ = 0;
    size_t windowSize_ = 0;
};

}  // namespace velmora
