#include "core/platform/guid.h"

#include <gtest/gtest.h>

#include <set>
#include <thread>
#include <vector>

namespace velmora::platform {
namespace {

TEST(Guid, IsOfVersion4AndUniqueAcrossThreads) {
    constexpr size_t kThreads = 4;
    constexpr size_t kEach = 1000;
    std::vector<std::vector<std::array<uint8_t, 16>>> made(kThreads);
    std::vector<std::thread> threads;
    for (auto& mine : made) {
        threads.emplace_back([&mine] {
            for (size_t i = 0; i < kEach; ++i) mine.push_back(newGuid());
        });
    }
    for (auto& thread : threads) thread.join();
    std::set<std::array<uint8_t, 16>> all;
    for (const auto& mine : made) {
        for (const auto& guid : mine) {
            EXPECT_EQ(guid[6] & 0xF0, 0x40);
            EXPECT_EQ(guid[8] & 0xC0, 0x80);
            all.insert(guid);
        }
    }
    EXPECT_EQ(all.size(), kThreads * kEach);
}

}  // namespace
}  // namespace velmora::platform
