#include <gtest/gtest.h>

#include "core/crypt/crypt.h"
#include "core/filesystem/filesystem.h"
#include "core/filesystem/lockedpath.h"
#include "ingest/event/eventmodel.h"
#include "ingest/event/queue.h"
#include "ingest/main/instancefolder.h"
#include "tests/support/libraryfixture.h"

namespace velmora::test {
namespace {

using namespace std::chrono_literals;

class OrphanTest : public LibraryTest {
protected:
    OrphanTest() {
        configure(VELMORA_CONSENT_DEFAULT);
        set(VELMORA_CONFIG_BATCH_INTERVAL, "50");
    }

    Path folder(const std::string& number) { return Filesystem::getDataFolder(true) / kGuid / "v1" / number; }

    std::unique_ptr<Queue> store(const std::string& number, PipelineKind kind) {
        return makeQueue(folder(number) / storeFolderName(kind), nullptr, {"main", 10485760, 104857600, 31536000000});
    }

    void leave(const std::string& number, PipelineKind kind, const std::string& subtype) {
        store(number, kind)->push(Crypt("cobalt").encrypt(R"({"data":{"event.subtype":")" + subtype + "\"}}"));
    }
};

TEST_F(OrphanTest, FoldersOfTheDeadAreDrainedAndDeletedAndThoseOfTheLivingAreNot) {
    leave("3", PipelineKind::meta, "meta-of-3");
    leave("3", PipelineKind::anon, "anon-of-3");
    leave("5", PipelineKind::anon, "anon-of-5");
    leave("8", PipelineKind::anon, "anon-of-8");
    Filesystem::createDirectories(folder("9"));  // nothing in it
    Filesystem::createDirectories(folder("0"));
    const LockedPath living{Path(folder("8"))};
    ASSERT_TRUE(living.isLocked());
    start();
    velmora_online();
    for (const char* subtype : {"meta-of-3", "anon-of-3", "anon-of-5"}) awaitPosted(subtype);
    // The instance itself has taken one of the free folders; the others vanish.
    const auto left = [&] {
        size_t count = 0;
        Filesystem::listDirectory(folder("0").parent(), [&](const std::string&) { return ++count != 0; });
        return count;
    };
    EXPECT_TRUE(host_.waitUntil([&] { return left() == 2; })) << left();
    EXPECT_TRUE(folder("8").exists());
    EXPECT_EQ(countPosted("anon-of-8"), 0U);
    EXPECT_EQ(countPosted("anon-of-5"), 1U);
}

TEST_F(OrphanTest, LinesOfTheUserWaitForTheUser) {
    Filesystem::createDirectories(folder("0"));
    leave("1", PipelineKind::auth, "auth-of-1");
    leave("1", PipelineKind::anon, "anon-of-1");
    LockedPath hold{Path(folder("1"))};
    const auto instance = start();
    velmora_online();
    awaitPosted("init");
    hold = LockedPath();  // its process ends now
    velmora_offline();
    ASSERT_EQ(submit(instance, "{}"), VELMORA_OK);
    ASSERT_TRUE(host_.waitUntil([&] { return velmora_ingest_flush(instance, nullptr, nullptr) != VELMORA_OK; }));
    velmora_online();  // a change of state looks again
    awaitPosted("anon-of-1");
    EXPECT_TRUE(host_.waitUntil([&] { return !(folder("1") / "anon_events").exists(); }));
    EXPECT_EQ(countPosted("auth-of-1"), 0U);
    EXPECT_TRUE((folder("1") / "auth_events").exists());
    EXPECT_TRUE(LockedPath(Path(folder("1"))).isBusy()) << "kept by the instance until the user comes";
}

TEST_F(OrphanTest, AForeignNameEndsTheScanBeforeAnythingIsTouched) {
    Filesystem::createDirectories(folder("backup"));
    try {
        (void)acquireInstanceFolder(kGuid, false);
        FAIL() << "a name that is no number is nobody's queue";
    } catch (const std::invalid_argument& e) {
        EXPECT_STREQ(e.what(), "invalid stoi argument");
    }
    Filesystem::removeAll(folder("backup"));
    Filesystem::createDirectories(folder("99999999999"));
    EXPECT_THROW((void)acquireInstanceFolder(kGuid, false), std::out_of_range);
    EXPECT_TRUE(folder("99999999999").exists());
}

TEST_F(OrphanTest, ScansAreSwitchedOffByConfiguration) {
    set(VELMORA_CONFIG_ORPHAN_INSTANCE_ENABLED, "false");
    Filesystem::createDirectories(folder("0"));
    leave("1", PipelineKind::anon, "anon-of-1");
    {
        const LockedPath hold{Path(folder("1"))};
        start();
    }
    velmora_online();
    awaitPosted("init");
    EXPECT_TRUE(folder("1").exists());
    EXPECT_EQ(countPosted("anon-of-1"), 0U);
    EXPECT_FALSE(LockedPath(Path(folder("1"))).isBusy());
}

}  // namespace
}  // namespace velmora::test
