// What is shown, typed and traced. Recorded texts are in recorded/, every octet visible.
#include "engine.h"
#include "terminal.h"

#include "channel_group_show.h"
#include "lac_show.h"
#include "lacp_cli_debug.h"
#include "lacp_cli_show.h"

#include <algorithm>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>

namespace
{

// The text of a failure is left beside the test program as NAME.actual.
void expect_recorded(const std::string &text, const std::string &name)
{
    std::ifstream file(std::string(LACPD_RECORDED_DIR) + "/" + name + ".txt", std::ios::binary);
    const std::string recorded(std::istreambuf_iterator<char>(file), {});
    if (text != recorded)
        std::ofstream(name + ".actual", std::ios::binary) << text;
    EXPECT_EQ(text, recorded);
}

// With "\r", "\t" and "\n" written out; a line feed also ends the line.
std::string visible(std::string text)
{
    static const std::pair<std::regex, const char *> SIGNS[] = {
        {std::regex("\r"), "\\r"}, {std::regex("\t"), "\\t"}, {std::regex("\n"), "\\n\n"}};
    for (const auto &[sign, out] : SIGNS)
        text = std::regex_replace(text, sign, out);
    return text.ends_with('\n') || text.empty() ? text : text + '\n';
}

std::string page(Terminal &terminal, int node, const std::string &line)
{
    return "==== " + line + "\n" + visible(terminal.typed(node, line));
}

// Each word of each port has a value of its own, wider than its column with the later ports.
void arrange_eight_ports()
{
    std::ostringstream words;
    for (unsigned port = 1; port <= 8; ++port) {
        const auto word = [&](const char *name, std::uint64_t value) {
            words << ' ' << std::dec << port << '.' << name << '=' << std::hex << value;
        };
        std::uint64_t value = 0;
        for (const char *name :
             {"asp",     "key",      "prio",       "no",        "psp",       "pkey",     "pprio",   "pno",
              "aokey",   "apsp",     "apkey",      "aggid",     "hold",      "n_moved",  "n_rx",    "n_tx",
              "n_trans", "n_marker", "n_response", "n_unknown", "n_illegal", "n_answer", "n_change"})
            word(name, ++value * (port == 1 ? 1 : 273 * port));
        for (const char *name : {"asys", "psys", "apsys", "amac"})
            word(name, value++ * 0x10F0E0D0C0 * port);
        for (const char *name : {"cw", "per", "ww", "txs"})
            word(name, (port & 1) << 16 | (++value * 31 * port) % 256 << 8 | port * 29);
        unsigned bit = 0;
        for (const char *name : {"up", "alone", "ready", "lacp", "collects", "ntt", "moved", "ready_n"})
            word(name, (port * 0x5Du >> bit++) & 1);
        for (const auto &[name, from] : {std::pair("rx", "01234567"),
                                         {"tx", "01234512"},
                                         {"sel", "01230012"},
                                         {"mux", "01234567"},
                                         {"group", "11223332"},
                                         {"agg", "11334578"}})
            word(name, static_cast<std::uint64_t>(from[port - 1] - '0'));
        word("actor", port * 0x2B % 256);
        word("partner", port * 0x35 % 256);
        word("mask", port * 0x1F0A5u);
        lacNoToPort(port)->port_mac[5] = static_cast<std::uint8_t>(0xC0 + port);
    }
    set(words.str());
    set("2.up=1 1.chain=2 2.chain=1 8.rx=9 8.mux=13 sys.state=1 sys.on=1 sys.prio=1234 sys.mac=21122aabbcc link1=1 "
        "link2=1 link3=0 link4=1 "
        "link8=1 "
        "g1.used=1 g2.used=1 g1.type=5 g2.type=3 g1.list=3 g1.up=1 g2.code=13 g2.list=cc g2.up=cc "
        "g3.code=1");
}

TEST(Displays, EightPorts)
{
    Engine engine(1, 8);
    arrange_eight_ports();
    Terminal terminal;
    std::string all;
    for (const char *line : {"information", "interface all", "1 port", "detail", "ports"}) {
        all += page(terminal, CONFIG_NODE, std::string("show channel-group ") + line);
        if (line[1] == ' ') {
            intf = {1, 4}; // members are listed inside the inventory's range, uplink ports whatever it is
            set("2.lacp=0 3.up=0 4.lacp=0 4.up=0 5.lacp=0 5.up=0 6.lacp=0 6.up=0 7.lacp=0 7.up=0 8.lacp=0 8.up=0");
        }
    }
    expect_recorded(all, "displays");
    const std::string rule = std::string(71, '-') + "\n";
    EXPECT_EQ(terminal.typed("show channel-group 4 detail"),
              rule + "Channel-group ID:\t\t\t4\nChannel-group Used:\t\t\tNot Used\n" + rule);
    EXPECT_EQ(terminal.shown([](vty *vty) { lacShowLinkAggregation(vty, LAC_SHOW_ALL_PORTS); }),
              terminal.typed("show channel-group interface all"));
}

TEST(Displays, Refusals)
{
    Engine engine;
    Terminal terminal;
    const auto aggregation = [&] { return terminal.shown([](vty *vty) { lacShowLinkAggregation(vty, 1); }); };
    const auto neighbor = [&](int group) { return terminal.shown([&](vty *vty) { lacShowNeighbor(vty, group); }); };
    for (const char *line : {"show channel-group interface all", "show channel-group information"})
        EXPECT_EQ(terminal.typed(line), "please lacp enable first!\r\n");
    EXPECT_EQ(terminal.typed("show channel-group 1 port"), "\r\nLACP disabled\r\n");
    EXPECT_EQ(aggregation(), "\r\nLACP disabled\r\n");
    set("sys.state=1");
    for (const int group : {-1, 5})
        EXPECT_EQ(neighbor(group), "Invalid group id, correct group id is 1 to 4.\r\n");
    LacSystem *const system = std::exchange(lacSystem, nullptr);
    EXPECT_EQ(aggregation(), "\r\nLACP not initialization.\r\n");
    EXPECT_EQ(neighbor(1), "\r\nLACP not initialization.\r\n");
    lacSystem = system;
    char text[] = "5"; // what the shell's own syntax does not let through
    cmd_token token{};
    token.arg = token.text = text;
    cmd_token *argv[] = {&token, &token, &token, &token};
    EXPECT_EQ(printed([&] { cli_lacp_show_neighbor_cmd.func(&cli_lacp_show_neighbor_cmd, nullptr, 4, argv); }),
              "\r\nInvalid channel group number.\r");
    EXPECT_EQ(
        terminal.shown([&](vty *vty) { cli_lacp_sys_debug_set_cmd.func(&cli_lacp_sys_debug_set_cmd, vty, 3, argv); }),
        "\r\n Msg:wrong lacp debug type\r\n");
}

// ---- commands -------------------------------------------------------------------------------------------------

TEST(Commands, SyntaxAndHelp)
{
    const Terminal terminal;
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

// Keywords may be shortened.
TEST(Commands, Configuration)
{
    struct Line {
        int node;
        const char *line, *writes, *fails;
    };
    Engine engine;
    Terminal terminal;
    for (const bool fails : {false, true}) {
        set(fails ? "!write=1" : "!write=0");
        for (const Line &row :
             {Line{CONFIG_NODE, "lacp system-priority 5", "sys/system-priority=5", "set system-priority to 5"},
              {CONFIG_NODE, "lacp system-priority def", "sys/system-priority=32768", "set system-priority to 32768"},
              {CONFIG_NODE, "channel-group 2 load-balance dst-mac", "g2/load-balance=dst-mac",
               "interface 0/3 set channel-group 2 load-balance to dst-mac"},
              {UPLINK_PORT_NODE, "no channel-group 2", "-0/p3/g2", "interface 0/3 delete from channel-group 2"},
              {UPLINK_PORT_NODE, "lacp timeout sh", "p3/timeout=short", "interface 0/3 set timeout to short"},
              {UPLINK_PORT_NODE, "lacp port-priority 65535", "p3/priority=65535",
               "interface 0/3 set port-priority to 65535"},
              {UPLINK_PORT_NODE, "lacp port-priority d", "p3/priority=32768",
               "interface 0/3 set port-priority to 32768"},
              {UPLINK_PORT_NODE, "channel-group 2 mode act", "0/p3/mode=active g2",
               "set channel-group 2 to active mode"}}) {
            const std::string end =
                has(row.line, "mode") ? " failed! This group is already in other mode.\n" : " failed!\n";
            EXPECT_EQ(terminal.typed(row.node, row.line), fails ? "LACP Msg: " + (row.fails + end) : "");
            EXPECT_EQ(fake::take_writes(), Texts{row.writes}) << row.line;
        }
    }
    terminal.typed("channel-group al load-balance src-ip");
    EXPECT_EQ(fake::take_writes(), (Texts{"g1/load-balance=src-ip", "g2/load-balance=src-ip",
                                          "g3/load-balance=src-ip", "g4/load-balance=src-ip"}));
    for (const char *line : {"interface gigabitEthernet 0/2", "interface gigabitethernet 0/1"}) {
        terminal.typed(line);
        EXPECT_EQ(terminal.node() * 10 + terminal.session().port, UPLINK_PORT_NODE * 10 + line[28] - '0');
    }
    terminal.typed(UPLINK_PORT_NODE, "exit");
    EXPECT_EQ(terminal.node(), CONFIG_NODE);
    // What is written into the configuration.
    const auto written = [&](int node) {
        const auto *found = static_cast<const cmd_node *>(vector_lookup(cmdvec, static_cast<unsigned>(node)));
        return terminal.shown(found->config_write);
    };
    set("@g1/load-balance=dst-ip @g1/lacp-type=manual @g2/lacp-type=dynamic @sys/system-priority=5 "
        "@p1/channel-group=1 @g0/lacp-type=manual @p2/channel-group=2 @p2/mode=passive @p2/timeout=short "
        "@p2/priority=9 @p3/channel-group=0 @p3/mode=active @p4/channel-group=2 @p4/priority=9");
    EXPECT_EQ(written(LACP_NODE), "channel-group 1 load-balance dst-ip\nlacp system-priority 5\n");
    EXPECT_EQ(written(UPLINK_PORT_NODE),
              "interface gigabitEthernet 0/1\n channel-group 1 mode on\n"
              "interface gigabitEthernet 0/2\n channel-group 2 mode passive\n lacp timeout "
              "short\n lacp port-priority 9\n");
    set("@sys/system-priority=32768 @-p2/timeout @p2/priority=32768 @-g1/load-balance @g1/lacp-type=other "
        "@p1/priority=7");
    EXPECT_EQ(written(LACP_NODE), "");
    EXPECT_EQ(written(UPLINK_PORT_NODE), "interface gigabitEthernet 0/1\n lacp port-priority 7\n"
                                         "interface gigabitEthernet 0/2\n channel-group 2 mode passive\n");
    intf = {0, 0};
    EXPECT_EQ(written(UPLINK_PORT_NODE), "");
}

TEST(Commands, Debugging)
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
        EXPECT_EQ(
            printed([&, word = keyword] { terminal.typed(SHELL_DEBUG_NODE, std::string("debug lacp ") + word); }),
            confirmation);
        EXPECT_EQ(lacDbgGet(), after) << keyword;
    }
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
}

