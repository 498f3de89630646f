#include "fake_datastore.h"

#include <cstring>
#include <regex>
#include <sysrepo/values.h>
#include <utility>

using namespace fake;
using Size = std::uint32_t;
using Text = const char *;

Datastore &fake::datastore()
{
    static auto *const records = new Datastore;
    return *records;
}

void fake::reset_datastore()
{
    Datastore &db = datastore();
    const std::lock_guard guard(db.lock);
    static_cast<Content &>(db) = {};
}

std::vector<std::string> fake::take_writes()
{
    const std::lock_guard guard(datastore().lock);
    return std::exchange(datastore().writes, {});
}

std::string fake::name(char kind, unsigned number, const std::string &leaf)
{
    return kind + std::to_string(number) + "/" + leaf;
}

std::string fake::stored(const std::string &leaf)
{
    const std::lock_guard guard(datastore().lock);
    const auto found = datastore().leaves.find(leaf);
    return found == datastore().leaves.end() ? "" : found->second;
}

namespace
{

// ---- changes --------------------------------------------------------------------------------------------------

struct Event { // what a handler's session pointer stands for here
    std::string changes;
    std::size_t next = 0;
};

std::string path_of(const std::string &leaf)
{
    const std::size_t slash = std::min(leaf.find('/'), leaf.size());
    const std::string rest = leaf.substr(slash), number = leaf.substr(1, slash - 1);
    if (leaf.starts_with("sys"))
        return "/olt-lacp:global-configuration" + rest;
    if (leaf[0] == 'g')
        return "/olt-lacp:channel-group/group[id='" + number + "']" + rest;
    return "/olt-ifm:up-link-ports/interface[name='gigabitethernet 0/" + number + "']" +
           (rest == "/link-status" ? "/interface-basic" : "/olt-lacp:trunk") + rest;
}

sr_val_t *value_of(const std::string &leaf, const std::string &text)
{
    static const std::regex NUMBER(".*(/channel-group|/id|priority)");
    sr_val_t *out = nullptr;
    sr_new_val(path_of(leaf).c_str(), &out);
    const bool list = leaf.ends_with("-port"), port = list && isdigit(static_cast<unsigned char>(text[0])) != 0;
    if (text[0] == '#') {
        out->type = static_cast<sr_val_type_t>(std::stoi(text.substr(1)));
        out->data.uint64_val = 1; // no text
    } else if (std::regex_match(leaf, NUMBER)) {
        out->type = leaf.ends_with("priority") ? SR_UINT16_T : SR_UINT8_T;
        out->data.uint16_val = static_cast<std::uint16_t>(std::stoi(text));
    } else {
        sr_val_set_str_data(out, list || leaf.ends_with("system-id") ? SR_STRING_T : SR_ENUM_T,
                            ((port ? "gigabitethernet 0/" : "") + text).c_str());
    }
    return out;
}

// ---- access ---------------------------------------------------------------------------------------------------

int failure(const std::string &what)
{
    const auto found = datastore().failures.find(what);
    return found == datastore().failures.end() ? 0 : found->second;
}

int write(const std::string &line, const std::string &kind = "write")
{
    const std::lock_guard guard(datastore().lock);
    datastore().writes.push_back(line);
    return failure(kind);
}

// The handler reads the datastore, perhaps on another thread: it sees what was there before the change.
int change_member(bool member, int group, const std::string &port)
{
    const std::string sign = member ? "+" : "-", list = "g" + std::to_string(group) + "/member-port";
    Datastore &db = datastore();
    std::unique_lock guard(db.lock);
    if (const int refused = write(sign + list + "/" + port, sign + "member-port"); refused != 0)
        return refused;
    if (db.leaves.contains(list + "/" + port) == member)
        return member ? 0 : KEL_DB_NOT_THERE;
    const auto handler = db.member_changed;
    guard.unlock();
    if (const int refused = handler ? handler(sign + list + "=" + port) : 0; refused != 0)
        return refused;
    guard.lock();
    member ? void(db.leaves[list + "/" + port]) : void(db.leaves.erase(list + "/" + port));
    return 0;
}

template <typename T> int get(const std::string &leaf, T *value, Size *size)
{
    const std::lock_guard guard(datastore().lock);
    const std::string text = stored(leaf);
    if (!datastore().leaves.contains(leaf))
        return SR_ERR_NOT_FOUND;
    if (std::is_same_v<T, char> ? *size <= text.size() : *size != sizeof(T))
        return -1;
    if constexpr (std::is_same_v<T, char>)
        memcpy(value, text.c_str(), text.size() + 1);
    else
        *value = static_cast<T>(std::stoul(text));
    return 0;
}

// The entries of a list, by what stands behind its name.
std::vector<std::string> entries(const std::string &list)
{
    const std::lock_guard guard(datastore().lock);
    std::vector<std::string> found;
    for (const auto &[leaf, value] : datastore().leaves)
        if (leaf.starts_with(list + "/"))
            found.push_back(leaf.substr(list.size() + 1));
    return found;
}

int ports(const std::string &list, char ***texts, Size *count)
{
    const std::vector<std::string> found = entries(list);
    *count = static_cast<Size>(found.size());
    *texts = found.empty() ? nullptr : static_cast<char **>(calloc(*count, sizeof(char *)));
    for (Size i = 0; i < *count; ++i)
        (*texts)[i] = strdup(("gigabitethernet 0/" + found[i]).c_str());
    return found.empty() ? SR_ERR_NOT_FOUND : 0;
}

} // namespace

