#include "core/queue/queuestorage.h"

#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <random>

#include "core/crypt/crypt.h"
#include "core/queue/queuereader.h"
#include "core/types/errors.h"
#include "tests/support/files.h"
#include "tests/support/tempfolder.h"

namespace velmora {
namespace {

using test::TempFolder;
using Header = QueueStorage::Header;
using Records = std::vector<std::string>;

Records peek(QueueStorage& queue, uint64_t count) {
    Records out;
    queue.peekRecords(queue.header(), count, out);
    return out;
}

Header currentSlot(const std::string& bytes) {
    Header header;
    std::memcpy(&header, bytes.data() + queueSlotPosition(static_cast<uint8_t>(bytes[kQueueSelectorPosition])),
                sizeof header);
    return header;
}

struct Step {
    const char* what;
    uint64_t push;  // bytes of the record, without its length field; 0: pop
    Header after;   // headCount, ringCount, overflowCount, read, write, ringEnd, overflowWrite, capacity
};

void expectSteps(uint64_t maximumSize, std::initializer_list<Step> steps) {
    const TempFolder folder;
    QueueStorage queue(folder / "queue", maximumSize, platform::openSystemFile);
    std::deque<std::string> model;
    for (const Step& step : steps) {
        SCOPED_TRACE(step.what);
        if (step.push == 0) {
            EXPECT_EQ(peek(queue, 1), Records{model.front()});
            queue.popRecords(1);
            model.pop_front();
        } else {
            model.emplace_back(step.push, static_cast<char>('a' + model.size()));
            EXPECT_TRUE(queue.pushRecord(model.back()));
        }
        const std::string bytes = test::readFile(folder / "queue");
        EXPECT_EQ(queue.header(), step.after);
        EXPECT_EQ(currentSlot(bytes), step.after);
        EXPECT_EQ(bytes.size(), step.after.capacity + kQueueHeaderSize);
        EXPECT_EQ(peek(queue, model.size()), Records(model.begin(), model.end()));
    }
}

TEST(QueueStorageSteps, UnlimitedFileGrowsByOverflowAndPromotesIt) {
    expectSteps(QueueStorage::kUnlimited, {
                                              {"first grows and is promoted", 36, {1, 1, 0, 0, 40, 80, 80, 80}},
                                              {"second fills the ring", 36, {2, 2, 0, 0, 80, 80, 80, 80}},
                                              {"third goes behind it", 36, {2, 2, 1, 0, 0, 80, 120, 160}},
                                              {"fourth has room there", 36, {2, 2, 2, 0, 0, 80, 160, 160}},
                                              {"fifth grows again", 36, {2, 2, 3, 0, 0, 80, 200, 240}},
                                              {"pop leaves one in the ring", 0, {1, 1, 3, 40, 0, 80, 200, 240}},
                                              {"the ring's last promotes", 0, {3, 3, 0, 80, 200, 240, 240, 240}},
                                              {"there is room up to the end", 36, {4, 4, 0, 80, 240, 240, 240, 240}},
                                              {"and from the start", 36, {4, 5, 0, 80, 40, 240, 240, 240}},
                                          });
}

TEST(QueueStorageSteps, EmptyRingTooSmallAtBothEndsGivesWayToOverflow) {
    expectSteps(QueueStorage::kUnlimited,
                {
                    {"ring of 1000", 996, {1, 1, 0, 0, 1000, 1000, 1000, 1000}},
                    {"overflow of 1000", 996, {1, 1, 1, 0, 0, 1000, 2000, 2000}},
                    {"promotion", 0, {1, 1, 0, 1000, 2000, 2000, 2000, 2000}},
                    {"empty at the end", 0, {0, 0, 0, 2000, 2000, 2000, 2000, 2000}},
                    {"empty ring starts over", 996, {1, 1, 0, 0, 1000, 2000, 2000, 2000}},
                    {"empty with both offsets at 1000", 0, {0, 0, 0, 1000, 1000, 2000, 2000, 2000}},
                    {"fits neither at the end nor at the start", 1496, {1, 1, 0, 2000, 3500, 3500, 3500, 3500}},
                });
}

TEST(QueueStorageSteps, LimitedFileWrapsAndFillsToTheByte) {
    expectSteps(kQueueHeaderSize + 256, {
                                            {"first", 96, {1, 1, 0, 0, 100, 256, 256, 256}},
                                            {"second", 96, {2, 2, 0, 0, 200, 256, 256, 256}},
                                            {"pop", 0, {1, 1, 0, 100, 200, 256, 256, 256}},
                                            {"exactly to the end", 52, {2, 2, 0, 100, 256, 256, 256, 256}},
                                            {"exactly up to the reader", 96, {2, 3, 0, 100, 100, 256, 256, 256}},
                                            {"first run", 0, {1, 2, 0, 200, 100, 256, 256, 256}},
                                            {"jump to the start", 0, {1, 1, 0, 0, 100, 256, 256, 256}},
                                        });
}

TEST(QueueStorage, NewFilesHaveTheirFinalSizeAndReplaceWhatIsNoQueue) {
    std::string zeroSlots = test::readFile(test::dataFile("part-wrapped-v1")).substr(0, 16) + std::string(128, '\0');
    std::string badMagic = test::readFile(test::dataFile("part-wrapped-v1"));
    badMagic[7] ^= 1;
    const struct {
        const char *what, *contents;
        size_t size;
        uint64_t maximum, expectedSize;
        bool kept;
    } rows[] = {
        {"missing part", nullptr, 0, 1144, 1144, false},
        {"empty", "", 0, 1144, 1144, false},
        {"one byte short", zeroSlots.data(), 143, 144, 144, false},
        {"wrong magic", badMagic.data(), badMagic.size(), 1144, 1144, false},
        {"header only, slots unread", zeroSlots.data(), 144, 1144, 144, true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        const TempFolder folder;
        if (row.contents != nullptr) test::writeFile(folder / "queue", std::string(row.contents, row.size));
        QueueStorage queue(folder / "queue", row.maximum, platform::openSystemFile);
        const std::string bytes = test::readFile(folder / "queue");
        EXPECT_EQ(bytes.size(), row.expectedSize);
        EXPECT_EQ(bytes[kQueueSelectorPosition], row.kept ? 0 : 1);
        EXPECT_EQ(queue.recordCount(), 0U);
    }
}

TEST(QueueStorageFormat, WrappedPartIsReadAndReproduced) {
    const TempFolder folder;
    test::writeFile(folder / "old", test::readFile(test::dataFile("part-wrapped-v1")));
    QueueStorage old(folder / "old", kQueueHeaderSize + 256, platform::openSystemFile);
    EXPECT_EQ(peek(old, 3), (Records{std::string(96, 'b'), std::string(46, 'c'), std::string(60, 'd')}));

    QueueStorage fresh(folder / "new", kQueueHeaderSize + 256, platform::openSystemFile);
    EXPECT_TRUE(fresh.pushRecord(std::string(96, 'a')));
    EXPECT_TRUE(fresh.pushRecord(std::string(96, 'b')));
    fresh.popRecords(1);
    EXPECT_TRUE(fresh.pushRecord(std::string(46, 'c')));
    EXPECT_TRUE(fresh.pushRecord(std::string(60, 'd')));
    EXPECT_EQ(test::readFile(folder / "new"), test::readFile(test::dataFile("part-wrapped-v1")));
}

TEST(QueueStorageFormat, ManifestWithOverflowIsReadAndReproduced) {
    const TempFolder folder;
    test::writeFile(folder / "old", test::readFile(test::dataFile("manifest-overflow-v1")));
    QueueStorage old(folder / "old", QueueStorage::kUnlimited, platform::openSystemFile);
    Records names;
    old.peekRecords(old.header(), old.recordCount(), names);
    ASSERT_EQ(names.size(), 5U);

    QueueStorage fresh(folder / "new", QueueStorage::kUnlimited, platform::openSystemFile);
    for (int i = 1; i <= 5; ++i) {
        const std::string name("0000000" + std::to_string(i) + "-1111-4222-8333-444444444444");
        EXPECT_EQ(names[static_cast<size_t>(i) - 1], name);
        EXPECT_TRUE(fresh.pushRecord(name));
    }
    EXPECT_EQ(test::readFile(folder / "new"), test::readFile(test::dataFile("manifest-overflow-v1")));
}

// Written on one system, read on the other: the file holds for both directions, as both must write its very bytes.
TEST(QueueStorageFormat, EncipheredPartIsReadAndReproduced) {
    const Crypt crypt("3f2c9d5e-8f7a-4f0b-9f53-0d7f8f1f2a11");
    const Records events{R"({"data":{"event.type":"click","event.value":"\u65e5\u672c"}})", "", std::string(47, 'x')};
    const TempFolder folder;
    test::writeFile(folder / "old", test::readFile(test::dataFile("part-enciphered-v1")));
    QueueStorage old(folder / "old", kQueueHeaderSize + 256, platform::openSystemFile);
    Records read = peek(old, 3);
    for (std::string& record : read) record = crypt.decrypt(record);
    EXPECT_EQ(read, events);

    QueueStorage fresh(folder / "new", kQueueHeaderSize + 256, platform::openSystemFile);
    for (const std::string& event : events) EXPECT_TRUE(fresh.pushRecord(crypt.encrypt(event)));
    EXPECT_EQ(test::readFile(folder / "new"), test::readFile(test::dataFile("part-enciphered-v1")));
}

// Sizes crowd around what the ring has left, so that exact fits, one byte more and one byte less all happen.
size_t nextSize(std::mt19937& random, const Header& header) {
    const uint64_t room = header.writeOffset >= header.readOffset ? header.ringEnd - header.writeOffset
                                                                  : header.readOffset - header.writeOffset;
    if (random() % 3 == 0 && room >= 5 && room < 1000) return static_cast<size_t>(room) - 5 + random() % 3;
    return random() % 4 == 0 ? 0 : random() % 200;
}

void runAgainstModel(uint64_t maximumSize, uint32_t seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const TempFolder folder;
    auto queue = std::make_unique<QueueStorage>(folder / "queue", maximumSize, platform::openSystemFile);
    std::deque<std::string> model;
    for (int i = 0; i < 1500; ++i) {
        const uint64_t count = random() % 5;
        switch (random() % 8) {
            case 0:
                queue.reset();
                queue = std::make_unique<QueueStorage>(folder / "queue", maximumSize, platform::openSystemFile);
                break;
            case 1:
            case 2:
            case 3:
                queue->popRecords(count);
                for (uint64_t k = 0; k < count && !model.empty(); ++k) model.pop_front();
                break;
            default: {
                const std::string record(nextSize(random, queue->header()), static_cast<char>('a' + i % 26));
                try {
                    EXPECT_TRUE(queue->pushRecord(record));
                    model.push_back(record);
                } catch (const FQException& e) {
                    ASSERT_EQ(e.code(), FQError::file_limit_exceeded);
                    ASSERT_GT(maximumSize, QueueStorage::kUnlimited);
                }
            }
        }
        ASSERT_EQ(queue->recordCount(), model.size()) << "after operation " << i;
        ASSERT_EQ(peek(*queue, model.size()), Records(model.begin(), model.end())) << "after operation " << i;
    }
}

TEST(QueueStorage, BehavesLikeADequeUnderRandomOperations) {
    const uint32_t seed = std::random_device{}();
    for (uint32_t i = 0; i < 6; ++i) {
        runAgainstModel(kQueueHeaderSize + 700, seed + i);
        runAgainstModel(QueueStorage::kUnlimited, seed + i);
    }
}

TEST(QueueStorage, ReadsRecordsAcrossReadAheadWindows) {
    const TempFolder folder;
    QueueStorage queue(folder / "queue", kQueueHeaderSize + 600000, platform::openSystemFile);
    Records pushed;
    for (const size_t size : {1, 65531, 2, 65532, 65536, 65537, 70000, 0, 131072, 3}) {
        pushed.emplace_back(size, static_cast<char>('a' + pushed.size()));
        EXPECT_TRUE(queue.pushRecord(pushed.back()));
    }
    EXPECT_EQ(peek(queue, pushed.size()), pushed);
}

TEST(QueueReader, ShowsRingAndOverflowWithPositions) {
    constexpr auto kRing = QueueReader::Region::ring;
    constexpr auto kBehind = QueueReader::Region::overflow;
    const struct {
        const char* file;
        std::vector<QueueReader::Record> records;
        std::string last;
    } rows[] = {
        {"part-wrapped-v1", {{0, 244, 96, kRing}, {1, 344, 46, kRing}, {2, 144, 60, kRing}}, std::string(60, 'd')},
        {"manifest-overflow-v1",
         {{0, 144, 36, kRing},
          {1, 184, 36, kRing},
          {2, 224, 36, kBehind},
          {3, 264, 36, kBehind},
          {4, 304, 36, kBehind}},
         "00000005-1111-4222-8333-444444444444"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.file);
        QueueReader reader(test::dataFile(row.file));
        EXPECT_TRUE(reader.isValid());
        EXPECT_EQ(reader.recordCount(), row.records.size());
        for (const auto& expected : row.records) {
            const auto record = reader.next();
            ASSERT_TRUE(record);
            EXPECT_EQ(record->index, expected.index);
            EXPECT_EQ(record->position, expected.position);
            EXPECT_EQ(record->length, expected.length);
            EXPECT_EQ(record->region, expected.region);
        }
        EXPECT_FALSE(reader.next());
        EXPECT_EQ(reader.damage(), "");
        std::string bytes;
        EXPECT_TRUE(reader.read(row.records.back(), bytes));
        EXPECT_EQ(bytes, row.last);
    }
}

TEST(QueueReader, StopsAtTheFirstDamagedPlaceAndNamesIt) {
    const std::string sound = test::readFile(test::dataFile("part-wrapped-v1"));
    const struct {
        const char* what;
        size_t size, at;
        bool valid;
        int records;
        const char* damage;
    } rows[] = {
        {"too short", 143, 0, false, 0, "the file is too short: size=143"},
        {"magic", 400, 0, false, 0, "the magic is wrong: magic="},
        {"ring beyond capacity", 400, 16 + 5 * 8 + 7, true, 0, "the header is damaged: ringEnd"},
        {"cut off in a record", 350, 144 + 255, true, 0, "the header is damaged: capacity"},
        {"length of the second", 400, 344 + 1, true, 1, "record 1 reaches beyond its region: position=344"},
        {"length of the wrapped one", 400, 144, true, 2, "record 2 reaches beyond its region: position=144"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        const TempFolder folder;
        std::string bytes = sound;
        bytes[row.at] = static_cast<char>(bytes[row.at] ^ 0x7F);
        test::writeFile(folder / "queue", bytes.substr(0, row.size));
        QueueReader reader(folder / "queue");
        int records = 0;
        while (reader.next()) ++records;
        EXPECT_EQ(reader.isValid(), row.valid);
        EXPECT_EQ(records, row.records);
        EXPECT_EQ(reader.damage().substr(0, std::string(row.damage).size()), row.damage);
    }
    EXPECT_THROW(QueueReader(test::dataFile("missing")), FQException);
}

}  // namespace
}  // namespace velmora
