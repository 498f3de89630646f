// Shared records and codes of the link-aggregation daemon.
//
// Protocol records (LacSystem, LacPort, LacPortStats, LacpCtrl, LacPortCfg) are written by the dispatcher thread
// alone once it runs; everybody else sends it messages (lac_task.h) and may read the published words.
#pragma once

#include "lac_word.h"

#include "sysutil/sysutil.h"

#include <cstddef>
#include <cstdint>

struct KelDb;

// ---- result codes ---------------------------------------------------------------------------------------------

enum LacResult : int {
    LAC_OK = 0,
    LAC_FAILED = -1,
    LAC_UNKNOWN_LEAF = -2, // a datastore leaf that a handler does not know
    LAC_BAD_ARGUMENT = -9,
    LAC_REFUSED = -11,   // a value already set, or a change that is not allowed
    LAC_NO_OBJECT = -27, // a missing port or out-parameter
};

// ---- protocol constants ---------------------------------------------------------------------------------------

constexpr std::uint32_t LAC_MAX_PORTS = 8;
constexpr int LAC_SLOT = 0; // the only slot with uplink ports
constexpr char LAC_CPU_INTERFACE[] = "ethv0";

constexpr std::uint16_t LAC_DEFAULT_PRIORITY = 32768; // of the system and of each port
constexpr std::uint16_t LAC_DEFAULT_KEY = 100;

// Port state octet, IEEE Std 802.3 43.4.2.2.
enum LacStateBit : std::uint8_t {
    LAC_ACTIVITY = 0x01, // active LACP
    LAC_TIMEOUT = 0x02,  // short timeout
    LAC_AGGREGATION = 0x04,
    LAC_SYNCHRONIZATION = 0x08,
    LAC_COLLECTING = 0x10,
    LAC_DISTRIBUTING = 0x20,
    LAC_DEFAULTED = 0x40,
    LAC_EXPIRED = 0x80,
};
// The three bits that the mux machine sets and clears, 43.4.15.
constexpr std::uint8_t LAC_MUX_BITS = LAC_SYNCHRONIZATION | LAC_COLLECTING | LAC_DISTRIBUTING;
// What an initialised port claims: everything but Timeout and Expired.
constexpr std::uint8_t LAC_INITIAL_STATE =
    LAC_ACTIVITY | LAC_AGGREGATION | LAC_SYNCHRONIZATION | LAC_COLLECTING | LAC_DISTRIBUTING | LAC_DEFAULTED;
static_assert(LAC_INITIAL_STATE == 0x7D);

// Events of the port machines; each machine acts on those it knows.
enum LacEvent : std::uint32_t {
    Lac_init = 1,
    Lac_port_enabled = 3,
    Lac_port_disabled = 4,
    Lac_received = 8,
    Lac_ntt = 9,
    Lac_tx_scheduler_expired = 11,
    Lac_port_moved = 12,
    Lac_current_while_timer_expired = 18,
};

enum LacSelected : std::uint32_t { LAC_UNSELECTED = 0, LAC_SELECTED = 1, LAC_STANDBY = 2 };

enum LacRxState : std::uint32_t {
    LAC_RX_UNINIT = 0,
    LAC_RX_CURRENT = 1,
    LAC_RX_EXPIRED = 2,
    LAC_RX_DEFAULTED = 3,
    LAC_RX_INITIALIZE = 4,
    LAC_RX_LACP_DISABLED = 5,
    LAC_RX_PORT_DISABLED = 6,
};

enum LacPeriodicState : std::uint32_t {
    LAC_NO_PERIODIC = 0,
    LAC_FAST_PERIODIC = 1,
    LAC_SLOW_PERIODIC = 2,
    LAC_PERIODIC_TX = 4,
};

// The low four bits of `muxm` are the state; LAC_MUX_ENTER marks a state whose entry actions are still to be run.
enum LacMuxState : std::uint32_t {
    LAC_MUX_NONE = 0,
    LAC_MUX_DETACHED = 1,
    LAC_MUX_WAITING = 2,
    LAC_MUX_ATTACHED = 3,
    LAC_MUX_COLLECTING = 4,
    LAC_MUX_DISTRIBUTING = 5,
    LAC_MUX_COLLECTING_DISTRIBUTING = 6,
    LAC_MUX_STATE_MASK = 0x0F,
    LAC_MUX_ENTER = 0x10,
    LAC_MUX_ENTER_DETACHED = LAC_MUX_ENTER | LAC_MUX_DETACHED,
    LAC_MUX_ENTER_WAITING = LAC_MUX_ENTER | LAC_MUX_WAITING,
    LAC_MUX_ENTER_ATTACHED = LAC_MUX_ENTER | LAC_MUX_ATTACHED,
    LAC_MUX_ENTER_COLLECTING = LAC_MUX_ENTER | LAC_MUX_COLLECTING,
    LAC_MUX_ENTER_DISTRIBUTING = LAC_MUX_ENTER | LAC_MUX_DISTRIBUTING,
    LAC_MUX_ENTER_COLLECTING_DISTRIBUTING = LAC_MUX_ENTER | LAC_MUX_COLLECTING_DISTRIBUTING,
};

