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

QueueStorage::QueueStorage(Path path, uint64_t maximumSize, platform::RandomAccessFileOpener opener)
    : path_(std::move(path)), opener_(std::move(opener)), maximumSize_(maximumSize) {
    openOrCreate();
}

QueueStorage::~QueueStorage() = default;

void QueueStorage::openOrCreate() {
    if (!path_.exists()) {
        createFile();
    } else if (!validateExistingFile()) {
        Filesystem::remove(path_);
        createFile();
    }
    if (!readHeader(header_)) failRead(0, 0);
    committed_ = true;
}

void QueueStorage::openFile(bool create) {
    VELMORA_LOG(trace, "fq") << "Opening file path=" << path_.string();
    file_ = opener_(path_.native(), create);
    if (!file_ && create) {
        VELMORA_LOG(error, "fq") << "failed to create a new file at path=" << path_.string();
        throw FQException(FQError::file_open_failed, "creation-failed");
    }
    if (!file_ || !file_->size(fileSize_)) {
        file_.reset();
        VELMORA_LOG(error, "fq") << "failed to open file at path=" << path_.string();
        throw FQException(FQError::file_open_failed, "open-failed");
    }
}

// A file that can't be read is not one that is damaged.
bool QueueStorage::validateExistingFile() {
    openFile(false);
    VELMORA_LOG(trace, "fq") << "Validating existing file path=" << path_.string();
    if (fileSize_ < kQueueHeaderSize) {
        file_.reset();
        VELMORA_LOG(warn, "fq") << "Invalid filesize: size=" << fileSize_ << " path=" << path_.string();
        return false;
    }
    uint64_t magic = 0;
    if (!file_->read(kQueueMagicPosition, &magic, sizeof magic)) failRead(sizeof magic, kQueueMagicPosition);
    if (magic != kQueueMagic) {
        file_.reset();
        VELMORA_LOG(warn, "fq") << "Invalid magic=" << magic << " path=" << path_.string();
        return false;
    }
    return true;
}

// The magic goes last: a file whose creation was interrupted is not valid, and is replaced.
void QueueStorage::createFile() {
    openFile(true);
    selector_ = 0;
    try {
        resize(std::max(maximumSize_, kQueueHeaderSize) - kQueueHeaderSize);
        header_ = emptyQueueHeader(fileSize_ - kQueueHeaderSize);
        if (!writeHeader(header_) || !writeMagic()) throw FQException(FQError::file_corrupt, "write-failed");
    } catch (...) {
        file_.reset();
        throw;
    }
}

void QueueStorage::recreate() {
    remove();
    createFile();
}

void QueueStorage::remove() {
    file_.reset();
    header_ = emptyQueueHeader(std::max(maximumSize_, kQueueHeaderSize) - kQueueHeaderSize);
    Filesystem::remove(path_);
}

void QueueStorage::resize(uint64_t dataSize) {
    const uint64_t target = dataSize + kQueueHeaderSize;
    if (maximumSize_ > kUnlimited && target > maximumSize_) {
        throw FQException(FQError::file_limit_exceeded, "max-size-limit-exceeded");
    }
    if (target == fileSize_) return;
    VELMORA_LOG(trace, "fq") << "Resizing file from " << fileSize_ << " to " << target;
    if (!file_ || !file_->resize(target)) throw FQException(FQError::file_corrupt, "write-failed");
    fileSize_ = target;
}

bool QueueStorage::readHeader(Header& header) {
    uint8_t selector = 0;
    if (!file_->read(kQueueSelectorPosition, &selector, sizeof selector)) return false;
    Header slot;
    if (!file_->read(queueSlotPosition(selector), &slot, sizeof slot)) return false;
    selector_ = selector & 1U;
    header = slot;
    return true;
}

bool QueueStorage::writeHeader(const Header& header) {
    const uint8_t next = selector_ ^ 1U;
    committed_ = false;
    if (!file_ || !file_->write(queueSlotPosition(next), &header, sizeof header)) return false;
    if (!file_->write(kQueueSelectorPosition, &next, sizeof next)) return false;
    selector_ = next;
    committed_ = true;
    return true;
}

bool QueueStorage::writeMagic() { return file_->write(kQueueMagicPosition, &kQueueMagic, sizeof kQueueMagic); }

bool QueueStorage::pushRecord(std::string_view record) {
    const uint64_t recordSize = record.size() + kQueueLengthSize;
    if (record.size() > std::numeric_limits<QueueRecordLength>::max()) {
        throw FQException(FQError::file_limit_exceeded, "max-size-limit-exceeded");
    }
    if (!file_) createFile();
    const uint64_t offset = makeRoom(recordSize);
    const bool isWritable = committed_ || writeHeader(header_);
    if (!isWritable || !writeData(record, offset)) failWrite(record.size(), offset);
    const Header before = header_;
    advanceAfterPush(header_, recordSize);
    if (writeHeader(header_)) return true;
    header_ = before;
    // Whether the selector has reached the file is not known; it has to name the slot that the record is not in.
    if (file_) static_cast<void>(file_->write(kQueueSelectorPosition, &selector_, sizeof selector_));
    return false;
}

