// Whole stories: up to six links to partners that answer, second by second; and stories by chance.
#include "story.h"

#include <random>

namespace
{

using Tales = std::vector<std::pair<const char *, const char *>>;
void expect_all(const Tales &tales)
{
    for (const auto &[script, notes] : tales)
        EXPECT_EQ(Story().tell(script), notes) << script;
}

// Joining selects the port as standby, since nothing is known of a partner. The periodic machine starts in second 1
// and the first LACPDU leaves in second 2, where it is answered. The answer unselects the port and starts the mux
// scheduler, which selects in second 4; WAITING counts from there and ends with the third tick after. The long
// timeout runs out 91 ticks after the last LACPDU, the short one in 4: no partner, no member. The port stands alone
// after selection and wait_while.
TEST(Stories, APartnerIsFoundAndLost)
{
    expect_all({
        {"p2 closely 60s", "60s 2: 2.rx=1 2.sel=0 4: 2.sel=1 7: 2.mux=6 told=2 trunk=2 +2"},
        {"p1 p2 60s hear2 mute2 closely 150s talk2 40s",
         "150s 91: 2.rx=2 95: 2.mux=1 2.rx=3 2.sel=0 told=1 trunk=1 -2 96: 2.mux=2 2.sel=1 99: 2.mux=6 told=3 "
         "talk2 40s 9: 2.mux=1 2.rx=1 2.sel=0 10: told=1 11: 2.mux=2 2.sel=1 14: 2.mux=6 told=3 trunk=3 +2"},
        {"2.state=f short2 p2 60s hear2 mute2 closely 150s talk2 40s",
         "150s 4: 2.rx=2 8: 2.mux=1 2.rx=3 2.sel=0 told=0 trunk=0 -2 9: 2.mux=2 2.sel=1 12: 2.mux=6 told=2 "
         "talk2 40s 14: 2.mux=1 2.rx=1 2.sel=0 15: told=0 16: 2.mux=2 2.sel=1 19: 2.mux=6 told=2 trunk=2 +2"},
        // LACPDUs on every tick do not keep selection waiting.
        {"p1 p2 p3 p4 60s watch 124s 2.key=8 hear2 1s hear2 1s hear2 1s hear2 1s",
         "124s 2.key=8 hear2 0: trunk=13 -2 1s 1: told=13 hear2 1s hear2 1s hear2 1s"},
    });
}

// A link that is told and answers every second tick selects its group as often, as does one whose partner is silent;
// a port that joins then must still get through its waiting time.
TEST(Stories, FastAndLoneLinksLetOthersJoin)
{
    expect_all({{"1.state=f short1 p1 30s watch p2 20s", "p2 20s 5: told=3 trunk=3 +2"},
                {"2.state=f short2 p2 30s watch p1 20s", "p1 20s 3: agg=1 6: told=3 trunk=3 +1"},
                {"mute1 p1 30s watch p2 20s", "p2 0: agg=2 20s 6: told=3 trunk=2 +2"},
                {"mute2 p2 30s watch p1 20s", "p1 0: agg=1 20s 7: told=3 trunk=1 +1"}});
}

// The others change their aggregator, and their partners and the trunk see nothing of it. The best port serves again
// when it has heard its partner.
TEST(Stories, AHealthyLinkPaysNothingForTheAggregator)
{
    for (const char *script : {"p1 p2 p3 60s watch down1 10s up1 7s", "p1 best1 p2 p3 60s watch down1 10s up1 7s"})
        expect_all({{script, "down1 0: agg=2 trunk=6 -1 10s up1 7s 2: told=6 4: agg=1 7: told=7 trunk=7 +1"}});
}

// It leaves in the same message. Two ticks to selection, three of wait_while; the partner goes on telling its own
// Synchronization. In the end the cable of port 2 leads to port 3, and the old port has forgotten its partner.
TEST(Stories, APartnerOfAnotherIdentityIsTakenAnew)
{
    for (const std::string what : {"sp=2", "sys=OTHER", "key=9", "prio=9"}) {
        const std::string change = "1." + what + " 2." + what + " hear1 ";
        EXPECT_EQ(Story().tell("p1 p2 60s watch " + change + "hear2 40s"),
                  change +
                      "0: trunk=2 -1 hear2 0: trunk=0 -2 40s 1: told=0 4: told=2 trunk=2 +2 5: told=3 trunk=3 +1");
    }
    expect_all(
        {{"p1 p2 60s watch cable3 mute2 p3 9s", "cable3 mute2 p3 9s 2: trunk=1 -2 3: told=1 6: told=5 trunk=5 +3"}});
}

// Four serve, the others are told to their partners as out of sync; one of them replaces a member that goes: three
// ticks of wait_while, the partner's answer with the next. A better port takes over in ticks as well.
TEST(Stories, OfSixPortsFourServe)
{
    expect_all({{"p1 p2 p3 p4 p5 p6 best6 60s watch down2 4s up2 8s",
                 "down2 0: trunk=37 -2 4s 3: told=47 trunk=45 +4 up2 8s 2: told=45 4: told=37 trunk=37 -4 7: told=39 "
                 "trunk=39 +2"}});
}

// The partner is told no longer than until the refusal is known; after 2, 4, 8, 16 and 32 ticks it is tried again.
TEST(Stories, ARefusedMemberStandsBy)
{
    expect_all({{"p1 p2 60s refuse watch p3 100s accept 64s",
                 "p3 100s 7: told=7 +3 8: told=3 13: told=7 +3 14: told=3 21: told=7 +3 22: told=3 33: told=7 +3 34: "
                 "told=3 53: told=7 +3 54: told=3 89: told=7 +3 90: told=3 accept 64s 57: told=7 trunk=7 +3"}});
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
        printed([&] { broken = Story(1 + input.below(LAC_MAX_PORTS)).draw(input); });
        ASSERT_EQ(broken, "") << "seed " << seed;
    }
}

} // namespace
