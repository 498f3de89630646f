// The table of channel groups. It knows nothing of LACP.
//
// Written by the datastore's event thread (selection writes agg_no and master_port); read by everybody.
// Group numbers run from 1 to CHANNEL_GROUP_MAX_NUM. Results: 0, LAC_BAD_ARGUMENT for a bad group number, a null
// out-parameter, a full list, a double addition or the removal of a port that is not in the list.
#pragma once

#include "lacp.h"

constexpr std::uint32_t CHANNEL_GROUP_MAX_PORTS = 4;
constexpr std::size_t LOAD_BALANCE_NAME_SIZE = 20;

enum ChannelGroupType : std::uint32_t {
    CHANNEL_GROUP_UNSET = 0,
    CHANNEL_GROUP_MANUAL = 3,
    CHANNEL_GROUP_DYNAMIC = 5,
};

// Port-selection criteria as the switch driver numbers them.
enum LoadBalance : std::uint32_t {
    LOAD_BALANCE_SRC_IP = 0,
    LOAD_BALANCE_DST_IP = 1,
    LOAD_BALANCE_SRC_MAC = 9,
    LOAD_BALANCE_DST_MAC = 10,
    LOAD_BALANCE_SRC_DST_IP = 18,
    LOAD_BALANCE_SRC_DST_MAC = 19,
};

enum ListOperation : int { LIST_REMOVE = 0, LIST_ADD = 1 };

struct ChannelGroup {
    Published<std::uint32_t> id;
    Published<std::uint32_t> type;
    Published<std::uint32_t> used;
    Published<std::uint32_t> load_balance;
    Published<std::uint32_t> agg_no;      // port_no of the group's aggregator
    Published<std::uint32_t> master_port; // the same
    Published<std::uint32_t> port_count;  // bits set in port_list
    Published<std::uint32_t> port_list;   // members, bit (port - 1)
    Published<std::uint32_t> uplink_port_count;
    Published<std::uint32_t> uplink_port_list; // members that are up and in the trunk
};
static_assert(sizeof(ChannelGroup) == 40);

extern int CHANNEL_GROUP_MAX_NUM;

// Start-up.
void channel_group_table_init();

int set_channel_group_type(int group, std::uint32_t type); // LAC_REFUSED when the group has one
int get_channel_group_type(int group, std::uint32_t *type);
int set_channel_group_used(int group, std::uint32_t used);
int get_channel_group_used(int group, std::uint32_t *used);
// Also re-hashes the group's trunk when it has one; a driver failure is printed, not returned.
int set_channel_group_load_balance(int group, std::uint32_t code);
int set_channel_group_load_balance_str(int group, const char *name);
int get_channel_group_load_balance(int group, std::uint32_t *code);
int get_channel_group_load_balance_str(int group, char *name, std::uint32_t size);
int set_channel_group_port_list(int group, int slot, std::uint32_t port, int operation);
int get_channel_group_port_list(int group, std::uint32_t *list);
int get_channel_group_port_count(int group, std::uint32_t *count);
int check_channel_group_port_count(int group); // 0 while another member fits
int set_channel_group_uplink_port_list(int group, int slot, std::uint32_t port, int operation);
int get_channel_group_uplink_port_list(int group, std::uint32_t *list);
int get_channel_group_uplink_port_count(int group, std::uint32_t *count);
int set_channel_group_agg_no(int group, std::uint32_t number);
int get_channel_group_agg_no(int group, std::uint32_t *number);
int set_channel_group_master_port(int group, std::uint32_t port);
// Back to the unconfigured state; the switch is not touched.
int reset_channel_group(int group);