// A ring without room never holds the record up: that one and all later ones go behind the ring until it has drained,
// which keeps their order. A queue without records starts over.
uint64_t QueueStorage::makeRoom(uint64_t recordSize) {
    if (const auto offset = placeInRing(header_, recordSize)) return *offset;
    const uint64_t dataSize = fileSize_ - kQueueHeaderSize;
    if (maximumSize_ > kUnlimited && header_.recordCount() == 0 && recordSize <= dataSize) {
        header_ = emptyQueueHeader(dataSize);
        return 0;
    }
    if (recordSize > header_.capacity - header_.overflowWriteOffset) {
        if (header_.capacity > dataSize) failWrite(recordSize - kQueueLengthSize, header_.overflowWriteOffset);
        const uint64_t capacity = header_.capacity + std::max(recordSize, kQueueMinimumGrowth);
        resize(capacity);
        header_.capacity = capacity;
    }
    return header_.overflowWriteOffset;
}

void QueueStorage::failWrite(uint64_t length, uint64_t offset) {
    VELMORA_LOG_AT(error, "fq", "velmora::QueueStorage::writeData")
        << "Failed to write data of len=" << length << " at offset=" << offset;
    throw FQException(FQError::file_corrupt, "write-failed");
}

void QueueStorage::failRead(uint64_t length, uint64_t offset) {
    VELMORA_LOG_AT(error, "fq", "velmora::QueueStorage::readData")
        << "Failed to read data of len=" << length << " at offset=" << offset;
    throw FQException(FQError::file_corrupt, "read-failed");
}

bool QueueStorage::writeData(std::string_view bytes, uint64_t offset) {
    const auto length = static_cast<QueueRecordLength>(bytes.size());
    const uint64_t dataSize = fileSize_ - kQueueHeaderSize;
    if (offset > dataSize || kQueueLengthSize + length > dataSize - offset) return false;  // out of a damaged header
    const uint64_t position = kQueueHeaderSize + offset;
    if (bytes.size() > kOneWriteLimit) {
        return file_->write(position, &length, sizeof length) &&
               file_->write(position + sizeof length, bytes.data(), bytes.size());
    }
    scratch_.assign(reinterpret_cast<const char*>(&length), sizeof length);
    scratch_.append(bytes);
    return file_->write(position, scratch_.data(), scratch_.size());
}

void QueueStorage::peekRecords(Header header, uint64_t count, std::vector<std::string>& out) {
    if (count == 0) return;
    if (!file_) failRead(0, header.readOffset);
    ReadAhead ahead(*file_, fileSize_);
    for (uint64_t i = 0; i < count; ++i) {
        std::string buffer;
        QueueRecordLength length = 0;
        readData(buffer, length, header.readOffset, ahead);
        out.push_back(std::move(buffer));
        advanceAfterPop(header, length + kQueueLengthSize);
    }
}

// The length is held against the file before anything is allocated for it.
void QueueStorage::readData(std::string& buffer, QueueRecordLength& length, uint64_t offset, ReadAhead& ahead) {
    const uint64_t position = kQueueHeaderSize + offset;
    if (offset < fileSize_ && ahead.read(position, &length, sizeof length) &&
        ahead.contains(position + sizeof length, length)) {
        buffer.resize(length);
        if (ahead.read(position + sizeof length, buffer.data(), length)) return;
    }
    failRead(length, offset);
}

uint64_t QueueStorage::popRecords(uint64_t count) {
    std::vector<QueueRecordLength> lengths;
    Header header = header_;
    for (uint64_t left = std::min(count, header.recordCount()); left > 0; --left) {
        QueueRecordLength& length = lengths.emplace_back();
        const bool isInside = file_ && header.readOffset < fileSize_;
        if (!isInside || !file_->read(kQueueHeaderSize + header.readOffset, &length, sizeof length)) {
            failRead(0, header.readOffset);
        }
        advanceAfterPop(header, length + kQueueLengthSize);
    }
    popRecords(lengths);
    return lengths.size();
}

void QueueStorage::popRecords(std::span<const QueueRecordLength> lengths) {
    for (const QueueRecordLength length : lengths) advanceAfterPop(header_, length + kQueueLengthSize);
    if (!lengths.empty()) writeHeader(header_);
}

}  // namespace velmora
