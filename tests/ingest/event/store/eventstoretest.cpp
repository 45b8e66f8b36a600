#include "ingest/event/store/eventstore.h"

#include <gtest/gtest.h>

#include <atomic>
#include <boost/filesystem/operations.hpp>
#include <deque>
#include <random>
#include <thread>

#include "core/queue/queuereader.h"
#include "core/types/errors.h"
#include "tests/support/capturedlog.h"
#include "tests/support/codeof.h"
#include "tests/support/cuttingfile.h"
#include "tests/support/files.h"
#include "tests/support/tempfolder.h"

namespace velmora {
namespace {

namespace fs = boost::filesystem;
using test::CapturedLog;
using test::CuttingFiles;
using test::TempFolder;
using Events = std::vector<std::string>;

constexpr uint64_t kRotation = 256;
constexpr uint64_t kPartFile = kRotation + kQueueHeaderSize;

struct Drop {
    std::string reason;
    uint64_t count;
    uint64_t folderSize;
    friend bool operator==(const Drop&, const Drop&) = default;
};

struct Fixture {
    TempFolder root;
    fs::path folder = root / "store";
    QueueConfig config{"main", kRotation, 100 * kPartFile, 1000000};
    std::vector<Drop> drops;
    CuttingFiles files;
    std::unique_ptr<EventStore> store;

    void open() {
        const auto onDrop = [this](const std::string& name, const std::string& reason, uint64_t count, uint64_t size) {
            EXPECT_EQ(name, "main");
            drops.push_back({reason, count, size});
        };
        store.reset();
        store = std::make_unique<EventStore>(folder, onDrop, config, files.opener());
    }

    // Events of 100 bytes: two fit a part.
    static std::string event(int i) { return std::to_string(i) + std::string(98 - std::to_string(i).size(), '.'); }

    void push(int first, int last) {
        for (int i = first; i <= last; ++i) store->push(event(i));
    }

    Events drain() {
        Events all;
        while (store->size() > 0) {
            const Queue::Batch batch = store->peek(3);
            if (batch.records.empty()) break;
            all.insert(all.end(), batch.records.begin(), batch.records.end());
            EXPECT_EQ(store->pop(batch, 3), batch.records.size());
        }
        return all;
    }

    std::vector<PartName> manifest() const {
        QueueReader reader(folder / "manifest");
        std::vector<PartName> names;
        while (const auto record = reader.next()) {
            std::string name;
            EXPECT_TRUE(reader.read(*record, name));
            names.emplace_back(name);
        }
        return names;
    }

