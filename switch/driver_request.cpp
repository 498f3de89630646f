#include "driver_request.h"

namespace olt
{

namespace
{

constexpr std::size_t FIELD_SIZE = 4;

// Reads the header's and the body's big-endian fields; the caller has checked the length.
class Reader
{
  public:
    explicit Reader(std::span<const std::uint8_t> message) : message_(message) {}

    std::uint16_t length() const { return get16(0); }
    std::uint8_t version() const { return message_[2]; }
    std::uint8_t kind() const { return message_[3]; }
    std::uint16_t id() const { return get16(6); }
    std::uint32_t field(std::size_t index) const
    {
        const std::size_t at = SCLIENT_HEADER_SIZE + index * FIELD_SIZE;
        return static_cast<std::uint32_t>(get16(at)) << 16 | get16(at + 2);
    }

  private:
    std::uint16_t get16(std::size_t at) const
    {
        return static_cast<std::uint16_t>(message_[at] << 8 | message_[at + 1]);
    }

    std::span<const std::uint8_t> message_;
};

std::optional<std::size_t> body_fields(std::uint16_t id)
{
    switch (id) {
    case SCLIENT_MSG_TRUNK_CREATE:
        return 4;
    case SCLIENT_MSG_TRUNK_DESTROY:
        return 1;
    case SCLIENT_MSG_TRUNK_PSC_SET:
        return 2;
    default:
        return std::nullopt;
    }
}

bool is_group(std::uint32_t group)
{
    return group >= 1 && group <= MAX_GROUP;
}

Request parse_create(const Reader &reader, Members existing_ports)
{
    const CreateTrunk create{reader.field(0), reader.field(1), Members(reader.field(2))};
    if (!criterion_name(create.criterion))
        return SCLIENT_ERROR_LOAD_BALANCE;
    if (create.members.none() || (create.members & ~existing_ports).any() ||
        create.members.count() != reader.field(3))
        return SCLIENT_ERROR_MEMBERS;
    return create;
}

std::optional<SclientError> frame_error(std::span<const std::uint8_t> message)
{
    const Reader reader(message);
    if (message.size() < SCLIENT_HEADER_SIZE || reader.length() != message.size())
        return SCLIENT_ERROR_LENGTH;
    if (reader.version() != SCLIENT_VERSION)
        return SCLIENT_ERROR_VERSION;
    if (reader.kind() != SCLIENT_KIND_LACP)
        return SCLIENT_ERROR_KIND;
    const auto fields = body_fields(reader.id());
    if (!fields)
        return SCLIENT_ERROR_MESSAGE;
    if (message.size() != SCLIENT_HEADER_SIZE + *fields * FIELD_SIZE)
        return SCLIENT_ERROR_BODY;
    return std::nullopt;
}

void put32(std::vector<std::uint8_t> &out, std::uint32_t value)
{
    for (int shift = 24; shift >= 0; shift -= 8)
        out.push_back(static_cast<std::uint8_t>(value >> shift));
}

} // namespace

std::uint16_t message_id(std::span<const std::uint8_t> message)
{
    return message.size() < SCLIENT_HEADER_SIZE ? 0 : Reader(message).id();
}

Request parse_request(std::span<const std::uint8_t> message, Members existing_ports)
{
    if (const auto error = frame_error(message))
        return *error;
    const Reader reader(message);
    if (!is_group(reader.field(0)))
        return SCLIENT_ERROR_GROUP;
    if (reader.id() == SCLIENT_MSG_TRUNK_CREATE)
        return parse_create(reader, existing_ports);
    if (reader.id() == SCLIENT_MSG_TRUNK_DESTROY)
        return DestroyTrunk{reader.field(0)};
    if (!criterion_name(reader.field(1)))
        return SCLIENT_ERROR_LOAD_BALANCE;
    return SetCriterion{reader.field(0), reader.field(1)};
}

bool is_malformed(SclientError error)
{
    return error <= SCLIENT_ERROR_BODY;
}

std::vector<std::uint8_t> error_reply(SclientError error, std::uint16_t refused_id)
{
    constexpr std::uint8_t LENGTH = SCLIENT_HEADER_SIZE + 2 * FIELD_SIZE;
    std::vector<std::uint8_t> reply{0, LENGTH, SCLIENT_VERSION,        SCLIENT_KIND_LACP,
                                    0, 0,      SCLIENT_MSG_ERROR >> 8, SCLIENT_MSG_ERROR & 0xFF};
    put32(reply, error);
    put32(reply, refused_id);
    return reply;
}

} // namespace olt
