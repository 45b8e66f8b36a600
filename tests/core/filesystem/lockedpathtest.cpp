#include "core/filesystem/lockedpath.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "core/filesystem/filesystem.h"
#include "core/platform/folderlock.h"
#include "tests/support/capturedlog.h"
#include "tests/support/files.h"
#include "tests/support/tempfolder.h"

namespace velmora {
namespace {

class LockedPathTest : public testing::Test {
protected:
    test::CapturedLog log_;
    const test::TempFolder temp_;
    const Path folder_{temp_.path()};
};

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

}  // namespace
}  // namespace velmora
