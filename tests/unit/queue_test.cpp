// Message queue, dispatcher and task set-up.
#include "engine.h"

#include "lac_memory.h"

#include <new>

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
    static std::size_t occurrences(const std::string &text, const std::string &part)
    {
        std::size_t count = 0;
        for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size())
            ++count;
        return count;
    }
};

TEST_F(QueueTest, MessagesComeOutAsTheyWentIn)
{
    send(5, 2);
    send(99, 7, 0x123456789ABCDEF0);
    LacQueueMsg message{};
    ASSERT_TRUE(Lac_Queue.tryPop(message));
    EXPECT_EQ(message.code, 5U);
    EXPECT_EQ(message.port, 2U);
    ASSERT_TRUE(Lac_Queue.tryPop(message));
    EXPECT_EQ(message.type, 1);
    EXPECT_EQ(message.code, 99U);
    EXPECT_EQ(message.payload, 0x123456789ABCDEF0U);
    EXPECT_FALSE(Lac_Queue.tryPop(message));
}

TEST_F(QueueTest, TheOneHundredAndTwentyNinthMessageIsLost)
{
    int queued = 0;
    std::string refusal;
    for (int i = 0; i < 129; ++i)
        refusal += printed([&] { queued += lacWaitAndSend("test", 4, 0, 0) == 0; });
    EXPECT_EQ(queued, 128);
    EXPECT_EQ(refusal, QUEUE_FULL);
    EXPECT_EQ(open_locks(), 1) << "the next sender is not blocked";
    LacQueueMsg message{};
    ASSERT_TRUE(Lac_Queue.tryPop(message));
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

TEST_F(QueueTest, TwentySixLostTicksAreReportedOnce)
{
    fill_queue();
    std::uint32_t failures = 0;
    const auto lose = [&](int ticks) {
        return occurrences(printed([&] {
                               for (int i = 0; i < ticks; ++i)
                                   lacSendTick(failures);
                           }),
                           TICK_LOST);
    };
    EXPECT_EQ(lose(25), 0U);
    EXPECT_EQ(lose(1), 1U);
    EXPECT_EQ(lose(25), 0U);
    EXPECT_EQ(lose(1), 1U);
    EXPECT_EQ(lose(25), 0U);
    dispatch();
    lacSendTick(failures); // arrives
    fill_queue();
    EXPECT_EQ(lose(25), 0U) << "only losses in a row count";
    EXPECT_EQ(lose(1), 1U);
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
    const Bytes pdu = pdu_bytes(peer(), {});
    for (const Case &item : cases) {
        SCOPED_TRACE(item.name);
        item.prepare();
        const std::size_t before = queued_pdus();
        Bytes frame = tagged_frame(item.port_no, pdu);
        frame.erase(frame.begin() + 12, frame.begin() + 24);
        const std::uint32_t counted = port(1).stats->rx_lacpdu;
        printed([&] {
            EXPECT_EQ(lacp_bpdu_deal(item.port_no, 0, frame.data(), static_cast<int>(frame.size())),
                      item.queued ? 0 : -1);
        });
        EXPECT_EQ(queued_pdus(), before + (item.queued ? 1 : 0));
        dispatch();
        EXPECT_EQ(queued_pdus(), 0U);
        EXPECT_EQ(port(1).stats->rx_lacpdu, counted + (item.counted ? 1 : 0));
    }
}

TEST_F(QueueTest, TheMessageForgetsTheFreedPdu)
{
    running_port(1);
    Bytes frame = tagged_frame(1, pdu_bytes(peer(), {}));
    lacp_bpdu_deal(1, 0, frame.data(), static_cast<int>(frame.size()));
    LacQueueMsg message{};
    ASSERT_TRUE(Lac_Queue.tryPop(message));
    ASSERT_NE(message.payload, 0U);
    lacDispatch(message);
    EXPECT_EQ(message.payload, 0U);
}

TEST_F(QueueTest, FramesAreNotEvenCopiedWhileLacpIsOff)
{
    Bytes frame = tagged_frame(1, pdu_bytes(peer(), {}));
    port(1).lacp_enabled = 1;
    const std::string before = snapshot(port(1));
    EXPECT_EQ(lacp_bpdu_deal(1, 0, frame.data(), static_cast<int>(frame.size())), 0);
    EXPECT_EQ(Lac_Queue.count(), 0);
    EXPECT_EQ(snapshot(port(1)), before);
}

// ---- switching ------------------------------------------------------------------------------------------------

TEST_F(QueueTest, ASecondSwitchOnChangesNothing)
{
    current_port(1);
    const std::string before = snapshot(port(1));
    send(LAC_Q_LACP_ON);
    dispatch();
    EXPECT_EQ(snapshot(port(1)), before);
    set_lac_global_enable(1);
    EXPECT_EQ(Lac_Queue.count(), 0);
}

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
    dispatch();
    EXPECT_EQ(Lac_Queue.count(), 0);
    EXPECT_EQ(snapshot(port(1)), before);
}

// ---- set-up ---------------------------------------------------------------------------------------------------

TEST_F(QueueTest, BothThreadsAreStartedTheDispatcherFirst)
{
    EXPECT_EQ(fake::system().described, (Texts{"lacpRecv", "lacpTimer"}));
    EXPECT_EQ(fake::system().started, (Texts{"lacpRecv", "lacpTimer"}));
}

