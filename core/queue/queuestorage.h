// A first-in-first-out queue of byte records in one file. A push writes the record, then the header slot that is not
// current, then the selector byte: that one byte commits. A process that dies at any moment leaves a file whose current
// header describes whole records only.
//
// Nothing is synced to the device. Not for several threads, and not for several processes on one file: the owner keeps
// both away.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/filesystem/path.h"
#include "core/platform/randomaccessfile.h"
#include "core/queue/circularqueueheader.h"

namespace velmora {

class ReadAhead;

// Failures are FQExceptions: 1 (file_open_failed), 2 (file_limit_exceeded, the record does not fit) and 3
// (file_corrupt, a read or write failed). A failed push leaves the queue as it was. A commit that fails is made up for
// by the next one, and nothing is written over records that the file may still describe before that.
class QueueStorage {
public:
    using Header = CircularQueueHeader;

    // A maximum of this size, or below, means no limit: the file grows as needed. Otherwise the file has its maximum
    // size from the first moment.
    static constexpr uint64_t kUnlimited = kQueueHeaderSize;

    // Keeps a valid file, and replaces one that is not; so a bad file costs its contents, and a log line. A file that
    // can't be opened or read raises code 1 or 3 and stays as it is.
    QueueStorage(Path path, uint64_t maximumSize, platform::RandomAccessFileOpener opener);
    ~QueueStorage();
    QueueStorage(const QueueStorage&) = delete;
    QueueStorage& operator=(const QueueStorage&) = delete;

    [[nodiscard]] const Path& path() const noexcept { return path_; }
    [[nodiscard]] uint64_t recordCount() const noexcept { return header_.recordCount(); }

    // The state in memory; never older than the file's.
    [[nodiscard]] const Header& header() const noexcept { return header_; }

    // Appends a record. True if it is with the system and committed; false if only the commit failed, after which the
    // record is not in the queue. What the file holds then is found out by the next commit.
    [[nodiscard]] bool pushRecord(std::string_view record);

    // Appends the oldest records to `out`, as many as `count`, from the header's oldest on; removes nothing. Raises
    // code 3 at the first that can't be read: `out` holds those before it.
    void peekRecords(Header header, uint64_t count, std::vector<std::string>& out);

    // Removes the oldest records, at most as many as there are, with one commit; only their lengths are read. Returns
    // how many. Raises code 3 if a length can't be read: nothing is removed then.
    uint64_t popRecords(uint64_t count);

    // The same for records whose lengths a peek has told, without a read.
    void popRecords(std::span<const QueueRecordLength> lengths);

    // Replaces the file by an empty queue. If that raises, the queue is empty and closed.
    void recreate();

    // Closes the file and deletes it; the queue is empty then.
    void remove();

private:
    void openOrCreate();
    void openFile(bool create);
    bool validateExistingFile();
    void createFile();
    void resize(uint64_t dataSize);
    bool readHeader(Header& header);
    bool writeHeader(const Header& header);
    bool writeMagic();
    [[noreturn]] void failWrite(uint64_t length, uint64_t offset);
    [[noreturn]] void failRead(uint64_t length, uint64_t offset);
    uint64_t makeRoom(uint64_t recordSize);
    bool writeData(std::string_view bytes, uint64_t offset);
    void readData(std::string& buffer, QueueRecordLength& length, uint64_t offset, ReadAhead& ahead);

    const Path path_;
    const platform::RandomAccessFileOpener opener_;
    std::unique_ptr<platform::RandomAccessFile> file_;  // null: closed
    const uint64_t maximumSize_;                        // of the file, its header included
    uint64_t fileSize_ = 0;
    Header header_;
    uint8_t selector_ = 0;    // of the file's current slot
    bool committed_ = false;  // the file's current slot is the state in memory
    std::string scratch_;     // a small record with its length in front, to be written at once
};

}  // namespace velmora
