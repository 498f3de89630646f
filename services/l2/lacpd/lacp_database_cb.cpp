#include "lacp_database_cb.h"

#include "channel_group.h"
#include "channel_group_member.h"
#include "channel_group_plan.h"
#include "lac_port.h"

#include <cstdio>
#include <cstring>
#include <string_view>

namespace
{

constexpr std::size_t LEAF_SIZE = 20; // a longer name is cut and then is no known leaf
constexpr std::size_t PATH_SIZE = 1024;
constexpr std::size_t TYPE_TEXT_SIZE = 16;

// The change iterator of one event and the values of the current change.
class ChangeWalk
{
  public:
    ChangeWalk(sr_session_ctx_t *session, const char *xpath) : session_(session), xpath_(xpath) {}
    ~ChangeWalk()
    {
        sr_free_change_iter(iterator_);
        sr_free_val(new_);
        sr_free_val(old_);
    }
    ChangeWalk(const ChangeWalk &) = delete;
    ChangeWalk &operator=(const ChangeWalk &) = delete;

    bool next() { return kel_db_get_change_next(session_, xpath_, &iterator_, &operation_, &old_, &new_) == 0; }
    sr_change_oper_t operation() const { return operation_; }
    const sr_val_t *old_value() const { return old_; }
    const sr_val_t *new_value() const { return new_; }

  private:
    sr_session_ctx_t *session_;
    const char *xpath_;
    sr_change_iter_t *iterator_ = nullptr;
    sr_change_oper_t operation_ = SR_OP_CREATED;
    sr_val_t *old_ = nullptr;
    sr_val_t *new_ = nullptr;
};

bool carries_data(const sr_val_t *value)
{
    return value != nullptr && value->type > SR_LEAF_EMPTY_T;
}

// Texts come as strings or as enumeration names; both members of the value share their storage. A leaf of another
// type, as another revision of the schema might have it, is an empty text.
std::string_view text_of(const sr_val_t *value)
{
    const bool is_text = value->type == SR_STRING_T || value->type == SR_ENUM_T;
    return is_text && value->data.string_val != nullptr ? value->data.string_val : "";
}

struct PortName {
    int slot = 0;
    std::uint32_t port = 0;
};

PortName port_name_of(const sr_val_t *value)
{
    PortName name;
    sscanf(text_of(value).data(), "gigabitethernet %d/%u", &name.slot, &name.port);
    return name;
}

// The common walk: `deleted` sees the first deletion and ends the event, `changed` every leaf until one fails.
template <typename Changed, typename Deleted>
int walk_changes(sr_session_ctx_t *session, const char *xpath, sr_event_t event, Changed changed, Deleted deleted)
{
    if (event != SR_EV_CHANGE)
        return LAC_OK;
    ChangeWalk walk(session, xpath);
    while (walk.next()) {
        if (walk.operation() == SR_OP_DELETED)
            return deleted(walk.old_value());
        if (!carries_data(walk.new_value()))
            continue;
        const int result = changed(walk);
        if (result != LAC_OK)
            return result;
    }
    return LAC_OK;
}

int ignore_deletion(const sr_val_t *)
{
    return LAC_OK;
}

int report_failure(const char *leaf, int result)
{
    if (result != LAC_OK)
        printf("set '%s' %s! ret %d\n", leaf, "failed", result);
    return result;
}

// ---- channel groups -------------------------------------------------------------------------------------------

int change_group_leaf(const ChangeWalk &walk)
{
    const sr_val_t *value = walk.new_value();
    int group = 0;
    char leaf[LEAF_SIZE] = {};
    sscanf(value->xpath, "/olt-lacp:channel-group/group[id='%d']/%19s", &group, leaf);
    const std::string_view name = leaf;
    if (name == "lacp-type") {
        if (walk.operation() != SR_OP_CREATED)
            return LAC_REFUSED;
        return report_failure(leaf, set_group_type(group, text_of(value)));
    }
    if (name == "load-balance")
        return report_failure(leaf, set_channel_group_load_balance_str(group, text_of(value).data()));
    if (name == "member-port") {
        const PortName port = port_name_of(value);
        return report_failure(leaf, add_member(group, port.slot, port.port));
    }
    if (name == "join-port" || name == "id")
        return LAC_OK;
    printf("'%s' is not belong to channel group configuration!\n", leaf);
    return report_failure(leaf, LAC_UNKNOWN_LEAF);
}

// ---- global configuration -------------------------------------------------------------------------------------

int change_global_leaf(const ChangeWalk &walk)
{
    const sr_val_t *value = walk.new_value();
    char leaf[LEAF_SIZE] = {};
    sscanf(value->xpath, "/olt-lacp:global-configuration/%19s", leaf);
    printf("leaf %s\n", leaf);
    const std::string_view name = leaf;
    if (name == "system-id")
        return report_failure(leaf, change_system_id(text_of(value).data()));
    if (name == "system-priority")
        return report_failure(leaf, set_lacp_system_priority(value->data.uint16_val));
    printf("'%s' is not belong to lacp global configuration!\n", leaf);
    return report_failure(leaf, LAC_UNKNOWN_LEAF);
}

// ---- trunk settings of a port ---------------------------------------------------------------------------------

struct TrunkLeaf {
    unsigned slot = 0;
    unsigned port = 0;
    char name[LEAF_SIZE] = {};

