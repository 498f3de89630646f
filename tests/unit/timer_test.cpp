// Protocol timers and the tick.
#include "engine.h"

namespace
{

class TimerTest : public EngineTest
{
  protected:
    static std::size_t occurrences(const std::string &text, const std::string &part)
    {
        std::size_t count = 0;
        for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size())
            ++count;
        return count;
    }
    // In which of the next ticks the trace bit prints a text that contains the part.
    std::vector<unsigned> ticks_that_print(std::uint32_t bit, const std::string &part, unsigned ticks)
    {
        std::vector<unsigned> found;
        lacDebug = bit;
        for (unsigned count = 1; count <= ticks; ++count)
            if (occurrences(printed([&] { tick(); }), part) != 0)
                found.push_back(count);
        lacDebug = 0;
        return found;
    }
};

using Ticks = std::vector<unsigned>;

TEST_F(TimerTest, CurrentWhileExpiresOnTheFourthTickOrTheNinetyFirst)
{
    LacPort &record = current_port(1);
    start_current_while_timer(&record, 1);
    EXPECT_EQ(ticks_until([&] { return record.rxm == LAC_RX_EXPIRED; }), 4U);
    record.rxm = LAC_RX_CURRENT;
    start_current_while_timer(&record, 0);
    EXPECT_EQ(ticks_until([&] { return record.rxm == LAC_RX_EXPIRED; }), 91U);
    record.rxm = LAC_RX_CURRENT;
    start_current_while_timer(&record, 2);
    EXPECT_EQ(record.current_while_timer.reload, 90U) << "every value but 1 is long";
}

// From EXPIRED on: the timer was restarted by the expiry, and is found at 0 on every tick once it is there.
TEST_F(TimerTest, AnUnheardPartnerIsDefaultedFourTicksAfterExpiry)
{
    LacPort &record = current_port(1);
    start_current_while_timer(&record, 1);
    ASSERT_EQ(ticks_until([&] { return record.rxm == LAC_RX_EXPIRED; }), 4U);
    EXPECT_EQ(ticks_until([&] { return record.rxm == LAC_RX_DEFAULTED; }), 4U);
    EXPECT_EQ(ticks_that_print(LAC_DBG_RX, "Lac_current_while_timer_expired rxm: 3", 3), (Ticks{1, 2, 3}));
    EXPECT_EQ(record.rxm, LAC_RX_DEFAULTED);
    EXPECT_EQ(record.stats->trans_count, 1U);
}

TEST_F(TimerTest, WaitWhileExpiresOnTheThirdTick)
{
    LacPort &record = current_port(1);
    record.selected = LAC_SELECTED;
    record.mux_scheduler.active = 0;
    record.muxm = LAC_MUX_WAITING;
    Start_wait_while_timer(&record);
    EXPECT_EQ(ticks_until([&] { return record.attached == 1; }), 3U);
}

TEST_F(TimerTest, StartingWaitWhileTakesReadyBack)
{
    LacPort &record = running_port(1);
    record.ready_n = 1;
    record.wait_while_timer.count = 0;
    Start_wait_while_timer(&record);
    EXPECT_EQ(record.ready_n, 0U);
    EXPECT_EQ(record.wait_while_timer.count, 2U);
}

TEST_F(TimerTest, AStandbyPortsMachineRunsOnEveryThirdTick)
{
    LacPort &record = running_port(1);
    ASSERT_EQ(record.selected, LAC_STANDBY);
    record.mux_scheduler.active = 0;
    start_current_while_timer(&record, 0);
    Start_wait_while_timer(&record);
    EXPECT_EQ(ticks_that_print(LAC_DBG_MUX, "wait_while_timer_expiry port 1 port->muxm 2", 10), (Ticks{3, 6, 9}));
    EXPECT_EQ(record.wait_while_timer.active, 1U);
}

TEST_F(TimerTest, ExpiryStopsWaitWhileUnlessThePortStandsBy)
{
    LacPort &record = current_port(1);
    record.mux_scheduler.active = 0;
    for (const std::uint32_t selected : {LAC_UNSELECTED, LAC_SELECTED, LAC_STANDBY}) {
        record.muxm = LAC_MUX_NONE; // the machine does not start it again
        record.selected = selected;
        record.wait_while_timer = LacTimer{0, 2, 1, 1};
        tick();
        EXPECT_EQ(record.wait_while_timer.active, selected == LAC_STANDBY ? 1U : 0U);
        EXPECT_EQ(record.ready_n, 1U);
    }
}

// A partner that is lost on the tick on which the waiting time ends is lost first: the port is not written as a
// member.
TEST_F(TimerTest, CurrentWhileComesBeforeWaitWhile)
{
    LacPort &record = current_port(1);
    record.mux_scheduler.active = 0;
    record.muxm = LAC_MUX_WAITING;
    record.selected = LAC_SELECTED;
    record.current_while_timer.count = 0;
    record.wait_while_timer = LacTimer{0, 2, 1, 1};
    fake::take_writes();
    tick();
    EXPECT_EQ(record.rxm, LAC_RX_EXPIRED);
    EXPECT_EQ(record.attached, 1U);
    EXPECT_EQ(fake::take_writes(), Texts{});
}

