// Whole stories: up to six links to partners that answer, second by second; and random sequences of steps.
#include "random_steps.h"

#include <random>

namespace
{

class Story : public Engine
{
  public:
    Story() : Engine(1, 6)
    {
        for (std::uint16_t number = 1; number <= 6; ++number)
            far.push_back({peer(number)});
    }

    struct FarEnd { // of one link: hears our LACPDUs and answers each with one of its own
        LacInfo self;
        LacInfo heard{};
        bool talks = true;

        Bytes answer() const { return pdu_bytes(self, heard); }
    };
    FarEnd &end(std::uint32_t port_no) { return far[port_no - 1]; }

    // The trunk as the switch has it, and the ports whose partners have been told Synchronization.
    std::uint32_t trunk(std::uint8_t group = 1)
    {
        for (const fake::Message &message : fake::take_messages())
            trunks.at(message.at(11)) = message.at(7) == SCLIENT_MSG_TRUNK_CREATE ? message.at(19) : 0;
        return trunks.at(group);
    }
    std::uint32_t told() const
    {
        std::uint32_t in_sync = 0;
        for (std::size_t i = 0; i < far.size(); ++i)
            in_sync |= (far[i].heard.state & LAC_SYNCHRONIZATION) != 0 ? 1U << i : 0;
        return in_sync;
    }

    // One tick; then every partner hears what was sent and answers.
    void second()
    {
        tick();
        for (const SentFrame &frame : wire.take()) {
            FarEnd &partner = end(frame.port());
            if (!partner.talks || lacIsLinkUp(&port(frame.port())) == 0)
                continue;
            partner.heard = frame.actor();
            receive(frame.port(), partner.answer());
        }
    }
    // What changes of receive machine, selection, mux machine and trunk, with the second in front.
    std::string seconds(unsigned count)
    {
        std::string all;
        for (unsigned at = 1; at <= count; ++at) {
            const State before = state();
            const std::uint32_t had = trunk();
            second();
            std::string now;
            for (const auto &[name, value] : state())
                if (name.size() < 8 &&
                    (has(name, ".rx") || has(name, ".sel") || has(name, ".mux") || has(name, ".alone")) &&
                    !name.ends_with("muxs") && value != before.at(name))
                    now += " " + name + "=" + std::to_string(value);
            now += trunk() == had ? "" : " trunk=" + std::to_string(trunk());
            all += now.empty() ? "" : (all.empty() ? "" : " ") + std::to_string(at) + ":" + now;
        }
        return all;
    }
    unsigned until_trunk(std::uint32_t members, unsigned limit = 60)
    {
        for (unsigned count = 1; count <= limit; ++count)
            if (second(), trunk() == members)
                return count;
        return 0;
    }

    // Ports 1 to n of group 1 in service, and the rate has settled.
    explicit Story(std::uint32_t ports) : Story()
    {
        for (std::uint32_t number = 1; number <= ports; ++number)
            running_port(number);
        seconds(60);
        EXPECT_EQ(trunk(), (1U << ports) - 1);
    }
    static std::uint64_t aggregator() { return state()["g1.agg"]; }

