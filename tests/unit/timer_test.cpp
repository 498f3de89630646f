// Protocol timers and the tick.
#include "engine.h"

namespace
{

using Ticks = std::vector<unsigned>;

class TimerTest : public EngineTest
{
  protected:
    // In which of the next ticks the trace bit prints a text that contains the part.
    Ticks ticks_that_print(std::uint32_t bit, const std::string &part, unsigned ticks)
    {
        Ticks found;
        lacDebug = bit;
        for (unsigned count = 1; count <= ticks; ++count)
            if (printed([&] { tick(); }).find(part) != std::string::npos)
                found.push_back(count);
        lacDebug = 0;
        return found;
    }
};

TEST_F(TimerTest, TicksToExpiry)
{
    LacPort &record = current_port(1);
    start_current_while_timer(&record, 2);
    EXPECT_EQ(record.current_while_timer.reload, 90U) << "every value but 1 is long";
    for (const auto &[is_short, ticks] : {std::pair{1U, 4U}, {0U, 91U}}) {
        record.rxm = LAC_RX_CURRENT;
        start_current_while_timer(&record, is_short);
        EXPECT_EQ(ticks_until([&] { return record.rxm == LAC_RX_EXPIRED; }), ticks);
    }
    // From EXPIRED on: the expiry has restarted the timer, which is found at 0 on every tick once it is there.
    EXPECT_EQ(ticks_until([&] { return record.rxm == LAC_RX_DEFAULTED; }), 4U);
    EXPECT_EQ(ticks_that_print(LAC_DBG_RX, "Lac_current_while_timer_expired rxm: 3", 3), (Ticks{1, 2, 3}));
    EXPECT_EQ(record.rxm, LAC_RX_DEFAULTED);
    EXPECT_EQ(record.stats->trans_count, 1U);

    record.attached = 0;
    record.rxm = LAC_RX_CURRENT;
    record.selected = LAC_SELECTED;
    record.mux_scheduler.active = 0;
    record.muxm = LAC_MUX_WAITING;
    record.ready_n = 1;
    start_current_while_timer(&record, 0);
    Start_wait_while_timer(&record);
    EXPECT_EQ(record.ready_n, 0U);
    EXPECT_EQ(ticks_until([&] { return record.attached == 1; }), 3U);
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

// ---- setting up -----------------------------------------------------------------------------------------------

TEST_F(TimerTest, AStartSetsUpWhatIsNotSetUp)
{
    switch_on();
    LacPort &record = port(1);
    struct Row {
        LacTimer &timer;
        std::function<void()> start, stop;
        std::uint32_t count, reload; // after the start; after all timers are set up
    };
    const Row rows[] = {
        {record.current_while_timer, [&] { start_current_while_timer(&record, 1); }, {}, 3, 0},
        {record.periodic_timer, [&] { Start_periodic_timer(&record, 0); }, [&] { Stop_periodic_timer(&record); }, 30,
         1},
        {record.wait_while_timer, [&] { Start_wait_while_timer(&record); }, {}, 2, 2},
        {record.tx_scheduler, [&] { Start_tx_scheduler(&record); }, [&] { Stop_tx_scheduler(&record); }, 1, 1},
        {record.mux_scheduler, [&] { mux_scheduler_start(&record); }, {}, 1, 1},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(&row - rows);
        row.timer = LacTimer{77, 77, 1, 0};
        row.start();
        EXPECT_EQ(row.timer.count, row.count);
        EXPECT_EQ(row.timer.active + row.timer.initialized, 2U);
        if (row.stop) {
            row.stop();
            EXPECT_EQ(row.timer.active + row.timer.count + row.timer.reload, 0U);
            EXPECT_EQ(row.timer.initialized, 1U);
        }
    }
    Start_tx_scheduler(&record);
    EXPECT_EQ(record.tx_scheduler.count, 0U) << "a stopped one expires on the next tick";
    Lac_timers_init(&record);
    for (const Row &row : rows) {
        EXPECT_EQ(row.timer.reload, row.reload) << &row - rows;
        EXPECT_EQ(row.timer.active + row.timer.count, 0U);
        EXPECT_EQ(row.timer.initialized, 1U);
    }
}

} // namespace
