#include "core/queue/queuestorage.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "core/filesystem/filesystem.h"
#include "core/queue/readahead.h"
#include "core/types/errors.h"
#include "core/types/logger.h"

namespace velmora {
namespace {

constexpr size_t kOneWriteLimit = 65536;

}  // namespace

QueueFile::QueueFile(Path path, uint64_t maximumSize, platform::RandomAccessFileOpener opener)
    : path_(std::move(path)), opener_(std::move(opener)), maximumSize_(maximumSize) {
    openOrCreate();
}

QueueFile::~QueueFile() = default;

void QueueFile::openOrCreate() {
    if (!path_.exists()) {
        createFile();
    } else if (!validateExistingFile()) {
        Filesystem::remove(path_);
        createFile();
    }
    readHeader(header_);
}

void QueueFile::openFile(bool create) {
    VELMORA_LOG(trace, "fq") << "Opening file path=" << path_.string();
    close();
    file_ = opener_(path_.native(), create);
    if (!file_ && create) {
        VELMORA_LOG(error, "fq") << "failed to create a new file at path=" << path_.string();
        throw FQException(FQError::file_open_failed, "creation-failed");
    }
    if (!file_ || !file_->size(fileSize_)) {
        close();
        VELMORA_LOG(error, "fq") << "failed to open file at path=" << path_.string();
        throw FQException(FQError::file_open_failed, "open-failed");
    }
    failed_ = false;
}

bool QueueFile::validateExistingFile() {
    openFile(false);
    VELMORA_LOG(trace, "fq") << "Validating existing file path=" << path_.string();
    if (fileSize_ < kQueueHeaderSize) {
        close();
        VELMORA_LOG(warn, "fq") << "Invalid filesize: size=" << fileSize_ << " path=" << path_.string();
        return false;
    }
    uint64_t magic = 0;
    if (!read(kQueueMagicPosition, &magic, sizeof magic) || magic != kQueueMagic) {
        close();
        VELMORA_LOG(warn, "fq") << "Invalid magic=" << magic << " path=" << path_.string();
        return false;
    }
    return true;
}

// The magic goes last: a file whose creation was interrupted is not valid, and is replaced.
void QueueFile::createFile() {
    openFile(true);
    selector_ = 0;
    resize(std::max(maximumSize_, kQueueHeaderSize) - kQueueHeaderSize);
    header_ = emptyQueueHeader(fileSize_ - kQueueHeaderSize);
    if (writeHeader(header_)) writeMagic();
}

void QueueFile::close() noexcept {
    file_.reset();
    failed_ = true;
}

void QueueFile::reopen() {
    openFile(false);
    if (!readHeader(header_)) throw FQException(FQError::file_corrupt, "read-failed");
}

void QueueFile::recreate() {
    remove();
    createFile();
    readHeader(header_);
}

void QueueFile::remove() {
    close();
    header_ = emptyQueueHeader(std::max(maximumSize_, kQueueHeaderSize) - kQueueHeaderSize);
    Filesystem::remove(path_);
}

void QueueFile::resize(uint64_t dataSize) {
    const uint64_t target = dataSize + kQueueHeaderSize;
    if (maximumSize_ > kUnlimited && target > maximumSize_) {
        throw FQException(FQError::file_limit_exceeded, "max-size-limit-exceeded");
    }
    if (target == fileSize_) return;
    VELMORA_LOG(trace, "fq") << "Resizing file from " << fileSize_ << " to " << target;
    close();
    const uint64_t previous = fileSize_;
    const bool resized = Filesystem::resizeFile(path_, target);
    openFile(false);
    if (resized && fileSize_ == target && file_->reserve(target)) return;
    close();
    if (!Filesystem::resizeFile(path_, previous)) VELMORA_LOG(warn, "fq") << "can't shrink path=" << path_.string();
    throw FQException(FQError::file_corrupt, "write-failed");
}

bool QueueFile::readHeader(Header& header) {
    uint8_t selector = 0;
    if (!read(kQueueSelectorPosition, &selector, sizeof selector)) return false;
    Header slot;
    if (!read(queueSlotPosition(selector), &slot, sizeof slot)) return false;
    selector_ = selector & 1U;
    header = slot;
    return true;
}

bool QueueFile::writeHeader(const Header& header) {
    const uint8_t next = selector_ ^ 1U;
    if (!write(queueSlotPosition(next), &header, sizeof header)) return false;
    if (!write(kQueueSelectorPosition, &next, sizeof next)) return false;
    selector_ = next;
    return true;
}

bool QueueFile::writeMagic() { return write(kQueueMagicPosition, &kQueueMagic, sizeof kQueueMagic); }

void QueueFile::pushBytes(std::string_view bytes) {
    const uint64_t recordSize = bytes.size() + kQueueLengthSize;
    if (bytes.size() > std::numeric_limits<QueueRecordLength>::max()) {
        throw FQException(FQError::file_limit_exceeded, "max-size-limit-exceeded");
    }
    writeData(bytes, makeRoom(recordSize));
    advanceAfterPush(header_, recordSize);
    writeHeader(header_);
}

// A ring without room never holds the record up: that one and all later ones go behind the ring until it has drained,
// which keeps their order.
uint64_t QueueFile::makeRoom(uint64_t recordSize) {
    if (const auto offset = placeInRing(header_, recordSize)) return *offset;
    if (recordSize > header_.capacity - header_.overflowWriteOffset) {
        if (header_.capacity > fileSize_ - kQueueHeaderSize) {
            failWrite(recordSize - kQueueLengthSize, header_.overflowWriteOffset);
        }
        const uint64_t capacity = header_.capacity + std::max(recordSize, kQueueMinimumGrowth);
        resize(capacity);
        header_.capacity = capacity;
    }
    return header_.overflowWriteOffset;
}

void QueueFile::failWrite(uint64_t length, uint64_t offset) {
    failed_ = true;
    VELMORA_LOG_AT(error, "fq", "velmora::QueueFile::writeData")
        << "Failed to write data of len=" << length << " at offset=" << offset;
    throw FQException(FQError::file_corrupt, "write-failed");
}

void QueueFile::failRead(uint64_t length, uint64_t offset) {
    failed_ = true;
    VELMORA_LOG_AT(error, "fq", "velmora::QueueFile::readData")
        << "Failed to read data of len=" << length << " at offset=" << offset;
    throw FQException(FQError::file_corrupt, "read-failed");
}

void QueueFile::writeData(std::string_view bytes, uint64_t offset) {
    if (!writeRecord(bytes, offset)) failWrite(bytes.size(), offset);
}

bool QueueFile::writeRecord(std::string_view bytes, uint64_t offset) {
    const auto length = static_cast<QueueRecordLength>(bytes.size());
    const uint64_t dataSize = fileSize_ - kQueueHeaderSize;
    if (offset > dataSize || kQueueLengthSize + length > dataSize - offset) return false;  // out of a damaged header
    const uint64_t position = kQueueHeaderSize + offset;
    if (bytes.size() > kOneWriteLimit) {
        return write(position, &length, sizeof length) && write(position + sizeof length, bytes.data(), bytes.size());
    }
    scratch_.assign(reinterpret_cast<const char*>(&length), sizeof length);
    scratch_.append(bytes);
    return write(position, scratch_.data(), scratch_.size());
}

void QueueFile::readRecords(Header header, uint64_t count, const std::function<void(std::string&&)>& sink) {
    if (count == 0) return;
    if (failed_) failRead(0, header.readOffset);
    ReadAhead ahead(*file_, fileSize_);
    for (uint64_t i = 0; i < count; ++i) {
        std::string buffer;
        QueueRecordLength length = 0;
        readData(buffer, length, header.readOffset, ahead);
        sink(std::move(buffer));
        advanceAfterPop(header, length + kQueueLengthSize);
    }
}

// The length is held against the file before anything is allocated for it.
void QueueFile::readData(std::string& buffer, QueueRecordLength& length, uint64_t offset, ReadAhead& ahead) {
    const uint64_t position = kQueueHeaderSize + offset;
    if (offset < fileSize_ && ahead.read(position, &length, sizeof length) &&
        ahead.contains(position + sizeof length, length)) {
        buffer.resize(length);
        if (ahead.read(position + sizeof length, buffer.data(), length)) return;
    }
    failRead(length, offset);
}

uint64_t QueueFile::popRecords(uint64_t count) {
    Header header = header_;
    const uint64_t held = std::min(count, header.recordCount());
    for (uint64_t i = 0; i < held; ++i) {
        advanceAfterPop(header, readLength(header.readOffset) + kQueueLengthSize);
    }
    header_ = header;
    writeHeader(header_);
    return held;
}

// 0 for what can't be read.
QueueRecordLength QueueFile::readLength(uint64_t offset) {
    QueueRecordLength length = 0;
    if (offset >= fileSize_ || !read(kQueueHeaderSize + offset, &length, sizeof length)) return 0;
    return length;
}

bool QueueFile::read(uint64_t position, void* buffer, size_t size) noexcept {
    if (failed_ || !file_->read(position, buffer, size)) failed_ = true;
    return !failed_;
}

bool QueueFile::write(uint64_t position, const void* data, size_t size) noexcept {
    if (failed_ || !file_->write(position, data, size)) failed_ = true;
    return !failed_;
}

}  // namespace velmora
