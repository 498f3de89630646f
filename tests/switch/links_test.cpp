// The order of link-status writes, and frames whose headers are cut.
#include "forwarding.h"
#include "link_publisher.h"

#include <gtest/gtest.h>
#include <sstream>

namespace
{

using namespace std::chrono_literals;
using Bytes = std::vector<std::uint8_t>;

std::string word(bool create, std::uint32_t port, bool up)
{
    return (create ? "!" : "") + std::to_string(port) + (up ? "+ " : "- ");
}

// Plays a script of changes and writes on a queue. "1+" and "1-" are changes of a port's link; "w" is a write, "f" a
// failed one, "n" the start of one that "d" ends; "t" lets time pass until the next write is due; "r" is
// somebody who says that it may go better now. The result is what
// each "w", "f" and "n" got, with "!" in front when the entry is to be made, "." for nothing, and the seconds of each
// "t".
std::string play(const std::string &script)
{
    olt::LinkQueue queue;
    auto now = olt::LinkQueue::Clock::now();
    std::uint32_t port = 0;
    std::string result;
    std::istringstream steps(script);
    for (std::string step; steps >> step;) {
        if (step.size() == 2) {
            queue.push(static_cast<std::uint32_t>(step[0] - '0'), step[1] == '+');
        } else if (step == "d") {
            queue.written(port);
        } else if (step == "r") {
            queue.try_again();
        } else if (step == "t") {
            result += std::to_string((*queue.due() - now) / 1s) + " ";
            now = *queue.due();
        } else {
            const auto write = queue.next(now);
            port = write ? write->port : 0;
            result += write ? word(write->create, port, write->up) : ". ";
            if (write && step == "w")
                queue.written(port);
            if (write && step == "f")
                queue.failed(port, now);
        }
    }
    return result + (queue.due() ? "waits" : "");
}

TEST(LinkQueue, Scripts)
{
    const std::pair<const char *, const char *> rows[] = {
        {"1- w 1+ w w", "!1- 1+ . "},
        {"1+ w 2+ w 2- 1- 2+ w w w w", "!1+ !2+ 2- 1- 2+ . "},
        {"1+ w 1+ w", "!1+ . "},
        {"1+ w 1- 1+ 1- 1+ 1- 1+ w w w", "!1+ 1- 1+ . "},
        {"1+ w 1- 1+ 1- 1+ 1- w w", "!1+ 1- . "},
        {"1+ w 1- n 1+ 1- 1+ 1- 1+ d w w", "!1+ 1- 1+ . "},
        {"1+ w 2+ w 1- 2- f w w t w", "!1+ !2+ 1- 2- . 1 !1- "},
        {"1+ f t f t f t f t f t w 1- f t", "!1+ 1 !1+ 2 !1+ 4 !1+ 8 !1+ 16 !1+ 1- 1 waits"},
        {"1+ f t f t f t f t f t f t f t f t f t f w r f t w",
         "!1+ 1 !1+ 2 !1+ 4 !1+ 8 !1+ 16 !1+ 32 !1+ 64 !1+ 128 !1+ 256 !1+ . !1+ 2 !1+ "},
        {"1+ f t f 2+ f t", "!1+ 1 !1+ !2+ 1 waits"},
    };
    for (const auto &[script, result] : rows)
        EXPECT_EQ(play(script), result) << script;
}

TEST(FlowHash, OfACutPacketGoesByItsMacAddresses)
{
    for (Bytes frame : {Bytes{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 0x81, 0, 0, 5, 0x08, 0x00, 0x45},
                        Bytes{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 0x81, 0, 0, 5, 0x86, 0xDD, 0x60}}) {
        frame.resize(frame.back() == 0x45 ? 18 + 20 : 18 + 40, frame.back());
        EXPECT_NE(olt::flow_hash(0, frame), olt::flow_hash(9, frame));
        for (std::size_t size = 14; size < frame.size(); ++size) {
            const auto head = olt::Frame(frame).first(size);
            EXPECT_EQ(olt::flow_hash(0, head), olt::flow_hash(9, head)) << size;
        }
    }
}

} // namespace
