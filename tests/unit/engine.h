// A whole engine on the fakes: no threads, driven message by message and tick by tick.
#pragma once

#include "fake_datastore.h"
#include "fake_driver.h"
#include "fake_system.h"

#include "channel_group.h"
#include "channel_group_member.h"
#include "lac_dispatch.h"
#include "lac_event.h"
#include "lac_member.h"
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
#include "lacp.h"
#include "lacp_database_cb.h"
#include "lacp_packet.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

using Bytes = std::vector<std::uint8_t>;
using Texts = std::vector<std::string>;

constexpr Mac OUR_MAC = {0x02, 0x11, 0x22, 0xAA, 0xBB, 0xCC};
constexpr Mac PEER_MAC = {0x02, 0x33, 0x44, 0x55, 0x66, 0x77};
constexpr Mac OTHER_MAC = {0x02, 0x99, 0x88, 0x77, 0x66, 0x55};

// ---- bytes ----------------------------------------------------------------------------------------------------

// Hexadecimal digits, blanks ignored.
Bytes hex(const std::string &digits);
// The 110 bytes of a LACPDU that a partner sends.
Bytes pdu_bytes(const LacInfo &actor, const LacInfo &partner);
// The 18 bytes of one side's information.
LacInfo info_at(const Bytes &bytes, std::size_t offset);
bool operator==(const LacInfo &one, const LacInfo &other);
std::ostream &operator<<(std::ostream &out, const LacInfo &info);

// A frame as it left the daemon: 136 bytes for a PDU, the switch tag inside.
struct SentFrame {
    Bytes bytes;

    std::uint32_t port() const { return static_cast<std::uint32_t>(bytes[18] | bytes[19] << 8); }
    Bytes pdu() const { return {bytes.begin() + 26, bytes.end()}; }
    LacInfo actor() const { return info_at(bytes, 26 + 4); }
    LacInfo partner() const { return info_at(bytes, 26 + 24); }
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
    int far_end() const { return far_; }

  private:
    int far_;
    LacpPktSocket socket_{};
};

// A received frame with tag and VLAN tag around a PDU, in a buffer of the receive thread's size.
Bytes tagged_frame(std::uint32_t port_no, const Bytes &pdu);

// ---- output ---------------------------------------------------------------------------------------------------

std::string printed(const std::function<void()> &action); // on standard output
std::string printed_as_error(const std::function<void()> &action);

// ---- engine ---------------------------------------------------------------------------------------------------

// Every field of a port and its counters but the times of day, for "nothing changed".
std::string snapshot(const LacPort &port);

std::size_t queued_pdus();

class EngineTest : public testing::Test
{
  protected:
    explicit EngineTest(std::uint32_t first_port = 1, std::uint32_t last_port = 4);
    ~EngineTest() override;

    static LacPort &port(std::uint32_t port_no) { return *lacNoToPort(port_no); }

    // LACP on, as the first dynamic group does it.
    void switch_on();
    void send(std::uint64_t code, std::uint32_t port_no = 0, std::uint64_t payload = 0);
    void dispatch();               // everything that is queued
    void tick(unsigned count = 1); // through the queue
    unsigned ticks_until(const std::function<bool()> &condition, unsigned limit = 200);

    void set_link(std::uint32_t port_no, bool up);    // the leaf alone
    void change_link(std::uint32_t port_no, bool up); // the leaf and what follows from it
    // A LACPDU on a port, from the packet buffer to the receive machine.
    void receive(std::uint32_t port_no, const Bytes &pdu);

    // Configuration as it comes from the datastore, with what follows from it.
    int create_group(int group, const std::string &type);
    void join(std::uint32_t port_no, std::uint8_t group);
    void leave(std::uint32_t port_no);

    // A partner's information that fits an aggregatable, active system.
    static LacInfo peer(std::uint16_t port_no = 1, Mac system = PEER_MAC);
    // A port in a running dynamic group with its link up, in EXPIRED.
    LacPort &running_port(std::uint32_t port_no, std::uint8_t group = 1);
    // The same after the partner has been heard, in CURRENT.
    LacPort &current_port(std::uint32_t port_no, std::uint8_t group = 1);

    Wire wire;
};
