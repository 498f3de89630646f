// Client library of the configuration database, on sysrepo.
//
// Every function returns 0 for success and a non-zero code otherwise, unless it says something else. Interface
// names are "gigabitethernet SLOT/PORT"; only slot 0 has ports. Each accessor is one transaction. The cause of a
// refused write is one line on standard error.
//
// Getters: *size is the size of the caller's buffer or number; afterwards it is the size used (of a text, with its
// NUL), so it has to be set again before the next call. A value that does not fit is a failure. Setters store the
// whole value whatever size and count say.
//
// Threads: a handle may be used by any number of threads; each gets a sysrepo session of its own behind it.
#pragma once

#include <sysrepo.h>

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

struct DevPortInfo;

// What a refused write of member-port may have been refused for. Any other non-zero result is final: the same write
// will be refused again.
enum KelDbRefusal : int {
    KEL_DB_NOT_THERE = -2, // the entry to delete is not there
    KEL_DB_BUSY = -3,      // locked, full or too slow; the write may have come through all the same
};

// A datastore handle: the daemon's connection record, or a shell session's share in it. Plain and zero at start;
// nothing is released when the process ends.
struct KelDb {
    struct Connection;
    Connection *connection;
};

// What a session hook attaches to and detaches from: the shell session's datastore handle.
struct KelDbSession {
    KelDb *db;
};

constexpr std::uint32_t KEL_DB_DEBUG_SYSREPO = 0x1;     // sysrepo's errors and warnings, on standard error
constexpr std::uint32_t KEL_DB_DEBUG_SYSREPO_ALL = 0x2; // the rest of what sysrepo says
constexpr std::uint32_t KEL_DB_DEBUG_DAEMON = 0x4;      // "[DATABASE INFO]" lines of the daemons
// The debug mask at start, as a number (0x4, 4); 0 when unset.
constexpr char KEL_DB_DEBUG_ENV[] = "KEL_DB_DEBUG";
// Seconds that database_dev_get_port_info waits for the first interface entry, or "infinity"; 10 when unset.
constexpr char KEL_DB_INVENTORY_WAIT_ENV[] = "KEL_DB_INVENTORY_WAIT";

// ---- connection, session hooks, debug -------------------------------------------------------------------------

using kel_db_session_hook = int (*)(KelDbSession *session, KelDb *db);

int database_init(KelDb *db);
void database_close(KelDb *db);

void kel_db_cb_init_func(kel_db_session_hook hook, KelDb *db);
void kel_db_cb_free_func(kel_db_session_hook hook, KelDb *db);
// Runs the registered hook for a shell session; -1 when none is registered.
int kel_db_session_open(KelDbSession *session);
int kel_db_session_close(KelDbSession *session);
// Gives the session a handle of its own on the connection of db; takes it back.
int db_connect_init_with_vty(KelDbSession *session, KelDb *db);
int db_disconnect_free_with_vty(KelDbSession *session, KelDb *db);

// What the calling thread does, for some milliseconds, while it waits: a write that finds the datastore locked calls
// it between its attempts, and false gives the write up; the inventory heeds no result. Without one a write tries for
// 15 s.
using kel_db_pause = bool (*)();
void kel_db_set_pause(kel_db_pause pause);

using kel_db_debug_flag = std::uint32_t *;
using kel_db_sysrepo_debug = void (*)(sr_log_level_t level, const char *message);
kel_db_debug_flag db_debug_flag_return();
void db_debug_flag_reg(kel_db_debug_flag flag);
kel_db_sysrepo_debug sysrepo_debug_func_return();
void sysrepo_debug_fun_reg(kel_db_sysrepo_debug function);
std::uint32_t db_debug_get();

// ---- subscriptions and changes --------------------------------------------------------------------------------

struct DbXpathCb {
    const char *xpath;
    sr_module_change_cb change;
    void *reserved[5];
    sr_oper_get_items_cb oper_get;
    void *reserved_last;
};

struct DbModuleCbs {
    const char *module;
    const DbXpathCb *xpaths; // ended by an all-zero entry
};

// Called on the event thread, outside of every event, when transactions have ended that handlers were told of, be it
// that they were committed, given up by somebody else or refused by a handler itself; once also at the start. What
// the datastore then has is to be brought about. `idle` are the handlers whose last transaction has ended: what the
// others have acted on is under way and cannot be read yet. False: something is owed, and the hook is called again
// soon.
using kel_db_settle = bool (*)(std::span<const sr_module_change_cb> idle);
void db_settle_reg(kel_db_settle hook);

