// What only a system with fork, modes, names of bytes and the TZ variable can get wrong.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <openssl/provider.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <boost/filesystem/operations.hpp>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <new>
#include <set>
#include <stdexcept>

#include "core/crypt/crypt.h"
#include "core/filesystem/filesystem.h"
#include "core/filesystem/lockedpath.h"
#include "core/logging/defaultlogger.h"
#include "core/platform/folderlock.h"
#include "core/platform/folders.h"
#include "core/platform/linux/system.h"
#include "core/platform/pool.h"
#include "core/platform/process.h"
#include "core/platform/randomaccessfile.h"
#include "core/platform/sysfacts.h"
#include "tests/support/capturedlog.h"
#include "tests/support/files.h"
#include "tests/support/manualpools.h"
#include "tests/support/tempfolder.h"

namespace {

std::atomic<bool> threadsAreRefused = false;
std::function<void()> beforeLocking;

}  // namespace

// In place of the system's, for every thread of this program.
extern "C" int flock(int descriptor, int operation) noexcept {
    static const auto systems = reinterpret_cast<decltype(&flock)>(::dlsym(RTLD_NEXT, "flock"));
    if (beforeLocking) std::exchange(beforeLocking, nullptr)();
    return systems(descriptor, operation);
}

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                              void* argument) {
    static const auto systems = reinterpret_cast<decltype(&pthread_create)>(::dlsym(RTLD_NEXT, "pthread_create"));
    return threadsAreRefused ? EAGAIN : systems(thread, attributes, body, argument);
}

namespace velmora::platform {
namespace {

namespace fs = boost::filesystem;

const char* const kNoUtf8 = "caf\xE9";

// Leaves the process without a thread of the pools, as it was before their first task.
bool endPoolThreads() { return awaitIdlePools(std::chrono::steady_clock::now() + std::chrono::seconds(20)); }

mode_t modeOf(const fs::path& path) {
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0);
    return status.st_mode & 0777;
}

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

