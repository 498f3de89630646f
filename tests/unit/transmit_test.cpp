// Periodic and transmit machines.
#include "engine.h"

namespace
{

class TransmitTest : public EngineTest
{
  protected:
    // In which of the next ticks a LACPDU leaves, a tick once for each.
    std::vector<unsigned> transmissions(unsigned ticks, const std::function<void()> &before_each = {})
    {
        std::vector<unsigned> found;
        wire.take();
        for (unsigned count = 1; count <= ticks; ++count) {
            if (before_each)
                before_each();
            tick();
            for (std::size_t frames = wire.take().size(); frames > 0; --frames)
                found.push_back(count);
        }
        return found;
    }

    // A port whose partner agrees with everything, so that only the periodic machine transmits.
    LacPort &settled_port(std::uint8_t partner_timeout)
    {
        LacPort &record = running_port(1);
        LacInfo partner = peer(1);
        partner.state |= partner_timeout;
        const auto hear = [&] { receive(1, pdu_bytes(partner, lac_actor_info(&record))); };
        for (int i = 0; i < 12; ++i) {
            hear();
            tick();
        }
        EXPECT_EQ(record.muxm, LAC_MUX_COLLECTING_DISTRIBUTING);
        hear();
        while (record.periodic_timer.count != 0 || record.ntt != 0)
            tick();
        return record;
    }
};

using Ticks = std::vector<unsigned>;

TEST_F(TransmitTest, AShortPartnerIsToldEverySecondTickALongOneEveryThirtyFirst)
{
    LacPort &record = settled_port(0);
    EXPECT_EQ(transmissions(70), (Ticks{2, 33, 64}));
    settled_port(0);
    tick(3);
    for (int i = 0; i < 5; ++i)
        tx_machine(&record, Lac_ntt);
    EXPECT_EQ(transmissions(3), Ticks{1}) << "many requests, one LACPDU";
    EXPECT_EQ(record.ntt, 0U);
    settled_port(LAC_TIMEOUT);
    EXPECT_EQ(transmissions(9), (Ticks{2, 4, 6, 8}));
    lac_clear_actor_state(&record, LAC_ACTIVITY);
    lac_clear_partner_state(&record, LAC_ACTIVITY);
    EXPECT_EQ(transmissions(8).size(), 4U) << "two ends that turn passive keep the rate";
}

// The slow timer has most of its time left when the partner turns to the short timeout.
TEST_F(TransmitTest, APartnerThatTurnsToTheShortTimeoutIsToldOnTheNextTicks)
{
    LacPort &record = settled_port(0);
    ASSERT_EQ(transmissions(5), Ticks{2});
    ASSERT_EQ(record.txm, LAC_SLOW_PERIODIC);
    LacInfo partner = peer(1);
    partner.state |= LAC_TIMEOUT;
    receive(1, pdu_bytes(partner, lac_actor_info(&record)));
    EXPECT_EQ(record.txm, LAC_SLOW_PERIODIC) << "the machine runs with the tick";
    tick();
    EXPECT_EQ(record.txm, LAC_FAST_PERIODIC);
    EXPECT_EQ(transmissions(7), (Ticks{1, 2, 4, 6}));
    receive(1, pdu_bytes(peer(1), lac_actor_info(&record)));
    EXPECT_EQ(transmissions(40), (Ticks{1, 3, 34})) << "and back";
}

TEST_F(TransmitTest, AtMostThreeLeaveBetweenTwoPeriodicOnes)
{
    LacPort &record = settled_port(0);
    const auto ntt = [&] { tx_machine(&record, Lac_ntt); };
    // Nothing leaves on tick 1; then the periodic machine starts the count again, and three leave. The next one waits
    // for the next periodic transmission and leaves with its LACPDU.
    record.hold_count = 3;
    EXPECT_EQ(transmissions(5, ntt), (Ticks{2, 3, 4}));
    EXPECT_EQ(record.hold_count, 3U);
    EXPECT_EQ(record.ntt, 1U);
    EXPECT_EQ(transmissions(26, ntt), Ticks{});
    EXPECT_EQ(transmissions(4), Ticks{2});
    EXPECT_EQ(record.hold_count, 1U);
    for (const std::uint32_t held : {2U, 3U}) {
        record.hold_count = held;
        record.tx_scheduler.active = 0;
        tx_machine(&record, Lac_ntt);
        EXPECT_EQ(record.ntt, 1U);
        EXPECT_EQ(record.tx_scheduler.active, held < 3 ? 1U : 0U) << "the scheduler is not started above the limit";
    }
}

TEST_F(TransmitTest, WithoutPeriodicTransmissionOrLacpNothingIsSent)
{
    LacPort &record = settled_port(0);
    wire.take();
    for (const bool periodic : {true, false}) {
        record.txm = periodic ? LAC_SLOW_PERIODIC : LAC_NO_PERIODIC;
        record.lacp_enabled = periodic ? 0 : 1;
        record.hold_count = 0;
        record.ntt = 1;
        const std::uint32_t sent = record.stats->tx_lacpdu;
        tx_machine(&record, Lac_tx_scheduler_expired);
        EXPECT_EQ(record.ntt, periodic ? 1U : 0U);
        EXPECT_EQ(record.stats->tx_lacpdu, sent);
        EXPECT_TRUE(wire.take().empty());
    }
}

TEST_F(TransmitTest, ASwitchedOffSystemSendsNothing)
{
    LacPort &record = settled_port(LAC_TIMEOUT);
    lacSystemStateSet(0);
    const std::uint32_t sent = record.stats->tx_lacpdu;
    tx_machine(&record, Lac_ntt);
    lacDebug = LAC_DBG_SEND;
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(printed([&] { tick(); }), "\r\n tx_lacpdu  port 1 system lac is disable\n\r")
            << "it fires each tick";
    lacDebug = 0;
    EXPECT_EQ(record.ntt, 1U);
    EXPECT_EQ(record.hold_count, 0U);
    EXPECT_EQ(record.stats->tx_lacpdu, sent);
    lacSystemStateSet(1);
    EXPECT_EQ(transmissions(1), Ticks{1});
}

TEST_F(TransmitTest, StoppingEvents)
{
    LacPort &record = settled_port(0);
    for (const std::uint32_t event : {Lac_init, Lac_port_disabled}) {
        record.hold_count = 3;
        tx_machine(&record, Lac_ntt);
        record.tx_scheduler.active = 1;
        tx_machine(&record, event);
        EXPECT_EQ(record.ntt + record.hold_count + record.tx_scheduler.active, 0U);
        record.txm = LAC_SLOW_PERIODIC;
        Start_periodic_timer(&record, 0);
        periodic_machine(&record, event);
        EXPECT_EQ(record.txm, LAC_NO_PERIODIC);
        EXPECT_EQ(record.periodic_timer.active, 0U);
    }
    Start_periodic_timer(&record, 0);
    record.txm = LAC_FAST_PERIODIC;
    record.ntt = 1;
    const std::string before = snapshot(record);
    for (const std::uint32_t event : {Lac_port_enabled, Lac_received, Lac_port_moved}) {
        tx_machine(&record, event);
        periodic_machine(&record, event);
    }
    EXPECT_EQ(snapshot(record), before) << "other events are not theirs";
}

// ---- periodic machine -----------------------------------------------------------------------------------------

TEST_F(TransmitTest, PeriodicTransitions)
{
    constexpr std::uint8_t SHORT = LAC_TIMEOUT;
    struct Row {
        const char *name;
        std::uint32_t from;
        std::uint32_t enabled; // 1 port, 2 LACP
        std::uint8_t actor;
        std::uint8_t partner;
        std::uint32_t count; // of the periodic timer
        std::uint32_t to;
        std::uint32_t loaded; // 0: not started
    };
    const Row rows[] = {
        {"starts with us active", 0, 3, LAC_ACTIVITY, 0, 0, LAC_SLOW_PERIODIC, 30},
        {"starts with the partner active", 0, 3, 0, LAC_ACTIVITY | SHORT, 0, LAC_FAST_PERIODIC, 1},
        {"both passive", 0, 3, 0, SHORT, 0, LAC_NO_PERIODIC, 0},
        {"port down", 0, 2, LAC_ACTIVITY, 0, 0, LAC_NO_PERIODIC, 0},
        {"no LACP", 0, 1, LAC_ACTIVITY, 0, 0, LAC_NO_PERIODIC, 0},
        {"fast, running, both short", LAC_FAST_PERIODIC, 3, SHORT, SHORT, 1, LAC_FAST_PERIODIC, 0},
        {"fast, running, we are long", LAC_FAST_PERIODIC, 3, 0, SHORT, 1, LAC_FAST_PERIODIC, 1},
        {"fast, expired", LAC_FAST_PERIODIC, 3, SHORT, SHORT, 0, LAC_FAST_PERIODIC, 1},
        {"fast, partner turned long, running", LAC_FAST_PERIODIC, 3, SHORT, 0, 1, LAC_SLOW_PERIODIC, 0},
        {"fast, partner turned long, expired", LAC_FAST_PERIODIC, 3, SHORT, 0, 0, LAC_SLOW_PERIODIC, 30},
        {"slow, running", LAC_SLOW_PERIODIC, 3, 0, 0, 9, LAC_SLOW_PERIODIC, 0},
        {"slow, expired", LAC_SLOW_PERIODIC, 3, 0, 0, 0, LAC_SLOW_PERIODIC, 30},
        {"slow, partner turned short", LAC_SLOW_PERIODIC, 3, 0, SHORT, 9, LAC_FAST_PERIODIC, 1},
        {"transmitting", LAC_PERIODIC_TX, 3, 0, SHORT, 9, LAC_FAST_PERIODIC, 1},
        {"both turned passive", LAC_SLOW_PERIODIC, 3, 0, 0, 0, LAC_SLOW_PERIODIC, 30},
        {"no state of the machine", 3, 3, LAC_ACTIVITY, SHORT, 0, 3, 0},
    };
    switch_on();
    LacPort &record = port(1);
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        record.txm = row.from;
        record.port_enabled = row.enabled & 1;
        record.lacp_enabled = row.enabled >> 1;
        record.actor_oper_state = row.actor;
        record.partner_oper_state = row.partner;
        record.periodic_timer = LacTimer{row.count, 99, 0, 1};
        record.hold_count = 3;
        record.ntt = 0;
        update_Period(&record);
        EXPECT_EQ(record.txm, row.to);
        EXPECT_EQ(record.periodic_timer.active, row.loaded == 0 ? 0U : 1U);
        EXPECT_EQ(record.periodic_timer.count, row.loaded == 0 ? row.count : row.loaded);
        EXPECT_EQ(record.ntt, row.loaded == 0 ? 0U : 1U);
        EXPECT_EQ(record.hold_count, row.loaded == 0 ? 3U : 0U);
    }
}

TEST_F(TransmitTest, APassivePortAnswersAnActivePartner)
{
    create_group(1, "dynamic");
    fake::datastore().mode[1] = "passive";
    LacPort &record = running_port(1);
    EXPECT_EQ(transmissions(8), Ticks{}) << "nobody is active";
    EXPECT_EQ(record.txm, LAC_NO_PERIODIC);
    receive(1, pdu_bytes(peer(1), lac_actor_info(&record)));
    EXPECT_FALSE(transmissions(4).empty());
}

} // namespace
