// Which group each port is on its way to, as the datastore's changes want it. All of it on the datastore's event
// thread. Results: 0, or a code that refuses the change.
#pragma once

#include "lacp.h"

#include <string_view>

// A group gets its type; ports that are already configured for it join.
int set_group_type(int group, std::string_view type);
// The table forgets the group; its trunk goes with it, and its ports stop LACP.
int remove_group(int group);
// A port's trunk settings name another group; 0 is none. It leaves a dynamic group that it was in, and joins one.
int change_channel_group(std::uint32_t port, std::uint32_t old_group, std::uint32_t group);
// The mode leaf of a port has changed, or has gone: a port that joins later is active without it.
int change_mode(std::uint32_t port, std::string_view mode);
void forget_mode(std::uint32_t port);
