// Processes are killed at random moments; what they had accepted must be delivered or on disk, once the dust settles
// all delivered, in order, and every folder drained by one process at a time.
//
// The figures of each suite are printed with the seed of its random choices; VELMORA_CRASH_SEED repeats them, as far as
// the system's scheduling does. VELMORA_CRASH_ROUNDS sets the number of kills, or of storms.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <random>
#include <thread>

#include "tests/crash/ledger.h"
#include "tests/crash/storedevents.h"
#include "tests/support/appendfile.h"
#include "tests/support/childprocess.h"
#include "tests/support/tempfolder.h"

namespace velmora::test {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr const char* kConfig = "3f2c9d5e-8f7a-4f0b-9f53-0d7f8f1f2a11";
constexpr milliseconds kPatience{60000};
constexpr int kKillsPerRoot = 8;
constexpr int kAdopters = 2;
constexpr int kWriters = 4;
constexpr int kNoLimit = 1000000;
constexpr int kEventsInStorm = 400;  // of each thread; the writers that are not killed yet must not flood the others

uint64_t numberFromEnvironment(const char* name, uint64_t otherwise) {
    const char* text = std::getenv(name);
    return text != nullptr && *text != 0 ? std::strtoull(text, nullptr, 10) : otherwise;
}

class Chance {
public:
    explicit Chance(uint64_t seed) : engine_(seed) {}
    bool oneIn(int times) { return below(times) == 0; }
    int below(int end) { return std::uniform_int_distribution<int>(0, end - 1)(engine_); }
    const char* oneOf(std::initializer_list<const char*> choices) {
        return choices.begin()[below(static_cast<int>(choices.size()))];
    }

    // Mostly short, as the children work flat out and all of their events are read again and again.
    microseconds untilKill() { return microseconds(below(oneIn(8) ? 150000 : 20000)); }

private:
    std::mt19937_64 engine_;
};

struct Figures {
    uint64_t kills = 0;
    uint64_t accepted = 0;
    uint64_t delivered = 0;
    uint64_t repeats = 0;
    uint64_t unreported = 0;

    void add(const Verdict& verdict) {
        accepted += verdict.accepted;
        delivered += verdict.delivered;
        repeats += verdict.repeats;
        unreported += verdict.unreported;
    }
};

// A data root with the processes that share it.
class Scene {
public:
    struct Running {
        int number;
        std::unique_ptr<ChildProcess> child;
    };

    explicit Scene(Chance& chance)
        : chance_(chance),
          ledgerFile_(ledger_),
          rotation_(chance.oneOf({"16384", "65536", "1048576"})),
          batch_(chance.oneOf({"1", "7", "50", "200"})) {}

    Running startWriter(bool online, int limit) {
        return start("submit", {std::string("online=") + (online ? "1" : "0"), "limit=" + std::to_string(limit),
                                std::string("early=") + (chance_.oneIn(5) ? "1" : "0")});
    }

    Running startAdopter() { return start("adopt", {}); }

    void awaitReady(Running& running) {
        std::string line;
        ASSERT_TRUE(running.child->readLine(line)) << "process " << running.number << " ended too early";
        ASSERT_EQ(line, "ready");
    }

    void kill(Running& running) {
        ledgerFile_.append(toRecord({Deed::leaving, running.number, {}}));
        running.child->kill();
        EXPECT_EQ(running.child->wait(), ChildProcess::kKilled) << "process " << running.number << " failed by itself";
    }

    void finish(Running& adopter) {
        adopter.child->closeInput();
        EXPECT_EQ(adopter.child->wait(), 0) << "adopter " << adopter.number;
    }

    // Waits until there are no more instance folders than that.
    [[nodiscard]] bool awaitFolders(size_t count) const {
        const auto deadline = steady_clock::now() + kPatience;
        while (instanceFolders(root_.string(), kConfig).size() > count) {
            if (steady_clock::now() > deadline) return false;
            std::this_thread::sleep_for(milliseconds(1));
        }
        return true;
    }

    // Only while no process runs. Reports whatever is wrong as failures.
    Verdict check() const {
        const StoredEvents stored = readStoredEvents(root_.string(), kConfig);
        const Verdict verdict = judge(readLedger(ledger_), stored.lines);
        for (const std::string& fault : stored.faults) ADD_FAILURE() << fault;
        for (const std::string& violation : verdict.violations) ADD_FAILURE() << violation;
        return verdict;
    }

private:
    Running start(const char* mode, std::vector<std::string> more) {
        const int number = ++processes_;
        std::vector<std::string> arguments{mode,
                                           "root=" + root_.string(),
                                           "ledger=" + ledger_,
                                           std::string("config=") + kConfig,
                                           "process=" + std::to_string(number),
                                           "rotation=" + rotation_,
                                           "batch=" + batch_};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return {number, std::make_unique<ChildProcess>(VELMORA_CRASH_CHILD, arguments)};
    }

