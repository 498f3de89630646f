// The daemon's client of the switch-driver service and its three requests.
//
// Requests are sent by the event thread, one at a time. Each returns 0 when the service's socket took it and -1 when
// it was not sent.
#pragma once

#include "frr/forward.hpp"

#include <cstdint>

struct sclient;

extern sclient *lacp_sclient; // null until lacp_sclient_init

int lacp_sclient_init(frr::EventLoop *master, std::uint16_t instance, zebra_privs_t *privileges);

// Sets the group's trunk to exactly these members, creating it if need be. Bit (p - 1) stands for port p.
int lacp_trunk_create(std::uint32_t group, std::uint32_t load_balance, std::uint32_t members, std::uint32_t count);
int lacp_trunk_destory(std::uint32_t group);
int lacp_trunk_psc_set(std::uint32_t group, std::uint32_t load_balance);

// While trunks are held, requests are accepted and not sent: the switch keeps what it has. Whoever releases them
// sends every group's trunk as the table then has it. Any thread.
void lacp_trunk_hold();
void lacp_trunk_release();
bool lacp_trunk_is_held();

// Sends a group's trunk, or that it has none, on a stream of the caller's own. Any thread.
int lacp_trunk_send(sclient *client, stream *out, std::uint32_t group, std::uint32_t load_balance,
                    std::uint32_t members);
// What is called on the event loop's thread when the service is connected again after a loss. Start-up.
void lacp_sclient_on_reconnect(void (*action)(sclient *client));