TEST(Commands, Database)
{
    Engine engine;
    Terminal terminal;
    fake::datastore().missing = 255;
    set("@g1/load-balance=src-dst-mac @g1/lacp-type=dynamic @g2/lacp-type=manual @g1/join-port/1 @g1/join-port/2 "
        "@g1/member-port/2 @g2/member-port/3 @sys/system-priority=65535 @xml=1");
    std::string all = page(terminal, CONFIG_NODE, "show lacp database");
    set("@p3/channel-group=2 @p3/priority=100 @p3/timeout=short @p3/mode=passive @p3/actor/id=3 "
        "@p3/actor/synchronization=1 @p3/actor/col-dis=0 @p3/actor/mode=passive @p3/actor/oper-key=65535 "
        "@p3/actor/port-state=61 @p3/actor/priority=100 @p3/actor/timeout=short "
        "@p3/actor/system-id=0211.22aa.bbcc");
    for (const char *rest : {"", " actor information", " partner information"})
        all += page(terminal, UPLINK_PORT_NODE, std::string("show lacp database") + rest);
    expect_recorded(all, "database");
    terminal.session().port = 1;
    EXPECT_EQ(terminal.typed(UPLINK_PORT_NODE, "show lacp database"), "");
}

// ---- traces and dumps -----------------------------------------------------------------------------------------

