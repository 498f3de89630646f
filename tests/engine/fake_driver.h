// The switch-driver service's message client in memory: every message that is sent, byte by byte.
#pragma once

#include "sclient/sclient.h"

#include <functional>
#include <mutex>
#include <vector>

namespace fake
{

using Message = std::vector<std::uint8_t>;

struct Driver {
    std::mutex lock; // of `sent`
    std::vector<Message> sent;
    bool unreachable = false;
    std::function<void()> after_send; // runs after each message that was taken
};

Driver &driver();
std::vector<Message> take_messages();

} // namespace fake
