// Provider of the ports' protocol state as operational data. Event thread.
#pragma once

#include "lacp.h"

#include "keldatabase/keldatabase.h"

#include <optional>
#include <string>

// The port record of a number; the slot is not looked at. Null when no port has the number.
const LacPort *get_lacp_port_t(std::uint32_t slot, std::uint32_t port);

// The text of a leaf of a port's actor (role "actor") or partner (any other role), or nothing for an unknown leaf.
std::optional<std::string> lacp_information_text(const LacPort *port, const char *role, const char *leaf);

// Operational handler with sysrepo's signature; always 0. Only requests for one leaf are answered.
int lacp_information_get_cb(sr_session_ctx_t *session, std::uint32_t subscription, const char *module,
                            const char *path, const char *request_xpath, std::uint32_t request, lyd_node **parent,
                            void *data);
