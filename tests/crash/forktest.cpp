// A child that is forked from a host with a running instance, and ends by itself.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

#include "core/filesystem/filesystem.h"
#include "core/platform/folderlock.h"
#include "tests/support/libraryfixture.h"

namespace {

bool isChild = false;

}  // namespace

// The leak checker's own hook, where it is linked in. The stacks and thread-local objects of the parent's threads are
// in the child as well, and nobody there frees them.
extern "C" __attribute__((visibility("default"))) int __lsan_is_turned_off() { return isChild; }

namespace velmora::test {
namespace {

const char* const kEvent = R"({"event.workflow":"Fork","event.type":"success","event.subtype":"forked"})";
constexpr size_t kEach = 20;

class ForkedHost : public LibraryTest {
protected:
    void submitSome() {
        for (size_t i = 0; i < kEach; ++i) ASSERT_EQ(submit(instance_, kEvent), VELMORA_OK);
    }

    // The status of a child that does nothing but end, or -1 for one that does not.
    int endForkedChild() {
        const pid_t child = ::fork();
        if (child == 0) {
            isChild = true;
            std::exit(0);
        }
        int status = 0;
        if (host_.waitUntil([&] { return ::waitpid(child, &status, WNOHANG) == child; })) return status;
        ::kill(child, SIGKILL);
        ::waitpid(child, &status, 0);
        return -1;
    }

    velmora_ingest_instance instance_ = nullptr;
};

TEST_F(ForkedHost, ChildThatExitsLeavesTheParentItsFolderAndItsEvents) {
    configure(VELMORA_CONSENT_GRANTED);
    set(VELMORA_CONFIG_BATCH_SIZE, "7");
    velmora_online();
    host_.hold();
    instance_ = start();
    submitSome();
    ASSERT_TRUE(host_.waitForRequests(1));

    EXPECT_EQ(endForkedChild(), 0);
    const Path folder = Filesystem::getDataFolder(false) / kGuid / "v1" / "0";
    EXPECT_EQ(platform::probeHold(folder.native()), platform::HoldState::held);
    submitSome();
    host_.release();
    EXPECT_EQ(velmora_ingest_flush(instance_, nullptr, nullptr), VELMORA_OK);
    EXPECT_EQ(countPosted("forked"), 2 * kEach);
    EXPECT_EQ(countPosted("exit"), 0U) << "the child has told of an end that is not the parent's";
}

}  // namespace
}  // namespace velmora::test
