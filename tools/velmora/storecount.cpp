#include "tools/velmora/storecount.h"

#include <string>
#include <system_error>

#include "core/filesystem/filesystem.h"
#include "core/queue/queuereader.h"

namespace velmora::tool {
namespace {

constexpr const char* kStores[] = {"auth_events", "anon_events"};

uint64_t countPart(const Path& part) {
    try {
        return part.isFile() ? QueueReader(part).recordCount() : 0;
    } catch (const std::system_error&) {
        return 0;
    }
}

// The parts that the manifest lists; a file beside them is of no queue.
uint64_t countStore(const Path& folder) {
    if (!(folder / "manifest").isFile()) return 0;
    QueueReader manifest(folder / "manifest");
    uint64_t count = 0;
    std::string name;
    while (const auto record = manifest.next()) {
        if (manifest.read(*record, name)) count += countPart(folder / name);
    }
    return count;
}

}  // namespace

uint64_t countEventsOnDisk(const std::string& configGuid) {
    const Path instances = Filesystem::getDataFolder(false) / configGuid / "v1";
    uint64_t count = 0;
    if (!instances.isDirectory()) return count;
    Filesystem::listDirectory(instances, [&](const std::string& name) {
        for (const char* store : kStores) count += countStore(instances / name / store);
        return true;
    });
    return count;
}

}  // namespace velmora::tool
