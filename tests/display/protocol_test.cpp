// Whole outputs of the protocol's displays.
#include "states.h"
#include "terminal.h"

#include "lac_show.h"

namespace
{

class FourPorts : public EngineTest
{
  protected:
    Terminal terminal;
};

class EightPorts : public EngineTest
{
  protected:
    EightPorts() : EngineTest(1, 8) {}
    Terminal terminal;
};

class NoPorts : public EngineTest
{
  protected:
    NoPorts() : EngineTest(0, 0) {}
    Terminal terminal;
};

int link_aggregation(vty *vty)
{
    return lacShowLinkAggregation(vty, LAC_SHOW_ALL_PORTS);
}

TEST(Names, AreIndexedByTheFieldsValue)
{
    EXPECT_EQ(Texts(LAC_TIMER_ACTIVE, std::end(LAC_TIMER_ACTIVE)), (Texts{"N", "A"}));
    EXPECT_EQ(Texts(LACP_ENABLED, std::end(LACP_ENABLED)), (Texts{"D", "U"}));
    EXPECT_EQ(Texts(LACP_BOOL, std::end(LACP_BOOL)), (Texts{"NO  ", "YES "}));
    EXPECT_EQ(Texts(SHOW_MUX, std::end(SHOW_MUX)), (Texts{"None      ", "DETACHED  ", "WAITING   ", "ATTACHED  ",
                                                          "COLLECT   ", "DISTRIB   ", "COL_DISTR "}));
    EXPECT_EQ(Texts(SHOW_SELECTION, std::end(SHOW_SELECTION)), (Texts{"UNSELECTED", "SELECTED  ", "STANDBY   "}));
    EXPECT_EQ(Texts(SHOW_TX_MACHINE, std::end(SHOW_TX_MACHINE)),
              (Texts{"NO_PERIODIC  ", "FAST_PERIODIC", "SLOW_PERIODIC", "PERIODIC     ", "PERIODIC_TX  "}));
    EXPECT_EQ(
        Texts(SHOW_RX_MACHINE, std::end(SHOW_RX_MACHINE)),
        (Texts{"UNINIT    ", "CURRENT   ", "EXPIRED   ", "DEFAULTED ", "INITIALIZE", "LACP_DISAB", "P_DISABLED"}));
}

TEST_F(FourPorts, LinkAggregation)
{
    arrange_four_ports();
    expect_recorded(terminal.shown(link_aggregation), "interface-all-4");
    EXPECT_EQ(link_aggregation(terminal), 0);
}

TEST_F(EightPorts, LinkAggregation)
{
    arrange_eight_ports();
    expect_recorded(terminal.shown(link_aggregation), "interface-all-8");
}

TEST_F(FourPorts, Information)
{
    arrange_four_ports();
    expect_recorded(terminal.shown(lacShowAll), "information-4");
    EXPECT_EQ(lacShowAll(terminal), 0);
}

TEST_F(EightPorts, Information)
{
    arrange_eight_ports();
    expect_recorded(terminal.shown(lacShowAll), "information-8");
}

TEST_F(NoPorts, InformationIsHeadingsOnly)
{
    lacSystem->system_state = 1;
    expect_recorded(terminal.shown(lacShowAll), "information-0");
}

TEST_F(FourPorts, Neighbors)
{
    arrange_four_ports();
    expect_recorded(terminal.shown([](vty *vty) { lacShowNeighbor(vty, 1); }), "port-group-1");
    expect_recorded(terminal.shown([](vty *vty) { lacShowNeighbor(vty, 2); }), "port-group-2");
    EXPECT_EQ(lacShowNeighbor(terminal, 1), 2) << "the length of the last line end";
}

TEST_F(EightPorts, NeighborsOfAGroupWithALinkDown)
{
    arrange_eight_ports();
    expect_recorded(terminal.shown([](vty *vty) { lacShowNeighbor(vty, 3); }), "port-group-3");
}

TEST_F(EightPorts, NeighborsOfNoGroup)
{
    arrange_eight_ports();
    const std::string empty = terminal.shown([](vty *vty) { lacShowNeighbor(vty, 4); });
    EXPECT_EQ(terminal.shown([](vty *vty) { lacShowNeighbor(vty, 0); }),
              std::string(empty).replace(empty.find("group 4"), 7, "group 0"));
    expect_recorded(empty, "port-group-4");
    port(6).lacp_enabled = 1;
    EXPECT_NE(terminal.shown([](vty *vty) { lacShowNeighbor(vty, 0); }).find("Port: gigabitEthernet0/6\r\n"),
              std::string::npos)
        << "group 0 lists ports that have no group";
}

TEST_F(FourPorts, NamesStayInsideTheirTables)
{
    arrange_four_ports();
    LacPort &record = port(1);
    record.rxm = 7;
    record.txm = 5;
    record.selected = 3;
    record.muxm = 0x0F;
    record.lacp_enabled = 2;
    EXPECT_NE(terminal.shown(lacShowAll).find("\n01   UNINIT     NO_PERIODIC   UNSELECTED None       NO   01 1\n"),
              std::string::npos);
}

// ---- refusals -------------------------------------------------------------------------------------------------

TEST_F(FourPorts, WithoutASystemRecord)
{
    LacSystem *const system = lacSystem;
    lacSystem = nullptr;
    EXPECT_EQ(terminal.shown(link_aggregation), "\r\nLACP not initialization.\r\n");
    EXPECT_EQ(link_aggregation(terminal), -1);
    EXPECT_EQ(terminal.shown([](vty *vty) { lacShowNeighbor(vty, 1); }), "\r\nLACP not initialization.\r\n");
    EXPECT_EQ(terminal.shown([](vty *vty) { lacShowNeighbor(vty, 9); }), "\r\nLACP not initialization.\r\n");
    lacSystem = system;
}

TEST_F(FourPorts, WhileLacpIsOff)
{
    arrange_four_ports();
    lacSystem->system_state = 0;
    EXPECT_EQ(terminal.shown(link_aggregation), "\r\nLACP disabled\r\n");
    EXPECT_EQ(link_aggregation(terminal), 0);
    EXPECT_EQ(terminal.shown([](vty *vty) { lacShowNeighbor(vty, 1); }), "\r\nLACP disabled\r\n");
    EXPECT_EQ(terminal.shown([](vty *vty) { lacShowNeighbor(vty, -1); }), "\r\nLACP disabled\r\n");
}

TEST_F(FourPorts, ForAGroupThatThereIsNot)
{
    arrange_four_ports();
    for (const int group : {-1, 5, 1000}) {
        EXPECT_EQ(terminal.shown([group](vty *vty) { lacShowNeighbor(vty, group); }),
                  "Invalid group id, correct group id is 1 to 4.\r\n");
    }
}

} // namespace
