// The packet socket on "ethv0": LACPDUs inside the switch tag, and the frame dump. Its own thread receives, the
// dispatcher sends, the main thread sets the dump flags.
#pragma once

#include "lacp.h"

#include <linux/if_packet.h>

constexpr std::size_t LACP_RX_BUFFER_SIZE = 2176;
constexpr std::size_t KTAG_SIZE = 12;
constexpr std::uint16_t KTAG_RECEIVED = 0x9082; // tag type, big-endian
constexpr std::uint16_t KTAG_SENT = 0x9089;

// A frame without its tag, and the port it came in on. The two middle arguments are 0.
using LacpReceive = int (*)(std::uint32_t port_no, std::uint32_t, std::uint32_t, const std::uint8_t *frame,
                            int length);

struct LacpPktSocket {
    std::int32_t fd;
    sockaddr_ll dest; // of every send
    SystemThread *thread;
    LacpReceive recv_cb;
};

enum LacpPktDebug : int { LACP_PKT_RX = 0, LACP_PKT_TX = 1 };

extern LacpPktSocket *lacp_pkt_socket; // null while there is no socket
extern Published<std::uint32_t> lacp_pkt_rx_debug;
extern Published<std::uint32_t> lacp_pkt_tx_debug;

// Where frames for the switch are sent from a packet socket.
sockaddr_ll lacp_pkt_destination(int fd);
// Opens the socket and starts its receive thread. 0, or -1 (the daemon then runs without LACP frames).
int lacp_rx_tx_packet_init(LacpReceive receive);
// Sends a frame out of a port; bytes sent (length + 12) or a negative value. The first two are ignored.
int lacp_bpdu_transmit(std::uint32_t, std::uint32_t, std::uint32_t port_no, const std::uint8_t *frame,
                       std::size_t length);

// Takes the tag off a received frame in place and hands it on. `buffer` holds LACP_RX_BUFFER_SIZE bytes, the frame
// is the first `length` of them.
void lacp_pkt_take(std::uint8_t *buffer, int length, LacpReceive receive);
// Lays a frame out with the tag for a port; `out` has length + 12 bytes, all zero.
void lacp_pkt_tag(std::uint32_t port_no, const std::uint8_t *frame, std::size_t length, std::uint8_t *out);

void lacp_set_pkt_debug(int which, std::uint32_t value);
std::uint32_t lacp_get_pkt_debug(int which);
void lacp_pkt_dump(const std::uint8_t *bytes, int length, const char *description);
