// Dumps of received and sent frames.
#include "terminal.h"

#include "engine.h"

namespace
{

const std::string LINE = "\n=================================================\r\n"; // 49 signs

std::string digits(const Bytes &bytes, std::size_t first, std::size_t count)
{
    std::string text;
    for (std::size_t i = first; i < first + count; ++i) {
        char pair[3];
        snprintf(pair, sizeof pair, "%02x", bytes[i]);
        text += pair;
    }
    return text;
}

std::string dump(const Bytes &bytes)
{
    return printed([&] { lacp_pkt_dump(bytes.data(), static_cast<int>(bytes.size()), "send"); });
}

Bytes counting(std::size_t size)
{
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<std::uint8_t>(i);
    return bytes;
}

TEST(PacketDump, EighteenBytes)
{
    EXPECT_EQ(dump(counting(18)), LINE +
                                      "description: send\npacket len:  18\n\n"
                                      "0001 0203 0405 0607 0809 0a0b 0c0d 0e0f \n1011 " +
                                      LINE);
}

TEST(PacketDump, AFullLineAndAnOddByte)
{
    EXPECT_EQ(dump(counting(16)), LINE +
                                      "description: send\npacket len:  16\n\n"
                                      "0001 0203 0405 0607 0809 0a0b 0c0d 0e0f \n" +
                                      LINE);
    EXPECT_EQ(dump({0xAB, 0xCD, 0xEF}), LINE + "description: send\npacket len:  3\n\nabcd ef" + LINE);
}

TEST(PacketDump, NothingToShow)
{
    EXPECT_EQ(dump({}), LINE + "description: send\npacket len:  0\n\n" + LINE);
    const std::uint8_t byte = 1;
    EXPECT_EQ(printed([&] { lacp_pkt_dump(&byte, -1, "recv"); }),
              LINE + "description: recv\npacket len:  -1\n\n" + LINE);
}

TEST(PacketDump, TheLongestFrame)
{
    const Bytes frame = counting(2176);
    std::string body;
    for (std::size_t line = 0; line < 2176; line += 16) {
        for (std::size_t at = line; at < line + 16; at += 2)
            body += digits(frame, at, 2) + " ";
        body += "\n";
    }
    EXPECT_EQ(body.size(), 5576U);
    EXPECT_EQ(dump(frame), LINE + "description: send\npacket len:  2176\n\n" + body + LINE);
}

TEST(PacketDump, DirectionsHaveTheirOwnFlag)
{
    lacp_set_pkt_debug(LACP_PKT_RX, 1);
    lacp_set_pkt_debug(LACP_PKT_TX, 0);
    lacp_set_pkt_debug(2, 1);
    EXPECT_EQ(lacp_get_pkt_debug(0), 1U);
    EXPECT_EQ(lacp_get_pkt_debug(1), 0U);
    EXPECT_EQ(lacp_get_pkt_debug(5), 0U) << "any other number is the sent direction";
    lacp_set_pkt_debug(LACP_PKT_RX, 0);
    lacp_set_pkt_debug(LACP_PKT_TX, 1);
    EXPECT_EQ(lacp_get_pkt_debug(0), 0U);
    EXPECT_EQ(lacp_get_pkt_debug(5), 1U);
    lacp_set_pkt_debug(LACP_PKT_TX, 0);
}

class PacketTraces : public EngineTest
{
  protected:
    // One frame in, one out.
    std::string exchange()
    {
        return printed([this] {
            Bytes frame = received;
            frame.resize(LACP_RX_BUFFER_SIZE);
            lacp_pkt_take(frame.data(), static_cast<int>(received.size()), lacp_bpdu_recv);
            lacp_bpdu_transmit(0, 0, 3, sent.data(), sent.size());
        });
    }

    static std::string whole(const char *description, const Bytes &bytes)
    {
        return printed([&] { lacp_pkt_dump(bytes.data(), static_cast<int>(bytes.size()), description); });
    }

    Bytes received = tagged_frame(3, Bytes(46, 0x5A));
    Bytes sent = counting(124);
};

TEST_F(PacketTraces, NothingByDefault)
{
    EXPECT_EQ(exchange(), "");
}

TEST_F(PacketTraces, ReceivedFramesWithAndWithoutTheirTag)
{
    Bytes without(received.begin(), received.begin() + 12);
    without.insert(without.end(), received.begin() + 24, received.end());
    const std::string expected =
        whole("recv(lacp raw data)", received) + whole("recv(lacp no ktag and port)", without);
    EXPECT_NE(expected.find("\npacket len:  76\n\n0180 c200 0002 0233 4455 6677 9082 0000 \n0000 0003 0000 0000 "),
              std::string::npos)
        << expected;
    EXPECT_NE(expected.find("\npacket len:  64\n\n0180 c200 0002 0233 4455 6677 8100 0001 \n8809 5a5a "),
              std::string::npos)
        << expected;
    lacp_set_pkt_debug(LACP_PKT_RX, 1);
    EXPECT_EQ(exchange(), expected);
}

TEST_F(PacketTraces, SentFramesWithTheirTag)
{
    Bytes tagged(sent.begin(), sent.begin() + 12);
    const Bytes tag = hex("90 89 00 00 00 00 03 00 00 00 00 00");
    tagged.insert(tagged.end(), tag.begin(), tag.end());
    tagged.insert(tagged.end(), sent.begin() + 12, sent.end());
    lacp_set_pkt_debug(LACP_PKT_TX, 1);
    const std::string expected = whole("send", tagged);
    EXPECT_EQ(exchange(), expected);
    EXPECT_NE(expected.find("\ndescription: send\npacket len:  136\n\n0001 0203 0405 0607 0809 0a0b 9089 0000 \n"
                            "0000 0300 0000 0000 0c0d "),
              std::string::npos)
        << expected;
}

TEST_F(PacketTraces, AFrameWithAnotherTagIsDumpedOnce)
{
    received[13] = 0x89;
    lacp_set_pkt_debug(LACP_PKT_RX, 1);
    EXPECT_EQ(exchange(), whole("recv(lacp raw data)", received) + "Msg: Parse msg error.");
}

TEST_F(PacketTraces, AFrameThatFillsTheBuffer)
{
    received = tagged_frame(3, counting(2176 - 30));
    ASSERT_EQ(received.size(), 2176U);
    lacp_set_pkt_debug(LACP_PKT_RX, 1);
    const std::string text = exchange();
    Bytes without(received.begin(), received.begin() + 12);
    without.insert(without.end(), received.begin() + 24, received.end());
    EXPECT_EQ(text, whole("recv(lacp raw data)", received) + whole("recv(lacp no ktag and port)", without));
}

} // namespace
