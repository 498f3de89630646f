#include "sclient/sclient.h"

#include "frr/frr.hpp"
#include "sysutil/sysutil.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace
{

constexpr std::chrono::seconds RETRY_AFTER(1);
constexpr int REPLIES_AT_ONCE = 64; // then the event loop's other users have their turn
constexpr std::size_t ERROR_MESSAGE_SIZE = SCLIENT_HEADER_SIZE + 2 * sizeof(std::uint32_t);
constexpr std::size_t MESSAGE_ID_OFFSET = 6;

// Kind and instance of the process's client, as every header carries them.
std::atomic<std::uint8_t> client_kind;
std::atomic<std::uint16_t> client_instance;

class Socket
{
  public:
    explicit Socket(int descriptor) : descriptor_(descriptor) {}
    Socket(Socket &&other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
    Socket &operator=(Socket &&other) noexcept
    {
        std::swap(descriptor_, other.descriptor_);
        return *this;
    }
    ~Socket()
    {
        if (descriptor_ >= 0)
            close(descriptor_);
    }
    int get() const { return descriptor_; }

  private:
    int descriptor_;
};

struct Connection {
    Socket socket;
    frr::Event *reader = nullptr; // scheduled and cancelled on the event loop's thread only
};

// Null, with errno set, when nobody listens there. A Unix socket connects at once or not at all.
std::unique_ptr<Connection> connect_to(const std::string &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        errno = ENAMETOOLONG;
        return nullptr;
    }
    path.copy(address.sun_path, path.size());
    Socket socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (socket.get() < 0 || connect(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0)
        return nullptr;
    return std::make_unique<Connection>(Connection{std::move(socket)});
}

std::uint32_t get_u32(const std::uint8_t *bytes)
{
    return std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 | std::uint32_t{bytes[2]} << 8 | bytes[3];
}

std::uint16_t get_u16(const std::uint8_t *bytes)
{
    return static_cast<std::uint16_t>(bytes[0] << 8 | bytes[1]);
}

std::string service_path()
{
    const char *path = std::getenv(SCLIENT_SOCKET_ENV);
    return path != nullptr && *path != '\0' ? path : SCLIENT_DEFAULT_SOCKET;
}

} // namespace

// Any thread may send. Only the event loop's thread reads, schedules readers and closes descriptors: one that
// another thread has given up may still be in the loop's poll set.
//
// The service is told everything again (`reconnected`) whenever something may not have reached it: after a lost
// connection and after a request that was not sent, also one before the very first connection.
struct sclient::Transport {
  public:
    Transport(sclient *client, frr::EventLoop *master) : client_(client), master_(master), path_(service_path()) {}
    ~Transport();
    Transport(const Transport &) = delete;
    Transport &operator=(const Transport &) = delete;

    void start();
    int send(const std::uint8_t *bytes, std::size_t size);
    std::uint32_t error_replies() const { return error_replies_; }

  private:
    // With the lock held.
    bool connect();
    void retire();
    int send_once(const std::uint8_t *bytes, std::size_t size);
    void send_failed();

    // On the event loop's thread.
    static void on_retry(frr::Event *event) noexcept;
    static void on_wake(frr::Event *event) noexcept;
    static void on_readable(frr::Event *event) noexcept;
    void retry();
    void attend();
    void read_replies(int descriptor);
    void take_reply(const std::uint8_t *bytes, std::size_t size);
    void lost(int descriptor);
    void tell(bool connected);
    void close_retired();

    sclient *const client_;
    frr::EventLoop *const master_;
    const std::string path_;

    std::mutex lock_; // held for calls that do not block only; no other lock but the loop's is taken under it
    std::unique_ptr<Connection> current_;
    std::vector<std::unique_ptr<Connection>> retired_;
    bool resync_owed_ = false;

    // The loop guards these two with its own mutex, so that any thread may schedule.
    frr::Event *retry_ = nullptr;
    frr::Event *wake_ = nullptr;

    bool told_away_ = false; // event loop's thread only
    std::atomic<std::uint32_t> error_replies_ = 0;
};

sclient::Transport::~Transport()
{
    frr::cancel(&retry_);
    frr::cancel(&wake_);
    retire();
    close_retired();
}

void sclient::Transport::start()
{
    {
        const std::lock_guard guard(lock_);
        if (!current_)
            connect();
    }
    attend();
}

// ---- sending --------------------------------------------------------------------------------------------------

bool sclient::Transport::connect()
{
    current_ = connect_to(path_);
    return current_ != nullptr;
}

void sclient::Transport::retire()
{
    if (current_)
        retired_.push_back(std::move(current_));
}

// 0 or the error number.
int sclient::Transport::send_once(const std::uint8_t *bytes, std::size_t size)
{
    if (!current_) {
        if (!connect())
            return errno;
        frr::add_event<on_wake>(master_, this, &wake_);
    }
    return ::send(current_->socket.get(), bytes, size, MSG_DONTWAIT | MSG_NOSIGNAL) < 0 ? errno : 0;
}

void sclient::Transport::send_failed()
{
    resync_owed_ = true;
    frr::add_event<on_wake>(master_, this, &wake_);
}

int sclient::Transport::send(const std::uint8_t *bytes, std::size_t size)
{
    const std::lock_guard guard(lock_);
    const bool was_connected = current_ != nullptr;
    int error = send_once(bytes, size);
    if (was_connected && (error == EPIPE || error == ECONNRESET || error == ENOTCONN)) {
        retire();
        send_failed(); // what went before may be lost, even if this one arrives
        error = send_once(bytes, size);
    }
    if (error == 0)
        return 0;
    send_failed();
    return -1;
}

// ---- event loop's thread --------------------------------------------------------------------------------------

void sclient::Transport::on_retry(frr::Event *event) noexcept
{
    static_cast<Transport *>(frr::argument_of(event))->retry();
}

void sclient::Transport::on_wake(frr::Event *event) noexcept
{
    static_cast<Transport *>(frr::argument_of(event))->attend();
}

void sclient::Transport::on_readable(frr::Event *event) noexcept
{
    auto *self = static_cast<Transport *>(frr::argument_of(event));
    self->read_replies(frr::fd_of(event));
    self->attend();
}

// Brings the loop's events in line with the state that the senders left.
void sclient::Transport::attend()
{
    bool connected;
    {
        const std::lock_guard guard(lock_);
        close_retired();
        connected = current_ != nullptr;
        if (connected)
            frr::add_read<on_readable>(master_, this, current_->socket.get(), &current_->reader);
        if (!connected || resync_owed_)
            frr::add_timer<on_retry>(master_, this, RETRY_AFTER, &retry_);
    }
    tell(connected);
}

void sclient::Transport::close_retired()
{
    for (const auto &connection : retired_)
        frr::cancel(&connection->reader);
    retired_.clear();
}

void sclient::Transport::retry()
{
    bool resync;
    {
        const std::lock_guard guard(lock_);
        resync = (current_ || connect()) && resync_owed_;
        if (resync)
            resync_owed_ = false; // owed anew when one of its requests is not sent
    }
    if (resync && client_->reconnected != nullptr)
        client_->reconnected(client_);
    attend();
}

void sclient::Transport::read_replies(int descriptor)
{
    std::array<std::uint8_t, SCLIENT_MAX_MESSAGE> buffer;
    for (int i = 0; i < REPLIES_AT_ONCE; ++i) {
        const ssize_t size = recv(descriptor, buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (size > 0)
            take_reply(buffer.data(), static_cast<std::size_t>(size));
        else if (size == 0 || (errno != EAGAIN && errno != EINTR))
            return lost(descriptor);
        else if (errno == EAGAIN)
            return;
    }
}

void sclient::Transport::take_reply(const std::uint8_t *bytes, std::size_t size)
{
    if (size != ERROR_MESSAGE_SIZE || get_u16(bytes + MESSAGE_ID_OFFSET) != SCLIENT_MSG_ERROR)
        return;
    ++error_replies_;
    const std::uint8_t *body = bytes + SCLIENT_HEADER_SIZE;
    static RepeatedLine line("sclient: the switch-driver service refused a request");
    if (!line.due())
        return;
    fprintf(stderr, "sclient: the switch-driver service refused request %u with error code %u\n",
            get_u32(body + sizeof(std::uint32_t)), get_u32(body));
}

void sclient::Transport::lost(int descriptor)
{
    const std::lock_guard guard(lock_);
    if (!current_ || current_->socket.get() != descriptor)
        return; // a sender was faster
    retire();
    resync_owed_ = true;
}

// One line a change; without the lock, because writing may block.
void sclient::Transport::tell(bool connected)
{
    if (connected != told_away_)
        return;
    told_away_ = !connected;
    fprintf(stderr,
            connected ? "sclient: the switch-driver service at %s is there again\n"
                      : "sclient: the switch-driver service at %s is not reachable; trying again every second\n",
            path_.c_str());
}

// ---- interface ------------------------------------------------------------------------------------------------

namespace
{

struct Release {
    void operator()(sclient *client) const { sclient_free(client); }
};

} // namespace

sclient *sclient_new(frr::EventLoop *master, std::uint16_t, zebra_privs_t *)
try {
    std::unique_ptr<sclient, Release> client(std::make_unique<sclient>().release());
    client->obuf = stream_new(SCLIENT_MAX_MESSAGE);
    client->transport = std::make_unique<sclient::Transport>(client.get(), master).release();
    return client.release();
} catch (const std::bad_alloc &) {
    return nullptr;
}

// The service's socket is open to the daemon's group, so no privilege has to be raised.
int sclient_init(sclient *client, int kind, std::uint16_t instance, zebra_privs_t *)
{
    if (client == nullptr)
        return -1;
    client_kind = static_cast<std::uint8_t>(kind);
    client_instance = instance;
    client->transport->start();
    return 0;
}

void sclient_create_header(stream *out, std::uint16_t message_id)
{
    stream_putw(out, SCLIENT_HEADER_SIZE);
    stream_putc(out, SCLIENT_VERSION);
    stream_putc(out, client_kind);
    stream_putw(out, client_instance);
    stream_putw(out, message_id);
}

int sclient_send_stream(sclient *client, stream *message)
{
    return client == nullptr ? -1 : client->transport->send(STREAM_DATA(message), stream_get_endp(message));
}

int sclient_send_message(sclient *client)
{
    return client == nullptr ? -1 : sclient_send_stream(client, client->obuf);
}

std::uint32_t sclient_error_replies(const sclient *client)
{
    return client->transport->error_replies();
}

void sclient_free(sclient *client)
{
    if (client == nullptr)
        return;
    const std::unique_ptr<sclient> owned(client);
    const std::unique_ptr<sclient::Transport> transport(client->transport);
    if (client->obuf != nullptr)
        stream_free(client->obuf);
}
