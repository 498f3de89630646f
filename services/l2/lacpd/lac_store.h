// What the engine asks of the datastore, beside the member lists. The caller waits for the answer.
#pragma once

#include "lacp.h"

// A port's link: 1 up, 0 down. The first argument is ignored. The layer's code when it cannot be read, LAC_NO_OBJECT
// without an out-parameter. Any thread.
int get_channel_group_port_link_status(int slot, std::uint32_t port, std::uint32_t *status);
// Whether the port's trunk settings name the group: the layer's code, or 0 with the answer. Dispatcher.
int lacConfiguredIn(std::uint32_t port_no, std::uint32_t group, bool &answer);
// Writes the system identifier. Start-up.
int set_lacp_system_id(const Mac &mac);
