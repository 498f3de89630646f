// The handlers of configuration changes and what they ask of the dispatcher, the switch and the datastore; the table
// of channel groups; start-up.
#include "engine.h"

namespace
{

constexpr char OK[] = "LACP Msg: interface 0/3 is OK added to channel-group 1!\n";
constexpr char GONE[] = "LACP Msg: interface 0/3 is OK remove from channel-group 1!\n";

// The first deletion ends an event, and so does a failure; what came before stays.
TEST(Handlers, Rows)
{
    check({
        {"", "cfg +sys/colour=x", "r:-2",
         "leaf colour\n'colour' is not belong to lacp global configuration!\nset 'colour' failed! ret -2\n"},
        {"g1.list=4", "cfg +g1/member-port=3", "r:-9",
         "LACP Msg: Set port 3 to channel-group 1 failed which was already in it!\n"
         "LACP Msg: interface 0/3 is falied added to channel-group 1!\nset 'member-port' failed! ret -9\n"},

        {"", "cfg +g1/load-balance=dst-ip; +g1/load-balance=by-hand; +g1/load-balance=src-ip", "g1.code=1 r:-9",
         "set 'load-balance' failed! ret -9\n"},
        {"", "cfg +g1/colour=x", "r:-2",
         "'colour' is not belong to channel group configuration!\nset 'colour' failed! ret -2\n"},
        {"", "cfg +p2/colour=x", "r:-2",
         "'colour' is not belong to lacp interface trunk configuration!\nset slot 0 port 2 'colour' failed! ret "
         "-2\n"},
        // Names are cut after 19 characters; no known name is that long, so a cut one is never taken for another.
        {"", "cfg +g1/load-balance-and-much-more=dst-ip", "r:-2",
         "'load-balance-and-mu' is not belong to channel group configuration!\n"
         "set 'load-balance-and-mu' failed! ret -2\n"},
        {"", "cfg +g1/id=1; +g1/join-port=1; +g1/load-balance=dst-ip", "g1.code=1"},
        // Nodes without data are passed over.
        {"", "cfg +g1/x=#0; +g1/x=#1; +g1/x=#2; +g1/x=#3; +g1/x=#4; +g1/load-balance=dst-ip", "g1.code=1"},
        {"", "cfg +p1/mode=#21", "q:18/1=1"},
        {"", "cfg +g2/lacp-type=dynamic", "g2.type=5 g2.used=1"},
        {"", "cfg +g3/lacp-type=other", "g3.used=1"},
        // A group that goes takes its trunk along, and LACP goes off on its ports.
        {"g3.type=5 g3.list=1 g3.up=1 1.group=3 1.lacp=1 2.group=3 2.lacp=1 4.group=2 4.lacp=1", "cfg -g3",
         "g3.type=0 g3.list=0 g3.n=0 g3.up=0 g3.upn=0 destroy:3 q:16/1=0 q:16/2=0",
         "LACP Msg: channel-group 3 has been reset!\n"},
        {"", "cfg -g8", "r:-9", "LACP Msg: channel-group 8 has been reset!\n"},
        {"", "cfg -g2/join-port=1", "q:21/1=0"},
        {"link3=1", "cfg +g1/member-port=3", "g1.list=4 g1.n=1 g1.up=4 g1.upn=1 create:1,9,4,1", OK},
        {"g1.list=f0 link3=1", "cfg +g1/member-port=3", "r:-9",
         "LACP Msg: The number of ports in channel-group 1 has already reached the maximum!\n"
         "LACP Msg: interface 0/3 is falied added to channel-group 1!\nset 'member-port' failed! ret -9\n"},
        {"g1.up=4 link3=1", "cfg +g1/member-port=3", "g1.list=4 g1.n=1 r:-9", // in the trunk already
         "LACP Msg: Set uplink port 3 to channel-group 1 failed which was already in it!\n"
         "LACP Msg: Set uplink port 3 to channel-group 1 failed which was already in it!\n"
         "LACP Msg: interface 0/3 is falied added to channel-group 1!\nset 'member-port' failed! ret -9\n"},
        {"", "cfg +g1/member-port=ethernet 0/3", "g1.list=80000000 g1.n=1 r:5",
         "LACP Msg: interface 0/0 is falied added to channel-group 1!\nset 'member-port' failed! ret 5\n"},
        {"g1.list=5 g1.up=5", "cfg -g1/member-port=3", "g1.list=1 g1.n=1 g1.up=1 g1.upn=1 create:1,9,1,1", GONE},
        {"g1.list=4 g1.up=4", "cfg -g1/member-port=3", "g1.list=0 g1.n=0 g1.up=0 g1.upn=0 destroy:1", GONE},
        {"g1.list=4", "cfg -g1/member-port=3", "g1.list=0 g1.n=0",
         "LACP Msg: Del uplink port 3 from channel-group 1 failed which wasn't in it!\nLACP Msg: interface 0/3 is OK "
         "remove from channel-group 1!\n"},
        {"", "cfg -g1/member-port=3", "r:-9", "LACP Msg: interface 0/3 is failed remove from channel-group 1!\n"},
        // The links of a manual group's members.
        {"g1.type=3 @g1/lacp-type=manual g1.list=2 @p2/channel-group=1", "cfg p2/link-status=down>up",
         "g1.up=2 g1.upn=1 create:1,9,2,1"},
        {"g1.type=3 @g1/lacp-type=manual g1.list=2 g1.up=2 @p2/channel-group=1", "cfg p2/link-status=up>testing",
         "g1.up=0 g1.upn=0 destroy:1"},
        {"g1.type=3 @g1/lacp-type=manual @p2/channel-group=1", "cfg p2/link-status=down>up", ""}, // no member
        {"g1.type=3 @g1/lacp-type=other g1.list=2 @p2/channel-group=1", "cfg p2/link-status=down>up", ""},
        {"@g1/lacp-type=dynamic @p2/channel-group=1", "cfg p2/link-status=down>up", "q:5/2=0",
         "\r\n lacpPortLinkStatusEvent  port 2 up wait task semaphore\r\n"},
        {"@g1/lacp-type=dynamic @p2/channel-group=1", "cfg p2/link-status=up>down; p2/link-status=down>up", "q:6/2=0",
         "\r\n lacpPortLinkStatusEvent  port 2 down wait task semaphore\r\n"},
        {"g2.type=5", "cfg +p1/channel-group=2", "q:21/1=2 q:20/1=2 q:7/1=0"},
        {"g2.type=5", "cfg +p1/mode=passive; +p1/channel-group=2", "q:18/1=0 q:21/1=2 q:20/1=2 q:7/1=0"},
        {"g2.type=5", "cfg p1/channel-group=2>0", "q:16/1=0 q:22/1=2"},
        {"g2.type=5 g3.type=5", "cfg p1/channel-group=2>3", "q:16/1=0 q:22/1=2 q:21/1=3 q:20/1=3 q:7/1=0"},
        {"g2.type=5 g1.type=3", "cfg p1/channel-group=2>1", "q:16/1=0 q:22/1=2"},
        {"", "cfg +p1/channel-group=2; +g2/lacp-type=dynamic", "r:-2", // another module's
         "'' is not belong to lacp interface trunk configuration!\nset slot 0 port 0 '' failed! ret -2\n"},
        {"", "cfg +p2/mode=passive", "q:18/2=0"},
        // Who is about to join a group that goes does not stay behind.
        {"g2.type=5", "cfg +p1/channel-group=2 then -g2", "g2.type=0 q:16/1=0 q:20/1=2 q:21/1=2 q:7/1=0"},
        {"", "cfg +p2/timeout=short; +p2/timeout=long; +p2/timeout=Short", "q:17/2=1 q:17/2=0 q:17/2=0"},
        {"", "cfg +p9/priority=1", "r:-27", "set slot 0 port 9 'priority' failed! ret -27\n"},
        {"SERVING", "frame | frame 0a 01 | frame 02 01 03", "n_unknown=1"},
        // The table has the new state before the trunks are sent again, and a request of its own ends with it.
        {"g2.list=5 g2.up=5", "resync", "create:2,9,5,2 destroy:1 destroy:3 destroy:4"},
    });
}

// With one place too few for its messages a change is refused, and nothing of it is sent.
TEST(Handlers, AFullQueueRefusesAChangeAsAWhole)
{
    const std::pair<const char *, int> rows[] = {{"+p3/channel-group=2", 3},
                                                 {"p1/channel-group=2>0", 2},
                                                 {"p1/channel-group=2>3", 5},
                                                 {"+p1/timeout=short", 1},
                                                 {"-g2", 8}};
    for (const auto &[change, messages] : rows) {
        Engine engine;
        set("g2.type=5 g3.type=5");
        for (const int missing : {1, 0}) {
            while (Lac_Queue.count() < 128 - messages + missing)
                Engine::send(3);
            const int waiting = Lac_Queue.count();
            printed([&, text = change] { EXPECT_EQ(Engine::configure(text), -missing) << text; });
            EXPECT_TRUE(missing == 0 || Lac_Queue.count() == waiting) << change;
            Engine::dispatch();
        }
    }
    // What the datastore took all the same is sent when there is room.
    Engine engine;
    DbLacpConfiguration configured;
    configured.groups[1].type = "dynamic";
    configured.ports[0].group = 2;
    set("g2.type=5");
    while (Lac_Queue.push({1, 3, 0, 0}))
        ;
    printed([&] { EXPECT_FALSE(settle_ports(configured)); });
    Engine::dispatch();
    EXPECT_EQ(changes([&] { EXPECT_TRUE(settle_ports(configured) && settle_ports(configured)); }),
              "q:20/1=2 q:21/1=2 q:7/1=0");
}

// Four at most; a port counts modulo 32. A code that means nothing is shown as the default.
TEST(Groups, Table)
{
    Engine engine;
    std::string results;
    for (const auto &[port, operation] :
         {std::pair(1U, 0), {1, 1}, {8, 1}, {8, 1}, {4, 2}, {4, -1}, {34, 1}, {4, 1}, {5, 1}, {5, 0}, {2, 0}})
        results += std::to_string(set_channel_group_port_list(3, 9, port, operation)) + " ";
    EXPECT_EQ(results, "-9 0 0 -9 -9 -9 0 0 -9 -9 0 ");
    EXPECT_EQ(state()["g3.list"] | state()["g3.n"] << 8, 0x389U);
    EXPECT_EQ(changes([] { reset_channel_group(3); }), "g3.list=0 g3.n=0") << "the switch is not touched";
    char name[LOAD_BALANCE_NAME_SIZE];
    for (const std::uint32_t code : {2U, 17U, 20U, 0xFFFFFFFFU}) {
        EXPECT_EQ(set_channel_group_load_balance(1, code) + get_channel_group_load_balance_str(1, name, 8), 0);
        EXPECT_STREQ(name, "src-mac") << code;
    }
    EXPECT_EQ(get_channel_group_load_balance_str(1, name, 7), -9) << "no room for its end";
}

TEST(StartUp, RecordsAndClearing)
{
    Engine engine(2, 3);
    EXPECT_EQ(changes(lac_LacInit), "") << "once";
    set("3.chain=1 1.chain=3");
    EXPECT_EQ(lacNumLogicalPorts() + lacNumOfPortsInAggregation(&Engine::port(1)), 5U);
    EXPECT_EQ(lacNoToPort(0), lacNoToPort(4));
    EXPECT_EQ(state()["cfg2.key"] | state()["cfg2.prio"] << 8 | state()["sys.prio"] << 32, 0x8000'00800064U);
    lacp_database_clear(&g_lacpd_db);
    EXPECT_EQ(fake::take_writes(),
              (Texts{"-g1", "-g2", "-g3", "-g4", "-p2/channel-group", "-p2/mode", "-p2/priority", "-p2/timeout",
                     "-p3/channel-group", "-p3/mode", "-p3/priority", "-p3/timeout", "-sys/system-priority"}));
}

} // namespace
