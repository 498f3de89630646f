// Channel groups, the handlers of configuration changes and what they ask of the dispatcher, the switch and the
// datastore.
#include "engine.h"

#include <tuple>

namespace
{

struct Row {
    const char *given;  // words
    const char *change; // as fake::deliver takes it
    int result;
    unsigned fetched; // changes that were looked at
    const char *then; // exactly what changes, is queued, sent and written
    const char *says = "";
};

void check(std::initializer_list<Row> rows)
{
    for (const Row &row : rows) {
        Engine engine(1, 8);
        Engine::switch_on();
        set(row.given);
        fake::Delivery done{};
        std::string says;
        EXPECT_EQ(changes([&] { done = Engine::configure(row.change); }, &says), sorted(row.then)) << row.change;
        EXPECT_EQ(std::pair(done.result, done.fetched), std::pair(row.result, std::size_t{row.fetched}))
            << row.change;
        EXPECT_EQ(says, row.says) << row.change;
    }
}

// The first deletion ends an event, and so does a failure; what came before stays.
TEST(Handlers, Walks)
{
    check({
        {"", "+g1/lacp-type=manual; -g1/load-balance=dst-ip; +g1/member-port=2", 0, 2, "g1.type=3 g1.used=1"},
        {"", "-sys/system-priority=5; +sys/system-priority=6", 0, 1, ""},
        {"", "-p1/priority=5; +p1/priority=6", 0, 1, ""},
        {"", "+g1/load-balance=dst-ip; +g1/load-balance=by-hand; +g1/load-balance=src-ip", -9, 2, "g1.code=1",
         "set 'load-balance' failed! ret -9\n"},
        {"", "+g1/colour=x", -2, 1, "",
         "'colour' is not belong to channel group configuration!\nset 'colour' failed! ret -2\n"},
        {"", "+sys/colour=x", -2, 1, "",
         "leaf colour\n'colour' is not belong to lacp global configuration!\nset 'colour' failed! ret -2\n"},
        {"", "+p2/colour=x", -2, 1, "",
         "'colour' is not belong to lacp interface trunk configuration!\nset slot 0 port 2 'colour' failed! ret "
         "-2\n"},
        // Names are cut after 19 characters; no known name is that long, so a cut one is never taken for another.
        {"", "+g1/load-balance-and-much-more=dst-ip", -2, 1, "",
         "'load-balance-and-mu' is not belong to channel group configuration!\n"
         "set 'load-balance-and-mu' failed! ret -2\n"},
        {"", "+g1/id=1; +g1/join-port=1; +g1/load-balance=dst-ip", 0, 3, "g1.code=1"},
        // Nodes without data are passed over.
        {"", "+g1/x=#0; +g1/x=#1; +g1/x=#2; +g1/x=#3; +g1/x=#4; +g1/load-balance=dst-ip", 0, 6, "g1.code=1"},
        {"", "+sys/x=#4; +sys/x=#1", 0, 2, ""},
        {"", "+p1/x=#1; +p1/x=#4", 0, 2, ""},
        // A value of an unexpected type is an empty text.
        {"", "+g1/load-balance=#21", -9, 1, "", "set 'load-balance' failed! ret -9\n"},
        {"", "+p1/mode=#21", 0, 1, "q:18/1=1"},
    });
    Engine engine;
    for (const sr_module_change_cb handler :
         {lacp_channel_group_cb, lacp_global_configuration_cb, lacp_interface_trunk_cb, lacp_port_uplink_change_cb})
        for (const sr_event_t event :
             {SR_EV_UPDATE, SR_EV_CHANGE, SR_EV_DONE, SR_EV_ABORT, SR_EV_ENABLED, SR_EV_RPC}) {
            const bool taken = event == (handler == lacp_port_uplink_change_cb ? SR_EV_DONE : SR_EV_CHANGE);
            EXPECT_EQ(fake::deliver(handler, event, "").result, 0);
            EXPECT_EQ(fake::deliver(handler, event, "-g9/x=1").fetched, taken ? 1U : 0U);
        }
    EXPECT_EQ(lacp_channel_group_del_cb(nullptr), 0);
}

TEST(Handlers, Groups)
{
    check({
        {"", "+g1/lacp-type=manual", 0, 1, "g1.type=3 g1.used=1"},
        {"", "+g2/lacp-type=dynamic", 0, 1, "g2.type=5 g2.used=1"},
        {"", "+g3/lacp-type=other", 0, 1, "g3.used=1"},
        {"g1.type=3", "+g1/lacp-type=dynamic", 0, 1, "g1.used=1"}, // what the type setter says is not looked at
        {"g1.type=5", "g1/lacp-type=dynamic>manual", -11, 1, ""},
        {"g1.type=5", "g1/lacp-type=dynamic>dynamic", -11, 1, ""},
        {"", "+g7/lacp-type=manual", -9, 1, "", "set 'lacp-type' failed! ret -9\n"},
        {"g1.list=3 g1.up=1", "+g1/load-balance=src-dst-mac", 0, 1, "g1.code=13 rehash:1,13"},
        {"g1.list=3", "g1/load-balance=src-ip>dst-mac", 0, 1, "g1.code=a"}, // without a trunk nobody is told
        // Ports that are configured for it come back, or were named before the group.
        {"@p1/channel-group=2 @p3/channel-group=1", "+g2/lacp-type=dynamic", 0, 1,
         "g2.type=5 g2.used=1 q:21/1=2 q:20/1=2 q:18/1=1 q:7/1=0"},
        // A group that goes takes its trunk along, and LACP goes off on its ports.
        {"g3.type=5 g3.list=1 g3.up=1 1.group=3 1.lacp=1 2.group=3 2.lacp=1 4.group=2 4.lacp=1", "-g3", 0, 1,
         "g3.type=0 g3.list=0 g3.n=0 g3.up=0 g3.upn=0 destroy:3 q:16/1=0 q:16/2=0",
         "LACP Msg: channel-group 3 has been reset!\n"},
        {"", "-g2", 0, 1, "", "LACP Msg: channel-group 2 has been reset!\n"},
        {"", "-g8", -9, 1, "", "LACP Msg: channel-group 8 has been reset!\n"},
        {"", "-g2/join-port=1", 0, 1, "q:21/1=0"},
        {"g2.list=4", "-g2/member-ports=3", 0, 1, ""}, // the whole path counts
    });
}

TEST(Handlers, Members)
{
    constexpr char OK[] = "LACP Msg: interface 0/3 is OK added to channel-group 1!\n";
    constexpr char GONE[] = "LACP Msg: interface 0/3 is OK remove from channel-group 1!\n";
    check({
        {"link3=1", "+g1/member-port=3", 0, 1, "g1.list=4 g1.n=1 g1.up=4 g1.upn=1 create:1,9,4,1", OK},
        {"link3=0", "+g1/member-port=3", 0, 1, "g1.list=4 g1.n=1", OK},
        {"link3=1 g1.code=13 g1.list=1 g1.up=1", "+g1/member-port=3", 0, 1,
         "g1.list=5 g1.n=2 g1.up=5 g1.upn=2 create:1,13,5,2", OK},
        {"g1.list=4", "+g1/member-port=3", -9, 1, "",
         "LACP Msg: Set port 3 to channel-group 1 failed which was already in it!\n"
         "LACP Msg: interface 0/3 is falied added to channel-group 1!\nset 'member-port' failed! ret -9\n"},
        {"g1.list=f0 link3=1", "+g1/member-port=3", -9, 1, "",
         "LACP Msg: The number of ports in channel-group 1 has already reached the maximum!\n"
         "LACP Msg: interface 0/3 is falied added to channel-group 1!\nset 'member-port' failed! ret -9\n"},
        {"g1.up=4 link3=1", "+g1/member-port=3", -9, 1, "g1.list=4 g1.n=1", // in the trunk already
         "LACP Msg: Set uplink port 3 to channel-group 1 failed which was already in it!\n"
         "LACP Msg: interface 0/3 is falied added to channel-group 1!\nset 'member-port' failed! ret -9\n"},
        {"", "+g1/member-port=3", SR_ERR_NOT_FOUND, 1, "g1.list=4 g1.n=1", // a link that cannot be read
         "LACP Msg: interface 0/3 is falied added to channel-group 1!\nset 'member-port' failed! ret 5\n"},
        {"", "+g1/member-port=ethernet 0/3", SR_ERR_NOT_FOUND, 1, "g1.list=80000000 g1.n=1",
         "LACP Msg: interface 0/0 is falied added to channel-group 1!\nset 'member-port' failed! ret 5\n"},
        {"g1.list=5 g1.up=5", "-g1/member-port=3", 0, 1, "g1.list=1 g1.n=1 g1.up=1 g1.upn=1 create:1,9,1,1", GONE},
        {"g1.list=4 g1.up=4", "-g1/member-port=3", 0, 1, "g1.list=0 g1.n=0 g1.up=0 g1.upn=0 destroy:1", GONE},
        {"g1.list=4", "-g1/member-port=3", 0, 1, "g1.list=0 g1.n=0", GONE},
        {"", "-g1/member-port=3", -9, 1, "", "LACP Msg: interface 0/3 is failed remove from channel-group 1!\n"},
        // The links of a manual group's members.
        {"g1.type=3 @g1/lacp-type=manual g1.list=2 @p2/channel-group=1", "p2/link-status=down>up", 0, 1,
         "g1.up=2 g1.upn=1 create:1,9,2,1"},
        {"g1.type=3 @g1/lacp-type=manual g1.list=2 g1.up=2 @p2/channel-group=1", "p2/link-status=up>testing", 0, 1,
         "g1.up=0 g1.upn=0 destroy:1"},
        {"g1.type=3 @g1/lacp-type=manual g1.list=2 g1.up=2 @p2/channel-group=1", "p2/link-status=up>up", 0, 1, ""},
        {"g1.type=3 @g1/lacp-type=manual @p2/channel-group=1", "p2/link-status=down>up", 0, 1, ""}, // no member
        {"g1.type=3 @g1/lacp-type=manual g1.list=2 @p2/channel-group=1", "+p2/link-status=up", 0, 1, ""},
        {"g1.type=3 @g1/lacp-type=manual g1.list=2 @p2/channel-group=0", "p2/link-status=down>up", 0, 1, ""},
        {"g1.type=3 @g1/lacp-type=other g1.list=2 @p2/channel-group=1", "p2/link-status=down>up", 0, 1, ""},
        {"g1.list=2 @p2/channel-group=1", "p2/link-status=down>up", 0, 1, ""},
        {"", "p2/link-status=down>up", 0, 1, ""},
        {"@g1/lacp-type=dynamic @p2/channel-group=1", "p2/link-status=down>up", 0, 1, "q:5/2=0",
         "\r\n lacpPortLinkStatusEvent  port 2 up wait task semaphore\r\n"},
        {"@g1/lacp-type=dynamic @p2/channel-group=1", "p2/link-status=up>down; p2/link-status=down>up", 0, 1,
         "q:6/2=0", "\r\n lacpPortLinkStatusEvent  port 2 down wait task semaphore\r\n"},
    });
}

TEST(Handlers, PortsAndSystem)
{
    check({
        {"g2.type=5", "+p1/channel-group=2", 0, 1, "q:21/1=2 q:20/1=2 q:18/1=1 q:7/1=0"},
        {"g2.type=5 @p1/mode=passive", "+p1/channel-group=2", 0, 1, "q:21/1=2 q:20/1=2 q:18/1=0 q:7/1=0"},
        {"g2.type=5", "+p1/mode=passive; +p1/channel-group=2", 0, 2, "q:18/1=0 q:21/1=2 q:20/1=2 q:7/1=0"},
        {"g2.type=5", "p1/channel-group=2>0", 0, 1, "q:16/1=0 q:22/1=2"},
        {"g2.type=5 g3.type=5", "p1/channel-group=2>3", 0, 1, "q:16/1=0 q:22/1=2 q:21/1=3 q:20/1=3 q:18/1=1 q:7/1=0"},
        {"g2.type=5", "p1/channel-group=2>2", 0, 1, "q:21/1=2 q:20/1=2 q:18/1=1 q:7/1=0"},
        {"g2.type=5 g1.type=3", "p1/channel-group=2>1", 0, 1, "q:16/1=0 q:22/1=2"},
        {"g1.type=3", "p1/channel-group=1>0", 0, 1, ""}, // left to its member list
        {"g1.type=3", "+p1/channel-group=1", 0, 1, ""},
        {"", "+p1/channel-group=9; p1/channel-group=9>0", 0, 2, ""},
        {"", "+p1/channel-group=2; +g2/lacp-type=dynamic", -2, 2, "", // another module's
         "'' is not belong to lacp interface trunk configuration!\nset slot 0 port 0 '' failed! ret -2\n"},
        {"", "p2/priority=1>77", 0, 1, "q:19/2=4d"},
        {"", "+p2/mode=passive", 0, 1, "q:18/2=0"},
        {"", "+p2/mode=on; +p2/mode=x", 0, 2, "q:18/2=1 q:18/2=1"},
        {"", "+p2/timeout=short; +p2/timeout=long; +p2/timeout=Short", 0, 3, "q:17/2=1 q:17/2=0 q:17/2=0"},
        {"", "+p9/priority=1", -27, 1, "", "set slot 0 port 9 'priority' failed! ret -27\n"},
        {"", "+p9/mode=active", -1, 1, "", "set slot 0 port 9 'mode' failed! ret -1\n"},
        {"", "+p9/timeout=short", 0, 1, ""}, // not examined
        {"", "+sys/system-id=0299.8877.6655; +sys/system-priority=4096", 0, 2, "q:24/0=29988776655 q:23/0=1000",
         "leaf system-id\nleaf system-priority\n"},
        {"", "+sys/system-id=0299", 0, 1, "q:24/0=29922aabbcc", "leaf system-id\n"},
    });
    Engine engine;
    fake::datastore().debug_mask = KEL_DB_DEBUG_DAEMON;
    set("@g1/lacp-type=manual @p2/channel-group=1");
    EXPECT_EQ(printed([] { Engine::configure("p2/priority=1>7"); }),
              "[DATABASE INFO] interface (0/2) operation [1] xpath [/olt-ifm:up-link-ports/interface[name="
              "'gigabitethernet 0/2']/olt-lacp:trunk/priority]\n");
    EXPECT_EQ(
        printed([] { Engine::configure("p2/link-status=up>testing"); }),
        "[DATABASE INFO] lacp_port_uplink_change_cb => interface gigabitEthernet 0/2 is [testing], lacp type is "
        "[manual]\n");
    LacSystem *const records = std::exchange(lacSystem, nullptr);
    EXPECT_EQ(fake::deliver(lacp_global_configuration_cb, SR_EV_CHANGE, "+sys/system-priority=5").result, -11);
    EXPECT_EQ(fake::deliver(lacp_global_configuration_cb, SR_EV_CHANGE, "+sys/system-id=0299.8877.6655").result, -11);
    lacSystem = records;
}

// Group and port in one transaction, the port's module first; a mode that is deleted again; a group that is deleted
// while a join waits in the queue, and a member that is written late.
TEST(Handlers, Orders)
{
    Engine engine;
    Engine::switch_on();
    Engine::set_link(1, true);
    fake::deliver(lacp_interface_trunk_cb, SR_EV_CHANGE, "+p1/channel-group=2");
    fake::deliver(lacp_interface_trunk_cb, SR_EV_CHANGE, "+p3/channel-group=4");
    EXPECT_EQ(changes([] { Engine::configure("-g1"); }), "") << "nobody was sent there";
    EXPECT_EQ(changes([] { Engine::configure("+g2/lacp-type=dynamic"); }),
              "g2.type=5 g2.used=1 q:18/1=1 q:20/1=2 q:21/1=2 q:7/1=0");
    // The join is still in the queue: who goes with the group does not stay behind.
    EXPECT_EQ(changes([] { Engine::configure("-g2"); }),
              "g2.type=0 g2.used=0 q:16/1=0 q:18/1=1 q:20/1=2 q:21/1=2 q:7/1=0");
    Engine::dispatch();
    EXPECT_EQ(get_lacp_port_state(1), 0);

    Engine::configure("+p1/mode=passive");
    Engine::configure("-p1/mode=passive");
    fake::datastore().leaves.erase("p1/mode");
    const LacPort &record = engine.current_port(1, 2);
    EXPECT_EQ(record.actor_oper_state & LAC_ACTIVITY, 1) << "without the leaf a port is active";
    fake::datastore().failures["+member-port"] = KEL_DB_BUSY;
    Engine::tick(5);
    fake::datastore().failures.clear();
    EXPECT_EQ(fake::members(2), 0U);
    Engine::join(1, 0); // before it could be written
    EXPECT_EQ(changes([] { Engine::dispatch(); }).find("w:+g2"), std::string::npos);
    Engine::tick(3);
    EXPECT_EQ(fake::members(2), 0U);
    EXPECT_EQ(changes([] { Engine::configure("-g1"); }), "") << "it left group 2 for none";
}

// With one place too few for its messages a change is refused, and nothing of it is sent.
TEST(Handlers, AFullQueueRefusesAChangeAsAWhole)
{
    const std::pair<const char *, int> rows[] = {{"+p3/channel-group=2", 4},    {"p1/channel-group=2>0", 2},
                                                 {"p1/channel-group=2>3", 6},   {"+p1/timeout=short", 1},
                                                 {"+g1/lacp-type=dynamic", 32}, {"-g2", 8}};
    for (const auto &[change, messages] : rows) {
        Engine engine;
        set("g2.type=5 g3.type=5");
        for (const int missing : {1, 0}) {
            while (Lac_Queue.count() < 128 - messages + missing)
                Engine::send(3);
            const int waiting = Lac_Queue.count();
            printed([&, text = change] { EXPECT_EQ(Engine::configure(text).result, -missing) << text; });
            EXPECT_TRUE(missing == 0 || Lac_Queue.count() == waiting) << change;
            Engine::dispatch();
        }
    }
}

// ---- the table ------------------------------------------------------------------------------------------------

TEST(Groups, Table)
{
    Engine engine(1, 8);
    const auto GETTERS = {get_channel_group_type,
                          get_channel_group_used,
                          get_channel_group_load_balance,
                          get_channel_group_port_list,
                          get_channel_group_port_count,
                          get_channel_group_uplink_port_list,
                          get_channel_group_uplink_port_count,
                          get_channel_group_agg_no};
    std::uint32_t out = 42;
    char name[LOAD_BALANCE_NAME_SIZE] = "untouched";
    for (const int bad : {0, 5, -1, -2147483647, 2147483647}) {
        for (const auto setter : {set_channel_group_type, set_channel_group_used, set_channel_group_load_balance,
                                  set_channel_group_agg_no, set_channel_group_master_port})
            EXPECT_EQ(setter(bad, 1), -9);
        for (const auto getter : GETTERS)
            EXPECT_EQ(getter(bad, &out), -9);
        for (const auto setter : {set_channel_group_port_list, set_channel_group_uplink_port_list})
            EXPECT_EQ(setter(bad, 0, 1, 1), -9);
        for (const auto function :
             {check_channel_group_port_count, reset_channel_group, set_manual_channel_group_type})
            EXPECT_EQ(function(bad), -9);
        EXPECT_EQ(set_channel_group_load_balance_str(bad, "dst-ip"), -9);
        EXPECT_EQ(get_channel_group_load_balance_str(bad, name, sizeof(name)), -9);
    }
    for (const auto getter : GETTERS)
        EXPECT_EQ(getter(1, nullptr), -9);
    EXPECT_EQ(out, 42U);
    EXPECT_STREQ(name, "untouched");
    EXPECT_EQ(get_channel_group_load_balance_str(1, nullptr, 20), -9);
    EXPECT_EQ(get_channel_group_port_link_status(0, 1, nullptr), -27);
    EXPECT_EQ(get_channel_group_port_link_status(0, 7, &out), SR_ERR_NOT_FOUND);
    EXPECT_EQ(set_manual_channel_group_type(2) + set_dynamic_channel_group_type(2), -11);
    for (const auto list : {set_channel_group_port_list, set_channel_group_uplink_port_list}) {
        const std::tuple<std::uint32_t, int, int> steps[] = {{1, 0, -9}, {1, 1, 0},
                                                             {8, 1, 0},  {8, 1, -9},
                                                             {4, 2, -9}, {4, -1, -9},
                                                             {34, 1, 0}, // modulo 32
                                                             {4, 1, 0},  {5, 1, -9} /* full */,
                                                             {5, 0, -9}, {2, 0, 0}};
        for (const auto &[port, operation, result] : steps)
            EXPECT_EQ(list(3, 9, port, operation), result) << port << ' ' << operation;
    }
    EXPECT_EQ(state()["g3.list"] | state()["g3.n"] << 8 | state()["g3.up"] << 16, 0x890389U);
    EXPECT_EQ(changes([] { reset_channel_group(3); }), "g3.list=0 g3.n=0 g3.up=0 g3.upn=0")
        << "the switch is not touched";
}

TEST(Groups, LoadBalanceNamesAndCodes)
{
    Engine engine;
    const std::pair<std::string, std::uint32_t> known[] = {{"src-mac", 9}, {"dst-mac", 10}, {"src-dst-mac", 19},
                                                           {"src-ip", 0},  {"dst-ip", 1},   {"src-dst-ip", 18}};
    char name[LOAD_BALANCE_NAME_SIZE] = "untouched";
    for (const auto &[text, code] : known) {
        EXPECT_EQ(set_channel_group_load_balance_str(1, text.c_str()), 0);
        EXPECT_EQ(state()["g1.code"], code);
        EXPECT_EQ(get_channel_group_load_balance_str(1, name, static_cast<std::uint32_t>(text.size())), -9);
        EXPECT_EQ(get_channel_group_load_balance_str(1, name, static_cast<std::uint32_t>(text.size()) + 1), 0);
        EXPECT_EQ(name, text);
    }
    for (const char *text : {"", "SRC-IP", "src-ip ", "src", "src-dst"})
        EXPECT_EQ(set_channel_group_load_balance_str(1, text), -9) << text;
    for (const std::uint32_t code : {2U, 5U, 8U, 11U, 17U, 20U, 1000U, 0xFFFFFFFFU}) {
        EXPECT_EQ(set_channel_group_load_balance(1, code), 0);
        EXPECT_EQ(get_channel_group_load_balance_str(1, name, sizeof(name)), 0);
        EXPECT_STREQ(name, "src-mac") << code;
    }
}

// ---- the driver service ---------------------------------------------------------------------------------------

TEST(Groups, TheDriverServiceMayBeAway)
{
    constexpr char UNSENT[] = "deal_channel_group_updown_port sclient_send_message() failed ret -1\r\n";
    Engine engine;
    Engine::set_link(1, true);
    fake::driver().unreachable = true;
    std::string text;
    for (const std::string change : {"+g1/member-port=1", "-g1/member-port=1"}) { // accepted all the same
        EXPECT_EQ(printed_as_error([&] { text = printed([&] { EXPECT_EQ(Engine::configure(change).result, 0); }); }),
                  UNSENT);
        EXPECT_EQ(state()["g1.list"], change[0] == '+' ? 1U : 0U);
    }
    EXPECT_EQ(text, "LACP Msg: Del uplink port 1 from channel-group 1 failed which wasn't in it!\n"
                    "LACP Msg: interface 0/1 is failed remove from channel-group 1!\n");
    set("g2.list=5 g2.up=5");
    EXPECT_EQ(printed([] { EXPECT_EQ(set_channel_group_load_balance(2, 19), 0); }),
              "set_channel_group_load_balance sclient_send_message() failed ret -1\r\n");
    fake::driver().unreachable = false;
    EXPECT_EQ(changes([] { lacp_sclient->reconnected(lacp_sclient); }),
              "create:2,13,5,2 destroy:1 destroy:3 destroy:4");
    fake::driver().after_send = [] { fake::driver().unreachable = true; };
    EXPECT_EQ(changes([] { lacp_trunk_resync(lacp_sclient); }), "destroy:1") << "lost again";
    fake::driver().unreachable = false;
    sclient *const client = std::exchange(lacp_sclient, nullptr);
    EXPECT_EQ(lacp_trunk_create(1, 9, 1, 1) + lacp_trunk_destory(1) + lacp_trunk_psc_set(1, 9), -3);
    lacp_sclient = client;
    EXPECT_EQ(printed_as_error([] { EXPECT_EQ(deal_channel_group_updown_port(9, 0, 1, 2, 0), -9); }),
              "LACP Msg: Get uplink port number in channel-group 9 failed\n");
    EXPECT_EQ(deal_dynamic_channel_updown_port(9, 9, 9, 1), -27);
    EXPECT_EQ(printed([] { EXPECT_EQ(deal_dynamic_channel_updown_port(9, 9, 3, 2), 0); }), "");
}

// The table changes, and its own request is sent, right after the resynchronization has sent an older state.
TEST(Groups, ResynchronizationEndsWithTheTableAsItIs)
{
    Engine engine;
    set("g2.list=3 g2.up=1");
    int sends = 0;
    fake::driver().after_send = [&] {
        ++sends;
        if (sends == 2) // group 2 was sent with port 1
            set("g2.up=3");
        if (sends == 3)       // and again with both
            set("g2.code=0"); // sends itself
        if (sends == 5)
            set("g2.up=0");
    };
    EXPECT_EQ(
        changes([] { lacp_trunk_resync(lacp_sclient); }),
        "create:2,0,3,2 create:2,9,1,1 create:2,9,3,2 destroy:1 destroy:2 destroy:3 destroy:4 g2.code=0 g2.up=0 "
        "g2.upn=0 rehash:2,0");
}

// ---- start-up -------------------------------------------------------------------------------------------------

TEST(StartUp, RecordsSubscriptionsAndClearing)
{
    {
        const Engine none(0, 0);
        EXPECT_EQ(lacSystem->head.next, &lacSystem->head);
    }
    Engine engine(2, 3);
    EXPECT_EQ(changes(lac_LacInit), "") << "once";
    set("3.group=2 3.mux=16 3.alone=1 3.chain=1 1.chain=3");
    EXPECT_EQ(get_lacp_channel_group_id(3) + get_lacp_port_individual(3) + int(lacGetMuxMachineState(3)), 9);
    EXPECT_EQ(get_lacp_channel_group_id(9) + get_lacp_port_individual(9) + get_lacp_port_state(9), -3);
    EXPECT_EQ(lacNumLogicalPorts() + lacNumOfPortsInAggregation(&Engine::port(1)), 5U);
    EXPECT_EQ(fake::system().started, (Texts{"lacpRecv", "lacpTimer"}));
    EXPECT_EQ(Engine::port(2).port_mac, OUR_MAC);
    EXPECT_EQ(lacNoToPort(0), nullptr);
    EXPECT_EQ(lacNoToPort(4), nullptr);
    EXPECT_EQ(state()["1.collects"] & state()["3.collects"], 1U);
    EXPECT_EQ(state()["cfg2.key"] | state()["cfg2.prio"] << 8 | state()["sys.prio"] << 32, 0x8000'00800064U);
    EXPECT_EQ(lacSystem->system_mac.get(), OUR_MAC);
    set_lacp_system_id(OTHER_MAC);
    lacp_database_clear(&g_lacpd_db);
    EXPECT_EQ(fake::take_writes(),
              (Texts{"sys/system-id=0299.8877.6655", "-g1", "-g2", "-g3", "-g4", "-p2/channel-group", "-p2/mode",
                     "-p2/priority", "-p2/timeout", "-p3/channel-group", "-p3/mode", "-p3/priority", "-p3/timeout",
                     "-sys/system-priority"}));
    intf = {0, 0};
    lacp_database_clear(&g_lacpd_db);
    EXPECT_EQ(fake::take_writes().size(), 5U);
    EXPECT_EQ(lacp_database_subs(&g_lacpd_db), 0);
    EXPECT_EQ(fake::datastore().subscribed,
              (Texts{"olt-lacp /olt-lacp:channel-group/group//.", "olt-lacp /olt-lacp:global-configuration//.",
                     "olt-ifm /olt-ifm:up-link-ports/interface/olt-lacp:trunk//.",
                     "olt-ifm /olt-ifm:up-link-ports/interface/olt-lacp:trunk-info/port",
                     "olt-ifm /olt-ifm:up-link-ports/interface/interface-basic/link-status"}));
    EXPECT_EQ(printed_as_error([] { lacp_database_init(&g_lacpd_db); }), "");
    set("!connect=3 !subscribe=5");
    fake::datastore().debug_mask = KEL_DB_DEBUG_DAEMON;
    EXPECT_EQ(printed_as_error([] { EXPECT_EQ(lacp_database_subs(&g_lacpd_db), 5); }),
              "LACP Msg: LACPD subscription callback func failed! ret = 5\n");
    EXPECT_EQ(printed([] {
                  EXPECT_EQ(printed_as_error([] { lacp_database_init(&g_lacpd_db); }),
                            "LACP Msg: init database failed!\n");
              }),
              "[DATABASE INFO] LACP Msg: LACPD connect to database failed! ret=3\n");
    lacpCtrl.once_cfg_done = 1; // LACP is started once
    start_lacp_once_cfg();
    EXPECT_EQ(Lac_Queue.count(), 0);
}

} // namespace
