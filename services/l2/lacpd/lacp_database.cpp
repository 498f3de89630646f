#include "lacp_database.h"

#include "channel_group.h"
#include "channel_group_plan.h"
#include "lacp_database_cb.h"
#include "lacp_operational.h"

#include <algorithm>
#include <cstdio>
#include <span>

KelDb g_lacpd_db;

static constexpr DbXpathCb on_change(const char *xpath, sr_module_change_cb handler)
{
    return {xpath, handler, {}, nullptr, nullptr};
}

static constexpr DbXpathCb on_request(const char *xpath, sr_oper_get_items_cb handler)
{
    return {xpath, nullptr, {}, handler, nullptr};
}

static const DbXpathCb lacp_xpaths[] = {
    on_change("/olt-lacp:channel-group/group//.", lacp_channel_group_cb),
    on_change("/olt-lacp:global-configuration//.", lacp_global_configuration_cb),
    {},
};

static const DbXpathCb ifm_lacp_xpaths[] = {
    on_change("/olt-ifm:up-link-ports/interface/olt-lacp:trunk//.", lacp_interface_trunk_cb),
    on_request("/olt-ifm:up-link-ports/interface/olt-lacp:trunk-info/port", lacp_information_get_cb),
    on_change("/olt-ifm:up-link-ports/interface/interface-basic/link-status", lacp_port_uplink_change_cb),
    {},
};

const DbModuleCbs lacp_cbs = {"olt-lacp", lacp_xpaths};
const DbModuleCbs ifm_lacp_cbs = {"olt-ifm", ifm_lacp_xpaths};

int lacp_module_change_cb_init(KelDbSession *session, KelDb *db)
{
    return db_connect_init_with_vty(session, db);
}

int lacp_module_change_cb_free(KelDbSession *session, KelDb *db)
{
    return db_disconnect_free_with_vty(session, db);
}

void lacp_database_init(KelDb *db)
{
    const int result = database_init(db);
    if (result != 0)
        fprintf(stderr, "LACP Msg: init database failed!\n");
    db_debug_flag_reg(db_debug_flag_return());
    sysrepo_debug_fun_reg(sysrepo_debug_func_return());
    if ((db_debug_get() & KEL_DB_DEBUG_DAEMON) != 0)
        printf("[DATABASE INFO] LACP Msg: LACPD connect to database %s! ret=%d\n", result == 0 ? "OK" : "failed",
               result);
}

// Handlers act on single changes, stop at the first deletion and do not learn what became of them. So whatever a
// transaction was, and whether it was committed or given up, what the datastore has behind it is brought about here.
static bool settle(std::span<const sr_module_change_cb> idle)
{
    DbLacpConfiguration configured;
    if (db_olt_lacp_get_configuration(&g_lacpd_db, &configured) != 0)
        return false;
    const std::pair<sr_module_change_cb, bool (*)(const DbLacpConfiguration &)> parts[] = {
        {lacp_channel_group_cb, settle_groups},
        {lacp_port_uplink_change_cb, settle_links},
        {lacp_interface_trunk_cb, settle_ports},
        {lacp_global_configuration_cb, settle_system},
    };
    bool done = true;
    for (const auto &[handler, settle_part] : parts)
        if (std::ranges::find(idle, handler) != idle.end())
            done &= settle_part(configured);
    return done;
}

int lacp_database_subs(KelDb *db)
{
    const DbModuleCbs *const tables[] = {&lacp_cbs, &ifm_lacp_cbs, nullptr};
    db_settle_reg(settle);
    const int result = db_module_subscription_init(db, tables);
    if (result != 0)
        fprintf(stderr, "LACP Msg: LACPD subscription callback func %s! ret = %d\n", "failed", result);
    return result;
}

void lacp_database_clear(KelDb *db)
{
    for (int group = 1; group <= CHANNEL_GROUP_MAX_NUM; ++group)
        db_olt_lacp_del_group_id(group, db);
    if (intf.last_uplink_port != 0) {
        for (std::uint32_t port = intf.first_uplink_port; port <= intf.last_uplink_port; ++port) {
            db_olt_lacp_del_trunk_channel_group(LAC_SLOT, port, db);
            db_olt_lacp_del_trunk_mode(LAC_SLOT, port, db);
            db_olt_lacp_del_trunk_priority(LAC_SLOT, port, db);
            db_olt_lacp_del_trunk_timeout(LAC_SLOT, port, db);
        }
    }
    db_olt_lacp_del_global_configuration_system_priority(db);
}
