// Message queue and ticks.
#include "engine.h"

namespace
{

void fill_queue()
{
    while (Lac_Queue.count() < 128)
        lacWaitAndSend("test", 3, 0, 0);
}

// A refused sender leaves the lock open for the next one.
TEST(Queue, TheOneHundredAndTwentyNinthMessageIsLost)
{
    Engine engine;
    for (std::uint64_t i = 0; i < 128; ++i)
        EXPECT_EQ(lacWaitAndSend("test", 99, 0x123456789ABCDE00 + i, i), 0);
    EXPECT_EQ(printed([] { EXPECT_EQ(lacWaitAndSend("test", LAC_Q_LINK_UP, 0, 0), -1); }),
              "\r\nMsg: lacQSend lac queue is full,cann't send any more\n\r");
    int open = 0;
    EXPECT_TRUE(sem_getvalue(&lac_task_sem, &open) == 0 && open == 1);
    LacQueueMsg message{};
    for (std::uint64_t i = 0; i < 128; ++i)
        EXPECT_TRUE(Lac_Queue.tryPop(message) && message.type == 1 && message.code == 99 &&
                    message.payload == 0x123456789ABCDE00 + i && message.port == i);
    EXPECT_FALSE(Lac_Queue.tryPop(message));
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
    LacQueueMsg first{};
    EXPECT_TRUE(Lac_Queue.tryPop(first) && (lacDispatch(first), first.payload == 0)) << "it forgets its PDU";
    Engine::send(LAC_Q_LACP_OFF); // what waits is freed all the same
    Engine::dispatch();
    EXPECT_EQ(taken(1, 1), 20) << "while LACP is off none is even copied";
    EXPECT_EQ(Lac_Queue.count(), 0);
}

} // namespace
