// The events of one pipeline, in a folder of its own: part files, each a ring of at most the rotation size, and a
// manifest that lists them, oldest first. Events are written to the part at the manifest's back and read from the one
// at its front; a part that does not take a record any more is left for a new one, and that is the moment at which
// retention and the folder's limit are enforced.
//
// A store that is destroyed empty deletes its folder; one that holds events leaves it for a later process. Damage costs
// the affected part file only: it is logged and taken out of the count.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/filesystem/path.h"
#include "core/platform/randomaccessfile.h"
#include "core/queue/queuestorage.h"
#include "core/types/mutex.h"
#include "ingest/event/store/partfilequeue.h"
#include "ingest/event/store/queue.h"

namespace velmora {

// Threads: any. Its mutex stands alone: the only call out of it is the drop callback. The folder belongs to this object
// alone; what keeps other processes away is the hold on a folder above.
class EventStore final : public Queue {
public:
    // Takes over what an earlier process has left in the folder, and creates nothing. Raises FQException if the
    // manifest or a part file can't be opened.
    EventStore(Path folder, DropCallback onDrop, QueueConfig config,
               platform::RandomAccessFileOpener opener = platform::openSystemFile);
    ~EventStore() override;
    EventStore(const EventStore&) = delete;
    EventStore& operator=(const EventStore&) = delete;

    void push(std::string_view event) override VELMORA_EXCLUDES(mutex_);
    [[nodiscard]] Batch peek(uint64_t count) override VELMORA_EXCLUDES(mutex_);
    uint64_t pop(const Batch& batch, uint64_t count) override VELMORA_EXCLUDES(mutex_);
    [[nodiscard]] uint64_t size() const override { return balance_; }
    void remove() override VELMORA_EXCLUDES(mutex_);

private:
    using Part = std::shared_ptr<PartFileQueue>;
    struct Purge;

    void loadEventStoreIfPresent() VELMORA_REQUIRES(mutex_);
    bool openManifest(bool create) VELMORA_REQUIRES(mutex_);
    void truncateIfTooManyFiles() VELMORA_REQUIRES(mutex_);
    std::vector<PartName> readManifest() VELMORA_REQUIRES(mutex_);
    bool holdsPartFiles() VELMORA_REQUIRES(mutex_);
    void keepOnly(const std::vector<PartName>& names) VELMORA_REQUIRES(mutex_);

    void tryPush(std::string_view event) VELMORA_REQUIRES(mutex_);
    void ensureWritePart() VELMORA_REQUIRES(mutex_);
    void nameNewPart() VELMORA_REQUIRES(mutex_);

    Batch tryPeek(uint64_t count) VELMORA_REQUIRES(mutex_);
    uint64_t advanceReadPart() VELMORA_REQUIRES(mutex_);
    void dropReadPart() VELMORA_REQUIRES(mutex_);
    uint64_t giveUp(PartFileQueue& part) VELMORA_REQUIRES(mutex_);

    void purgeEventFiles() VELMORA_REQUIRES(mutex_);
    void sweep(Purge& purge) VELMORA_REQUIRES(mutex_);
    bool judgeFrontPart(Purge& purge, const Path& path) VELMORA_REQUIRES(mutex_);
    void settle(const Purge& purge) VELMORA_REQUIRES(mutex_);
    void removeEventStore() VELMORA_REQUIRES(mutex_);

    Part openPart(const Path& path) VELMORA_REQUIRES(mutex_);
    std::optional<PartName> frontName() VELMORA_REQUIRES(mutex_);
    [[nodiscard]] Path pathOf(const PartName& name) const { return folder_ / name.string(); }
    [[nodiscard]] Path manifestPath() const { return folder_ / "manifest"; }

    Mutex mutex_;
    const Path folder_;
    const DropCallback dropCallback_;
    const std::string name_;
    const uint64_t fileRotationSize_;
    const uint64_t folderSizeLimit_;
    const uint64_t retentionPeriod_;
    const platform::RandomAccessFileOpener opener_;
    std::unique_ptr<QueueStorage> manifest_ VELMORA_GUARDED_BY(mutex_);
    Part writePart_ VELMORA_GUARDED_BY(mutex_);
    Part readPart_ VELMORA_GUARDED_BY(mutex_);
    // At the manifest's back, but its file could not be created yet: the next push tries again.
    std::optional<PartName> pendingPart_ VELMORA_GUARDED_BY(mutex_);
    std::atomic<uint64_t> balance_ = 0;  // events in the store; written under the mutex, read without
};

}  // namespace velmora