// Subscribes every entry of every table of a null-ended list, in order. All events of all entries arrive on one
// thread of the library, one at a time.
int db_module_subscription_init(KelDb *db, const DbModuleCbs *const *tables);

// Makes this process the one that serves the module's configuration, until it ends. False, with a sentence on
// standard error, when another one does: then nothing is written or subscribed to through the handle. An unconnected
// handle has nobody else to heed.
bool db_module_claim(KelDb *db, const char *module);

// The next change of an event. The first call (null iterator) opens the iterator. The values of the previous call
// are released; those of the last one, and the iterator, are the caller's (sr_free_val, sr_free_change_iter).
// Non-zero when no change is left; the two values are then null.
int kel_db_get_change_next(sr_session_ctx_t *session, const char *xpath, sr_change_iter_t **iterator,
                           sr_change_oper_t *operation, sr_val_t **old_value, sr_val_t **new_value);

// In a handler of olt-lacp: a group whose member list is going to be longer than the limit; 0 when there is none.
int kel_db_group_beyond(sr_session_ctx_t *session, std::uint32_t limit);

// ---- olt-lacp: the whole configuration ------------------------------------------------------------------------

constexpr std::size_t KEL_DB_GROUPS = 4;
constexpr std::size_t KEL_DB_PORTS = 8;

// Texts are empty for leaves that are not there.
struct DbLacpGroup {
    std::string type, load_balance;
    std::uint32_t members = 0, joined = 0; // member-port and join-port, bit (port - 1)
};

struct DbLacpPort {
    bool link_up = false;
    std::string mode, timeout;
    std::uint16_t priority = 32768;
    std::uint8_t group = 0;
};

struct DbLacpConfiguration {
    std::array<DbLacpGroup, KEL_DB_GROUPS> groups; // entry id - 1
    std::array<DbLacpPort, KEL_DB_PORTS> ports;    // entry port - 1
    std::optional<std::uint16_t> system_priority;
    std::string system_id;
};

// All of it as of one moment. Non-zero when a writer keeps the datastore busy: this read does not wait for it.
int db_olt_lacp_get_configuration(KelDb *db, DbLacpConfiguration *configuration);

// ---- olt-lacp: channel groups ---------------------------------------------------------------------------------

int db_olt_lacp_get_group_lacp_type(int group, KelDb *db, char *text, std::uint32_t *size);
int db_olt_lacp_get_group_load_balance(int group, KelDb *db, char *text, std::uint32_t *size);
// The array and its texts are the caller's, to be given to db_free_string_array_val. 0 entries is a success.
int db_olt_lacp_get_group_member_port(int group, KelDb *db, char ***texts, std::uint32_t *count);
int db_olt_lacp_get_group_join_port(int group, KelDb *db, char ***texts, std::uint32_t *count);
void db_free_string_array_val(char **texts, std::uint32_t count);

int db_olt_lacp_set_group_load_balance(int group, KelDb *db, const char *text, std::uint32_t size,
                                       std::uint32_t count);
// Both answer KelDbRefusal codes, and do so within 0.3 s.
int db_olt_lacp_set_group_member_port(int group, KelDb *db, const char *name, std::uint32_t size,
                                      std::uint32_t count);
int db_olt_lacp_del_group_member_port(int group, int slot, std::uint32_t port, KelDb *db);
// An entry that is not there is none.
int db_olt_lacp_del_group_id(int group, KelDb *db);

// Puts a port into a group ("on", "active", "passive"). Refused when the group has the other type or the port has
// no interface entry; a refusal leaves the datastore as it was. A port of another group leaves that one first.
int db_add_channel_group(KelDb *db, int slot, std::uint32_t port, int group, const char *mode);
// Takes a port out of its group. When it was the last one, the group's entry goes too; the operator's load-balance
// choice stays. Refused when the port is not in the group.
int db_del_channel_group(KelDb *db, int slot, std::uint32_t port, int group);

// The list of groups as XML text, to be released with the C library's free. Non-zero when there is none.
int db_olt_lacp_show_xml_group_id(KelDb *db, char **text);

// ---- olt-lacp: global configuration ---------------------------------------------------------------------------

