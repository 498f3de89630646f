// Channel-group table, membership, the trunk requests that follow, and the protocol's start.
#include "engine.h"

#include "lacp_sclient.h"

#include <bit>
#include <utility>

namespace
{

// A request as it goes to the driver service: header (length, version, kind, instance, id), body.
fake::Message request(unsigned id, std::initializer_list<std::uint32_t> body)
{
    const auto length = static_cast<std::uint8_t>(8 + 4 * body.size());
    fake::Message bytes = {0, length, 1, 2, 0, 0, 0, static_cast<std::uint8_t>(id)};
    for (const std::uint32_t field : body)
        for (int shift = 24; shift >= 0; shift -= 8)
            bytes.push_back(static_cast<std::uint8_t>(field >> shift));
    return bytes;
}

fake::Message create(std::uint32_t group, std::uint32_t code, std::uint32_t members)
{
    return request(10, {group, code, members, static_cast<std::uint32_t>(std::popcount(members))});
}

fake::Message destroy(std::uint32_t group)
{
    return request(11, {group});
}

using Messages = std::vector<fake::Message>;

class ChannelGroupTest : public EngineTest
{
  protected:
    ChannelGroupTest() : EngineTest(1, 8) {}

    struct Group {
        std::uint32_t type, used, code, agg_no, count, list, uplink_count, uplink_list;
        bool operator==(const Group &) const = default;
    };
    static Group group(int number)
    {
        Group record{};
        EXPECT_EQ(get_channel_group_type(number, &record.type), 0);
        EXPECT_EQ(get_channel_group_used(number, &record.used), 0);
        EXPECT_EQ(get_channel_group_load_balance(number, &record.code), 0);
        EXPECT_EQ(get_channel_group_agg_no(number, &record.agg_no), 0);
        EXPECT_EQ(get_channel_group_port_count(number, &record.count), 0);
        EXPECT_EQ(get_channel_group_port_list(number, &record.list), 0);
        EXPECT_EQ(get_channel_group_uplink_port_count(number, &record.uplink_count), 0);
        EXPECT_EQ(get_channel_group_uplink_port_list(number, &record.uplink_list), 0);
        return record;
    }
    static std::string balance_of(int number)
    {
        char name[LOAD_BALANCE_NAME_SIZE] = {};
        EXPECT_EQ(get_channel_group_load_balance_str(number, name, sizeof(name)), 0);
        return name;
    }

    // Code, text and errors of a call.
    static void expect_messages(const std::function<int()> &call, int code, const std::string &text,
                                const std::string &errors = "")
    {
        std::string error_text;
        EXPECT_EQ(printed([&] { error_text = printed_as_error([&] { EXPECT_EQ(call(), code); }); }), text);
        EXPECT_EQ(error_text, errors);
    }

