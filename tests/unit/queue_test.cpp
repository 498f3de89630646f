// Message queue, dispatcher and task set-up.
#include "engine.h"

#include "lac_memory.h"

#include <cstring>
#include <new>
#include <tuple>

namespace
{

constexpr char QUEUE_FULL[] = "\r\nMsg: lacQSend lac queue is full,cann't send any more\n\r";
constexpr char TICK_LOST[] = "lacTimerTask: Timer Tick send failed.\r";

class QueueTest : public EngineTest
{
  protected:
    static void fill_queue()
    {
        while (Lac_Queue.count() < 128)
            lacWaitAndSend("test", 3, 0, 0);
    }
    static int open_locks()
    {
        int value = 0;
        sem_getvalue(&lac_task_sem, &value);
        return value;
    }
};

TEST_F(QueueTest, TheOneHundredAndTwentyNinthMessageIsLost)
{
    int queued = 0;
    std::string refusal;
    for (std::uint64_t i = 0; i < 129; ++i)
        refusal += printed([&] { queued += lacWaitAndSend("test", 99, 0x123456789ABCDE00 + i, i) == 0; });
    EXPECT_EQ(queued, 128);
    EXPECT_EQ(refusal, QUEUE_FULL);
    EXPECT_EQ(open_locks(), 1) << "the next sender is not blocked";
    EXPECT_FALSE(Lac_Queue.push({}));
    LacQueueMsg message{};
    for (std::uint64_t i = 0; i < 128; ++i) {
        ASSERT_TRUE(Lac_Queue.tryPop(message));
        EXPECT_TRUE(message.type == 1 && message.code == 99 && message.payload == 0x123456789ABCDE00 + i &&
                    message.port == i);
    }
    EXPECT_FALSE(Lac_Queue.tryPop(message));
    EXPECT_EQ(lacWaitAndSend("test", 4, 0, 0), 0);
}

TEST_F(QueueTest, WithoutAQueueSendingFails)
{
    LacQueue *const queue = new (&Lac_Queue) LacQueue;
    EXPECT_EQ(printed([] { EXPECT_EQ(lacWaitAndSend("test", LAC_Q_LINK_UP, 0, 1), -1); }),
              "\r\nMsg lacQSend get lac queue infom failed\n\r");
    EXPECT_EQ(open_locks(), 1);
    EXPECT_FALSE(queue->push({}));
    queue->create();
}

TEST_F(QueueTest, TwentySixLostTicksInARowAreReportedOnce)
{
    fill_queue();
    std::uint32_t failures = 0;
    const auto lose = [&](int ticks) {
        return printed([&] {
            for (int i = 0; i < ticks; ++i)
                lacSendTick(failures);
        });
    };
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(lose(25).find(TICK_LOST), std::string::npos);
        const std::string last = lose(1);
        EXPECT_EQ(last.substr(last.size() - strlen(TICK_LOST)), TICK_LOST);
    }
    lose(25);
    dispatch();
    lacSendTick(failures); // arrives
    dispatch();
    fill_queue();
    EXPECT_EQ(lose(25).find(TICK_LOST), std::string::npos);
    EXPECT_NE(lose(1).find(TICK_LOST), std::string::npos);
}

// After a stall time goes on from where it stood.
TEST_F(QueueTest, OneTickWaitsAtATime)
{
    std::uint32_t failures = 0;
    send(3);
    dispatch(); // the tick does not stand first in the ring
    lacSendTick(failures);
    lacSendTick(failures);
    EXPECT_EQ(Lac_Queue.count(), 1);
    EXPECT_EQ(failures, 1U);
    dispatch();
    lacSendTick(failures);
    EXPECT_EQ(Lac_Queue.count(), 1);
    EXPECT_EQ(failures, 0U);
}

// ---- PDUs -----------------------------------------------------------------------------------------------------

TEST_F(QueueTest, EveryPduIsFreedWhereverItEnds)
{
    struct Case {
        const char *name;
        std::uint32_t port_no;
        std::function<void()> prepare;
        bool queued;
        bool counted;
    };
    const Case cases[] = {
        {"port without LACP", 2, [] {}, true, false},
        {"unknown port", 9, [] {}, true, false},
        {"port 0", 0, [] {}, true, false},
        {"running port", 1, [] {}, true, true},
        {"queue full", 1, [] { fill_queue(); }, false, false},
        {"LACP switched off meanwhile", 1, [&] { send(LAC_Q_LACP_OFF); }, true, false},
    };
    running_port(1);
    Bytes frame = tagged_frame(0, pdu_bytes(peer(), {}));
    frame.erase(frame.begin() + 12, frame.begin() + 24);
    const auto deal = [&](std::uint32_t port_no) {
        return lacp_bpdu_deal(port_no, 0, frame.data(), static_cast<int>(frame.size()));
    };
    for (const Case &item : cases) {
        SCOPED_TRACE(item.name);
        item.prepare();
        const std::size_t before = queued_pdus();
        const std::uint32_t counted = port(1).stats->rx_lacpdu;
        printed([&] { EXPECT_EQ(deal(item.port_no), item.queued ? 0 : -1); });
        EXPECT_EQ(queued_pdus(), before + (item.queued ? 1 : 0));
        LacQueueMsg message{};
        while (Lac_Queue.tryPop(message)) {
            lacDispatch(message);
            EXPECT_TRUE(message.code != LAC_Q_PDU || message.payload == 0) << "the message forgets it";
        }
        EXPECT_EQ(queued_pdus(), 0U);
        EXPECT_EQ(port(1).stats->rx_lacpdu, counted + (item.counted ? 1 : 0));
    }
    EXPECT_EQ(port(2).stats->rx_lacpdu, 0U);
    EXPECT_EQ(deal(1), 0);
    EXPECT_EQ(Lac_Queue.count(), 0) << "while LACP is off it is not even copied";
}

