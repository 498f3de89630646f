// The message client against a service, and the utilities.
#include "unix_socket.h"

#include "frr/frr.hpp"
#include "sclient/sclient.h"
#include "sysutil/sysutil.h"

#include <csignal>
#include <filesystem>
#include <future>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace
{

using namespace std::chrono_literals;
using Bytes = std::vector<std::uint8_t>;

const std::string PATH = std::filesystem::temp_directory_path() / ("platform-test-" + std::to_string(getpid()));

stream *request(stream *out, std::uint32_t group)
{
    stream_reset(out);
    sclient_create_header(out, SCLIENT_MSG_TRUNK_DESTROY);
    stream_putl(out, group);
    stream_putw_at(out, 0, static_cast<std::uint16_t>(stream_get_endp(out)));
    return out;
}

TEST(Sclient, MakesGoodWhatMayBeLost)
{
    event_loop *loop = event_master_create("test");
    std::optional<olt::ListeningSocket> service;
    std::vector<olt::Descriptor> peers;

    // A client that sends a request for group 9 whenever it is called back.
    const auto start = [loop] {
        std::unique_ptr<sclient, decltype(&sclient_free)> client(sclient_new(loop, 0, nullptr), sclient_free);
        client->reconnected = [](sclient *called) {
            const std::unique_ptr<stream, decltype(&stream_free)> out(stream_new(SCLIENT_MAX_MESSAGE), stream_free);
            sclient_send_stream(called, request(out.get(), 9));
        };
        EXPECT_EQ(sclient_init(client.get(), SCLIENT_KIND_LACP, 7, nullptr), 0);
        return client;
    };
    const auto send = [](const auto &client, std::uint32_t group) {
        request(client->obuf, group);
        return sclient_send_message(client.get()) == 0;
    };
    const auto stop_service = [&] {
        peers.clear();
        service.reset();
    };
    // What the service sees for a little longer than a client's retry: new connections and the groups of requests.
    const auto seen = [&](bool reads = true) {
        std::string text;
        for (const auto end = std::chrono::steady_clock::now() + 1300ms; std::chrono::steady_clock::now() < end;) {
            static event *beat;
            event due{};
            event_add_timer_msec(
                loop, [](event *) {}, nullptr, 10, &beat);
            event_call(event_fetch(loop, &due));
            if (olt::Descriptor peer = service ? service->accept() : olt::Descriptor(); peer.is_open()) {
                peers.push_back(std::move(peer));
                text += '+';
            }
            Bytes message(12);
            for (const olt::Descriptor &peer : peers)
                while (reads && recv(peer.get(), message.data(), message.size(), MSG_DONTWAIT) > 0) {
                    EXPECT_EQ(message, (Bytes{0, 12, 1, 2, 0, 7, 0, 11, 0, 0, 0, message.back()}));
                    text += std::to_string(message.back());
                }
        }
        return text;
    };

    setenv(SCLIENT_SOCKET_ENV, PATH.c_str(), 1);
    testing::internal::CaptureStderr();
    const auto client = start();
    EXPECT_FALSE(send(client, 1));
    {
        const auto prompt = start(), patient = start();
        service.emplace(PATH, SOCK_SEQPACKET).listen();
        const auto late = start();
        EXPECT_TRUE(send(prompt, 2) && send(late, 3)) << "connected at once";
        EXPECT_EQ(seen(), "+3+2+9+") << "a first connection is no reconnection, but a request was lost before it";
    }
    stop_service();
    EXPECT_EQ(seen(), "");
    service.emplace(PATH, SOCK_SEQPACKET).listen();
    EXPECT_EQ(seen(), "+9");
    stop_service();
    service.emplace(PATH, SOCK_SEQPACKET).listen();
    EXPECT_TRUE(send(client, 3)) << "although the loss is not yet noticed";
    EXPECT_EQ(seen(), "+39");
    peers.clear();
    EXPECT_EQ(seen(), "+9");
    std::string sent;
    while (send(client, 1))
        sent += '1';
    EXPECT_EQ(seen(false), "") << "the socket is still full when it is called back";
    EXPECT_EQ(seen(), sent + '9');

    const Bytes error{0, 16, 1, 2, 0, 0, 0, 255, 0, 0, 0, 9, 0, 0, 0, 12};
    for (unsigned count = 0; count < 80; ++count)
        ::send(peers.back().get(), error.data(), error.size() - count % 2, MSG_NOSIGNAL);
    EXPECT_EQ(seen(), "");
    EXPECT_EQ(sclient_error_replies(client.get()), 40u);
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                testing::MatchesRegex("((sclient: [^\n]* at [^\n]* is not reachable; trying again every second\n)+"
                                      "(sclient: [^\n]* at [^\n]* is there again\n)+){3}"
                                      "(sclient: [^\n]* refused request 12 with error code 9\n){20}"));
    EXPECT_EQ(sclient_send_message(nullptr), -1);

    const std::jthread another([&](const std::stop_token &stop) { // for ThreadSanitizer
        while (!stop.stop_requested())
            send(client, 1);
    });
    stop_service();
    service.emplace(PATH, SOCK_SEQPACKET).listen();
    EXPECT_EQ(seen().substr(0, 2), "+1");
    std::filesystem::remove(PATH + ".lock");
}