    fs::path part(size_t i) const { return folder / manifest().at(i).string(); }
    size_t filesInFolder() const {
        return static_cast<size_t>(std::distance(fs::directory_iterator(folder), fs::directory_iterator()));
    }
};

Events events(std::initializer_list<int> numbers) {
    Events result;
    for (const int i : numbers) result.push_back(Fixture::event(i));
    return result;
}

TEST(EventStoreLifeCycle, FilesComeWithTheFirstEventAndGoWithTheLast) {
    Fixture f;
    f.open();
    EXPECT_TRUE(f.store->peek(5).records.empty());
    EXPECT_EQ(f.store->pop({}, 1), 0U);
    EXPECT_FALSE(fs::exists(f.folder));
    f.push(1, 1);
    EXPECT_EQ(f.filesInFolder(), 2U);
    EXPECT_EQ(fs::file_size(f.part(0)), kPartFile);
    f.open();
    EXPECT_EQ(f.store->size(), 1U);
    EXPECT_EQ(f.drain(), events({1}));
    EXPECT_EQ(f.filesInFolder(), 2U);  // an idle store keeps its last part
    f.store.reset();
    EXPECT_FALSE(fs::exists(f.folder));
}

TEST(EventStoreLifeCycle, RemoveMakesTheBatchInFlightHarmless) {
    Fixture f;
    f.open();
    f.push(1, 3);
    const Queue::Batch inFlight = f.store->peek(2);
    EXPECT_EQ(inFlight.records.size(), 2U);
    f.store->remove();
    EXPECT_EQ(f.store->size(), 0U);
    EXPECT_FALSE(fs::exists(f.folder));
    f.push(4, 4);
    EXPECT_EQ(f.store->pop(inFlight, 2), 0U);
    EXPECT_EQ(f.drain(), events({4}));
}

TEST(EventStore, BehavesLikeADequeUnderRandomOperations) {
    const uint32_t seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    Fixture f;
    f.config.folderSizeLimit = 10000 * kPartFile;
    f.open();
    std::deque<std::string> model;
    for (int i = 0; i < 1500; ++i) {
        switch (random() % 10) {
            case 0:
                f.open();
                break;
            case 1:
            case 2:
            case 3:
            case 4: {
                const Queue::Batch batch = f.store->peek(random() % 5);
                ASSERT_LE(batch.records.size(), model.size());
                ASSERT_TRUE(std::equal(batch.records.begin(), batch.records.end(), model.begin()));
                const uint64_t popped = f.store->pop(batch, random() % 5);
                model.erase(model.begin(), model.begin() + static_cast<std::ptrdiff_t>(popped));
                ASSERT_TRUE(popped == 0 || f.store->pop(batch, 1) == 0);  // its events are no longer the oldest
                break;
            }
            default:
                model.emplace_back(random() % (kRotation - 3), static_cast<char>('a' + i % 26));
                f.store->push(model.back());
        }
        ASSERT_EQ(f.store->size(), model.size());
    }
    EXPECT_EQ(f.drain(), Events(model.begin(), model.end()));
    EXPECT_TRUE(f.drops.empty() || f.drops.front().reason == "Empty");
}

TEST(EventStoreLimits, EventThatFitsNoPartIsTooBigAndOneThatJustFitsIsNot) {
    Fixture f;
    f.open();
    f.push(1, 1);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(test::codeOf([&] { f.store->push(std::string(kRotation - 3, 'x')); }), VelmoraError::event_too_big);
        EXPECT_EQ(f.manifest().size(), 1U);  // nothing is left for it
    }
    f.store->push(std::string(kRotation - 4, 'y'));
    EXPECT_EQ(f.drain(), (Events{Fixture::event(1), std::string(kRotation - 4, 'y')}));

