#include "service/ingest/ingestrequest.h"

#include <gtest/gtest.h>

#include <random>

#include "tests/support/fakehost.h"

namespace velmora::service::ingest {
namespace {

TEST(BatchBody, JoinsEventsAsTheyAre) {
    EXPECT_EQ(makeBatchBody({}), "{\"events\":[\n]}");
    EXPECT_EQ(makeBatchBody({"{\"a\":1}"}), "{\"events\":[\n{\"a\":1}\n]}");
    EXPECT_EQ(makeBatchBody({"a", "", "a"}), "{\"events\":[\na,\n,\na\n]}");
}

// Random bytes outgrow the first chunk of output, equal ones leave most of it.
TEST(CompressGzip, GivesBackEveryByte) {
    std::mt19937 random(17);
    for (const size_t size : {0u, 1u, 2048u, 300000u, 5000000u}) {
        std::string noise(size, '\0');
        for (char& c : noise) c = static_cast<char>(random());
        for (const std::string& text : {noise, std::string(size, 'x')}) {
            const std::string data = compressGzip(text.data(), text.size(), -1);
            EXPECT_EQ(data.substr(0, 2), "\x1F\x8B");
            EXPECT_TRUE(test::gunzip(data) == text) << size;
        }
    }
}

TEST(CompressGzip, RefusesWhatItCannotDo) {
    EXPECT_THROW((void)compressGzip(nullptr, 2000000001, -1), std::runtime_error);
    EXPECT_THROW((void)compressGzip("a", 1, 99), std::runtime_error);
}

TEST(IngestRequest, GoesToTheHostOfItsEnvironment) {
    const http::Request stage = makeIngestRequest(Environment::stage, "key", "body", true);
    EXPECT_EQ(stage.headers.at("content-type"), "application/json");
    EXPECT_EQ(stage.url.find("https://"), 0u);
    const http::Request prod = makeIngestRequest(Environment::prod, "key", "body", false);
    EXPECT_NE(prod.url, stage.url);
    EXPECT_FALSE(prod.headers.contains("Content-Encoding"));
}

}  // namespace
}  // namespace velmora::service::ingest