// The lines that each bit of the trace word turns on in the rows of the machines, at their first occurrence, digits
// left out. The bits add up, and no line belongs to two of them. Rows that say nothing new are passed over.
TEST(Traces, EachBitHasItsOwn)
{
    const std::regex NUMBER("[0-9a-f]*[0-9]+[0-9a-f]*");
    std::map<std::string, std::set<int>> owners;
    std::map<int, std::string> texts;
    const auto forms = [&](const std::string &text) {
        std::istringstream lines(std::regex_replace(visible(text), NUMBER, "#"));
        Texts found;
        for (std::string line; std::getline(lines, line);)
            if (line.find_first_not_of("\\rn") != std::string::npos && !has(line, "LACP Msg"))
                found.push_back(line);
        return found;
    };
    for_runs(MACHINES, [&](const Row &, const Case &run) {
        std::string always, all, text;
        run(~0U, &all);
        if (std::ranges::all_of(forms(all), [&](const std::string &line) { return owners.contains(line); }))
            return;
        run(0, &always);
        std::size_t length = always.size();
        for (int bit = 0; bit < 32; ++bit, length += text.size() - always.size()) {
            run(1U << bit, &text);
            for (const std::string &line : forms(text.size() == always.size() ? "" : text))
                if (owners[line].insert(bit).second)
                    texts[bit] += line + "\n";
        }
        EXPECT_EQ(all.size(), length) << run.given << ": " << run.event;
    });
    std::string all;
    for (const auto &[bit, text] : texts)
        all += "==== " + std::to_string(bit) + "\n" + text;
    for (const auto &[line, bits] : owners)
        EXPECT_EQ(bits.size(), 1U) << line;
    expect_recorded(all, "traces");
}