    explicit TrunkLeaf(const sr_val_t *value)
    {
        sscanf(value->xpath, "/olt-ifm:up-link-ports/interface[name='gigabitethernet %u/%u']/olt-lacp:trunk/%19s",
               &slot, &port, name);
    }
};

int change_trunk_leaf(const ChangeWalk &walk)
{
    const sr_val_t *value = walk.new_value();
    const TrunkLeaf leaf(value);
    const std::uint32_t port = leaf.port;
    const int slot = static_cast<int>(leaf.slot);
    if ((db_debug_get() & KEL_DB_DEBUG_DAEMON) != 0)
        printf("[DATABASE INFO] interface (%d/%d) operation [%d] xpath [%s]\n", slot, port, walk.operation(),
               value->xpath);

    int result = LAC_OK;
    const std::string_view name = leaf.name;
    if (name == "channel-group") {
        const std::uint32_t old_group = walk.old_value() == nullptr ? 0 : walk.old_value()->data.uint8_val;
        result = change_channel_group(port, old_group, value->data.uint8_val);
    } else if (name == "mode") {
        result = set_lacp_port_mode(slot, port, text_of(value) == "passive" ? 0 : 1);
    } else if (name == "priority") {
        result = set_lacp_port_priority(slot, port, value->data.uint16_val);
    } else if (name == "timeout") {
        result = set_lacp_port_timeout(slot, port, text_of(value) == "short" ? 1 : 0);
    } else {
        printf("'%s' is not belong to lacp interface trunk configuration!\n", leaf.name);
        result = LAC_UNKNOWN_LEAF;
    }
    if (result != LAC_OK)
        printf("set slot %d port %d '%s' %s! ret %d\n", slot, port, leaf.name, "failed", result);
    // A new interface entry brings the leaf's default along.
    if (name == "priority" && result != LAC_OK && port <= LAC_MAX_PORTS && lacNoToPort(port) == nullptr)
        printf("LACP Msg: interface %d/%d was not there at the start: restart lacpd to take it!\n", slot, port);
    return result;
}

// ---- link status ----------------------------------------------------------------------------------------------

void change_link(int slot, std::uint32_t port, std::string_view status)
{
    std::uint8_t group = 0;
    std::uint32_t size = sizeof(group);
    if (db_olt_lacp_get_trunk_channel_group(slot, port, &g_lacpd_db, &group, &size) != 0 || group == 0)
        return;
    char type[TYPE_TEXT_SIZE] = {};
    size = sizeof(type);
    if (db_olt_lacp_get_group_lacp_type(group, &g_lacpd_db, type, &size) != 0)
        return;
    if ((db_debug_get() & KEL_DB_DEBUG_DAEMON) != 0)
        printf("[DATABASE INFO] %s => interface gigabitEthernet %d/%d is [%s], lacp type is [%s]\n",
               "lacp_port_uplink_change_cb", slot, port, status.data(), type);
    const bool up = status == "up";
    if (strcmp(type, "manual") == 0)
        deal_manual_channel_updown_port(group, slot, port, up);
    else if (strcmp(type, "dynamic") == 0)
        deal_dynamic_channel_updown_port(group, slot, port, up);
}

} // namespace

