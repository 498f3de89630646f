#include "driver_request.h"

#include <gtest/gtest.h>
#include <random>
#include <string>

namespace
{

using Bytes = std::vector<std::uint8_t>;
using olt::Members;

const Members PORTS{0b00000111};

struct Draft {
    std::uint16_t id = SCLIENT_MSG_TRUNK_CREATE;
    std::vector<std::uint32_t> fields = {1, 9, 0b011, 2};
    std::uint8_t version = 1;
    std::uint8_t kind = 2;
    int length_error = 0;
    Bytes rest{};
};

Bytes message(const Draft &draft)
{
    Bytes out{0, 0, draft.version, draft.kind, 0, 0, 0, static_cast<std::uint8_t>(draft.id)};
    for (const std::uint32_t field : draft.fields)
        for (int shift = 24; shift >= 0; shift -= 8)
            out.push_back(static_cast<std::uint8_t>(field >> shift));
    out.insert(out.end(), draft.rest.begin(), draft.rest.end());
    const auto length = static_cast<std::size_t>(static_cast<int>(out.size()) + draft.length_error);
    out[0] = static_cast<std::uint8_t>(length >> 8);
    out[1] = static_cast<std::uint8_t>(length);
    return out;
}

constexpr auto DESTROY = SCLIENT_MSG_TRUNK_DESTROY;
constexpr auto PSC_SET = SCLIENT_MSG_TRUNK_PSC_SET;

TEST(Request, BadOnesAreRefusedWithTheirCode)
{
    struct Bad {
        const char *name;
        Draft draft;
        SclientError error;
    };
    const Bad table[] = {
        {"short length", {.length_error = -1}, SCLIENT_ERROR_LENGTH},
        {"long length", {.length_error = 1}, SCLIENT_ERROR_LENGTH},
        {"version 0", {.version = 0}, SCLIENT_ERROR_VERSION},
        {"version 2", {.version = 2}, SCLIENT_ERROR_VERSION},
        {"kind 0", {.kind = 0}, SCLIENT_ERROR_KIND},
        {"kind 3", {.kind = 3}, SCLIENT_ERROR_KIND},
        {"id 0", {.id = 0}, SCLIENT_ERROR_MESSAGE},
        {"id 13", {.id = 13}, SCLIENT_ERROR_MESSAGE},
        {"a service's id", {.id = SCLIENT_MSG_ERROR, .fields = {1, 10}}, SCLIENT_ERROR_MESSAGE},
        {"create, no body", {.fields = {}}, SCLIENT_ERROR_BODY},
        {"create, three fields", {.fields = {1, 9, 3}}, SCLIENT_ERROR_BODY},
        {"create, five fields", {.fields = {1, 9, 3, 2, 0}}, SCLIENT_ERROR_BODY},
        {"create, an octet more", {.rest = {0}}, SCLIENT_ERROR_BODY},
        {"destroy, no body", {.id = DESTROY, .fields = {}}, SCLIENT_ERROR_BODY},
        {"destroy, two fields", {.id = DESTROY, .fields = {1, 9}}, SCLIENT_ERROR_BODY},
        {"psc, one field", {.id = PSC_SET, .fields = {1}}, SCLIENT_ERROR_BODY},
        {"psc, three fields", {.id = PSC_SET, .fields = {1, 9, 0}}, SCLIENT_ERROR_BODY},
        {"create, group 0", {.fields = {0, 9, 3, 2}}, SCLIENT_ERROR_GROUP},
        {"create, group 5", {.fields = {5, 9, 3, 2}}, SCLIENT_ERROR_GROUP},
        {"create, group 2^32-1", {.fields = {0xFFFFFFFF, 9, 3, 2}}, SCLIENT_ERROR_GROUP},
        {"destroy, group 0", {.id = DESTROY, .fields = {0}}, SCLIENT_ERROR_GROUP},
        {"psc, group 5", {.id = PSC_SET, .fields = {5, 9}}, SCLIENT_ERROR_GROUP},
        {"create, code 2", {.fields = {1, 2, 3, 2}}, SCLIENT_ERROR_LOAD_BALANCE},
        {"create, code 256", {.fields = {1, 256, 3, 2}}, SCLIENT_ERROR_LOAD_BALANCE},
        {"psc, code 20", {.id = PSC_SET, .fields = {1, 20}}, SCLIENT_ERROR_LOAD_BALANCE},
        {"no member", {.fields = {1, 9, 0, 0}}, SCLIENT_ERROR_MEMBERS},
        {"a port that is not there", {.fields = {1, 9, 0b1001, 2}}, SCLIENT_ERROR_MEMBERS},
        {"port 32", {.fields = {1, 9, 0x80000001, 2}}, SCLIENT_ERROR_MEMBERS},
        {"count too small", {.fields = {1, 9, 3, 1}}, SCLIENT_ERROR_MEMBERS},
        {"count too large", {.fields = {1, 9, 3, 3}}, SCLIENT_ERROR_MEMBERS},
    };
    for (const Bad &bad : table) {
        const auto request = olt::parse_request(message(bad.draft), PORTS);
        ASSERT_TRUE(std::holds_alternative<SclientError>(request)) << bad.name;
        EXPECT_EQ(std::get<SclientError>(request), bad.error) << bad.name;
    }
}

TEST(Request, CreateNamesGroupCriterionAndMembers)
{
    for (const std::uint32_t code : {0u, 1u, 9u, 10u, 18u, 19u})
        for (std::uint32_t group = 1; group <= 4; ++group) {
            const auto request = olt::parse_request(message({.fields = {group, code, 0b101, 2}}), PORTS);
            const auto *create = std::get_if<olt::CreateTrunk>(&request);
            ASSERT_NE(create, nullptr);
            EXPECT_EQ(create->group, group);
            EXPECT_EQ(create->criterion, code);
            EXPECT_EQ(create->members, Members(0b101));
        }
}

TEST(Request, DestroyAndCriterionNameTheirGroup)
{
    const auto destroy = olt::parse_request(message({.id = DESTROY, .fields = {4}}), PORTS);
    ASSERT_TRUE(std::holds_alternative<olt::DestroyTrunk>(destroy));
    EXPECT_EQ(std::get<olt::DestroyTrunk>(destroy).group, 4u);
    const auto set = olt::parse_request(message({.id = PSC_SET, .fields = {2, 18}}), PORTS);
    ASSERT_TRUE(std::holds_alternative<olt::SetCriterion>(set));
    EXPECT_EQ(std::get<olt::SetCriterion>(set).group, 2u);
    EXPECT_EQ(std::get<olt::SetCriterion>(set).criterion, 18u);
}

TEST(Request, EveryCutMessageIsMalformed)
{
    const Bytes whole = message({});
    for (std::size_t size = 0; size < whole.size(); ++size) {
        const auto request = olt::parse_request(std::span(whole).first(size), PORTS);
        ASSERT_TRUE(std::holds_alternative<SclientError>(request)) << size;
        EXPECT_EQ(std::get<SclientError>(request), SCLIENT_ERROR_LENGTH);
    }
}

TEST(Request, AnyBytesAreSafe)
{
    std::mt19937 random(1);
    std::uniform_int_distribution<int> octet(0, 255);
    for (int round = 0; round < 20000; ++round) {
        Bytes bytes = message({});
        bytes.resize(static_cast<std::size_t>(octet(random)) % 40, static_cast<std::uint8_t>(octet(random)));
        for (int change = 0; change < 3 && !bytes.empty(); ++change)
            bytes[static_cast<std::size_t>(octet(random)) % bytes.size()] = static_cast<std::uint8_t>(octet(random));
        const auto request = olt::parse_request(bytes, PORTS);
        const auto *create = std::get_if<olt::CreateTrunk>(&request);
        EXPECT_TRUE(create == nullptr || (create->members.any() && (create->members & ~PORTS).none()));
    }
}

TEST(ErrorReply, CarriesCodeAndRefusedMessage)
{
    EXPECT_EQ(olt::error_reply(SCLIENT_ERROR_NO_TRUNK, 0x010C),
              (Bytes{0, 16, 1, 2, 0, 0, 0, 255, 0, 0, 0, 9, 0, 0, 1, 12}));
    EXPECT_EQ(olt::message_id(message({.id = PSC_SET})), SCLIENT_MSG_TRUNK_PSC_SET);
    EXPECT_EQ(olt::message_id(Bytes(7, 1)), 0);
}

TEST(ErrorCodes, DivideIntoMalformedAndRefused)
{
    for (const auto error :
         {SCLIENT_ERROR_LENGTH, SCLIENT_ERROR_VERSION, SCLIENT_ERROR_KIND, SCLIENT_ERROR_MESSAGE, SCLIENT_ERROR_BODY})
        EXPECT_TRUE(olt::is_malformed(error));
    for (const auto error :
         {SCLIENT_ERROR_GROUP, SCLIENT_ERROR_LOAD_BALANCE, SCLIENT_ERROR_MEMBERS, SCLIENT_ERROR_NO_TRUNK})
        EXPECT_FALSE(olt::is_malformed(error));
}

} // namespace
