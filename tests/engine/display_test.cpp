// What is shown, typed and traced. Recorded texts are in recorded/, every octet visible.
#include "rows.h"

#include "channel_group_show.h"
#include "lac_show.h"
#include "lacp_cli.h"
#include "lacp_cli_debug.h"
#include "lacp_cli_show.h"
#include "lacp_operational.h"

#include "frr/frr.hpp"
#include "shell/shell.h"

#include <algorithm>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>

namespace
{

// The text with "\r", "\t" and "\n" written out; a line feed also ends the line.
std::string visible(const std::string &text)
{
    std::string out;
    for (const char character : text)
        out += character == '\r'   ? "\\r"
               : character == '\t' ? "\\t"
               : character == '\n' ? "\\n\n"
                                   : std::string(1, character);
    return out.ends_with('\n') || out.empty() ? out : out + '\n';
}

// The text of a failure is left beside the test program as NAME.actual.
void expect_recorded(const std::string &text, const std::string &name)
{
    std::ifstream file(std::string(LACPD_RECORDED_DIR) + "/" + name + ".txt", std::ios::binary);
    const std::string recorded(std::istreambuf_iterator<char>(file), {});
    if (text != recorded)
        std::ofstream(name + ".actual", std::ios::binary) << text;
    EXPECT_EQ(text, recorded);
}

// A shell terminal in memory; one for the process.
class Terminal
{
  public:
    Terminal()
    {
        static vty *const only = [] {
            static cmd_node debug_node = frr::node("debug", SHELL_DEBUG_NODE, ENABLE_NODE, "%s# ", nullptr);
            cmd_init(0);
            install_node(&debug_node);
            lacp_vty_init();
            vty *made = vty_new();
            made->type = vty::VTY_FILE;
            made->buf_size_intermediate = UINT64_MAX; // nothing leaves the buffer by itself
            return made;
        }();
        vty_ = only;
        buffer_reset(vty_->obuf);
        shell_session(vty_).slot = 0;
        shell_session(vty_).port = 3;
    }

    std::string shown(const std::function<void(vty *)> &action)
    {
        action(vty_);
        char *text = buffer_getstr(vty_->obuf);
        const std::string copy = text;
        qfree(MTYPE_TMP, text);
        buffer_reset(vty_->obuf);
        return copy;
    }
    std::string typed(int node, const std::string &line, int result = CMD_SUCCESS)
    {
        return shown([&](vty *vty) {
            vty->node = static_cast<node_type>(node);
            EXPECT_EQ(cmd_execute(vty, line.c_str(), nullptr, 0), result) << line;
        });
    }
    std::string typed(const std::string &line) { return typed(CONFIG_NODE, line); }
    int node() const { return vty_->node; }
    ShellSession &session() { return shell_session(vty_); }