    // Lets the body run, and waits for the end. The exit code, or -1.
    int finish() {
        if (process_ <= 0) return -1;
        int status = 0;
        ::close(go_[1]);
        ::close(go_[0]);
        ::waitpid(process_, &status, 0);
        process_ = 0;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    int go_[2] = {};
    pid_t process_ = 0;
};

// By another process, for example, which deletes the folder that it has drained, and a third one that makes it anew.
TEST(FolderLock, IsRefusedIfThePathIsGoneOrAnotherOneOnceItIsTaken) {
    for (const bool isMadeAnew : {false, true}) {
        SCOPED_TRACE(isMadeAnew);
        const test::TempFolder root;
        const fs::path path = root / "0";
        fs::create_directory(path);
        beforeLocking = [&] {
            fs::rename(path, root / "drained");
            if (isMadeAnew) fs::create_directory(path);
        };
        intptr_t handle = 0;
        EXPECT_TRUE(isHeldByOther(acquireLock(path, handle)));
        EXPECT_EQ(handle, kInvalidLockHandle);
        ASSERT_FALSE(acquireLock(root / "drained", handle)) << "the refused hold is let go of";
        EXPECT_FALSE(releaseLock(handle));
    }
}

TEST(Fork, NeverRepeatsAnIdentifierOfTheParent) {
    static_cast<void>(randomGuidBytes());  // fills the parent's stock, which the child inherits
    int result[2] = {};
    ASSERT_EQ(::pipe(result), 0);
    ChildProcess child([&] {
        const auto guid = randomGuidBytes();
        static_cast<void>(!::write(result[1], guid.data(), guid.size()));
    });
    child.finish();
    std::array<uint8_t, 16> childs{};
    ASSERT_EQ(::read(result[0], childs.data(), childs.size()), 16);
    EXPECT_NE(childs, randomGuidBytes());
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

TEST(Fork, LeavesTheThreadsOfThePoolsToTheParent) {
    ASSERT_TRUE(endPoolThreads());
    ChildProcess before([] { ::_exit(isTerminating() ? 1 : 0); });
    EXPECT_EQ(before.finish(), 0) << "a child that brings up pools of its own";
    defaultPool().run([] {});
    ChildProcess after([] { ::_exit(isTerminating() && !canAwaitPools() ? 0 : 1); });
    EXPECT_EQ(after.finish(), 0);
    EXPECT_TRUE(!isTerminating() && canAwaitPools());
    std::promise<bool> canAwait;
    defaultPool().run([&] { canAwait.set_value(canAwaitPools()); });
    EXPECT_FALSE(canAwait.get_future().get()) << "a pool's thread would wait for itself";
    ASSERT_TRUE(endPoolThreads());
    ChildProcess rested([] { ::_exit(isForkedChild() ? 1 : 0); });
    EXPECT_EQ(rested.finish(), 0) << "a child of a process whose pools have no threads";
}

TEST(Pools, RefuseWhatNoThreadCanBeHadForAndServeOnWithoutNewOnes) {
    ASSERT_TRUE(endPoolThreads());
    const auto held = std::make_shared<int>();
    threadsAreRefused = true;
    EXPECT_THROW(defaultPool().run([held] { std::abort(); }), std::bad_alloc);
    EXPECT_EQ(held.use_count(), 1) << "the pool has kept nothing";
    EXPECT_THROW(defaultTimer().runAfter(std::chrono::milliseconds(0), nullptr, [held] { std::abort(); }),
                 std::bad_alloc);

    threadsAreRefused = false;
    std::promise<void> task;
    std::promise<void> timer;
    defaultTimer().runAfter(std::chrono::milliseconds(50), nullptr, [&] { timer.set_value(); });
    defaultPool().run([&] {
        threadsAreRefused = true;
        defaultPool().run([&] { task.set_value(); });
    });
    task.get_future().get();
    timer.get_future().get();
    threadsAreRefused = false;
}

TEST(Pools, LeaveSignalsToTheHostButThoseOfTheirOwnFaults) {
    for (const bool isTimer : {false, true}) {
        std::promise<sigset_t> blocked;
        const auto look = [&] {
            sigset_t set;
            ::pthread_sigmask(SIG_BLOCK, nullptr, &set);
            blocked.set_value(set);
        };
        isTimer ? defaultTimer().runAfter(std::chrono::milliseconds(0), nullptr, look) : defaultPool().run(look);
        const sigset_t set = blocked.get_future().get();
        for (const int signal : {SIGTERM, SIGINT, SIGUSR1, SIGALRM, SIGCHLD}) EXPECT_EQ(::sigismember(&set, signal), 1);
        for (const int fault : {SIGSEGV, SIGABRT}) EXPECT_EQ(::sigismember(&set, fault), 0);
    }
    sigset_t own;
    ::pthread_sigmask(SIG_BLOCK, nullptr, &own);
    EXPECT_EQ(::sigismember(&own, SIGTERM), 0) << "the starting thread's mask is as before";
}

TEST(Cancellation, IsHeldBackUntilTheScopeEnds) {
    std::promise<void> inside;
    std::promise<void> cancelled;
    std::atomic<bool> held = false;
    pthread_t thread{};
    std::function<void()> body = [&] {
        {
            const CancellationHold hold;
            inside.set_value();
            cancelled.get_future().wait();
            ::usleep(1000);  // a point of cancellation
            held = true;
        }
        for (;;) ::pause();
    };
    const auto run = [](void* context) -> void* { return (*static_cast<std::function<void()>*>(context))(), nullptr; };
    ASSERT_EQ(::pthread_create(&thread, nullptr, run, &body), 0);
    inside.get_future().wait();
    ::pthread_cancel(thread);
    cancelled.set_value();
    void* result = nullptr;
    ::pthread_join(thread, &result);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_TRUE(held);
}

TEST(LocalOffset, FollowsTheZoneAndItsChanges) {
    const struct {
        const char *what, *zone;
        int64_t utc;
        int offset;
    } rows[] = {
        {"UTC", "UTC0", 1678788930, 0},
        {"the second before summer time", "CET-1CEST,M3.5.0,M10.5.0/3", 1679792399, 3600},
        {"summer time begins", "CET-1CEST,M3.5.0,M10.5.0/3", 1679792400, 7200},
        {"west of Greenwich, half hours", "NST3:30", 1678788930, -12600},
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

TEST(NamesThatAreNoText, ArePassedOverInAListingAndNeverHeld) {
    const test::CapturedLog log;
    const test::TempFolder folder;
    for (const char* const name : {"a", kNoUtf8, "b"}) test::writeFile(folder / name);
    std::set<std::string> names;
    const auto keep = [&](const std::string& name) { return names.insert(name).second; };
    EXPECT_TRUE(Filesystem::listDirectory(Path(folder.path()), keep));
    EXPECT_EQ(names, (std::set<std::string>{"a", "b"}));
    EXPECT_TRUE(log.has(LogLevel::warn, "fs", "skipped a child whose name is no text"));
    EXPECT_THROW(LockedPath(Path(folder / kNoUtf8)), std::range_error);
    EXPECT_EQ(probeHold(folder / kNoUtf8), HoldState::free);
}

TEST(SystemFacts, AreEmptyWhereTheSystemTellsNoUtf8) {
    const test::TempFolder folder;
    test::writeFile(folder / "text", " caf\xC3\xA9 \nsecond");
    test::writeFile(folder / "bytes", kNoUtf8);
    EXPECT_EQ(readFirstLine(folder / "text"), "caf\xC3\xA9");
    EXPECT_EQ(readFirstLine(folder / "bytes"), "");
    EXPECT_EQ(readFirstLine(folder / "missing"), "");
    ::setenv("LC_ALL", "de_AT.UTF-8@euro", 1);
    EXPECT_EQ(userLocale(), "de-AT");
    ::setenv("LC_ALL", kNoUtf8, 1);
    EXPECT_EQ(userLocale(), "");
}

TEST(Folders, AreMadeForTheUserAlone) {
    const test::TempFolder folder;
    ::chmod(folder.path().c_str(), 0755);
    createFolders(folder / "a" / "b");
    EXPECT_EQ(modeOf(folder.path()), 0755U);
    EXPECT_EQ(modeOf(folder / "a"), 0700U);
    EXPECT_EQ(modeOf(folder / "a" / "b"), 0700U);
    EXPECT_NO_THROW(createFolders(folder / "a"));
    test::writeFile(folder / "file");
    EXPECT_THROW(createFolders(folder / "file"), fs::filesystem_error);
    EXPECT_THROW(createFolders(folder / "file" / "below"), fs::filesystem_error);

    fs::create_directory_symlink(folder / "a", folder / "link");
    EXPECT_TRUE(isUsersOwn(folder / "a"));
    for (const char* const name : {"link", "file", "missing"}) EXPECT_FALSE(isUsersOwn(folder / name)) << name;
    ::chmod((folder / "a").c_str(), 0777);
    EXPECT_FALSE(isUsersOwn(folder / "a")) << "everybody may write to it";
    ::chmod((folder / "a").c_str(), 0700);
    if (::chown((folder / "a").c_str(), 12345, 12345) == 0) {
        EXPECT_FALSE(isUsersOwn(folder / "a")) << "somebody else's";
    }
}

TEST(LogFolder, IsLeftAloneWhereALinkLeadsElsewhere) {
    for (const char* const link : {"Orvane", "Orvane/com.orvane.velmora"}) {
        SCOPED_TRACE(link);
        const test::TempFolder root;
        const test::TempFolder elsewhere;
        test::writeFile(elsewhere / "old");
        fs::create_directories(elsewhere / "com.orvane.velmora");
        fs::last_write_time(elsewhere / "old", 1);
        test::writeFile(elsewhere / "com.orvane.velmora" / "old");
        fs::last_write_time(elsewhere / "com.orvane.velmora" / "old", 1);
        fs::create_directories((root / link).parent_path());
        fs::create_directory_symlink(elsewhere.path(), root / link);
        Filesystem::setRootPath(Path(root.path()));
        test::ManualPools pools;
        DefaultLogger logger(LogLevel::info, [](const auto&...) { FAIL() << "files were deleted"; });
        logger.start();
        logger.write(LogLevel::info, "channel", "a line");
        pools.runAll();
        EXPECT_EQ(childrenOf(elsewhere.path()).size(), 2U);
        EXPECT_EQ(childrenOf(elsewhere / "com.orvane.velmora").size(), 1U);
    }
}

TEST(Cipher, WorksWhateverProvidersTheHostHasLoaded) {
    OSSL_PROVIDER* const provider = OSSL_PROVIDER_load(nullptr, "legacy");
    ASSERT_NE(provider, nullptr);
    const Crypt crypt("cobalt");
    EXPECT_EQ(crypt.decrypt(crypt.encrypt("text")), "text");
    OSSL_PROVIDER_unload(provider);
}

TEST(RandomAccessFile, GrowsWithBlocksOrNotAtAll) {
    const test::TempFolder folder;
    constexpr uint64_t kSize = 1000000;
    const auto file = openSystemFile(folder / "file", true);
    ASSERT_TRUE(file->resize(kSize));
    struct stat status {};
    ASSERT_EQ(::stat((folder / "file").c_str(), &status), 0);
    EXPECT_EQ(static_cast<uint64_t>(status.st_size), kSize);
    EXPECT_GE(static_cast<uint64_t>(status.st_blocks) * 512, kSize);
    EXPECT_FALSE(file->resize(uint64_t{1} << 62)) << "more than any disk has";
    ASSERT_EQ(::stat((folder / "file").c_str(), &status), 0);
    EXPECT_EQ(static_cast<uint64_t>(status.st_size), kSize);
}

TEST(KernelMask, HoldsTheHighestWordFirst) {
    EXPECT_TRUE(maskHasBit("2", 1));
    EXPECT_TRUE(maskHasBit("400 0 0 0 0 0", 330));
    EXPECT_FALSE(maskHasBit("400 0 0 0 0 0", 10));
    EXPECT_FALSE(maskHasBit("", 3));
}

}  // namespace
}  // namespace velmora::platform
