#include "fake_datastore.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace fake
{

static std::atomic<int> iterators;

Datastore &datastore()
{
    static auto *const records = new Datastore; // never destroyed
    return *records;
}

void reset_datastore()
{
    Datastore &db = datastore();
    const std::lock_guard guard(db.lock);
    db.link_status.clear();
    db.channel_group.clear();
    db.mode.clear();
    db.lacp_type.clear();
    db.members.clear();
    db.writes.clear();
    db.failures.clear();
    db.link_reads = 0;
    db.debug_mask = 0;
    db.subscribed.clear();
    db.member_changed = nullptr;
}

std::vector<std::string> take_writes()
{
    Datastore &db = datastore();
    const std::lock_guard guard(db.lock);
    return std::exchange(db.writes, {});
}

// ---- change events --------------------------------------------------------------------------------------------

Value text(const std::string &path, const std::string &value)
{
    return {path, SR_STRING_T, value, 0};
}

Value name(const std::string &path, const std::string &value)
{
    return {path, SR_ENUM_T, value, 0};
}

Value number8(const std::string &path, std::uint8_t value)
{
    return {path, SR_UINT8_T, {}, value};
}

Value number16(const std::string &path, std::uint16_t value)
{
    return {path, SR_UINT16_T, {}, value};
}

Value dataless(const std::string &path, sr_val_type_t type)
{
    return {path, type, {}, 0};
}

Change created(const Value &value)
{
    return {SR_OP_CREATED, {}, {value}};
}

Change modified(const Value &old_value, const Value &new_value)
{
    return {SR_OP_MODIFIED, {old_value}, {new_value}};
}

Change deleted(const Value &value)
{
    return {SR_OP_DELETED, {value}, {}};
}

namespace
{

// What a handler's session pointer stands for here.
struct Event {
    const std::vector<Change> *changes;
    std::size_t next = 0;
};

sr_val_t *allocate(const std::vector<Value> &from)
{
    if (from.empty())
        return nullptr;
    const Value &value = from.front();
    auto *out = static_cast<sr_val_t *>(calloc(1, sizeof(sr_val_t)));
    out->xpath = strdup(value.path.c_str());
    out->type = value.type;
    switch (value.type) {
    case SR_STRING_T:
    case SR_ENUM_T:
        out->data.string_val = strdup(value.text.c_str());
        break;
    case SR_UINT8_T:
        out->data.uint8_val = static_cast<std::uint8_t>(value.number);
        break;
    case SR_UINT16_T:
        out->data.uint16_val = static_cast<std::uint16_t>(value.number);
        break;
    default:
        break;
    }
    return out;
}

void release(sr_val_t *&value)
{
    sr_free_val(value);
    value = nullptr;
}

} // namespace

Delivery deliver(sr_module_change_cb handler, sr_event_t event, const std::vector<Change> &changes)
{
    Event record{&changes};
    const int result =
        handler(reinterpret_cast<sr_session_ctx_t *>(&record), 1, "module", "subscribed", event, 1, nullptr);
    return {result, record.next};
}

int open_iterators()
{
    return iterators;
}

// Records a write and says whether it may go on: 0, or the code the test wants it to fail with.
static int write(Datastore &db, const char *accessor, const std::string &line)
{
    db.writes.push_back(line);
    const auto failure = db.failures.find(accessor);
    return failure == db.failures.end() ? 0 : failure->second;
}

static int read_failure(const Datastore &db, const char *accessor)
{
    const auto failure = db.failures.find(accessor);
    return failure == db.failures.end() ? 0 : failure->second;
}

static int copy_text(const std::string &value, char *text, std::uint32_t *size)
{
    if (value.size() + 1 > *size)
        return -1;
    memcpy(text, value.c_str(), value.size() + 1);
    *size = static_cast<std::uint32_t>(value.size() + 1);
    return 0;
}

static std::string interface_name(int slot, std::uint32_t port)
{
    return "gigabitethernet " + std::to_string(slot) + "/" + std::to_string(port);
}

// The handler reads the datastore, perhaps on another thread: it sees what was there before the change.
static int change_members(MemberChange change, int group, const std::string &member)
{
    Datastore &db = datastore();
    std::unique_lock guard(db.lock);
    if (change == MemberChange::created && db.members[group].count(member) != 0)
        return 0; // a value that is there is no change
    const auto handler = db.member_changed;
    guard.unlock();
    const int refused = handler ? handler(change, group, member) : 0;
    if (refused != 0)
        return refused;
    guard.lock();
    if (change == MemberChange::created)
        db.members[group].insert(member);
    else
        db.members[group].erase(member);
    return 0;
}

static int delete_trunk_leaf(const char *leaf, int slot, std::uint32_t port)
{
    Datastore &db = datastore();
    const std::lock_guard guard(db.lock);
    return write(db, "delete_trunk_leaf", std::string("del trunk ") + leaf + " " + interface_name(slot, port));
}

} // namespace fake

using fake::Datastore;
using fake::datastore;

// The library's own would look for a diff tree in it.
extern "C" void sr_free_change_iter(sr_change_iter_t *iterator)
{
    if (iterator == nullptr)
        return;
    free(iterator);
    --fake::iterators;
}

int kel_db_get_change_next(sr_session_ctx_t *session, const char *, sr_change_iter_t **iterator,
                           sr_change_oper_t *operation, sr_val_t **old_value, sr_val_t **new_value)
{
    auto *event = reinterpret_cast<fake::Event *>(session);
    fake::release(*old_value);
    fake::release(*new_value);
    if (*iterator == nullptr) {
        *iterator = static_cast<sr_change_iter_t *>(malloc(1));
        ++fake::iterators;
    }
    if (event->next == event->changes->size())
        return SR_ERR_NOT_FOUND;
    const fake::Change &change = (*event->changes)[event->next++];
    *operation = change.operation;
    *old_value = fake::allocate(change.old_value);
    *new_value = fake::allocate(change.new_value);
    return 0;
}

