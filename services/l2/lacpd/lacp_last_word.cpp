// The last word of a daemon that was killed, run in its place by the service manager: one more LACPDU to the partners
// of its members, as at a stop on purpose. Their timeouts begin with it, and not up to a period earlier.
#include "lac_resume_file.h"
#include "lac_wire.h"
#include "lacp_packet.h"

#include "sysutil/sysutil.h"

#include <cstdio>
#include <sys/socket.h>

// A daemon whose ticks had stopped, or that dies again and again before it serves, is not spoken for.
constexpr std::uint64_t LONGEST_SILENCE_MS = 2000;

static bool tell(std::uint32_t port_no, const LacResumePort &port, const Mac &source)
{
    std::array<std::uint8_t, LAC_FRAME_SIZE> frame{};
    lacSetMacHeader(source, frame.data());
    lacEncodePdu(port.actor, port.partner, frame.data() + LAC_MAC_HEADER_SIZE);
    return lacp_bpdu_transmit(0, 0, port_no, frame.data(), frame.size()) > 0;
}

static bool tell_all(const LacResume &record)
{
    LacpPktSocket out{};
    out.fd = socket(AF_PACKET, SOCK_RAW, 0); // receives nothing
    out.dest = lacp_pkt_destination(out.fd);
    lacp_pkt_socket = &out;
    Mac source{};
    bool told = system_get_eth_mac(LAC_CPU_INTERFACE, source.data()) == 0;
    for (std::uint32_t port_no = 1; told && port_no <= LAC_MAX_PORTS; ++port_no)
        if (record.ports[port_no - 1].group != 0)
            told = tell(port_no, record.ports[port_no - 1], source);
    if (!told)
        fprintf(stderr, "lacpd-last-word: partners cannot be told through %s; see that it is there and run as root\n",
                LAC_CPU_INTERFACE);
    return told;
}

int main(int argc, char **argv)
{
    if (argc != 2 || argv[1][0] == '-') {
        printf("lacpd-last-word: tells the partners of a daemon that was killed that it comes back\n"
               "usage: lacpd-last-word FILE.resume\n");
        return argc == 2 ? 0 : 2;
    }
    LacResume record{};
    std::uint64_t away_ms = 0;
    const char *refused = lacReadResume(argv[1], record, away_ms);
    if (refused == nullptr && away_ms > LONGEST_SILENCE_MS)
        refused = "the daemon has not been serving";
    if (refused == nullptr)
        return tell_all(record) ? 0 : 1;
    if (refused[0] != 0)
        printf("lacpd-last-word: %s is not used: %s; partners are told nothing\n", argv[1], refused);
    return 0;
}