    static constexpr Group EMPTY = {0, 0, 9, 0, 0, 0, 0, 0};
};

// ---- table ----------------------------------------------------------------------------------------------------

TEST_F(ChannelGroupTest, FourGroupsStartUnconfigured)
{
    EXPECT_EQ(CHANNEL_GROUP_MAX_NUM, 4);
    for (int number = 1; number <= 4; ++number) {
        EXPECT_EQ(group(number), EMPTY);
        EXPECT_EQ(balance_of(number), "src-mac");
    }
    EXPECT_TRUE(fake::take_messages().empty());
    EXPECT_EQ(lacpCtrl.started, 1U);
    EXPECT_EQ(lacpCtrl.once_cfg_done, 0U);
    EXPECT_EQ(lacpCtrl.port_count, 8U);
    EXPECT_EQ(lacpCtrl.system_priority, 32768);
    for (const LacPortCfg &cfg : lacPortCfg) {
        EXPECT_EQ(cfg.key, 100);
        EXPECT_EQ(cfg.port_priority, 32768);
        EXPECT_EQ(cfg.timeout + cfg.passive + cfg.reserved, 0U);
    }
    lacpCtrl.once_cfg_done = 1; // LACP is started once
    start_lacp_once_cfg();
    EXPECT_EQ(lacDrvCtrl->tx_slots, nullptr);
    EXPECT_EQ(Lac_Queue.count(), 0);
}

constexpr auto GETTERS = {get_channel_group_type,
                          get_channel_group_used,
                          get_channel_group_load_balance,
                          get_channel_group_port_list,
                          get_channel_group_port_count,
                          get_channel_group_uplink_port_list,
                          get_channel_group_uplink_port_count,
                          get_channel_group_agg_no};

TEST_F(ChannelGroupTest, OtherGroupNumbersAreRefused)
{
    std::uint32_t out = 42;
    char name[LOAD_BALANCE_NAME_SIZE] = "untouched";
    for (const int bad : {0, 5, -1, -2147483647, 2147483647}) {
        SCOPED_TRACE(bad);
        for (const auto setter : {set_channel_group_type, set_channel_group_used, set_channel_group_load_balance,
                                  set_channel_group_agg_no, set_channel_group_master_port})
            EXPECT_EQ(setter(bad, 1), -9);
        for (const auto getter : GETTERS)
            EXPECT_EQ(getter(bad, &out), -9);
        for (const auto setter : {set_channel_group_port_list, set_channel_group_uplink_port_list})
            EXPECT_EQ(setter(bad, 0, 1, 1), -9);
        for (const auto function : {check_channel_group_port_count, reset_channel_group,
                                    set_manual_channel_group_type, set_dynamic_channel_group_type})
            EXPECT_EQ(function(bad), -9);
        EXPECT_EQ(set_channel_group_load_balance_str(bad, "dst-ip"), -9);
        EXPECT_EQ(get_channel_group_load_balance_str(bad, name, sizeof(name)), -9);
        EXPECT_EQ(out, 42U);
        EXPECT_STREQ(name, "untouched");
    }
    for (const auto getter : GETTERS)
        EXPECT_EQ(getter(1, nullptr), -9);
    EXPECT_EQ(get_channel_group_load_balance_str(1, nullptr, 20), -9);
    EXPECT_EQ(get_channel_group_port_link_status(0, 1, nullptr), -27);
}

TEST_F(ChannelGroupTest, ATypeIsSetOnceUntilTheGroupIsReset)
{
    EXPECT_EQ(set_manual_channel_group_type(2), 0);
    EXPECT_EQ(set_manual_channel_group_type(2), -11);
    EXPECT_EQ(set_dynamic_channel_group_type(2), -11);
    EXPECT_EQ(group(2).type, 3U);
    EXPECT_EQ(set_channel_group_used(2, 1), 0);
    set_channel_group_port_list(2, 0, 3, 1);
    set_channel_group_uplink_port_list(2, 0, 3, 1);
    set_channel_group_agg_no(2, 3);
    set_channel_group_load_balance(2, 0);
    fake::take_messages();
    EXPECT_EQ(reset_channel_group(2), 0);
    EXPECT_EQ(group(2), EMPTY);
    EXPECT_TRUE(fake::take_messages().empty()) << "the switch is not touched";
    EXPECT_EQ(set_dynamic_channel_group_type(2), 0);
    EXPECT_EQ(group(2).type, 5U);
    EXPECT_EQ(group(1), EMPTY);
    EXPECT_EQ(group(3), EMPTY);
}

TEST_F(ChannelGroupTest, ListsTakeFourPortsEach)
{
    struct Lists {
        int (*set)(int, int, std::uint32_t, int);
        int (*list)(int, std::uint32_t *);
        int (*count)(int, std::uint32_t *);
    };
    for (const Lists &lists :
         {Lists{set_channel_group_port_list, get_channel_group_port_list, get_channel_group_port_count},
          Lists{set_channel_group_uplink_port_list, get_channel_group_uplink_port_list,
                get_channel_group_uplink_port_count}}) {
        const auto expect = [&](std::uint32_t expected) {
            std::uint32_t list = 0;
            std::uint32_t count = 0;
            lists.list(3, &list);
            lists.count(3, &count);
            EXPECT_EQ(list, expected);
            EXPECT_EQ(count, static_cast<std::uint32_t>(std::popcount(expected)));
        };
        EXPECT_EQ(lists.set(3, 0, 1, 0), -9) << "nothing to remove";
        EXPECT_EQ(lists.set(3, 0, 1, 1), 0);
        EXPECT_EQ(lists.set(3, 9, 8, 1), 0) << "the slot does not matter";
        EXPECT_EQ(lists.set(3, 0, 8, 1), -9) << "twice";
        EXPECT_EQ(lists.set(3, 0, 4, 2), -9) << "no such operation";
        EXPECT_EQ(lists.set(3, 0, 4, -1), -9);
        expect(0x81);
        EXPECT_EQ(lists.set(3, 0, 34, 1), 0) << "bit positions are taken modulo 32";
        EXPECT_EQ(lists.set(3, 0, 4, 1), 0);
        EXPECT_EQ(lists.set(3, 0, 5, 1), -9) << "full";
        expect(0x8B);
        EXPECT_EQ(lists.set(3, 0, 5, 0), -9) << "not in it";
        EXPECT_EQ(lists.set(3, 0, 2, 0), 0);
        expect(0x89);
    }
}

// ---- load balance ---------------------------------------------------------------------------------------------

TEST_F(ChannelGroupTest, LoadBalanceNamesAndCodes)
{
    const std::pair<const char *, std::uint32_t> known[] = {{"src-mac", 9}, {"dst-mac", 10}, {"src-dst-mac", 19},
                                                            {"src-ip", 0},  {"dst-ip", 1},   {"src-dst-ip", 18}};
    for (const auto &[name, code] : known) {
        SCOPED_TRACE(name);
        EXPECT_EQ(set_channel_group_load_balance_str(1, name), 0);
        EXPECT_EQ(group(1).code, code);
        EXPECT_EQ(balance_of(1), name);
        char buffer[LOAD_BALANCE_NAME_SIZE] = "untouched";
        const auto needed = static_cast<std::uint32_t>(std::string(name).size() + 1);
        EXPECT_EQ(get_channel_group_load_balance_str(1, buffer, needed - 1), -9);
        EXPECT_STREQ(buffer, "untouched");
        EXPECT_EQ(get_channel_group_load_balance_str(1, buffer, needed), 0);
        EXPECT_STREQ(buffer, name);
    }
    for (const char *name : {"", "SRC-IP", "src-ip ", "src", "src-dst"})
        EXPECT_EQ(set_channel_group_load_balance_str(1, name), -9) << name;
    EXPECT_EQ(group(1).code, 18U);
    for (const std::uint32_t code : {2U, 5U, 8U, 11U, 17U, 20U, 1000U, 0xFFFFFFFFU}) {
        EXPECT_EQ(set_channel_group_load_balance(1, code), 0);
        EXPECT_EQ(balance_of(1), "src-mac") << code;
    }
}

TEST_F(ChannelGroupTest, TheSwitchHearsOfLoadBalanceOnlyForATrunk)
{
    set_channel_group_port_list(2, 0, 1, 1);
    EXPECT_EQ(set_channel_group_load_balance_str(2, "dst-ip"), 0);
    EXPECT_EQ(fake::take_messages(), Messages{});
    set_channel_group_uplink_port_list(2, 0, 1, 1);
    EXPECT_EQ(set_channel_group_load_balance_str(2, "src-dst-mac"), 0);
    EXPECT_EQ(fake::take_messages(), Messages{request(12, {2, 19})});
    fake::driver().unreachable = true;
    EXPECT_EQ(printed([] { EXPECT_EQ(set_channel_group_load_balance(2, 1), 0); }),
              "set_channel_group_load_balance sclient_send_message() failed ret -1\r\n");
    EXPECT_EQ(group(2).code, 1U) << "the code stays";
    fake::driver().unreachable = false;
    sclient *const client = std::exchange(lacp_sclient, nullptr); // before there is a client nothing is sent
    EXPECT_EQ(lacp_trunk_create(1, 9, 1, 1) + lacp_trunk_destory(1) + lacp_trunk_psc_set(1, 9), -3);
    lacp_sclient = client;
    EXPECT_EQ(fake::take_messages(), Messages{});
}

TEST_F(ChannelGroupTest, LinkStatusIsUpOnlyForTheWordUp)
{
    const std::pair<const char *, std::uint32_t> words[] = {{"up", 1}, {"down", 0}, {"UP", 0}, {"upper", 0}, {"", 0}};
    for (const auto &[word, expected] : words) {
        std::uint32_t status = 42;
        fake::datastore().link_status[3] = word;
        EXPECT_EQ(get_channel_group_port_link_status(9, 3, &status), 0);
        EXPECT_EQ(status, expected) << word;
    }
    std::uint32_t status = 42;
    EXPECT_EQ(get_channel_group_port_link_status(0, 7, &status), SR_ERR_NOT_FOUND);
    EXPECT_EQ(status, 42U);
}

// ---- membership -----------------------------------------------------------------------------------------------

TEST_F(ChannelGroupTest, TheTrunkFollowsTheMembersThatAreUp)
{
    set_channel_group_load_balance_str(2, "src-dst-mac");
    for (const std::uint32_t number : {1U, 2U, 3U, 4U}) {
        set_link(number, number != 2);
        EXPECT_EQ(set_channel_group_add_port(2, 0, number), 0);
    }
    EXPECT_EQ(fake::take_messages(),
              (Messages{create(2, 19, 0x1), hex("0018 01 02 0000 000a  00000002 00000013 00000005 00000002"),
                        create(2, 19, 0xD)}))
        << "a member that is down is none";
    EXPECT_EQ(group(2).list, 0xFU);
    EXPECT_EQ(group(2).uplink_list, 0xDU);
    set_link(5, true);
    const Group before = group(2);
    for (const int number : {2, 9})
        expect_messages([number] { return set_channel_group_add_port(number, 0, 5); }, -9,
                        "LACP Msg: The number of ports in channel-group " + std::to_string(number) +
                            " has already reached the maximum!\n");
    EXPECT_EQ(group(2), before);
    for (const std::uint32_t number : {1U, 3U, 4U})
        EXPECT_EQ(set_channel_group_del_port(2, 0, number), 0);
    EXPECT_EQ(fake::take_messages(),
              (Messages{create(2, 19, 0xC), create(2, 19, 0x8), hex("000c 01 02 0000 000b  00000002")}));
    EXPECT_EQ(group(2).list, 0x2U);
    EXPECT_EQ(group(2).uplink_count, 0U);
}

TEST_F(ChannelGroupTest, MembersThatAreThereOrNot)
{
    const std::string in_trunk = "LACP Msg: Set uplink port 4 to channel-group 3 failed which was already in it!\n";
    const auto add = [](std::uint32_t port_no) { return [=] { return set_channel_group_add_port(3, 0, port_no); }; };
    const auto remove = [](int number) { return [=] { return set_channel_group_del_port(number, 0, 5); }; };
    set_link(2, true);
    set_link(4, true);
    set_link(5, false);
    add(2)();
    fake::take_messages();
    expect_messages(add(2), -9, "LACP Msg: Set port 2 to channel-group 3 failed which was already in it!\n");
    expect_messages(add(6), SR_ERR_NOT_FOUND, ""); // a link that cannot be read: a member all the same
    expect_messages(remove(3), -9, "");
    expect_messages(remove(0), -9, "");
    EXPECT_EQ(fake::take_messages(), Messages{});
    EXPECT_EQ(group(3), (Group{0, 0, 9, 0, 2, 0x22, 1, 0x2}));
    set_channel_group_uplink_port_list(3, 0, 4, 1);
    expect_messages(add(4), -9, in_trunk, in_trunk); // in the trunk without being a member: it is one now
    add(5)();
    expect_messages(remove(3), 0, "",
                    "LACP Msg: Del uplink port 5 from channel-group 3 failed which wasn't in it!\n");
    EXPECT_EQ(group(3), (Group{0, 0, 9, 0, 3, 0x2A, 2, 0xA}));
}

TEST_F(ChannelGroupTest, ManualMembersFollowTheirLinks)
{
    create_group(1, "manual");
    set_link(1, false);
    set_channel_group_add_port(1, 0, 1);
    fake::datastore().channel_group[1] = 1;
    change_link(1, true);
    EXPECT_EQ(fake::take_messages(), Messages{create(1, 9, 1)});
    EXPECT_EQ(printed_as_error([&] { change_link(1, true); }),
              "LACP Msg: Set uplink port 1 to channel-group 1 failed which was already in it!\n");
    EXPECT_EQ(fake::take_messages(), Messages{});
    change_link(1, false);
    EXPECT_EQ(fake::take_messages(), Messages{destroy(1)});
    expect_messages([] { return deal_manual_channel_updown_port(1, 0, 1, 0); }, 0, "",
                    "LACP Msg: Del uplink port 1 from channel-group 1 failed which wasn't in it!\n");
    EXPECT_EQ(group(1).list, 1U) << "a member without link stays a member";
    EXPECT_EQ(deal_manual_channel_updown_port(7, 0, 1, 1), -9);
    EXPECT_EQ(deal_manual_channel_updown_port(1, 0, 2, 1), 0);
    EXPECT_EQ(fake::take_messages(), Messages{}) << "a port that is no member stays out of the trunk";
}

TEST_F(ChannelGroupTest, AnyOtherEventSendsTheTrunkAsItIs)
{
    EXPECT_EQ(deal_channel_group_updown_port(2, 0, 1, 2, 0), 0);
    EXPECT_EQ(fake::take_messages(), Messages{destroy(2)});
    set_channel_group_uplink_port_list(2, 0, 4, 1);
    EXPECT_EQ(deal_channel_group_updown_port(2, 0, 1, 2, 0), 0);
    EXPECT_EQ(fake::take_messages(), Messages{create(2, 9, 0x8)});
    EXPECT_EQ(printed_as_error([] { EXPECT_EQ(deal_channel_group_updown_port(9, 0, 1, 2, 0), -9); }),
              "LACP Msg: Get uplink port number in channel-group 9 failed\n");
}

TEST_F(ChannelGroupTest, AnUnreachableDriverIsReportedAndTheTableStays)
{
    constexpr char UNSENT[] = "deal_channel_group_updown_port sclient_send_message() failed ret -1\r\n";
    set_link(1, true);
    fake::driver().unreachable = true;
    expect_messages([] { return set_channel_group_add_port(1, 0, 1); }, -1,
                    "LACP Msg: Set uplink port 1 to channel-group 1 failed which was already in it!\n", UNSENT);
    EXPECT_EQ(group(1).uplink_list, 1U);
    expect_messages([] { return set_channel_group_del_port(1, 0, 1); }, -1,
                    "LACP Msg: Del uplink port 1 from channel-group 1 failed which wasn't in it!\n", UNSENT);
    EXPECT_EQ(group(1).list, 0U);
}

// ---- resynchronization ----------------------------------------------------------------------------------------

TEST_F(ChannelGroupTest, AfterALossEveryTrunkIsSentAgain)
{
    set_channel_group_load_balance(2, 19);
    set_channel_group_uplink_port_list(2, 0, 1, 1);
    set_channel_group_uplink_port_list(2, 0, 3, 1);
    fake::take_messages();
    ASSERT_NE(lacp_sclient->reconnected, nullptr);
    lacp_sclient->reconnected(lacp_sclient);
    EXPECT_EQ(fake::take_messages(), (Messages{destroy(1), create(2, 19, 0x5), destroy(3), destroy(4)}));
}

// The table changes, and its own request is sent, right after the resynchronization has sent an older state.
TEST_F(ChannelGroupTest, ResynchronizationEndsWithTheTableAsItIs)
{
    const auto last_of_group = [](std::uint32_t number) {
        fake::Message last;
        for (const fake::Message &message : fake::take_messages())
            if (message[11] == number)
                last = message;
        return last;
    };
    set_link(1, true);
    set_link(2, true);
    set_channel_group_add_port(2, 0, 1);
    int sends = 0;
    fake::driver().after_send = [&] {
        switch (++sends) {
        case 2: // group 2 was sent with port 1
            set_channel_group_uplink_port_list(2, 0, 2, 1);
            break;
        case 3: // and again with both
            set_channel_group_load_balance(2, 0);
            break;
        case 5:
            set_channel_group_uplink_port_list(2, 0, 1, 0);
            set_channel_group_uplink_port_list(2, 0, 2, 0);
            break;
        default:
            break;
        }
    };
    lacp_trunk_resync(lacp_sclient);
    EXPECT_EQ(last_of_group(2), destroy(2));
    EXPECT_EQ(sends, 8) << "three sends for each change and one for each other group";
}

TEST_F(ChannelGroupTest, ResynchronizationGivesUpWhenTheConnectionIsLostAgain)
{
    fake::driver().after_send = [] { fake::driver().unreachable = true; };
    lacp_trunk_resync(lacp_sclient);
    EXPECT_EQ(fake::take_messages(), Messages{destroy(1)});
}

// ---- dynamic groups -------------------------------------------------------------------------------------------

TEST_F(ChannelGroupTest, DynamicLinkEventsGoToTheProtocol)
{
    const auto event = [](std::uint32_t port_no, std::uint32_t up) {
        return [=] { return deal_dynamic_channel_updown_port(9, 9, port_no, up); };
    };
    expect_messages(event(3, 1), 0, "\r\n lacpPortLinkStatusEvent  port 3 up wait task semaphore\r\n");
    expect_messages(event(3, 0), 0, "\r\n lacpPortLinkStatusEvent  port 3 down wait task semaphore\r\n");
    expect_messages(event(3, 2), 0, "");
    expect_messages(event(9, 1), -27, "");
    LacQueueMsg message{};
    for (const std::uint64_t code : {5U, 6U}) {
        ASSERT_TRUE(Lac_Queue.tryPop(message));
        EXPECT_EQ(message.code, code);
        EXPECT_EQ(message.port, 3U);
    }
    EXPECT_FALSE(Lac_Queue.tryPop(message));
}

} // namespace
