#include "service/ingest/ingestrequest.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <random>

namespace velmora::service::ingest {
namespace {

std::string gunzip(const std::string& data) {
    z_stream stream{};
    EXPECT_EQ(inflateInit2(&stream, 31), Z_OK);
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
    stream.avail_in = static_cast<uInt>(data.size());
    std::string text(8u << 20, '\0');
    stream.next_out = reinterpret_cast<Bytef*>(text.data());
    stream.avail_out = static_cast<uInt>(text.size());
    EXPECT_EQ(inflate(&stream, Z_FINISH), Z_STREAM_END);
    EXPECT_EQ(stream.avail_in, 0u);
    text.resize(stream.total_out);
    inflateEnd(&stream);
    return text;
}

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
            EXPECT_TRUE(gunzip(data) == text) << size;
        }
    }
}

TEST(CompressGzip, RefusesWhatItCannotDo) {
    EXPECT_THROW((void)compressGzip(nullptr, 2000000001, -1), std::runtime_error);
    EXPECT_THROW((void)compressGzip("a", 1, 99), std::runtime_error);
}

TEST(IngestRequest, GoesToTheHostOfItsEnvironment) {
    const http::Request stage = makeIngestRequest(Environment::stage, "key", "body", true);
    EXPECT_EQ(stage.verb, http::Verb::POST);
    EXPECT_EQ(stage.body, "body");
    EXPECT_EQ(
        stage.headers,
        (http::Headers{{"content-encoding", "gzip"}, {"content-type", "application/json"}, {"x-api-key", "key"}}));
    EXPECT_EQ(stage.url.find("https://"), 0u);
    EXPECT_EQ(stage.url.substr(stage.url.size() - 7), "/ingest");
    const http::Request prod = makeIngestRequest(Environment::prod, "key", "body", false);
    EXPECT_NE(prod.url, stage.url);
    EXPECT_FALSE(prod.headers.contains("Content-Encoding"));
    EXPECT_EQ(makeIngestRequest(static_cast<Environment>(5), "", "", true).url, prod.url);
}

}  // namespace
}  // namespace velmora::service::ingest
