// Displays of the channel-group table and of the ports' membership. Main thread. They only read.
#pragma once

#include <cstdint>

struct vty;

// One group, or all of them for group 0; always 0.
int show_channel_groups_information(vty *vty, std::uint32_t group);
// Every port with LACP or a link; the group is not looked at. The result of the last vty_out.
int show_lacp_ports_infomation(vty *vty, std::uint32_t group);
