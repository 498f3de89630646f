// Message queue, dispatcher and tasks; frames on the CPU interface and the PDUs in them, byte by byte.
#include "engine.h"

#include "lacp_privileges.h"

#include <net/if.h>
#include <sys/socket.h>
#include <tuple>
#include <unistd.h>

namespace
{

void fill_queue()
{
    while (Lac_Queue.count() < 128)
        lacWaitAndSend("test", 3, 0, 0);
}

int open_locks()
{
    int value = 0;
    sem_getvalue(&lac_task_sem, &value);
    return value;
}

TEST(Queue, TheOneHundredAndTwentyNinthMessageIsLost)
{
    Engine engine;
    for (std::uint64_t i = 0; i < 128; ++i)
        EXPECT_EQ(lacWaitAndSend("test", 99, 0x123456789ABCDE00 + i, i), 0);
    EXPECT_EQ(printed([] { EXPECT_EQ(lacWaitAndSend("test", 99, 0, 0), -1); }),
              "\r\nMsg: lacQSend lac queue is full,cann't send any more\n\r");
    EXPECT_EQ(open_locks(), 1) << "the next sender is not blocked";
    EXPECT_FALSE(Lac_Queue.push({}));
    LacQueueMsg message{};
    for (std::uint64_t i = 0; i < 128; ++i)
        EXPECT_TRUE(Lac_Queue.tryPop(message) && message.type == 1 && message.code == 99 &&
                    message.payload == 0x123456789ABCDE00 + i && message.port == i);
    EXPECT_FALSE(Lac_Queue.tryPop(message));
    new (&Lac_Queue) LacQueue; // not created
    EXPECT_EQ(printed([] { EXPECT_EQ(lacWaitAndSend("test", LAC_Q_LINK_UP, 0, 1), -1); }),
              "\r\nMsg lacQSend get lac queue infom failed\n\r");
    EXPECT_EQ(open_locks(), 1);
    EXPECT_FALSE(Lac_Queue.push({}));
    Lac_Queue.create();
}

// One tick waits at a time; 26 lost ones in a row are reported once.
TEST(Queue, Ticks)
{
    Engine engine;
    LacTickCounts counts{};
    const auto reports = [&](int ticks) {
        return has(printed([&] {
                       while (ticks-- > 0)
                           lacSendTick(counts);
                   }),
                   "lacTimerTask: Timer Tick send failed.\r");
    };
    Engine::send(3);
    Engine::dispatch(); // the tick does not stand first in the ring
    EXPECT_FALSE(reports(26)) << "one is sent, the others wait for it";
    EXPECT_EQ(printed([&] { lacSendTick(counts); }),
              "LACP Msg: a tick has been waiting for 26 seconds, the dispatcher is busy!\n");
    EXPECT_EQ(Lac_Queue.count(), 1);
    Engine::dispatch();
    lacSendTick(counts);
    EXPECT_EQ(counts.waiting, 0U) << "it has arrived";
    Engine::dispatch();
    fill_queue();
    for (int i = 0; i < 2; ++i) {
        EXPECT_FALSE(reports(25));
        EXPECT_TRUE(reports(1));
    }
}

TEST(Queue, EveryPduIsFreedWhereverItEnds)
{
    Engine engine;
    engine.running_port(1);
    Bytes frame = tagged_frame(0, pdu_bytes(Engine::peer(), {}));
    frame.erase(frame.begin() + 12, frame.begin() + 24);
    const auto deal = [&](std::uint32_t port_no) {
        return lacp_bpdu_deal(port_no, 0, frame.data(), static_cast<int>(frame.size()));
    };
    const std::tuple<std::uint32_t, void (*)(), bool, bool> cases[] = {
        {2, [] {}, true, false}, // without LACP
        {9, [] {}, true, false},
        {0, [] {}, true, false},
        {1, [] {}, true, true},
        {1, fill_queue, false, false},
        {1, [] { Engine::send(LAC_Q_LACP_OFF); }, true, false}};
    for (const auto &[port_no, prepare, queued, counted] : cases) {
        prepare();
        const std::uint32_t before = Engine::port(1).stats->rx_lacpdu;
        printed([&, number = port_no, sent = queued] { EXPECT_EQ(deal(number), sent ? 0 : -1) << number; });
        EXPECT_EQ(MTYPE_LACP_PDU.allocated(), queued ? 1U : 0U);
        for (LacQueueMsg message; Lac_Queue.tryPop(message);) {
            lacDispatch(message);
            EXPECT_TRUE(message.code != LAC_Q_PDU || message.payload == 0) << "the message forgets it";
        }
        EXPECT_EQ(MTYPE_LACP_PDU.allocated(), 0U);
        EXPECT_EQ(Engine::port(1).stats->rx_lacpdu, before + (counted ? 1 : 0));
    }
    EXPECT_EQ(deal(1) + Lac_Queue.count(), 0) << "while LACP is off it is not even copied";
}

// A flood leaves room: for LACPDUs and other PDUs of each port, and one allowance for numbers of no port.
TEST(Queue, AFloodOfPdusIsHeldBack)
{
    Engine engine;
    Engine::switch_on();
    const auto taken = [](std::uint32_t port_no, std::uint8_t subtype) {
        Bytes frame(LAC_RX_PDU_OFFSET + 1);
        frame.back() = subtype;
        int count = 0;
        printed([&] {
            for (int i = 0; i < 20; ++i)
                count += lacp_bpdu_deal(port_no, 0, frame.data(), static_cast<int>(frame.size())) == 0;
        });
        return count;
    };
    EXPECT_EQ((std::array{taken(1, 1), taken(1, 2), taken(1, 9), taken(2, 1), taken(77, 1), taken(0, 1)}),
              (std::array{8, 4, 0, 8, 8, 0}));
    printed([&] { Engine::dispatch(); });
    EXPECT_EQ(taken(0, 2), 4);
}

TEST(Queue, SwitchedOffNothingMovesUntilSwitchedOn)
{
    Engine engine;
    engine.current_port(1);
    LacPort &record = engine.current_port(2);
    Engine::tick(10);
    ASSERT_EQ(record.aggregator.get(), &Engine::port(1));
    Engine::send(LAC_Q_LACP_OFF);
    Engine::dispatch();
    engine.wire.take();
    EXPECT_EQ(record.aggregator.get(), &record);
    EXPECT_EQ(changes([] { Engine::tick(4); }), "");
    EXPECT_TRUE(engine.wire.take().empty());
    Engine::send(LAC_Q_LACP_ON);
    Engine::dispatch();
    EXPECT_EQ(record.rxm, LAC_RX_EXPIRED);
    EXPECT_EQ(record.attached, 0U);
    set_lac_global_enable(1); // it is on
    EXPECT_EQ(Lac_Queue.count(), 0);
}

// Code, text, started threads, open locks. Without a dispatcher senders are not blocked.
TEST(Queue, SettingUpTheTasks)
{
    using Result = std::tuple<int, std::string, Texts, int>;
    Engine engine;
    const auto set_up = [] {
        qfree(MTYPE_LACP_DRVCTRL, lacDrvCtrl);
        sem_destroy(&lac_task_sem);
        fake::system().started.clear();
        int result = 0;
        const std::string text = printed([&] { result = lac_TaskInit(); });
        return Result(result, text, fake::system().started, open_locks());
    };
    EXPECT_EQ(set_up(), Result(0, "", Texts{"lacpRecv", "lacpTimer"}, 0));
    EXPECT_EQ(get_lac_global_enable(), 0U);
    fake::system().on_run = [](const std::string &) { fake::system().run_result = 11; };
    EXPECT_EQ(set_up(), Result(0, "\r\n Msg:Create lacp timer thread failed!\r", Texts{"lacpRecv"}, 0));
    EXPECT_EQ(set_up(), Result(-1, "\r\n Msg:Create lacp receive thread failed!\r", Texts{}, 1));
    EXPECT_EQ(set_lacp_port_mode(0, 1, 1), 0);
    lacpDrvCtrlInit();
    EXPECT_EQ(lacDrvCtrl->port_count, 4U);
}

// ---- frames ---------------------------------------------------------------------------------------------------

TEST(Packets, TheTagIsTakenOffAndNamesThePort)
{
    static std::vector<std::pair<std::uint32_t, Bytes>> handed_on;
    const auto take = [](const std::string &tag) {
        Bytes frame = hex("0180c2000002 023344556677" + tag);
        const auto length = static_cast<int>(frame.size());
        frame.resize(LACP_RX_BUFFER_SIZE, 0xEE);
        return printed([&] {
            lacp_pkt_take(frame.data(), length,
                          [](std::uint32_t port, std::uint32_t, std::uint32_t, const std::uint8_t *out, int size) {
                              handed_on.emplace_back(port, Bytes(out, out + size));
                              return 0;
                          });
        });
    };
    take("9082 11223344 0003 55667788  81000001 8809 01 02");
    take("9082 11223344 0102 55667788");
    for (const char *tag : {"9089 00000000 0003 00000000 01", "9083 00000000 0003 00000000 01",
                            "8282 00000000 0003 00000000 01", "9082 00000000 0003 000000", ""})
        EXPECT_EQ(take(tag), "Msg: Parse msg error.");
    EXPECT_EQ(handed_on, (decltype(handed_on){{3, hex("0180c2000002 023344556677 81000001 8809 01 02")},
                                              {0x102, hex("0180c2000002 023344556677")}}));
}

TEST(Packets, SentFramesCarryTheTagOfThePort)
{
    Engine engine;
    Bytes frame = hex("0180c2000002 0211 22aabbcc 8809");
    frame.resize(124, 0x5A);
    EXPECT_EQ(lacp_bpdu_transmit(0, 0, 0x0201, frame.data(), 124), 136);
    EXPECT_EQ(engine.wire.take().at(0).bytes,
              hex("0180c2000002 021122aabbcc  9089 00000000 01 02 00000000  8809") + Bytes(110, 0x5A));
    LacpPktSocket *const socket = std::exchange(lacp_pkt_socket, nullptr);
    EXPECT_LT(lacp_bpdu_transmit(0, 0, 1, frame.data(), 124), 0);
    LacpPktSocket broken = *socket;
    broken.fd = -1;
    lacp_pkt_socket = &broken;
    EXPECT_EQ(printed([&] { EXPECT_LT(lacp_bpdu_transmit(0, 0, 1, frame.data(), 124), 0); }),
              "send msg to socket error: Bad file descriptor\n");
    LacPort &record = engine.current_port(1);
    printed([&] { Engine::tick(2); });
    EXPECT_EQ(record.hold_count * record.stats->tx_lacpdu, 1U) << "a failed send counts like a good one";
    lacp_pkt_socket = socket;
}

// Only the address, the subtype and a Marker's TLV type are examined; a short frame ends in zeros.
TEST(Packets, WhatIsReceived)
{
    Engine engine;
    engine.running_port(1);
    const auto heard = [&](const Bytes &pdu, std::string *says = nullptr) {
        return changes([&] { engine.receive(1, pdu); }, says);
    };
    Bytes all = hex("01 c2 c3 c4  a101 b1b2b3b4b5b6 a203 a304 a405 a6 d1d2d3"
                    "c5 c6  e101 f1f2f3f4f5f6 e203 e304 e405 e6 d4d5d6 c7 c8 5678"); // every field has its own value
    all.resize(58, 0x99);
    all = all + hex("c9 ca");
    all.resize(400, 0x88);
    const LacPdu pdu = lacDecodePdu(all.data());
    const auto *bytes = reinterpret_cast<const std::uint8_t *>(&pdu); // has the layout of the PDU
    for (std::size_t at = 46; at < 110; ++at)
        EXPECT_EQ(bytes[at], at == 58 || at == 59 ? all[at] : 0) << at;
    for (const std::size_t at : {0U, 1U, 2U, 3U, 22U, 23U, 42U, 43U})
        EXPECT_EQ(bytes[at], all[at]) << at;
    EXPECT_EQ(pdu.collector_max_delay, 0x5678);
    EXPECT_EQ(lac_actor_info(&Engine::port(1)).key, 1);
    EXPECT_EQ(heard(all), "actor=5 apkey=a203 apsp=a101 apsys=b1b2b3b4b5b6 cw=15a5a heard=a6 heard_at=1 n_change=1 "
                          "n_rx=1 n_unmatched=1 partner=a6 pkey=a203 pno=a405 pprio=a304 pres=d1d2d3 psp=a101 "
                          "psys=b1b2b3b4b5b6 rx=1 sel=0");
    Bytes cut = pdu_bytes(Engine::peer(9), {});
    cut.resize(14); // within Actor_Key
    EXPECT_TRUE(has(heard(cut), " pkey=7 pno=0 pprio=0 pres=0 psp=8000 "));
    std::string says;
    EXPECT_EQ(heard({}, &says), "n_unknown=1");
    EXPECT_EQ(says, "LACP: not valid PDU with Slow Protocol Type Subtype - 00 TLV type = 00");
    EXPECT_EQ(heard(hex("02 01 02 10")), "n_response=1");
    EXPECT_EQ(heard(hex("02 01 03 10")), "n_unknown=2");
    EXPECT_EQ(heard(hex("0a 01 01")), "n_unknown=3");
    for (std::size_t byte = 0; byte < 6; ++byte) {
        Bytes frame = tagged_frame(1, all);
        frame[byte] ^= 1;
        Engine::hear(frame);
    }
    EXPECT_EQ(Lac_Queue.count(), 0) << "another destination";
    engine.wire.take();
    Bytes marker = hex("02 01 01 aa 0102 030405060708 0a0b0c0d 0e0f 11 12");
    marker.resize(110, 0x77);
    EXPECT_EQ(heard(marker), "n_answer=1 n_marker=1");
    Bytes answer = hex("0180c2000002 021122aabbcc  9089 00000000 0100 00000000  8809"
                       "02 01 02 10 0102 030405060708 0a0b0c0d 0e0f 11 12");
    answer.resize(136, 0x77);
    EXPECT_EQ(engine.wire.take().at(0).bytes, answer);
}

TEST(Packets, TheWholeLacpduOnTheWire)
{
    Engine engine;
    LacPort &record = engine.running_port(3, 2);
    set_lacp_port_oper_key(3, 0x0203);
    set_lacp_port_priority(0, 3, 0x0405);
    set_lacp_system_priority(0x0607);
    set_lacp_port_timeout(0, 3, 1);
    set_lacp_system_mac(OTHER_MAC); // in the LACPDU, not in the header
    engine.receive(3, pdu_bytes({0x0809, PEER_MAC, 0x0C0D, 0x0E0F, 0x0A0B, 0x0D, {0x31, 0x32, 0x33}}, {}));
    lacDrvCtrl->tx_slots[2].fill(0xEE); // what was sent before leaves no trace
    Engine::tick(2);
    // The partner does not know us: its Synchronization is taken back, Partner_State is 0x05.
    Bytes expected = hex("0180c2000002 021122aabbcc  9089 00000000 0300 00000000  8809  01 01"
                         "01 14 0607 029988776655 0203 0405 0003 07 000000"
                         "02 14 0809 023344556677 0c0d 0e0f 0a0b 05 313233  03 10 0a00");
    expected.resize(136);
    EXPECT_EQ(engine.wire.take().at(0).bytes, expected);
    // An individual port in DEFAULTED tells the administrative partner, not the synchronized one it works with.
    set("3.alone=1 3.rx=3 3.ykey=1234 3.ystate=5 3.ntt=1 3.hold=0");
    tx_machine(&record, Lac_tx_scheduler_expired);
    set("3.alone=0 3.ntt=1");
    tx_machine(&record, Lac_tx_scheduler_expired);
    const auto sent = engine.wire.take();
    EXPECT_EQ(Bytes(sent.at(0).bytes.begin() + 50, sent.at(0).bytes.begin() + 68),
              hex("0000 000000000000 1234 0000 0000 05 000000"));
    EXPECT_EQ(sent.at(1).bytes[58] << 8 | sent.at(1).bytes[59], 0x0C0D);
}

TEST(Packets, Opening)
{
    Engine engine;
    const int probe = socket(AF_PACKET, SOCK_RAW, 0);
    if (probe < 0)
        GTEST_SKIP() << "needs the right to open packet sockets";
    close(probe);
    LacpPktSocket *const before = std::exchange(lacp_pkt_socket, nullptr);
    if (lacp_privs.change == nullptr) // what the framework sets up before a daemon raises privileges
        STAILQ_INIT(&lacp_privs.thread_refs);
    lacp_privs.change = [](zebra_privs_ops_t) { return 0; };
    const auto index = static_cast<int>(if_nametoindex("ethv0"));
    const std::string no_index = index == 0 ? "LACPD get ifindex failed : No such device\n" : "";
    EXPECT_EQ(printed([] { EXPECT_EQ(lacp_rx_tx_packet_init(lacp_bpdu_recv), 0); }), no_index);
    const sockaddr_ll &dest = lacp_pkt_socket->dest;
    EXPECT_EQ(std::tuple(dest.sll_family, dest.sll_protocol, dest.sll_ifindex, dest.sll_pkttype, dest.sll_halen),
              std::tuple(17, 0x0300 /* 3 in network order */, index, 1, 6));
    EXPECT_EQ(lacp_pkt_socket->recv_cb, lacp_bpdu_recv);
    close(lacp_pkt_socket->fd);
    qfree(MTYPE_LACP_SSP_PACKET, lacp_pkt_socket);
    fake::system().run_result = 11;
    EXPECT_EQ(printed([] { EXPECT_EQ(lacp_rx_tx_packet_init(lacp_bpdu_recv), -1); }),
              no_index + "Create pthread error!");
    EXPECT_EQ(lacp_pkt_socket, nullptr);
    lacp_pkt_socket = before;
}

} // namespace
