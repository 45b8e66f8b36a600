#include "core/platform/randomaccessfile.h"

#include <gtest/gtest.h>

#include <string>

#include "core/platform/pathtext.h"
#include "tests/support/tempfolder.h"

namespace velmora::platform {
namespace {

// Outside every code page of one byte per character.
const char* const kForeignName = "\xD0\xB4\xE6\x97\xA5\xF0\x9F\x93\x88";

std::string contents(RandomAccessFile& file) {
    uint64_t size = 0;
    EXPECT_TRUE(file.size(size));
    std::string text(size, '\0');
    EXPECT_TRUE(file.read(0, text.data(), text.size()));
    return text;
}

TEST(RandomAccessFile, KeepsWhatWasWrittenAtItsOffset) {
    const test::TempFolder folder;
    const auto path = folder.path() / pathFromUtf8(kForeignName);
    {
        const auto file = openSystemFile(path, true);
        ASSERT_TRUE(file);
        ASSERT_TRUE(file->write(0, "head", 4));
        ASSERT_TRUE(file->write(6, "tail", 4));
        ASSERT_TRUE(file->write(1, "E", 1));
    }
    const auto file = openSystemFile(path, false);
    ASSERT_TRUE(file);
    EXPECT_EQ(contents(*file), std::string("hEad\0\0tail", 10));
    char part[4];
    EXPECT_TRUE(file->read(6, part, 4));
    EXPECT_FALSE(file->read(7, part, 4)) << "reaches past the end";
    EXPECT_FALSE(file->read(10, part, 1)) << "begins at the end";
    EXPECT_TRUE(file->read(10, part, 0));

    EXPECT_EQ(contents(*openReadOnlyFile(path)).size(), 10U);
    EXPECT_FALSE(openReadOnlyFile(path)->write(0, "x", 1));
    EXPECT_EQ(contents(*openSystemFile(path, true)), "") << "creating empties";
}

TEST(RandomAccessFile, IsNullWhereNothingCanBeOpened) {
    const test::TempFolder folder;
    EXPECT_FALSE(openSystemFile(folder / "missing", false));
    EXPECT_FALSE(openReadOnlyFile(folder / "missing"));
    EXPECT_FALSE(openSystemFile(folder / "missing" / "file", true));
    EXPECT_FALSE(openSystemFile(folder.path(), true)) << "a folder";
}

}  // namespace
}  // namespace velmora::platform
