#include "random_steps.h"

#include <random>

// The same for ever: a sequence that fails does so again.
TEST(RandomSequences, KeepTheInvariants)
{
    for (unsigned seed = 1; seed <= 1000; ++seed) {
        std::mt19937 random(seed);
        Bytes bytes(200 + random() % 800);
        for (std::uint8_t &byte : bytes)
            byte = static_cast<std::uint8_t>(random() >> 8);
        fuzz::Input input(bytes.data(), bytes.size());
        std::string broken;
        {
            const fuzz::Quiet quiet;
            broken = run_random_steps(input);
        }
        ASSERT_EQ(broken, "") << "seed " << seed;
    }
}
