// Looks at a queue file, also a damaged one or one that a running process uses, without changing a byte and without
// locks. What a process is just writing may look damaged for a moment.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "core/filesystem/path.h"
#include "core/platform/randomaccessfile.h"
#include "core/queue/circularqueueheader.h"
#include "core/queue/readahead.h"

namespace velmora {

class QueueReader {
public:
    enum class Region { ring, overflow };

    struct Record {
        uint64_t index;     // 0 is the oldest
        uint64_t position;  // in the file, of the length field
        uint64_t length;    // of the bytes behind it
        Region region;
    };

    // Raises FQException code 1 if the file can't be opened, and nothing for what is in it.
    explicit QueueReader(const Path& path);

    // Whether a queue would keep the file: long enough, and with the magic.
    [[nodiscard]] bool isValid() const noexcept { return valid_; }

    // What is wrong with the file, as far as it has been read: empty if nothing. Reading stops there.
    [[nodiscard]] const std::string& damage() const noexcept { return damage_; }

    [[nodiscard]] uint64_t fileSize() const noexcept { return fileSize_; }
    [[nodiscard]] uint64_t magic() const noexcept { return magic_; }
    [[nodiscard]] uint8_t selector() const noexcept { return selector_; }

    // The current slot, as it stands in the file; all zero if the file is not valid.
    [[nodiscard]] const CircularQueueHeader& header() const noexcept { return header_; }
    [[nodiscard]] uint64_t recordCount() const noexcept { return header_.recordCount(); }

    // The next record, from the oldest on; nothing after the last, or at damage.
    [[nodiscard]] std::optional<Record> next();

    // The bytes of a record; false if they can't be read.
    [[nodiscard]] bool read(const Record& record, std::string& bytes);

private:
    void open();
    void checkHeader();
    void checkRecord(const Record& record);

    std::unique_ptr<platform::RandomAccessFile> file_;
    uint64_t fileSize_ = 0;
    std::optional<ReadAhead> ahead_;
    bool valid_ = false;
    std::string damage_;
    uint64_t magic_ = 0;
    uint8_t selector_ = 0;
    CircularQueueHeader header_;
    CircularQueueHeader walk_;
    uint64_t index_ = 0;
};

}  // namespace velmora
