#include "lacp_packet.h"

#include "lac_memory.h"
#include "lacp_privileges.h"

#include "sysutil/sysutil.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>

LacpPktSocket *lacp_pkt_socket;
Published<std::uint32_t> lacp_pkt_rx_debug;
Published<std::uint32_t> lacp_pkt_tx_debug;

namespace
{

constexpr std::size_t ADDRESSES_SIZE = 12;  // destination and source
constexpr std::size_t KTAG_PORT_OFFSET = 6; // within the tag
constexpr std::size_t DUMP_LINE_BYTES = 16;
// Two digits a byte, a space after every second one, a line feed after every sixteenth, and the terminator.
constexpr std::size_t DUMP_TEXT_SIZE =
    LACP_RX_BUFFER_SIZE * 2 + LACP_RX_BUFFER_SIZE / 2 + LACP_RX_BUFFER_SIZE / DUMP_LINE_BYTES + 1;
static_assert(DUMP_TEXT_SIZE == 5577);

} // namespace

// ---- dump -----------------------------------------------------------------------------------------------------

void lacp_pkt_dump(const std::uint8_t *bytes, int length, const char *description)
{
    static constexpr char SEPARATOR[] = "\n=================================================\r\n";
    static constexpr char DIGITS[] = "0123456789abcdef";
    std::array<char, DUMP_TEXT_SIZE> text;
    auto out = text.begin();
    const std::size_t count =
        std::clamp<std::size_t>(length < 0 ? 0 : static_cast<std::size_t>(length), 0, LACP_RX_BUFFER_SIZE);
    for (std::size_t i = 0; i < count; ++i) {
        *out++ = DIGITS[bytes[i] >> 4];
        *out++ = DIGITS[bytes[i] & 0xF];
        if (i % 2 == 1)
            *out++ = ' ';
        if (i % DUMP_LINE_BYTES == DUMP_LINE_BYTES - 1)
            *out++ = '\n';
    }
    *out = '\0';
    printf("%s", SEPARATOR);
    printf("description: %s\n", description);
    printf("packet len:  %d\n", length);
    printf("\n%s", text.data());
    printf("%s", SEPARATOR);
}

void lacp_set_pkt_debug(int which, std::uint32_t value)
{
    if (which == LACP_PKT_RX)
        lacp_pkt_rx_debug = value;
    else if (which == LACP_PKT_TX)
        lacp_pkt_tx_debug = value;
}

std::uint32_t lacp_get_pkt_debug(int which)
{
    return which == LACP_PKT_RX ? lacp_pkt_rx_debug : lacp_pkt_tx_debug;
}

// ---- receiving ------------------------------------------------------------------------------------------------

void lacp_pkt_take(std::uint8_t *buffer, int length, LacpReceive receive)
{
    if (lacp_pkt_rx_debug != 0)
        lacp_pkt_dump(buffer, length, "recv(lacp raw data)");
    const std::uint8_t *tag = buffer + ADDRESSES_SIZE;
    const bool whole = length >= static_cast<int>(ADDRESSES_SIZE + KTAG_SIZE);
    if (!whole || tag[0] != KTAG_RECEIVED >> 8 || tag[1] != (KTAG_RECEIVED & 0xFF)) {
        static RepeatedLine line("Msg: Parse msg error.");
        if (line.due())
            printf("Msg: Parse msg error.");
        return;
    }
    const auto port_no = static_cast<std::uint32_t>(tag[KTAG_PORT_OFFSET] << 8 | tag[KTAG_PORT_OFFSET + 1]);
    std::uint8_t *frame = buffer + KTAG_SIZE;
    std::copy_backward(buffer, buffer + ADDRESSES_SIZE, frame + ADDRESSES_SIZE);
    const int frame_length = length - static_cast<int>(KTAG_SIZE);
    if (lacp_pkt_rx_debug != 0)
        lacp_pkt_dump(frame, frame_length, "recv(lacp no ktag and port)");
    receive(port_no, 0, 0, frame, frame_length);
}

// The socket hears every interface. The name says whose frames count: the interface may have been made again.
static bool is_cpu_interface(int fd, int index)
{
    ifreq request{};
    request.ifr_ifindex = index;
    return ioctl(fd, SIOCGIFNAME, &request) == 0 &&
           strncmp(request.ifr_name, LAC_CPU_INTERFACE, sizeof(request.ifr_name)) == 0;
}

// perror() with a limit; leaves errno as it is.
static void complain(RepeatedLine &line, const char *text)
{
    const int error = errno;
    const bool due = line.due();
    errno = error;
    if (due)
        perror(text);
}

static void receive_one(const LacpPktSocket *socket, std::uint8_t *buffer)
{
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(socket->fd, &readable);
    if (select(socket->fd + 1, &readable, nullptr, nullptr, nullptr) < 0) {
        static RepeatedLine line("select");
        complain(line, "select");
        return;
    }
    if (!FD_ISSET(socket->fd, &readable))
        return;
    sockaddr_ll from{};
    socklen_t size = sizeof(from);
    const ssize_t length =
        recvfrom(socket->fd, buffer, LACP_RX_BUFFER_SIZE, MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&from), &size);
    if (length <= 0) {
        static RepeatedLine line("Msg: Recv packets error.");
        complain(line, "Msg: Recv packets error.");
        return;
    }
    if (is_cpu_interface(socket->fd, from.sll_ifindex))
        lacp_pkt_take(buffer, static_cast<int>(length), socket->recv_cb);
}

