#include "lac_mux.h"

#include "channel_group_member.h"
#include "lac_port.h"
#include "lac_timer.h"
#include "lac_tx.h"

#include "keldatabase/keldatabase.h"

#include <cstdio>

// Numbers and names that the attachment messages carry.
constexpr int ATTACH_TRACE_LINE = 792;
constexpr int ATTACH_FAILURE_LINE = 803;
constexpr char ATTACH_NAME[] = "lac_add_port_to_aggregator";
constexpr int DETACH_FAILURE_LINE = 849;
constexpr char DETACH_NAME[] = "lac_bcm_remove_port_from_trunk";

constexpr std::size_t INTERFACE_NAME_SIZE = 32;
constexpr std::uint64_t SETTLE_MS = 400; // of a tick's second

static std::uint32_t port_bit(const LacPort *port)
{
    return 1U << ((port->port_no - 1) % 32);
}

// ---- collecting and distributing ------------------------------------------------------------------------------

void lacEnableCollectingDistributing(LacPort *) {}

void lacDisableCollectingDistributing(LacPort *) {}

void lacInitPortMask(LacPort *port)
{
    LacAggregator *aggregator = port->aggregator;
    aggregator->port_mask = port_bit(port);
    lac_trace(LAC_DBG_MASK, "[Init Mask: %d to %d %x:%x]\r\n", aggregator->port_no, aggregator->port_no,
              aggregator->port_mask.get(), aggregator->port_mask.get());
}

void Enable_Collecting_Distributing(LacPort *port)
{
    if (port->coll_dist == 1)
        return;
    LacAggregator *aggregator = port->aggregator;
    lac_trace(LAC_DBG_COLL_DIST, "[ECD p=%d, ap=%d]\r\n", port->port_no, aggregator->port_no);
    aggregator->port_mask |= port_bit(port);
    lac_trace(LAC_DBG_MASK, "[Add Mask: %d to %d %x:%x]\r\n", port->port_no, aggregator->port_no, port_bit(port),
              aggregator->port_mask.get());
    lacEnableCollectingDistributing(port);
    port->coll_dist = 1;
}

void Disable_Collecting_Distributing(LacPort *port, LacAggregator *aggregator)
{
    if (port->coll_dist == 0)
        return;
    lac_trace(LAC_DBG_COLL_DIST, "[DCD p=%d, ap=%d]\r\n", port->port_no, aggregator->port_no);
    aggregator->port_mask &= ~port_bit(port);
    lac_trace(LAC_DBG_MASK, "[Remove Mask: %d from %d %x:%x]\r\n", port->port_no, aggregator->port_no, port_bit(port),
              aggregator->port_mask.get());
    lacDisableCollectingDistributing(port);
    port->coll_dist = 0;
}

void lacChangeAggregator(LacPort *port, LacAggregator *aggregator)
{
    if (port->coll_dist == 1 && port->aggregator != aggregator) {
        port->aggregator->port_mask &= ~port_bit(port);
        aggregator->port_mask |= port_bit(port);
    }
    port->aggregator = aggregator;
}

// ---- attachment -----------------------------------------------------------------------------------------------

static int write_member(LacPort *port)
{
    char name[INTERFACE_NAME_SIZE] = {};
    snprintf(name, sizeof(name), "gigabitethernet %d/%d", LAC_SLOT, port->port_no);
    const int result =
        db_olt_lacp_set_group_member_port(static_cast<int>(port->member_wanted), &g_lacpd_db, name, sizeof(name), 1);
    if (result != 0)
        printf("LINE %d FUNC %s add interface to lacp-group database failed! ret=%d\n", ATTACH_FAILURE_LINE,
               ATTACH_NAME, result);
    port->member_written = port->member_wanted; // also after a failure: the write may have come through
    port->member_owed = result != 0;
    return result;
}

static int erase_member(LacPort *port, std::uint32_t group)
{
    const int result =
        db_olt_lacp_del_group_member_port(static_cast<int>(group), LAC_SLOT, port->port_no, &g_lacpd_db);
    if (result != 0)
        printf("LINE %d FUNC %s del interface from lacp-group database failed! ret=%d\n", DETACH_FAILURE_LINE,
               DETACH_NAME, result);
    if (port->member_written == group && (result == 0 || result == SR_ERR_NOT_FOUND))
        port->member_written = 0;
    port->member_owed = port->member_written != 0;
    return result;
}

// A port that cannot be taken out of another group's list is not written: it would be in two trunks.
static void move_member(LacPort *port)
{
    if (port->member_written != 0 && port->member_written != port->member_wanted)
        erase_member(port, port->member_written);
    if (port->member_written == 0 || port->member_written == port->member_wanted)
        write_member(port);
}

// One more attempt at a refused write.
static void settle_member(LacPort *port)
{
    if (port->member_wanted != 0)
        move_member(port);
    else if (port->member_written != 0)
        erase_member(port, port->member_written);
}

void lacSettleMembers()
{
    const std::uint64_t start = lac_now_ms();
    for (LacPort *port : lac_ports())
        if (port->member_owed != 0 && lac_now_ms() - start < SETTLE_MS)
            settle_member(port);
}

