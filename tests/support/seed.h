// The seed of a test's random choices.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <random>

namespace velmora::test {

// Printed, so that VELMORA_TEST_SEED can repeat what a run has found; without that variable another one each time.
inline unsigned seed() {
    const char* const wanted = std::getenv("VELMORA_TEST_SEED");
    const unsigned chosen =
        wanted != nullptr ? static_cast<unsigned>(std::strtoul(wanted, nullptr, 10)) : std::random_device()();
    std::printf("VELMORA_TEST_SEED=%u\n", chosen);
    return chosen;
}

}  // namespace velmora::test
