#include "core/crypt/crypt.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <random>
#include <thread>
#include <vector>

#include "tests/support/capturedlog.h"

namespace {

// Blocks of this size and above are refused to the thread.
thread_local size_t refusedFrom = SIZE_MAX;

}  // namespace

void* operator new(size_t size) {
    void* const block = size < refusedFrom ? std::malloc(size) : nullptr;
    if (block == nullptr) throw std::bad_alloc();
    return block;
}

void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, size_t) noexcept { std::free(block); }

namespace velmora {
namespace {

// Made with another program: records must stay readable from release to release and from system to system.
TEST(Crypt, GivesTheBytesOfTheStoredFormat) {
    const Crypt crypt("cobalt");
    EXPECT_EQ(crypt.encrypt(""), "\x02\x0a\xee\xcd\x7c\x1d\x62\xe8\x14\xbd\x36\x7b\x55\x30\xc9\xdd");
    EXPECT_EQ(crypt.encrypt(R"({"event.type":"click"})"),
              "\x7b\xc4\x1e\x5c\xea\xef\x49\x38\x69\xbc\xf6\xc1\x87\xbe\xc7\x5d"
              "\x09\x8d\xbf\x11\xa9\x6e\xa8\x44\x27\x03\xfe\x36\xe1\xc7\xa7\x49");
}

TEST(Crypt, ReadsWhatAnotherInstanceWroteOnAnyThread) {
    const test::CapturedLog log;
    const Crypt writer("passphrase");
    const Crypt reader("passphrase");
    const auto work = [&](unsigned seed) {
        std::mt19937 random(seed);
        for (size_t length = 0; length < 300; ++length) {
            std::string plain(length, '\0');
            for (char& c : plain) c = static_cast<char>(random());
            const std::string cipher = writer.encrypt(plain);
            EXPECT_EQ(cipher.size(), (length / 16 + 1) * 16);
            EXPECT_EQ(reader.decrypt(cipher), plain);
        }
    };
    std::vector<std::thread> threads;
    for (unsigned seed = 0; seed < 4; ++seed) threads.emplace_back(work, seed);
    for (auto& thread : threads) thread.join();
    const std::string large(3'000'000, 'x');
    EXPECT_EQ(reader.decrypt(writer.encrypt(large)), large);
    EXPECT_TRUE(log.messages("crypt").empty());
}

TEST(Crypt, GivesNothingAndSaysSoWithoutTheMemoryForIt) {
    const Crypt crypt("cobalt");
    const std::string plain(2'000'000, 'x');
    const std::string cipher = crypt.encrypt(plain);
    const test::CapturedLog log;
    refusedFrom = 1'000'000;
    EXPECT_EQ(crypt.encrypt(plain), "");
    EXPECT_EQ(crypt.decrypt(cipher), "");
    refusedFrom = SIZE_MAX;
    EXPECT_EQ(log.messages("crypt"), std::vector<std::string>(2, "**** memory allocation failed"));
    EXPECT_EQ(crypt.decrypt(cipher), plain);
}

TEST(Crypt, GivesNothingAndSaysSoForWhatItCannotRead) {
    const Crypt crypt("cobalt");
    const std::string block = crypt.encrypt("fifteen bytes..");
    std::string torn = block;
    torn.back() = static_cast<char>(torn.back() ^ 1);
    const struct {
        const char* what;
        std::string cipher;
    } rows[] = {
        {"a byte too few", block.substr(0, 15)},
        {"wrong padding", torn},
        {"no padding", crypt.encrypt(std::string(16, 'x')).substr(0, 16)},
        {"another passphrase", Crypt("nickel").encrypt("fifteen bytes..")},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        const test::CapturedLog log;
        EXPECT_EQ(crypt.decrypt(row.cipher), "");
        ASSERT_EQ(log.lines().size(), 1U);
        EXPECT_EQ(log.lines()[0].level, LogLevel::error);
        EXPECT_EQ(log.lines()[0].channel, "crypt");
        EXPECT_EQ(log.lines()[0].function, "velmora::Crypt::decrypt");
        EXPECT_TRUE(log.contains("**** Error 0x"));
        EXPECT_TRUE(log.contains(" returned by BCryptDecrypt"));
        EXPECT_EQ(crypt.decrypt(block), "fifteen bytes..") << "a failure leaves nothing behind";
    }
}

}  // namespace
}  // namespace velmora
