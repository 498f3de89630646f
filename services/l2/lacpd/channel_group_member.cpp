#include "channel_group_member.h"

#include "channel_group.h"
#include "lac_port.h"
#include "lac_store.h"
#include "lac_task.h"
#include "lacp_sclient.h"

#include "frr/frr.hpp"
#include "sclient/sclient.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <memory>
#include <optional>
#include <type_traits>

static PortTold told[LAC_MAX_PORTS];
static std::uint16_t told_system_priority = LAC_DEFAULT_PRIORITY;
static std::optional<Mac> told_system_mac; // none: what the records began with

const PortTold &lacp_told(std::uint32_t port)
{
    return told[(port - 1) % LAC_MAX_PORTS];
}

std::uint16_t lacp_told_system_priority()
{
    return told_system_priority;
}

Mac lacp_told_system_mac()
{
    return told_system_mac.value_or(lacSystem == nullptr ? Mac{} : lacSystem->system_mac.get());
}

// ---- protocol start -------------------------------------------------------------------------------------------

int channel_group_daemon_init()
{
    channel_group_table_init();
    return dynamic_channel_init();
}

int dynamic_channel_init()
{
    lacpCtrl = LacpCtrl{};
    lacpCtrl.channel_group_max = static_cast<std::uint32_t>(CHANNEL_GROUP_MAX_NUM);
    lacpCtrl.system_priority = told_system_priority = LAC_DEFAULT_PRIORITY;
    told_system_mac.reset();
    std::fill(std::begin(told), std::end(told), PortTold{});
    lacpCtrl.port_count = intf.last_uplink_port;
    for (std::uint32_t port = intf.first_uplink_port;
         port >= 1 && port <= intf.last_uplink_port && port <= LAC_MAX_PORTS; ++port) {
        LacPortCfg &cfg = lacPortCfg[port - 1];
        cfg = LacPortCfg{};
        cfg.key = LAC_DEFAULT_KEY;
        cfg.port_priority = LAC_DEFAULT_PRIORITY;
    }
    lac_LacInit();
    lac_TaskInit();
    lacpCtrl.started = 1;
    return 1;
}

void start_lacp_once_cfg()
{
    if (lacpCtrl.once_cfg_done != 0)
        return;
    lacpDrvCtrlInit();
    set_lac_global_enable(1);
    lacpCtrl.once_cfg_done = 1;
}

void resume_lacp_once_cfg()
{
    lacpDrvCtrlInit();
    lacWaitAndSend("resume_lacp_once_cfg", LAC_Q_LACP_ON, 0, 0);
    lacpCtrl.once_cfg_done = 1;
}

// ---- membership -----------------------------------------------------------------------------------------------

int set_manual_channel_group_type(int group)
{
    return set_channel_group_type(group, CHANNEL_GROUP_MANUAL);
}

int set_dynamic_channel_group_type(int group)
{
    return set_channel_group_type(group, CHANNEL_GROUP_DYNAMIC);
}

int set_channel_group_add_port(int group, int slot, std::uint32_t port)
{
    int result = check_channel_group_port_count(group);
    if (result != LAC_OK) {
        printf("LACP Msg: The number of ports in channel-group %d has already reached the maximum!\n", group);
        return result;
    }
    result = set_channel_group_port_list(group, slot, port, LIST_ADD);
    if (result != LAC_OK) {
        printf("LACP Msg: Set port %d to channel-group %d failed which was already in it!\n", port, group);
        return result;
    }
    std::uint32_t up = 0;
    result = get_channel_group_port_link_status(slot, port, &up);
    if (result != LAC_OK || up == 0)
        return result;
    result = deal_channel_group_updown_port(group, slot, port, 1, 0);
    if (result != LAC_OK)
        printf("LACP Msg: Set uplink port %d to channel-group %d failed which was already in it!\n", port, group);
    return result;
}

int set_channel_group_del_port(int group, int slot, std::uint32_t port)
{
    int result = set_channel_group_port_list(group, slot, port, LIST_REMOVE);
    if (result != LAC_OK)
        return result;
    result = deal_channel_group_updown_port(group, slot, port, 0, 1);
    if (result != LAC_OK)
        printf("LACP Msg: Del uplink port %d from channel-group %d failed which wasn't in it!\n", port, group);
    return result;
}

