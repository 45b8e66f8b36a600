#include "core/filesystem/lockedpath.h"

#include <gtest/gtest.h>

#include "core/filesystem/filesystem.h"
#include "tests/support/capturedlog.h"
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
        const LockedPath second{Path(folder_)};
        EXPECT_TRUE(!second.isLocked() && second.isBusy());
        EXPECT_TRUE(log_.contains("cannot lock: errno="));
        Filesystem::createDirectories(folder_ / "child");
        EXPECT_TRUE((folder_ / "child").exists()) << "the holder works in it";
    }
    EXPECT_TRUE(log_.has(LogLevel::info, "fs", "unlocked path=" + name));
    const LockedPath again{Path(folder_)};
    EXPECT_TRUE(again.isLocked());
}

TEST_F(LockedPathTest, TriesNothingOnAMissingPath) {
    const LockedPath missing(folder_ / "missing");
    EXPECT_TRUE(!missing.isLocked() && !missing.isBusy());
    EXPECT_TRUE(log_.messages("fs").empty());
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

TEST_F(LockedPathTest, HoldsFilesAsWell) {
    const Path file = folder_ / "file";
    std::ofstream stream;
    ASSERT_TRUE(Filesystem::open(stream, file, std::ios::binary));
    stream.close();
    const LockedPath held{Path(file)};
    EXPECT_TRUE(held.isLocked());
    EXPECT_TRUE(LockedPath{Path(file)}.isBusy());
}

}  // namespace
}  // namespace velmora