    Chance& chance_;
    TempFolder root_;
    const std::string ledger_ = (root_ / "ledger").string();
    AppendFile ledgerFile_;
    const std::string rotation_;
    const std::string batch_;  // the same for all, so that a batch that is sent again is never a shorter one
    int processes_ = 0;
};

class Crash : public testing::Test {
protected:
    Crash() : seed_(numberFromEnvironment("VELMORA_CRASH_SEED", std::random_device()())), chance_(seed_) {
        std::cout << "seed " << seed_ << std::endl;
    }

    ~Crash() override {
        std::cout << "kills=" << figures_.kills << " accepted=" << figures_.accepted
                  << " delivered=" << figures_.delivered << " repeats=" << figures_.repeats
                  << " unreported=" << figures_.unreported << std::endl;
    }

    // One writer after the other on one root, each killed; each takes over what the one before has left.
    void killWriters(int count, bool online) {
        Scene scene(chance_);
        for (int i = 0; i < count; ++i) {
            SCOPED_TRACE("writer " + std::to_string(i + 1));
            auto writer = scene.startWriter(online, kNoLimit);
            ASSERT_NO_FATAL_FAILURE(scene.awaitReady(writer));
            std::this_thread::sleep_for(chance_.untilKill());
            scene.kill(writer);
            ++figures_.kills;
            scene.check();
            if (HasFailure()) return;
        }
        sweep(scene);
    }

    // One more process delivers all that is left; then there is but its own folder, without an event of anybody.
    void sweep(Scene& scene) {
        auto adopter = scene.startAdopter();
        ASSERT_NO_FATAL_FAILURE(scene.awaitReady(adopter));
        EXPECT_TRUE(scene.awaitFolders(1)) << "folders of dead processes do not vanish";
        scene.finish(adopter);
        const Verdict verdict = scene.check();
        EXPECT_EQ(verdict.stored, 0U);
        EXPECT_EQ(verdict.delivered, verdict.accepted + verdict.unreported);
        figures_.add(verdict);
    }

    void killWritersUpTo(uint64_t kills, bool online) {
        while (figures_.kills < kills && !HasFailure())
            killWriters(static_cast<int>(std::min<uint64_t>(kKillsPerRoot, kills - figures_.kills)), online);
        EXPECT_GT(figures_.accepted, figures_.kills);
        EXPECT_GE(figures_.delivered, figures_.accepted);
    }

    // Writers die while adopters drain; one outlives the drain of all others.
    void storm() {
        Scene scene(chance_);
        std::vector<Scene::Running> adopters;
        std::vector<Scene::Running> writers;
        for (int i = 0; i < kAdopters; ++i) adopters.push_back(scene.startAdopter());
        for (int i = 0; i < kWriters; ++i) writers.push_back(scene.startWriter(chance_.oneIn(2), kEventsInStorm));
        for (auto& adopter : adopters) ASSERT_NO_FATAL_FAILURE(scene.awaitReady(adopter));
        for (auto& writer : writers) {
            ASSERT_NO_FATAL_FAILURE(scene.awaitReady(writer));
            const bool isLast = &writer == &writers.back();
            EXPECT_TRUE(!isLast || scene.awaitFolders(kAdopters + 1)) << "orphans are left while one writer lives";
            std::this_thread::sleep_for(chance_.untilKill());
            scene.kill(writer);
            ++figures_.kills;
        }
        EXPECT_TRUE(scene.awaitFolders(kAdopters)) << "folders of dead processes do not vanish";
        for (auto& adopter : adopters) scene.finish(adopter);
        sweep(scene);
    }

    const uint64_t seed_;
    Chance chance_;
    Figures figures_;
};

TEST_F(Crash, KilledWritersLoseNothing) {
    killWritersUpTo(numberFromEnvironment("VELMORA_CRASH_ROUNDS", VELMORA_CRASH_KILLS), false);
}

TEST_F(Crash, WritersKilledWhileTheyDeliverLoseNothing) {
    killWritersUpTo(numberFromEnvironment("VELMORA_CRASH_ROUNDS", VELMORA_CRASH_KILLS), true);
}

TEST_F(Crash, OrphansAreAdoptedOnceWhileOthersDie) {
    const uint64_t storms = numberFromEnvironment("VELMORA_CRASH_ROUNDS", VELMORA_CRASH_STORMS);
    for (uint64_t i = 0; i < storms && !HasFailure(); ++i) {
        SCOPED_TRACE("storm " + std::to_string(i + 1));
        storm();
    }
}

}  // namespace
}  // namespace velmora::test
