#include "fake_datastore.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <utility>

namespace fake
{

static std::atomic<int> iterators;

Datastore &datastore()
{
    static auto *const records = new Datastore;
    return *records;
}

void reset_datastore()
{
    Datastore &db = datastore();
    const std::lock_guard guard(db.lock);
    db.leaves.clear();
    db.failures.clear();
    db.writes.clear();
    db.missing = SR_ERR_NOT_FOUND;
    db.debug_mask = 0;
    db.subscribed.clear();
    db.member_changed = nullptr;
}

std::vector<std::string> take_writes()
{
    const std::lock_guard guard(datastore().lock);
    return std::exchange(datastore().writes, {});
}

// The entries of a list, by what stands behind its name.
static std::vector<std::string> entries(const std::string &list)
{
    const std::lock_guard guard(datastore().lock);
    std::vector<std::string> found;
    for (const auto &[name, value] : datastore().leaves)
        if (name.starts_with(list + "/"))
            found.push_back(name.substr(list.size() + 1));
    return found;
}

std::uint32_t members(int group)
{
    std::uint32_t list = 0;
    for (const std::string &port : entries("g" + std::to_string(group) + "/member-port"))
        list |= 1U << (std::stoul(port) - 1);
    return list;
}

// ---- changes --------------------------------------------------------------------------------------------------

namespace
{

struct Change {
    sr_change_oper_t operation = SR_OP_MODIFIED;
    std::string leaf;
    std::optional<std::string> old_value, new_value;
};

struct Event { // what a handler's session pointer stands for here
    std::vector<Change> changes;
    std::size_t next = 0;
};

Change read(std::string text)
{
    Change change;
    const char sign = text[0];
    text.erase(0, text.find_first_not_of("+-"));
    const std::size_t at = text.find('=');
    change.leaf = text.substr(0, at);
    const std::string value = at == std::string::npos ? "#1" : text.substr(at + 1); // an entry of a list
    const std::size_t arrow = value.find('>');
    change.operation = sign == '+' ? SR_OP_CREATED : sign == '-' ? SR_OP_DELETED : SR_OP_MODIFIED;
    if (sign != '+')
        change.old_value = value.substr(0, arrow);
    if (sign != '-')
        change.new_value = value.substr(arrow + 1);
    return change;
}

std::string path_of(const std::string &leaf)
{
    const std::size_t slash = leaf.find('/');
    const std::string rest = slash == std::string::npos ? "" : leaf.substr(slash);
    const std::string number = leaf.substr(1, slash - 1);
    if (leaf.starts_with("sys"))
        return "/olt-lacp:global-configuration" + rest;
    if (leaf[0] == 'g')
        return "/olt-lacp:channel-group/group[id='" + number + "']" + rest;
    const bool link = rest == "/link-status";
    return "/olt-ifm:up-link-ports/interface[name='gigabitethernet 0/" + number + "']" +
           (link ? "/interface-basic" : "/olt-lacp:trunk") + rest;
}

sr_val_t *allocate(const std::string &leaf, const std::optional<std::string> &value)
{
    if (!value)
        return nullptr;
    auto *out = static_cast<sr_val_t *>(calloc(1, sizeof(sr_val_t)));
    const bool is_port = leaf.ends_with("-port") && isdigit(static_cast<unsigned char>((*value)[0])) != 0;
    out->xpath = strdup(path_of(leaf).c_str());
    if (value->starts_with("#")) {
        out->type = static_cast<sr_val_type_t>(std::stoi(value->substr(1)));
        out->data.uint64_val = 1; // no text
    } else if (leaf.ends_with("/channel-group") || leaf.ends_with("/id")) {
        out->type = SR_UINT8_T;
        out->data.uint8_val = static_cast<std::uint8_t>(std::stoi(*value));
    } else if (leaf.ends_with("priority")) {
        out->type = SR_UINT16_T;
        out->data.uint16_val = static_cast<std::uint16_t>(std::stoi(*value));
    } else {
        out->type = leaf.ends_with("-port") || leaf.ends_with("system-id") ? SR_STRING_T : SR_ENUM_T;
        out->data.string_val = strdup(((is_port ? "gigabitethernet 0/" : "") + *value).c_str());
    }
    return out;
}

} // namespace

Delivery deliver(sr_module_change_cb handler, sr_event_t event, const std::string &changes)
{
    Event record;
    for (std::size_t at = 0, end = 0; at < changes.size(); at = end + 2) {
        end = std::min(changes.find("; ", at), changes.size());
        record.changes.push_back(read(changes.substr(at, end - at)));
    }
    const int result =
        handler(reinterpret_cast<sr_session_ctx_t *>(&record), 1, "module", "subscribed", event, 1, nullptr);
    return {result, record.next};
}

int open_iterators()
{
    return iterators;
}

// ---- access ---------------------------------------------------------------------------------------------------

static int failure(const std::string &what)
{
    const auto found = datastore().failures.find(what);
    return found == datastore().failures.end() ? 0 : found->second;
}

static int write(const std::string &line, const std::string &kind = "write")
{
    const std::lock_guard guard(datastore().lock);
    datastore().writes.push_back(line);
    return failure(kind);
}

// The handler reads the datastore, perhaps on another thread: it sees what was there before the change.
static int change_member(bool member, int group, std::uint32_t port)
{
    const std::string list = "g" + std::to_string(group) + "/member-port", number = std::to_string(port);
    const std::string sign = member ? "+" : "-";
    Datastore &db = datastore();
    std::unique_lock guard(db.lock);
    if (const int refused = write(sign + list + "/" + number, sign + "member-port"); refused != 0)
        return refused;
    if (db.leaves.contains(list + "/" + number) == member)
        return member ? 0 : KEL_DB_NOT_THERE;
    const auto handler = db.member_changed;
    guard.unlock();
    if (const int refused = handler ? handler(sign + list + "=" + number) : 0; refused != 0)
        return refused;
    guard.lock();
    member ? void(db.leaves[list + "/" + number]) : void(db.leaves.erase(list + "/" + number));
    return 0;
}

static std::string name(char kind, int number, const std::string &leaf)
{
    return kind + std::to_string(number) + "/" + leaf;
}

static int get(const std::string &leaf, char *text, std::uint32_t *size)
{
    const std::lock_guard guard(datastore().lock);
    const auto found = datastore().leaves.find(leaf);
    if (found == datastore().leaves.end())
        return datastore().missing;
    if (found->second.size() + 1 > *size)
        return -1;
    memcpy(text, found->second.c_str(), found->second.size() + 1);
    return 0;
}

template <typename Number> int get(const std::string &leaf, Number *value, std::uint32_t *size)
{
    char text[16];
    std::uint32_t room = sizeof(text);
    const int result = *size != sizeof(Number) ? -1 : get(leaf, text, &room);
    if (result == 0)
        *value = static_cast<Number>(std::stoul(text));
    return result;
}

static int list(const std::string &name, char ***texts, std::uint32_t *count)
{
    const std::vector<std::string> found = entries(name);
    *count = static_cast<std::uint32_t>(found.size());
    *texts = found.empty() ? nullptr : static_cast<char **>(calloc(*count, sizeof(char *)));
    for (std::uint32_t i = 0; i < *count; ++i)
        (*texts)[i] = strdup(("gigabitethernet 0/" + found[i]).c_str());
    return found.empty() ? datastore().missing : 0;
}

} // namespace fake

