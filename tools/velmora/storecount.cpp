#include "tools/velmora/storecount.h"

#include <array>
#include <cstring>
#include <fstream>
#include <string>

#include "core/filesystem/filesystem.h"

namespace velmora::tool {
namespace {

constexpr uint64_t kMagic = 2628179991678588509U;
constexpr size_t kSelectorOffset = 8;
constexpr size_t kFirstSlotOffset = 16;
constexpr size_t kSlotSize = 64;
constexpr size_t kHeaderSize = kFirstSlotOffset + 2 * kSlotSize;
constexpr size_t kRingCountOffset = 8;
constexpr size_t kOverflowCountOffset = 16;
constexpr const char* kStores[] = {"auth_events", "anon_events"};

uint64_t numberAt(const std::array<char, kHeaderSize>& header, size_t offset) {
    uint64_t number = 0;
    std::memcpy(&number, header.data() + offset, sizeof number);
    return number;
}

// The number of records that the header in force of a queue file tells.
uint64_t countRecords(const Path& file) {
    std::ifstream stream;
    std::array<char, kHeaderSize> header{};
    if (!Filesystem::open(stream, file, std::ios::in | std::ios::binary)) return 0;
    if (!stream.read(header.data(), header.size()) || numberAt(header, 0) != kMagic) return 0;
    const size_t slot = kFirstSlotOffset + (header[kSelectorOffset] & 1) * kSlotSize;
    return numberAt(header, slot + kRingCountOffset) + numberAt(header, slot + kOverflowCountOffset);
}

uint64_t countStore(const Path& folder) {
    uint64_t count = 0;
    if (!folder.isDirectory()) return count;
    Filesystem::listDirectory(folder, [&](const std::string& name) {
        if (name != "manifest") count += countRecords(folder / name);
        return true;
    });
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