// Protocol times in ticks of one second, IEEE Std 802.3 43.4.4.
constexpr std::uint32_t LAC_FAST_PERIODIC_TICKS = 1;
constexpr std::uint32_t LAC_SLOW_PERIODIC_TICKS = 30;
constexpr std::uint32_t LAC_SHORT_TIMEOUT_TICKS = 3;
constexpr std::uint32_t LAC_LONG_TIMEOUT_TICKS = 90;
constexpr std::uint32_t LAC_AGGREGATE_WAIT_TICKS = 2;
constexpr std::uint32_t LAC_SCHEDULER_TICKS = 1;
constexpr std::uint32_t LAC_HOLD_LIMIT = 3; // LACPDUs between two periodic transmissions

// A member write that the datastore had no time for is tried on this many ticks more; then, as after a final refusal,
// the port is barred: it stands by for a time that doubles until a write succeeds.
constexpr std::uint32_t LAC_MEMBER_TRIES = 3;
constexpr std::uint32_t LAC_MEMBER_BAR_TICKS = 2;
constexpr std::uint32_t LAC_MEMBER_LONGEST_BAR_TICKS = 256;

// ---- PDUs on the wire -----------------------------------------------------------------------------------------

constexpr std::size_t LAC_PDU_SIZE = 110;       // from the subtype on
constexpr std::size_t LAC_MAC_HEADER_SIZE = 14; // destination, source, EtherType
constexpr std::size_t LAC_FRAME_SIZE = LAC_MAC_HEADER_SIZE + LAC_PDU_SIZE;
static_assert(LAC_FRAME_SIZE == 124);
// A received frame carries a four-byte VLAN tag before its EtherType.
constexpr std::size_t LAC_RX_PDU_OFFSET = LAC_MAC_HEADER_SIZE + 4;

constexpr Mac LAC_SLOW_PROTOCOLS_ADDRESS = {0x01, 0x80, 0xC2, 0x00, 0x00, 0x02};
constexpr std::uint16_t LAC_SLOW_PROTOCOLS_ETHERTYPE = 0x8809;

enum LacSubtype : std::uint8_t { LAC_SUBTYPE_LACP = 1, LAC_SUBTYPE_MARKER = 2 };
enum LacMarkerTlv : std::uint8_t { LAC_MARKER_INFORMATION = 1, LAC_MARKER_RESPONSE = 2 };
constexpr std::uint8_t LAC_MARKER_TLV_LENGTH = 16;

// One side's information: 18 octets laid out like octets 4 to 21 of a LACPDU, numbers in host order.
struct LacInfo {
    std::uint16_t system_priority;
    Mac system;
    std::uint16_t key;
    std::uint16_t port_priority;
    std::uint16_t port;
    std::uint8_t state;
    std::array<std::uint8_t, 3> reserved;
};
static_assert(sizeof(LacInfo) == 18);

// A decoded LACPDU, every field at its offset on the wire (IEEE Std 802.3 43.4.2.2), numbers in host order.
struct LacPdu {
    std::uint8_t subtype;
    std::uint8_t version;
    std::uint8_t actor_tlv_type;
    std::uint8_t actor_tlv_length;
    LacInfo actor;
    std::uint8_t partner_tlv_type;
    std::uint8_t partner_tlv_length;
    LacInfo partner;
    std::uint8_t collector_tlv_type;
    std::uint8_t collector_tlv_length;
    std::uint16_t collector_max_delay;
    std::array<std::uint8_t, 12> collector_reserved;
    std::uint8_t terminator_tlv_type;
    std::uint8_t terminator_tlv_length;
    std::array<std::uint8_t, 50> reserved;
};
static_assert(sizeof(LacPdu) == LAC_PDU_SIZE);
static_assert(offsetof(LacPdu, actor) == 4 && offsetof(LacPdu, partner) == 24);
static_assert(offsetof(LacPdu, collector_max_delay) == 44 && offsetof(LacPdu, terminator_tlv_type) == 58);

// ---- records --------------------------------------------------------------------------------------------------

// A protocol timer; it expires on a tick that finds count 0 while active.
struct LacTimer {
    Published<std::uint32_t> count;
    Published<std::uint32_t> reload;
    Published<std::uint32_t> active;
    Published<std::uint32_t> initialized;
};

