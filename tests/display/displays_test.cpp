// Whole outputs of the displays, for engines of different sizes.
#include "states.h"
#include "terminal.h"

#include "channel_group_show.h"
#include "lac_show.h"

namespace
{

constexpr auto link_aggregation = [](vty *vty) { return lacShowLinkAggregation(vty, LAC_SHOW_ALL_PORTS); };

// An engine that can be built as often as wanted, with arranged states for four ports or more.
class Engine : public EngineTest
{
  public:
    explicit Engine(std::uint32_t ports) : EngineTest(ports == 0 ? 0 : 1, ports)
    {
        if (ports == 0)
            lacSystem->system_state = 1;
        else
            ports == 4 ? arrange_four_ports() : arrange_eight_ports();
    }
    void TestBody() override {}
    using EngineTest::port;

    // What a display shows; its result must be the expected one.
    std::string shown(const std::function<int(vty *)> &display, int expected)
    {
        return terminal.shown([&](vty *vty) { EXPECT_EQ(display(vty), expected); });
    }
    std::string neighbors(int group, int expected = 2) // the length of the last line end
    {
        return shown([group](vty *vty) { return lacShowNeighbor(vty, group); }, expected);
    }
    std::string detail(std::uint32_t group)
    {
        return shown([group](vty *vty) { return show_channel_groups_information(vty, group); }, 0);
    }
    std::string ports(std::uint32_t group)
    {
        return shown([group](vty *vty) { return show_lacp_ports_infomation(vty, group); }, 72); // the last line's
    }

    // Groups 1 dynamic, 2 manual, 3 without a type and 4 unused.
    static void arrange_groups()
    {
        for (const int group : {1, 2, 3})
            set_channel_group_used(group, 1);
        set_channel_group_type(1, CHANNEL_GROUP_DYNAMIC);
        add_members(1, {1, 2}, {1});
        set_channel_group_type(2, CHANNEL_GROUP_MANUAL);
        set_channel_group_load_balance_str(2, "src-dst-mac");
        add_members(2, {4, 3, 8, 7}, {8, 3, 4, 7});
        set_channel_group_load_balance_str(3, "dst-ip");
    }

  private:
    static void add_members(int group, std::initializer_list<std::uint32_t> members,
                            std::initializer_list<std::uint32_t> up)
    {
        for (const std::uint32_t number : members)
            ASSERT_EQ(set_channel_group_port_list(group, LAC_SLOT, number, LIST_ADD), 0);
        for (const std::uint32_t number : up)
            ASSERT_EQ(set_channel_group_uplink_port_list(group, LAC_SLOT, number, LIST_ADD), 0);
    }