static void *lacp_pkt_recv_thread(SystemThread *thread)
{
    const auto *socket = static_cast<const LacpPktSocket *>(system_pthread_argument(thread));
    auto *buffer = static_cast<std::uint8_t *>(qcalloc(MTYPE_LACP_SSP_PACKET, LACP_RX_BUFFER_SIZE));
    for (;;)
        receive_one(socket, buffer);
}

// ---- sending --------------------------------------------------------------------------------------------------

void lacp_pkt_tag(std::uint32_t port_no, const std::uint8_t *frame, std::size_t length, std::uint8_t *out)
{
    std::uint8_t *tag = std::copy_n(frame, ADDRESSES_SIZE, out);
    tag[0] = KTAG_SENT >> 8;
    tag[1] = KTAG_SENT & 0xFF;
    tag[KTAG_PORT_OFFSET] = static_cast<std::uint8_t>(port_no);
    tag[KTAG_PORT_OFFSET + 1] = static_cast<std::uint8_t>(port_no >> 8);
    std::copy(frame + ADDRESSES_SIZE, frame + length, tag + KTAG_SIZE);
}

// 0, with errno set, while there is no such interface.
static int find_cpu_interface(int fd)
{
    ifreq request{};
    snprintf(request.ifr_name, sizeof(request.ifr_name), "%s", LAC_CPU_INTERFACE);
    return ioctl(fd, SIOCGIFINDEX, &request) == 0 ? request.ifr_ifindex : 0;
}

static ssize_t send_once(const LacpPktSocket &socket, const std::uint8_t *bytes, std::size_t size)
{
    return sendto(socket.fd, bytes, size, MSG_DONTWAIT, reinterpret_cast<const sockaddr *>(&socket.dest),
                  sizeof(socket.dest));
}

// Whether the CPU interface has another index than the one that frames are sent to: it was deleted and made again.
static bool follow_cpu_interface(LacpPktSocket &socket)
{
    const int index = find_cpu_interface(socket.fd);
    if (index == 0 || index == socket.dest.sll_ifindex)
        return false;
    printf("LACP Msg: interface %s has now index %d, it was %d!\n", LAC_CPU_INTERFACE, index,
           socket.dest.sll_ifindex);
    socket.dest.sll_ifindex = index;
    return true;
}

int lacp_bpdu_transmit(std::uint32_t, std::uint32_t, std::uint32_t port_no, const std::uint8_t *frame,
                       std::size_t length)
{
    if (lacp_pkt_socket == nullptr)
        return LAC_FAILED;
    const std::size_t size = length + KTAG_SIZE;
    auto *out = static_cast<std::uint8_t *>(qcalloc(MTYPE_LACP_SSP_PACKET, size));
    lacp_pkt_tag(port_no, frame, length, out);
    ssize_t sent = send_once(*lacp_pkt_socket, out, size);
    if (sent < 0 && (errno == ENXIO || errno == ENODEV)) { // no interface has that index
        const int error = errno;
        if (follow_cpu_interface(*lacp_pkt_socket))
            sent = send_once(*lacp_pkt_socket, out, size);
        else
            errno = error;
    }
    static RepeatedLine failed("send msg to socket error");
    if (sent < 0)
        complain(failed, "send msg to socket error");
    else if (lacp_pkt_tx_debug != 0)
        lacp_pkt_dump(out, static_cast<int>(sent), "send");
    qfree(MTYPE_LACP_SSP_PACKET, out);
    return static_cast<int>(sent);
}

// ---- opening --------------------------------------------------------------------------------------------------

static int open_socket()
{
    const frr::RaisedPrivileges raised(&lacp_privs);
    const int fd = socket(AF_PACKET, SOCK_RAW, htons(KTAG_RECEIVED));
    if (fd < 0)
        perror("LACPD Msg:create socket for port rx tx fail");
    return fd;
}

static int cpu_interface_index(int fd)
{
    const int index = find_cpu_interface(fd);
    if (index == 0)
        perror("LACPD get ifindex failed ");
    return index;
}

sockaddr_ll lacp_pkt_destination(int fd)
{
    sockaddr_ll dest{};
    dest.sll_family = AF_PACKET;
    dest.sll_protocol = htons(ETH_P_ALL);
    dest.sll_ifindex = cpu_interface_index(fd);
    dest.sll_pkttype = PACKET_BROADCAST;
    dest.sll_halen = 6;
    return dest;
}

static int start_receiving(LacpPktSocket *socket)
{
    socket->thread = system_pthread_create("port recv pkt thread", "port recv pkt", lacp_pkt_recv_thread, 0, socket);
    return socket->thread == nullptr ? LAC_FAILED : system_pthread_run(socket->thread, 0, socket);
}

static int give_up(LacpPktSocket *socket)
{
    if (socket->fd >= 0)
        close(socket->fd);
    lacp_pkt_socket = nullptr;
    qfree(MTYPE_LACP_SSP_PACKET, socket);
    return LAC_FAILED;
}

int lacp_rx_tx_packet_init(LacpReceive receive)
{
    auto *socket = lac_new_records<LacpPktSocket>(MTYPE_LACP_SSP_PACKET, 1);
    socket->fd = open_socket();
    if (socket->fd < 0)
        return give_up(socket);
    socket->recv_cb = receive;
    socket->dest = lacp_pkt_destination(socket->fd);
    lacp_pkt_socket = socket;
    if (start_receiving(socket) != LAC_OK) {
        printf("Create pthread error!");
        return give_up(socket);
    }
    return LAC_OK;
}