void Attach_Mux_To_Aggregator(std::uint32_t port_no, int agg_no)
{
    LacPort *port = lacNoToPort(port_no);
    if (port->attached == 1) {
        lac_trace(LAC_DBG_ATTACH, "\r\nPort %d already attached\r\n", port_no);
        return;
    }
    lac_trace(LAC_DBG_ATTACH, "\r\nAttaching port %d to aggregator %d\r\n", port_no, agg_no);
    if (port->rxm == LAC_RX_CURRENT) {
        lac_trace(LAC_DBG_GLOBAL, "\r\nMsg: %s %d   port_no = %d, aggr_no = %d\r\n", ATTACH_NAME, ATTACH_TRACE_LINE,
                  port_no, agg_no);
        if (port->individual == 0) {
            port->member_wanted = port->channel_group_id;
            move_member(port);
        }
    }
    port->attached_group = port->channel_group_id;
    port->attached = 1;
}

void Detach_Mux_From_Aggregator(std::uint32_t port_no, int agg_no)
{
    LacPort *port = lacNoToPort(port_no);
    if (port->attached == 0)
        return;
    lac_trace(LAC_DBG_ATTACH, "Detaching port %d from aggregator %d\r\n", port_no, agg_no);
    if (get_lacp_channel_group_id(port_no) != LAC_FAILED) {
        lac_trace(LAC_DBG_GLOBAL, "\r\nMsg: remove port_no  %d from aggr_no %d.\r\n", port_no, agg_no);
        port->member_wanted = 0;
        erase_member(port, port->attached_group);
    }
    port->attached = 0;
}

// ---- machine --------------------------------------------------------------------------------------------------

std::uint32_t lacGetMuxMachineState(std::uint32_t port_no)
{
    return lacNoToPort(port_no)->muxm & LAC_MUX_STATE_MASK;
}

