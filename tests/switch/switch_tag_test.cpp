#include "switch_tag.h"

#include <gtest/gtest.h>

namespace
{

using Bytes = std::vector<std::uint8_t>;

const Bytes ADDRESSES = {0x01, 0x80, 0xC2, 0x00, 0x00, 0x02, 0x02, 0x00, 0x00, 0x00, 0x0A, 0x01};
const Bytes PDU = {0x88, 0x09, 0x01, 0x01, 0x01, 0x14};

Bytes operator+(Bytes left, const Bytes &right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

TEST(SwitchTag, NamesThePortBigEndianBeforeAVlanTag)
{
    const Bytes tags = {0x90, 0x82, 0, 0, 0, 0, 0x02, 0x03, 0, 0, 0, 0, 0x81, 0x00, 0x0F, 0xED};
    for (const Bytes &rest : {PDU, Bytes{}})
        EXPECT_EQ(olt::tag_for_cpu(ADDRESSES + rest, 0x0203, 0x0FED), ADDRESSES + tags + rest);
}

TEST(SwitchTag, FromTheCpuThePortIsLittleEndianAndTheTagGoes)
{
    const auto egress = olt::untag_from_cpu(
        ADDRESSES + Bytes{0x90, 0x89, 0xFF, 0xFF, 0xFF, 0xFF, 0x03, 0x01, 0xFF, 0xFF, 0xFF, 0xFF} + PDU);
    ASSERT_TRUE(egress);
    EXPECT_EQ(egress->port, 0x0103u);
    EXPECT_EQ(egress->frame, ADDRESSES + PDU);
}

TEST(SwitchTag, OtherTagsAndCutFramesAreNone)
{
    const Bytes tag = {0x90, 0x89, 0, 0, 0, 0, 3, 0, 0, 0, 0, 0};
    for (const Bytes &type : {Bytes{0x90, 0x82}, Bytes{0x89, 0x90}, Bytes{0x90, 0x88}, Bytes{0x88, 0x09}})
        EXPECT_FALSE(olt::untag_from_cpu(ADDRESSES + type + Bytes(tag.begin() + 2, tag.end()) + PDU));
    const Bytes whole = ADDRESSES + tag + Bytes{0x88, 0x09};
    EXPECT_TRUE(olt::untag_from_cpu(whole));
    for (std::size_t size = 0; size < whole.size(); ++size)
        EXPECT_FALSE(olt::untag_from_cpu(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size))));
}

TEST(SlowProtocols, AreKnownByAddressOrType)
{
    const Bytes unicast(12, 0x02);
    EXPECT_TRUE(olt::is_slow_protocols(ADDRESSES + PDU));
    EXPECT_TRUE(olt::is_slow_protocols(unicast + PDU));
    EXPECT_TRUE(olt::is_slow_protocols(ADDRESSES + Bytes{0x08, 0x00}));
    EXPECT_FALSE(olt::is_slow_protocols(unicast + Bytes{0x08, 0x00}));
    EXPECT_FALSE(olt::is_slow_protocols(unicast + Bytes{0x88}));
    EXPECT_FALSE(olt::is_slow_protocols(ADDRESSES));
    EXPECT_FALSE(olt::is_slow_protocols({}));
}

} // namespace
