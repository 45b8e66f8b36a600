#include "core/queue/queuereader.h"

#include <gtest/gtest.h>

#include "core/types/errors.h"
#include "tests/support/files.h"
#include "tests/support/tempfolder.h"

namespace velmora {
namespace {

using test::TempFolder;

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
        size_t size;
        size_t at;
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