// Non-zero, or a removal that found nothing, ends the event; `done` says so.
static int update_uplink_list(int group, int slot, std::uint32_t port, int up, int del, bool &done)
{
    done = false;
    if (del == 0 && up == 1) {
        const int result = set_channel_group_uplink_port_list(group, slot, port, LIST_ADD);
        done = result != LAC_OK;
        if (done)
            fprintf(stderr, "LACP Msg: Set uplink port %d to channel-group %d failed which was already in it!\n",
                    port, group);
        return result;
    }
    if (up == 0 || del == 1) {
        done = set_channel_group_uplink_port_list(group, slot, port, LIST_REMOVE) != LAC_OK;
        if (done)
            fprintf(stderr, "LACP Msg: Del uplink port %d from channel-group %d failed which wasn't in it!\n", port,
                    group);
    }
    return LAC_OK;
}

static int report_unsent(int result)
{
    if (result == LAC_FAILED)
        fprintf(stderr, "%s sclient_send_message() failed ret %d\r\n", "deal_channel_group_updown_port", result);
    return result;
}

// The trunk is set to exactly the uplink ports, or taken away with the last of them.
static int update_trunk(int group)
{
    std::uint32_t count = 0;
    int result = get_channel_group_uplink_port_count(group, &count);
    if (result != LAC_OK) {
        fprintf(stderr, "LACP Msg: Get uplink port number in channel-group %d failed\n", group);
        return result;
    }
    if (count == 0)
        return report_unsent(lacp_trunk_destory(static_cast<std::uint32_t>(group)));
    std::uint32_t code = 0;
    std::uint32_t list = 0;
    result = get_channel_group_load_balance(group, &code);
    if (result == LAC_OK)
        result = get_channel_group_uplink_port_list(group, &list);
    if (result != LAC_OK)
        return result;
    return report_unsent(lacp_trunk_create(static_cast<std::uint32_t>(group), code, list, count));
}

int deal_channel_group_updown_port(int group, int slot, std::uint32_t port, int up, int del)
{
    bool done = false;
    const int result = update_uplink_list(group, slot, port, up, del, done);
    return done ? result : update_trunk(group);
}

// A port whose trunk settings name the group need not be a member: another client may have taken it out of the list.
int deal_manual_channel_updown_port(int group, int slot, std::uint32_t port, int up)
{
    std::uint32_t members = 0;
    if (up == 1 && get_channel_group_port_list(group, &members) == LAC_OK && (members >> ((port - 1) % 32) & 1) == 0)
        return LAC_OK;
    return deal_channel_group_updown_port(group, slot, port, up, 0);
}

int deal_dynamic_channel_updown_port(int, int, std::uint32_t port_no, std::uint32_t up)
{
    LacPort *port = lacNoToPort(port_no);
    if (port == nullptr)
        return LAC_NO_OBJECT;
    if (up == 1) {
        printf("\r\n lacpPortLinkStatusEvent  port %d up wait task semaphore\r\n", port_no);
        lacWaitAndSend("lacpPortLinkStatusEvent", LAC_Q_LINK_UP, 0, port->port_no);
    } else if (up == 0) {
        printf("\r\n lacpPortLinkStatusEvent  port %d down wait task semaphore\r\n", port_no);
        lacWaitAndSend("lacpPortLinkStatusEvent", LAC_Q_LINK_DOWN, 0, port->port_no);
    }
    return LAC_OK; // the next tick looks at the link itself
}

// ---- attributes -----------------------------------------------------------------------------------------------

// Sends an attribute of an existing port to the dispatcher; `missing` when no port has the number.
template <typename Value>
static int send_attribute(const char *sender, LacAttribute<Value> attribute, std::uint32_t port_no,
                          std::type_identity_t<Value> value, int missing = LAC_FAILED)
{
    return lacNoToPort(port_no) == nullptr ? missing : lacWaitAndSend(sender, attribute.code, value, port_no);
}

// Notes what an existing port has been told.
template <typename Field, typename Value>
static int note(int result, std::uint32_t port_no, Field PortTold::*field, Value value)
{
    if (result == LAC_OK && lacNoToPort(port_no) != nullptr)
        told[(port_no - 1) % LAC_MAX_PORTS].*field = static_cast<Field>(value);
    return result;
}

static LacPort *port_when_sent(int result, std::uint32_t port_no)
{
    return result == LAC_OK ? lacNoToPort(port_no) : nullptr;
}

int update_lacp_select_port(int port, std::uint32_t group)
{
    return lacWaitAndSend("update_lacp_select_port", LAC_Q_PORT_RESELECT, group, static_cast<std::uint64_t>(port));
}

