#include "core/filesystem/filesystem.h"

#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <stdexcept>
#include <thread>

#include "core/filesystem/lockedpath.h"
#include "core/filesystem/path.h"
#include "core/platform/folderlock.h"
#include "tests/support/capturedlog.h"
#include "tests/support/files.h"
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

using LockedPathTest = FilesystemTest;

TEST_F(LockedPathTest, IsHeldByOneOwnerAtATime) {
    const std::string name = folder_.string();
    {
        const LockedPath first{Path(folder_)};
        EXPECT_TRUE(first.isLocked() && !first.isBusy());
        EXPECT_TRUE(log_.has(LogLevel::info, "fs", "locked path=" + name));
        EXPECT_EQ(platform::probeHold(folder_.native()), platform::HoldState::held);
        const LockedPath second{Path(folder_)};
        EXPECT_TRUE(!second.isLocked() && second.isBusy());
        EXPECT_TRUE(log_.contains("cannot lock: errno="));
        Filesystem::createDirectories(folder_ / "child");
        EXPECT_TRUE((folder_ / "child").exists()) << "the holder works in it";
    }
    EXPECT_TRUE(log_.has(LogLevel::info, "fs", "unlocked path=" + name));
    EXPECT_EQ(platform::probeHold(folder_.native()), platform::HoldState::free);
    const LockedPath again{Path(folder_)};
    EXPECT_TRUE(again.isLocked());
}

TEST_F(LockedPathTest, SaysWhatCouldNotBeReleased) {
    intptr_t handle = platform::kInvalidLockHandle;
    bool busy = true;
    ASSERT_TRUE(Filesystem::trylock(folder_, 1, handle, busy));
    EXPECT_FALSE(busy);
    ASSERT_FALSE(platform::releaseLock(handle));
    const intptr_t released = handle;
    EXPECT_FALSE(Filesystem::unlock(folder_, handle));
    EXPECT_EQ(handle, released);
    EXPECT_TRUE(log_.contains("cannot unlock: errno="));
    EXPECT_TRUE(log_.contains(" path=" + folder_.string()));
    EXPECT_EQ(log_.lines().back().function, "velmora::Filesystem::unlock");
}

TEST_F(LockedPathTest, TriesNothingOnAMissingPath) {
    const LockedPath missing(folder_ / "missing");
    EXPECT_TRUE(!missing.isLocked() && !missing.isBusy());
    EXPECT_TRUE(log_.messages("fs").empty());
    EXPECT_EQ(platform::probeHold((folder_ / "missing").native()), platform::HoldState::unknown);
}

TEST_F(LockedPathTest, HandsTheHoldOnWhenMoved) {
    LockedPath first{Path(folder_)};
    LockedPath second(std::move(first));
    EXPECT_TRUE(second.isLocked());
    LockedPath third;
    third = std::move(second);
    EXPECT_TRUE(third.isLocked());
    EXPECT_EQ(third, folder_);
    EXPECT_TRUE(LockedPath{Path(folder_)}.isBusy());
    LockedPath fourth;
    fourth.swap(third);
    EXPECT_FALSE(third.isLocked());
    fourth = LockedPath();
    EXPECT_TRUE(LockedPath{Path(folder_)}.isLocked()) << "assignment releases what was held";
}

// Whoever removes a folder does so while holding it. A hold that another thread then gets on what is no longer there
// would stand beside the next owner's hold on the folder's successor.
TEST_F(LockedPathTest, IsNeverHeldTwiceWhileFoldersComeAndGo) {
    const Path contested = folder_ / "contested";
    std::atomic<int> owners{0};
    std::atomic<int> conflicts{0};
    const auto work = [&] {
        for (int i = 0; i < 500; ++i) {
            Filesystem::createDirectories(contested);
            intptr_t handle = platform::kInvalidLockHandle;
            if (platform::acquireLock(contested.native(), handle)) continue;
            if (++owners != 1) ++conflicts;
            std::this_thread::yield();
            Filesystem::remove(contested);
            --owners;
            EXPECT_FALSE(platform::releaseLock(handle));
        }
    };
    std::thread other(work);
    work();
    other.join();
    EXPECT_EQ(conflicts, 0);
}

TEST_F(LockedPathTest, HoldsFilesAsWell) {
    const Path file = folder_ / "file";
    test::writeFile(file.native());
    const LockedPath held{Path(file)};
    EXPECT_TRUE(held.isLocked());
    EXPECT_TRUE(LockedPath{Path(file)}.isBusy());
    EXPECT_EQ(platform::probeHold(file.native()), platform::HoldState::held);
}

TEST(Path, TakesUtf8AndRefusesEverythingElse) {
    const struct {
        const char *what, *text;
        bool valid;
    } rows[] = {
        {"plain", "a b.txt", true},
        {"two, three and four bytes", "\xC3\xA4\xE2\x82\xAC\xF0\x9F\x93\x88", true},
        {"cut short", "a\xE2\x82", false},
        {"overlong", "\xC0\xAF", false},
        {"surrogate", "\xED\xA0\x80", false},
        {"beyond the last code point", "\xF4\x90\x80\x80", false},
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
