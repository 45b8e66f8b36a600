// The collector's own store: events in order of arrival, in an SQLite file that survives the end of the process at any
// moment. Batches that wait at the same time share a transaction. What an append was answered "stored" for is in the
// file; a loss of power may take the last moments with it.
#pragma once

#include <SQLiteCpp/Database.h>

#include <deque>
#include <string>
#include <thread>
#include <unordered_map>

#include "core/types/mutex.h"
#include "tools/velmora/store.h"

namespace velmora::tool {

// Owns the file's two connections, one to write with on a thread of its own, one to read with, and that thread. From
// the constructor to stop() it takes batches, afterwards it only reads.
class SqliteStore final : public Store, public StoreView {
public:
    // Makes the file if it is missing. Throws std::runtime_error, also for a file that is something else.
    SqliteStore(const std::string& path, uint64_t maxPendingBytes);
    ~SqliteStore() override;

    void append(std::shared_ptr<const Batch> batch, Completion done) noexcept override;
    [[nodiscard]] bool ready(std::string& why) const override;
    [[nodiscard]] StoreFigures figures() const override;
    [[nodiscard]] StoreView* view() noexcept override { return this; }
    void stop() noexcept override;

    int64_t readEvents(const EventQuery& query, int64_t limit,
                       const std::function<void(std::string_view)>& sink) override;
    [[nodiscard]] int64_t countEvents(const EventQuery& query) override;
    int64_t readRejections(int64_t since, int64_t limit, const std::function<void(std::string_view)>& sink) override;
    [[nodiscard]] EventStats stats() override;
    void addRejection(RejectionRecord rejection) override;
    void clear() override;

    // How often each event.guid has arrived; events without one are left out.
    [[nodiscard]] std::unordered_map<std::string, int64_t> arrivals();

private:
    struct Pending {
        std::shared_ptr<const Batch> batch;
        Completion done;
    };
    struct Work {
        std::vector<Pending> batches;
        std::vector<RejectionRecord> rejections;
    };

    void runWriter();
    [[nodiscard]] Work takeWorkLocked() VELMORA_REQUIRES(mutex_);
    void noteWritten(const Work& work, const AppendResult& result);
    [[nodiscard]] AppendResult write(const Work& work) noexcept;
    void insertBatches(const Work& work, const std::string& now);
    void insertRejections(const Work& work, const std::string& now);
    void waitForWriter();

    const uint64_t maxPendingBytes_;
    SQLite::Database writer_;  // the writer's thread alone, once it runs

    mutable Mutex mutex_;
    Condition wake_;     // there is work, or the end
    Condition written_;  // some work is done
    std::deque<Pending> pending_ VELMORA_GUARDED_BY(mutex_);
    std::vector<RejectionRecord> rejections_ VELMORA_GUARDED_BY(mutex_);
    uint64_t pendingBytes_ VELMORA_GUARDED_BY(mutex_) = 0;
    uint64_t queued_ VELMORA_GUARDED_BY(mutex_) = 0;  // pieces of work ever taken, and done
    uint64_t done_ VELMORA_GUARDED_BY(mutex_) = 0;
    uint64_t lostRejections_ VELMORA_GUARDED_BY(mutex_) = 0;
    std::string failure_ VELMORA_GUARDED_BY(mutex_);  // why the last transaction failed; empty if it did not
    bool stopping_ VELMORA_GUARDED_BY(mutex_) = false;

    Mutex readMutex_;
    SQLite::Database reader_ VELMORA_GUARDED_BY(readMutex_);
    EventStats lastStats_ VELMORA_GUARDED_BY(readMutex_);  // of the last time they were counted
    int64_t lastBatch_ VELMORA_GUARDED_BY(readMutex_) = -1;

    std::thread thread_;
};

}  // namespace velmora::tool