    Terminal terminal;
};

const std::string CLOSING_LINE = std::string(71, '-') + "\n";

// Members are listed inside the inventory's range, uplink ports whatever it is.
TEST(Displays, Detail)
{
    Sections sections;
    for (const std::uint32_t ports : {8U, 4U, 0U}) {
        Engine engine(ports);
        engine.arrange_groups();
        for (const std::uint32_t group : {0U, 1U, 2U, 4U, 5U})
            if (ports == 8 ? group != 2 : group == (ports == 4 ? 2 : 1))
                sections.add(std::to_string(ports) + " ports, group " + std::to_string(group), engine.detail(group));
        for (const char *name : {"src-ip", "dst-ip", "src-mac", "dst-mac", "src-dst-ip", "src-dst-mac"}) {
            ASSERT_EQ(set_channel_group_load_balance_str(4, name), 0);
            set_channel_group_used(4, 1);
            EXPECT_NE(engine.detail(4).find(std::string("\nChannel-group Load Balance:\t\t") + name + "\n"),
                      std::string::npos);
        }
    }
    expect_recorded_visible(sections.text, "detail");
}

TEST(Displays, PortsWithLacpOrALink)
{
    Engine engine(8);
    expect_recorded(engine.ports(0), "ports");
    EXPECT_EQ(engine.ports(3), engine.ports(0)) << "the group is not looked at";
    for (LacPort *record : lac_ports())
        record->lacp_enabled = record->port_enabled = 0;
    EXPECT_EQ(engine.ports(0), CLOSING_LINE);
}

TEST(Displays, LinkAggregationInformationAndNeighbors)
{
    Sections aggregation, information, neighbors;
    for (const std::uint32_t ports : {0U, 4U, 8U}) {
        Engine engine(ports);
        const std::string heading = std::to_string(ports) + " ports";
        information.add(heading, engine.shown(lacShowAll, 0));
        if (ports == 0)
            continue;
        aggregation.add(heading, engine.shown(link_aggregation, 0));
        for (const int group : {1, 2, 3})
            if ((group == 3) == (ports == 8))
                neighbors.add("group " + std::to_string(group), engine.neighbors(group));
        if (ports == 4)
            continue;
        const std::string empty = engine.neighbors(4, 26);
        neighbors.add("group 4", empty);
        EXPECT_EQ(engine.neighbors(0, 26), std::string(empty).replace(empty.find("group 4"), 7, "group 0"));
        engine.port(6).lacp_enabled = 1;
        EXPECT_NE(engine.neighbors(0).find("Port: gigabitEthernet0/6\r\n"), std::string::npos)
            << "group 0 lists ports that have no group";
    }
    expect_recorded_visible(aggregation.text, "interface-all");
    expect_recorded_visible(information.text, "information");
    expect_recorded_visible(neighbors.text, "port-group");
}

TEST(Displays, NamesStayInsideTheirTables)
{
    Engine engine(4);
    LacPort &record = engine.port(1);
    record.rxm = 7;
    record.txm = 5;
    record.selected = 3;
    record.muxm = 0x0F;
    record.lacp_enabled = 2;
    EXPECT_NE(engine.shown(lacShowAll, 0).find("\n01   UNINIT     NO_PERIODIC   UNSELECTED None       NO   01 1\n"),
              std::string::npos);
    EXPECT_EQ(Texts(LACP_ENABLED, std::end(LACP_ENABLED)), (Texts{"D", "U"}));
    EXPECT_EQ(Texts(SHOW_MUX, std::end(SHOW_MUX)), (Texts{"None      ", "DETACHED  ", "WAITING   ", "ATTACHED  ",
                                                          "COLLECT   ", "DISTRIB   ", "COL_DISTR "}));
    EXPECT_EQ(Texts(SHOW_TX_MACHINE, std::end(SHOW_TX_MACHINE)),
              (Texts{"NO_PERIODIC  ", "FAST_PERIODIC", "SLOW_PERIODIC", "PERIODIC     ", "PERIODIC_TX  "}));
    EXPECT_EQ(
        Texts(SHOW_RX_MACHINE, std::end(SHOW_RX_MACHINE)),
        (Texts{"UNINIT    ", "CURRENT   ", "EXPIRED   ", "DEFAULTED ", "INITIALIZE", "LACP_DISAB", "P_DISABLED"}));
}

TEST(Displays, Refusals)
{
    Engine engine(4);
    for (const int group : {-1, 5, 1000})
        EXPECT_EQ(engine.neighbors(group, 47), "Invalid group id, correct group id is 1 to 4.\r\n");
    const auto expect_both = [&](const std::string &text, int code) {
        EXPECT_EQ(engine.shown(link_aggregation, code), text);
        for (const int group : {-1, 1, 9})
            EXPECT_EQ(engine.neighbors(group, static_cast<int>(text.size())), text);
    };
    lacSystem->system_state = 0;
    expect_both("\r\nLACP disabled\r\n", 0);
    LacSystem *const system = lacSystem;
    lacSystem = nullptr;
    expect_both("\r\nLACP not initialization.\r\n", -1);
    lacSystem = system;
}

} // namespace
