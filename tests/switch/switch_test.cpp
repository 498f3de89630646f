// The order of link-status writes, frames whose headers are cut, and the message client against a service.
#include "forwarding.h"
#include "link_publisher.h"
#include "unix_socket.h"

#include "frr/frr.hpp"
#include "sclient/sclient.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <sstream>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

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

const std::string PATH = std::filesystem::temp_directory_path() / ("sclient-test-" + std::to_string(getpid()));

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

} // namespace
