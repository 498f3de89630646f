// The message client against a small service on a socket of its own.
#include "temporary_directory.h"

#include "frr/frr.hpp"
#include "sclient/sclient.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{

using namespace std::chrono_literals;
using Bytes = std::vector<std::uint8_t>;

constexpr auto SOON = 5s; // far longer than the client's one-second retry
constexpr auto BUSY = 200ms;

class Socket
{
  public:
    explicit Socket(int descriptor) : descriptor_(descriptor) {}
    Socket(Socket &&other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
    Socket &operator=(Socket &&) = delete;
    ~Socket()
    {
        if (descriptor_ >= 0)
            close(descriptor_);
    }
    int get() const { return descriptor_; }
    bool is_open() const { return descriptor_ >= 0; }

  private:
    int descriptor_;
};

// One end of an accepted connection.
class Peer
{
  public:
    explicit Peer(Socket socket) : socket_(std::move(socket)) {}

    void send(const Bytes &message) const
    {
        ASSERT_EQ(::send(socket_.get(), message.data(), message.size(), MSG_NOSIGNAL | MSG_DONTWAIT),
                  static_cast<ssize_t>(message.size()));
    }
    std::optional<Bytes> receive() const
    {
        Bytes message(SCLIENT_MAX_MESSAGE);
        const ssize_t size = recv(socket_.get(), message.data(), message.size(), MSG_DONTWAIT);
        if (size <= 0)
            return std::nullopt;
        message.resize(static_cast<std::size_t>(size));
        return message;
    }
    // Whether the client has closed.
    bool is_left() const
    {
        std::uint8_t byte;
        return recv(socket_.get(), &byte, 1, MSG_DONTWAIT | MSG_PEEK) == 0;
    }

  private:
    Socket socket_;
};

class Service
{
  public:
    explicit Service(const std::string &path) : listening_(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0))
    {
        unlink(path.c_str());
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        EXPECT_EQ(bind(listening_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);
        EXPECT_EQ(listen(listening_.get(), 8), 0);
    }
    std::optional<Peer> accept() const
    {
        Socket socket(accept4(listening_.get(), nullptr, nullptr, 0));
        return socket.is_open() ? std::optional(Peer(std::move(socket))) : std::nullopt;
    }

  private:
    Socket listening_;
};

struct FreeClient {
    void operator()(sclient *client) const { sclient_free(client); }
};

class SclientTest : public testing::Test
{
  protected:
    SclientTest()
    {
        setenv(SCLIENT_SOCKET_ENV, path_.c_str(), 1);
        reconnections_ = 0;
    }
    ~SclientTest() override
    {
        client_.reset();
        if (beat_ != nullptr)
            event_cancel(&beat_);
        unsetenv(SCLIENT_SOCKET_ENV);
    }

    void start_client()
    {
        client_.reset(sclient_new(loop_.get(), 0, nullptr));
        client_->reconnected = [](sclient *) { ++reconnections_; };
        ASSERT_EQ(sclient_init(client_.get(), SCLIENT_KIND_LACP, 7, nullptr), 0);
    }

    void build(std::uint16_t id, std::initializer_list<std::uint32_t> fields)
    {
        stream *out = client_->obuf;
        stream_reset(out);
        sclient_create_header(out, id);
        for (const std::uint32_t field : fields)
            stream_putl(out, field);
        stream_putw_at(out, 0, static_cast<std::uint16_t>(stream_get_endp(out)));
    }

    int send_destroy(std::uint32_t group)
    {
        build(SCLIENT_MSG_TRUNK_DESTROY, {group});
        return sclient_send_message(client_.get());
    }

    // Turns the event loop until the condition holds; false when it does not in time.
    bool loop_until(const std::function<bool()> &condition, std::chrono::milliseconds within = SOON)
    {
        const auto deadline = std::chrono::steady_clock::now() + within;
        while (!condition()) {
            if (std::chrono::steady_clock::now() > deadline)
                return false;
            turn();
        }
        return true;
    }

    void turn()
    {
        event_add_timer_msec(
            loop_.get(), [](event *) {}, nullptr, 10, &beat_); // so that a turn ends
        event fetched{};
        if (event_fetch(loop_.get(), &fetched) != nullptr)
            event_call(&fetched);
    }

    std::optional<Peer> await_peer(const Service &service)
    {
        std::optional<Peer> peer;
        loop_until([&] {
            if (!peer)
                if (auto accepted = service.accept())
                    peer.emplace(std::move(*accepted));
            return peer.has_value();
        });
        return peer;
    }