struct LacPortStats {
    Published<std::uint32_t> moved;
    Published<std::uint32_t> rx_lacpdu;
    Published<std::uint32_t> rx_marker;
    Published<std::uint32_t> rx_marker_response;
    Published<std::uint32_t> rx_unknown;
    Published<std::uint32_t> rx_illegal; // nothing counts into it
    Published<std::uint32_t> tx_lacpdu;
    Published<std::uint32_t> tx_marker_response;
    Published<std::uint32_t> attach_count;
    Published<std::uint32_t> trans_count;  // partner Synchronization set by us, entries to DEFAULTED
    Published<std::uint32_t> change_count; // partner Synchronization cleared by us
    Published<std::uint32_t> unmatched_count;
    Published<std::uint64_t> last_rx_ms; // monotonic
};

struct LacSystem;

// A port and, in the aggregator_ fields, the aggregator that its record can serve as.
struct LacPort {
    // Set at start-up.
    LacPort *next; // circular; the last port's next is the system's head
    LacSystem *system;
    LacPortStats *stats;
    std::uint16_t port_no;                     // 1-based; the head's is 0
    Mac port_mac;                              // source address of every frame sent on the port
    Published<std::uint32_t> channel_group_id; // lac_event, as configured; 0: none
    Published<std::uint32_t> ntt;              // lac_tx: a LACPDU is to be sent

    // What we say of ourselves. lac_event sets it as configured; lac_rx: Defaulted, Expired, and Synchronization
    // cleared by update_Selected; lac_mux: Synchronization, Collecting, Distributing.
    Published<std::uint16_t> actor_system_priority;
    PublishedMac actor_system;
    Published<std::uint16_t> actor_oper_key;
    Published<std::uint16_t> actor_port_priority;
    Published<std::uint16_t> actor_port;
    Published<std::uint8_t> actor_oper_state;
    std::array<std::uint8_t, 3> actor_reserved; // always zero

    // lac_rx: what the partner last said of itself, or what is set for it; Synchronization as the machine judges it.
    Published<std::uint16_t> partner_system_priority;
    PublishedMac partner_system;
    Published<std::uint16_t> partner_oper_key;
    Published<std::uint16_t> partner_port_priority;
    Published<std::uint16_t> partner_port;
    Published<std::uint8_t> partner_oper_state;
    PublishedBytes<3> partner_reserved;

    // lac_event: what INITIALIZE starts from, and what is set for a partner that is not heard (zeros).
    Published<std::uint16_t> actor_admin_system_priority;
    PublishedMac actor_admin_system;
    Published<std::uint16_t> actor_admin_key;
    Published<std::uint16_t> actor_admin_port_priority;
    Published<std::uint16_t> actor_admin_port;
    Published<std::uint8_t> actor_admin_state;

    Published<std::uint16_t> partner_admin_system_priority;
    PublishedMac partner_admin_system;
    Published<std::uint16_t> partner_admin_key;
    Published<std::uint16_t> partner_admin_port_priority;
    Published<std::uint16_t> partner_admin_port;
    Published<std::uint8_t> partner_admin_state;

    Published<std::uint32_t> port_enabled; // lac_event, lac_rx: link up and full duplex
    Published<std::uint32_t> lacp_enabled; // lac_event: the port is in a dynamic group
    Published<std::uint32_t> ready_n;      // lac_tick sets it when wait_while expires, lac_mux clears it
    Published<std::uint32_t> ready;      // lac_mux: some SELECTED port of the group has ready_n, as of its last look
    Published<std::uint32_t> selected;   // LacSelected: lac_select; UNSELECTED also lac_rx
    Published<std::uint32_t> port_moved; // lac_pdu: the partner was heard on another port; lac_rx clears it
    Published<std::uint32_t> matched;    // lac_rx: the partner's view of us is right
    Published<std::uint32_t> attached;   // lac_mux: to its aggregator
    Published<std::uint32_t> coll_dist;  // lac_mux: collecting and distributing; 1 at creation
    Published<std::uint32_t> rxm;        // LacRxState: lac_rx
    Published<std::uint32_t> txm;        // LacPeriodicState: lac_tx
    Published<std::uint32_t> muxm;       // LacMuxState: lac_mux
    Published<std::uint32_t> hold_count; // lac_tx: LACPDUs since the last periodic one, three at most

    // Started and stopped through lac_timer by the machine that owns them, counted by lac_tick.
    LacTimer current_while_timer;
    LacTimer periodic_timer;
    LacTimer wait_while_timer;
    LacTimer tx_scheduler;
    LacTimer mux_scheduler;