std::uint32_t fake::members(int group)
{
    std::uint32_t list = 0;
    for (const std::string &port : entries(name('g', static_cast<unsigned>(group), "member-port")))
        list |= 1U << (std::stoul(port) - 1);
    return list;
}

int fake::deliver(sr_module_change_cb handler, sr_event_t event, const std::string &changes)
{
    Event record{changes};
    return handler(reinterpret_cast<sr_session_ctx_t *>(&record), 1, "module", "subscribed", event, 1, nullptr);
}

// In place of sysrepo's.
extern "C" void sr_free_change_iter(sr_change_iter_t *iterator)
{
    datastore().iterators -= iterator != nullptr;
    free(iterator);
}

int kel_db_get_change_next(sr_session_ctx_t *session, Text, sr_change_iter_t **iterator, sr_change_oper_t *operation,
                           sr_val_t **old_value, sr_val_t **new_value)
{
    auto &event = *reinterpret_cast<Event *>(session);
    sr_free_val(std::exchange(*old_value, nullptr));
    sr_free_val(std::exchange(*new_value, nullptr));
    if (*iterator == nullptr) {
        *iterator = static_cast<sr_change_iter_t *>(malloc(1));
        ++datastore().iterators;
    }
    if (event.next >= event.changes.size())
        return SR_ERR_NOT_FOUND;
    const std::size_t end = std::min(event.changes.find("; ", event.next), event.changes.size());
    const std::string change = event.changes.substr(event.next, end - event.next);
    event.next = end + 2;
    static const std::regex FORM("([+-]?)([^=]*)=?([^>]*)>?(.*)");
    std::smatch part;
    std::regex_match(change, part, FORM);
    const std::string value = part[3].length() == 0 ? "#1" : part[3].str(); // without one an entry of a list
    *operation = part[1] == "+" ? SR_OP_CREATED : part[1] == "-" ? SR_OP_DELETED : SR_OP_MODIFIED;
    *old_value = *operation == SR_OP_CREATED ? nullptr : value_of(part[2], value);
    *new_value = *operation == SR_OP_DELETED
                     ? nullptr
                     : value_of(part[2], *operation == SR_OP_MODIFIED ? part[4].str() : value);
    return 0;
}

// ---- the library's functions ----------------------------------------------------------------------------------

#define DB(function, parameters, ...)                                                                                \
    int function parameters                                                                                          \
    {                                                                                                                \
        return __VA_ARGS__;                                                                                          \
    }

DB(database_init, (KelDb *), 0)
static KelDb connection;
DB(kel_db_session_open, (KelDbSession * session), session->db = &connection, 0)
DB(kel_db_session_close, (KelDbSession *), 0)
DB(db_connect_init_with_vty, (KelDbSession * session, KelDb *), kel_db_session_open(session))
DB(db_disconnect_free_with_vty, (KelDbSession *, KelDb *), 0)

DB(db_olt_lacp_get_group_lacp_type, (int g, KelDb *, char *to, Size *size), get(name('g', g, "lacp-type"), to, size))
DB(db_olt_lacp_get_group_member_port, (int g, KelDb *, char ***to, Size *count),
   ports(name('g', g, "member-port"), to, count))

