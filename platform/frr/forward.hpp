// The framework's records, for headers that only pass them on.
#pragma once

struct event_loop;
struct stream;
struct zebra_privs_t;

namespace frr
{

using EventLoop = event_loop;

} // namespace frr
