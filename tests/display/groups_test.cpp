// Whole outputs of the channel-group displays.
#include "states.h"
#include "terminal.h"

#include "channel_group_show.h"

namespace
{

class GroupDisplays : public EngineTest
{
  protected:
    explicit GroupDisplays(std::uint32_t last_port = 8) : EngineTest(last_port == 0 ? 0 : 1, last_port)
    {
        set_channel_group_used(1, 1);
        set_channel_group_type(1, CHANNEL_GROUP_DYNAMIC);
        add_members(1, {1, 2}, {1});

        set_channel_group_used(2, 1);
        set_channel_group_type(2, CHANNEL_GROUP_MANUAL);
        set_channel_group_load_balance_str(2, "src-dst-mac");
        add_members(2, {4, 3, 8, 7}, {8, 3, 4, 7});

        set_channel_group_used(3, 1); // its type was never set
        set_channel_group_load_balance_str(3, "dst-ip");
    }

    std::string detail(std::uint32_t group)
    {
        return terminal.shown([group](vty *vty) { show_channel_groups_information(vty, group); });
    }
    std::string ports()
    {
        return terminal.shown([](vty *vty) { show_lacp_ports_infomation(vty, 3); });
    }

    Terminal terminal;

  private:
    static void add_members(int group, std::initializer_list<std::uint32_t> members,
                            std::initializer_list<std::uint32_t> up)
    {
        for (const std::uint32_t number : members)
            ASSERT_EQ(set_channel_group_port_list(group, LAC_SLOT, number, LIST_ADD), 0);
        for (const std::uint32_t number : up)
            ASSERT_EQ(set_channel_group_uplink_port_list(group, LAC_SLOT, number, LIST_ADD), 0);
    }
};

class GroupDisplaysOfFourPorts : public GroupDisplays
{
  protected:
    GroupDisplaysOfFourPorts() : GroupDisplays(4) {}
};

class GroupDisplaysWithoutPorts : public GroupDisplays
{
  protected:
    GroupDisplaysWithoutPorts() : GroupDisplays(0) {}
};

TEST_F(GroupDisplays, AllGroups)
{
    expect_recorded(detail(0), "detail-all");
    EXPECT_EQ(show_channel_groups_information(terminal, 0), 0);
}

TEST_F(GroupDisplays, OneGroup)
{
    expect_recorded(detail(1), "detail-group-1");
    expect_recorded(detail(4), "detail-group-4");
}

TEST_F(GroupDisplays, AGroupThatThereIsNotLeavesTheClosingLine)
{
    EXPECT_EQ(detail(5), std::string(71, '-') + "\n");
}

// Members are listed inside the inventory's range, uplink ports whatever it is.
TEST_F(GroupDisplaysOfFourPorts, MembersOutsideTheInventoryAreCountedOnly)
{
    expect_recorded(detail(2), "detail-group-2-of-4-ports");
}

TEST_F(GroupDisplaysWithoutPorts, NoMemberIsListed)
{
    expect_recorded(detail(1), "detail-group-1-of-0-ports");
    EXPECT_EQ(ports(), std::string(71, '-') + "\n");
}

TEST_F(GroupDisplays, EveryCriterionHasItsName)
{
    for (const char *name : {"src-ip", "dst-ip", "src-mac", "dst-mac", "src-dst-ip", "src-dst-mac"}) {
        ASSERT_EQ(set_channel_group_load_balance_str(4, name), 0);
        set_channel_group_used(4, 1);
        EXPECT_NE(detail(4).find(std::string("\nChannel-group Load Balance:\t\t") + name + "\n"), std::string::npos);
    }
}

TEST_F(GroupDisplays, PortsWithLacpOrALink)
{
    arrange_eight_ports();
    const std::string text = ports();
    expect_recorded(text, "ports-8");
    EXPECT_EQ(terminal.shown([](vty *vty) { show_lacp_ports_infomation(vty, 0); }), text)
        << "the group is not looked at";
    EXPECT_EQ(show_lacp_ports_infomation(terminal, 0), 72) << "the length of the last line";
}

TEST_F(GroupDisplays, NoPortIsListedBeforeLacpStarts)
{
    EXPECT_EQ(ports(), std::string(71, '-') + "\n");
}

} // namespace