using namespace fake;
using Size = std::uint32_t;

void sr_release(sr_val_t *&value)
{
    sr_free_val(value);
    value = nullptr;
}

// In place of sysrepo's.
extern "C" void sr_free_change_iter(sr_change_iter_t *iterator)
{
    iterators -= iterator != nullptr;
    free(iterator);
}

int kel_db_get_change_next(sr_session_ctx_t *session, const char *, sr_change_iter_t **iterator,
                           sr_change_oper_t *operation, sr_val_t **old_value, sr_val_t **new_value)
{
    auto *event = reinterpret_cast<Event *>(session);
    sr_release(*old_value);
    sr_release(*new_value);
    if (*iterator == nullptr) {
        *iterator = static_cast<sr_change_iter_t *>(malloc(1));
        ++iterators;
    }
    if (event->next == event->changes.size())
        return SR_ERR_NOT_FOUND;
    const Change &change = event->changes[event->next++];
    *operation = change.operation;
    *old_value = allocate(change.leaf, change.old_value);
    *new_value = allocate(change.leaf, change.new_value);
    return 0;
}

// ---- connection -----------------------------------------------------------------------------------------------

int database_init(KelDb *)
{
    return failure("connect");
}

int kel_db_session_open(KelDbSession *session)
{
    static KelDb connection;
    session->db = &connection;
    return 0;
}

