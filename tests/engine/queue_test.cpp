// Message queue, dispatcher and tasks; frames on the CPU interface and the PDUs in them, byte by byte.
#include "engine.h"

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

// A refused sender leaves the lock open for the next one.
TEST(Queue, TheOneHundredAndTwentyNinthMessageIsLost)
{
    Engine engine;
    for (std::uint64_t i = 0; i < 128; ++i)
        EXPECT_EQ(lacWaitAndSend("test", 99, 0x123456789ABCDE00 + i, i), 0);
    const auto refused = [] {
        return printed([] { EXPECT_EQ(lacWaitAndSend("test", LAC_Q_LINK_UP, 0, 0), -1); }) +
               std::to_string(open_locks() + int(Lac_Queue.push({})));
    };
    EXPECT_EQ(refused(), "\r\nMsg: lacQSend lac queue is full,cann't send any more\n\r1");
    LacQueueMsg message{};
    for (std::uint64_t i = 0; i < 128; ++i)
        EXPECT_TRUE(Lac_Queue.tryPop(message) && message.type == 1 && message.code == 99 &&
                    message.payload == 0x123456789ABCDE00 + i && message.port == i);
    EXPECT_FALSE(Lac_Queue.tryPop(message));
    new (&Lac_Queue) LacQueue; // not created
    EXPECT_EQ(refused(), "\r\nMsg lacQSend get lac queue infom failed\n\r1");
    Lac_Queue.create();
}

// One tick waits at a time; 26 lost ones in a row are reported once.
TEST(Queue, Ticks)
{
    Engine engine;
    LacTickCounts counts{};
    const auto ticks = [&](int count) {
        return printed([&] {
            while (count-- > 0)
                lacSendTick(counts);
        });
    };
    Engine::send(3);
    Engine::dispatch(); // the tick does not stand first in the ring
    EXPECT_EQ(ticks(26), "");
    EXPECT_EQ(ticks(1), "LACP Msg: a tick has been waiting for 26 seconds, the dispatcher is busy!\n");
    EXPECT_EQ(Lac_Queue.count(), 1);
    Engine::dispatch();
    ticks(1);
    EXPECT_EQ(counts.waiting, 0U) << "it has arrived";
    Engine::dispatch();
    fill_queue();
    for (int i = 0; i < 2; ++i) {
        EXPECT_FALSE(has(ticks(25), "Tick send failed"));
        EXPECT_TRUE(has(ticks(1), "lacTimerTask: Timer Tick send failed.\r"));
    }
}

// A flood leaves room: for LACPDUs and other PDUs of each port, and one allowance for numbers of no port.
TEST(Queue, AFloodOfPdusIsHeldBack)
{
    Engine engine;
    engine.running_port(1);
    const auto taken = [](std::uint32_t port_no, std::uint8_t subtype) {
        Bytes frame(LAC_RX_PDU_OFFSET + 1, subtype);
        int count = 0;
        printed([&] {
            for (int i = 0; i < 20; ++i)
                count += lacp_bpdu_deal(port_no, 0, frame.data(), static_cast<int>(frame.size())) == 0;
        });
        return count;
    };
    EXPECT_EQ((std::array{taken(1, 1), taken(1, 2), taken(1, 9), taken(2, 1), taken(77, 1), taken(0, 1)}),
              (std::array{8, 4, 0, 8, 8, 0}));
    Engine::send(LAC_Q_LACP_OFF); // what waits is freed all the same
    Engine::dispatch();
    EXPECT_EQ(taken(1, 1), 20) << "while LACP is off none is even copied";
    EXPECT_EQ(Lac_Queue.count(), 0);
}

// ---- frames ---------------------------------------------------------------------------------------------------

// Every field of a partner has its own value. Only the address, the subtype and a Marker's TLV type are examined.
TEST(Packets, WhatIsReceived)
{
    Engine engine;
    engine.running_port(1);
    const auto heard = [&](const Bytes &pdu) { return changes([&] { engine.receive(1, pdu); }); };
    Bytes all = hex("01 c2 c3 c4  a101 b1b2b3b4b5b6 a203 a304 a405 a6 d1d2d3"
                    "c5 c6  e101 f1f2f3f4f5f6 e203 e304 e405 e6 d4d5d6 c7 c8 5678");
    all.resize(400, 0x88);
    EXPECT_EQ(heard(all), "actor=5 apkey=a203 apsp=a101 apsys=b1b2b3b4b5b6 cw=15a5a heard=a6 heard_at=1 n_change=1 "
                          "n_rx=1 n_unmatched=1 partner=a6 pkey=a203 pno=a405 pprio=a304 pres=d1d2d3 psp=a101 "
                          "psys=b1b2b3b4b5b6 rx=1 sel=0");
    std::string says;
    EXPECT_EQ(
        changes([&] { engine.receive(1, {}), engine.receive(1, hex("0a01")), engine.receive(1, hex("020103")); },
                &says),
        "n_unknown=3");
    EXPECT_TRUE(has(says, "LACP: not valid PDU with Slow Protocol Type Subtype - 02 TLV type = 03"));
    for (std::size_t byte = 0; byte < 6; ++byte) {
        Bytes frame = tagged_frame(1, all);
        frame[byte] ^= 1;
        Engine::hear(frame);
    }
    EXPECT_EQ(Lac_Queue.count(), 0) << "another destination";
    engine.wire.take();
    Bytes marker = hex("02 01 01 aa 0102 030405060708 0a0b0c0d 0e0f 11 12");
    marker.resize(110, 0x77);
    heard(marker);
    Bytes answer = hex("0180c2000002 021122aabbcc  9089 00000000 0100 00000000  8809"
                       "02 01 02 10 0102 030405060708 0a0b0c0d 0e0f 11 12");
    answer.resize(136, 0x77);
    EXPECT_EQ(engine.wire.take().at(0).bytes, answer);
}

} // namespace
