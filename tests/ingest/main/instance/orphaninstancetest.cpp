#include <gtest/gtest.h>

#include "core/crypt/crypt.h"
#include "core/filesystem/filesystem.h"
#include "core/filesystem/lockedpath.h"
#include "core/json/jsontext.h"
#include "ingest/event/eventmodel.h"
#include "ingest/event/store/eventstore.h"
#include "ingest/main/instance/instancefolder.h"
#include "ingest/main/instance/orphaninstance.h"
#include "tests/support/fakesession.h"
#include "tests/support/libraryfixture.h"
#include "tests/support/manualpools.h"

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

    std::unique_ptr<EventStore> store(const std::string& number, PipelineKind kind) {
        return std::make_unique<EventStore>(folder(number) / storeFolderName(kind), DropCallback(),
                                            QueueConfig{"main", 10485760, 104857600, 31536000000});
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

// Such as a line whose records were written before the cipher was switched on.
TEST_F(OrphanTest, ReadableRecordsOfAnInvalidLineComeBackAndAreSent) {
    Filesystem::createDirectories(folder("0"));
    {
        const auto invalid = store("1", PipelineKind::anon_invalid);
        for (const char* subtype : {"first", "second"}) {
            invalid->push(std::string(R"({"data":{"event.subtype":")") + subtype + "\"}}");
            invalid->push(Crypt("another").encrypt(subtype));
        }
    }
    {
        const LockedPath hold{Path(folder("1"))};
        start();
    }
    velmora_online();
    awaitPosted("first");
    awaitPosted("second");
    EXPECT_EQ(toText(awaitPosted("decrypt")["event.count"]), "2");
    EXPECT_TRUE(host_.waitUntil([&] { return !folder("1").exists(); }));
    EXPECT_EQ(countPosted("first") + countPosted("second"), 2U);
}

TEST_F(OrphanTest, AForeignNameEndsTheScanBeforeAnythingIsTouched) {
    for (const char* name : {"backup", "0.bak", "3 (copy)", "+1", " 7", "-1", "99999999999"}) {
        SCOPED_TRACE(name);
        Filesystem::createDirectories(folder(name));
        try {
            (void)acquireInstanceFolder(kGuid, false);
            ADD_FAILURE() << "a name that is no number is nobody's queue";
        } catch (const std::invalid_argument& e) {
            EXPECT_STREQ(e.what(), "invalid stoi argument");
        } catch (const std::out_of_range& e) {
            EXPECT_STREQ(e.what(), "stoi argument out of range");
        }
        EXPECT_TRUE(folder(name).exists());
        Filesystem::removeAll(folder(name));
    }
}

TEST_F(OrphanTest, AForeignNameDoesNotCountWhenAFolderIsTaken) {
    std::vector<LockedPath> holds;
    for (const char* name : {"0", "0.bak", "-1", "5 (copy)", "99999999999"}) {
        Filesystem::createDirectories(folder(name));
        holds.emplace_back(folder(name));
        ASSERT_TRUE(holds.back().isLocked());
    }
    const auto next = acquireInstanceFolder(kGuid, true);
    EXPECT_EQ(next->filename().string(), "1");
    Filesystem::createDirectories(folder("2147483647"));
    holds.emplace_back(folder("2147483647"));
    EXPECT_EQ(acquireInstanceFolder(kGuid, true)->filename().string(), "2147483648");
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

// On manual pools, so that a change of state can come between any two tasks.
class OrphanTurns : public testing::Test {
protected:
    OrphanTurns() {
        Filesystem::setRootPath(Path(root_.path()));
        session_.config.batchSize = 1;
        session_.config.encryptionEnabled = false;
        provider_.refresh();
        const auto ignore = [](const std::error_code&, const auto& events) -> uint64_t { return events.size(); };
        orphan_ = std::make_unique<OrphanInstance>(
            session_, provider_, "guid",
            LineCallbacks{nullptr, [](std::string&, bool) { return true; }, ignore, ignore, [](const auto&...) {}});
        Filesystem::createDirectories(folder("0"));
    }

    static Path folder(const std::string& number) { return Filesystem::getDataFolder(true) / "guid" / "v1" / number; }

    static void leave(const std::string& number, PipelineKind kind) {
        EventStore(folder(number) / storeFolderName(kind), nullptr, {"main", 100000, 1000000, 31536000000}).push("{}");
    }

    void change(std::initializer_list<PipelineState> anonStates) {
        for (const PipelineState state : anonStates) orphan_->changeState({PipelineState::SaveOnly, state});
    }

    // The empty folder is found and deleted; the search for the next is due.
    void runUntilTheEmptyFolderIsDeleted() {
        while (folder("0").exists()) ASSERT_TRUE(pools_.runOne());
    }

    bool drive(const std::function<bool()>& condition) {
        return host_.waitUntil([&] {
            pools_.runAll();
            return condition();
        });
    }

    const CapturedLog log_{LogLevel::info};
    TempFolder root_;
    ManualPools pools_;
    FakeHost host_;
    FakeSession session_;
    IngestConfigProvider provider_{"guid", [this](const std::string&) { return session_.config; }, nullptr};
    std::unique_ptr<OrphanInstance> orphan_;
};

TEST_F(OrphanTurns, AScanThatIsDueHoldsNothingOnceSendingIsOff) {
    change({PipelineState::On, PipelineState::SaveOnly});
    runUntilTheEmptyFolderIsDeleted();
    leave("1", PipelineKind::anon);
    pools_.runAll();
    EXPECT_EQ(log_.count("Open pipeline"), 0U);
    EXPECT_FALSE(LockedPath(folder("1")).isBusy()) << "any other process may take it";
}

TEST_F(OrphanTurns, AScanThatIsDueOpensNothingASecondTime) {
    change({PipelineState::On, PipelineState::SaveOnly, PipelineState::On});
    runUntilTheEmptyFolderIsDeleted();
    leave("1", PipelineKind::anon);
    EXPECT_TRUE(drive([&] { return !folder("1").exists(); }));
    EXPECT_EQ(log_.count("Open pipeline"), 1U);
    EXPECT_EQ(host_.sends(), 1U);
}

// The report waits in the queue while the folder changes; the line of the same kind in the next one is not empty.
TEST_F(OrphanTurns, ALateReportOfTheFolderBeforeDeletesNothingOfTheNext) {
    Filesystem::createDirectories(folder("0") / "anon_events");
    leave("1", PipelineKind::anon);
    host_.hold();
    change({PipelineState::On, PipelineState::SaveOnly, PipelineState::On});
    while (log_.count("Close pipeline") == 0) ASSERT_TRUE(pools_.runOne());
    const LockedPath others{folder("0")};
    ASSERT_TRUE(others.isLocked());
    ASSERT_TRUE(drive([&] { return host_.sends() == 1; }));
    pools_.runAll();
    EXPECT_EQ(log_.count("anon is empty"), 1U);
    EXPECT_TRUE((folder("1") / "anon_events").exists()) << "nobody has answered yet";
    host_.release();
    EXPECT_TRUE(drive([&] { return !folder("1").exists(); }));
}

TEST_F(OrphanTurns, AStoreThatCannotBeOpenedKeepsItsFolderAndNothingElse) {
    leave("0", PipelineKind::anon);
    Filesystem::createDirectories(folder("0") / "meta_events" / "manifest");
    change({PipelineState::On});
    EXPECT_TRUE(drive([&] { return !(folder("0") / "anon_events").exists(); }));
    EXPECT_EQ(host_.sends(), 1U);
    EXPECT_TRUE((folder("0") / "meta_events" / "manifest").exists());
    EXPECT_TRUE(LockedPath(folder("0")).isBusy());
    change({PipelineState::SaveOnly});
    pools_.runAll();
    EXPECT_FALSE(LockedPath(folder("0")).isBusy());
}

}  // namespace
}  // namespace velmora::test
