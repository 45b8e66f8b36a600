#include "ingest/event/store/eventstore.h"

#include <algorithm>
#include <exception>
#include <span>
#include <utility>

#include "core/filesystem/filesystem.h"
#include "core/types/errors.h"
#include "core/types/function.h"
#include "core/types/logger.h"
#include "core/utils/strings.h"
#include "core/utils/timestamps.h"

namespace velmora {
namespace {

constexpr const char* kManifestName = "manifest";
constexpr uint64_t kFilesPerRotation = 10;  // the manifest may list ten times the files that fill the folder

FQException writeFailed() { return FQException(FQError::file_corrupt, "write-failed"); }

// 0 for what is gone or can't be asked.
uint64_t sizeOf(const Path& path) {
    try {
        return path.fileSize();
    } catch (const std::exception&) {
        return 0;
    }
}

int64_t ageOf(const Path& path, int64_t now) {
    try {
        return now - path.lastWriteTime();
    } catch (const std::exception&) {
        return 0;
    }
}

// Of all files below the folder but the excepted one.
uint64_t sizeOfFiles(const Path& folder, const Path& except) {
    uint64_t sum = 0;
    Filesystem::listDirectory(folder, [&](const std::string& name) {
        const Path child = folder / name;
        if (child.isDirectory()) {
            sum += sizeOfFiles(child, except);
        } else if (!(child == except)) {
            sum += sizeOf(child);
        }
        return true;
    });
    return sum;
}

bool isAmong(const std::vector<PartName>& names, const std::string& name) {
    return std::any_of(names.begin(), names.end(), [&](const PartName& known) { return known.string() == name; });
}

}  // namespace

// What one purge has found and dropped.
struct EventStore::Purge {
    int64_t now;
    int64_t retentionSeconds;
    uint64_t folderSize;     // at the start
    uint64_t remainingSize;  // of the files not dropped
    uint64_t emptyFiles = 0;
    uint64_t expiredFiles = 0;
    uint64_t expiredEvents = 0;
    uint64_t overflowFiles = 0;
    uint64_t overflowEvents = 0;

