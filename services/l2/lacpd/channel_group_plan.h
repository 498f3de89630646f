// Types, joins and leaves: what a handler does on a change, and what the datastore as it stands asks for beyond that.
// All of it on the datastore's event thread, which never waits for the dispatcher.
#pragma once

#include "lacp.h"

#include <string_view>

struct DbLacpConfiguration;

// ---- single changes; 0, or a code that refuses the change -------------------------------------------------------

int set_group_type(int group, std::string_view type);
// The table forgets the group; its trunk goes with it, and its ports stop LACP.
int remove_group(int group);
// A port's trunk settings name another group; 0 is none. It leaves a dynamic group that it was in, and joins one.
int change_channel_group(std::uint32_t port, std::uint32_t old_group, std::uint32_t group);
// A member-port entry came or went; says so.
int add_member(int group, int slot, std::uint32_t port);
int remove_member(int group, int slot, std::uint32_t port);
// Octets that the text lacks stay.
int change_system_id(const char *text);

// ---- the whole --------------------------------------------------------------------------------------------------

// Each compares what is configured with the table or with what the dispatcher was told, and does what the difference
// takes. False while something of it found no room in the queue: to be called again.
bool settle_groups(const DbLacpConfiguration &configured);
bool settle_links(const DbLacpConfiguration &configured); // uplink lists, after the groups
bool settle_ports(const DbLacpConfiguration &configured); // after the groups, whose types decide
bool settle_system(const DbLacpConfiguration &configured);