    // The record as an aggregator.
    PublishedMac aggregator_mac;
    Published<std::uint32_t> aggregator_id; // equal to port_no
    Published<std::uint32_t> individual;    // lac_select, lac_rx: 1 while the port stands in an aggregator of its own
    Published<std::uint16_t> aggregator_oper_key;
    Published<std::uint16_t> aggregator_admin_key;
    PublishedMac aggregator_partner_system; // lac_rx of a LACPDU, lac_mux on attaching and detaching
    Published<std::uint16_t> aggregator_partner_system_priority;
    Published<std::uint16_t> aggregator_partner_key;
    Published<LacPort *> aggregator;    // lac_select: the port whose record serves this one
    Published<LacPort *> next_lag_port; // chain of ports behind one aggregator; each holds only itself
    Published<std::uint32_t> port_mask; // lac_mux: collecting and distributing members, bit (port_no - 1)

    // What only the dispatcher reads.
    std::uint8_t heard_state; // lac_rx: Actor_State as the partner last sent it; 0: not heard since recordDefault
    std::uint8_t told_state;  // lac_tx: Actor_State as last sent; 0: nothing sent since the link came up
    bool in_place;            // lac_select, while it moves an attached member to another aggregator: it need not wait
    bool waits_selected;      // lac_mux: the wait_while count runs for a SELECTED port, and is not started over

    // lac_member: the groups whose member-port list is to have the port, and may have it; 0 for none.
    std::uint32_t attached_group;            // lac_mux: where it was attached, whatever channel_group_id says by now
    std::uint32_t member_wanted;             // as of the last attempt to write
    Published<std::uint32_t> member_written; // the event thread compares it with the lists
    std::uint32_t member_tries;              // refused so far; 0: what is written is certain
    std::uint32_t member_barred; // ticks for which the port still stands by, since its write was refused for good
    std::uint32_t member_bar;    // and for which it did so last
};

// The view of a LacPort that serves as an aggregator.
using LacAggregator = LacPort;

struct LacSystem {
    LacPort head; // next is the first port; no other field but system and port_no is used
    Published<std::uint16_t> system_priority;
    PublishedMac system_mac;               // sent as Actor_System
    Published<std::uint32_t> system_state; // 1 while LACP is switched on
    Published<std::uint64_t> last_change_ms;
    bool unsaved; // lac_resume keeps it; set with every change of what it keeps
};

struct LacpCtrl {
    Published<std::uint32_t> started;
    Published<std::uint32_t> channel_group_max;
    Published<std::uint32_t> once_cfg_done;
    Published<std::uint16_t> system_priority; // as configured
    Published<std::uint32_t> port_count;
};

// What is configured for a port; port initialisation starts from it, so it survives every restart of the machines.
struct LacPortCfg {
    Published<std::uint32_t> reserved;
    Published<std::uint16_t> key;
    Published<std::uint16_t> port_priority;
    Published<std::uint32_t> timeout; // 1 short, 0 long
    Published<std::uint32_t> passive; // 1 passive, 0 active
};

extern PortInventory intf; // uplink port inventory, filled before any thread starts
extern KelDb g_lacpd_db;   // the daemon's datastore connection
extern LacSystem *lacSystem;
extern LacpCtrl lacpCtrl;
extern LacPortCfg lacPortCfg[LAC_MAX_PORTS];

// ---- trace word -----------------------------------------------------------------------------------------------

enum LacDebugBit : std::uint32_t {
    LAC_DBG_PDU = 0x1,
    LAC_DBG_SEND = 0x2,
    LAC_DBG_MARKER = 0x4,
    LAC_DBG_ATTACH = 0x8,
    LAC_DBG_RX = 0x10,
    LAC_DBG_MUX = 0x20,
    LAC_DBG_SELECT = 0x40,
    LAC_DBG_COLL_DIST = 0x80,
    LAC_DBG_MASK = 0x100,
    LAC_DBG_TICK = 0x200,
    LAC_DBG_PORT = 0x400,
    LAC_DBG_UNSELECT = 0x1000,
    LAC_DBG_OTHER = 0x2000, // settable, nothing tests it
    LAC_DBG_TIMER = 0x4000,
    LAC_DBG_TX = 0x8000,
    LAC_DBG_PERIODIC = 0x10000,
    LAC_DBG_GLOBAL = 0x20000,
    LAC_DBG_QUEUE = 0x40000,
    LAC_DBG_LOCK = 0x80000,
};

extern Published<std::uint32_t> lacDebug;

inline bool lac_tracing(std::uint32_t bit) noexcept
{
    return (lacDebug & bit) != 0;
}
// Prints to standard output while the bit is set in the trace word.
void lac_trace_print(const char *format, ...) __attribute__((format(printf, 1, 2)));
#define lac_trace(bit, ...)                                                                                          \
    do {                                                                                                             \
        if (lac_tracing(bit))                                                                                        \
            lac_trace_print(__VA_ARGS__);                                                                            \
    } while (0)

// Monotonic time in milliseconds.
std::uint64_t lac_now_ms() noexcept;