    f.push(2, 2);  // leaves traces in the part, which then is too short at both ends for an event of full length
    EXPECT_EQ(f.drain(), events({2}));
    f.store->push(std::string(kRotation - 4, 'z'));
    EXPECT_EQ(f.manifest().size(), 1U);
    EXPECT_EQ(f.drain(), Events{std::string(kRotation - 4, 'z')});
}

TEST(EventStorePurge, RotationDropsEmptyExpiredAndSurplusParts) {
    constexpr uint64_t kFull = 3 * kPartFile;
    const struct {
        const char* what;
        uint64_t limit;
        std::vector<int> ages;  // seconds, of the parts {1 2} {3 4} {5 6}
        bool frontEmptied;
        std::vector<Drop> drops;
        Events left;
    } rows[] = {
        {"nothing to drop", kFull, {0, 0, 0}, false, {}, events({1, 2, 3, 4, 5, 6, 7})},
        {"just not expired", kFull, {900, 0, 0}, false, {}, events({1, 2, 3, 4, 5, 6, 7})},
        {"expired", kFull, {1000, 1001, 0}, false, {{"Expire", 4, kFull}}, events({5, 6, 7})},
        {"old behind young", kFull, {0, 2000, 2000}, false, {}, events({1, 2, 3, 4, 5, 6, 7})},
        {"too much", 2 * kPartFile, {0, 0, 0}, false, {{"Overflow", 2, kFull}}, events({3, 4, 5, 6, 7})},
        {"a byte too much", kFull - 1, {0, 0, 0}, false, {{"Overflow", 2, kFull}}, events({3, 4, 5, 6, 7})},
        {"both", kPartFile, {2000, 0, 0}, false, {{"Expire", 2, kFull}, {"Overflow", 2, kFull}}, events({5, 6, 7})},
        {"everything", kPartFile - 1, {0, 0, 0}, false, {{"Overflow", 6, kFull}}, events({7})},
        {"empty front", kFull, {0, 0, 0}, true, {{"Empty", 1, kFull}}, events({3, 4, 5, 6, 7})},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        Fixture f;
        f.open();
        f.push(1, 6);
        f.config.folderSizeLimit = row.limit;
        const std::time_t now = std::time(nullptr);
        for (size_t i = 0; i < row.ages.size(); ++i) fs::last_write_time(f.part(i), now - row.ages[i]);
        if (row.frontEmptied) fs::remove(f.part(0));
        f.open();
        const Queue::Batch inFlight = row.frontEmptied ? Queue::Batch() : f.store->peek(2);
        f.push(7, 7);
        EXPECT_EQ(f.drops, row.drops);
        EXPECT_TRUE(row.drops.empty() || f.store->pop(inFlight, 2) == 0);
        EXPECT_EQ(f.drain(), row.left);
    }
}

TEST(EventStoreDamage, CostsTheAffectedPartOnly) {
    Fixture f;
    f.open();
    f.push(1, 6);
    f.store.reset();
    fs::resize_file(f.part(0), 100);
    fs::remove(f.part(1));
    f.open();
    EXPECT_EQ(f.store->size(), 2U);
    EXPECT_EQ(f.store->peek(50).records, events({5, 6}));  // never an empty batch while events are there
    EXPECT_EQ(f.drain(), events({5, 6}));
}

TEST(EventStoreDamage, UnreadableRecordGivesUpItsPartAndGoesOn) {
    Fixture f;
    f.open();
    f.push(1, 5);
    {
        const auto file = platform::openSystemFile(f.part(0), false);
        const uint32_t length = 0xFFFFFFFF;
        ASSERT_TRUE(file->write(kQueueHeaderSize + 102, &length, sizeof length));
    }
    EXPECT_EQ(f.store->peek(2).records, events({3, 4}));
    EXPECT_EQ(f.store->size(), 3U);
    EXPECT_EQ(f.drain(), events({3, 4, 5}));
}

TEST(EventStoreDamage, ManifestIsCutAtADamagedNameAndGivenUpWhenTooLong) {
    Fixture f;
    f.open();
    f.push(1, 6);
    f.store.reset();
    {
        const auto file = platform::openSystemFile(f.folder / "manifest", false);
        ASSERT_TRUE(file->write(kQueueHeaderSize + 40 + 4, "../../", 6));
    }
    f.open();
    EXPECT_EQ(f.store->size(), 2U);
    EXPECT_EQ(f.filesInFolder(), 2U);
    f.push(7, 7);
    EXPECT_EQ(f.drain(), events({1, 2, 7}));

    f.config = {"main", 1000, 10000, 1000000};
    f.folder = f.root / "long";
    fs::create_directories(f.folder);
    for (const int names : {100, 101}) {
        SCOPED_TRACE(names);
        {
            QueueStorage manifest(f.folder / "manifest", QueueStorage::kUnlimited, platform::openSystemFile);
            for (int i = 0; i < names; ++i) {
                const PartName name("part" + std::to_string(i));
                EXPECT_TRUE(QueueStorage(f.folder / name.string(), 1144, platform::openSystemFile).pushRecord("x"));
                EXPECT_TRUE(manifest.pushRecord(name.string()));
            }
        }
        f.open();
        EXPECT_EQ(f.store->size(), names == 100 ? 100U : 0U);
        EXPECT_EQ(f.filesInFolder(), names == 100 ? 101U : 1U);
        if (names == 100) f.store->remove();
        f.store.reset();
        fs::create_directories(f.folder);
    }
}

TEST(EventStoreDamage, ManifestThatIsNoQueueFileTakesItsPartsWithIt) {
    for (const bool cut : {false, true}) {
        Fixture f;
        f.open();
        f.push(1, 6);
        f.store.reset();
        if (cut) {
            fs::resize_file(f.folder / "manifest", 100);
        } else {
            ASSERT_TRUE(platform::openSystemFile(f.folder / "manifest", false)->write(0, "no magic", 8));
        }
        f.open();
        EXPECT_EQ(f.store->size(), 0U);
        EXPECT_EQ(f.filesInFolder(), 1U);
        f.push(7, 7);
        EXPECT_EQ(f.drain(), events({7}));
    }
}

// Accepted events are delivered, or counted as given up in the log, whatever single operation fails.
TEST(EventStoreFaults, AnyFailureKeepsTheBooksAndTheOrder) {
    bool wasHit = true;
    for (uint64_t operations = 0; wasHit; ++operations) {
        SCOPED_TRACE("failure of operation " + std::to_string(operations));
        const CapturedLog log(LogLevel::warn);
        Fixture f;
        f.open();
        f.files.failAfter(operations, 1);
        std::deque<std::string> accepted;
        Events delivered;
        for (int i = 0; i < 7; ++i) {
            try {
                f.push(i, i);
                accepted.push_back(Fixture::event(i));
                if (i % 3 != 2) continue;
                const Queue::Batch batch = f.store->peek(2);
                f.store->pop(batch, 2);
                delivered.insert(delivered.end(), batch.records.begin(), batch.records.end());
            } catch (const std::system_error& e) {
                EXPECT_EQ(e.code(), FQError::file_corrupt);
            }
        }
        wasHit = f.files.wasHit();
        f.files.failAfter(0, 0);
        const Events rest = f.drain();
        delivered.insert(delivered.end(), rest.begin(), rest.end());
        EXPECT_EQ(f.store->size(), 0U);
        uint64_t lost = 0;
        for (const std::string& line : log.messages("event.store")) {
            const size_t at = line.find("file loses num_events=");
            if (at != std::string::npos) lost += std::stoul(line.substr(at + 22));
        }
        EXPECT_EQ(delivered.size() + lost, accepted.size());
        for (const std::string& event : delivered) {  // in order
            while (!accepted.empty() && accepted.front() != event) accepted.pop_front();
            ASSERT_FALSE(accepted.empty()) << "not accepted, or out of order: " << event;
            accepted.pop_front();
        }
        EXPECT_TRUE(wasHit || lost == 0);
        f.push(8, 8);
        f.open();
        EXPECT_EQ(f.drain(), events({8}));
    }
}

TEST(EventStoreFaults, FullDiskIsReportedAndCostsNothing) {
    Fixture f;
    f.open();
    f.push(1, 3);
    const Queue::Batch batch = f.store->peek(1);
    f.files.failWritesAfter(0, 1000000);
    for (int i = 0; i < 150; ++i) EXPECT_THROW(f.push(4, 4), FQException);
    f.files.failWritesAfter(0, 0);
    f.push(5, 5);
    EXPECT_EQ(f.store->pop(batch, 1), 1U) << "the failures have left what it was made of";
    EXPECT_EQ(f.drain(), events({2, 3, 5}));

    f.push(6, 7);
    f.files.refuseGrowth(true);
    for (int i = 0; i < 150; ++i) EXPECT_THROW(f.push(8, 8), FQException);
    EXPECT_LE(f.manifest().size(), 3U);  // attempts must not fill the manifest
    f.files.refuseGrowth(false);
    f.push(9, 9);
    EXPECT_EQ(f.drain(), events({6, 7, 9}));

    f.push(10, 10);
    f.config.fileRotationSize = 2 * kRotation;  // the part of an earlier process would have to grow
    f.open();
    f.files.refuseGrowth(true);
    f.push(11, 11);
    EXPECT_THROW(f.push(12, 12), FQException);
    f.files.refuseGrowth(false);
    EXPECT_EQ(f.drain(), events({10, 11}));
}

TEST(EventStoreLimits, FolderLimitBeyondAllBoundsKeepsTheStore) {
    Fixture f;
    f.open();
    f.push(1, 6);
    f.config.folderSizeLimit = uint64_t{1} << 63;
    f.open();
    EXPECT_EQ(f.drain(), events({1, 2, 3, 4, 5, 6}));
}

TEST(EventStoreLog, TellsWhatBecomesOfEvents) {
    const CapturedLog log(LogLevel::info);
    Fixture f;
    f.open();
    f.push(1, 2);
    f.config.folderSizeLimit = kPartFile - 1;
    f.open();
    const std::string first = (f.folder / f.manifest()[0].string()).string();
    const Queue::Batch stale = f.store->peek(2);
    f.push(3, 3);  // leaves the part for a new one, and finds the folder too big
    f.store->pop(stale, 2);
    const std::string second = (f.folder / f.manifest()[0].string()).string();
    ASSERT_TRUE(platform::openSystemFile(second, false)->write(kQueueHeaderSize, "\xFF\xFF\xFF\xFF", 4));
    EXPECT_TRUE(f.store->peek(5).records.empty());
    f.push(4, 4);
    f.store->pop(f.store->peek(5), 5);
    f.push(5, 5);
    f.store->remove();
    f.store.reset();
    EXPECT_EQ(log.messages("event.store"),
              (Events{"Created eventstore: num_files=0 name=main", "pushed=1 balance=1 name=main",
                      "pushed=1 balance=2 name=main", "Loading eventstore: num_files=1 name=main",
                      "Loaded eventstore: num_events=2 name=main", "remove file loses num_events=2 path=" + first,
                      "dropped files=1 num_events=2 ttl=1000000ms name=main", "pushed=1 balance=1 name=main",
                      "ignore pop=2 name=main", "truncate file loses num_events=1 path=" + second,
                      "peek failed: truncating fq with num_events=1 batchSize=5", "pushed=1 balance=1 name=main",
                      "popped=1 balance=0 name=main", "pushed=1 balance=1 name=main",
                      "Delete eventstore: num_events=1 name=main"}));
}

TEST(EventStoreThreads, PushersAndADrainerLoseNothing) {
    constexpr int kPushers = 3;
    constexpr int kEach = 200;
    Fixture f;
    f.config.folderSizeLimit = 100000000;
    f.open();
    std::atomic<int> running = kPushers;
    std::vector<std::thread> pushers;
    for (int p = 0; p < kPushers; ++p) {
        pushers.emplace_back([&f, &running, p] {
            for (int i = 0; i < kEach; ++i) f.store->push(std::to_string(p) + ":" + std::to_string(i));
            --running;
        });
    }
    std::vector<int> next(kPushers, 0);
    while (running > 0 || f.store->size() > 0) {
        const Queue::Batch batch = f.store->peek(50);
        for (const std::string& event : batch.records) {
            const auto pusher = static_cast<size_t>(event[0] - '0');
            EXPECT_EQ(event.substr(2), std::to_string(next[pusher]++));
        }
        f.store->pop(batch, batch.records.size());
    }
    for (auto& thread : pushers) thread.join();
    EXPECT_EQ(next, std::vector<int>(kPushers, kEach));
}

TEST(EventStoreFormat, StoreOfTheFirstVersionIsTakenOver) {
    Fixture f;
    fs::create_directories(f.folder);
    for (const fs::directory_entry& file : fs::directory_iterator(test::dataFile("store-v1"))) {
        fs::copy_file(file.path(), f.folder / file.path().filename().string());
    }
    f.open();
    f.store->push("new");
    EXPECT_EQ(f.drain(), (Events{"{\"a\":1}", "", "new"}));
}

}  // namespace
}  // namespace velmora
