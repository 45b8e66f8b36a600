#include "core/filesystem/filesystem.h"

#include <gtest/gtest.h>

#include <set>

#include "tests/support/capturedlog.h"
#include "tests/support/tempfolder.h"

namespace velmora {
namespace {

const char* const kForeignName = "\xD0\xB4\xE6\x97\xA5\xF0\x9F\x93\x88";

class FilesystemTest : public testing::Test {
protected:
    void write(const Path& path, const std::string& text) {
        std::ofstream stream;
        ASSERT_TRUE(Filesystem::open(stream, path, std::ios::binary));
        stream << text;
    }

    std::string read(const Path& path) {
        std::ifstream stream;
        EXPECT_TRUE(Filesystem::open(stream, path, std::ios::binary));
        return {std::istreambuf_iterator<char>(stream), {}};
    }

    test::CapturedLog log_;
    const test::TempFolder temp_;
    const Path folder_{temp_.path()};
};

TEST_F(FilesystemTest, ListsChildrenButNotHiddenOnes) {
    for (const char* const name : {"a", ".hidden", kForeignName}) write(folder_ / name, "x");
    Filesystem::createDirectories(folder_ / "sub" / "deep");
    std::set<std::string> names;
    EXPECT_TRUE(Filesystem::listDirectory(folder_, [&](const std::string& name) { return names.insert(name).second; }));
    EXPECT_EQ(names, (std::set<std::string>{"a", "sub", kForeignName}));
    EXPECT_TRUE(log_.has(LogLevel::debug, "fs", "found child: name=sub"));
    EXPECT_EQ(log_.lines().back().function, "velmora::Filesystem::listDirectory");
}

TEST_F(FilesystemTest, EndsAListingWhenTheCallbackSaysSoOrThrows) {
    for (const char* const name : {"a", "b", "c"}) write(folder_ / name, "x");
    int calls = 0;
    const auto stop = [&](const std::string&) { return ++calls < 2; };
    EXPECT_TRUE(Filesystem::listDirectory(folder_, stop));
    EXPECT_EQ(calls, 2);
    const auto fail = [](const std::string&) -> bool { throw std::runtime_error("callback"); };
    EXPECT_THROW(Filesystem::listDirectory(folder_, fail), std::runtime_error);
}

TEST_F(FilesystemTest, ListsNothingOfAMissingFolder) {
    const Path missing = folder_ / "missing";
    const auto never = [](const std::string&) -> bool { throw std::logic_error("called"); };
    EXPECT_FALSE(Filesystem::listDirectory(missing, never));
    EXPECT_TRUE(log_.contains("FindFirstFile failed: errno="));
    EXPECT_TRUE(log_.contains(" path=" + missing.string()));
    Filesystem::createDirectories(missing);
    EXPECT_TRUE(Filesystem::listDirectory(missing, never));
}

TEST_F(FilesystemTest, ResizesRegularFilesOnly) {
    const Path file = folder_ / "file";
    const char* const warning = "source for resizeFile should exist and should be a file";
    EXPECT_FALSE(Filesystem::resizeFile(file, 1));
    EXPECT_FALSE(Filesystem::resizeFile(folder_, 1));
    EXPECT_EQ(log_.count(warning), 2U);
    EXPECT_TRUE(log_.has(LogLevel::warn, "fs", warning));
    write(file, "12345");
    EXPECT_TRUE(Filesystem::resizeFile(file, 7));
    EXPECT_EQ(read(file), std::string("12345\0\0", 7));
    EXPECT_TRUE(Filesystem::resizeFile(file, 2));
    EXPECT_EQ(read(file), "12");
    EXPECT_FALSE(Filesystem::resizeFile(file, uint64_t{1} << 62)) << "more than any volume holds";
}

TEST_F(FilesystemTest, RemovesFilesFoldersAndTrees) {
    const Path tree = folder_ / "tree";
    Filesystem::createDirectories(tree / "sub");
    write(tree / "sub" / "file", "x");
    EXPECT_FALSE(Filesystem::remove(tree)) << "not empty";
    EXPECT_TRUE(Filesystem::remove(tree / "sub" / "file"));
    EXPECT_TRUE(Filesystem::remove(tree / "sub"));
    write(tree / "file", "x");
    EXPECT_TRUE(Filesystem::removeAll(tree));
    EXPECT_FALSE(tree.exists());
    EXPECT_TRUE(Filesystem::remove(tree)) << "nothing there is no failure";
    write(tree, "a file is in the way");
    EXPECT_NO_THROW(Filesystem::createDirectories(tree / "sub"));
    EXPECT_TRUE(log_.messages("fs").empty());
}

TEST_F(FilesystemTest, PutsDataAndLogsBelowTheRoot) {
    EXPECT_EQ(Filesystem::getLogFolder(false), Filesystem::getTempFolder() / "Orvane" / "com.orvane.velmora");
    const Path root = folder_ / "root";
    Filesystem::setRootPath(root);
    EXPECT_TRUE(log_.has(LogLevel::warn, "fs", "The rootPath " + root.string() + " does not exist"));
    EXPECT_EQ(Filesystem::getDataFolder(false), root / "com.orvane.velmora");
    EXPECT_FALSE(root.exists());
    EXPECT_TRUE(Filesystem::getDataFolder(true).isDirectory());
    EXPECT_TRUE(Filesystem::getLogFolder(true).isDirectory());
    EXPECT_EQ(Filesystem::getLogFolder(false), root / "Orvane" / "com.orvane.velmora");
}

}  // namespace
}  // namespace velmora
