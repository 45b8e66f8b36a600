#include <gtest/gtest.h>

#include <algorithm>
#include <boost/filesystem/operations.hpp>
#include <condition_variable>
#include <map>
#include <mutex>
#include <regex>

#include "core/filesystem/filesystem.h"
#include "core/logging/defaultlogger.h"
#include "core/logging/formattedlogger.h"
#include "core/types/logger.h"
#include "core/utils/timestamps.h"
#include "tests/support/files.h"
#include "tests/support/manualpools.h"
#include "tests/support/tempfolder.h"

namespace velmora {
namespace {

std::vector<std::string> hostLines;

void keepLine(int32_t level, const char* channel, const char* line) {
    hostLines.push_back(std::to_string(level) + "|" + channel + "|" + line);
}

TEST(FormattedLogger, WritesLinesThatHostsMayParse) {
    setLogger(std::make_unique<ExternalLogger>(LogLevel::info, &keepLine));
    VELMORA_LOGF_AT(warn, "fs", "velmora::f", "%s=%d", std::string(5000, 'x').c_str(), 7);
    VELMORA_LOG(debug, "fs") << "below the level";
    setLogger(nullptr);
    ASSERT_EQ(hostLines.size(), 3U);
    const std::string head = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z: t=[1-9a-f][0-9a-f]*: )";
    EXPECT_TRUE(std::regex_match(
        hostLines[0],
        std::regex(R"(4\|log\|)" + head + R"(info: log: start logger \(velmora::setLogger\.logger\.\d+\))")))
        << hostLines[0];
    EXPECT_NE(hostLines[1].find(": warn: fs: " + std::string(5000, 'x') + "=7 (velmora::f.loggertest."),
              std::string::npos);
    setLogger(std::make_unique<ExternalLogger>(LogLevel::info, nullptr));
    EXPECT_EQ(hostLines.size(), 3U) << "no callback, no lines";
}

// A log folder of its own, and what the logger told of removed files.
class DefaultLoggerTest : public testing::Test {
protected:
    using Removed = std::pair<uint64_t, uint64_t>;  // how many files, and the size of the folder

    DefaultLoggerTest() {
        Filesystem::setRootPath(Path(temp_.path()));
        folder_ = Filesystem::getLogFolder(true);
        logger_ = std::make_unique<DefaultLogger>(
            LogLevel::info, [this](const std::string& reason, uint64_t count, uint64_t folderSize) {
                const std::lock_guard<std::mutex> lock(mutex_);
                removed_[reason] = {count, folderSize};
            });
    }

    void write(const std::string& line) { logger_->write(LogLevel::info, "channel", line); }

    void addFile(const std::string& name, size_t size, int64_t age, int64_t now = currentSeconds()) {
        test::writeFile((folder_ / name).native(), std::string(size, 'x'));
        boost::filesystem::last_write_time((folder_ / name).native(), now - age);
    }

    // Runs the housekeeping under these limits to its end.
    void keepHouse(uint64_t folderSize, uint64_t retentionMillis) {
        LogConfig config;
        config.logFolderSize = folderSize;
        config.logFileRetentionPeriod = retentionMillis;
        logger_->setConfig(config);
        logger_->start();
        waitForHousekeeping();
    }

