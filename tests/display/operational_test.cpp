// Texts of the operational leaves.
#include "states.h"

#include "lacp_operational.h"

namespace
{

class OperationalTexts : public EngineTest
{
  protected:
    OperationalTexts() : EngineTest(1, 8) { arrange_eight_ports(); }

    static std::string asked(const char *xpath, lyd_node *&tree)
    {
        int result = -1;
        const std::string text = printed(
            [&] { result = lacp_information_get_cb(nullptr, 1, "olt-ifm", "subscribed", xpath, 1, &tree, nullptr); });
        EXPECT_EQ(result, 0);
        return text;
    }
    static void expect_nothing(const char *xpath, const std::string &message)
    {
        lyd_node *tree = nullptr;
        EXPECT_EQ(asked(xpath, tree), message);
        EXPECT_EQ(tree, nullptr);
    }
};

// Actor and partner of a port in step, of one that has lost its partner, and the largest values.
TEST_F(OperationalTexts, EveryLeaf)
{
    constexpr std::uint32_t PORTS[] = {1, 3, 8};
    struct Row {
        const char *leaf;
        const char *texts[3][2];
    };
    const Row rows[] = {
        {"system-priority", {{"32768", "4096"}, {"100", "0"}, {"65535", "65535"}}},
        {"system-id",
         {{"0211.22aa.bbcc", "0233.4455.6677"},
          {"0211.22aa.bbcc", "000a.0b0c.0def"},
          {"ffff.ffff.ffff", "fedc.ba98.7654"}}},
        {"oper-key", {{"100", "7"}, {"9", "12"}, {"65535", "54321"}}},
        {"priority", {{"32768", "128"}, {"0", "1"}, {"65535", "43210"}}},
        {"id", {{"1", "21"}, {"3", "1"}, {"65535", "32109"}}},
        {"port-state", {{"63", "61"}, {"196", "2"}, {"255", "254"}}},
        {"mode", {{"active", "active"}, {"passive", "passive"}, {"active", "passive"}}},
        {"timeout", {{"short", "long"}, {"long", "short"}, {"short", "short"}}},
        {"synchronization", {{"true", "true"}, {"false", "false"}, {"true", "true"}}},
        {"col-dis", {{"true", "true"}, {"false", "false"}, {"false", "false"}}},
    };
    for (const Row &row : rows) {
        for (std::size_t i = 0; i < 3; ++i) {
            const LacPort *record = &port(PORTS[i]);
            EXPECT_EQ(lacp_information_text(record, "actor", row.leaf), row.texts[i][0]) << row.leaf;
            for (const char *role : {"partner", "neighbou", ""}) // any other role is the partner
                EXPECT_EQ(lacp_information_text(record, role, row.leaf), row.texts[i][1]) << row.leaf;
        }
    }
    for (const char *leaf : {"", "key", "role", "system_id", "SYSTEM-ID", "timeout ", "port"})
        EXPECT_EQ(lacp_information_text(&port(1), "actor", leaf), std::nullopt) << leaf;
    for (const std::uint32_t slot : {0U, 7U}) // not looked at
        EXPECT_EQ(get_lacp_port_t(slot, 3), lacNoToPort(3));
    EXPECT_EQ(get_lacp_port_t(0, 0), nullptr);
    EXPECT_EQ(get_lacp_port_t(0, 9), nullptr);
}

#define PORT(port) "/olt-ifm:up-link-ports/interface[name='gigabitethernet 0/" #port "']/olt-lacp:trunk-info/port"

TEST_F(OperationalTexts, RequestsWithoutAnAnswer)
{
    expect_nothing(PORT(1) "[role='actor']/key", "LACP Msg: leaf \"key\" doesn't exist!\n");
    expect_nothing(PORT(1) "[role='actor']/role", "LACP Msg: leaf \"role\" doesn't exist!\n");
    expect_nothing(PORT(1) "[role='actor']", "LACP Msg: leaf \"\" doesn't exist!\n");
    expect_nothing(PORT(1), "LACP Msg: leaf \"\" doesn't exist!\n");
    expect_nothing("/olt-ifm:up-link-ports/interface[name='gigabitethernet 0/2']",
                   "LACP Msg: leaf \"\" doesn't exist!\n");
    expect_nothing(PORT(9) "[role='actor']/id", "");
    expect_nothing(PORT(0) "[role='actor']/id", "");
    expect_nothing(PORT(x) "[role='actor']/id", "");
    expect_nothing("/olt-ifm:up-link-ports", "");
    expect_nothing("", "");
    expect_nothing(nullptr, "");
}

TEST_F(OperationalTexts, LongNamesAreCut)
{
    const std::string leaf(63, 'l');
    expect_nothing((std::string(PORT(1) "[role='partner']/") + leaf + "more").c_str(),
                   "LACP Msg: leaf \"" + leaf + "\" doesn't exist!\n");
    expect_nothing(PORT(1) "[role='partners']/id", "LACP Msg: leaf \"\" doesn't exist!\n");
}

TEST_F(OperationalTexts, RequestsAreTracedOnDemand)
{
    fake::datastore().debug_mask = KEL_DB_DEBUG_DAEMON;
    expect_nothing(
        PORT(12) "[role='partner']/key",
        "[DATABASE INFO] lacp_information_get_cb request_xpath=> " PORT(
            12) "[role='partner']/key\n"
                "[DATABASE INFO] lacp_information_get_cb slot id=> 0, port id=> 12, role=> partner, leaf=> key\n");
    fake::datastore().debug_mask = ~KEL_DB_DEBUG_DAEMON;
    expect_nothing(PORT(12) "[role='partner']/key", "");
}

} // namespace
