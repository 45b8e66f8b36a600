// A queue whose process dies, or whose disk fails, at every operation in turn; and whose bytes are damaged one by one.
#include <gtest/gtest.h>

#include <optional>

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

Records peekAll(QueueStorage<std::string>& queue) {
    Records out;
    queue.peekRecords(queue.header(), queue.recordCount(), out);
    return out;
}

Records drain(const Path& path, uint64_t maximumSize) {
    QueueStorage<std::string> queue(path, maximumSize, platform::openSystemFile);
    return peekAll(queue);
}

// Pushes and pops until the ring has been filled twice, or the next operation is not wanted any more. `step` sees the
// queue before each operation and says whether to go on.
template <typename Step>
void fillTwice(QueueStorage<std::string>& queue, Step step) {
    for (size_t i = 0; i < 14; ++i) {
        if (!step()) return;
        queue.pushRecord(std::string(20 + 7 * i, static_cast<char>('a' + i)));
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
            QueueStorage<std::string> queue(folder / "part", maximumSize, files.opener());
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
        expectCommittedAfterEveryCut(QueueFile::kUnlimited, half);
    }
}

// Each operation fails once. Until the file is opened again nothing works, and then the committed state is back.
TEST(QueueStorageFaults, EveryFailureStopsTheQueueAndLosesNothingCommitted) {
    bool wasHit = true;
    for (uint64_t operations = 0; wasHit; ++operations) {
        SCOPED_TRACE("failure of operation " + std::to_string(operations));
        const TempFolder folder;
        CuttingFiles files;
        QueueStorage<std::string> queue(folder / "part", QueueFile::kUnlimited, files.opener());
        files.failAfter(operations, 1);
        Records accepted;
        std::optional<std::error_code> raised;
        for (int i = 0; i < 5; ++i) {
            try {
                queue.pushRecord(std::to_string(i));
                accepted.push_back(std::to_string(i));
                peekAll(queue);
            } catch (const FQException& e) {
                EXPECT_EQ(e.code(), FQError::file_corrupt);
                EXPECT_TRUE(queue.hasFailed());
                raised = e.code();
                break;
            }
        }
        wasHit = files.wasHit();
        files.failAfter(0, 0);
        EXPECT_EQ(raised.has_value(), wasHit);
        if (raised) {
            EXPECT_THROW(queue.pushRecord("refused"), FQException);
            queue.reopen();
        }
        const Records kept = peekAll(queue);
        ASSERT_LE(kept.size(), accepted.size());
        EXPECT_GE(kept.size() + 1, accepted.size());  // a commit that failed is not reported
        EXPECT_TRUE(std::equal(kept.begin(), kept.end(), accepted.begin()));
    }
}

TEST(QueueStorageFaults, FileThatCanNotBeMadeBigEnoughIsAFailedWrite) {
    const TempFolder folder;
    CuttingFiles files;
    files.pretendSize(200);
    const auto expectFailedWrite = [](const std::function<void()>& action) {
        try {
            action();
            ADD_FAILURE() << "did not fail";
        } catch (const FQException& e) {
            EXPECT_EQ(e.code(), FQError::file_corrupt);
            EXPECT_NE(std::string(e.what()).find("write-failed"), std::string::npos);
        }
    };
    expectFailedWrite([&] { QueueStorage<std::string>(folder / "part", kLimited, files.opener()); });
    files.pretendSize(0);
    files.refuseReservations(true);
    expectFailedWrite([&] { QueueStorage<std::string>(folder / "part", kLimited, files.opener()); });
    EXPECT_EQ(Path(folder / "part").fileSize(), 0U) << "holds no room that it can't use";
    files.refuseReservations(false);

    QueueStorage<std::string> growing(folder / "manifest", QueueFile::kUnlimited, files.opener());
    growing.pushRecord(std::string(76, 'a'));
    files.pretendSize(224);
    expectFailedWrite([&] { growing.pushRecord(std::string(76, 'b')); });
    files.pretendSize(0);
    growing.reopen();
    growing.pushRecord(std::string(76, 'c'));
    EXPECT_EQ(peekAll(growing), (Records{std::string(76, 'a'), std::string(76, 'c')}));
}

TEST(QueueStorageFaults, EveryFailedTransferOfARecordIsLogged) {
    const test::CapturedLog log(LogLevel::error);
    const TempFolder folder;
    CuttingFiles files;
    QueueStorage<std::string> queue(folder / "manifest", QueueFile::kUnlimited, files.opener());
    queue.pushRecord("one");
    files.failWritesAfter(0, 1);
    EXPECT_THROW(queue.pushRecord("three"), FQException);
    EXPECT_THROW(peekAll(queue), FQException) << "the file has failed already";
    {
        auto header = emptyQueueHeader<uint64_t>(1000);  // which the file is too short for
        header.ringEnd = 80;
        const auto file = platform::openSystemFile(folder / "manifest", false);
        ASSERT_TRUE(file->write(queueSlotPosition(0), &header, sizeof header));
        ASSERT_TRUE(file->write(queueSlotPosition(1), &header, sizeof header));
    }
    queue.reopen();
    EXPECT_THROW(queue.pushRecord("three"), FQException);
    EXPECT_EQ(log.messages("fq"),
              (Records{"Failed to write data of len=5 at offset=7", "Failed to read data of len=0 at offset=0",
                       "Failed to write data of len=5 at offset=1000"}));
}

TEST(QueueStorageCost, PushTakesAtMostFourWritesAndPopOneCommit) {
    const TempFolder folder;
    CuttingFiles files;
    QueueStorage<std::string> queue(folder / "part", kQueueHeaderSize + 10000000, files.opener());
    const auto cost = [&](const std::function<void()>& action) {
        const uint64_t before = files.writes();
        action();
        return files.writes() - before;
    };
    EXPECT_LE(cost([&] { queue.pushRecord(std::string(2048, 'x')); }), 4U);
    EXPECT_LE(cost([&] { queue.pushRecord(std::string(200000, 'x')); }), 4U);
    for (int i = 0; i < 48; ++i) queue.pushRecord(std::string(2048, 'x'));
    EXPECT_EQ(cost([&] { queue.popRecords(50); }), 2U);
    EXPECT_EQ(cost([&] { peekAll(queue); }), 0U);
    for (int i = 0; i < 50; ++i) queue.pushRecord(std::string(2048, 'x'));
    const uint64_t reads = files.reads();
    peekAll(queue);
    EXPECT_LE(files.reads() - reads, 4U);
}

// Whatever a byte is turned into, the queue ends with records or with an exception of its own, and works again.
TEST(QueueStorageDamage, AnyDamagedByteIsSurvived) {
    for (const char* name : {"part-wrapped-v1", "manifest-overflow-v1"}) {
        const std::string sound = test::readFile(test::dataFile(name));
        const uint64_t maximumSize = sound.size() == 400 ? 400 : QueueFile::kUnlimited;
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

                QueueStorage<std::string> queue(path, maximumSize, platform::openSystemFile);
                try {
                    peekAll(queue);
                    queue.popRecords(1);
                    queue.pushRecord("still works");
                    peekAll(queue);
                } catch (const FQException&) {
                    queue.recreate();
                    queue.pushRecord("works again");
                    EXPECT_EQ(queue.recordCount(), 1U);
                }
                ASSERT_LE(path.fileSize(), sound.size() + 80);
            }
        }
    }
}

}  // namespace
}  // namespace velmora
