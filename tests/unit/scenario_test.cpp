// Whole stories: up to four links to partners that answer, tick by tick.
#include "engine.h"

namespace
{

// The far end of one link: hears our LACPDUs and answers each with one of its own.
struct FarEnd {
    LacInfo self;
    LacInfo heard{};
    bool talks = true;

    Bytes answer() const { return pdu_bytes(self, heard); }
};

class ScenarioTest : public EngineTest
{
  protected:
    ScenarioTest() : EngineTest(1, 6)
    {
        for (std::uint16_t number = 1; number <= 6; ++number)
            far_ends.push_back({peer(number)});
    }

    FarEnd &far_end(std::uint32_t port_no) { return far_ends[port_no - 1]; }

    // One tick; then every partner hears what was sent and answers.
    void second()
    {
        tick();
        for (const SentFrame &frame : wire.take()) {
            FarEnd &partner = far_end(frame.port());
            const auto link = fake::datastore().link_status.find(frame.port());
            if (!partner.talks || link == fake::datastore().link_status.end() || link->second != "up")
                continue;
            partner.heard = frame.actor();
            receive(frame.port(), partner.answer());
        }
    }
    void seconds(unsigned count)
    {
        while (count-- > 0)
            second();
    }
    unsigned seconds_until(const std::function<bool()> &condition, unsigned limit = 200)
    {
        for (unsigned count = 1; count <= limit; ++count) {
            second();
            if (condition())
                return count;
        }
        return 0;
    }
    static bool distributing(std::uint32_t port_no)
    {
        return (port(port_no).actor_oper_state & LAC_DISTRIBUTING) != 0 &&
               port(port_no).muxm == LAC_MUX_COLLECTING_DISTRIBUTING;
    }

    // The trunk as the switch has it: the members of the last request for the group.
    static std::uint32_t trunk(std::uint8_t group)
    {
        std::uint32_t members = 0;
        for (const fake::Message &message : fake::driver().sent) {
            if (message[11] != group)
                continue;
            if (message[7] == SCLIENT_MSG_TRUNK_CREATE)
                members = message[19];
            else if (message[7] == SCLIENT_MSG_TRUNK_DESTROY)
                members = 0;
        }
        return members;
    }
    static std::uint32_t aggregator_of(int group)
    {
        std::uint32_t number = 99;
        get_channel_group_agg_no(group, &number);
        return number;
    }

    // Ports 1 to n of group 1 up and distributing.
    void bring_up(std::uint32_t ports)
    {
        for (std::uint32_t number = 1; number <= ports; ++number)
            running_port(number);
        ASSERT_NE(seconds_until([&] {
                      bool all = true;
                      for (std::uint32_t number = 1; number <= ports; ++number)
                          all = all && distributing(number);
                      return all;
                  }),
                  0U);
        seconds(40); // the rate has settled
        ASSERT_EQ(trunk(1), (1U << ports) - 1);
    }