// ---- connection -----------------------------------------------------------------------------------------------

int database_init(KelDb *)
{
    return fake::read_failure(datastore(), "database_init");
}

int db_connect_init_with_vty(KelDbSession *session, KelDb *db)
{
    session->db = db;
    return 0;
}

int db_disconnect_free_with_vty(KelDbSession *session, KelDb *)
{
    session->db = nullptr;
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
    Datastore &db = datastore();
    for (; *tables != nullptr; ++tables)
        for (const DbXpathCb *entry = (*tables)->xpaths; entry->xpath != nullptr; ++entry)
            db.subscribed.push_back(std::string((*tables)->module) + " " + entry->xpath);
    return fake::read_failure(db, "db_module_subscription_init");
}

// ---- reads ----------------------------------------------------------------------------------------------------

int db_olt_ifm_get_interface_basic_link_status(int, std::uint32_t port, KelDb *, char *text, std::uint32_t *size)
{
    Datastore &db = datastore();
    const std::lock_guard guard(db.lock);
    ++db.link_reads;
    const auto found = db.link_status.find(port);
    return found == db.link_status.end() ? SR_ERR_NOT_FOUND : fake::copy_text(found->second, text, size);
}

int db_olt_lacp_get_trunk_channel_group(int, std::uint32_t port, KelDb *, std::uint8_t *group, std::uint32_t *)
{
    Datastore &db = datastore();
    const std::lock_guard guard(db.lock);
    const int failure = fake::read_failure(db, "db_olt_lacp_get_trunk_channel_group");
    if (failure != 0)
        return failure;
    const auto found = db.channel_group.find(port);
    if (found == db.channel_group.end())
        return SR_ERR_NOT_FOUND;
    *group = found->second;
    return 0;
}

// Weak: the inspection of the shell reads another one.
[[gnu::weak]] int db_olt_lacp_get_trunk_mode(int, std::uint32_t port, KelDb *, char *text, std::uint32_t *size)
{
    Datastore &db = datastore();
    const std::lock_guard guard(db.lock);
    const auto found = db.mode.find(port);
    return found == db.mode.end() ? SR_ERR_NOT_FOUND : fake::copy_text(found->second, text, size);
}

int db_olt_lacp_get_group_lacp_type(int group, KelDb *, char *text, std::uint32_t *size)
{
    Datastore &db = datastore();
    const std::lock_guard guard(db.lock);
    const auto found = db.lacp_type.find(group);
    return found == db.lacp_type.end() ? SR_ERR_NOT_FOUND : fake::copy_text(found->second, text, size);
}

// ---- writes ---------------------------------------------------------------------------------------------------

int db_olt_lacp_set_group_member_port(int group, KelDb *, const char *name, std::uint32_t size, std::uint32_t count)
{
    Datastore &db = datastore();
    {
        const std::lock_guard guard(db.lock);
        const int failure = fake::write(db, "db_olt_lacp_set_group_member_port",
                                        "add " + std::to_string(group) + " " + name + " (" + std::to_string(size) +
                                            "," + std::to_string(count) + ")");
        if (failure != 0)
            return failure;
    }
    return fake::change_members(fake::MemberChange::created, group, name);
}

int db_olt_lacp_del_group_member_port(int group, int slot, std::uint32_t port, KelDb *)
{
    Datastore &db = datastore();
    const std::string member = fake::interface_name(slot, port);
    {
        const std::lock_guard guard(db.lock);
        const int failure =
            fake::write(db, "db_olt_lacp_del_group_member_port", "del " + std::to_string(group) + " " + member);
        if (failure != 0)
            return failure;
        if (db.members[group].count(member) == 0)
            return KEL_DB_NOT_THERE;
    }
    return fake::change_members(fake::MemberChange::deleted, group, member);
}

int db_olt_lacp_set_global_configuration_system_id(KelDb *, const char *text, std::uint32_t size, std::uint32_t count)
{
    Datastore &db = datastore();
    const std::lock_guard guard(db.lock);
    return fake::write(db, "db_olt_lacp_set_global_configuration_system_id",
                       std::string("system-id ") + text + " (" + std::to_string(size) + "," + std::to_string(count) +
                           ")");
}

int db_olt_lacp_del_group_id(int group, KelDb *)
{
    Datastore &db = datastore();
    const std::lock_guard guard(db.lock);
    return fake::write(db, "db_olt_lacp_del_group_id", "del group " + std::to_string(group));
}

int db_olt_lacp_del_trunk_channel_group(int slot, std::uint32_t port, KelDb *)
{
    return fake::delete_trunk_leaf("channel-group", slot, port);
}

int db_olt_lacp_del_trunk_mode(int slot, std::uint32_t port, KelDb *)
{
    return fake::delete_trunk_leaf("mode", slot, port);
}

int db_olt_lacp_del_trunk_priority(int slot, std::uint32_t port, KelDb *)
{
    return fake::delete_trunk_leaf("priority", slot, port);
}

int db_olt_lacp_del_trunk_timeout(int slot, std::uint32_t port, KelDb *)
{
    return fake::delete_trunk_leaf("timeout", slot, port);
}

int db_olt_lacp_del_global_configuration_system_priority(KelDb *)
{
    Datastore &db = datastore();
    const std::lock_guard guard(db.lock);
    return fake::write(db, "db_olt_lacp_del_global_configuration_system_priority", "del system-priority");
}
