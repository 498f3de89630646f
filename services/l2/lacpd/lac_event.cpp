#include "lac_event.h"

#include "lac_mux.h"
#include "lac_port.h"
#include "lac_rx.h"
#include "lac_select.h"
#include "lac_task.h"
#include "lac_timer.h"
#include "lac_tx.h"

// ---- initialisation ----------------------------------------------------------------------------------------------

static void init_actor(LacPort *port, const LacPortCfg &cfg)
{
    const std::uint16_t system_priority = lacpCtrl.system_priority;
    const int mode = cfg.passive == 1 ? LAC_INITIAL_STATE & ~LAC_ACTIVITY : LAC_INITIAL_STATE;
    const int timeout = cfg.timeout == 1 ? LAC_TIMEOUT : 0;

    port->actor_system_priority = system_priority;
    port->actor_oper_key = cfg.key;
    port->actor_port_priority = cfg.port_priority;
    port->actor_port = port->port_no;
    port->actor_admin_system_priority = system_priority;
    port->actor_admin_system = port->system->system_mac;
    port->actor_admin_key = cfg.key;
    port->actor_admin_port_priority = cfg.port_priority;
    port->actor_admin_port = port->port_no;
    port->actor_admin_state = static_cast<std::uint8_t>(mode);
    port->actor_oper_state = static_cast<std::uint8_t>(mode | timeout);
}

// The partner's system address is not touched: it stays what was last heard.
static void init_partner(LacPort *port)
{
    port->partner_admin_system_priority = 0;
    port->partner_admin_key = 0;
    port->partner_admin_port_priority = 0;
    port->partner_admin_port = 0;
    port->partner_admin_state = 0;
    port->partner_system_priority = 0;
    port->partner_oper_key = 0;
    port->partner_port_priority = 0;
    port->partner_port = 0;
    port->partner_oper_state = 0;
}

static void init_aggregator(LacPort *port, const LacPortCfg &cfg)
{
    lacChangeAggregator(port, port);
    port->next_lag_port = port;
    port->aggregator_mac = port->port_mac;
    port->aggregator_id = port->port_no;
    port->aggregator_oper_key = cfg.key;
    port->aggregator_partner_system_priority = port->partner_admin_system_priority;
    port->aggregator_partner_key = port->partner_admin_key;
    port->individual = 1;
}

int lacInitPort(LacPort *port)
{
    const LacPortCfg &cfg = lac_port_cfg(port);
    lac_trace(LAC_DBG_PORT, "\r\n  %s lacInit port %d \n\r", "lacInitPort", port->port_no);
    init_actor(port, cfg);
    init_partner(port);
    lac_trace(LAC_DBG_PORT, "[lacPortInfoGet ()]");
    init_aggregator(port, cfg);
    port->ntt = 1;
    port->port_enabled = 0;
    port->ready_n = 0;
    port->ready = 0;
    port->selected = LAC_UNSELECTED;
    port->port_moved = 0;
    port->matched = 0;
    port->hold_count = 0;
    port->member_barred = 0;
    port->member_bar = 0;

    Lac_timers_init(port);
    tx_machine(port, Lac_init);
    lacMuxMachineInitPort(port);
    lacRxMachine(port, Lac_init, nullptr);
    periodic_machine(port, Lac_init);
    mux_scheduler_start(port);
    return LAC_OK;
}

// ---- events ------------------------------------------------------------------------------------------------------

void lacSystemStateSet(std::uint32_t value)
{
    lacSystem->system_state = value;
}

int lac_set(std::uint32_t on_or_off)
{
    if (on_or_off == LAC_SET_ON) {
        lacSystemStateSet(1);
        for (LacPort *port : lac_ports()) {
            Detach_Mux_From_Aggregator(port->port_no, port->port_no); // switching off has left it attached
            lacInitPort(port);
            lacInitPortMask(port);
        }
        lac_trace(LAC_DBG_GLOBAL, " lac ON \r");
        return LAC_OK;
    }
    lacSystemStateSet(0);
    lacReattachApsToAgs();
    for (LacPort *port : lac_ports())
        lacRxMachine(port, Lac_init, nullptr);
    lac_trace(LAC_DBG_GLOBAL, " lac OFF \r");
    return LAC_OK;
}

void lacSetPort(LacPort *port, std::uint32_t event)
{
    if (event == Lac_port_enabled)
        port->port_enabled = 1;
    else if (event == Lac_port_disabled)
        port->port_enabled = 0;
    lac_trace(LAC_DBG_SELECT, "[lacSetPort port %d event %d]\r\n", port->port_no, event);
}

int lacEnablePort(LacPort *port)
{
    if (get_lac_global_enable() != 1)
        return LAC_OK;
    const std::uint32_t link = lacIsLinkUp(port);
    const std::uint32_t duplex = lacIsPortFullDuplex(port);
    lac_trace(LAC_DBG_PORT, "\r\n %s enable port %d  enable %d link %d duplex %d lac glable %d\n\r", "lacEnablePort",
              port->port_no, 1, link, duplex, get_lac_global_enable());
    const LacEvent event = link == 1 && duplex == 1 ? Lac_port_enabled : Lac_port_disabled;
    lacSetPort(port, event);
    tx_machine(port, event);
    lacRxMachine(port, event, nullptr);
    lacSelect(port);
    return LAC_OK;
}