int kel_db_session_close(KelDbSession *)
{
    return 0;
}

int db_connect_init_with_vty(KelDbSession *session, KelDb *)
{
    return kel_db_session_open(session);
}

int db_disconnect_free_with_vty(KelDbSession *, KelDb *)
{
    return 0;
}

kel_db_debug_flag db_debug_flag_return()
{
    return &datastore().debug_mask;
}

void db_debug_flag_reg(kel_db_debug_flag) {}

kel_db_sysrepo_debug sysrepo_debug_func_return()
{
    return nullptr;
}

void sysrepo_debug_fun_reg(kel_db_sysrepo_debug) {}

std::uint32_t db_debug_get()
{
    return datastore().debug_mask;
}

int db_module_subscription_init(KelDb *, const DbModuleCbs *const *tables)
{
    for (; *tables != nullptr; ++tables)
        for (const DbXpathCb *entry = (*tables)->xpaths; entry->xpath != nullptr; ++entry)
            datastore().subscribed.push_back(std::string((*tables)->module) + " " + entry->xpath);
    return failure("subscribe");
}

// ---- accessors ------------------------------------------------------------------------------------------------

#define GROUP_READER(function, read, leaf, ...)                                                                      \
    int function(int group, KelDb *, __VA_ARGS__ value, Size *size)                                                  \
    {                                                                                                                \
        return read(name('g', group, leaf), value, size);                                                            \
    }
#define PORT_READER(function, leaf, type)                                                                            \
    int function(int, Size port, KelDb *, type *value, Size *size)                                                   \
    {                                                                                                                \
        return get(name('p', int(port), leaf), value, size);                                                         \
    }
#define STATE_READER(leaf, text, type)                                                                               \
    int db_olt_lacp_get_port_##leaf(int slot, Size port, const char *role, KelDb *, type *value, Size *size)         \
    {                                                                                                                \
        return slot != 0 ? -1 : get(name('p', int(port), std::string(role) + "/" text), value, size);                \
    }
#define DELETER(leaf, text)                                                                                          \
    int db_olt_lacp_del_trunk_##leaf(int, Size port, KelDb *)                                                        \
    {                                                                                                                \
        return write("-" + name('p', int(port), text));                                                              \
    }

