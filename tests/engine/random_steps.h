// An engine takes one step after another, each decoded from the bytes of an input: frames, ticks, links,
// configuration as a client of the datastore may change it, and failures of what is around it. Its partners are model
// ones: they may re-key, renumber, split, merge and fall silent, and in the end they all speak the truth.
#pragma once

#include "engine.h"
#include "input.h"

// All steps of the input and what must follow them: the first invariant that is broken, or nothing.
std::string run_random_steps(fuzz::Input &input);
