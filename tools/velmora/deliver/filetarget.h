// Events in a file, one JSON text a line, in the order of the log.
#pragma once

#include <cstdint>
#include <string>

#include "tools/velmora/deliver/target.h"

namespace velmora::tool {

// Beside PATH stands PATH.position: how long the file is, and the sequence of the message that ends it. It is replaced
// in one step after the lines are on the disk; at the next start the file is cut to that length, so that lines whose
// position was not written are delivered once more and stand there once.
//
// An event that the log holds twice, beyond its window of deduplication, stands in the file twice: a file has no index.
class FileTarget : public Target {
public:
    // Throws std::runtime_error if another process writes to the file, if it can't be opened, or if it is shorter than
    // its position says.
    explicit FileTarget(std::string path);

    [[nodiscard]] bool wantsOrder() const override { return true; }
    [[nodiscard]] uint64_t lastSequence() const override { return sequence_; }
    void begin(const Delivery& delivery) override;
    DeliveryCounts finish() override;

private:
    struct Descriptor {
        int number;
        ~Descriptor();
    };

    void lock() const;
    void readPosition();
    void writePosition(uint64_t length, uint64_t sequence) const;

    const std::string path_;
    const Descriptor file_;
    uint64_t length_ = 0;    // up to here the file is what the position says
    uint64_t sequence_ = 0;  // of the last message before that
    const Delivery* delivery_ = nullptr;
};

}  // namespace velmora::tool
