// What only a system with fork, signals of its own kind and the TZ variable can get wrong.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <functional>

#include "core/platform/folderlock.h"
#include "core/platform/folders.h"
#include "core/platform/guid.h"
#include "core/platform/linux/sysfs.h"
#include "core/platform/localtime.h"
#include "core/platform/randomaccessfile.h"
#include "tests/support/tempfolder.h"

namespace velmora::platform {
namespace {

class ChildProcess {
public:
    explicit ChildProcess(const std::function<void()>& body) {
        if (::pipe(go_) != 0) std::abort();
        process_ = ::fork();
        if (process_ != 0) return;
        char signal = 0;
        ::close(go_[1]);
        static_cast<void>(!::read(go_[0], &signal, 1));
        body();
        ::_exit(0);
    }
    ~ChildProcess() { finish(); }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Lets the body run, and waits for the end.
    void finish() {
        if (process_ <= 0) return;
        ::close(go_[1]);
        ::close(go_[0]);
        ::waitpid(process_, nullptr, 0);
        process_ = 0;
    }

private:
    int go_[2] = {};
    pid_t process_ = 0;
};

TEST(Fork, NeverRepeatsAnIdentifierOfTheParent) {
    static_cast<void>(newGuid());  // fills the parent's stock, which the child inherits
    int result[2] = {};
    ASSERT_EQ(::pipe(result), 0);
    ChildProcess child([&] {
        const auto guid = newGuid();
        static_cast<void>(!::write(result[1], guid.data(), guid.size()));
    });
    child.finish();
    std::array<uint8_t, 16> childs{};
    ASSERT_EQ(::read(result[0], childs.data(), childs.size()), 16);
    EXPECT_NE(childs, newGuid());
}

TEST(Fork, DoesNotProlongAHold) {
    const test::TempFolder folder;
    intptr_t handle = kInvalidLockHandle;
    ASSERT_FALSE(acquireLock(folder.path(), handle));
    const ChildProcess child([] {});
    ASSERT_FALSE(releaseLock(handle));
    EXPECT_FALSE(acquireLock(folder.path(), handle)) << "the child still has the descriptor";
    EXPECT_FALSE(releaseLock(handle));
    EXPECT_EQ(releaseLock(handle).value(), EBADF);
}

TEST(LocalOffset, FollowsTheZoneAndItsChanges) {
    const struct {
        const char* what;
        const char* zone;
        int64_t utc;
        int offset;
    } rows[] = {
        {"UTC", "UTC0", 1678788930, 0},
        {"the second before summer time", "CET-1CEST,M3.5.0,M10.5.0/3", 1679792399, 3600},
        {"summer time begins", "CET-1CEST,M3.5.0,M10.5.0/3", 1679792400, 7200},
        {"west of Greenwich, half hours", "NST3:30", 1678788930, -12600},
        {"quarter hours", "NPT-5:45", 1678788930, 20700},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        ::setenv("TZ", row.zone, 1);
        std::chrono::seconds offset{};
        EXPECT_TRUE(localOffset(row.utc, offset));
        EXPECT_EQ(offset.count(), row.offset);
    }
}

TEST(UserDataFolder, IsTakenFromTheFirstSourceThatNamesOne) {
    int code = 0;
    ::setenv("XDG_DATA_HOME", "/data/home", 1);
    ::setenv("HOME", "/home/user", 1);
    EXPECT_EQ(userDataFolder(code), "/data/home");
    ::setenv("XDG_DATA_HOME", "relative/is/ignored", 1);
    EXPECT_EQ(userDataFolder(code), "/home/user/.local/share");
    ::unsetenv("HOME");
    EXPECT_TRUE(userDataFolder(code).is_absolute()) << "from the password entry";
    EXPECT_EQ(code, 0);
}

TEST(RandomAccessFile, ReservesBlocksForWhatIsOnlyALength) {
    const test::TempFolder folder;
    constexpr uint64_t kSize = 1000000;
    const auto file = openSystemFile(folder / "sparse", true);
    ASSERT_EQ(::truncate((folder / "sparse").c_str(), kSize), 0);
    EXPECT_TRUE(file->reserve(kSize));
    struct stat status {};
    ASSERT_EQ(::stat((folder / "sparse").c_str(), &status), 0);
    EXPECT_EQ(static_cast<uint64_t>(status.st_size), kSize);
    EXPECT_GE(static_cast<uint64_t>(status.st_blocks) * 512, kSize);
    EXPECT_FALSE(file->reserve(uint64_t{1} << 62)) << "more than any disk has";
}

TEST(KernelMask, HoldsTheHighestWordFirst) {
    EXPECT_TRUE(maskHasBit("2", 1));
    EXPECT_FALSE(maskHasBit("2", 0));
    EXPECT_TRUE(maskHasBit("400 0 0 0 0 0", 330));
    EXPECT_FALSE(maskHasBit("400 0 0 0 0 0", 10));
    EXPECT_FALSE(maskHasBit("", 3));
}

}  // namespace
}  // namespace velmora::platform