#define GET(function, leaf, type)                                                                                    \
    DB(function, (int, Size port, KelDb *, type *to, Size *size), get(name('p', port, leaf), to, size))
GET(db_olt_ifm_get_interface_basic_link_status, "link-status", char)
GET(db_olt_lacp_get_trunk_channel_group, "channel-group", std::uint8_t)
GET(db_olt_lacp_get_trunk_mode, "mode", char)
GET(db_olt_lacp_get_trunk_timeout, "timeout", char)
GET(db_olt_lacp_get_trunk_priority, "priority", std::uint16_t)

// Read for the running configuration and at the end of a change, which whole systems show.
DB(db_olt_lacp_get_group_load_balance, (int, KelDb *, char *, Size *), -1)
DB(db_olt_lacp_get_global_configuration_system_priority, (KelDb *, std::uint16_t *, Size *), -1)
DB(db_olt_lacp_get_configuration, (KelDb *, DbLacpConfiguration *), -1)

// What is written is one line; but for members it stores nothing.
DB(db_olt_lacp_del_trunk_channel_group, (int, Size p, KelDb *), write("-" + name('p', p, "channel-group")))
DB(db_olt_lacp_del_trunk_mode, (int, Size p, KelDb *), write("-" + name('p', p, "mode")))
DB(db_olt_lacp_del_trunk_priority, (int, Size p, KelDb *), write("-" + name('p', p, "priority")))
DB(db_olt_lacp_del_trunk_timeout, (int, Size p, KelDb *), write("-" + name('p', p, "timeout")))
DB(db_olt_lacp_del_group_id, (int g, KelDb *), write("-g" + std::to_string(g)))
DB(db_olt_lacp_del_global_configuration_system_priority, (KelDb *), write("-sys/system-priority"))
DB(db_olt_lacp_set_group_load_balance, (int g, KelDb *, Text text, Size, Size),
   write(name('g', g, "load-balance=") + text))
DB(db_olt_lacp_set_global_configuration_system_id, (KelDb *, Text text, Size, Size),
   write(std::string("sys/system-id=") + text))
DB(db_olt_lacp_set_global_configuration_system_priority, (KelDb *, std::uint16_t value, Size, Size),
   write("sys/system-priority=" + std::to_string(value)))
DB(db_olt_lacp_set_trunk_timeout, (int, Size port, KelDb *, Text text, Size, Size),
   write(name('p', port, "timeout=") + text))
std::uint8_t db_olt_lacp_set_trunk_priority(int, Size port, KelDb *, std::uint16_t value, Size, Size)
{
    return write(name('p', port, "priority=") + std::to_string(value)) != 0;
}
DB(db_add_channel_group, (KelDb *, int slot, Size port, int g, Text mode),
   write(std::to_string(slot) + "/" + name('p', port, "mode=") + mode + " g" + std::to_string(g)))
DB(db_del_channel_group, (KelDb *, int slot, Size port, int g),
   write("-" + std::to_string(slot) + "/" + name('p', port, "g") + std::to_string(g)))
DB(db_olt_lacp_set_group_member_port, (int g, KelDb *, Text port, Size size, Size count),
   size == 32 && count == 1 ? change_member(true, g, port + strlen("gigabitethernet 0/")) : write(port))
DB(db_olt_lacp_del_group_member_port, (int g, int, Size port, KelDb *), change_member(false, g, std::to_string(port)))
void db_settle_reg(kel_db_settle) {}
DB(kel_db_group_beyond, (sr_session_ctx_t *, std::uint32_t), 0)
DB(db_module_subscription_init, (KelDb *, const DbModuleCbs *const *), 0)

void db_debug_flag_reg(kel_db_debug_flag) {}
void kel_db_set_pause(kel_db_pause) {}
void sysrepo_debug_fun_reg(kel_db_sysrepo_debug) {}
kel_db_sysrepo_debug sysrepo_debug_func_return()
{
    return nullptr;
}
std::uint32_t *db_debug_flag_return()
{
    return &datastore().debug_mask;
}
std::uint32_t db_debug_get()
{
    return datastore().debug_mask;
}
void db_free_string_array_val(char **texts, Size count)
{
    while (count > 0)
        free(texts[--count]);
    free(texts);
}
