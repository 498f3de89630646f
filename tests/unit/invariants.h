// What must hold of the engine and the channel-group table between any two steps.
#pragma once

#include <array>
#include <cstdint>
#include <string>

// What the test knows besides the engine.
struct Surroundings {
    bool drained = true; // no message waits: what only holds then is looked at too
    // The switch's trunks by group (index 0 unused), as the requests have made them; not looked at while a request
    // may have been lost.
    std::array<std::uint32_t, 5> trunks{};
    bool trunks_known = true;
};

// The first invariant that is broken, with the port or the group, or nothing.
std::string broken_invariant(const Surroundings &surroundings);
