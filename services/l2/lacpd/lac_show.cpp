#include "lac_show.h"

#include "channel_group.h"
#include "lac_port.h"

#include "frr/frr.hpp"

const char *const LAC_TIMER_ACTIVE[2] = {"N", "A"};
const char *const LACP_ENABLED[2] = {"D", "U"};
const char *const LACP_BOOL[2] = {"NO  ", "YES "};
const char *const SHOW_MUX[7] = {"None      ", "DETACHED  ", "WAITING   ", "ATTACHED  ",
                                 "COLLECT   ", "DISTRIB   ", "COL_DISTR "};
const char *const SHOW_SELECTION[3] = {"UNSELECTED", "SELECTED  ", "STANDBY   "};
const char *const SHOW_TX_MACHINE[5] = {"NO_PERIODIC  ", "FAST_PERIODIC", "SLOW_PERIODIC", "PERIODIC     ",
                                        "PERIODIC_TX  "};
const char *const SHOW_RX_MACHINE[7] = {"UNINIT    ", "CURRENT   ", "EXPIRED   ", "DEFAULTED ",
                                        "INITIALIZE", "LACP_DISAB", "P_DISABLED"};

namespace
{

constexpr int LOOP_BIT = 25; // of port_mask, as the aggregator port block prints it
constexpr int INDIVIDUAL_BIT = 24;
constexpr int FIRST_PORT_BIT = 23;
constexpr int BITS_A_GROUP = 8;

// A name that stays inside its table whatever the field holds.
template <std::size_t N> const char *name(const char *const (&table)[N], std::uint32_t value)
{
    return table[value < N ? value : 0];
}

int bit(std::uint32_t word, int number)
{
    return static_cast<int>(word >> number & 1);
}

// ---- full dump: one function a row, one table for the blocks --------------------------------------------------

void state_row(vty *vty, const LacPort *port)
{
    const LacPort *aggregator = port->aggregator;
    vty_out(vty, "\n%02d   %s %s %s %s %s %02d %d", port->port_no, name(SHOW_RX_MACHINE, port->rxm),
            name(SHOW_TX_MACHINE, port->txm), name(SHOW_SELECTION, port->selected),
            name(SHOW_MUX, port->muxm & LAC_MUX_STATE_MASK), name(LACP_BOOL, port->lacp_enabled), aggregator->port_no,
            port->coll_dist.get());
}

void timer_row(vty *vty, const LacPort *port)
{
    const LacTimer &current = port->current_while_timer;
    const LacTimer &wait = port->wait_while_timer;
    const LacTimer &scheduler = port->tx_scheduler;
    const LacTimer &periodic = port->periodic_timer;
    vty_out(vty, "\n%02d   %02d (%02d) %s   %02d (%02d) %s    %02d (%02d) %s  %02d (%02d) %s  %s %d", port->port_no,
            current.count.get(), current.reload.get(), name(LAC_TIMER_ACTIVE, current.active), wait.count.get(),
            wait.reload.get(), name(LAC_TIMER_ACTIVE, wait.active), scheduler.count.get(), scheduler.reload.get(),
            name(LAC_TIMER_ACTIVE, scheduler.active), periodic.count.get(), periodic.reload.get(),
            name(LAC_TIMER_ACTIVE, periodic.active), name(LACP_BOOL, port->ntt), port->hold_count.get());
}

void port_row(vty *vty, const LacPort *port)
{
    const Mac &mac = port->port_mac;
    const std::uint8_t actor = port->actor_oper_state;
    const std::uint8_t partner = port->partner_oper_state;
    vty_out(vty, "\n%02d %03d %s%02x:%02x:%02x:%02x:%02x:%02x %03d %03d %d%d%d%d %d%d%d%d %d%d%d%d %d%d%d%d %s",
            port->port_no, port->partner_port.get(), name(LACP_BOOL, port->ntt), mac[0], mac[1], mac[2], mac[3],
            mac[4], mac[5], port->actor_oper_key.get(), port->actor_port_priority.get(), bit(actor, 0), bit(actor, 1),
            bit(actor, 2), bit(actor, 3), bit(actor, 4), bit(actor, 5), bit(actor, 6), bit(actor, 7), bit(partner, 0),
            bit(partner, 1), bit(partner, 2), bit(partner, 3), bit(partner, 4), bit(partner, 5), bit(partner, 6),
            bit(partner, 7), name(LACP_BOOL, port->port_moved));
    vty_out(vty, lacIsLinkUp(port) == 1 ? " Up  " : " Dwn ");
    vty_out(vty, lacIsPortFullDuplex(port) == 1 ? " Full" : " Half");
    vty_out(vty, " %d", lacGetLinkSpeed(port));
}

void aggregator_port_row(vty *vty, const LacPort *port)
{
    const std::uint32_t mask = port->port_mask;
    vty_out(vty, "\n%02d %04d %04d", port->port_no, port->actor_oper_key.get(), port->partner_oper_key.get());
    vty_out(vty, "%d", bit(mask, LOOP_BIT));
    vty_out(vty, "%d ", bit(mask, INDIVIDUAL_BIT));
    const auto ports = static_cast<int>(lacpCtrl.port_count.get());
    for (int printed = 1; printed <= ports; ++printed) {
        vty_out(vty, "%d", bit(mask, FIRST_PORT_BIT + 1 - printed));
        if (printed % BITS_A_GROUP == 0)
            vty_out(vty, " ");
    }
    vty_out(vty, " ");
    const LacPort *const aggregator = port->aggregator;
    const LacPort *member = aggregator;
    do {
        vty_out(vty, "%d,", member->port_no);
        member = member->next_lag_port;
    } while (member != aggregator);
}

void aggregator_row(vty *vty, const LacPort *port)
{
    const Mac mac = port->aggregator_mac;
    const Mac partner = port->partner_system;
    vty_out(vty, "\n%02d %02x:%02x:%02x:%02x:%02x:%02x %03d %s %02d  %02x:%02x:%02x:%02x:%02x:%02x %02d %s/%s",
            port->port_no, mac[0], mac[1], mac[2], mac[3], mac[4], mac[5], port->aggregator_id.get(),
            name(LACP_BOOL, port->individual), port->actor_oper_key.get(), partner[0], partner[1], partner[2],
            partner[3], partner[4], partner[5], port->partner_oper_key.get(), name(LACP_BOOL, port->ready),
            name(LACP_BOOL, port->ready_n));
}

void statistics_row(vty *vty, const LacPort *port)
{
    const LacPortStats &stats = *port->stats;
    vty_out(vty, "\n%02d  %s%s %06d %06d %06d %06d %06d %06d %04d %04d   %08d  %08d", port->port_no,
            name(LACP_ENABLED, port->port_enabled), name(LACP_ENABLED, port->lacp_enabled), stats.tx_lacpdu.get(),
            stats.rx_lacpdu.get(), stats.rx_illegal.get(), stats.rx_unknown.get(), stats.rx_marker.get(),
            stats.rx_marker_response.get(), port->hold_count.get(), stats.moved.get(), stats.change_count.get(),
            stats.trans_count.get());
}

// Clause 43.4.6 names an aggregation without port numbers; only a port that is alone shows its own.
void identifier_row(vty *vty, const LacPort *port)
{
    const LacPort *aggregator = port->aggregator;
    const bool alone = port->next_lag_port == port;
    const LacInfo actor = lac_actor_info(port);
    const Mac partner = port->partner_system;
    vty_out(vty, "\n%02d %02d [(%04x,%02x-%02x-%02x-%02x-%02x-%02x,%04x,", port->port_no, aggregator->port_no,
            actor.system_priority, actor.system[0], actor.system[1], actor.system[2], actor.system[3],
            actor.system[4], actor.system[5], actor.key);
    vty_out(vty, "%02x,%04x),", alone ? actor.port_priority : 0, alone ? actor.port : 0);
    vty_out(vty, " (%04x,%02x-%02x-%02x-%02x-%02x-%02x,%04x,", port->partner_system_priority.get(), partner[0],
            partner[1], partner[2], partner[3], partner[4], partner[5], port->partner_oper_key.get());
    vty_out(vty, "%02x,%04x)]", alone ? port->partner_port_priority.get() : 0, alone ? port->partner_port.get() : 0);
}

struct Block {
    int asterisks;
    int dashes;
    const char *title;
    const char *header;
    void (*row)(vty *vty, const LacPort *port);
    const char *legend; // framed by its own dashes instead of the block's, or null
};

constexpr int LEGEND_DASHES = 71;

constexpr Block BLOCKS[] = {
    {64, 64, "\n                    LACP State Machines: ver 01               ",
     "\nPort Receive    Transmit      Selection  Mux        LACP Ag CD", state_row, nullptr},
    {61, 61, "\n                    LACP Timers                              ",
     "\nPort Cur_while   Wait_while   tx_sched   periodic_t NTT  HCT", timer_row, nullptr},
    {75, 75, "\n                    LAC Port Information                     ",
     "\nP# PPN NTT MAC               Key Pri State     PState    Move Lnk  Dpx   Spd", port_row,
     "\nState = Activity Timeout Agg. Sync. Coll. Dist. Def. Exp.    "},
    {62, 62, "\n                    LAC Aggregator Port Information           ",
     "\nP# AKey PKey Loop Ind  APort Pbits                         Ports", aggregator_port_row, nullptr},
    {62, 62, "\n                 LAC Aggregator Information                   ",
     "\nP# MAC               ID  Indv Key PMAC              PK Ready/N", aggregator_row, nullptr},
    {79, 79, "\n                    LAC Port Statistics                       ",
     "\nP#  PL TxPDU  RxPDU  RxIllg RxUnkn RxMrk  RxMrs  hold moved  ChangeCt  TransCt", statistics_row, nullptr},
    {87, 86, "\n                              [(actor LAG ID), (partner LAG ID)]        ",
     "\nP# A# [(Prio,actor MAC address,key ,pr,P # ), (Prio,partn MAC address,key ,pr,P # ])", identifier_row,
     nullptr},
};

void rule(vty *vty, char mark, int count)
{
    vty_out(vty, "\n%s", std::string(static_cast<std::size_t>(count), mark).c_str());
}

void show_block(vty *vty, const Block &block)
{
    rule(vty, '*', block.asterisks);
    vty_out(vty, "%s", block.title);
    rule(vty, '-', block.dashes);
    vty_out(vty, "%s", block.header);
    rule(vty, '-', block.dashes);
    for (const LacPort *port : lac_ports())
        block.row(vty, port);
    if (block.legend == nullptr) {
        rule(vty, '-', block.dashes);
    } else {
        rule(vty, '-', LEGEND_DASHES);
        vty_out(vty, "%s", block.legend);
        rule(vty, '-', LEGEND_DASHES);
    }
    vty_out(vty, "\n");
}

// ---- neighbours -----------------------------------------------------------------------------------------------

char rate_flag(std::uint8_t state)
{
    return (state & LAC_TIMEOUT) != 0 ? 'F' : 'S';
}

char mode_flag(std::uint8_t state)
{
    return (state & LAC_ACTIVITY) != 0 ? 'A' : 'P';
}

void show_local(vty *vty, const LacPort *port)
{
    const Mac system = lacSystem->system_mac;
    const std::uint8_t state = port->actor_oper_state;
    vty_out(vty, "\r\nLocal information:\r\n");
    vty_out(vty, "------------------\r\n");
    vty_out(vty, "System ID:0x%04x,   %02x%02x.%02x%02x.%02x%02x\r\n", lacSystem->system_priority.get(), system[0],
            system[1], system[2], system[3], system[4], system[5]);
    vty_out(vty, "                    Flags    LACP port    Admin   Oper   Port    Port\r\n");
    vty_out(vty, "Port                         Priority      Key    Key   Number   State\r\n");
    vty_out(vty, "gigabitEthernet%d/%02d", LAC_SLOT, port->port_no);
    vty_out(vty, " %c%c%c", rate_flag(state), mode_flag(state), port->individual != 0 ? 'I' : ' ');
    vty_out(vty, "       %d        %d      %d", port->actor_port_priority.get(), port->aggregator_oper_key.get(),
            port->actor_oper_key.get());
    vty_out(vty, "     %d  ", port->port_no);
    vty_out(vty, "    %x  ", state);
    vty_out(vty, "\r\n");
}

int show_partner(vty *vty, const LacPort *port)
{
    const Mac system = port->partner_system;
    const std::uint8_t state = port->partner_oper_state;
    vty_out(vty, "\r\nPartner's information:\r\n");
    vty_out(vty, "----------------------\r\n");
    vty_out(vty, "Parter 's system ID:0x%04x, %02x%02x.%02x%02x.%02x%02x\r\n",
            port->aggregator_partner_system_priority.get(), system[0], system[1], system[2], system[3], system[4],
            system[5]);
    vty_out(vty, "                    Flags    LACP port     Oper     Port     Port\r\n");
    vty_out(vty, "Port                         Priority      Key     Number   State\r\n");
    vty_out(vty, "gigabitEthernet%d/%02d", LAC_SLOT, port->port_no);
    vty_out(vty, " %c%c ", rate_flag(state), mode_flag(state));
    vty_out(vty, "       %d        %d", port->partner_port_priority.get(), port->partner_oper_key.get());
    vty_out(vty, "        %d  ", port->partner_port.get());
    vty_out(vty, "     %x  ", state);
    return vty_out(vty, "\r\n");
}

} // namespace