TEST_F(TimerTest, TheMuxSchedulerSelectsOnceOnTheSecondTick)
{
    LacPort &record = current_port(1);
    ASSERT_NE(ticks_until([&] { return record.muxm == LAC_MUX_COLLECTING_DISTRIBUTING; }), 0U);
    record.mux_scheduler.active = 0;
    mux_scheduler_start(&record);
    mux_scheduler_start(&record);
    EXPECT_EQ(ticks_that_print(LAC_DBG_SELECT, "[Select aggregation for port 1]", 6), Ticks{2});
    mux_scheduler_start(&record);
    tick();
    mux_scheduler_start(&record);
    EXPECT_EQ(ticks_that_print(LAC_DBG_SELECT, "[Select aggregation for port 1]", 6), Ticks{2})
        << "a running scheduler starts over";
}

TEST_F(TimerTest, AnUnselectedPortIsSelectedAgainAndAgain)
{
    LacPort &record = running_port(1);
    record.mux_scheduler.active = 0;
    record.port_enabled = 0;
    start_current_while_timer(&record, 0);
    mux_scheduler_start(&record);
    EXPECT_EQ(ticks_that_print(LAC_DBG_SELECT, "[Select aggregation for port 1]", 7), (Ticks{2, 4, 6}));
}

// The mux scheduler that the receive machine starts on a tick is counted down in that very tick.
TEST_F(TimerTest, WhatAnEarlierStepStartsExpiresATickSooner)
{
    LacPort &record = running_port(1);
    record.rxm = LAC_RX_EXPIRED;
    record.mux_scheduler.active = 0;
    record.current_while_timer.count = 0;
    tick();
    ASSERT_EQ(record.rxm, LAC_RX_DEFAULTED);
    EXPECT_EQ(record.individual, 0U);
    tick();
    EXPECT_EQ(record.individual, 1U);
}

TEST_F(TimerTest, PortsThatStandStillKeepTheirTimers)
{
    struct Row {
        const char *name;
        std::function<void(LacPort &)> stop;
        std::function<void(LacPort &)> go_on;
    };
    const Row rows[] = {
        {"link down", [&](LacPort &) { set_link(2, false); }, [&](LacPort &) { set_link(2, true); }},
        {"link unreadable", [&](LacPort &) { fake::datastore().link_status.erase(2); },
         [&](LacPort &) { set_link(2, true); }},
        {"no LACP", [](LacPort &record) { record.lacp_enabled = 0; },
         [](LacPort &record) { record.lacp_enabled = 1; }},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        LacPort &record = current_port(2);
        start_current_while_timer(&record, 1);
        tick(2);
        row.stop(record);
        const std::string before = snapshot(record);
        tick(10);
        EXPECT_EQ(snapshot(record), before);
        row.go_on(record);
        EXPECT_EQ(ticks_until([&] { return record.rxm == LAC_RX_EXPIRED; }), 2U) << "it goes on where it stood";
    }
}

TEST_F(TimerTest, AStoppedTransmitSchedulerExpiresOnTheNextTick)
{
    LacPort &record = running_port(1);
    Lac_timers_init(&record);
    Start_tx_scheduler(&record);
    EXPECT_EQ(record.tx_scheduler.count, 1U);
    Stop_tx_scheduler(&record);
    EXPECT_EQ(record.tx_scheduler.active, 0U);
    EXPECT_EQ(record.tx_scheduler.initialized, 1U);
    Start_tx_scheduler(&record);
    EXPECT_EQ(record.tx_scheduler.count, 0U);
    EXPECT_EQ(record.tx_scheduler.active, 1U);
}

TEST_F(TimerTest, TheSchedulerOfTwoPassiveEndsStops)
{
    LacPort &record = current_port(1);
    record.partner_oper_state = 0;
    lac_clear_actor_state(&record, LAC_ACTIVITY);
    Lac_timers_init(&record);
    record.periodic_timer.active = 0;
    record.txm = LAC_SLOW_PERIODIC;
    Start_tx_scheduler(&record);
    tick();
    EXPECT_EQ(record.tx_scheduler.active, 1U);
    tick();
    EXPECT_EQ(record.tx_scheduler.active, 0U);
    EXPECT_EQ(record.tx_scheduler.reload, 0U);
}

TEST_F(TimerTest, OneDotATick)
{
    for (const std::uint32_t number : {1U, 2U, 3U})
        running_port(number);
    lacDebug = LAC_DBG_TICK;
    EXPECT_EQ(printed([&] { tick(3); }), "...");
    send(LAC_Q_LACP_OFF);
    EXPECT_EQ(printed([&] { tick(3); }), "") << "the tick is not run while LACP is off";
}

// ---- setting up -----------------------------------------------------------------------------------------------

