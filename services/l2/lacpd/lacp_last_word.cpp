// The last word of a daemon that was killed, run in its place by the service manager: one more LACPDU to the partners
// of its members, as at a stop on purpose. Their timeouts begin with it, and not up to a period earlier.
#include "lac_resume_file.h"
#include "lac_wire.h"
#include "lacp_packet.h"

#include "sysutil/sysutil.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

// A daemon whose ticks had stopped, or that dies again and again before it serves, is not spoken for.
constexpr std::uint64_t LONGEST_SILENCE_MS = 2000;

static bool tell(int fd, const sockaddr_ll &dest, std::uint32_t port_no, const LacResumePort &port, const Mac &source)
{
    std::array<std::uint8_t, LAC_FRAME_SIZE> frame{};
    lacSetMacHeader(source, frame.data());
    lacEncodePdu(port.actor, port.partner, frame.data() + LAC_MAC_HEADER_SIZE);
    std::array<std::uint8_t, LAC_FRAME_SIZE + KTAG_SIZE> bytes{};
    lacp_pkt_tag(port_no, frame.data(), frame.size(), bytes.data());
    return sendto(fd, bytes.data(), bytes.size(), MSG_DONTWAIT, reinterpret_cast<const sockaddr *>(&dest),
                  sizeof(dest)) == static_cast<ssize_t>(bytes.size());
}

static int tell_all(const LacResume &record)
{
    const int fd = socket(AF_PACKET, SOCK_RAW, 0); // receives nothing
    if (fd < 0) {
        perror("lacpd-last-word: a packet socket cannot be opened");
        return 1;
    }
    Mac source{};
    const sockaddr_ll dest = lacp_pkt_destination(fd);
    bool told = dest.sll_ifindex != 0 && system_get_eth_mac(LAC_CPU_INTERFACE, source.data()) == 0;
    for (std::uint32_t port_no = 1; told && port_no <= LAC_MAX_PORTS; ++port_no)
        if (record.ports[port_no - 1].group != 0)
            told = tell(fd, dest, port_no, record.ports[port_no - 1], source);
    if (!told)
        fprintf(stderr, "lacpd-last-word: partners cannot be told through %s: %s\n", LAC_CPU_INTERFACE,
                strerror(errno));
    close(fd);
    return told ? 0 : 1;
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
        return tell_all(record);
    if (refused[0] != 0)
        printf("lacpd-last-word: %s is not used: %s; partners are told nothing\n", argv[1], refused);
    return 0;
}