// ---- entry points ---------------------------------------------------------------------------------------------

int lacShowLinkAggregation(vty *vty, std::uint32_t)
{
    if (lacSystem == nullptr) {
        vty_out(vty, "\r\nLACP not initialization.\r\n");
        return LAC_FAILED;
    }
    if (lacSystem->system_state == 0) {
        vty_out(vty, "\r\nLACP disabled\r\n");
        return LAC_OK;
    }
    const Mac system = lacSystem->system_mac;
    vty_out(vty, "\r\nSystem ID: %02x%02x.%02x%02x.%02x%02x\r\n", system[0], system[1], system[2], system[3],
            system[4], system[5]);
    vty_out(vty, "Port   [Sys P] [Port P]   [Key]    [APort]  [Syn]  [Col]  [Dis]\r\n");
    for (const LacPort *port : lac_ports()) {
        const LacPort *aggregator = port->aggregator;
        vty_out(vty, "% 4d %8d %7d %8d %8d  %6d", port->port_no, port->actor_system_priority.get(),
                port->actor_port_priority.get(), port->actor_oper_key.get(), aggregator->port_no,
                (port->actor_oper_state & LAC_SYNCHRONIZATION) != 0);
        vty_out(vty, port->coll_dist == 1 ? "      Col    Dis\r\n" : "      No     No\r\n");
    }
    return LAC_OK;
}

