// Frames on the CPU interface and the PDUs in them, byte by byte.
#include "engine.h"

#include "lac_memory.h"
#include "lacp_privileges.h"

#include <net/if.h>
#include <sys/socket.h>
#include <tuple>
#include <unistd.h>

namespace
{

class PacketTest : public EngineTest
{
  protected:
    // Arguments of every hand-over to the protocol.
    struct HandedOn {
        std::uint32_t port_no;
        Bytes frame;
    };
    static inline std::vector<HandedOn> handed_on;

    static int record(std::uint32_t port_no, std::uint32_t, std::uint32_t, const std::uint8_t *frame, int length)
    {
        handed_on.push_back({port_no, Bytes(frame, frame + length)});
        return 0;
    }
    static void take(Bytes frame)
    {
        const auto length = static_cast<int>(frame.size());
        frame.resize(LACP_RX_BUFFER_SIZE, 0xEE);
        lacp_pkt_take(frame.data(), length, record);
    }
    PacketTest() { handed_on.clear(); }
};

// ---- tag ------------------------------------------------------------------------------------------------------

TEST_F(PacketTest, TheTagIsTakenOffAndNamesThePort)
{
    take(hex("0180c2000002 023344556677  9082 11223344 0003 55667788  81000001 8809 01 02"));
    take(hex("0180c2000002 023344556677  9082 11223344 0102 55667788"));
    ASSERT_EQ(handed_on.size(), 2U);
    EXPECT_EQ(handed_on[0].port_no, 3U);
    EXPECT_EQ(handed_on[0].frame, hex("0180c2000002 023344556677 81000001 8809 01 02"));
    EXPECT_EQ(handed_on[1].port_no, 0x102U);
    EXPECT_EQ(handed_on[1].frame, hex("0180c2000002 023344556677"));
}

TEST_F(PacketTest, FramesWithAnotherTagAreRefused)
{
    const Bytes frames[] = {
        hex("0180c2000002 023344556677  9089 00000000 0003 00000000  8809 01"), // the sending tag
        hex("0180c2000002 023344556677  9083 00000000 0003 00000000  8809 01"),
        hex("0180c2000002 023344556677  8282 00000000 0003 00000000  8809 01"),
        hex("0180c2000002 023344556677  9082 00000000 0003 000000"), // ends within the tag
        hex("0180c2"),
    };
    for (const Bytes &frame : frames)
        EXPECT_EQ(printed([&] { take(frame); }), "Msg: Parse msg error.");
    EXPECT_TRUE(handed_on.empty());
}

TEST_F(PacketTest, OnlyTheSlowProtocolsAddressReachesTheProtocol)
{
    switch_on();
    port(3).lacp_enabled = 1;
    const Bytes good = tagged_frame(3, hex("03"));
    for (std::size_t byte = 0; byte < 6; ++byte) {
        Bytes frame = good;
        frame[byte] ^= 1;
        frame.erase(frame.begin() + 12, frame.begin() + 24);
        EXPECT_EQ(lacp_bpdu_recv(3, 0, 0, frame.data(), static_cast<int>(frame.size())), 0);
    }
    EXPECT_EQ(Lac_Queue.count(), 0);
    Bytes frame = good;
    frame.erase(frame.begin() + 12, frame.begin() + 24);
    frame[12] = 0x12; // whatever stands before the PDU, it is taken
    frame[16] = 0x12;
    EXPECT_EQ(lacp_bpdu_recv(3, 0, 0, frame.data(), static_cast<int>(frame.size())), 0);
    EXPECT_EQ(Lac_Queue.count(), 1);
    EXPECT_EQ(printed([&] { dispatch(); }), "LACP: not valid PDU with Slow Protocol Type Subtype - 03 TLV type = 00");
    EXPECT_EQ(port(3).stats->rx_unknown, 1U);
}

TEST_F(PacketTest, SentFramesCarryTheTagOfThePort)
{
    Bytes frame = hex("0180c2000002 0211 22aabbcc 8809");
    for (int i = 0; i < 110; ++i)
        frame.push_back(static_cast<std::uint8_t>(i));
    EXPECT_EQ(lacp_bpdu_transmit(0, 0, 3, frame.data(), 124), 136);
    EXPECT_EQ(lacp_bpdu_transmit(0, 0, 0x0201, frame.data(), 14), 26);
    const auto sent = wire.take();
    ASSERT_EQ(sent.size(), 2U);
    Bytes expected = hex("0180c2000002 021122aabbcc  9089 00000000 03 00 00000000  8809");
    expected.insert(expected.end(), frame.begin() + 14, frame.end());
    EXPECT_EQ(sent[0].bytes, expected);
    EXPECT_EQ(sent[1].bytes, hex("0180c2000002 021122aabbcc  9089 00000000 01 02 00000000  8809"));
    EXPECT_EQ(MTYPE_LACP_SSP_PACKET.allocated(), 0U) << "the copy was not freed";
}

TEST_F(PacketTest, SendingFailsQuietlyWithoutASocketAndLoudlyOnABrokenOne)
{
    LacPort &record = current_port(1);
    const Bytes frame(124);
    LacpPktSocket *const socket = lacp_pkt_socket;
    lacp_pkt_socket = nullptr;
    EXPECT_LT(lacp_bpdu_transmit(0, 0, 1, frame.data(), 124), 0);
    ASSERT_NE(ticks_until([&] { return record.stats->tx_lacpdu == 1; }), 0U);
    EXPECT_EQ(record.hold_count, 1U) << "a failed send counts like a good one";
    LacpPktSocket broken = *socket;
    broken.fd = -1;
    lacp_pkt_socket = &broken;
    EXPECT_EQ(printed_as_error([&] { EXPECT_LT(lacp_bpdu_transmit(0, 0, 1, frame.data(), 124), 0); }),
              "send msg to socket error: Bad file descriptor\n");
    lacp_pkt_socket = socket;
    EXPECT_EQ(MTYPE_LACP_SSP_PACKET.allocated(), 0U);
}

// ---- PDUs -----------------------------------------------------------------------------------------------------

// Every field of a LACPDU has a value of its own, also those that are ignored.
const Bytes EVERY_FIELD = [] {
    Bytes pdu = hex("01 c2 c3 c4  a101 b1b2b3b4b5b6 a203 a304 a405 a6 d1d2d3"
                    "c5 c6  e101 f1f2f3f4f5f6 e203 e304 e405 e6 d4d5d6"
                    "c7 c8 5678");
    pdu.resize(58, 0x99);
    pdu.push_back(0xC9);
    pdu.push_back(0xCA);
    pdu.resize(110, 0x88);
    return pdu;
}();

TEST_F(PacketTest, EveryFieldIsDecodedAtItsPlace)
{
    const LacPdu pdu = lacDecodePdu(EVERY_FIELD.data());
    EXPECT_EQ(pdu.subtype, 1);
    EXPECT_EQ(
        pdu.actor,
        (LacInfo{0xA101, {0xB1, 0xB2, 0xB3, 0xB4, 0xB5, 0xB6}, 0xA203, 0xA304, 0xA405, 0xA6, {0xD1, 0xD2, 0xD3}}));
    EXPECT_EQ(
        pdu.partner,
        (LacInfo{0xE101, {0xF1, 0xF2, 0xF3, 0xF4, 0xF5, 0xF6}, 0xE203, 0xE304, 0xE405, 0xE6, {0xD4, 0xD5, 0xD6}}));
    EXPECT_EQ(pdu.collector_max_delay, 0x5678);
    // The record has the layout of the PDU: what is copied unchanged stands where it came from.
    const auto *bytes = reinterpret_cast<const std::uint8_t *>(&pdu);
    for (const std::size_t copied : {1U, 2U, 3U, 22U, 23U, 42U, 43U, 58U, 59U})
        EXPECT_EQ(bytes[copied], EVERY_FIELD[copied]) << copied;
    for (std::size_t zero = 46; zero < 110; ++zero)
        EXPECT_TRUE(bytes[zero] == 0 || zero == 58 || zero == 59) << zero;
}

TEST_F(PacketTest, OnlyTheSubtypeIsExaminedAndAShortFrameEndsInZeros)
{
    LacPort &record = running_port(1);
    receive(1, EVERY_FIELD);
    EXPECT_EQ(record.partner_oper_key, 0xA203);
    EXPECT_EQ(lac_partner_info(&record).reserved, (std::array<std::uint8_t, 3>{0xD1, 0xD2, 0xD3}));
    Bytes pdu = pdu_bytes(peer(9), {});
    pdu.resize(14); // within Actor_Key
    receive(1, pdu);
    EXPECT_EQ(record.partner_oper_key, 7);
    EXPECT_EQ(record.partner_port_priority + record.partner_port + record.partner_oper_state, 0);
    receive(1, {});
    EXPECT_EQ(record.stats->rx_unknown, 1U) << "subtype 0";
    receive(1, Bytes(400, 1));
    EXPECT_EQ(record.stats->rx_lacpdu, 3U);
}

TEST_F(PacketTest, TheWholeLacpduOnTheWire)
{
    running_port(3, 2);
    set_lacp_port_oper_key(3, 0x0203);
    set_lacp_port_priority(0, 3, 0x0405);
    set_lacp_system_priority(0x0607);
    set_lacp_port_timeout(0, 3, 1);
    LacInfo heard = peer(0x0A0B);
    heard.system_priority = 0x0809;
    heard.key = 0x0C0D;
    heard.port_priority = 0x0E0F;
    heard.reserved = {0x31, 0x32, 0x33};
    receive(3, pdu_bytes(heard, {}));
    lacDrvCtrl->tx_slots[2].fill(0xEE); // what was sent before leaves no trace
    std::vector<SentFrame> sent;
    ASSERT_NE(ticks_until([&] { return !(sent = wire.take()).empty(); }), 0U);
    // The partner does not know us: its Synchronization is taken back, Partner_State is 0x05.
    Bytes expected = hex("0180c2000002 021122aabbcc  9089 00000000 0300 00000000  8809"
                         "01 01"
                         "01 14 0607 021122aabbcc 0203 0405 0003 07 000000"
                         "02 14 0809 023344556677 0c0d 0e0f 0a0b 05 313233"
                         "03 10 0a00");
    expected.resize(136);
    EXPECT_EQ(sent.at(0).bytes, expected);
    EXPECT_EQ(port(3).stats->tx_lacpdu, 1U);
}

// An individual port in DEFAULTED tells the administrative partner, not the synchronized one it works with.
TEST_F(PacketTest, ALonePortSendsItsAdministrativePartner)
{
    LacPort &record = running_port(1);
    ASSERT_NE(ticks_until([&] { return record.muxm == LAC_MUX_COLLECTING_DISTRIBUTING; }), 0U);
    ASSERT_EQ(record.rxm, LAC_RX_DEFAULTED);
    ASSERT_NE(record.partner_oper_state & LAC_SYNCHRONIZATION, 0);
    record.partner_admin_key = 0x1234;
    record.partner_admin_state = 0x05;
    wire.take();
    std::vector<SentFrame> sent;
    ASSERT_NE(ticks_until([&] { return !(sent = wire.take()).empty(); }), 0U);
    EXPECT_EQ(sent.at(0).partner(), (LacInfo{0, {}, 0x1234, 0, 0, 0x05, {}}));
    EXPECT_EQ(sent.at(0).actor().state, 0x7D);
    record.individual = 0;
    record.hold_count = 0;
    record.ntt = 1;
    tx_machine(&record, Lac_tx_scheduler_expired);
    sent = wire.take();
    EXPECT_EQ(sent.at(0).partner(), (LacInfo{0, {}, 0, 0, 0, LAC_SYNCHRONIZATION, {}}));
}

// ---- marker ---------------------------------------------------------------------------------------------------

TEST_F(PacketTest, AMarkerIsAnsweredAtOnce)
{
    running_port(2);
    wire.take();
    Bytes marker = hex("02 01 01 aa 0102 030405060708 0a0b0c0d 0e0f 11 12");
    marker.resize(110, 0x77);
    const std::uint32_t lacpdus = port(2).stats->tx_lacpdu;
    receive(2, marker);
    const auto sent = wire.take();
    ASSERT_EQ(sent.size(), 1U);
    Bytes expected = hex("0180c2000002 021122aabbcc  9089 00000000 0200 00000000  8809"
                         "02 01 02 10 0102 030405060708 0a0b0c0d 0e0f 11 12");
    expected.resize(136, 0x77);
    EXPECT_EQ(sent[0].bytes, expected);
    const LacPortStats &stats = *port(2).stats;
    EXPECT_EQ(stats.rx_marker, 1U);
    EXPECT_EQ(stats.tx_marker_response, 1U);
    EXPECT_EQ(stats.rx_lacpdu, 0U);
    EXPECT_EQ(stats.tx_lacpdu, lacpdus);
    EXPECT_EQ(stats.last_rx_ms, 0U) << "only LACPDUs are noted";
}

TEST_F(PacketTest, OtherPdusAreOnlyCounted)
{
    running_port(1);
    const auto text = [&](const Bytes &pdu) { return printed([&] { receive(1, pdu); }); };
    EXPECT_EQ(text(hex("02 01 02 10")), "");
    EXPECT_EQ(text(hex("02 01 03 10")), "LACP: not valid PDU with Slow Protocol Type Subtype - 02 TLV type = 03");
    EXPECT_EQ(text(hex("0a 01 fe")), "LACP: not valid PDU with Slow Protocol Type Subtype - 0a TLV type = fe");
    const LacPortStats &stats = *port(1).stats;
    EXPECT_EQ(stats.rx_marker_response, 1U);
    EXPECT_EQ(stats.rx_unknown, 2U);
    EXPECT_EQ(stats.rx_marker + stats.rx_lacpdu + stats.rx_illegal + stats.tx_marker_response, 0U);
    EXPECT_TRUE(wire.take().empty());
}

// ---- opening --------------------------------------------------------------------------------------------------

class OpeningTest : public PacketTest
{
  protected:
    OpeningTest() : before_(lacp_pkt_socket)
    {
        const int probe = socket(AF_PACKET, SOCK_RAW, 0);
        may_open_ = probe >= 0;
        if (may_open_)
            close(probe);
        lacp_pkt_socket = nullptr;
        // What the framework sets up before a daemon raises privileges, once a process.
        if (lacp_privs.change == nullptr)
            STAILQ_INIT(&lacp_privs.thread_refs);
        lacp_privs.change = [](zebra_privs_ops_t) { return 0; };
        fake::system().described.clear();
    }
    ~OpeningTest() override
    {
        EXPECT_EQ(MTYPE_LACP_SSP_PACKET.allocated(), 0U);
        lacp_pkt_socket = before_;
    }