int db_olt_lacp_get_global_configuration_system_priority(KelDb *db, std::uint16_t *value, std::uint32_t *size);
int db_olt_lacp_set_global_configuration_system_priority(KelDb *db, std::uint16_t value, std::uint32_t size,
                                                         std::uint32_t count);
int db_olt_lacp_del_global_configuration_system_priority(KelDb *db);
int db_olt_lacp_set_global_configuration_system_id(KelDb *db, const char *text, std::uint32_t size,
                                                   std::uint32_t count);

// ---- olt-ifm: trunk settings and link status of an uplink port ------------------------------------------------

int db_olt_lacp_get_trunk_channel_group(int slot, std::uint32_t port, KelDb *db, std::uint8_t *group,
                                        std::uint32_t *size);
int db_olt_lacp_get_trunk_mode(int slot, std::uint32_t port, KelDb *db, char *text, std::uint32_t *size);
int db_olt_lacp_get_trunk_timeout(int slot, std::uint32_t port, KelDb *db, char *text, std::uint32_t *size);
int db_olt_lacp_get_trunk_priority(int slot, std::uint32_t port, KelDb *db, std::uint16_t *value,
                                   std::uint32_t *size);
std::uint8_t db_olt_lacp_set_trunk_priority(int slot, std::uint32_t port, KelDb *db, std::uint16_t value,
                                            std::uint32_t size, std::uint32_t count);
int db_olt_lacp_set_trunk_timeout(int slot, std::uint32_t port, KelDb *db, const char *text, std::uint32_t size,
                                  std::uint32_t count);
// A leaf that is not there is no error.
int db_olt_lacp_del_trunk_channel_group(int slot, std::uint32_t port, KelDb *db);
int db_olt_lacp_del_trunk_mode(int slot, std::uint32_t port, KelDb *db);
int db_olt_lacp_del_trunk_priority(int slot, std::uint32_t port, KelDb *db);
int db_olt_lacp_del_trunk_timeout(int slot, std::uint32_t port, KelDb *db);

int db_olt_ifm_get_interface_basic_link_status(int slot, std::uint32_t port, KelDb *db, char *text,
                                               std::uint32_t *size);

// ---- olt-ifm: protocol state of an uplink port ----------------------------------------------------------------

// One trunk-info leaf of the side `role` ("actor" or "partner"); flags are 0 or 1. The datastore asks the daemon's
// own provider on its event thread, so these must not be called from a handler.
int db_olt_lacp_get_port_id(int slot, std::uint32_t port, const char *role, KelDb *db, std::uint16_t *value,
                            std::uint32_t *size);
int db_olt_lacp_get_port_oper_key(int slot, std::uint32_t port, const char *role, KelDb *db, std::uint16_t *value,
                                  std::uint32_t *size);
int db_olt_lacp_get_port_port_state(int slot, std::uint32_t port, const char *role, KelDb *db, std::uint8_t *value,
                                    std::uint32_t *size);
int db_olt_lacp_get_port_synchronization(int slot, std::uint32_t port, const char *role, KelDb *db,
                                         std::uint8_t *value, std::uint32_t *size);
int db_olt_lacp_get_port_col_dis(int slot, std::uint32_t port, const char *role, KelDb *db, std::uint8_t *value,
                                 std::uint32_t *size);
int db_olt_lacp_get_port_priority(int slot, std::uint32_t port, const char *role, KelDb *db, std::uint16_t *value,
                                  std::uint32_t *size);
int db_olt_lacp_get_port_timeout(int slot, std::uint32_t port, const char *role, KelDb *db, char *text,
                                 std::uint32_t *size);
int db_olt_lacp_get_port_system_id(int slot, std::uint32_t port, const char *role, KelDb *db, char *text,
                                   std::uint32_t *size);
int db_olt_lacp_get_port_mode(int slot, std::uint32_t port, const char *role, KelDb *db, char *text,
                              std::uint32_t *size);

// The interface entries as port information. Waits for the first entry, with the thread's pause function when it has
// one; non-zero, with a sentence on standard error, when none comes in time.
int database_dev_get_port_info(KelDb *db, DevPortInfo *info);

// ---- for the switch side: who owns the interface entries ------------------------------------------------------

// Creates the port's interface entry with its first link status, or corrects the status of an entry that is there.
int db_olt_ifm_add_interface(int slot, std::uint32_t port, KelDb *db, bool link_up);
int db_olt_ifm_set_interface_basic_link_status(int slot, std::uint32_t port, KelDb *db, bool link_up);
