// Dumps of received and sent frames.
#include "terminal.h"

#include "engine.h"

namespace
{

const std::string LINE = "\n=================================================\r\n"; // 49 signs

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

TEST(PacketDump, WholeTexts)
{
    const std::string lines = "0001 0203 0405 0607 0809 0a0b 0c0d 0e0f \n";
    const std::pair<Bytes, std::string> dumps[] = {
        {counting(18), lines + "1011 "}, {counting(16), lines}, {{0xAB, 0xCD, 0xEF}, "abcd ef"}, {{}, ""}};
    for (const auto &[bytes, text] : dumps)
        EXPECT_EQ(dump(bytes),
                  LINE + "description: send\npacket len:  " + std::to_string(bytes.size()) + "\n\n" + text + LINE);
    const std::uint8_t byte = 1;
    EXPECT_EQ(printed([&] { lacp_pkt_dump(&byte, -1, "recv"); }),
              LINE + "description: recv\npacket len:  -1\n\n" + LINE);
    std::string longest;
    for (int line = 0; line < 136; ++line)
        longest += "a5a5 a5a5 a5a5 a5a5 a5a5 a5a5 a5a5 a5a5 \n";
    EXPECT_EQ(longest.size(), 5576U);
    EXPECT_EQ(dump(Bytes(2176, 0xA5)), LINE + "description: send\npacket len:  2176\n\n" + longest + LINE);
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

TEST_F(PacketTraces, ReceivedFramesWithAndWithoutTheirTag)
{
    EXPECT_EQ(exchange(), "") << "by default";
    lacp_set_pkt_debug(LACP_PKT_RX, 1);
    for (const Bytes &pdu : {Bytes(46, 0x5A), counting(2176 - 30)}) { // the second one fills the buffer
        received = tagged_frame(3, pdu);
        Bytes without(received.begin(), received.begin() + 12);
        without.insert(without.end(), received.begin() + 24, received.end());
        EXPECT_EQ(exchange(), whole("recv(lacp raw data)", received) + whole("recv(lacp no ktag and port)", without));
    }
    received[13] = 0x89; // another tag
    EXPECT_EQ(exchange(), whole("recv(lacp raw data)", received) + "Msg: Parse msg error.");
}

TEST_F(PacketTraces, SentFramesWithTheirTag)
{
    Bytes tagged(sent.begin(), sent.begin() + 12);
    const Bytes tag = hex("90 89 00 00 00 00 03 00 00 00 00 00");
    tagged.insert(tagged.end(), tag.begin(), tag.end());
    tagged.insert(tagged.end(), sent.begin() + 12, sent.end());
    lacp_set_pkt_debug(LACP_PKT_TX, 1);
    EXPECT_EQ(exchange(), whole("send", tagged));
}

} // namespace
