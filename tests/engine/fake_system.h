// The utility library in memory: one interface address, and threads that only start when a test wants them to.
#pragma once

#include "sysutil/sysutil.h"

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace fake
{

struct System {
    std::array<std::uint8_t, 6> mac{};
    bool has_mac = true;
    int run_result = 0;                 // of system_pthread_run
    bool can_describe_threads = true;   // system_pthread_create gives a record
    std::vector<std::string> described; // thread names, in order of creation
    std::vector<std::string> started;
    std::function<void(const std::string &name)> on_run; // in place of starting the thread
};

// Starts a described thread after all, detached: the engine's threads never end.
void start_thread(const std::string &name);

System &system();
void reset_system();

} // namespace fake
