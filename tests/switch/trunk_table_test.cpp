#include "trunk_table.h"

#include <gtest/gtest.h>

namespace
{

using namespace std::chrono_literals;
using olt::Members;
using olt::TrunkTable;
using Groups = TrunkTable::Groups;

constexpr std::uint32_t SRC_MAC = 9;
constexpr std::uint32_t DST_IP = 1;

class TrunkTableTest : public testing::Test
{
  protected:
    const olt::Trunk &trunk(std::uint32_t group) { return table_.all().at(group); }

    TrunkTable table_;
    const TrunkTable::Clock::time_point now_ = TrunkTable::Clock::now();
};

TEST_F(TrunkTableTest, ATrunkIsWhatTheLastRequestSays)
{
    EXPECT_FALSE(table_.set_criterion(1, DST_IP));
    EXPECT_TRUE(table_.all().empty());
    EXPECT_EQ(table_.set(1, SRC_MAC, 0b011).changed, Groups{1});
    EXPECT_EQ(table_.set(1, SRC_MAC, 0b011).changed, Groups{}) << "the same again";
    EXPECT_EQ(table_.set(1, DST_IP, 0b011).changed, Groups{1});
    EXPECT_EQ(table_.set(1, DST_IP, 0b110).changed, Groups{1});
    EXPECT_TRUE(table_.set_criterion(1, SRC_MAC));
    EXPECT_EQ(trunk(1), (olt::Trunk{SRC_MAC, 0b110, false}));
    EXPECT_EQ(table_.all().size(), 1u);
    EXPECT_TRUE(table_.remove(1));
    EXPECT_FALSE(table_.remove(1));
}

TEST_F(TrunkTableTest, APortMovesToTheTrunkThatAsksLast)
{
    table_.set(1, SRC_MAC, 0b0011);
    table_.set(3, SRC_MAC, 0b1000);
    const auto effect = table_.set(2, SRC_MAC, 0b1110);
    EXPECT_EQ(effect.changed, (Groups{1, 3, 2}));
    EXPECT_EQ(effect.moved_ports, 2u);
    EXPECT_EQ(trunk(1).members, Members(0b0001));
    EXPECT_EQ(trunk(2).members, Members(0b1110));
    EXPECT_EQ(table_.find(3), nullptr) << "a trunk without members is none";
}

TEST_F(TrunkTableTest, StaleTrunksGoAtTheDeadlineUnlessAskedForAgain)
{
    table_.set(1, SRC_MAC, 0b001);
    table_.set(2, SRC_MAC, 0b010);
    EXPECT_EQ(table_.sweep(now_ + 1h), Groups{}) << "never marked";
    table_.mark_stale(now_ + 10s);
    EXPECT_TRUE(trunk(1).stale);
    table_.set_criterion(1, DST_IP); // does not ask for the trunk
    table_.set(2, SRC_MAC, 0b010);
    table_.set(3, SRC_MAC, 0b100);
    EXPECT_FALSE(trunk(2).stale);
    EXPECT_EQ(table_.sweep(now_ + 10s - 1ns), Groups{});
    EXPECT_EQ(table_.sweep(now_ + 10s), Groups{1});
    EXPECT_EQ(table_.all().size(), 2u);
}

TEST_F(TrunkTableTest, WithoutADeadlineStaleTrunksStay)
{
    table_.set(1, SRC_MAC, 0b001);
    table_.mark_stale(now_);
    table_.drop_deadline();
    EXPECT_EQ(table_.sweep(now_ + 1h), Groups{});
    EXPECT_TRUE(trunk(1).stale);
    table_.mark_stale(now_ + 2h);
    EXPECT_EQ(table_.sweep(now_ + 2h), Groups{1});
}

TEST(Criterion, HasTheNamesOfItsCodes)
{
    const std::pair<std::uint32_t, const char *> names[] = {{0, "src-ip"},   {1, "dst-ip"},      {9, "src-mac"},
                                                            {10, "dst-mac"}, {18, "src-dst-ip"}, {19, "src-dst-mac"}};
    for (const auto &[code, name] : names)
        EXPECT_EQ(olt::criterion_name(code), name);
    for (const std::uint32_t code : {2u, 8u, 11u, 17u, 20u, 0xFFFFFFFFu})
        EXPECT_FALSE(olt::criterion_name(code));
}

TEST(PortNumbers, CountFromOne)
{
    EXPECT_EQ(olt::port_numbers(0b10000101), (std::vector<std::uint32_t>{1, 3, 8}));
    EXPECT_TRUE(olt::port_numbers(0).empty());
}

} // namespace