namespace
{

struct MuxRun {
    LacPort *port;
    int port_no;
    int agg_no;
};

bool is_synchronized(const LacPort *port)
{
    return (port->partner_oper_state & LAC_SYNCHRONIZATION) != 0;
}

// Whether the port may collect and distribute: with a synchronized partner, or alone. Entering and staying have the
// same test, or the machine would go to and fro without end.
bool may_collect(const LacPort *port)
{
    return is_synchronized(port) || (port->individual == 1 && port->rxm == LAC_RX_DEFAULTED);
}

void enter_detached(const MuxRun &run)
{
    LacPort *port = run.port;
    lac_trace(LAC_DBG_MUX, "[%d mux DETACHE]\r\n", run.port_no);
    Detach_Mux_From_Aggregator(port->port_no, run.agg_no);
    port->ready_n = 0;
    lac_clear_actor_state(port, LAC_SYNCHRONIZATION | LAC_COLLECTING | LAC_DISTRIBUTING);
    Disable_Collecting_Distributing(port, port->aggregator);
    tx_machine(port, Lac_ntt);
    port->aggregator_partner_system = Mac{};
    port->aggregator_partner_key = 0;
    port->muxm = LAC_MUX_DETACHED;
}

bool evaluate_detached(const MuxRun &run)
{
    LacPort *port = run.port;
    lac_trace(LAC_DBG_MUX, "[%d mux DETACHED port->selected  %d]\r\n", run.port_no, port->selected.get());
    if (port->selected != LAC_SELECTED && port->selected != LAC_STANDBY)
        return false;
    port->muxm = LAC_MUX_ENTER_WAITING;
    return true;
}

void enter_waiting(const MuxRun &run)
{
    lac_trace(LAC_DBG_MUX, "[%d mux WAIT]\r\n", run.port_no);
    if (run.port->wait_while_timer.active == 0)
        Start_wait_while_timer(run.port);
    run.port->muxm = LAC_MUX_WAITING;
}

// Ready: some selected port of the group has waited long enough.
std::uint32_t group_is_ready(const LacPort *port)
{
    for (const LacPort *other : lac_ports())
        if (other->channel_group_id == port->channel_group_id && other->selected == LAC_SELECTED &&
            other->ready_n != 0)
            return 1;
    return 0;
}

bool evaluate_waiting(const MuxRun &run)
{
    LacPort *port = run.port;
    port->ready = group_is_ready(port);
    lac_trace(LAC_DBG_MUX, "[%d mux WAITING selected %d Ready %d]\r\n", run.port_no, port->selected.get(),
              port->ready.get());
    if (port->selected == LAC_UNSELECTED) {
        port->muxm = LAC_MUX_ENTER_DETACHED;
        return true;
    }
    if (port->selected == LAC_SELECTED && port->ready == 1) {
        port->muxm = LAC_MUX_ENTER_ATTACHED;
        return true;
    }
    Start_wait_while_timer(port);
    return false;
}

void enter_attached(const MuxRun &run)
{
    LacPort *port = run.port;
    lac_trace(LAC_DBG_MUX, "[%d mux ATTACHE]\r\n", run.port_no);
    Attach_Mux_To_Aggregator(port->port_no, run.agg_no);
    Disable_Collecting_Distributing(port, port->aggregator);
    port->stats->attach_count += 1;
    lac_set_actor_state(port, LAC_SYNCHRONIZATION);
    lac_clear_actor_state(port, LAC_COLLECTING | LAC_DISTRIBUTING);
    port->ready_n = 0;
    tx_machine(port, Lac_ntt);
    if (port->aggregator == port) {
        port->aggregator_partner_system = port->partner_system.get();
        port->aggregator_partner_key = port->partner_oper_key;
    }
    port->muxm = LAC_MUX_ATTACHED;
}

bool evaluate_attached(const MuxRun &run)
{
    LacPort *port = run.port;
    lac_trace(LAC_DBG_MUX, "[%d mux ATTACHED selected %d synchronization %d]\r\n", run.port_no, port->selected.get(),
              is_synchronized(port));
    lac_set_actor_state(port, LAC_SYNCHRONIZATION);
    if (port->selected == LAC_UNSELECTED || port->selected == LAC_STANDBY) {
        port->muxm = LAC_MUX_ENTER_DETACHED;
        return true;
    }
    if (port->selected == LAC_SELECTED && may_collect(port)) {
        port->muxm = LAC_MUX_ENTER_COLLECTING_DISTRIBUTING;
        return true;
    }
    return false;
}

// A port that was EXPIRED when it was attached is no member yet. Its partner has been heard again since.
void add_late_member(LacPort *port)
{
    if (port->member_wanted != 0 || port->channel_group_id == 0 || port->rxm != LAC_RX_CURRENT ||
        port->individual == 1)
        return;
    port->member_wanted = port->channel_group_id;
    move_member(port);
}

void enter_collecting_distributing(const MuxRun &run)
{
    LacPort *port = run.port;
    lac_trace(LAC_DBG_MUX, "[%d:mux Col-Dist Event %d]\r\n", run.port_no, port->muxm.get());
    lac_set_actor_state(port, LAC_DISTRIBUTING);
    Enable_Collecting_Distributing(port);
    lac_set_actor_state(port, LAC_COLLECTING);
    tx_machine(port, Lac_ntt);
    port->muxm = LAC_MUX_COLLECTING_DISTRIBUTING;
}

bool evaluate_collecting_distributing(const MuxRun &run)
{
    LacPort *port = run.port;
    lac_trace(LAC_DBG_MUX, "[%d:mux Col-Dist Event %d selected %d synchronization %d]\r\n", run.port_no,
              port->muxm.get(), port->selected.get(), is_synchronized(port));
    if (port->selected != LAC_UNSELECTED && port->selected != LAC_STANDBY && may_collect(port)) {
        add_late_member(port);
        return false;
    }
    port->muxm = LAC_MUX_ENTER_ATTACHED;
    return true;
}

// Runs the block that muxm names; true while there is another one to run.
bool step(const MuxRun &run)
{
    switch (run.port->muxm) {
    case LAC_MUX_ENTER_DETACHED:
        enter_detached(run);
        return true;
    case LAC_MUX_ENTER_WAITING:
        enter_waiting(run);
        return true;
    case LAC_MUX_ENTER_ATTACHED:
        enter_attached(run);
        return true;
    case LAC_MUX_ENTER_COLLECTING:
    case LAC_MUX_ENTER_DISTRIBUTING:
    case LAC_MUX_ENTER_COLLECTING_DISTRIBUTING:
        enter_collecting_distributing(run);
        return true;
    case LAC_MUX_DETACHED:
        return evaluate_detached(run);
    case LAC_MUX_WAITING:
        return evaluate_waiting(run);
    case LAC_MUX_ATTACHED:
        return evaluate_attached(run);
    case LAC_MUX_COLLECTING:
    case LAC_MUX_DISTRIBUTING:
    case LAC_MUX_COLLECTING_DISTRIBUTING:
        return evaluate_collecting_distributing(run);
    default:
        return false;
    }
}

} // namespace

void lacMuxMachine(LacPort *port)
{
    const LacPort *aggregator = port->aggregator;
    const MuxRun run{port, port->port_no, aggregator->port_no};
    lac_trace(LAC_DBG_MUX, "\r\n lacMuxMachine port %d port->muxm %d\r\n", run.port_no, port->muxm.get());
    while (step(run))
        ;
}

void lacMuxMachineInitPort(LacPort *port)
{
    lac_trace(LAC_DBG_UNSELECT, "%d: lacMuxMachineInitPort: UNSELECTED\r\n", port->port_no);
    port->selected = LAC_UNSELECTED;
    port->attached = 0;
    Disable_Collecting_Distributing(port, port->aggregator);
    port->muxm = LAC_MUX_ENTER_DETACHED;
    port->aggregator = port;
    port->next_lag_port = port;
    lac_trace(LAC_DBG_MUX, "\r\n lacMuxMachineInitPort port %d port->muxm %d\r\n", port->port_no, port->muxm.get());
    lacMuxMachine(port);
}
