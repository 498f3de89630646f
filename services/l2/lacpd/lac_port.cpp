#include "lac_port.h"

#include "lac_memory.h"
#include "lac_store.h"

#include "sysutil/sysutil.h"

#include <ctime>

LacSystem *lacSystem;
LacpCtrl lacpCtrl;
LacPortCfg lacPortCfg[LAC_MAX_PORTS];
PortInventory intf;

std::uint64_t lac_now_ms() noexcept
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000 + static_cast<std::uint64_t>(now.tv_nsec) / 1'000'000;
}

// ---- information blocks ---------------------------------------------------------------------------------------

LacInfo lac_actor_info(const LacPort *port)
{
    return {port->actor_system_priority, port->actor_system, port->actor_oper_key,
            port->actor_port_priority,   port->actor_port,   port->actor_oper_state,
            port->actor_reserved};
}

LacInfo lac_partner_info(const LacPort *port)
{
    return {port->partner_system_priority, port->partner_system, port->partner_oper_key,
            port->partner_port_priority,   port->partner_port,   port->partner_oper_state,
            port->partner_reserved};
}

LacInfo lac_partner_admin_info(const LacPort *port)
{
    return {port->partner_admin_system_priority,
            port->partner_admin_system,
            port->partner_admin_key,
            port->partner_admin_port_priority,
            port->partner_admin_port,
            port->partner_admin_state,
            {}};
}

void lac_set_partner_info(LacPort *port, const LacInfo &info)
{
    port->partner_system_priority = info.system_priority;
    port->partner_system = info.system;
    port->partner_oper_key = info.key;
    port->partner_port_priority = info.port_priority;
    port->partner_port = info.port;
    port->partner_oper_state = info.state;
    port->partner_reserved = info.reserved;
}

// ---- records --------------------------------------------------------------------------------------------------

void lac_LacInit()
{
    if (lacSystem != nullptr)
        return;
    lacSystem = lac_new_records<LacSystem>(MTYPE_LACP_SYS, 1);
    lacSystem->system_priority = LAC_DEFAULT_PRIORITY;
    Mac mac{};
    if (system_get_eth_mac(LAC_CPU_INTERFACE, mac.data()) == 0)
        set_lacp_system_id(mac);
    else
        mac = {};
    lacSystem->system_mac = mac;

    const std::uint32_t count = lacpCtrl.port_count;
    LacPort *const head = &lacSystem->head;
    head->next = head;
    head->system = lacSystem;
    if (count == 0)
        return;
    auto *ports = lac_new_records<LacPort>(MTYPE_LACP_PORT, count);
    head->next = &ports[0];
    for (std::uint32_t i = 0; i < count; ++i) {
        LacPort &port = ports[i];
        port.next = i + 1 < count ? &ports[i + 1] : head;
        port.system = lacSystem;
        port.stats = lac_new_records<LacPortStats>(MTYPE_LACP_STATS, 1);
        port.port_no = static_cast<std::uint16_t>(i + 1);
        port.port_mac = mac;
        port.coll_dist = 1;
        port.aggregator = &port;
        port.next_lag_port = &port;
    }
}

LacPort *lacNoToPort(std::uint32_t port_no)
{
    for (LacPort *port : lac_ports())
        if (port->port_no == port_no)
            return port;
    return nullptr;
}

// ---- physical state -------------------------------------------------------------------------------------------

std::uint32_t lacIsLinkUp(const LacPort *port)
{
    std::uint32_t status = 0;
    return get_channel_group_port_link_status(LAC_SLOT, port->port_no, &status) == LAC_OK && status == 1;
}

std::uint32_t lacIsPortFullDuplex(const LacPort *)
{
    return 1;
}

std::int32_t lacGetLinkSpeed(const LacPort *)
{
    return 0;
}

std::uint32_t lacSameSpeed(const LacPort *one, const LacPort *other)
{
    return lacGetLinkSpeed(one) == lacGetLinkSpeed(other);
}

int portMapTotalPortCountGet(std::uint32_t *count)
{
    *count = intf.last_uplink_port;
    return LAC_OK;
}

int get_lacp_channel_group_id(std::uint32_t port_no)
{
    const LacPort *port = lacNoToPort(port_no);
    return port == nullptr ? LAC_FAILED : static_cast<int>(port->channel_group_id.get());
}

std::uint32_t get_lacp_if_startup()
{
    return lacpCtrl.started;
}