int lacp_channel_group_del_cb(const sr_val_t *old_value)
{
    if (old_value == nullptr)
        return LAC_OK;
    int group = 0;
    char leaf[LEAF_SIZE] = {};
    sscanf(old_value->xpath, "/olt-lacp:channel-group/group[id='%d']/%19s", &group, leaf);
    char member_path[PATH_SIZE];
    char join_path[PATH_SIZE];
    char group_path[PATH_SIZE];
    snprintf(member_path, sizeof(member_path), "/olt-lacp:channel-group/group[id='%d']/member-port", group);
    snprintf(join_path, sizeof(join_path), "/olt-lacp:channel-group/group[id='%d']/join-port", group);
    snprintf(group_path, sizeof(group_path), "/olt-lacp:channel-group/group[id='%d']", group);
    const std::string_view path = old_value->xpath;
    if (path == member_path) {
        const PortName port = port_name_of(old_value);
        return remove_member(group, port.slot, port.port);
    }
    if (path == group_path)
        return remove_group(group);
    if (path == join_path)
        set_lacp_channel_group_id(port_name_of(old_value).port, 0);
    return LAC_OK;
}

// Members that come behind a deletion are not looked at one by one; more than a list has room for are refused here.
static int refuse_overfull(sr_session_ctx_t *session)
{
    const int group = kel_db_group_beyond(session, CHANNEL_GROUP_MAX_PORTS);
    if (group == 0)
        return LAC_OK;
    printf("LACP Msg: The number of ports in channel-group %d has already reached the maximum!\n", group);
    return LAC_BAD_ARGUMENT;
}

int lacp_channel_group_cb(sr_session_ctx_t *session, std::uint32_t, const char *, const char *xpath, sr_event_t event,
                          std::uint32_t, void *)
{
    return walk_changes(session, xpath, event, change_group_leaf, [session](const sr_val_t *old_value) {
        const int result = lacp_channel_group_del_cb(old_value);
        return result == LAC_OK ? refuse_overfull(session) : result;
    });
}

int lacp_global_configuration_cb(sr_session_ctx_t *session, std::uint32_t, const char *, const char *xpath,
                                 sr_event_t event, std::uint32_t, void *)
{
    return walk_changes(session, xpath, event, change_global_leaf, ignore_deletion);
}

int lacp_interface_trunk_cb(sr_session_ctx_t *session, std::uint32_t, const char *, const char *xpath,
                            sr_event_t event, std::uint32_t, void *)
{
    return walk_changes(session, xpath, event, change_trunk_leaf, ignore_deletion);
}

int lacp_port_uplink_change_cb(sr_session_ctx_t *session, std::uint32_t, const char *, const char *xpath,
                               sr_event_t event, std::uint32_t, void *)
{
    if (event != SR_EV_DONE)
        return LAC_OK;
    ChangeWalk walk(session, xpath);
    if (!walk.next() || walk.operation() == SR_OP_CREATED || walk.new_value() == nullptr)
        return LAC_OK;
    unsigned slot = 0;
    unsigned port = 0;
    sscanf(walk.new_value()->xpath,
           "/olt-ifm:up-link-ports/interface[name='gigabitethernet %u/%u']/interface-basic/link-status", &slot,
           &port);
    change_link(static_cast<int>(slot), port, text_of(walk.new_value()));
    return LAC_OK;
}