int lacShowAll(vty *vty)
{
    for (const Block &block : BLOCKS)
        show_block(vty, block);
    return LAC_OK;
}

int lacShowNeighbor(vty *vty, int group)
{
    if (lacSystem == nullptr)
        return vty_out(vty, "\r\nLACP not initialization.\r\n");
    if (lacSystem->system_state == 0)
        return vty_out(vty, "\r\nLACP disabled\r\n");
    if (group < 0 || group > CHANNEL_GROUP_MAX_NUM)
        return vty_out(vty, "Invalid group id, correct group id is 1 to %d.\r\n", CHANNEL_GROUP_MAX_NUM);
    vty_out(vty, "\r\n\r\nchannel group %d port information\r\n", group);
    vty_out(vty, "---------------------------------\r\n");
    vty_out(vty, "Flags:  S - Device is sending Slow LACPDUs.   F - Device is sending fast LACPDUs.\r\n");
    vty_out(vty, "        A - Device is in active mode.         P - Device is in passive mode.\r\n");
    int result = vty_out(vty, "        I - Stand-alone.\r\n");
    for (const LacPort *port : lac_ports()) {
        if (port->channel_group_id != static_cast<std::uint32_t>(group) || port->lacp_enabled != 1 ||
            port->port_enabled != 1)
            continue;
        vty_out(vty, "\r\nPort: gigabitEthernet%d/%d\r\n", LAC_SLOT, port->port_no);
        vty_out(vty, "----------------------\r\n");
        show_local(vty, port);
        result = show_partner(vty, port);
    }
    return result;
}
