// The utility library in memory: one interface address, and threads that only start when a test wants them to.
#pragma once

#include "sysutil/sysutil.h"

#include <array>
#include <functional>
#include <string>
#include <vector>

namespace fake
{

struct System {
    std::array<std::uint8_t, 6> mac{};
    int run_result = 0;                          // of system_pthread_run
    std::vector<std::string> described, started; // thread names
    std::function<void(const std::string &name)> on_run;
};

System &system();
void start_thread(const std::string &name); // after all, detached: the engine's threads never end

} // namespace fake