    uint64_t files() const { return emptyFiles + expiredFiles + overflowFiles; }
    uint64_t events() const { return expiredEvents + overflowEvents; }
};

EventStore::EventStore(Path folder, DropCallback onDrop, QueueConfig config, platform::RandomAccessFileOpener opener)
    : folder_(std::move(folder)),
      dropCallback_(std::move(onDrop)),
      name_(std::move(config.name)),
      fileRotationSize_(config.fileRotationSize),
      folderSizeLimit_(config.folderSizeLimit),
      retentionPeriod_(config.retentionPeriod),
      opener_(std::move(opener)) {
    const MutexLock lock(mutex_);
    loadEventStoreIfPresent();
}

EventStore::~EventStore() {
    exceptionSafeWrapper([this] {
        const MutexLock lock(mutex_);
        if (balance_ == 0) removeEventStore();
    });
}

void EventStore::push(std::string_view event) {
    const MutexLock lock(mutex_);
    tryPush(event);
    ++balance_;
    VELMORA_LOG(info, "event.store") << "pushed=1 balance=" << balance_ << " name=" << name_;
}

Queue::Batch EventStore::peek(uint64_t count) {
    const MutexLock lock(mutex_);
    return tryPeek(count);
}

uint64_t EventStore::pop(const Batch& batch, uint64_t count) {
    if (batch.lengths_.empty()) return 0;
    const MutexLock lock(mutex_);
    const auto part = batch.part_.lock();
    if (!part || part != readPart_ || readPart_->gone() != batch.first_) {
        VELMORA_LOG(info, "event.store") << "ignore pop=" << count << " name=" << name_;
        return 0;
    }
    const uint64_t popped = std::min<uint64_t>(count, batch.lengths_.size());
    readPart_->pop(std::span(batch.lengths_).first(static_cast<size_t>(popped)));
    balance_ -= popped;
    try {
        advanceReadPart();
    } catch (const FQException& e) {  // the records are popped all the same; the next peek moves on
        VELMORA_LOG(warn, "event.store") << "can't move on to the next part: " << e.what() << " name=" << name_;
    }
    VELMORA_LOG(info, "event.store") << "popped=" << popped << " balance=" << balance_ << " name=" << name_;
    return popped;
}

void EventStore::remove() {
    const MutexLock lock(mutex_);
    removeEventStore();
}

void EventStore::loadEventStoreIfPresent() {
    if (!openManifest(false)) return;
    VELMORA_LOG(info, "event.store") << "Loading eventstore: num_files=" << manifest_->recordCount()
                                     << " name=" << name_;
    truncateIfTooManyFiles();
    for (const PartName& name : readManifest()) {
        writePart_ = openPart(pathOf(name));
        balance_ += writePart_->size();
        if (!readPart_) readPart_ = writePart_;
    }
    VELMORA_LOG(info, "event.store") << "Loaded eventstore: num_events=" << balance_ << " name=" << name_;
}

bool EventStore::openManifest(bool create) {
    if (manifest_) return true;
    if (!create && !manifestPath().exists()) return false;
    if (!folder_.exists()) Filesystem::createDirectories(folder_);
    manifest_ = std::make_unique<QueueStorage>(manifestPath(), QueueStorage::kUnlimited, opener_);
    if (create) {
        VELMORA_LOG(info, "event.store") << "Created eventstore: num_files=" << manifest_->recordCount()
                                         << " name=" << name_;
    }
    return true;
}

void EventStore::truncateIfTooManyFiles() {
    const uint64_t size = std::min(folderSizeLimit_, ~uint64_t{0} / kFilesPerRotation);
    const uint64_t limit = size * kFilesPerRotation / std::max<uint64_t>(fileRotationSize_, 1);
    if (manifest_->recordCount() <= limit) return;
    VELMORA_LOG(warn, "event.store") << "too many files: num_files=" << manifest_->recordCount()
                                     << " max_num_files=" << limit;
    manifest_->remove();
    Filesystem::removeAll(folder_);
    Filesystem::createDirectories(folder_);
    manifest_->recreate();
}

// From the front on, up to the first name that can't be read or can't be one. A manifest without names beside part
// files has been begun anew in place of a damaged one.
std::vector<PartName> EventStore::readManifest() {
    std::vector<std::string> listed;
    bool damaged = false;
    try {
        manifest_->peekRecords(manifest_->header(), manifest_->recordCount(), listed);
    } catch (const FQException&) {
        damaged = true;
    }
    std::vector<PartName> names;
    for (std::string& text : listed) {
        if (!PartName::isPlain(text) || text == kManifestName || isAmong(names, text)) break;
        names.emplace_back(std::move(text));
    }
    damaged = damaged || names.size() < listed.size() || (names.empty() && holdsPartFiles());
    if (damaged) keepOnly(names);
    return names;
}

bool EventStore::holdsPartFiles() {
    bool found = false;
    Filesystem::listDirectory(folder_, [&](const std::string& child) {
        found = child != kManifestName;
        return !found;
    });
    return found;
}

// A new manifest with these names. What it does not list would never be read, and weigh on the folder's size for ever.
void EventStore::keepOnly(const std::vector<PartName>& names) {
    VELMORA_LOG(warn, "event.store") << "manifest is damaged: keeping num_files=" << names.size() << " name=" << name_;
    manifest_->recreate();
    for (const PartName& name : names) {
        if (!manifest_->pushRecord(name.string())) throw writeFailed();
    }
    Filesystem::listDirectory(folder_, [&](const std::string& child) {
        if (child != kManifestName && !isAmong(names, child)) Filesystem::removeAll(folder_ / child);
        return true;
    });
}

// A part that has failed keeps its events and takes no more; one without events is tried again by the next push.
void EventStore::tryPush(std::string_view event) {
    if (event.size() + kQueueLengthSize > fileRotationSize_) {
        throw std::system_error(make_error_code(VelmoraError::event_too_big));
    }
    for (;;) {
        ensureWritePart();
        if (writePart_->push(event)) return;
        if (writePart_->size() == 0) throw writeFailed();
        writePart_.reset();
    }
}

// Takes the part's events out of the count, even if there is no new file then.
uint64_t EventStore::giveUp(PartFileQueue& part) {
    const uint64_t lost = part.size();
    balance_ -= lost;
    part.truncate();
    return lost;
}

void EventStore::ensureWritePart() {
    openManifest(true);
    if (writePart_) return;
    purgeEventFiles();
    if (!pendingPart_) nameNewPart();
    writePart_ = openPart(pathOf(*pendingPart_));
    pendingPart_.reset();
    if (readPart_) return;
    if (const auto front = frontName()) readPart_ = openPart(pathOf(*front));
}

// A part that the manifest does not surely list must not take events: nobody would find them.
void EventStore::nameNewPart() {
    PartName name(makeGuid());
    if (!manifest_->pushRecord(name.string())) throw writeFailed();
    pendingPart_ = std::move(name);
}

Queue::Batch EventStore::tryPeek(uint64_t count) {
    for (;;) {
        advanceReadPart();
        if (!readPart_) return {};
        const uint64_t available = std::min(readPart_->size(), count);
        try {
            Batch batch;
            readPart_->peek(available, batch.records);
            batch.part_ = readPart_;
            batch.first_ = readPart_->gone();
            for (const std::string& event : batch.records) {
                batch.lengths_.push_back(static_cast<QueueRecordLength>(event.size()));
            }
            return batch;
        } catch (const FQException& e) {
            if (e.code() != FQError::file_corrupt) throw;
        }
        const uint64_t lost = giveUp(*readPart_);
        VELMORA_LOG(warn, "event.store") << "peek failed: truncating fq with num_events=" << lost
                                         << " batchSize=" << count;
        count = available;
    }
}

uint64_t EventStore::advanceReadPart() {
    for (;;) {
        if (readPart_ && readPart_->size() > 0) return readPart_->size();
        if (balance_ == 0) return 0;
        if (readPart_) dropReadPart();
        const auto front = frontName();
        if (!front) {
            balance_ = 0;
            writePart_.reset();
            pendingPart_.reset();
            return 0;
        }
        readPart_ = openPart(pathOf(*front));
    }
}

// Deletes the front part's file and its name. If the name can't be taken out, it is found again, without a file.
void EventStore::dropReadPart() {
    if (pendingPart_ && pathOf(*pendingPart_) == readPart_->path()) pendingPart_.reset();
    if (writePart_ == readPart_) writePart_.reset();
    readPart_->remove();
    readPart_.reset();
    manifest_->popRecords(1);
}

std::optional<PartName> EventStore::frontName() {
    if (!openManifest(false) || manifest_->recordCount() == 0) return std::nullopt;
    std::vector<std::string> names;
    manifest_->peekRecords(manifest_->header(), 1, names);
    return PartName(std::move(names.front()));
}

// One object per file, whatever its roles.
EventStore::Part EventStore::openPart(const Path& path) {
    if (writePart_ && writePart_->path() == path) return writePart_;
    if (readPart_ && readPart_->path() == path) return readPart_;
    return std::make_shared<PartFileQueue>(path, fileRotationSize_, opener_);
}

void EventStore::purgeEventFiles() {
    const uint64_t folderSize = sizeOfFiles(folder_, manifestPath());
    Purge purge{currentSeconds(), static_cast<int64_t>(retentionPeriod_ / 1000), folderSize, folderSize};
    try {
        sweep(purge);
    } catch (...) {
        settle(purge);
        throw;
    }
    settle(purge);
}

void EventStore::sweep(Purge& purge) {
    while (const auto front = frontName()) {
        const Path path = pathOf(*front);
        if (!readPart_) readPart_ = openPart(path);
        if (!judgeFrontPart(purge, path)) return;
        purge.remainingSize -= std::min(purge.remainingSize, sizeOf(path));
        dropReadPart();
    }
}

// Whether the part goes; if so, it has been counted.
bool EventStore::judgeFrontPart(Purge& purge, const Path& path) {
    const int64_t age = ageOf(path, purge.now);
    const uint64_t events = readPart_->size();
    if (events == 0) {
        ++purge.emptyFiles;
    } else if (age >= purge.retentionSeconds) {
        ++purge.expiredFiles;
        purge.expiredEvents += events;
    } else if (purge.remainingSize > folderSizeLimit_) {
        ++purge.overflowFiles;
        purge.overflowEvents += events;
    } else {
        return false;
    }
    return true;
}

void EventStore::settle(const Purge& purge) {
    balance_ -= purge.events();
    if (purge.files() != 0) {
        VELMORA_LOG(warn, "event.store") << "dropped files=" << purge.files() << " num_events=" << purge.events()
                                         << " ttl=" << retentionPeriod_ << "ms name=" << name_;
    }
    if (!dropCallback_) return;
    if (purge.emptyFiles != 0) dropCallback_(name_, "Empty", purge.emptyFiles, purge.folderSize);
    if (purge.expiredEvents != 0) dropCallback_(name_, "Expire", purge.expiredEvents, purge.folderSize);
    if (purge.overflowEvents != 0) dropCallback_(name_, "Overflow", purge.overflowEvents, purge.folderSize);
}

void EventStore::removeEventStore() {
    if (!folder_.exists()) return;
    VELMORA_LOG(info, "event.store") << "Delete eventstore: num_events=" << balance_ << " name=" << name_;
    writePart_.reset();
    readPart_.reset();
    pendingPart_.reset();
    manifest_.reset();
    balance_ = 0;
    Filesystem::removeAll(folder_);
}

}  // namespace velmora
