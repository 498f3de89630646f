// A whole engine on the fakes: no threads, driven message by message and tick by tick; and what a test sees of it.
#pragma once

#include "fake_datastore.h"
#include "fake_services.h"

#include "channel_group.h"
#include "channel_group_member.h"
#include "channel_group_plan.h"
#include "lac_dispatch.h"
#include "lac_event.h"
#include "lac_member.h"
#include "lac_memory.h"
#include "lac_mux.h"
#include "lac_pdu.h"
#include "lac_port.h"
#include "lac_rx.h"
#include "lac_select.h"
#include "lac_store.h"
#include "lac_task.h"
#include "lac_tick.h"
#include "lac_timer.h"
#include "lac_tx.h"
#include "lac_wire.h"
#include "lacp_database.h"
#include "lacp_database_cb.h"
#include "lacp_packet.h"
#include "lacp_sclient.h"

#include <gtest/gtest.h>

using Bytes = std::vector<std::uint8_t>;
using Texts = std::vector<std::string>;

constexpr Mac OUR_MAC = {0x02, 0x11, 0x22, 0xAA, 0xBB, 0xCC};
constexpr Mac PEER_MAC = {0x02, 0x33, 0x44, 0x55, 0x66, 0x77};

Bytes hex(const std::string &digits); // blanks ignored
Bytes operator+(Bytes front, const Bytes &back);
// The 110 bytes of a LACPDU that a partner sends, and a received frame with tag and VLAN tag around a PDU.
Bytes pdu_bytes(const LacInfo &actor, const LacInfo &partner);
Bytes tagged_frame(std::uint32_t port_no, const Bytes &pdu);

// A frame as it left the daemon: 136 bytes for a PDU, the switch tag inside.
struct SentFrame {
    Bytes bytes;

    std::uint32_t port() const { return static_cast<std::uint32_t>(bytes[18] | bytes[19] << 8); }
    Bytes pdu() const { return {bytes.begin() + 26, bytes.end()}; }
    LacInfo actor() const { return lacDecodeInfo(bytes.data() + 26 + 4); }
};

// What the daemon's packet socket is connected to.
class Wire
{
  public:
    Wire();
    ~Wire();
    Wire(const Wire &) = delete;
    Wire &operator=(const Wire &) = delete;

    std::vector<SentFrame> take(); // everything sent since the last call

  private:
    int far_;
    LacpPktSocket socket_{};
};

inline bool has(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}
std::string printed(const std::function<void()> &action); // on standard output and error

// ---- state by short names -------------------------------------------------------------------------------------

// Every word of the records in hexadecimal, times of day as 0 or 1: "1.mux" of port 1, "g2.list" of group 2,
// "cfg3.key", "sys.mac". A timer is active, reload and count: "15a58" runs, loads 90 and has 88 left.
using State = std::map<std::string, std::uint64_t>;
State state(bool published = false);   // or only the words that any thread may read
std::string text(const LacPort &port); // for "nothing changed", and to see what is wrong
// Sets words; one without a port is port 1's. "link2=1" sets a link, "@LEAF=VALUE" a leaf ("@-LEAF": none),
// "!KIND=CODE" a failure.
void set(const std::string &words);

// What an action changes, and what it queues ("q:CODE/PORT=VALUE"), sends ("sent:PORT"), asks of the switch
// ("create:GROUP,CODE,MEMBERS,COUNT") and writes ("w:LEAF"), in the order of the alphabet.
std::string changes(const std::function<void()> &action, std::string *says = nullptr);

// ---- engine ---------------------------------------------------------------------------------------------------

class Engine
{
  public:
    explicit Engine(std::uint32_t first_port = 1, std::uint32_t last_port = 4);
    ~Engine();
    Engine(const Engine &) = delete;
    Engine &operator=(const Engine &) = delete;

    static LacPort &port(std::uint32_t port_no) { return *lacNoToPort(port_no); }

    static void switch_on(); // LACP on, as the first dynamic group does it
    static void send(std::uint64_t code, std::uint32_t port_no = 0, std::uint64_t payload = 0);
    static void dispatch();               // everything that is queued
    static void tick(unsigned count = 1); // through the queue

    // A frame, or a LACPDU, on a port: from the packet buffer to the receive machine.
    static void hear(Bytes frame);
    static void receive(std::uint32_t port_no, const Bytes &pdu);

    // Configuration as it comes from the datastore, given to the handler it belongs to; the leaves follow.
    static int configure(const std::string &changes);
    static void join(std::uint32_t port_no, unsigned group); // 0: leaves

    // A partner that fits an aggregatable, active system.
    static LacInfo peer(std::uint16_t port_no);
    // A port in a running dynamic group with its link up, in EXPIRED.
    LacPort &running_port(std::uint32_t port_no, unsigned group = 1);

    // One tick; then every far end that was told something, or is asked for the short timeout, answers.
    void second();
    void answer(std::uint32_t port_no);
    std::uint32_t trunk(std::uint32_t group); // as the switch has it

    struct FarEnd { // of a port's cable
        LacInfo self;
        LacInfo heard{};
        bool talks = true;
    };
    std::vector<FarEnd> far; // by port; the first is nobody's
    Wire wire;

  private:
    std::array<std::uint32_t, 5> trunks_{};
};

// ---- rows -----------------------------------------------------------------------------------------------------

// In a state an event changes exactly the words of `then`, where "r:CODE" is what it returns. States and events may
// be alternatives, separated by " | ". The words are worked out by hand from the rules, never recorded from a run.
struct Row {
    const char *given, *event, *then;
    const char *says = nullptr; // on standard output and error; null: anything
};
struct Case {
    std::string given, event;
    std::string operator()(std::uint32_t debug, std::string *says) const; // what changes
};
void for_runs(const std::vector<Row> &rows, const std::function<void(const Row &, const Case &)> &use);
void check(const std::vector<Row> &rows);

std::string expanded(const std::string &words); // names in capitals written out
void arrange(const std::string &given);         // of a running engine
std::string request_text(const fake::Message &message);
std::string act(const std::string &event);             // to port 1; what it returns
void set_info(LacInfo &info, const std::string &word); // "key=9"
extern const std::vector<Row> MACHINES;