TEST(Utilities, TellInventoryAndAddressAndWhetherAConfigurationCanBeRead)
{
    std::string results;
    for (const auto &[first, last] : {std::pair(1u, 1u), {1u, 8u}, {8u, 8u}, {0u, 8u}, {1u, 9u}, {5u, 4u}}) {
        const DevPortInfo info{0, first, last, 0};
        PortInventory inventory{3, 4};
        results += std::to_string(port_init(&info, &inventory)) + ":";
        results += std::to_string(inventory.last_uplink_port) + " ";
    }
    EXPECT_EQ(results, "0:1 0:8 0:8 -9:0 -9:0 -9:0 ");

    Bytes mac(6, 1);
    EXPECT_EQ(system_get_eth_mac("no-such-if", mac.data()), -1);
    EXPECT_TRUE(system_get_eth_mac("lo", mac.data()) == 0 && mac == Bytes(6));

    EXPECT_TRUE(geteuid() != 0 || seteuid(1) == 0);
    const auto restores = [](const char *named, const char *without_name) {
        frr_daemon_info daemon{};
        daemon.name = "lacpd";
        daemon.config_file = named;
        snprintf(config_default, sizeof(config_default), "%s", without_name);
        return daemon_restart_restore_config(&daemon) == 0;
    };
    EXPECT_TRUE(restores("/etc/passwd", "/none") && restores(nullptr, "/none"));
    EXPECT_FALSE(restores("/etc/shadow", "/none") || restores("/none", "/etc/passwd") ||
                 restores(nullptr, "/etc/shadow"));
    EXPECT_TRUE(getuid() != 0 || seteuid(0) == 0);
}

TEST(Utilities, StartThreadsWithNameArgumentAndNoSignals)
{
    static const auto signals = [] {
        sigset_t mask;
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        return std::to_string(sigismember(&mask, SIGTERM)) + std::to_string(sigismember(&mask, SIGSEGV));
    };
    const auto look = [](SystemThread *thread) -> void * {
        char name[16];
        pthread_getname_np(pthread_self(), name, sizeof(name));
        static_cast<std::promise<std::string> *>(system_pthread_argument(thread))->set_value(name + signals());
        return nullptr;
    };
    static std::promise<std::string> at_creation, at_run;
    static SystemThread *thread; // as the daemon keeps it: a record is never freed
    thread = system_pthread_create("x", "a-name-of-many-characters", look, 0, &at_creation);
    EXPECT_EQ(system_pthread_run(thread, 1, nullptr), EINVAL);
    EXPECT_EQ(system_pthread_run(thread, 0, nullptr), 0);
    EXPECT_EQ(at_creation.get_future().get(), "a-name-of-many-10");
    EXPECT_EQ(system_pthread_run(thread, 0, &at_run), 0);
    EXPECT_EQ(at_run.get_future().get() + signals(), "a-name-of-many-1000") << "the caller's mask is as before";
}

} // namespace
