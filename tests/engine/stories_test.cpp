// Up to eight links to partners that answer, and all that can happen to them, by chance.
#include "story.h"

#include <random>

// The same for ever: a sequence that fails does so again.
TEST(Stories, KeepTheInvariants)
{
    for (unsigned seed = 1; seed <= 1000; ++seed) {
        std::mt19937 random(seed);
        Bytes bytes(200 + random() % 800);
        for (std::uint8_t &byte : bytes)
            byte = static_cast<std::uint8_t>(random() >> 8);
        fuzz::Input input(bytes.data(), bytes.size());
        std::string broken;
        printed([&] { broken = Story(1 + input.below(LAC_MAX_PORTS)).draw(input); });
        ASSERT_EQ(broken, "") << "seed " << seed;
    }
}
