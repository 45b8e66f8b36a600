// Looks at what the library keeps on disk, from a whole data root down to one queue file. Reads only, with the
// library's own reader, and takes no holds, so that a running process does not notice.
//
// What a running process is just changing may look damaged for a moment. Below a folder that is held, damage therefore
// counts only if it is found again and again for half a second.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "core/filesystem/path.h"
#include "core/platform/folderlock.h"
#include "core/queue/circularqueueheader.h"
#include "tools/velmora/recordview.h"

namespace velmora::tool {

struct InspectOptions {
    uint64_t records = 0;                        // of each part file, from the oldest on
    std::optional<std::string> passphrase = {};  // without one, enciphered records stay as they are
};

enum class InspectedKind { dataRoot, configuration, instance, store, manifest, part };

struct Inspected {
    InspectedKind kind;
    Path path;
    std::string name;                                         // the last component of the path
    platform::HoldState hold = platform::HoldState::unknown;  // of an instance
    uint64_t bytes = 0;                                       // sizes of the queue files, as the file system tells them
    std::optional<int64_t> lastWrite;                         // the latest of any queue file, seconds since 1970
    uint64_t events = 0;                                      // that can be read
    bool hasHeader = false;                                   // a queue file with the magic; then also:
    uint8_t selector = 0;
    CircularQueueHeader header;
    std::vector<InspectedRecord> records;
    std::vector<std::string> damage;  // of this very thing, not of its children
    std::vector<std::string> notes;
    std::vector<Inspected> children;
};

// Finds out what the path is and looks at it. Throws std::runtime_error if there is nothing, or nothing of the library.
[[nodiscard]] Inspected inspect(const Path& path, const InspectOptions& options);

// The number of damaged places in the whole tree.
[[nodiscard]] uint64_t countDamage(const Inspected& node);

}  // namespace velmora::tool