GROUP_READER(db_olt_lacp_get_group_lacp_type, get, "lacp-type", char *)
GROUP_READER(db_olt_lacp_get_group_load_balance, get, "load-balance", char *)
GROUP_READER(db_olt_lacp_get_group_member_port, list, "member-port", char ***)
GROUP_READER(db_olt_lacp_get_group_join_port, list, "join-port", char ***)
PORT_READER(db_olt_ifm_get_interface_basic_link_status, "link-status", char)
PORT_READER(db_olt_lacp_get_trunk_channel_group, "channel-group", std::uint8_t)
PORT_READER(db_olt_lacp_get_trunk_mode, "mode", char)
PORT_READER(db_olt_lacp_get_trunk_timeout, "timeout", char)
PORT_READER(db_olt_lacp_get_trunk_priority, "priority", std::uint16_t)
STATE_READER(id, "id", std::uint16_t)
STATE_READER(oper_key, "oper-key", std::uint16_t)
STATE_READER(port_state, "port-state", std::uint8_t)
STATE_READER(synchronization, "synchronization", std::uint8_t)
STATE_READER(col_dis, "col-dis", std::uint8_t)
STATE_READER(priority, "priority", std::uint16_t)
STATE_READER(timeout, "timeout", char)
STATE_READER(system_id, "system-id", char)
STATE_READER(mode, "mode", char)
DELETER(channel_group, "channel-group")
DELETER(mode, "mode")
DELETER(priority, "priority")
DELETER(timeout, "timeout")

// What is written is one line; it stores nothing.
#define WRITER(arguments, function, line)                                                                            \
    int function arguments                                                                                           \
    {                                                                                                                \
        return write(line);                                                                                          \
    }

WRITER((int group, KelDb *), db_olt_lacp_del_group_id, "-g" + std::to_string(group))
WRITER((int group, KelDb *, const char *text, std::uint32_t, std::uint32_t), db_olt_lacp_set_group_load_balance,
       name('g', group, "load-balance=") + text)
WRITER((KelDb *, const char *text, std::uint32_t, std::uint32_t), db_olt_lacp_set_global_configuration_system_id,
       std::string("sys/system-id=") + text)
WRITER((KelDb *, std::uint16_t value, std::uint32_t, std::uint32_t),
       db_olt_lacp_set_global_configuration_system_priority, "sys/system-priority=" + std::to_string(value))
WRITER((KelDb *), db_olt_lacp_del_global_configuration_system_priority, "-sys/system-priority")
WRITER((int, std::uint32_t port, KelDb *, const char *text, std::uint32_t, std::uint32_t),
       db_olt_lacp_set_trunk_timeout, name('p', int(port), "timeout=") + text)
WRITER((KelDb *, int slot, std::uint32_t port, int group, const char *mode), db_add_channel_group,
       std::to_string(slot) + "/" + name('p', int(port), "mode=") + mode + " g" + std::to_string(group))
WRITER((KelDb *, int slot, std::uint32_t port, int group), db_del_channel_group,
       "-" + std::to_string(slot) + "/" + name('p', int(port), "g") + std::to_string(group))

void db_free_string_array_val(char **texts, std::uint32_t count)
{
    for (std::uint32_t i = 0; i < count; ++i)
        free(texts[i]);
    free(texts);
}

int db_olt_lacp_get_global_configuration_system_priority(KelDb *, std::uint16_t *value, std::uint32_t *size)
{
    return get("sys/system-priority", value, size);
}

int db_olt_lacp_show_xml_group_id(KelDb *, char **out)
{
    *out = strdup("<channel-group/>\n");
    return datastore().leaves.contains("xml") ? 0 : (free(*out), -1);
}

int db_olt_lacp_set_group_member_port(int group, KelDb *, const char *text, std::uint32_t size, std::uint32_t count)
{
    const std::string port = text;
    const bool whole = port.starts_with("gigabitethernet 0/") && size == 32 && count == 1;
    return whole ? change_member(true, group, Size(std::stoul(port.substr(18)))) : write("no member: " + port);
}

int db_olt_lacp_del_group_member_port(int group, int, std::uint32_t port, KelDb *)
{
    return change_member(false, group, port);
}

std::uint8_t db_olt_lacp_set_trunk_priority(int, std::uint32_t port, KelDb *, std::uint16_t value, std::uint32_t,
                                            std::uint32_t)
{
    return std::uint8_t(write(name('p', int(port), "priority=") + std::to_string(value)));
}
