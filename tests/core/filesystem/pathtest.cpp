#include "core/filesystem/path.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "tests/support/files.h"
#include "tests/support/tempfolder.h"

namespace velmora {
namespace {

TEST(Path, TakesUtf8AndRefusesEverythingElse) {
    const struct {
        const char* what;
        const char* text;
        bool valid;
    } rows[] = {
        {"plain", "a b.txt", true},
        {"two, three and four bytes", "\xC3\xA4\xE2\x82\xAC\xF0\x9F\x93\x88", true},
        {"continuation alone", "a\x80", false},
        {"cut short", "a\xE2\x82", false},
        {"overlong", "\xC0\xAF", false},
        {"surrogate", "\xED\xA0\x80", false},
        {"beyond the last code point", "\xF4\x90\x80\x80", false},
        {"no lead byte", "\xFF", false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        if (row.valid) {
            EXPECT_EQ(Path(row.text).string(), row.text);
            EXPECT_EQ((Path("x") / row.text).filename().string(), row.text);
        } else {
            EXPECT_THROW(Path{row.text}, std::range_error);
            EXPECT_THROW(Path("x") / row.text, std::range_error);
        }
    }
}

TEST(Path, MeansTheSameInWideText) {
    EXPECT_EQ(Path(std::wstring(L"\u00E4\u20AC\U0001F4C8")).string(), "\xC3\xA4\xE2\x82\xAC\xF0\x9F\x93\x88");
}

TEST(Path, KnowsFilesFromFolders) {
    const test::TempFolder folder;
    const Path file = Path(folder.path()) / "file";
    EXPECT_FALSE(file.exists());
    EXPECT_THROW(static_cast<void>(file.fileSize()), std::exception);
    EXPECT_THROW(static_cast<void>(file.lastWriteTime()), std::exception);
    test::writeFile(file.native(), "12345");
    boost::filesystem::last_write_time(file.native(), 1678788930);
    EXPECT_TRUE(file.exists() && file.isFile() && !file.isDirectory());
    EXPECT_TRUE(file.parent().exists() && file.parent().isDirectory() && !file.parent().isFile());
    EXPECT_EQ(file.fileSize(), 5U);
    EXPECT_EQ(file.lastWriteTime(), 1678788930);
}

}  // namespace
}  // namespace velmora