  private:
    vty *vty_;
};

// Two ports in one aggregation, one standing by, one alone with a partner that does not speak LACP; every other name
// of the machines; and numbers that are wider than their columns.
void arrange_eight_ports()
{
    std::uint8_t last = 0xC0;
    for (LacPort *record : lac_ports()) {
        record->port_mac[5] = last;
        record->aggregator_mac = Mac{2, 0, 0, 0, 1, last++};
        record->aggregator_id = record->port_no;
    }
    set(expanded(
        "sys.state=1 sys.on=1 sys.prio=1234 sys.mac=OUR "
        "1.group=1 1.lacp=1 1.up=1 1.alone=0 1.rx=1 1.tx=1 1.sel=1 1.mux=6 1.asp=8000 1.asys=OUR 1.key=64 "
        "1.prio=8000 "
        "1.no=1 1.actor=3f 1.psp=1000 1.psys=PEER 1.pkey=7 1.pprio=80 1.pno=15 1.partner=3d 1.aokey=65 1.apsp=1000 "
        "1.mask=3 1.ready_n=1 1.ready=1 1.hold=1 1.cw=10302 1.ww=200 1.txs=10101 1.per=10100 1.n_rx=33 1.n_marker=2 "
        "1.n_response=1 1.n_unknown=3 1.n_tx=2f 1.n_answer=2 1.n_attach=1 1.n_trans=4 1.n_change=5 1.chain=2 "
        " "
        " 2.group=1 2.lacp=1 2.up=1 2.collects=0 2.rx=1 2.tx=2 2.sel=1 2.mux=13 2.asp=8000 2.asys=OUR "
        "2.key=64 "
        "2.prio=c8 2.no=2 2.actor=d 2.psp=1000 2.psys=PEER 2.pkey=7 2.pprio=81 2.pno=16 2.partner=5 2.aokey=64 "
        "2.apsp=1000 "
        "2.ntt=1 2.mask=2 2.ready=1 2.hold=3 2.cw=15a58 2.ww=10201 2.txs=10100 2.per=11e1e 2.n_moved=2 2.n_rx=9 "
        "2.n_tx=8 "
        "2.n_trans=1 2.n_change=2 2.agg=1 2.chain=1 "
        "3.group=1 3.lacp=1 3.up=1 3.collects=0 3.rx=2 3.tx=4 3.sel=2 3.mux=2 3.asp=64 3.asys=OUR 3.key=9 3.no=3 "
        "3.actor=c4 "
        "3.psys=a0b0c0def 3.pkey=c 3.pprio=1 3.pno=1 3.partner=2 3.aokey=9 3.apsp=4d 3.moved=1 3.mask=4 3.ready_n=1 "
        "3.cw=10300 3.ww=10202 4.group=2 4.lacp=1 4.up=1 4.alone=1 4.rx=3 4.tx=1 4.sel=1 4.mux=6 "
        "4.asp=8000 "
        "4.asys=OUR 4.key=64 4.prio=8000 4.no=4 4.actor=7c 4.partner=8 4.aokey=64 4.mask=8 "
        "5.group=3 5.lacp=1 5.collects=0 5.alone=1 5.rx=6 5.mux=1 5.asp=8000 5.asys=OUR 5.key=64 5.prio=8000 5.no=5 "
        "5.actor=45 5.mask=10 6.up=1 6.collects=0 6.alone=1 6.rx=5 6.tx=3 6.mux=4 6.asp=8000 6.asys=OUR 6.key=64 "
        "6.prio=8000 "
        "6.no=6 6.actor=55 6.mask=1ff0000 7.collects=0 7.rx=4 7.mux=5 7.actor=80 7.mask=2a50000 8.group=3 8.lacp=1 "
        "8.up=1 "
        "8.collects=0 8.ntt=1 8.ready=1 8.ready_n=1 8.hold=3039 8.asp=ffff 8.asys=ffffffffffff 8.key=ffff "
        "8.prio=ffff 8.no=ffff "
        "8.actor=ff 8.psp=ffff 8.psys=fedcba987654 8.pkey=d431 8.pprio=a8ca 8.pno=7d6d 8.partner=fe 8.aokey=fa00 "
        "8.apsp=ffff "
        "8.aggid=4d2 8.mask=ffffffff 8.cw=1fa7b 8.ww=1fe7c 8.txs=1ff7d 8.per=1fd7e 8.n_moved=3039 8.n_rx=12d687 "
        "8.n_marker=23cace 8.n_response=34bf15 8.n_unknown=45b352 8.n_tx=56a735 8.n_trans=75bcd15 8.n_change=dfb38d2 "
        "link1=1 link2=1 link3=1 link4=1 link5=0 link6=1 link8=1 "
        "g1.used=1 g2.used=1 g3.used=1 g1.type=5 g2.type=3 g1.list=3 g1.up=1 g2.code=13 g2.list=cc g2.up=cc "
        "g3.code=1"));
}

TEST(Displays, EightPorts)
{
    Engine engine(1, 8);
    arrange_eight_ports();
    Terminal terminal;
    std::string all;
    for (const char *line : {"information", "interface all", "3 port", "detail"})
        all +=
            "==== " + std::string(line) + "\n" + visible(terminal.typed("show channel-group " + std::string(line)));
    expect_recorded(all, "displays");
    EXPECT_EQ(terminal.shown([](vty *vty) { lacShowLinkAggregation(vty, LAC_SHOW_ALL_PORTS); }),
              terminal.typed("show channel-group interface all"));
    for (const char *row :
         {"1 FA        32768        101      100     1      3f  ", "1 SA        128        7        21       3d  ",
          "2 SA        200        100      100     2      d  ", "3 SP        0        9      9     3      c4  ",
          "3 FP        1        12        1       2  "})
        EXPECT_TRUE(
            has(terminal.typed("show channel-group 1 port"), "\ngigabitEthernet0/0" + std::string(row) + "\r\n"));
    EXPECT_TRUE(has(terminal.typed("show channel-group 2 port"),
                    "\ngigabitEthernet0/04 SPI       32768        100      100     4 "));
    const std::string detail = terminal.typed("show channel-group 2 detail");
    EXPECT_TRUE(has(terminal.typed("show channel-group detail"), detail));
    EXPECT_EQ(terminal.typed("show channel-group 4 detail"),
              std::string(71, '-') + "\nChannel-group ID:\t\t\t4\nChannel-group Used:\t\t\tNot Used\n" +
                  std::string(71, '-') + "\n");
    // Names stay inside their tables.
    set("rx=7 tx=5 sel=3 mux=f lacp=2");
    EXPECT_TRUE(has(terminal.typed("show channel-group information"),
                    "\n01   UNINIT     NO_PERIODIC   UNSELECTED None       NO   01 1\n"));
    set("2.lacp=0 2.up=0 3.lacp=0 4.up=0 5.lacp=0 6.up=0 7.lacp=0 8.lacp=0 8.up=0");
    const std::string rule = std::string(71, '-') + "\n";
    const auto port_text = [&](const char *port, const char *group, const char *alone, const char *aggregator) {
        return rule + "Port Number = " + port + "\r\n\tChannel ID = " + group +
               "\r\n\tIndividual Aggregator = " + alone + "\r\n\tAggregator Port = " + aggregator +
               "\n\tMaster State = 0\r\n";
    };
    EXPECT_EQ(terminal.typed("show channel-group ports"),
              port_text("1", "1", "0", "1") + port_text("3", "1", "0", "3") + port_text("4", "2", "1", "4") + rule);
    intf = {1, 4}; // members are listed inside the inventory's range, uplink ports whatever it is
    EXPECT_FALSE(has(terminal.typed("show channel-group 2 detail"), "gigabitEthernet 0/7"));
    EXPECT_TRUE(has(terminal.typed("show channel-group 2 detail"), "gigabitethernet 0/7"));
}

TEST(Displays, Refusals)
{
    Engine engine;
    Terminal terminal;
    for (const char *line : {"show channel-group interface all", "show channel-group information"})
        EXPECT_EQ(terminal.typed(line), "please lacp enable first!\r\n");
    EXPECT_EQ(terminal.typed("show channel-group 1 port"), "\r\nLACP disabled\r\n");
    EXPECT_EQ(terminal.shown([](vty *vty) { lacShowLinkAggregation(vty, 1); }), "\r\nLACP disabled\r\n");
    set("sys.state=1");
    for (const int group : {-1, 5, 1000})
        EXPECT_EQ(terminal.shown([=](vty *vty) { lacShowNeighbor(vty, group); }),
                  "Invalid group id, correct group id is 1 to 4.\r\n");
    EXPECT_EQ(terminal.typed(CONFIG_NODE, "show channel-group 5 port", CMD_ERR_NO_MATCH), "");
    char number[] = "5";
    cmd_token token{};
    token.arg = number;
    cmd_token *argv[] = {&token, &token, &token, &token};
    EXPECT_EQ(printed([&] {
                  terminal.shown([&](vty *vty) {
                      EXPECT_EQ(cli_lacp_show_neighbor_cmd.func(&cli_lacp_show_neighbor_cmd, vty, 4, argv), 2);
                  });
              }),
              "\r\nInvalid channel group number.\r");
    LacSystem *const system = std::exchange(lacSystem, nullptr);
    const std::string none = "\r\nLACP not initialization.\r\n";
    EXPECT_EQ(terminal.shown([](vty *vty) { EXPECT_EQ(lacShowLinkAggregation(vty, 1), -1); }), none);
    EXPECT_EQ(terminal.shown([](vty *vty) { lacShowNeighbor(vty, 1); }), none);
    lacSystem = system;
}

// ---- commands -------------------------------------------------------------------------------------------------

TEST(Commands, SyntaxAndHelp)
{
    Terminal terminal;
    std::string all;
    for (const int node : {int(VIEW_NODE), int(CONFIG_NODE), UPLINK_PORT_NODE, SHELL_DEBUG_NODE}) {
        const auto *found = static_cast<const cmd_node *>(vector_lookup(cmdvec, static_cast<unsigned>(node)));
        for (unsigned i = 0; i < vector_active(found->cmd_vector); ++i) {
            const auto *command = static_cast<const cmd_element *>(vector_lookup(found->cmd_vector, i));
            if (const std::string name = command->name; name.ends_with("_cmd") && name[0] != 's')
                all += found->name + (" " + name) + " [" + command->string + "] " + std::to_string(command->attr) +
                       " " + std::regex_replace(command->doc, std::regex("\n"), "|") + "\n";
        }
    }
    expect_recorded(all, "commands");
}

struct Line {
    int node;
    const char *line, *writes, *shows = "";
};

// Keywords may be shortened.
TEST(Commands, Configuration)
{
    Engine engine;
    Terminal terminal;
    for (const bool fails : {false, true}) {
        set(fails ? "!write=1" : "!write=0");
        for (const Line &row : {
                 Line{CONFIG_NODE, "lacp system-priority 5", "sys/system-priority=5",
                      "LACP Msg: set system-priority to 5 failed!\n"},
                 {CONFIG_NODE, "lacp system-priority def", "sys/system-priority=32768",
                  "LACP Msg: set system-priority to 32768 failed!\n"},
                 {CONFIG_NODE, "channel-group 2 load-balance dst-mac", "g2/load-balance=dst-mac",
                  "LACP Msg: interface 0/3 set channel-group 2 load-balance to dst-mac failed!\n"},
                 {UPLINK_PORT_NODE, "channel-group 2 mode act", "0/p3/mode=active g2",
                  "LACP Msg: set channel-group 2 to active mode failed! This group is already in other mode.\n"},
                 {UPLINK_PORT_NODE, "no channel-group 2", "-0/p3/g2",
                  "LACP Msg: interface 0/3 delete from channel-group 2 failed!\n"},
                 {UPLINK_PORT_NODE, "lacp timeout sh", "p3/timeout=short",
                  "LACP Msg: interface 0/3 set timeout to short failed!\n"},
                 {UPLINK_PORT_NODE, "lacp port-priority 65535", "p3/priority=65535",
                  "LACP Msg: interface 0/3 set port-priority to 65535 failed!\n"},
                 {UPLINK_PORT_NODE, "lacp port-priority d", "p3/priority=32768",
                  "LACP Msg: interface 0/3 set port-priority to 32768 failed!\n"},
             }) {
            EXPECT_EQ(terminal.typed(row.node, row.line), fails ? row.shows : "") << row.line;
            EXPECT_EQ(fake::take_writes(), Texts{row.writes}) << row.line;
        }
    }
    terminal.typed("channel-group al load-balance src-ip");
    EXPECT_EQ(fake::take_writes(), (Texts{"g1/load-balance=src-ip", "g2/load-balance=src-ip",
                                          "g3/load-balance=src-ip", "g4/load-balance=src-ip"}));
    for (const char *line : {"interface gigabitEthernet 0/2", "interface gigabitethernet 0/2"}) {
        terminal.session().port = 3;
        terminal.typed(line);
        EXPECT_EQ(terminal.node(), UPLINK_PORT_NODE);
        EXPECT_EQ(terminal.session().port, 2);
    }
    terminal.typed(UPLINK_PORT_NODE, "exit");
    EXPECT_EQ(terminal.node(), CONFIG_NODE);
    // What is written into the configuration.
    set("@g1/load-balance=dst-ip @g1/lacp-type=manual @g2/lacp-type=dynamic @sys/system-priority=5 "
        "@p1/channel-group=1 "
        "@g0/lacp-type=manual @p2/channel-group=2 @p2/mode=passive @p2/timeout=short @p2/priority=9 "
        "@p3/channel-group=0 @p3/mode=active "
        "@p4/channel-group=2 @p4/priority=9");
    const auto written = [&](int node) {
        const auto *found = static_cast<const cmd_node *>(vector_lookup(cmdvec, static_cast<unsigned>(node)));
        return terminal.shown(found->config_write);
    };
    EXPECT_EQ(written(LACP_NODE), "channel-group 1 load-balance dst-ip\nlacp system-priority 5\n");
    EXPECT_EQ(
        written(UPLINK_PORT_NODE),
        "interface gigabitEthernet 0/1\n channel-group 1 mode on\n"
        "interface gigabitEthernet 0/2\n channel-group 2 mode passive\n lacp timeout short\n lacp port-priority 9\n");
    set("@sys/system-priority=32768 @-p2/timeout @p2/priority=32768 @-g1/load-balance @g1/lacp-type=other "
        "@p1/priority=7");
    EXPECT_EQ(written(LACP_NODE), "");
    EXPECT_EQ(written(UPLINK_PORT_NODE), "interface gigabitEthernet 0/1\n lacp port-priority 7\n"
                                         "interface gigabitEthernet 0/2\n channel-group 2 mode passive\n");
    intf = {0, 0};
    EXPECT_EQ(written(UPLINK_PORT_NODE), "");
}

TEST(Commands, Traces)
{
    Engine engine;
    Terminal terminal;
    const std::tuple<const char *, std::uint32_t, std::uint32_t> words[] = {
        {"off", ~0U, 0}, {"rx", 7, 0x17},      {"tx", 0x80000010, 0x80008010}, {"task", 0x17, 0x40017},
        {"pdu", 0, 7},   {"other", 0, 0x2400}, {"all", 0x40007, 0x3FFF8},      {"other", 0x2400, 0x2400}};
    for (const auto &[keyword, before, after] : words) {
        lacDebug = before;
        char confirmation[64];
        snprintf(confirmation, sizeof(confirmation), "\r\nMsg lacDbgCfg lacDebug %08x\n\r", after);
        EXPECT_EQ(printed([&, word = keyword] {
                      EXPECT_EQ(terminal.typed(SHELL_DEBUG_NODE, std::string("debug lacp ") + word), "");
                  }),
                  confirmation);
        EXPECT_EQ(lacDbgGet(), after) << keyword;
    }
    char keyword[] = "nothing";
    cmd_token token{};
    token.text = keyword;
    cmd_token *argv[] = {&token, &token, &token};
    EXPECT_EQ(
        terminal.shown([&](vty *vty) { cli_lacp_sys_debug_set_cmd.func(&cli_lacp_sys_debug_set_cmd, vty, 3, argv); }),
        "\r\n Msg:wrong lacp debug type\r\n");
    EXPECT_EQ(lacDbgGet(), 0x2400U);
    const std::tuple<const char *, const char *, const char *> packets[] = {
        {"no debug lacp packet all", "disable", "disable"}, {"debug lacp packet tx", "disable", "enable"},
        {"debug lacp packet rx", "enable", "enable"},       {"no debug lacp packet tx", "enable", "disable"},
        {"no debug lacp packet rx", "disable", "disable"},  {"debug lacp packet all", "enable", "enable"}};
    for (const auto &[line, rx, tx] : packets) {
        EXPECT_EQ(terminal.typed(SHELL_DEBUG_NODE, line),
                  std::string("LACP packet debug rx ") + rx + " tx " + tx + "\n");
        EXPECT_EQ(lacp_get_pkt_debug(0) << 1 | lacp_get_pkt_debug(5),
                  (rx[0] == 'e' ? 2U : 0U) | (tx[0] == 'e' ? 1U : 0U));
    }
    lacp_set_pkt_debug(2, 0);
    EXPECT_EQ(lacp_get_pkt_debug(0) & lacp_get_pkt_debug(1), 1U);
}

TEST(Commands, Database)
{
    Engine engine;
    Terminal terminal;
    fake::datastore().missing = 255;
    set("@g1/load-balance=src-dst-mac @g4/load-balance=src-ip @g1/lacp-type=dynamic @g2/lacp-type=manual "
        "@g1/join-port/1 "
        "@g1/join-port/2 @g1/member-port/2 @g2/member-port/3 @g2/member-port/4 @sys/system-priority=65535 @xml");
    std::string all = "==== groups\n" + visible(terminal.typed("show lacp database"));
    set("@p3/channel-group=2 @p3/priority=100 @p3/timeout=short @p3/mode=passive @p3/actor/id=3 "
        "@p3/actor/synchronization=1 "
        "@p3/actor/col-dis=0 @p3/actor/mode=passive @p3/actor/oper-key=65535 @p3/actor/port-state=61 "
        "@p3/actor/priority=100 @p3/actor/timeout=short @p3/actor/system-id=0211.22aa.bbcc");
    for (const char *line :
         {"show lacp database", "show lacp database actor information", "show lacp database partner information"})
        all += "==== " + std::string(line) + "\n" + visible(terminal.typed(UPLINK_PORT_NODE, line));
    expect_recorded(all, "database");
    terminal.session().port = 1;
    EXPECT_EQ(terminal.typed(UPLINK_PORT_NODE, "show lacp database"), "");
}

// ---- traces and dumps -----------------------------------------------------------------------------------------

// The lines that each bit of the trace word turns on, at their first occurrence. The bits add up, and no line belongs
// to two of them.
TEST(Traces, EachBitHasItsOwn)
{
    const std::pair<const char *, const char *> cases[] = {
        {"SERVING", "on"},
        {"PAIR", "off"},
        {"SERVING link1=0", "tick"},
        {"DOWN", "msg 5/1=0"},
        {"DOWN rx=2 up=1", "msg 6/1=0"},
        {"SERVING sys.on=0", "msg 1/0=0"},
        {"DETACHED", "msg 2/0=0"},
        {"SERVING", "msg 4244438268/0=0"},
        {"DETACHED lacp=0 rx=5", "port-on"},
        {"SERVING", "port-off"},
        {"DOWN lacp=0", "msg 7/1=0"},
        {"SERVING", "hears key=9"},
        {"SERVING", "hears state=35 v.key=9"},
        {"SERVING", "hears state=35"},
        {"SERVING partner=39", "hears state=31 v.key=9"},
        {"EXPIRED agg=2 link2=0", "hears"},
        {"SERVING 2.pno=1 2.psys=PEER", "hears"},
        {"SERVING", "rx 99"},
        {"EXPIRED", "tick"},
        {"SERVING cw=15a00", "tick"},
        {"WAITING ww=10200 partner=35", "tick"},
        {"SERVING per=11e00", "tick"},
        {"SERVING tx=0 per=0 partner=3f", "tick"},
        {"SERVING tx=1 per=10100", "tick"},
        {"SERVING tx=1 per=10100 partner=3f", "tick"},
        {"SERVING txs=10100 actor=3c partner=3c", "tick"},
        {"SERVING txs=10100 ntt=1", "tick"},
        {"SERVING ntt=1 sys.state=0", "tx 11"},
        {"SERVING ntt=1 tx=0", "tx 11"},
        {"TWO 2.prio=1 2.pkey=9", "select"},
        {"TWO prio=1", "select"},
        {"TWO actor=45", "select"},
        {"TWO 2.actor=45", "select"},
        {"TWO 2.no=0", "select"},
        {"DEFAULTED", "select"},
        {"ATTACHED", "mux"},
        {"SERVING partner=35", "mux"},
        {"SERVING in=2", "attach"},
        {"SERVING", "detach"},
        {"SERVING", "msg 1/0=0"},
        {"SERVING", "frame 01"},
        {"SERVING", "frame 02 01 01"},
        {"SERVING cw=100000 ww=100000 per=100000 txs=100000 muxs=100000", "timers"}};
    std::map<int, std::string> texts;
    std::map<int, std::size_t> counts; // of all lines, repeated ones too
    std::map<std::string, std::set<int>> owners;
    for (const auto &[given, event] : cases) {
        const auto text_of = [&, given = given, event = event](std::uint32_t word) {
            Engine engine;
            Machines machines(given);
            lacDebug = word;
            return printed([&] { machines.act(event); });
        };
        const std::string always = text_of(0);
        std::size_t length = always.size();
        for (int bit = 0; bit < 32; ++bit) {
            const std::string text = text_of(1U << bit);
            length += text.size() - always.size();
            counts[bit] +=
                static_cast<std::size_t>(std::ranges::count(text, '\n') - std::ranges::count(always, '\n'));
            std::istringstream lines(visible(text));
            for (std::string line; std::getline(lines, line);) {
                std::string form = line; // what differs in numbers only is the same line
                for (char &character : form)
                    character = isdigit(static_cast<unsigned char>(character)) != 0 ? '#' : character;
                if (form.find_first_not_of("\\rn") != std::string::npos && !has(form, "LACP Msg") &&
                    owners[form].insert(bit).second)
                    texts[bit] += line + "\n";
            }
        }
        EXPECT_EQ(text_of(~0U).size(), length) << given << ": " << event;
    }
    std::string all;
    for (const auto &[bit, text] : texts)
        all += "==== " + std::to_string(bit) + ", lines: " + std::to_string(counts[bit]) + "\n" + text;
    for (const auto &[form, bits] : owners)
        EXPECT_EQ(bits.size(), 1U) << form;
    expect_recorded(all, "traces");
}

TEST(Traces, FramesAreDumped)
{
    const std::string line = "\n=================================================\r\n"; // 49 signs
    const auto dump = [&](const std::string &what, const std::string &length, const std::string &text) {
        return line + "description: " + what + "\npacket len:  " + length + "\n\n" + text + line;
    };
    const auto dumped = [](const Bytes &bytes, int length) {
        return printed([&] { lacp_pkt_dump(bytes.data(), length, "send"); });
    };
    EXPECT_EQ(dumped(hex("000102030405060708090a0b0c0d0e0f1011"), 18),
              dump("send", "18", "0001 0203 0405 0607 0809 0a0b 0c0d 0e0f \n1011 "));
    EXPECT_EQ(dumped(hex("abcdef"), 3), dump("send", "3", "abcd ef"));
    EXPECT_EQ(dumped({0}, -1), dump("send", "-1", ""));
    std::string longest;
    for (int i = 0; i < 136; ++i)
        longest += "a5a5 a5a5 a5a5 a5a5 a5a5 a5a5 a5a5 a5a5 \n";
    EXPECT_EQ(dumped(Bytes(2176, 0xA5), 2176), dump("send", "2176", longest));

    Engine engine;
    Bytes frame = hex("0180c2000002 021122aabbcc 8809 0102");
    const auto exchange = [&] {
        return printed([&] {
            Engine::hear(tagged_frame(3, hex("0a0b")));
            lacp_bpdu_transmit(0, 0, 3, frame.data(), frame.size());
        });
    };
    EXPECT_EQ(exchange(), "") << "by default";
    lacp_set_pkt_debug(LACP_PKT_RX, 1);
    EXPECT_EQ(exchange(),
              dump("recv(lacp raw data)", "32",
                   "0180 c200 0002 0233 4455 6677 9082 0000 \n0000 0003 0000 0000 8100 0001 8809 0a0b \n") +
                  dump("recv(lacp no ktag and port)", "20", "0180 c200 0002 0233 4455 6677 8100 0001 \n8809 0a0b "));
    lacp_set_pkt_debug(LACP_PKT_RX, 0);
    lacp_set_pkt_debug(LACP_PKT_TX, 1);
    EXPECT_EQ(exchange(),
              dump("send", "28", "0180 c200 0002 0211 22aa bbcc 9089 0000 \n0000 0300 0000 0000 8809 0102 "));
}

// ---- operational leaves ---------------------------------------------------------------------------------------

TEST(Operational, Leaves)
{
    Engine engine(1, 8);
    arrange_eight_ports();
    const std::tuple<const char *, const char *, const char *, const char *> rows[] = {
        {"system-priority", "32768", "4096", "65535"},
        {"system-id", "0211.22aa.bbcc", "0233.4455.6677", "fedc.ba98.7654"},
        {"oper-key", "100", "7", "54321"},
        {"priority", "32768", "128", "43210"},
        {"id", "1", "21", "32109"},
        {"port-state", "63", "61", "254"},
        {"mode", "active", "active", "passive"},
        {"timeout", "short", "long", "short"},
        {"synchronization", "true", "true", "true"},
        {"col-dis", "true", "true", "false"}};
    for (const auto &[leaf, actor, partner, other] : rows) {
        EXPECT_EQ(lacp_information_text(&Engine::port(1), "actor", leaf), actor) << leaf;
        EXPECT_EQ(lacp_information_text(&Engine::port(1), "neighbou", leaf), partner) << leaf;
        EXPECT_EQ(lacp_information_text(&Engine::port(8), "partner", leaf), other) << leaf;
    }
    for (const char *leaf : {"", "key", "role", "SYSTEM-ID", "timeout ", "port"})
        EXPECT_EQ(lacp_information_text(&Engine::port(1), "actor", leaf), std::nullopt) << leaf;
    EXPECT_EQ(lacp_information_text(&Engine::port(3), "actor", "synchronization"), "false");
    EXPECT_EQ(get_lacp_port_t(7, 3), lacNoToPort(3)) << "the slot is not looked at";

    const auto asked = [](const std::string &port, const std::string &rest) {
        const std::string path =
            "/olt-ifm:up-link-ports/interface[name='gigabitethernet 0/" + port + "']/olt-lacp:trunk-info/port" + rest;
        lyd_node *tree = nullptr;
        const std::string says = printed(
            [&] { EXPECT_EQ(lacp_information_get_cb(nullptr, 1, "", "", path.c_str(), 1, &tree, nullptr), 0); });
        EXPECT_EQ(tree, nullptr);
        return says;
    };
    EXPECT_EQ(asked("1", "[role='actor']/key"), "LACP Msg: leaf \"key\" doesn't exist!\n");
    EXPECT_EQ(asked("1", ""), "LACP Msg: leaf \"\" doesn't exist!\n");
    EXPECT_EQ(asked("1", "[role='partners']/id"), "LACP Msg: leaf \"\" doesn't exist!\n");
    EXPECT_EQ(asked("1", "[role='partner']/" + std::string(70, 'l')),
              "LACP Msg: leaf \"" + std::string(63, 'l') + "\" doesn't exist!\n");
    EXPECT_EQ(asked("9", "[role='actor']/id") + asked("x", "[role='actor']/id"), "");
    EXPECT_EQ(lacp_information_get_cb(nullptr, 1, "", "", nullptr, 1, nullptr, nullptr), 0);
    fake::datastore().debug_mask = KEL_DB_DEBUG_DAEMON;
    EXPECT_TRUE(has(asked("12", "[role='partner']/key"), "slot id=> 0, port id=> 12, role=> partner, leaf=> key\n"));
}

} // namespace