    // A last file that is always too old shows that a round is through: it is its own round's first victim, so a second
    // round that finds it gone has come after.
    void waitForHousekeeping() {
        const Path marker = folder_ / "zz-marker";
        for (int round = 0; round < 2; ++round) {
            addFile("zz-marker", 0, 1'000'000'000);
            logger_->start();
            while (marker.exists()) std::this_thread::yield();
        }
    }

    std::vector<std::string> names() {
        std::vector<std::string> all;
        Filesystem::listDirectory(folder_, [&](const std::string& name) {
            all.push_back(name);
            return true;
        });
        std::sort(all.begin(), all.end());
        return all;
    }

    std::string contents(const std::string& name) { return test::readFile((folder_ / name).native()); }

    const test::TempFolder temp_;
    Path folder_;
    std::mutex mutex_;
    std::map<std::string, Removed> removed_;
    std::unique_ptr<DefaultLogger> logger_;
};

TEST_F(DefaultLoggerTest, WritesBeforeItIsStarted) {
    EXPECT_TRUE(names().empty()) << "the first line makes the first file";
    write("one");
    write("two");
    ASSERT_EQ(names().size(), 1U);
    EXPECT_TRUE(std::regex_match(names()[0], std::regex(R"(velmora-\d{4}-\d\d-\d\d_\d\d-\d\d-\d\dZ\.log)")));
    EXPECT_EQ(contents(names()[0]), "one\ntwo\n");
}

TEST_F(DefaultLoggerTest, ContinuesInAFreshFileWhenOneIsFull) {
    RotatingLogFile file(folder_, "velmora", 7);
    for (const char* const line : {"aaa", "bbb", "ccc", "ddd", "eee"}) {
        file.rotateIfNeeded();
        file.write(line);
    }
    std::string all;
    for (const std::string& name : names()) {
        EXPECT_TRUE(std::regex_match(name, std::regex(R"(velmora-.{19}Z(_00000[23])?\.log)"))) << name;
        all += contents(name) + "|";
    }
    // A file is left once it is longer than its limit. The suffix sorts behind the plain name.
    EXPECT_EQ(all, "aaa\nbbb\n|ccc\nddd\n|eee\n|");
}

TEST_F(DefaultLoggerTest, TriesAnewAfterAFailure) {
    Filesystem::removeAll(folder_);
    RotatingLogFile file(folder_, "velmora", 100);
    EXPECT_FALSE(file.rotateIfNeeded());
    file.write("lost");
    Filesystem::createDirectories(folder_);
    EXPECT_TRUE(file.rotateIfNeeded());
    file.write("kept");
    EXPECT_FALSE(file.rotateIfNeeded());
    EXPECT_EQ(contents(names().at(0)), "kept\n");
}

TEST_F(DefaultLoggerTest, RemovesTheOldestWhileTheFolderIsTooLargeThoseOfOneAgeByName) {
    const int64_t now = currentSeconds();
    addFile("old", 100, 30, now);
    for (const char* const name : {"c", "a", "b"}) addFile(name, 100, 10, now);
    keepHouse(200, 1'000'000'000);
    EXPECT_EQ(names(), (std::vector<std::string>{"b", "c"}));
    const std::lock_guard<std::mutex> lock(mutex_);
    EXPECT_EQ(removed_["Overflow"], (Removed{2, 400}));
}

TEST_F(DefaultLoggerTest, RemovesWhatIsTooOldHoweverSmallTheFolder) {
    addFile("young", 10, 5);
    addFile("old", 10, 2000);
    addFile("older", 10, 3000);
    Filesystem::createDirectories(folder_ / "folder");
    keepHouse(1'000'000, 1'000'000);
    EXPECT_EQ(names(), (std::vector<std::string>{"folder", "young"}));
    const std::lock_guard<std::mutex> lock(mutex_);
    EXPECT_EQ(removed_.count("Overflow"), 0U);
    EXPECT_GE(removed_["Expire"].first, 1U);
}

TEST_F(DefaultLoggerTest, KeepsWhatIsExactlyAtALimit) {
    int64_t now = 0;
    do {  // again if the clock has moved on meanwhile
        now = currentSeconds();
        addFile("at the age", 100, 1000, now);
        addFile("beyond the age", 100, 1001, now);
        addFile("young", 100, 5, now);
        keepHouse(200, 1'000'999);
    } while (currentSeconds() != now);
    EXPECT_EQ(names(), (std::vector<std::string>{"at the age", "young"}));
}

TEST_F(DefaultLoggerTest, KeepsHouseWhenItBeginsAFile) {
    keepHouse(1'000'000, 1'000'000);
    addFile("old", 10, 2000);
    write("the first line begins a file");
    while ((folder_ / "old").exists()) std::this_thread::yield();
}

TEST_F(DefaultLoggerTest, LeavesAFileThatIsGone) {
    keepHouse(0, 1'000'000'000);
    write("too large for the folder");
    waitForHousekeeping();  // deletes it, where a file in use can be deleted
    logger_->stop();
    write("kept");
    ASSERT_EQ(names().size(), 1U);
    EXPECT_TRUE(contents(names()[0]).ends_with("kept\n"));
}

TEST_F(DefaultLoggerTest, KeepsHouseOnceForManyFiles) {
    logger_.reset();
    test::ManualPools pools;
    DefaultLogger logger(LogLevel::info, nullptr);
    LogConfig config;
    config.logFileRotationSize = 0;
    logger.start();
    logger.setConfig(config);
    pools.runAll();
    for (int round = 0; round < 2; ++round) {
        for (int line = 0; line < 5; ++line) logger.write(LogLevel::info, "channel", "a file of its own");
        EXPECT_EQ(pools.runAll(), 1U);
    }
    EXPECT_EQ(names().size(), 10U);
}

TEST_F(DefaultLoggerTest, DoesNotKeepHouseOnceStopped) {
    keepHouse(1'000'000, 1'000'000);
    logger_->stop();
    addFile("old", 10, 2000);
    write("a line that rotates");
    logger_.reset();
    EXPECT_EQ(names().size(), 2U);
}

TEST(DefaultLoggerAtSetUp, GivesWayToTheHostsCallback) {
    const test::TempFolder temp;
    Filesystem::setRootPath(Path(temp.path()));
    setLogger(std::make_unique<ExternalLogger>(LogLevel::info, &keepLine));
    Logger* const hosts = logger();
    setDefaultLogger(std::make_unique<DefaultLogger>(LogLevel::trace, nullptr));
    EXPECT_EQ(logger(), hosts);
    setLogger(nullptr);
    setDefaultLogger(std::make_unique<DefaultLogger>(LogLevel::trace, nullptr));
    logger()->start();
    VELMORA_LOG(info, "log") << "a line of the running logger, whose own file work logs as well";
    setLogger(nullptr);
}

}  // namespace
}  // namespace velmora
