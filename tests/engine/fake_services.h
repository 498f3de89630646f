// What stands around the engine, in memory: the switch-driver service's message client, with every message that is
// sent byte by byte, and the utility library, with one interface address and threads that only start when a test
// wants them to.
#pragma once

#include "sclient/sclient.h"
#include "sysutil/sysutil.h"

#include <mutex>
#include <string>
#include <vector>

namespace fake
{

using Message = std::vector<std::uint8_t>;

struct Driver {
    std::mutex lock; // of `sent`
    std::vector<Message> sent;
    bool unreachable = false;
};

Driver &driver();
std::vector<Message> take_messages();
void start_thread(const std::string &name); // after all, detached: the engine's threads never end

} // namespace fake
