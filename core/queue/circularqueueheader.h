// The layout of a queue file and the pure transitions of its header. Whatever reads such a file, the queue itself and
// tools that only look, goes by this.
//
//     0    8  magic
//     8    1  selector; bit 0 names the current header slot
//     9    7  reserved, zero
//    16   64  header slot 0
//    80   64  header slot 1
//   144       data area
//
// Integers are memory images, little-endian where the format runs. A record is a 32-bit length and that many bytes. It
// is never split: the ring's end may leave unused bytes, and only `headCount` tells a reader when to go back to the
// start. Offsets in a header count from the start of the data area.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <type_traits>

namespace velmora {

inline constexpr uint64_t kQueueMagic = 2628179991678588509;
inline constexpr uint64_t kQueueMagicPosition = 0;
inline constexpr uint64_t kQueueSelectorPosition = 8;
inline constexpr uint64_t kQueueSlotsPosition = 16;
inline constexpr uint64_t kQueueSlotSize = 64;
inline constexpr uint64_t kQueueHeaderSize = 144;
inline constexpr uint64_t kQueueMinimumGrowth = 80;

// Precedes each record's bytes.
using QueueRecordLength = uint32_t;
inline constexpr uint64_t kQueueLengthSize = sizeof(QueueRecordLength);

[[nodiscard]] constexpr uint64_t queueSlotPosition(uint8_t selector) noexcept {
    return kQueueSlotsPosition + kQueueSlotSize * (selector & 1U);
}

// One slot: a ring, and behind it an overflow region for what came while the ring was full. The region exists exactly
// while `ringEnd` is below `capacity`.
struct CircularQueueHeader {
    uint64_t headCount = 0;            // records to be read before the reader goes back to offset 0
    uint64_t ringCount = 0;            // records in the ring, both runs together
    uint64_t overflowCount = 0;        // records in the overflow region
    uint64_t readOffset = 0;           // oldest record of the ring
    uint64_t writeOffset = 0;          // where the ring's next record goes
    uint64_t ringEnd = 0;              // end of the ring, begin of the overflow region
    uint64_t overflowWriteOffset = 0;  // where the next overflow record goes
    uint64_t capacity = 0;             // bytes of the data area

    [[nodiscard]] constexpr uint64_t recordCount() const noexcept { return ringCount + overflowCount; }
    [[nodiscard]] constexpr bool hasOverflowRegion() const noexcept { return ringEnd < capacity; }

    // Both offsets are equal in an empty ring as well.
    [[nodiscard]] constexpr bool isRingFull() const noexcept { return writeOffset == readOffset && ringCount > 0; }

    friend constexpr bool operator==(const CircularQueueHeader&, const CircularQueueHeader&) = default;
};

static_assert(sizeof(CircularQueueHeader) == kQueueSlotSize);
static_assert(std::is_trivially_copyable_v<CircularQueueHeader>);

[[nodiscard]] constexpr CircularQueueHeader emptyQueueHeader(uint64_t capacity) noexcept {
    CircularQueueHeader header;
    header.ringEnd = header.overflowWriteOffset = header.capacity = capacity;
    return header;
}

// The overflow region becomes the ring. From then on the ring spans the whole data area, so that the space of the old
// one is used again when the writer goes back to the start.
constexpr void promoteOverflow(CircularQueueHeader& header) noexcept {
    header.headCount = header.ringCount = header.overflowCount;
    header.overflowCount = 0;
    header.readOffset = header.ringEnd;
    header.writeOffset = header.overflowWriteOffset;
    header.ringEnd = header.overflowWriteOffset = header.capacity;
}

// Where in the ring a record of `recordSize` bytes, its length field included, goes; nothing if it has to go to the
// overflow region. The writer may have gone back to offset 0 either way.
[[nodiscard]] constexpr std::optional<uint64_t> placeInRing(CircularQueueHeader& header, uint64_t recordSize) noexcept {
    if (header.hasOverflowRegion() || header.isRingFull()) return std::nullopt;
    if (header.writeOffset >= header.readOffset) {
        if (recordSize <= header.ringEnd - header.writeOffset) return header.writeOffset;
        header.writeOffset = 0;
    }
    if (recordSize <= header.readOffset - header.writeOffset) return header.writeOffset;
    return std::nullopt;
}

// The header after a record of `recordSize` bytes has been written where it belongs.
constexpr void advanceAfterPush(CircularQueueHeader& header, uint64_t recordSize) noexcept {
    if (header.ringCount == 0) {
        if (header.hasOverflowRegion()) {
            promoteOverflow(header);
        } else {
            header.readOffset = header.writeOffset;
        }
    }
    if (header.hasOverflowRegion()) {
        header.overflowCount += 1;
        header.overflowWriteOffset += recordSize;
        return;
    }
    header.ringCount += 1;
    if (header.writeOffset >= header.readOffset) header.headCount += 1;
    header.writeOffset += recordSize;
}

// The header after the oldest record, `recordSize` bytes long, has been taken.
constexpr void advanceAfterPop(CircularQueueHeader& header, uint64_t recordSize) noexcept {
    if (header.headCount > 0) header.headCount -= 1;
    if (header.ringCount > 0) header.ringCount -= 1;
    if (header.headCount == 0 && header.ringCount != 0) {
        header.readOffset = 0;
        header.headCount = header.ringCount;
        return;
    }
    header.readOffset += recordSize;
    if (header.ringCount == 0 && header.hasOverflowRegion()) promoteOverflow(header);
}

}  // namespace velmora