// A flood leaves room: for LACPDUs and other PDUs of each port, and one allowance for numbers of no port.
TEST_F(QueueTest, AFloodOfPdusIsHeldBack)
{
    switch_on();
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
    EXPECT_EQ(taken(1, 1), 8);
    EXPECT_EQ(taken(1, 2), 4);
    EXPECT_EQ(taken(1, 9), 0) << "with the Markers";
    EXPECT_EQ(taken(2, 1), 8);
    EXPECT_EQ(taken(77, 1), 8);
    EXPECT_EQ(taken(0, 1), 0);
    printed([&] { dispatch(); });
    EXPECT_EQ(taken(0, 2), 4);
}

// ---- switching ------------------------------------------------------------------------------------------------

TEST_F(QueueTest, SwitchedOffNothingMovesUntilSwitchedOn)
{
    current_port(1);
    LacPort &record = current_port(2);
    ASSERT_NE(ticks_until([&] { return record.muxm == LAC_MUX_COLLECTING_DISTRIBUTING; }), 0U);
    ASSERT_EQ(record.aggregator.get(), &port(1));
    send(LAC_Q_LACP_OFF);
    dispatch();
    EXPECT_EQ(get_lac_global_enable(), 0U);
    EXPECT_EQ(lacSystem->system_state, 0U);
    EXPECT_EQ(record.aggregator.get(), &record);
    EXPECT_EQ(record.selected, LAC_UNSELECTED);
    const std::string before = snapshot(record);
    wire.take();
    send(LAC_Q_LACP_OFF);
    for (const std::uint64_t code : {LAC_Q_LINK_UP, LAC_Q_LINK_DOWN, LAC_Q_PORT_ENABLE, LAC_Q_TICK})
        send(code, 2);
    tick(4);
    EXPECT_EQ(snapshot(record), before);
    EXPECT_TRUE(wire.take().empty());
    send(LAC_Q_LACP_ON);
    dispatch();
    EXPECT_EQ(record.rxm, LAC_RX_EXPIRED);
}

TEST_F(QueueTest, CodesThatNobodyActsOnAreConsumed)
{
    current_port(1);
    const std::string before = snapshot(port(1));
    for (const std::uint64_t code : {std::uint64_t{0}, std::uint64_t{3}, std::uint64_t{4}, std::uint64_t{8},
                                     std::uint64_t{15}, std::uint64_t{1} << 32 | LAC_Q_LINK_DOWN})
        send(code, 1, 1);
    send(LAC_Q_LACP_ON); // it is on
    dispatch();
    set_lac_global_enable(1);
    EXPECT_EQ(Lac_Queue.count(), 0);
    EXPECT_EQ(snapshot(port(1)), before);
}

// ---- set-up ---------------------------------------------------------------------------------------------------

TEST_F(QueueTest, SetUp)
{
    EXPECT_EQ(fake::system().described, (Texts{"lacpRecv", "lacpTimer"}));
    EXPECT_EQ(fake::system().started, (Texts{"lacpRecv", "lacpTimer"})) << "the dispatcher first";
    ASSERT_EQ(lacDrvCtrl->tx_slots, nullptr) << "frame slots come with the first dynamic group";
    lacpDrvCtrlInit();
    EXPECT_EQ(lacDrvCtrl->port_count, 4U);
    for (std::size_t slot = 0; slot < 5; ++slot) {
        EXPECT_EQ(lacDrvCtrl->tx_slots[slot], LacFrame{});
        EXPECT_EQ(lacDrvCtrl->marker_slots[slot], LacFrame{});
    }
    EXPECT_EQ(get_lac_global_enable(), 0U);
}

class TaskSetUpTest : public QueueTest
{
  protected:
    using Result = std::tuple<int, std::string, Texts, int>; // code, text, started threads, open locks

    // Sets the tasks up once more, with what the system then says.
    static Result set_up()
    {
        qfree(MTYPE_LACP_DRVCTRL, lacDrvCtrl);
        sem_destroy(&lac_task_sem);
        fake::system().started.clear();
        int result = 0;
        const std::string text = printed([&] { result = lac_TaskInit(); });
        return {result, text, fake::system().started, open_locks()};
    }
};

TEST_F(TaskSetUpTest, SendersWaitUntilTheDispatcherRuns)
{
    EXPECT_EQ(set_up(), Result(0, "", Texts{"lacpRecv", "lacpTimer"}, 0));
    EXPECT_EQ(get_lac_global_enable(), 0U);
    sem_post(&lac_task_sem);
}

TEST_F(TaskSetUpTest, WithoutATimerTheDispatcherStaysAlone)
{
    fake::system().on_run = [](const std::string &) { fake::system().run_result = 11; };
    EXPECT_EQ(set_up(), Result(0, "\r\n Msg:Create lacp timer thread failed!\r", Texts{"lacpRecv"}, 0));
    sem_post(&lac_task_sem);
}

TEST_F(TaskSetUpTest, WithoutADispatcherSendersAreNotBlocked)
{
    fake::system().run_result = 11;
    EXPECT_EQ(set_up(), Result(-1, "\r\n Msg:Create lacp receive thread failed!\r", Texts{}, 1));
    EXPECT_EQ(set_lacp_port_mode(0, 1, 1), 0);
}

} // namespace
