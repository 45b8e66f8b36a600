// A first-in-first-out queue of byte records in one file. A push writes the record, then the header slot that is not
// current, then the selector byte: that one byte commits. A process that dies at any moment leaves a file whose current
// header describes whole records only.
//
// Nothing is synced to the device. Not for several threads, and not for several processes on one file: the owner keeps
// both away.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "core/filesystem/path.h"
#include "core/platform/randomaccessfile.h"
#include "core/queue/circularqueueheader.h"

namespace velmora {

class ReadAhead;

// The queue over bytes. Failures are FQExceptions: 1 (file_open_failed), 2 (file_limit_exceeded, the record does not
// fit) and 3 (file_corrupt, a read or write failed). After a failed read or write every further one fails too, a commit
// included, until the file is opened again: the state in the file is not known. A failed commit itself is not reported.
class QueueFile {
public:
    using Header = CircularQueueHeader<uint64_t>;

    // A maximum of this size, or below, means no limit: the file grows as needed. Otherwise the file has its maximum
    // size from the first moment.
    static constexpr uint64_t kUnlimited = kQueueHeaderSize;

    // Keeps a valid file, and replaces one that is not; so a bad file costs its contents, and a log line.
    QueueFile(Path path, uint64_t maximumSize, platform::RandomAccessFileOpener opener);
    ~QueueFile();
    QueueFile(const QueueFile&) = delete;
    QueueFile& operator=(const QueueFile&) = delete;

    [[nodiscard]] const Path& path() const noexcept { return path_; }
    [[nodiscard]] uint64_t recordCount() const noexcept { return header_.recordCount(); }

    // The state in memory; never older than the file's.
    [[nodiscard]] const Header& header() const noexcept { return header_; }

    // Whether it is closed, or a read or write has failed since it was opened.
    [[nodiscard]] bool hasFailed() const noexcept { return failed_; }

    // Removes the oldest records, at most as many as there are, with one commit; only their lengths are read. Returns
    // how many.
    uint64_t popRecords(uint64_t count);

    // Goes back to the last committed state. Raises code 1 or 3.
    void reopen();

    // Replaces the file by an empty queue. If that raises, the queue is empty and closed.
    void recreate();

    // Closes the file and deletes it; the queue is empty then.
    void remove();

protected:
    void pushBytes(std::string_view bytes);

    // Hands the oldest records to the sink without removing them; raises code 3 at the first that can't be read, after
    // those before it.
    void readRecords(Header header, uint64_t count, const std::function<void(std::string&&)>& sink);

private:
    void openOrCreate();
    void openFile(bool create);
    bool validateExistingFile();
    void createFile();
    void close() noexcept;
    void resize(uint64_t dataSize);
    bool readHeader(Header& header);
    bool writeHeader(const Header& header);
    bool writeMagic();
    [[noreturn]] void failWrite(uint64_t length, uint64_t offset);
    [[noreturn]] void failRead(uint64_t length, uint64_t offset);
    uint64_t makeRoom(uint64_t recordSize);
    void writeData(std::string_view bytes, uint64_t offset);
    bool writeRecord(std::string_view bytes, uint64_t offset);
    void readData(std::string& buffer, QueueRecordLength& length, uint64_t offset, ReadAhead& ahead);
    QueueRecordLength readLength(uint64_t offset);
    bool read(uint64_t position, void* buffer, size_t size) noexcept;
    bool write(uint64_t position, const void* data, size_t size) noexcept;

    const Path path_;
    const platform::RandomAccessFileOpener opener_;
    std::unique_ptr<platform::RandomAccessFile> file_;
    const uint64_t maximumSize_;  // of the file, its header included
    uint64_t fileSize_ = 0;
    Header header_;
    uint8_t selector_ = 0;  // of the file's current slot
    bool failed_ = true;
    std::string scratch_;  // a small record with its length in front, to be written at once
};

// What the queue writes for a value.
[[nodiscard]] inline std::string_view recordBytes(std::string_view record) noexcept { return record; }

// The queue of a value type that recordBytes() turns into bytes, and that is made of a std::string.
template <typename Value>
class QueueStorage : public QueueFile {
public:
    using QueueFile::QueueFile;

    // Appends a record: with the system, and committed, when the call returns.
    template <typename Record>
    void pushRecord(const Record& record) {
        pushBytes(recordBytes(record));
    }

    // Appends `count` records to `out`, from the header's oldest on, and changes nothing. If it raises, `out` holds the
    // records before the one that failed.
    void peekRecords(const Header& header, uint64_t count, std::vector<Value>& out) {
        readRecords(header, count, [&out](std::string&& bytes) { out.emplace_back(std::move(bytes)); });
    }
};

}  // namespace velmora