    static Bytes destroy_message(std::uint8_t group)
    {
        return {0, 12, SCLIENT_VERSION, SCLIENT_KIND_LACP, 0, 7, 0, SCLIENT_MSG_TRUNK_DESTROY, 0, 0, 0, group};
    }

    TemporaryDirectory directory_;
    std::string path_ = directory_ / "driver.sock";
    std::unique_ptr<event_loop, decltype(&event_master_free)> loop_{event_master_create("test"), event_master_free};
    event *beat_ = nullptr;
    std::unique_ptr<sclient, FreeClient> client_;
    static inline int reconnections_ = 0;
};

TEST_F(SclientTest, SendsOverTheFirstConnectionWithoutCallingItAReconnection)
{
    const Service service(path_);
    start_client();
    const auto peer = service.accept(); // the connection stands before the event loop has run
    ASSERT_TRUE(peer);
    build(SCLIENT_MSG_TRUNK_CREATE, {2, 19, 5, 2});
    ASSERT_EQ(sclient_send_message(client_.get()), 0);
    EXPECT_EQ(peer->receive(), (Bytes{0, 24, 1, 2, 0, 7, 0, 10, 0, 0, 0, 2, 0, 0, 0, 19, 0, 0, 0, 5, 0, 0, 0, 2}));
    EXPECT_FALSE(loop_until([] { return reconnections_ > 0; }, 1500ms));
}

TEST_F(SclientTest, FindsAServiceThatStartsLater)
{
    start_client();
    const Service service(path_);
    const auto peer = await_peer(service);
    ASSERT_TRUE(peer);
    EXPECT_EQ(send_destroy(1), 0);
    EXPECT_EQ(peer->receive(), destroy_message(1));
    EXPECT_EQ(reconnections_, 0);
}

TEST_F(SclientTest, ARequestBeforeTheFirstConnectionIsMadeGoodByAReconnection)
{
    start_client();
    EXPECT_EQ(send_destroy(1), -1);
    const Service service(path_);
    EXPECT_TRUE(loop_until([] { return reconnections_ == 1; }));
    EXPECT_FALSE(loop_until([] { return reconnections_ > 1; }, 1500ms)) << "once is enough";
}

TEST_F(SclientTest, ASendConnectsAtOnce)
{
    start_client();
    const Service service(path_);
    ASSERT_EQ(send_destroy(3), 0);
    const auto peer = service.accept();
    ASSERT_TRUE(peer);
    EXPECT_EQ(peer->receive(), destroy_message(3));
    EXPECT_FALSE(loop_until([&] { return service.accept().has_value(); }, 1500ms)) << "one connection is enough";
    EXPECT_EQ(reconnections_, 0);
}

TEST_F(SclientTest, ReconnectsWhenTheServiceRestarts)
{
    std::optional<Service> service(path_);
    start_client();
    {
        const auto peer = await_peer(*service);
        ASSERT_TRUE(peer);
        service.reset();
    }
    EXPECT_FALSE(loop_until([] { return reconnections_ > 0; }, 1500ms)) << "nobody is there";
    service.emplace(path_);
    ASSERT_TRUE(loop_until([] { return reconnections_ == 1; }));
    const auto peer = service->accept();
    ASSERT_TRUE(peer);
    EXPECT_EQ(send_destroy(4), 0);
    EXPECT_EQ(peer->receive(), destroy_message(4));
}

TEST_F(SclientTest, ASendThatFindsTheOldConnectionDeadReachesTheNewService)
{
    std::optional<Service> old_service(path_);
    start_client();
    {
        const auto peer = await_peer(*old_service);
        ASSERT_TRUE(peer);
        old_service.reset();
    }
    const Service service(path_);
    ASSERT_EQ(send_destroy(2), 0) << "the event loop has not noticed the loss yet";
    const auto peer = service.accept();
    ASSERT_TRUE(peer);
    EXPECT_EQ(peer->receive(), destroy_message(2));
    EXPECT_TRUE(loop_until([] { return reconnections_ == 1; }));
    EXPECT_FALSE(service.accept()) << "the connection stays";
    EXPECT_FALSE(peer->is_left());
}

TEST_F(SclientTest, EveryLossIsFollowedByAReconnection)
{
    const Service service(path_);
    start_client();
    for (int losses = 1; losses <= 3; ++losses) {
        ASSERT_TRUE(await_peer(service)); // and gone again
        ASSERT_TRUE(loop_until([&] { return reconnections_ == losses; })) << losses;
    }
}

TEST_F(SclientTest, DrainsRepliesAndReportsErrors)
{
    const Service service(path_);
    start_client();
    const auto peer = await_peer(service);
    ASSERT_TRUE(peer);
    const Bytes other{0, 8, 1, 2, 0, 0, 0, 99};
    const Bytes error{0, 16, 1, 2, 0, 0, 0, 255, 0, 0, 0, 9, 0, 0, 0, 12};
    const Bytes cut(error.begin(), error.end() - 1);
    testing::internal::CaptureStderr();
    for (int i = 0; i < 100; ++i) {
        for (const Bytes &message : {other, cut, Bytes{1}, error})
            peer->send(message);
        turn();
    }
    EXPECT_TRUE(loop_until([&] { return sclient_error_replies(client_.get()) == 100; }));
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_NE(said.find("sclient: the switch-driver service refused request 12 with error code 9\n"),
              std::string::npos);
    EXPECT_EQ(send_destroy(1), 0);
    EXPECT_EQ(peer->receive(), destroy_message(1));
}

TEST_F(SclientTest, AFullSocketLosesNothingInTheEnd)
{
    const Service service(path_);
    start_client();
    const auto peer = await_peer(service);
    ASSERT_TRUE(peer);
    int sent = 0;
    while (send_destroy(1) == 0)
        ASSERT_LT(++sent, 1000000) << "the socket never fills up";
    EXPECT_FALSE(peer->is_left());
    while (peer->receive())
        ;
    EXPECT_TRUE(loop_until([] { return reconnections_ == 1; }));
    EXPECT_FALSE(peer->is_left()) << "the connection stays";
    EXPECT_EQ(send_destroy(2), 0);
    EXPECT_EQ(peer->receive(), destroy_message(2));
}

TEST_F(SclientTest, AResynchronisationThatFailsIsRepeated)
{
    const Service service(path_);
    start_client();
    const auto peer = await_peer(service);
    ASSERT_TRUE(peer);
    client_->reconnected = [](sclient *client) {
        ++reconnections_;
        const std::unique_ptr<stream, decltype(&stream_free)> out(stream_new(SCLIENT_MAX_MESSAGE), stream_free);
        sclient_create_header(out.get(), SCLIENT_MSG_TRUNK_DESTROY);
        sclient_send_stream(client, out.get());
    };
    while (send_destroy(1) == 0)
        ;
    EXPECT_TRUE(loop_until([] { return reconnections_ == 2; })) << "the socket is still full the first time";
    while (peer->receive())
        ;
    EXPECT_TRUE(loop_until([] { return reconnections_ == 3; }));
    EXPECT_FALSE(loop_until([] { return reconnections_ > 3; }, 1500ms));
}

// For ThreadSanitizer above all.
TEST_F(SclientTest, AnotherThreadSendsWhileTheServiceRestarts)
{
    start_client();
    std::atomic<bool> done = false;
    std::thread sender([&] {
        while (!done) {
            send_destroy(1);
            std::this_thread::yield();
        }
    });
    int taken = 0;
    for (int restart = 0; restart < 5; ++restart) {
        const Service service(path_);
        std::vector<Peer> peers;
        loop_until(
            [&] {
                while (auto peer = service.accept())
                    peers.push_back(std::move(*peer));
                for (const Peer &peer : peers)
                    while (peer.receive())
                        ++taken;
                return false;
            },
            BUSY);
    }
    done = true;
    sender.join();
    EXPECT_GT(taken, 0);
    const Service service(path_);
    reconnections_ = 0;
    EXPECT_TRUE(loop_until([] { return reconnections_ == 1; }));
}

TEST(Sclient, RefusesANullClient)
{
    EXPECT_EQ(sclient_init(nullptr, SCLIENT_KIND_LACP, 0, nullptr), -1);
    EXPECT_EQ(sclient_send_message(nullptr), -1);
    sclient_free(nullptr);
}

TEST_F(SclientTest, APathThatIsTooLongIsNotReachable)
{
    setenv(SCLIENT_SOCKET_ENV, (directory_ / std::string(200, 'x')).c_str(), 1);
    start_client();
    EXPECT_EQ(send_destroy(1), -1);
}

} // namespace
