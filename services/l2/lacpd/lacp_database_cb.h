// Handlers of configuration changes, with sysrepo's module-change signature.
//
// They run on the datastore library's event thread, never wait for the dispatcher, and return 0 to accept an event
// or the code of the operation that refused it.
#pragma once

#include "keldatabase/keldatabase.h"

int lacp_channel_group_cb(sr_session_ctx_t *session, std::uint32_t subscription, const char *module,
                          const char *xpath, sr_event_t event, std::uint32_t request, void *data);
int lacp_global_configuration_cb(sr_session_ctx_t *session, std::uint32_t subscription, const char *module,
                                 const char *xpath, sr_event_t event, std::uint32_t request, void *data);
int lacp_interface_trunk_cb(sr_session_ctx_t *session, std::uint32_t subscription, const char *module,
                            const char *xpath, sr_event_t event, std::uint32_t request, void *data);
int lacp_port_uplink_change_cb(sr_session_ctx_t *session, std::uint32_t subscription, const char *module,
                               const char *xpath, sr_event_t event, std::uint32_t request, void *data);

// The deletion step of lacp_channel_group_cb.
int lacp_channel_group_del_cb(const sr_val_t *old_value);