TEST_F(QueueTest, FrameSlotsComeWithTheFirstDynamicGroup)
{
    ASSERT_EQ(lacDrvCtrl->tx_slots, nullptr);
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
    // Sets the tasks up once more, with what the system then says.
    int set_up(std::string &text)
    {
        qfree(MTYPE_LACP_DRVCTRL, lacDrvCtrl);
        sem_destroy(&lac_task_sem);
        fake::system().started.clear();
        int result = 0;
        text = printed([&] { result = lac_TaskInit(); });
        return result;
    }
};

TEST_F(TaskSetUpTest, SendersWaitUntilTheDispatcherRuns)
{
    std::string text;
    EXPECT_EQ(set_up(text), 0);
    EXPECT_EQ(text, "");
    EXPECT_EQ(open_locks(), 0);
    EXPECT_EQ(get_lac_global_enable(), 0U);
    sem_post(&lac_task_sem);
}

TEST_F(TaskSetUpTest, WithoutADispatcherSendersAreNotBlocked)
{
    std::string text;
    fake::system().run_result = 11;
    EXPECT_EQ(set_up(text), -1);
    EXPECT_EQ(text, "\r\n Msg:Create lacp receive thread failed!\r");
    EXPECT_EQ(fake::system().started, Texts{});
    EXPECT_EQ(open_locks(), 1);
    EXPECT_EQ(set_lacp_port_mode(0, 1, 1), 0);
}

TEST_F(TaskSetUpTest, WithoutATimerTheDispatcherStaysAlone)
{
    std::string text;
    fake::system().on_run = [](const std::string &) { fake::system().run_result = 11; };
    set_up(text);
    EXPECT_EQ(text, "\r\n Msg:Create lacp timer thread failed!\r");
    EXPECT_EQ(fake::system().started, Texts{"lacpRecv"});
    sem_post(&lac_task_sem);
}

// ---- traces ---------------------------------------------------------------------------------------------------

TEST_F(QueueTest, TheTraceWordIsReportedWhenSet)
{
    EXPECT_EQ(printed([] { lacDbgCfg(0x40400); }), "\r\nMsg lacDbgCfg lacDebug 00040400\n\r");
    EXPECT_EQ(lacDbgGet(), 0x40400U);
}

TEST_F(QueueTest, TracesOfTheQueue)
{
    lacDebug = LAC_DBG_QUEUE;
    EXPECT_EQ(printed([&] { send(LAC_Q_TICK); }), "\r\n lacQSend lac queue code fcfcfcfc msgNum 0\n\r");
    EXPECT_EQ(printed([&] { send(LAC_Q_LACP_OFF); }), "\r\n lacQSend lac queue code 00000002 msgNum 1\n\r");
    dispatch();
    lacDebug = 0;
    lacpDrvCtrlInit();
    send(LAC_Q_LACP_ON);
    lacDebug = LAC_DBG_QUEUE;
    EXPECT_EQ(printed([&] { dispatch(); }), "\r\n lacRecvTask lac queue lacState is ON\n\r");
    lacDebug = 0;
    send(LAC_Q_LACP_OFF);
    lacDebug = LAC_DBG_QUEUE;
    EXPECT_EQ(printed([&] { dispatch(); }), "\r\n lacRecvTask lac queue lacState is OFF\n\r");
}

TEST_F(QueueTest, TracesOfTheSendLockNameTheWaiter)
{
    const std::string posted = "\n lacQSend post task semaphore\r";
    Bytes frame(128);
    std::uint32_t failures = 0;
    switch_on();
    lacDebug = LAC_DBG_LOCK;
    EXPECT_EQ(printed([&] { lacSendTick(failures); }),
              "\n lacTimerTask wait task semaphore for timer tick\r" + posted);
    EXPECT_EQ(printed([&] { lacp_bpdu_deal(1, 0, frame.data(), 128); }),
              "\r\n lacp_bpdu_deal wait task semaphore\r" + posted);
}

TEST_F(QueueTest, TracesOfPortMessages)
{
    switch_on();
    lacDebug = LAC_DBG_PORT;
    send(LAC_Q_LINK_UP, 3);
    send(LAC_Q_LINK_DOWN, 3);
    send(LAC_Q_PORT_ENABLE, 9);
    EXPECT_EQ(printed([&] { dispatch(); }),
              "\nLACP Link Up port:3\r\n\nLACP Link Down port:3\r\n\n cli set port:9 lacp enable\r\n");
    lacDebug = 0;
    running_port(2);
    lacDebug = LAC_DBG_PDU;
    EXPECT_EQ(printed([&] { receive(2, pdu_bytes(peer(), {})); }),
              "\r\n lacRecvTask lac queue receive port 2 code fbfbfbfb\n\r"
              "[port 2: Rx LACPDU]\r\n"
              "[lacRx port 2:LACP receive function]\r\n");
    EXPECT_EQ(printed([&] { receive(3, pdu_bytes(peer(), {})); }),
              "\r\n lacRecvTask lac queue receive port 3 code fbfbfbfb\n\r");
}

} // namespace