    std::vector<FarEnd> far_ends;
};

// Joining selects the port as standby, since nothing is known of a partner. The periodic machine starts on tick 1 and
// the first LACPDU leaves on tick 2, where it is answered. The answer unselects the port and starts the mux
// scheduler, which selects on tick 4; WAITING counts from there and ends on the third tick after.
TEST_F(ScenarioTest, APortComesUpInSevenTicks)
{
    LacPort &record = running_port(2);
    second();
    EXPECT_EQ(record.rxm, LAC_RX_EXPIRED);
    EXPECT_EQ(record.stats->tx_lacpdu, 0U);
    second();
    EXPECT_EQ(record.stats->tx_lacpdu, 1U);
    EXPECT_EQ(record.rxm, LAC_RX_CURRENT);
    EXPECT_EQ(record.selected, LAC_UNSELECTED);
    seconds(2);
    EXPECT_EQ(record.selected, LAC_SELECTED);
    EXPECT_EQ(record.muxm, LAC_MUX_WAITING);
    seconds(2);
    EXPECT_EQ(record.muxm, LAC_MUX_WAITING);
    EXPECT_EQ(trunk(1), 0U);
    second();
    EXPECT_TRUE(distributing(2));
    EXPECT_EQ(trunk(1), 0x2U);
    EXPECT_EQ(record.port_mask, 0x2U);
    EXPECT_EQ(aggregator_of(1), 2U);
    EXPECT_EQ(fake::datastore().members[1], std::set<std::string>{"gigabitethernet 0/2"});
    seconds(2);
    EXPECT_EQ(far_end(2).heard.state,
              LAC_ACTIVITY | LAC_AGGREGATION | LAC_SYNCHRONIZATION | LAC_COLLECTING | LAC_DISTRIBUTING);
}

// The long timeout runs out 91 ticks after the last LACPDU, then the short one in 4; the port then stands alone.
TEST_F(ScenarioTest, APartnerIsLostAndFoundAgain)
{
    bring_up(2);
    LacPort &record = port(2);
    receive(2, far_end(2).answer());
    far_end(2).talks = false;
    EXPECT_EQ(seconds_until([&] { return record.rxm == LAC_RX_EXPIRED; }), 91U);
    EXPECT_EQ(record.partner_oper_key, 7);
    EXPECT_FALSE((record.partner_oper_state & LAC_SYNCHRONIZATION) != 0);
    EXPECT_EQ(seconds_until([&] { return record.rxm == LAC_RX_DEFAULTED; }), 4U);
    EXPECT_TRUE(distributing(1)) << "the other link goes on";
    EXPECT_NE(seconds_until([&] { return trunk(1) == 0x1; }, 10), 0U) << "no partner, no member";
    EXPECT_NE(seconds_until([&] { return distributing(2); }, 10), 0U) << "but it forwards";
    EXPECT_EQ(record.individual, 1U);
    EXPECT_EQ(record.aggregator.get(), &record);
    EXPECT_EQ(trunk(1), 0x1U) << "not as a member";
    EXPECT_EQ(port(1).port_mask, 0x1U);
    seconds(50);
    EXPECT_EQ(record.rxm, LAC_RX_DEFAULTED);
    EXPECT_TRUE(distributing(2));

    far_end(2).talks = true;
    EXPECT_NE(seconds_until([&] { return trunk(1) == 0x3; }, 60), 0U);
    EXPECT_EQ(record.individual, 0U);
    EXPECT_EQ(record.rxm, LAC_RX_CURRENT);
    EXPECT_EQ(record.aggregator.get(), &port(1));
    EXPECT_EQ(port(1).port_mask, 0x3U);
}

TEST_F(ScenarioTest, WithShortTimeoutAPartnerIsLostInFourTicks)
{
    far_end(1).self.state |= LAC_TIMEOUT; // it wants to hear us every second tick, and answers as often
    set_lacp_port_timeout(0, 1, 1);
    bring_up(1);
    receive(1, far_end(1).answer());
    far_end(1).talks = false;
    EXPECT_EQ(seconds_until([&] { return port(1).rxm == LAC_RX_EXPIRED; }), 4U);
    EXPECT_EQ(seconds_until([&] { return port(1).rxm == LAC_RX_DEFAULTED; }), 4U);
    EXPECT_NE(seconds_until([&] { return trunk(1) == 0; }, 10), 0U) << "also the last port leaves";
    EXPECT_NE(seconds_until([&] { return distributing(1); }, 10), 0U) << "and forwards alone";
}

// Four ports make one trunk, on which nothing but the periodic LACPDUs is heard; one leaves it. LACPDUs on every tick
// do not keep selection waiting.
TEST_F(ScenarioTest, AnEagerPartnerThatChangesItsKeyLeavesTheTrunk)
{
    bring_up(4);
    EXPECT_EQ(aggregator_of(1), 1U);
    EXPECT_EQ(port(1).port_mask, 0xFU);
    seconds(35);
    const std::uint32_t before = port(1).stats->tx_lacpdu;
    seconds(124);
    EXPECT_EQ(port(1).stats->tx_lacpdu - before, 4U);
    for (std::uint32_t number = 1; number <= 4; ++number) {
        EXPECT_EQ(port(number).aggregator.get(), &port(1));
        EXPECT_EQ(port(number).stats->attach_count, 1U);
        EXPECT_EQ(port(number).stats->moved, 0U);
    }
    far_end(2).self.key = 8;
    for (int i = 0; i < 4; ++i) {
        receive(2, far_end(2).answer());
        EXPECT_TRUE(i != 0 || port(2).selected == LAC_UNSELECTED);
        second();
    }
    EXPECT_EQ(port(2).selected, LAC_STANDBY);
    EXPECT_EQ(trunk(1), 0xDU);
}

TEST_F(ScenarioTest, LoopsAndIndividualPartnersAreHeardButStandBy)
{
    far_end(2).self.state = LAC_ACTIVITY;
    running_port(1, 1);
    running_port(2, 2);
    for (int i = 0; i < 30; ++i) {
        tick();
        for (const SentFrame &frame : wire.take()) // what leaves the first comes back
            receive(frame.port(), frame.port() == 1 ? frame.pdu() : far_end(2).answer());
    }
    EXPECT_EQ(port(2).matched, 1U);
    for (const std::uint32_t number : {1U, 2U}) {
        EXPECT_EQ(port(number).rxm, LAC_RX_CURRENT);
        EXPECT_EQ(port(number).selected, LAC_STANDBY);
        EXPECT_EQ(trunk(static_cast<std::uint8_t>(number)), 0U);
    }
}

// A link that is told and answers every second tick selects its group as often, as does one whose partner is silent;
// a port that joins then must still get through its waiting time.
TEST_F(ScenarioTest, FastAndLoneLinksLetOthersJoin)
{
    for (const bool lone : {false, true}) {
        for (const std::uint32_t first : {1U, 2U}) {
            SCOPED_TRACE(std::to_string(first) + (lone ? " lone" : " fast"));
            far_end(first).talks = !lone;
            far_end(first).self.state |= lone ? 0 : LAC_TIMEOUT;
            set_lacp_port_timeout(0, first, lone ? 0 : 1);
            running_port(first);
            ASSERT_NE(seconds_until([&] { return distributing(first); }, 20), 0U);
            seconds(10);
            running_port(3 - first);
            EXPECT_NE(seconds_until([&] { return trunk(1) == (lone ? 1U << (2 - first) : 0x3U); }, 20), 0U);
            EXPECT_TRUE(distributing(first));
            leave(1);
            leave(2);
            seconds(3);
            far_end(first) = {peer(static_cast<std::uint16_t>(first))};
        }
    }
}

TEST_F(ScenarioTest, APortOfAnotherSystemStandsBy)
{
    far_end(3).self.system = OTHER_MAC;
    for (const std::uint32_t number : {1U, 2U, 3U})
        running_port(number);
    seconds(60);
    EXPECT_EQ(trunk(1), 0x3U);
    EXPECT_EQ(port(3).selected, LAC_STANDBY);
    EXPECT_EQ(port(3).muxm, LAC_MUX_WAITING);
    EXPECT_EQ(far_end(3).heard.state & LAC_SYNCHRONIZATION, 0) << "the partner is told";

    far_end(3).self.system = PEER_MAC; // cabled to the right system
    receive(3, far_end(3).answer());
    EXPECT_NE(seconds_until([&] { return trunk(1) == 0x7; }, 60), 0U);
    EXPECT_EQ(port(3).selected, LAC_SELECTED);
}

TEST_F(ScenarioTest, APartnerThatMovesTakesItsOldPortAlong)
{
    bring_up(2);
    running_port(3);
    far_end(3).self = far_end(2).self; // the cable now ends on port 3
    far_end(2).talks = false;
    EXPECT_NE(seconds_until([&] { return port(3).stats->moved == 1; }, 10), 0U);
    EXPECT_EQ(port(2).rxm, LAC_RX_EXPIRED) << "its link is still up";
    EXPECT_EQ(port(2).partner_port, 0);
    EXPECT_NE(seconds_until([&] { return trunk(1) == 0x5; }, 20), 0U);
    EXPECT_EQ(port(3).stats->moved, 1U) << "the old port has forgotten it";
}

// The others change their aggregator, and their partners and the trunk see nothing of it.
TEST_F(ScenarioTest, AHealthyLinkPaysNothingForTheAggregator)
{
    for (const std::uint16_t priority : {std::uint16_t{32768}, std::uint16_t{1}}) {
        SCOPED_TRACE(priority);
        running_port(1);
        set_lacp_port_priority(0, 1, priority);
        bring_up(3);
        const auto undisturbed = [&](unsigned count) {
            for (fake::take_writes(); count > 0; --count) {
                second();
                for (const std::uint32_t number : {2U, 3U})
                    EXPECT_EQ(far_end(number).heard.state & LAC_MUX_BITS, LAC_MUX_BITS) << number;
                EXPECT_EQ(trunk(1) & 0x6, 0x6U);
            }
        };
        fake::take_writes();
        change_link(1, false);
        EXPECT_EQ(aggregator_of(1), 2U);
        EXPECT_EQ(trunk(1), 0x6U);
        EXPECT_EQ(fake::take_writes(), Texts{"del 1 gigabitethernet 0/1"});
        EXPECT_EQ(port(2).port_mask, 0x6U);
        undisturbed(10);
        change_link(1, true);
        undisturbed(1);
        EXPECT_EQ(aggregator_of(1), 2U) << "it has not heard its partner";
        undisturbed(6);
        EXPECT_EQ(aggregator_of(1), 1U) << "the best port serves again";
        EXPECT_EQ(trunk(1), 0x7U);
        EXPECT_EQ(port(1).port_mask, 0x7U);
        EXPECT_EQ(fake::take_writes(), Texts{"add 1 gigabitethernet 0/1 (32,1)"});
        for (const std::uint32_t number : {1U, 2U, 3U})
            leave(number);
    }
}

// Two ticks to selection, three of wait_while; the partner goes on telling its own Synchronization.
TEST_F(ScenarioTest, APartnerOfAnotherIdentityIsTakenAnew)
{
    const std::function<void(LacInfo &)> changes[] = {
        [](LacInfo &self) { self.system_priority = 1; },
        [](LacInfo &self) { self.system = OTHER_MAC; },
        [](LacInfo &self) { self.key = 9; },
        [](LacInfo &self) { self.port_priority = 1; },
        [](LacInfo &self) { self.port += 10; },
    };
    bring_up(2);
    for (const auto &change : changes) {
        for (const std::uint32_t number : {1U, 2U}) {
            change(far_end(number).self);
            receive(number, far_end(number).answer());
        }
        EXPECT_EQ(trunk(1), 0U) << "in the same message";
        second();
        EXPECT_EQ(far_end(1).heard.state & LAC_MUX_BITS, 0);
        EXPECT_EQ(seconds_until([&] { return trunk(1) == 0x3; }, 10), 4U);
        EXPECT_EQ(far_end(1).heard.state & LAC_MUX_BITS, LAC_MUX_BITS);
        seconds(40);
    }
    far_end(2).self.key = 5; // split: the best port's partner stays
    receive(2, far_end(2).answer());
    seconds(6);
    EXPECT_EQ(trunk(1), 0x1U);
    EXPECT_EQ(port(2).selected, LAC_STANDBY);
    EXPECT_EQ(far_end(2).heard.state & LAC_SYNCHRONIZATION, 0);
}

// Four serve, the others are told to their partners as out of sync; one of them replaces a member that goes: three
// ticks of wait_while, the partner's answer with the next.
TEST_F(ScenarioTest, OfSixPortsFourServe)
{
    for (std::uint32_t number = 1; number <= 6; ++number)
        running_port(number);
    set_lacp_port_priority(0, 6, 1);
    const auto told = [&] {
        std::uint32_t in_sync = 0;
        for (std::uint32_t number = 1; number <= 6; ++number)
            in_sync |= (far_end(number).heard.state & LAC_SYNCHRONIZATION) != 0 ? 1U << (number - 1) : 0;
        return in_sync;
    };
    seconds(60);
    EXPECT_EQ(trunk(1), 0x27U);
    EXPECT_EQ(told(), 0x27U);
    fake::take_writes();
    change_link(2, false);
    EXPECT_EQ(trunk(1), 0x25U);
    EXPECT_EQ(seconds_until([&] { return trunk(1) == 0x2D; }, 10), 3U);
    second();
    EXPECT_EQ(told() & 0x2DU, 0x2DU);
    change_link(2, true);
    EXPECT_EQ(seconds_until([&] { return trunk(1) == 0x27; }, 20), 7U);
    EXPECT_EQ(told(), 0x27U);
    EXPECT_EQ(fake::take_writes(), (Texts{"del 1 gigabitethernet 0/2", "add 1 gigabitethernet 0/4 (32,1)",
                                          "del 1 gigabitethernet 0/4", "add 1 gigabitethernet 0/2 (32,1)"}));
}

// The partner is told no longer than until the refusal is known; after a while it is tried again.
TEST_F(ScenarioTest, ARefusedMemberStandsBy)
{
    bring_up(2);
    running_port(3);
    fake::datastore().failures["db_olt_lacp_set_group_member_port"] = SR_ERR_CALLBACK_FAILED;
    unsigned told = 0;
    for (int i = 0; i < 100; ++i) {
        second();
        told += (far_end(3).heard.state & LAC_SYNCHRONIZATION) != 0 ? 1 : 0;
    }
    EXPECT_LE(told, 6U) << "each time for a second, after 2, 4, 8, 16, 32 ticks";
    EXPECT_EQ(port(3).selected, LAC_STANDBY);
    EXPECT_EQ(trunk(1), 0x3U);
    fake::datastore().failures.clear();
    EXPECT_NE(seconds_until([&] { return trunk(1) == 0x7; }, LAC_MEMBER_LONGEST_BAR_TICKS), 0U);
}

TEST_F(ScenarioTest, AMemberServesWhileItsPartnerIsInSync)
{
    bring_up(2);
    for (int i = 0; i < 2; ++i) {
        far_end(2).self.state ^= LAC_SYNCHRONIZATION;
        receive(2, far_end(2).answer());
        EXPECT_EQ(trunk(1), i == 0 ? 0x1U : 0x3U);
        EXPECT_TRUE(distributing(2)) << "the machine takes it to be in sync as laid down";
        seconds(3);
    }
}

TEST_F(ScenarioTest, WhenTheBestPortIsTakenOutTheGroupSelectsAgain)
{
    bring_up(2);
    leave(1);
    EXPECT_EQ(aggregator_of(1), 2U);
    EXPECT_NE(seconds_until([&] { return trunk(1) == 0x2; }, 60), 0U);
    EXPECT_EQ(get_lacp_port_state(1), 0);
    join(1, 1);
    EXPECT_NE(seconds_until([&] { return trunk(1) == 0x3; }, 60), 0U);
}

TEST_F(ScenarioTest, ABetterPriorityTakesOver)
{
    bring_up(2);
    set_lacp_port_priority(0, 2, 1);
    dispatch();
    EXPECT_NE(seconds_until([&] { return aggregator_of(1) == 2; }, 60), 0U);
    EXPECT_NE(seconds_until([&] { return trunk(1) == 0x3; }, 60), 0U);
    EXPECT_EQ(far_end(2).heard.port_priority, 1) << "the partner has learned it";
    EXPECT_EQ(port(2).port_mask, 0x3U);
}

TEST_F(ScenarioTest, TwoGroupsKeepApart)
{
    running_port(1, 1);
    running_port(2, 1);
    running_port(3, 2);
    running_port(4, 2);
    seconds(60);
    EXPECT_EQ(trunk(1), 0x3U);
    EXPECT_EQ(trunk(2), 0xCU);
    EXPECT_EQ(aggregator_of(2), 3U);
    EXPECT_EQ(far_end(3).heard.key, 2);
    change_link(3, false);
    seconds(20);
    EXPECT_EQ(trunk(1), 0x3U);
    EXPECT_EQ(trunk(2), 0x8U);
}

TEST_F(ScenarioTest, ALinkThatFlapsLeavesNothingBehind)
{
    bring_up(2);
    for (int i = 0; i < 5; ++i) {
        change_link(2, false);
        seconds(static_cast<unsigned>(i));
        change_link(2, true);
        seconds(static_cast<unsigned>(i));
    }
    EXPECT_NE(seconds_until([&] { return trunk(1) == 0x3; }, 60), 0U);
    std::uint32_t count = 0;
    get_channel_group_port_count(1, &count);
    EXPECT_EQ(count, 2U);
    EXPECT_EQ(fake::datastore().members[1].size(), 2U);
    EXPECT_EQ(port(1).port_mask, 0x3U);
}

} // namespace
