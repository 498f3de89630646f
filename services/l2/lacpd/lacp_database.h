// Binding to the configuration datastore: connection, subscriptions, start-up clearing. Start-up; the session
// hooks on the main thread.
#pragma once

#include "lacp.h"

#include "keldatabase/keldatabase.h"

extern const DbModuleCbs lacp_cbs;
extern const DbModuleCbs ifm_lacp_cbs;

// Hooks that attach and detach a shell session's datastore handle.
int lacp_module_change_cb_init(KelDbSession *session, KelDb *db);
int lacp_module_change_cb_free(KelDbSession *session, KelDb *db);

// Opens the connection; a failure is printed and the daemon goes on without a datastore.
void lacp_database_init(KelDb *db);
// Subscribes to every change the daemon acts on. 0, or the library's code.
int lacp_database_subs(KelDb *db);
// Deletes what a previous run configured: groups, trunk leaves of the uplink ports, the system priority.
void lacp_database_clear(KelDb *db);
