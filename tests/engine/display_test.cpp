// What is shown, typed and traced. Recorded texts are in recorded/, every octet visible.
#include "engine.h"
#include "terminal.h"

#include <algorithm>
#include <cstring>
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

// Each word of each port has a value of its own, wider than its column with the later ports.
void arrange_eight_ports()
{
    std::ostringstream words;
    for (unsigned port = 1; port <= 8; ++port) {
        std::uint64_t at = 0;
        const auto put = [&](const char *names, const std::function<std::uint64_t()> &value) {
            std::istringstream list(names);
            for (std::string name; list >> name;)
                words << ' ' << std::dec << port << '.' << name << '=' << std::hex << (++at, value());
        };
        put("asp key prio no psp pkey pprio pno aokey apsp apkey aggid hold n_moved n_rx n_tx n_trans n_marker "
            "n_response n_unknown n_illegal n_answer n_change",
            [&] { return at * (port == 1 ? 1 : 273 * port); });
        put("asys psys apsys amac", [&] { return (at - 1) * 0x10F0E0D0C0 * port; });
        put("cw per ww txs", [&] { return (port & 1) << 16 | at * 31 * port % 256 << 8 | port * 29; });
        put("up alone ready lacp collects ntt moved ready_n", [&] { return port * 0x5D >> (at & 7) & 1; });
        put("actor", [&] { return port * 0x2B % 256; });
        put("partner", [&] { return port * 0x35 % 256; });
        put("mask", [&] { return port * 0x1F0A5; });
        for (const char *column : {"rx=01234567", "tx=01234512", "sel=01230012", "mux=01234567", "agg=11334578"})
            put(std::string(column, strcspn(column, "=")).c_str(), [&] { return strchr(column, '=')[port] - '0'; });
        lacNoToPort(port)->port_mac[5] = static_cast<std::uint8_t>(0xC0 + port);
    }
    set(words.str());
    set("1.group=1 2.group=1 3.group=2 4.group=2 2.up=1 1.chain=2 2.chain=1 8.rx=9 8.mux=13 sys.state=1 sys.on=1 "
        "sys.prio=1234 sys.mac=21122aabbcc link1=1 link2=1 link3=0 link4=1 link8=1 g1.used=1 g2.used=1 g1.type=5 "
        "g2.type=3 g1.list=3 g1.up=1 g2.code=13 g2.list=cc g2.up=cc g3.code=1");
}

TEST(Displays, EightPorts)
{
    Engine engine(1, 8);
    Terminal terminal;
    std::string all;
    const auto page = [&](const std::string &line) { all += "==== " + line + "\n" + visible(terminal.typed(line)); };
    for (const std::string line : {"information", "interface all", "1 port"}) // while LACP is off
        page("show channel-group " + line);
    arrange_eight_ports();
    for (const std::string line : {"information", "interface all", "1 port", "detail", "ports"}) {
        page("show channel-group " + line);
        if (line[1] == ' ') {
            intf = {1, 4}; // members are listed inside the inventory's range, uplink ports whatever it is
            set("2.lacp=0 3.up=0 4.lacp=0 4.up=0 5.lacp=0 5.up=0 6.lacp=0 6.up=0 7.lacp=0 7.up=0 8.lacp=0 8.up=0");
        }
    }
    expect_recorded(all, "displays");
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
    Engine engine;
    std::string all;
    for (const auto &[rx, tx] : {std::pair(0U, 0U), {1, 0}, {0, 1}}) {
        lacp_set_pkt_debug(LACP_PKT_RX, rx);
        lacp_set_pkt_debug(LACP_PKT_TX, tx);
        all += visible(printed([] {
            Engine::hear(tagged_frame(3, hex("0a0b")));
            lacp_bpdu_transmit(0, 0, 3, hex("0180c2000002 021122aabbcc 8809 0102").data(), 16);
        }));
    }
    const auto dump = [](int length) {
        return printed([=] { lacp_pkt_dump(Bytes(2176, 0xA5).data(), length, "send"); });
    };
    all += visible(dump(3) + dump(-1));
    EXPECT_EQ(std::ranges::count(dump(2176), '5'), 2176);
    expect_recorded(all, "dumps");
}

} // namespace
