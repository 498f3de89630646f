#include "forwarding.h"

#include <gtest/gtest.h>
#include <map>
#include <set>

namespace
{

using olt::choose_member;
using olt::egress_of;
using olt::flow_hash;
using olt::Members;
using olt::TrunkTable;
using Bytes = std::vector<std::uint8_t>;

constexpr std::uint32_t SRC_IP = 0, DST_IP = 1, SRC_MAC = 9, DST_MAC = 10, SRC_DST_IP = 18, SRC_DST_MAC = 19;
constexpr std::uint32_t ALL_CRITERIA[] = {SRC_IP, DST_IP, SRC_MAC, DST_MAC, SRC_DST_IP, SRC_DST_MAC};

Bytes operator+(Bytes left, const Bytes &right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

const Bytes NO_TAG;
const Bytes VLAN_5 = {0x81, 0x00, 0x00, 0x05};
const Bytes VLAN_6 = {0x81, 0x00, 0x60, 0x06};
const Bytes SERVICE_VLAN_5 = {0x88, 0xA8, 0x00, 0x05};

// A frame whose addresses differ in their last byte only.
struct Sample {
    std::uint8_t src_mac = 1;
    std::uint8_t dst_mac = 2;
    std::uint8_t src_ip = 3;
    std::uint8_t dst_ip = 4;
    std::uint8_t payload = 5;
    Bytes tag = NO_TAG;

    Bytes macs() const { return Bytes{2, 0, 0, 0, 0, dst_mac, 2, 0, 0, 0, 0, src_mac} + tag; }
    Bytes ipv4() const
    {
        return macs() + Bytes{0x08, 0, 0x45, 0, 0, 21, payload, 0, 0, 0, 64, 17, 0, 0} +
               Bytes{10, 0, 0, src_ip, 10, 0, 0, dst_ip, payload};
    }
    Bytes ipv6() const
    {
        Bytes addresses(32);
        addresses[15] = src_ip;
        addresses[31] = dst_ip;
        return macs() + Bytes{0x86, 0xDD, 0x60, 0, 0, payload, 0, 1, 17, 64} + addresses + Bytes{payload};
    }
    Bytes other() const { return macs() + Bytes{0x08, 0x06, 0, 1, payload, src_ip, dst_ip} + Bytes(40); }
};

using Kind = Bytes (Sample::*)() const;

struct Change {
    const char *name;
    std::uint8_t Sample::*field;
};

constexpr Change CHANGES[] = {{"source MAC", &Sample::src_mac},
                              {"destination MAC", &Sample::dst_mac},
                              {"source IP", &Sample::src_ip},
                              {"destination IP", &Sample::dst_ip},
                              {"payload", &Sample::payload}};

// Which of the changes make another flow, in their order.
using Significant = std::array<bool, 5>;

void expect_significant(std::uint32_t criterion, Kind kind, const Bytes &tag, const Significant &expected)
{
    Sample sample;
    sample.tag = tag;
    const auto before = flow_hash(criterion, (sample.*kind)());
    for (std::size_t number = 0; number < expected.size(); ++number) {
        Sample changed = sample;
        changed.*CHANGES[number].field = 77;
        EXPECT_EQ(flow_hash(criterion, (changed.*kind)()) != before, expected[number])
            << "criterion " << criterion << ", " << CHANGES[number].name << ", tag of " << tag.size() << " bytes";
    }
}

struct Expectation {
    std::uint32_t criterion;
    Significant ip;    // in an IP packet
    Significant other; // in another frame
};

const Expectation EXPECTATIONS[] = {
    {SRC_MAC, {true, false, false, false, false}, {true, false, false, false, false}},
    {DST_MAC, {false, true, false, false, false}, {false, true, false, false, false}},
    {SRC_DST_MAC, {true, true, false, false, false}, {true, true, false, false, false}},
    {SRC_IP, {false, false, true, false, false}, {true, false, false, false, false}},
    {DST_IP, {false, false, false, true, false}, {false, true, false, false, false}},
    {SRC_DST_IP, {false, false, true, true, false}, {true, true, false, false, false}},
};

TEST(FlowHash, DependsOnTheAddressesOfTheCriterionAndOnNothingElse)
{
    for (const auto &[criterion, ip, other] : EXPECTATIONS)
        for (const Bytes &tag : {NO_TAG, VLAN_5, SERVICE_VLAN_5}) {
            expect_significant(criterion, &Sample::ipv4, tag, ip);
            expect_significant(criterion, &Sample::ipv6, tag, ip);
            expect_significant(criterion, &Sample::other, tag, other);
        }
}

TEST(FlowHash, AVlanTagMakesNoOtherFlow)
{
    for (const std::uint32_t criterion : ALL_CRITERIA)
        for (const Kind kind : {&Sample::ipv4, &Sample::ipv6, &Sample::other}) {
            Sample plain, tagged, retagged;
            tagged.tag = VLAN_5;
            retagged.tag = VLAN_6;
            EXPECT_EQ(flow_hash(criterion, (plain.*kind)()), flow_hash(criterion, (tagged.*kind)()));
            EXPECT_EQ(flow_hash(criterion, (tagged.*kind)()), flow_hash(criterion, (retagged.*kind)()));
        }
}

TEST(FlowHash, BehindTwoTagsTheMacAddressesCount)
{
    Sample sample, other_ip, other_mac;
    sample.tag = other_ip.tag = other_mac.tag = SERVICE_VLAN_5 + VLAN_5;
    other_ip.src_ip = 77;
    other_mac.src_mac = 77;
    EXPECT_EQ(flow_hash(SRC_IP, sample.ipv4()), flow_hash(SRC_IP, other_ip.ipv4()));
    EXPECT_NE(flow_hash(SRC_IP, sample.ipv4()), flow_hash(SRC_IP, other_mac.ipv4()));
}

TEST(FlowHash, EveryByteOfAnIpv6AddressCounts)
{
    const Bytes frame = Sample().ipv6();
    std::set<std::uint64_t> hashes{flow_hash(SRC_IP, frame)};
    for (std::size_t at = 14 + 8; at < 14 + 24; ++at) {
        Bytes changed = frame;
        changed[at] ^= 0x40;
        hashes.insert(flow_hash(SRC_IP, changed));
    }
    EXPECT_EQ(hashes.size(), 17u);
}

TEST(FlowHash, ACutHeaderFallsBackToMacAddresses)
{
    Sample other;
    other.src_ip = 77;
    for (const Kind kind : {&Sample::ipv4, &Sample::ipv6}) {
        const std::size_t header = kind == static_cast<Kind>(&Sample::ipv4) ? 34 : 54;
        Bytes frame = (Sample().*kind)(), changed = (other.*kind)();
        frame.resize(header - 1);
        changed.resize(header - 1);
        EXPECT_EQ(flow_hash(SRC_IP, frame), flow_hash(SRC_MAC, frame));
        EXPECT_EQ(flow_hash(SRC_IP, frame), flow_hash(SRC_IP, changed));
    }
}

TEST(FlowHash, WhatLiesBehindACutFrameDoesNotCount)
{
    for (const Bytes &tag : {NO_TAG, VLAN_5})
        for (const Kind kind : {&Sample::ipv4, &Sample::ipv6}) {
            Sample sample;
            sample.tag = tag;
            const Bytes frame = (sample.*kind)();
            for (std::size_t length = 14; length <= frame.size(); ++length) {
                const auto head = olt::Frame(frame).first(length);
                const Bytes alone(head.begin(), head.end()); // a sanitizer sees what is read behind it
                for (const std::uint32_t criterion : ALL_CRITERIA)
                    EXPECT_EQ(flow_hash(criterion, head), flow_hash(criterion, alone)) << length;
                Bytes followed = alone + Bytes(64, 0xA5);
                for (const std::uint32_t criterion : ALL_CRITERIA)
                    EXPECT_EQ(flow_hash(criterion, head), flow_hash(criterion, olt::Frame(followed).first(length)));
            }
        }
}

// ---- members

TEST(ChooseMember, GivesMembersOnly)
{
    for (const unsigned long members : {0b1ul, 0b10000000ul, 0b101ul, 0b1111ul, 0b11110000ul})
        for (std::uint64_t hash = 0; hash < 1000; ++hash)
            EXPECT_TRUE(Members(members)[choose_member(members, hash) - 1]);
}

TEST(ChooseMember, NeighbouringAddressesSpreadOverAllMembers)
{
    for (const std::uint32_t criterion : ALL_CRITERIA) {
        std::map<std::uint32_t, int> flows;
        for (unsigned number = 0; number < 250; ++number) {
            const auto byte = static_cast<std::uint8_t>(number);
            const Sample sample{byte, byte, byte, byte, 0, NO_TAG};
            ++flows[choose_member(0b1111, flow_hash(criterion, sample.ipv4()))];
        }
        EXPECT_EQ(flows.size(), 4u);
        for (const auto &[port, count] : flows)
            EXPECT_GT(count, 250 / 4 / 2) << "criterion " << criterion << ", port " << port;
    }
}

TEST(ChooseMember, OnlyFlowsOfALostMemberMove)
{
    int moved = 0;
    for (std::uint64_t hash = 0; hash < 1000; ++hash) {
        const auto before = choose_member(0b1111, hash);
        const auto after = choose_member(0b1011, hash);
        if (before == 3)
            ++moved;
        else
            EXPECT_EQ(after, before);
    }
    EXPECT_GT(moved, 150);
    EXPECT_LT(moved, 350);
}

// ---- forwarding

TEST(Egress, WithoutATrunkNothingLeaves)
{
    TrunkTable trunks;
    EXPECT_EQ(egress_of(trunks, Sample().ipv4()), std::nullopt);
    trunks.set(2, SRC_MAC, 0b10);
    trunks.remove(2);
    EXPECT_EQ(egress_of(trunks, Sample().ipv4()), std::nullopt);
}

TEST(Egress, TheLowestGroupCarriesAndTheNextOneStandsIn)
{
    TrunkTable trunks;
    trunks.set(3, SRC_MAC, 0b1000);
    EXPECT_EQ(egress_of(trunks, Sample().ipv4()), (olt::Egress{3, 4}));
    trunks.set(2, SRC_MAC, 0b0100);
    EXPECT_EQ(egress_of(trunks, Sample().ipv4()), (olt::Egress{2, 3}));
    trunks.remove(2);
    EXPECT_EQ(egress_of(trunks, Sample().ipv4()), (olt::Egress{3, 4}));
}

TEST(Egress, TheTrunksCriterionDecides)
{
    TrunkTable trunks;
    trunks.set(1, SRC_MAC, 0b1111);
    const auto ports = [&trunks] {
        std::set<std::uint32_t> found;
        for (std::uint8_t address = 0; address < 100; ++address)
            found.insert(egress_of(trunks, Sample{1, 2, address, 4, 5, NO_TAG}.ipv4())->port);
        return found.size();
    };
    EXPECT_EQ(ports(), 1u);
    trunks.set_criterion(1, SRC_IP);
    EXPECT_EQ(ports(), 4u);
}

TEST(GroupOf, APortInNoTrunkHasNone)
{
    TrunkTable trunks;
    trunks.set(1, SRC_MAC, 0b0011);
    trunks.set(4, SRC_MAC, 0b1100);
    EXPECT_EQ(olt::group_of(trunks, 2), 1u);
    EXPECT_EQ(olt::group_of(trunks, 3), 4u);
    EXPECT_EQ(olt::group_of(trunks, 5), std::nullopt);
    trunks.set(1, SRC_MAC, 0b0001);
    EXPECT_EQ(olt::group_of(trunks, 2), std::nullopt);
}

TEST(UserFrames, AreThoseThatABridgePassesOn)
{
    const Bytes rest = Bytes{2, 0, 0, 0, 0, 1, 0x08, 0x00} + Bytes(46);
    for (unsigned last = 0; last < 16; ++last)
        EXPECT_FALSE(olt::is_user_frame(Bytes{0x01, 0x80, 0xC2, 0, 0, static_cast<std::uint8_t>(last)} + rest))
            << last;
    EXPECT_TRUE(olt::is_user_frame(Bytes{0x01, 0x80, 0xC2, 0, 0, 0x10} + rest));
    EXPECT_TRUE(olt::is_user_frame(Bytes{0x01, 0x80, 0xC2, 0, 1, 0} + rest));
    EXPECT_TRUE(olt::is_user_frame(Bytes(6, 0xFF) + rest));
    EXPECT_TRUE(olt::is_user_frame(Sample().other()));
    EXPECT_FALSE(olt::is_user_frame(Sample().macs() + Bytes{0x88, 0x09, 1, 1})) << "slow protocols";
    EXPECT_FALSE(olt::is_user_frame(Bytes(13))) << "no type";
    EXPECT_FALSE(olt::is_user_frame(Bytes())) << "did not fit";
}

} // namespace