static void stop_port(LacPort *port)
{
    lacSetPort(port, Lac_port_disabled);
    tx_machine(port, Lac_port_disabled);
    lacRxMachine(port, Lac_port_disabled, nullptr);
    periodic_machine(port, Lac_port_disabled);
    lacSelect(port);
}

int lacDisablePort(LacPort *port)
{
    if (get_lac_global_enable() != 1)
        return LAC_OK;
    lac_trace(LAC_DBG_QUEUE, "\r\n %s disable port %d\n\r", "lacDisablePort", port->port_no);
    stop_port(port);
    return lacInitPort(port);
}

void lacSetPortLacpState(std::uint32_t port_no, std::uint32_t state)
{
    LacPort *port = lacNoToPort(port_no);
    if (port == nullptr)
        return;
    if (state == 1) {
        port->lacp_enabled = 1;
        lacEnablePort(port);
        return;
    }
    port->lacp_enabled = 0;
    lac_clear_actor_state(port, LAC_TIMEOUT);
    lacDisablePort(port);
}

static LacPort *running_port(std::uint32_t port_no)
{
    LacPort *port = lacNoToPort(port_no);
    return port != nullptr && port->lacp_enabled == 1 ? port : nullptr;
}

void lacLinkUp(std::uint32_t port_no)
{
    LacPort *port = running_port(port_no);
    if (port == nullptr)
        return;
    lac_trace(LAC_DBG_PORT, "\n lacLinkUp port:%d\r\n", port_no);
    lacSetPort(port, Lac_port_enabled);
    tx_machine(port, Lac_init);
    lacRxMachine(port, Lac_port_enabled, nullptr);
    tx_machine(port, Lac_ntt);
    lacSelect(port);
}

void lacLinkDown(std::uint32_t port_no)
{
    LacPort *port = running_port(port_no);
    if (port == nullptr)
        return;
    lac_trace(LAC_DBG_PORT, "\n lacLinkDown port:%d\r\n", port_no);
    stop_port(port);
}

// ---- configured attributes ------------------------------------------------------------------------------------

static void apply_state(LacPort *port, std::uint32_t state)
{
    lacSetPortLacpState(port->port_no, state);
}

static void apply_timeout(LacPort *port, std::uint32_t timeout)
{
    const bool is_short = timeout == 1;
    lac_port_cfg(port).timeout = is_short;
    if (is_short)
        lac_set_actor_state(port, LAC_TIMEOUT);
    else
        lac_clear_actor_state(port, LAC_TIMEOUT);
    if (port->lacp_enabled == 1)
        start_current_while_timer(port, is_short);
}

// The administrative state follows, so that a re-initialised receive machine keeps the mode.
static void apply_mode(LacPort *port, std::uint8_t mode)
{
    const bool active = (mode & 1) != 0;
    lac_port_cfg(port).passive = !active;
    if (active) {
        lac_set_actor_state(port, LAC_ACTIVITY);
        port->actor_admin_state |= LAC_ACTIVITY;
    } else {
        lac_clear_actor_state(port, LAC_ACTIVITY);
        port->actor_admin_state &= static_cast<std::uint8_t>(~LAC_ACTIVITY);
    }
}

static void apply_priority(LacPort *port, std::uint16_t priority)
{
    port->actor_port_priority = priority;
    lac_port_cfg(port).port_priority = priority;
}

static void apply_key(LacPort *port, std::uint16_t key)
{
    port->actor_oper_key = key;
    port->aggregator_oper_key = key;
    port->aggregator_admin_key = key;
    lac_port_cfg(port).key = key;
}

static void apply_group(LacPort *port, std::uint32_t group)
{
    port->channel_group_id = group;
}

namespace
{

struct AttributeRow {
    LacQueueCode code;
    void (*apply)(LacPort *port, std::uint64_t payload);
};

// The payload has the width that the attribute was sent with, which is the one that it is applied with.
template <auto attribute, auto apply> constexpr AttributeRow row()
{
    return {attribute.code, [](LacPort *port, std::uint64_t payload) {
                using Value = typename decltype(attribute)::Type;
                constexpr void (*action)(LacPort *, Value) = apply;
                action(port, static_cast<Value>(payload));
            }};
}

// A new attribute is a row here, its apply function, and its name in lac_task.h.
constexpr AttributeRow ATTRIBUTES[] = {
    row<LAC_PORT_STATE, apply_state>(), row<LAC_PORT_TIMEOUT, apply_timeout>(),
    row<LAC_PORT_MODE, apply_mode>(),   row<LAC_PORT_PRIORITY, apply_priority>(),
    row<LAC_PORT_KEY, apply_key>(),     row<LAC_PORT_GROUP, apply_group>(),
};

} // namespace

void lacApplyAttribute(const LacQueueMsg &message)
{
    LacPort *port = lacNoToPort(static_cast<std::uint32_t>(message.port));
    lac_note_change();
    for (const AttributeRow &row : ATTRIBUTES)
        if (row.code == message.code && port != nullptr)
            row.apply(port, message.payload);
}

// The administrative value follows, so that a re-initialised receive machine keeps the priority.
void lacApplySystemPriority(std::uint16_t priority)
{
    lacpCtrl.system_priority = priority;
    lac_note_change();
    for (LacPort *port : lac_ports()) {
        port->actor_system_priority = priority;
        port->actor_admin_system_priority = priority;
    }
}
