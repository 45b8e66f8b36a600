#include "core/queue/queuereader.h"

#include "core/types/errors.h"

namespace velmora {

QueueReader::QueueReader(const Path& path) : file_(platform::openReadOnlyFile(path.native())) {
    if (!file_ || !file_->size(fileSize_)) throw FQException(FQError::file_open_failed, "open-failed");
    ahead_.emplace(*file_, fileSize_);
    open();
    if (valid_) checkHeader();
}

void QueueReader::open() {
    if (fileSize_ < kQueueHeaderSize) {
        damage_ = "the file is too short: size=" + std::to_string(fileSize_);
    } else if (!ahead_->read(kQueueMagicPosition, &magic_, sizeof magic_)) {
        damage_ = "the file can't be read";
    } else if (magic_ != kQueueMagic) {
        damage_ = "the magic is wrong: magic=" + std::to_string(magic_);
    } else if (!ahead_->read(kQueueSelectorPosition, &selector_, sizeof selector_) ||
               !ahead_->read(queueSlotPosition(selector_), &header_, sizeof header_)) {
        damage_ = "the header can't be read";
    } else {
        valid_ = true;
        walk_ = header_;
    }
}

void QueueReader::checkHeader() {
    const uint64_t dataSize = fileSize_ - kQueueHeaderSize;
    const struct {
        bool sound;
        const char* what;
    } rules[] = {
        {header_.capacity <= dataSize, "capacity is beyond the end of the file"},
        {header_.ringEnd <= header_.capacity, "ringEnd is beyond capacity"},
        {header_.readOffset <= header_.ringEnd, "readOffset is beyond ringEnd"},
        {header_.writeOffset <= header_.ringEnd, "writeOffset is beyond ringEnd"},
        {header_.overflowWriteOffset >= header_.ringEnd && header_.overflowWriteOffset <= header_.capacity,
         "overflowWriteOffset is outside the overflow region"},
        {header_.headCount <= header_.ringCount, "headCount is above ringCount"},
        {header_.ringCount <= dataSize / kQueueLengthSize, "ringCount is more than the file can hold"},
        {header_.overflowCount <= dataSize / kQueueLengthSize, "overflowCount is more than the file can hold"},
    };
    for (const auto& rule : rules) {
        if (rule.sound) continue;
        damage_ = std::string("the header is damaged: ") + rule.what;
        return;
    }
}

std::optional<QueueReader::Record> QueueReader::next() {
    if (!valid_ || !damage_.empty() || index_ >= recordCount()) return std::nullopt;
    const Region region = index_ < header_.ringCount ? Region::ring : Region::overflow;
    Record record{index_, kQueueHeaderSize + walk_.readOffset, 0, region};
    QueueRecordLength length = 0;
    if (!ahead_->read(record.position, &length, sizeof length)) {
        damage_ =
            "record " + std::to_string(record.index) + " can't be read: position=" + std::to_string(record.position);
        return std::nullopt;
    }
    record.length = length;
    checkRecord(record);
    if (!damage_.empty()) return std::nullopt;
    advanceAfterPop(walk_, record.length + kQueueLengthSize);
    ++index_;
    return record;
}

void QueueReader::checkRecord(const Record& record) {
    const uint64_t end = walk_.readOffset + kQueueLengthSize + record.length;
    const bool isBehindWriter = walk_.readOffset < walk_.writeOffset;
    const uint64_t limit = isBehindWriter ? walk_.writeOffset : walk_.ringEnd;
    if (end <= limit) return;
    damage_ = "record " + std::to_string(record.index) +
              " reaches beyond its region: position=" + std::to_string(record.position) +
              " length=" + std::to_string(record.length);
}

bool QueueReader::read(const Record& record, std::string& bytes) {
    const uint64_t start = record.position + kQueueLengthSize;
    if (!ahead_->contains(start, record.length)) return false;
    bytes.resize(static_cast<size_t>(record.length));
    return ahead_->read(start, bytes.data(), bytes.size());
}

}  // namespace velmora
