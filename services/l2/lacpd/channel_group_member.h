// Group membership, link events and the per-port LACP attributes: the bridge between configuration, the
// channel-group table, the switch trunk and the protocol.
//
// Runs on the datastore's event thread. Attributes of protocol records are checked here and applied by the
// dispatcher, in the order of the calls.
#pragma once

#include "lacp.h"

struct sclient;

// ---- protocol start -------------------------------------------------------------------------------------------

// Builds the table and starts the protocol side; the result of dynamic_channel_init. Start-up.
int channel_group_daemon_init();
// Prepares control record, records, queue and threads; always 1. Start-up.
int dynamic_channel_init();
// Switches LACP on at the first call (takes a second); later calls do nothing.
void start_lacp_once_cfg();
// The same at a start that resumes, which has no second to give. Start-up.
void resume_lacp_once_cfg();

// ---- membership and links -------------------------------------------------------------------------------------

int set_manual_channel_group_type(int group);
int set_dynamic_channel_group_type(int group);
int set_channel_group_add_port(int group, int slot, std::uint32_t port);
int set_channel_group_del_port(int group, int slot, std::uint32_t port);
// Updates the uplink list and makes the switch trunk follow it. `del` 1: the port leaves the group.
int deal_channel_group_updown_port(int group, int slot, std::uint32_t port, int up, int del);
int deal_manual_channel_updown_port(int group, int slot, std::uint32_t port, int up);
// Hands the event to the protocol; LAC_NO_OBJECT for a port without a record. The first two are ignored.
int deal_dynamic_channel_updown_port(int group, int slot, std::uint32_t port, std::uint32_t up);
// Selection again in the group that a port has just left: queued, 0 or -1.
int update_lacp_select_port(int port, std::uint32_t group);

// ---- port and system attributes -------------------------------------------------------------------------------

// What the dispatcher was last told of a port: it will have it when it has read its queue. Event thread.
struct PortTold {
    std::uint32_t group = 0;  // the dynamic group that it was sent to; 0: LACP off
    std::uint32_t number = 0; // its group number
    std::uint16_t priority = LAC_DEFAULT_PRIORITY;
    bool passive = false;
    bool short_timeout = false;
};
const PortTold &lacp_told(std::uint32_t port);
std::uint16_t lacp_told_system_priority();
Mac lacp_told_system_mac();

LacPort *set_lacp_channel_group_id(std::uint32_t port, std::uint32_t group); // null: no such port, or not queued
int get_lacp_port_individual(std::uint32_t port);                            // -1: no such port
int get_lacp_port_state(std::uint32_t port);
LacPort *set_lacp_port_oper_key(std::uint32_t port, std::uint16_t key);
int set_lacp_port_priority(int slot, std::uint32_t port, std::uint16_t priority);
int set_lacp_port_mode(int slot, std::uint32_t port, std::uint8_t mode);        // bit 0: 1 active, 0 passive
int set_lacp_port_timeout(int slot, std::uint32_t port, std::uint32_t timeout); // 1 short, else long
int set_lacp_port_state(std::uint32_t port, std::uint32_t state);               // 1 on, else off
int set_lacp_port_enable(int port);
int set_lacp_system_priority(std::uint16_t priority);
// Replaces the address that LACPDUs carry as Actor_System.
int set_lacp_system_mac(const Mac &mac);

// ---- the driver service comes back ----------------------------------------------------------------------------

// Sends every group's trunk as the table has it now, unless trunks are held. Any thread.
void lacp_trunk_resync(sclient *client);
