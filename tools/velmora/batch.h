// A posted batch, taken apart. The events keep the very text that arrived: nothing is parsed twice or written anew.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace velmora::tool {

struct ReceivedEvent {
    std::string project;      // of the event itself; empty if it names none
    std::string environment;  // the same
    std::string guid;         // data."event.guid"; empty if it has none
    bool isSignedIn = false;  // data."event.user_guid" is there and not empty
    std::string_view text;    // the event as JSON, in the body of its batch
};

// Neither copied nor moved once it is made, since the events point into the body.
struct Batch {
    std::string body;  // after decompression
    std::vector<ReceivedEvent> events;

    Batch() = default;
    Batch(const Batch&) = delete;
    Batch& operator=(const Batch&) = delete;
};

// Reads {"events":[{..},..]}. Throws std::invalid_argument with what is wrong and where; nothing is kept then.
[[nodiscard]] std::shared_ptr<const Batch> readBatch(std::string body);

// The text of a gzip stream of one or more members. Throws std::invalid_argument if it is damaged or cut, and
// std::length_error if it would have more than `limit` bytes; never uses more memory than that.
[[nodiscard]] std::string inflateGzip(std::string_view compressed, size_t limit);

}  // namespace velmora::tool