    using Result = std::tuple<int, std::string, std::string>; // code, text, errors

    static Result open()
    {
        Result result;
        std::get<1>(result) = printed([&] {
            std::get<2>(result) =
                printed_as_error([&] { std::get<0>(result) = lacp_rx_tx_packet_init(lacp_bpdu_recv); });
        });
        return result;
    }
    static std::string index_error()
    {
        return if_nametoindex("ethv0") == 0 ? "LACPD get ifindex failed : No such device\n" : "";
    }

    bool may_open_;

  private:
    LacpPktSocket *before_;
};

TEST_F(OpeningTest, TheSocketSendsToTheCpuInterface)
{
    if (!may_open_) {
        EXPECT_EQ(open(), Result(-1, "", "LACPD Msg:create socket for port rx tx fail: Operation not permitted\n"));
        EXPECT_EQ(lacp_pkt_socket, nullptr);
        return;
    }
    EXPECT_EQ(open(), Result(0, "", index_error()));
    EXPECT_EQ(fake::system().described, Texts{"port recv pkt"});
    ASSERT_NE(lacp_pkt_socket, nullptr);
    const sockaddr_ll &dest = lacp_pkt_socket->dest;
    EXPECT_EQ(std::tuple(dest.sll_family, dest.sll_protocol, dest.sll_ifindex, dest.sll_hatype, dest.sll_pkttype,
                         dest.sll_halen),
              std::tuple(17, 0x0300 /* 3 in network order */, static_cast<int>(if_nametoindex("ethv0")), 0, 1, 6));
    EXPECT_EQ(lacp_pkt_socket->recv_cb, lacp_bpdu_recv);
    close(lacp_pkt_socket->fd);
    qfree(MTYPE_LACP_SSP_PACKET, lacp_pkt_socket);
}

TEST_F(OpeningTest, WithoutAReceiverThereIsNoSocket)
{
    if (!may_open_)
        GTEST_SKIP() << "needs the right to open packet sockets";
    fake::system().run_result = 11;
    EXPECT_EQ(open(), Result(-1, "Create pthread error!", index_error()));
    EXPECT_EQ(lacp_pkt_socket, nullptr);
}

} // namespace
