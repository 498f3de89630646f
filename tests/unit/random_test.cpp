#include "random_steps.h"

#include <random>

namespace
{

std::vector<std::uint8_t> sequence(unsigned seed)
{
    std::mt19937 random(seed);
    std::vector<std::uint8_t> bytes(200 + random() % 800);
    for (std::uint8_t &byte : bytes)
        byte = static_cast<std::uint8_t>(random() >> 8);
    return bytes;
}

} // namespace

// The same for ever: a sequence that fails does so again.
TEST(RandomSequences, KeepTheInvariants)
{
    constexpr unsigned SEQUENCES = 1000;
    for (unsigned seed = 1; seed <= SEQUENCES; ++seed) {
        const auto bytes = sequence(seed);
        fuzz::Input input(bytes.data(), bytes.size());
        std::string broken;
        {
            const fuzz::Quiet quiet;
            broken = RandomSteps(input).run();
        }
        ASSERT_EQ(broken, "") << "seed " << seed;
    }
}