    std::vector<FarEnd> far;
    std::array<std::uint32_t, 5> trunks{};
};

// Joining selects the port as standby, since nothing is known of a partner. The periodic machine starts in second 1
// and the first LACPDU leaves in second 2, where it is answered. The answer unselects the port and starts the mux
// scheduler, which selects in second 4; WAITING counts from there and ends with the third tick after.
TEST(Stories, APortComesUpInSevenTicks)
{
    Story story;
    story.running_port(2);
    EXPECT_EQ(story.seconds(60), "2: 2.rx=1 2.sel=0 4: 2.sel=1 7: 2.mux=6 trunk=2");
    EXPECT_EQ(story.told(), 2U);
    EXPECT_EQ(fake::members(1), 2U);
    EXPECT_EQ(Story::aggregator(), 2U);
    EXPECT_EQ(story.end(2).heard.state, 0x3D);
}

// The long timeout runs out 91 ticks after the last LACPDU, the short one in 4: no partner, no member. The port
// stands alone after selection and wait_while.
TEST(Stories, APartnerIsLostAndFound)
{
    for (const bool fast : {false, true}) {
        Story story;
        story.end(2).self.state |= fast ? LAC_TIMEOUT : 0;
        set_lacp_port_timeout(0, 2, fast ? 1 : 0);
        if (!fast)
            story.running_port(1);
        story.running_port(2);
        story.seconds(60);
        story.receive(2, story.end(2).answer());
        story.end(2).talks = false;
        EXPECT_EQ(story.seconds(150),
                  fast ? "4: 2.rx=2 8: 2.mux=1 2.rx=3 2.sel=0 trunk=0 9: 2.alone=1 2.mux=2 2.sel=1 12: 2.mux=6"
                       : "91: 2.rx=2 95: 2.mux=1 2.rx=3 2.sel=0 trunk=1 96: 2.alone=1 2.mux=2 2.sel=1 99: 2.mux=6");
        story.end(2).talks = true;
        EXPECT_NE(story.until_trunk(fast ? 2 : 3), 0U);
    }
}

// Nothing but the periodic LACPDUs is heard. LACPDUs on every tick do not keep selection waiting.
TEST(Stories, AnEagerPartnerThatChangesItsKeyLeavesTheTrunk)
{
    Story story(4);
    const std::uint32_t before = Engine::port(1).stats->tx_lacpdu;
    EXPECT_EQ(story.seconds(124), "");
    EXPECT_EQ(Engine::port(1).stats->tx_lacpdu - before, 4U);
    story.end(2).self.key = 8;
    for (int i = 0; i < 4; ++i) {
        story.receive(2, story.end(2).answer());
        story.second();
    }
    EXPECT_EQ(Engine::port(2).selected, LAC_STANDBY);
    EXPECT_EQ(story.trunk(), 0xDU);
}

// A link that is told and answers every second tick selects its group as often, as does one whose partner is silent;
// a port that joins then must still get through its waiting time.
TEST(Stories, FastAndLoneLinksLetOthersJoin)
{
    for (const bool lone : {false, true})
        for (const std::uint32_t first : {1U, 2U}) {
            Story story;
            story.end(first).talks = !lone;
            story.end(first).self.state |= lone ? 0 : LAC_TIMEOUT;
            set_lacp_port_timeout(0, first, lone ? 0 : 1);
            story.running_port(first);
            story.seconds(30);
            story.running_port(3 - first);
            EXPECT_NE(story.until_trunk(lone ? 1U << (2 - first) : 3U, 20), 0U) << first << lone;
        }
}

// The others change their aggregator, and their partners and the trunk see nothing of it.
TEST(Stories, AHealthyLinkPaysNothingForTheAggregator)
{
    for (const std::uint16_t priority : {std::uint16_t{32768}, std::uint16_t{1}}) {
        Story story;
        story.running_port(1);
        set_lacp_port_priority(0, 1, priority);
        story.running_port(2);
        story.running_port(3);
        story.seconds(60);
        const auto undisturbed = [&](unsigned count) {
            for (; count > 0; --count) {
                story.second();
                EXPECT_EQ(story.told() & story.trunk() & 6, 6U);
            }
        };
        fake::take_writes();
        story.change_link(1, false);
        EXPECT_EQ(Story::aggregator(), 2U);
        undisturbed(10);
        story.change_link(1, true);
        undisturbed(1);
        EXPECT_EQ(Story::aggregator(), 2U) << "it has not heard its partner";
        undisturbed(6);
        EXPECT_EQ(Story::aggregator(), 1U) << "the best port serves again";
        EXPECT_EQ(Engine::port(1).port_mask, 7U);
        EXPECT_EQ(story.trunk(), 7U);
        EXPECT_EQ(fake::take_writes(), (Texts{"-g1/member-port/1", "+g1/member-port/1"}));
    }
}

// Two ticks to selection, three of wait_while; the partner goes on telling its own Synchronization.
TEST(Stories, APartnerOfAnotherIdentityIsTakenAnew)
{
    Story story(2);
    for (std::uint16_t value = 1; value <= 5; ++value) {
        for (const std::uint32_t number : {1U, 2U}) {
            LacInfo &self = story.end(number).self;
            self = {std::min<std::uint16_t>(value, 2),
                    value >= 3 ? OTHER_MAC : PEER_MAC,
                    std::uint16_t(value >= 4 ? 9 : 7),
                    std::uint16_t(value >= 5 ? 1 : 0x8000),
                    std::uint16_t(number),
                    self.state,
                    {}};
            story.receive(number, story.end(number).answer());
        }
        EXPECT_EQ(story.trunk(), 0U) << "in the same message";
        story.second();
        EXPECT_EQ(story.told(), 0U);
        EXPECT_EQ(story.until_trunk(3), 4U);
        EXPECT_EQ(story.told(), 3U);
        story.seconds(40);
    }
    story.end(3).self = story.end(2).self; // the cable of port 2 now ends on port 3
    story.end(2).talks = false;
    story.running_port(3);
    EXPECT_NE(story.until_trunk(5), 0U);
    EXPECT_EQ(Engine::port(3).stats->moved, 1U) << "the old port has forgotten it";
}

// Four serve, the others are told to their partners as out of sync; one of them replaces a member that goes: three
// ticks of wait_while, the partner's answer with the next. A better port takes over in ticks as well.
TEST(Stories, OfSixPortsFourServe)
{
    Story story;
    for (std::uint32_t number = 1; number <= 6; ++number)
        story.running_port(number);
    set_lacp_port_priority(0, 6, 1);
    story.seconds(60);
    EXPECT_EQ(story.trunk() & story.told(), 0x27U);
    fake::take_writes();
    story.change_link(2, false);
    EXPECT_EQ(story.until_trunk(0x2D), 3U);
    story.second();
    EXPECT_EQ(story.told() & 0x2DU, 0x2DU);
    story.change_link(2, true);
    EXPECT_EQ(story.until_trunk(0x27), 7U);
    EXPECT_EQ(story.told(), 0x27U);
    EXPECT_EQ(fake::take_writes(),
              (Texts{"-g1/member-port/2", "+g1/member-port/4", "-g1/member-port/4", "+g1/member-port/2"}));
}

// The partner is told no longer than until the refusal is known; after 2, 4, 8, 16 and 32 ticks it is tried again.
TEST(Stories, ARefusedMemberStandsBy)
{
    Story story(2);
    story.running_port(3);
    fake::datastore().failures["+member-port"] = SR_ERR_CALLBACK_FAILED;
    unsigned told = 0;
    for (int i = 0; i < 100; ++i) {
        story.second();
        told += story.told() >> 2 & 1;
    }
    EXPECT_LE(told, 6U);
    EXPECT_EQ(Engine::port(3).selected, LAC_STANDBY);
    EXPECT_EQ(story.trunk(), 3U);
    fake::datastore().failures.clear();
    EXPECT_NE(story.until_trunk(7, LAC_MEMBER_LONGEST_BAR_TICKS), 0U);
}

// The same for ever: a sequence that fails does so again.
TEST(RandomSequences, KeepTheInvariants)
{
    for (unsigned seed = 1; seed <= 1000; ++seed) {
        std::mt19937 random(seed);
        Bytes bytes(200 + random() % 800);
        for (std::uint8_t &byte : bytes)
            byte = static_cast<std::uint8_t>(random() >> 8);
        fuzz::Input input(bytes.data(), bytes.size());
        std::string broken;
        printed([&] { broken = run_random_steps(input); });
        ASSERT_EQ(broken, "") << "seed " << seed;
    }
}

} // namespace