LacPort *set_lacp_channel_group_id(std::uint32_t port, std::uint32_t group)
{
    const int result = send_attribute("set_lacp_channel_group_id", LAC_PORT_GROUP, port, group);
    return port_when_sent(note(result, port, &PortTold::number, group), port);
}

int get_lacp_port_individual(std::uint32_t port_no)
{
    const LacPort *port = lacNoToPort(port_no);
    return port == nullptr ? LAC_FAILED : static_cast<int>(port->individual.get());
}

int get_lacp_port_state(std::uint32_t port_no)
{
    const LacPort *port = lacNoToPort(port_no);
    return port == nullptr ? LAC_FAILED : static_cast<int>(port->lacp_enabled.get());
}

LacPort *set_lacp_port_oper_key(std::uint32_t port, std::uint16_t key)
{
    return port_when_sent(send_attribute("set_lacp_port_oper_key", LAC_PORT_KEY, port, key), port);
}

int set_lacp_port_priority(int, std::uint32_t port, std::uint16_t priority)
{
    return note(send_attribute("set_lacp_port_priority", LAC_PORT_PRIORITY, port, priority, LAC_NO_OBJECT), port,
                &PortTold::priority, priority);
}

int set_lacp_port_mode(int, std::uint32_t port, std::uint8_t mode)
{
    return note(send_attribute("set_lacp_port_mode", LAC_PORT_MODE, port, mode), port, &PortTold::passive,
                (mode & 1) == 0);
}

int set_lacp_port_timeout(int, std::uint32_t port, std::uint32_t timeout)
{
    return note(send_attribute("set_lacp_port_timeout", LAC_PORT_TIMEOUT, port, timeout, LAC_OK), port,
                &PortTold::short_timeout, timeout == 1);
}

int set_lacp_port_state(std::uint32_t port, std::uint32_t state)
{
    const int result = send_attribute("set_lacp_port_state", LAC_PORT_STATE, port, state);
    return note(result, port, &PortTold::group, state == 1 ? lacp_told(port).number : 0);
}

int set_lacp_port_enable(int port)
{
    const auto number = static_cast<std::uint32_t>(port);
    const int result = lacWaitAndSend("set_lacp_port_enable", LAC_Q_PORT_ENABLE, 0, number);
    return note(result, number, &PortTold::group, lacp_told(number).number);
}

int set_lacp_system_priority(std::uint16_t priority)
{
    if (lacSystem == nullptr)
        return LAC_REFUSED;
    const int result = lacWaitAndSend("set_lacp_system_priority", LAC_Q_SYSTEM_PRIORITY, priority, 0);
    told_system_priority = result == LAC_OK ? priority : told_system_priority;
    return result;
}

int set_lacp_system_mac(const Mac &mac)
{
    if (lacSystem == nullptr)
        return LAC_REFUSED;
    const int result = lacWaitAndSend("set_lacp_system_mac", LAC_Q_SYSTEM_ID, PublishedMac::pack(mac), 0);
    if (result == LAC_OK)
        told_system_mac = mac;
    return result;
}

// ---- after a loss of the driver service --------------------------------------------------------------------------

namespace
{

struct Trunk {
    std::uint32_t load_balance = 0;
    std::uint32_t members = 0;

    bool operator==(const Trunk &) const = default;
};

Trunk trunk_of(int group)
{
    Trunk trunk;
    get_channel_group_load_balance(group, &trunk.load_balance);
    get_channel_group_uplink_port_list(group, &trunk.members);
    return trunk;
}

} // namespace

// The datastore's thread may change the table and send meanwhile. It changes before it sends, so looking again after
// each send until nothing has changed leaves the service with what the table holds.
void lacp_trunk_resync(sclient *client)
{
    if (client == nullptr || lacp_trunk_is_held())
        return;
    const std::unique_ptr<stream, decltype(&stream_free)> out(stream_new(SCLIENT_MAX_MESSAGE), stream_free);
    for (int group = 1; group <= CHANNEL_GROUP_MAX_NUM; ++group) {
        Trunk sent;
        do {
            sent = trunk_of(group);
            if (lacp_trunk_send(client, out.get(), static_cast<std::uint32_t>(group), sent.load_balance,
                                sent.members) != LAC_OK)
                return; // lost again: the next connection starts over
        } while (trunk_of(group) != sent);
    }
}