TEST_F(TimerTest, AStartSetsUpWhatIsNotSetUp)
{
    switch_on();
    LacPort &record = port(1);
    for (LacTimer *timer : {&record.current_while_timer, &record.periodic_timer, &record.wait_while_timer,
                            &record.tx_scheduler, &record.mux_scheduler})
        *timer = LacTimer{77, 77, 1, 0};
    lacDebug = LAC_DBG_TIMER;
    EXPECT_EQ(printed([&] { start_current_while_timer(&record, 1); }),
              "current_while_timer_init[port 1 tick 0]\r\n\r\n  set port 1 current timer tick 3\n\r");
    EXPECT_EQ(printed([&] { Start_periodic_timer(&record, 0); }),
              "periodic_timer_init[1 tick 0]\n\r\nStart_periodic_timer[port:1 tick 30]\r\n");
    EXPECT_EQ(printed([&] { Start_wait_while_timer(&record); }), "wait_while_timer_init[port 1 tick 0]\r\n");
    EXPECT_EQ(printed([&] { Start_tx_scheduler(&record); }),
              "\r\tx_scheduler_init[port 1 tick 0]\r\nStart_tx_scheduler active :True  [port 1 tick 1]\n");
    EXPECT_EQ(printed([&] { mux_scheduler_start(&record); }), "\rmux_scheduler_init[port 1 tick 0]\r\n");
    EXPECT_EQ(record.wait_while_timer.count, 2U);
    EXPECT_EQ(record.mux_scheduler.count, 1U);
    for (const LacTimer *timer : {&record.current_while_timer, &record.periodic_timer, &record.wait_while_timer,
                                  &record.tx_scheduler, &record.mux_scheduler})
        EXPECT_EQ(timer->active + timer->initialized, 2U);
    EXPECT_EQ(printed([&] { start_current_while_timer(&record, 0); }), "\r\n  set port 1 current timer tick 90\n\r");
    EXPECT_EQ(printed([&] { Start_periodic_timer(&record, 1); }), "\r\nStart_periodic_timer[port:1 tick 1]\r\n");
    EXPECT_EQ(printed([&] { Stop_periodic_timer(&record); }), "Stop_periodic_timer[port:1]\n");
    EXPECT_EQ(printed([&] { Stop_tx_scheduler(&record); }), "Stop_tx_scheduler active :False  [port 1 ]\r\n");
    EXPECT_EQ(printed([&] { Lac_timers_init(&record); }), "\rLac_timers_init[port 1] \r\n");
    const std::uint32_t reloads[] = {0, 1, 2, 1, 1};
    const LacTimer *timers[] = {&record.current_while_timer, &record.periodic_timer, &record.wait_while_timer,
                                &record.tx_scheduler, &record.mux_scheduler};
    for (int i = 0; i < 5; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(timers[i]->reload, reloads[i]);
        EXPECT_EQ(timers[i]->active + timers[i]->count, 0U);
        EXPECT_EQ(timers[i]->initialized, 1U);
    }
}

TEST_F(TimerTest, TracesOfATick)
{
    LacPort &record = current_port(2);
    record.wait_while_timer.active = 0;
    record.mux_scheduler.active = 0;
    record.txm = LAC_SLOW_PERIODIC;
    record.ntt = 0;
    record.current_while_timer = LacTimer{5, 90, 1, 1};
    record.tx_scheduler = LacTimer{0, 0, 1, 1};
    record.periodic_timer = LacTimer{3, 30, 1, 1};
    lacDebug = LAC_DBG_TIMER;
    EXPECT_EQ(printed([&] { tick(); }), "current_while_timer_expired[port:2 tick 4]\r\n"
                                        "tx_scheduler_expired active 1 [port 2 tick 0]\r\n"
                                        "tx_scheduler_expiry start [port 2]\r\n"
                                        "Start_tx_scheduler active :True  [port 2 tick 0]\n"
                                        "\r\n periodic timer expired [port 2 active 1 tick 3]\r\n");
    record.current_while_timer.count = 0;
    record.tx_scheduler.active = 0;
    record.periodic_timer.count = 0;
    record.hold_count = 3;
    record.partner_oper_state = LAC_SYNCHRONIZATION;
    lacDebug = LAC_DBG_TIMER;
    EXPECT_EQ(printed([&] { tick(); }), "current_while_timer_expired[port:2 tick 0] Now\r\n"
                                        "\nCurrent_while_timer_expiry(port:2)\r\n"
                                        "\r\n  set port 2 current timer tick 3\n\r"
                                        "tx_scheduler_expired active 0 [port 2 tick 0]\r\n"
                                        "\r\n periodic timer expired [port 2 active 1 tick 0]\r\n"
                                        "\r\n port 2 periodic timer expiry\r\n"
                                        "Start_tx_scheduler active :True  [port 2 tick 0]\n"
                                        "\r\nStart_periodic_timer[port:2 tick 1]\r\n");
    lac_clear_actor_state(&record, LAC_ACTIVITY);
    record.partner_oper_state = 0;
    EXPECT_NE(printed([&] {
                  tick();
              }).find("tx_scheduler_expiry stop [port 2]\r\nStop_tx_scheduler active :False  [port 2 ]\r\n"),
              std::string::npos);
}

} // namespace
