// A queue whose process dies, or whose disk fails, at every operation in turn; and whose bytes are damaged one by one.
#include <gtest/gtest.h>

#include <deque>
#include <functional>

#include "core/queue/queuereader.h"
#include "core/queue/queuestorage.h"
#include "core/types/errors.h"
#include "tests/support/capturedlog.h"
#include "tests/support/cuttingfile.h"
#include "tests/support/files.h"
#include "tests/support/tempfolder.h"

namespace velmora {
namespace {

using test::CuttingFiles;
using test::TempFolder;
using Records = std::vector<std::string>;

constexpr uint64_t kLimited = kQueueHeaderSize + 300;

Records peekAll(QueueStorage& queue) {
    Records out;
    queue.peekRecords(queue.header(), queue.recordCount(), out);
    return out;
}

Records drain(const Path& path, uint64_t maximumSize) {
    QueueStorage queue(path, maximumSize, platform::openSystemFile);
    return peekAll(queue);
}

// Pushes and pops until the ring has been filled twice, or the next operation is not wanted any more. `step` sees the
// queue before each operation and says whether to go on.
template <typename Step>
void fillTwice(QueueStorage& queue, Step step) {
    for (size_t i = 0; i < 14; ++i) {
        if (!step()) return;
        EXPECT_TRUE(queue.pushRecord(std::string(20 + 7 * i, static_cast<char>('a' + i))));
        if (!step()) return;
        if (i % 3 == 2) queue.popRecords(2);
    }
}

void expectCommittedAfterEveryCut(uint64_t maximumSize, bool half) {
    bool wasCut = true;
    for (uint64_t writes = 0; wasCut; ++writes) {
        SCOPED_TRACE("cut after write " + std::to_string(writes));
        const TempFolder folder;
        CuttingFiles files;
        files.cutAfter(writes, half);
        Records committed;
        try {
            QueueStorage queue(folder / "part", maximumSize, files.opener());
            fillTwice(queue, [&] {
                if (!files.wasHit()) committed = peekAll(queue);
                return !files.wasHit();
            });
            if (!files.wasHit()) committed = peekAll(queue);
        } catch (const FQException& e) {
            ASSERT_EQ(e.code(), FQError::file_limit_exceeded);
        }
        EXPECT_EQ(drain(folder / "part", maximumSize), committed);
        wasCut = files.wasHit();
    }
}

TEST(QueueStorageCrash, AnyCutLeavesExactlyTheCommittedRecords) {
    for (const bool half : {false, true}) {
        expectCommittedAfterEveryCut(kQueueHeaderSize + 900, half);
        expectCommittedAfterEveryCut(QueueStorage::kUnlimited, half);
    }
}

// What has the magic is whole: it is taken over as it is.
TEST(QueueStorageCrash, AFileThatIsCutWhileItIsMadeIsNoQueueAndIsReplaced) {
    for (const uint64_t maximumSize : {kLimited, QueueStorage::kUnlimited}) {
        for (uint64_t writes = 0; writes < 3; ++writes) {
            SCOPED_TRACE("cut after write " + std::to_string(writes));
            const TempFolder folder;
            CuttingFiles files;
            files.cutAfter(writes, false);
            QueueStorage(folder / "part", maximumSize, files.opener());
            ASSERT_TRUE(files.wasHit());
            const std::string bytes = test::readFile(folder / "part");
            EXPECT_NE(bytes.substr(0, sizeof kQueueMagic),
                      std::string(reinterpret_cast<const char*>(&kQueueMagic), sizeof kQueueMagic));
            QueueStorage again(folder / "part", maximumSize, platform::openSystemFile);
            EXPECT_TRUE(again.pushRecord("record"));
            EXPECT_EQ(drain(folder / "part", maximumSize), Records{"record"});
        }
    }
}

// Each operation fails once, or that and the next three. What was accepted is there, in memory as on disk, and nothing
// else; the queue goes on as if nothing had been.
TEST(QueueStorageFaults, AnyFailureCostsTheRecordThatItHitAndNoOther) {
    for (const uint64_t failures : {1, 4}) {
        bool wasHit = true;
        for (uint64_t operations = 0; wasHit; ++operations) {
            SCOPED_TRACE("failure of operation " + std::to_string(operations) + " x " + std::to_string(failures));
            const TempFolder folder;
            CuttingFiles files;
            QueueStorage queue(folder / "part", kLimited, files.opener());
            files.failWritesAfter(operations, failures);
            std::deque<std::string> accepted;
            for (int i = 0; i < 12; ++i) {
                const std::string record(60, static_cast<char>('a' + i));
                try {
                    if (queue.pushRecord(record)) accepted.push_back(record);
                } catch (const FQException&) {  // not taken
                }
                if (i % 3 == 2) {
                    queue.popRecords(2);
                    accepted.erase(accepted.begin(),
                                   accepted.begin() + std::min<std::ptrdiff_t>(2, std::ssize(accepted)));
                }
                EXPECT_EQ(peekAll(queue), Records(accepted.begin(), accepted.end()));
            }
            wasHit = files.wasHit();
            files.failAfter(0, 0);
            EXPECT_TRUE(queue.pushRecord("last"));
            accepted.emplace_back("last");
            EXPECT_EQ(drain(folder / "part", kLimited), Records(accepted.begin(), accepted.end()));
        }
    }
}

TEST(QueueStorageFaults, FileThatCanNotBeMadeBigEnoughIsAFailedWrite) {
    const TempFolder folder;
    CuttingFiles files;
    const auto expectFailedWrite = [](const std::function<void()>& action) {
        try {
            action();
            ADD_FAILURE() << "did not fail";
        } catch (const FQException& e) {
            EXPECT_EQ(e.code(), FQError::file_corrupt);
            EXPECT_NE(std::string(e.what()).find("write-failed"), std::string::npos);
        }
    };
    files.refuseGrowth(true);
    expectFailedWrite([&] { QueueStorage(folder / "part", kLimited, files.opener()); });
    EXPECT_EQ(Path(folder / "part").fileSize(), 0U) << "holds no room that it can't use";
    files.refuseGrowth(false);

    QueueStorage growing(folder / "manifest", QueueStorage::kUnlimited, files.opener());
    EXPECT_TRUE(growing.pushRecord(std::string(76, 'a')));
    files.refuseGrowth(true);
    expectFailedWrite([&] { static_cast<void>(growing.pushRecord(std::string(76, 'b'))); });
    files.refuseGrowth(false);
    EXPECT_TRUE(growing.pushRecord(std::string(76, 'c')));
    EXPECT_EQ(peekAll(growing), (Records{std::string(76, 'a'), std::string(76, 'c')}));
}

// A file that the system can't read is not damaged: it stays as it is.
TEST(QueueStorageFaults, FailedReadWhileOpeningLeavesTheFileAlone) {
    for (uint64_t operations = 0; operations < 3; ++operations) {
        SCOPED_TRACE("failure of read " + std::to_string(operations));
        const TempFolder folder;
        test::writeFile(folder / "part", test::readFile(test::dataFile("part-wrapped-v1")));
        CuttingFiles files;
        files.failAfter(operations, 1);
        EXPECT_THROW(QueueStorage(folder / "part", kLimited, files.opener()), FQException);
        EXPECT_EQ(test::readFile(folder / "part"), test::readFile(test::dataFile("part-wrapped-v1")));
    }
}

TEST(QueueStorageFaults, EveryFailedTransferOfARecordIsLogged) {
    const test::CapturedLog log(LogLevel::error);
    const TempFolder folder;
    CuttingFiles files;
    QueueStorage queue(folder / "manifest", QueueStorage::kUnlimited, files.opener());
    EXPECT_TRUE(queue.pushRecord("one"));
    files.failWritesAfter(0, 1);
    EXPECT_THROW(static_cast<void>(queue.pushRecord("three")), FQException);
    files.failAfter(0, 1);
    EXPECT_THROW(peekAll(queue), FQException);
    {
        auto header = emptyQueueHeader(1000);  // which the file is too short for
        header.ringEnd = 80;
        const auto file = platform::openSystemFile(folder / "manifest", false);
        ASSERT_TRUE(file->write(queueSlotPosition(0), &header, sizeof header));
        ASSERT_TRUE(file->write(queueSlotPosition(1), &header, sizeof header));
    }
    QueueStorage damaged(folder / "manifest", QueueStorage::kUnlimited, files.opener());
    EXPECT_THROW(static_cast<void>(damaged.pushRecord("three")), FQException);
    EXPECT_EQ(log.messages("fq"),
              (Records{"Failed to write data of len=5 at offset=7", "Failed to read data of len=0 at offset=0",
                       "Failed to write data of len=5 at offset=1000"}));
}

TEST(QueueStorageCost, PushTakesAtMostFourWritesAndPopOneCommit) {
    const TempFolder folder;
    CuttingFiles files;
    QueueStorage queue(folder / "part", kQueueHeaderSize + 10000000, files.opener());
    const auto cost = [&](const std::function<void()>& action) {
        const uint64_t before = files.writes();
        action();
        return files.writes() - before;
    };
    EXPECT_LE(cost([&] { EXPECT_TRUE(queue.pushRecord(std::string(2048, 'x'))); }), 4U);
    EXPECT_LE(cost([&] { EXPECT_TRUE(queue.pushRecord(std::string(200000, 'x'))); }), 4U);
    for (int i = 0; i < 48; ++i) EXPECT_TRUE(queue.pushRecord(std::string(2048, 'x')));
    EXPECT_EQ(cost([&] { queue.popRecords(50); }), 2U);
    EXPECT_EQ(cost([&] { peekAll(queue); }), 0U);
    for (int i = 0; i < 50; ++i) EXPECT_TRUE(queue.pushRecord(std::string(2048, 'x')));
    const uint64_t reads = files.reads();
    peekAll(queue);
    EXPECT_LE(files.reads() - reads, 4U);
}

// Whatever a byte is turned into, the queue ends with records or with an exception of its own, and works again.
TEST(QueueStorageDamage, AnyDamagedByteIsSurvived) {
    for (const char* name : {"part-wrapped-v1", "manifest-overflow-v1"}) {
        const std::string sound = test::readFile(test::dataFile(name));
        const uint64_t maximumSize = sound.size() == 400 ? 400 : QueueStorage::kUnlimited;
        const TempFolder folder;
        for (size_t at = 0; at < sound.size(); ++at) {
            for (const int flip : {0x01, 0xFF}) {
                const Path path = folder / ("queue" + std::to_string(at) + "-" + std::to_string(flip));
                SCOPED_TRACE(std::string(name) + " byte " + std::to_string(at) + " flip " + std::to_string(flip));
                std::string damaged = sound;
                damaged[at] = static_cast<char>(damaged[at] ^ flip);
                test::writeFile(path.native(), damaged);

                QueueReader reader(path);
                uint64_t records = 0;
                while (reader.next()) ++records;
                EXPECT_TRUE(!reader.damage().empty() || records == reader.recordCount());
                EXPECT_EQ(test::readFile(path.native()), damaged);

                QueueStorage queue(path, maximumSize, platform::openSystemFile);
                try {
                    peekAll(queue);
                    queue.popRecords(1);
                    EXPECT_TRUE(queue.pushRecord("still works"));
                    peekAll(queue);
                } catch (const FQException&) {
                    queue.recreate();
                    EXPECT_TRUE(queue.pushRecord("works again"));
                    EXPECT_EQ(queue.recordCount(), 1U);
                }
                ASSERT_LE(path.fileSize(), sound.size() + 80);
            }
        }
    }
}

}  // namespace
}  // namespace velmora