TEST(Traces, FramesAreDumped)
{
    const std::string line = "\n=================================================\r\n"; // 49 signs
    const auto dump = [&](const std::string &what, const std::string &length, const std::string &text) {
        return line + "description: " + what + "\npacket len:  " + length + "\n\n" + text + line;
    };
    EXPECT_EQ(printed([] { lacp_pkt_dump(hex("abcdef").data(), 3, "send"); }), dump("send", "3", "abcd ef"));
    EXPECT_EQ(printed([] { lacp_pkt_dump(nullptr, -1, "send"); }), dump("send", "-1", ""));
    std::string longest;
    for (int i = 0; i < 136; ++i)
        longest += "a5a5 a5a5 a5a5 a5a5 a5a5 a5a5 a5a5 a5a5 \n";
    EXPECT_EQ(printed([] { lacp_pkt_dump(Bytes(2176, 0xA5).data(), 2176, "send"); }), dump("send", "2176", longest));

    Engine engine;
    const auto exchange = [&](std::uint32_t rx, std::uint32_t tx) {
        lacp_set_pkt_debug(LACP_PKT_RX, rx);
        lacp_set_pkt_debug(LACP_PKT_TX, tx);
        const Bytes frame = hex("0180c2000002 021122aabbcc 8809 0102");
        return printed([&] {
            Engine::hear(tagged_frame(3, hex("0a0b")));
            lacp_bpdu_transmit(0, 0, 3, frame.data(), frame.size());
        });
    };
    EXPECT_EQ(exchange(0, 0), "");
    EXPECT_EQ(exchange(1, 0),
              dump("recv(lacp raw data)", "32",
                   "0180 c200 0002 0233 4455 6677 9082 0000 \n0000 0003 0000 0000 8100 0001 8809 0a0b \n") +
                  dump("recv(lacp no ktag and port)", "20", "0180 c200 0002 0233 4455 6677 8100 0001 \n8809 0a0b "));
    EXPECT_EQ(exchange(0, 1),
              dump("send", "28", "0180 c200 0002 0211 22aa bbcc 9089 0000 \n0000 0300 0000 0000 8809 0102 "));
}

} // namespace
