#include "sclient/sclient.h"

#include "frr/frr.hpp"

#include <array>
#include <atomic>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <sys/socket.h>
#include <sys/un.h>
#include <utility>

namespace
{

constexpr long RETRY_SECONDS = 1;

// Kind and instance that headers carry; the process has one client.
std::uint8_t header_kind;
std::uint16_t header_instance;

class Socket
{
  public:
    explicit Socket(int fd = -1) : fd_(fd) {}
    Socket(Socket &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Socket &operator=(Socket &&other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~Socket()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    int fd() const { return fd_; }
    bool is_open() const { return fd_ >= 0; }

  private:
    int fd_;
};

const char *socket_path()
{
    const char *path = std::getenv(SCLIENT_SOCKET_ENV);
    return path != nullptr && *path != '\0' ? path : SCLIENT_DEFAULT_SOCKET;
}

// A connection to a Unix socket stands or fails at once.
Socket connect_to_service()
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof(address.sun_path), "%s", socket_path());
    Socket socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket.is_open() ||
        connect(socket.fd(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0)
        return Socket();
    return socket;
}

std::uint32_t field(const std::uint8_t *bytes)
{
    return static_cast<std::uint32_t>(bytes[0]) << 24 | static_cast<std::uint32_t>(bytes[1]) << 16 |
           static_cast<std::uint32_t>(bytes[2]) << 8 | bytes[3];
}

void report_reply(const std::uint8_t *message, std::size_t length)
{
    if (length < SCLIENT_HEADER_SIZE + 8 || (message[6] << 8 | message[7]) != SCLIENT_MSG_ERROR)
        return;
    const std::uint8_t *body = message + SCLIENT_HEADER_SIZE;
    std::fprintf(stderr, "switch driver: request %u was refused with code %u\n", field(body + 4), field(body));
}

} // namespace

// The event loop's thread owns connecting and reading. Any thread may send: the lock is held for one non-blocking
// send, or while the socket is put in place or taken away.
struct sclient::Transport {
    sclient *client;
    event_loop *master;
    std::mutex lock;
    Socket socket;
    bool was_connected = false;
    std::atomic<bool> lost_request = false; // the service misses something: tell it everything again
    event *retry = nullptr;
    event *readable = nullptr;

    int send(stream *message);
    void connect();
    void disconnect();
    void read_replies();
    void watch();
};

static void on_retry(event *event)
{
    static_cast<sclient::Transport *>(EVENT_ARG(event))->connect();
}

static void on_readable(event *event)
{
    static_cast<sclient::Transport *>(EVENT_ARG(event))->read_replies();
}

void sclient::Transport::watch()
{
    event_add_timer(master, on_retry, this, RETRY_SECONDS, &retry);
}

// Once a second: connects when there is no connection, and resends when a request was lost on a standing one.
void sclient::Transport::connect()
{
    bool resend = lost_request.exchange(false);
    if (!socket.is_open()) {
        Socket fresh = connect_to_service();
        if (!fresh.is_open()) {
            lost_request = resend;
            watch();
            return;
        }
        resend = resend || was_connected;
        was_connected = true;
        {
            const std::lock_guard guard(lock);
            socket = std::move(fresh);
        }
        event_add_read(master, on_readable, this, socket.fd(), &readable);
    }
    if (resend && client->reconnected != nullptr)
        client->reconnected(client);
    watch();
}

void sclient::Transport::disconnect()
{
    event_cancel(&readable);
    const std::lock_guard guard(lock);
    socket = Socket();
}

void sclient::Transport::read_replies()
{
    std::array<std::uint8_t, SCLIENT_MAX_MESSAGE> message;
    for (;;) {
        const ssize_t length = recv(socket.fd(), message.data(), message.size(), MSG_DONTWAIT);
        if (length > 0) {
            report_reply(message.data(), static_cast<std::size_t>(length));
            continue;
        }
        if (length < 0 && (errno == EAGAIN || errno == EINTR))
            break;
        disconnect();
        return;
    }
    event_add_read(master, on_readable, this, socket.fd(), &readable);
}

int sclient::Transport::send(stream *message)
{
    const std::lock_guard guard(lock);
    const std::size_t size = stream_get_endp(message);
    if (socket.is_open() &&
        ::send(socket.fd(), STREAM_DATA(message), size, MSG_DONTWAIT | MSG_NOSIGNAL) == static_cast<ssize_t>(size))
        return 0;
    lost_request = true;
    return -1;
}

sclient *sclient_new(event_loop *master, std::uint16_t, zebra_privs_t *)
{
    auto client = std::make_unique<sclient>();
    auto transport = std::make_unique<sclient::Transport>();
    transport->client = client.get();
    transport->master = master;
    client->obuf = stream_new(SCLIENT_MAX_MESSAGE);
    client->reconnected = nullptr;
    client->transport = transport.release();
    return client.release();
}

int sclient_init(sclient *client, int kind, std::uint16_t instance, zebra_privs_t *)
{
    if (client == nullptr)
        return -1;
    header_kind = static_cast<std::uint8_t>(kind);
    header_instance = instance;
    client->transport->connect();
    return 0;
}

void sclient_create_header(stream *out, std::uint16_t message_id)
{
    stream_putw(out, SCLIENT_HEADER_SIZE);
    stream_putc(out, SCLIENT_VERSION);
    stream_putc(out, header_kind);
    stream_putw(out, header_instance);
    stream_putw(out, message_id);
}

int sclient_send_message(sclient *client)
{
    return client->transport->send(client->obuf);
}

int sclient_send_stream(sclient *client, stream *message)
{
    return client->transport->send(message);
}

void sclient_free(sclient *client)
{
    const std::unique_ptr<sclient> owned(client);
    const std::unique_ptr<sclient::Transport> transport(client->transport);
    event_cancel(&transport->retry);
    event_cancel(&transport->readable);
    stream_free(client->obuf);
}
