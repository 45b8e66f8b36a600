#include "core/sysinfo/sysinfo.h"

#include <gtest/gtest.h>

#include <fstream>
#include <regex>

#include "tests/support/capturedlog.h"

namespace velmora::sysinfo {
namespace {

bool matches(const std::string& text, const char* form) { return std::regex_match(text, std::regex(form)); }

TEST(SysInfo, AlwaysTellsWhatIsAlwaysThere) {
    const test::CapturedLog log;
    std::string text;
    uint64_t number = 0;
    EXPECT_TRUE(getOSVersion(text) && matches(text, R"(\d+\.\d+\.\d+)")) << text;
    EXPECT_TRUE(log.has(LogLevel::trace, "sysinfo", "os version=" + text.substr(0, text.rfind('.') + 1)));
    EXPECT_TRUE(getPlatform(text) && matches(text, "(Linux|Win)-(x86|ARM|x64|ARM64|unknown):64")) << text;
    EXPECT_TRUE(getNumCores(number) && number > 0);
    EXPECT_TRUE(getDisplayResolution(text) && matches(text, R"(\d+x\d+)")) << text;
    EXPECT_TRUE(
        getPenTouchSupport(text) &&
        matches(text, R"((no pen support|supports pen); (no touch support|supports touch with \d+ touch points))"))
        << text;
    EXPECT_TRUE(getDiskSize(number) && number > 1'000'000);
    EXPECT_TRUE(getRAMSize(number) && number > 1'000'000);
    EXPECT_FALSE(getConnectionType(text));
}

TEST(SysInfo, LeavesOutWhatTheMachineDoesNotTell) {
    const struct {
        bool (*get)(std::string&);
        const char* form;
    } rows[] = {
        {getProcessorName, ".+"},
        {getDeviceGuid, R"([^{}\s]+)"},
        {getLocale, "[A-Za-z]+(-[A-Za-z0-9]+)*"},
        {getPrimaryMACAddress, R"(([0-9A-F]{2}-)+[0-9A-F]{2}\x00)"},
        {getDeviceName, R"([^_\s]*_[^\s]*_[^\s]*)"},
    };
    std::string text;
    for (const auto& row : rows) EXPECT_TRUE(!row.get(text) || matches(text, row.form)) << text;
    EXPECT_TRUE(getDeviceName(text));
    EXPECT_TRUE(getUserAgent(text) || text == "unknown");
    uint64_t hertz = 0;
    EXPECT_TRUE(!getProcessorSpeed(hertz) || hertz >= 1'000'000U);
}

TEST(SysInfo, NeverTellsTheConfidentialMachineId) {
    std::string confidential;
    std::ifstream("/etc/machine-id") >> confidential;
    std::string text;
    if (confidential.empty() || !getDeviceGuid(text)) return;
    std::string again;
    EXPECT_TRUE(getDeviceGuid(again));
    EXPECT_EQ(text, again);
    std::erase(text, '-');
    EXPECT_EQ(text.size(), 32U);
    EXPECT_NE(text, confidential);
}

}  // namespace
}  // namespace velmora::sysinfo
