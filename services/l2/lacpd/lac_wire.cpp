#include "lac_wire.h"

#include <algorithm>

namespace
{

// Fixed octets of a LACPDU, IEEE Std 802.3 43.4.2.2.
constexpr std::uint8_t VERSION = 1;
constexpr std::uint8_t ACTOR_TLV = 1;
constexpr std::uint8_t PARTNER_TLV = 2;
constexpr std::uint8_t INFORMATION_LENGTH = 20;
constexpr std::uint8_t COLLECTOR_TLV = 3;
constexpr std::uint8_t COLLECTOR_LENGTH = 16;
constexpr std::uint16_t COLLECTOR_MAX_DELAY = 0x0A00;

std::uint16_t get16(const std::uint8_t *bytes)
{
    return static_cast<std::uint16_t>(bytes[0] << 8 | bytes[1]);
}

void put16(std::uint8_t *bytes, std::uint16_t value)
{
    bytes[0] = static_cast<std::uint8_t>(value >> 8);
    bytes[1] = static_cast<std::uint8_t>(value);
}

} // namespace

void lacSetMacHeader(const Mac &source, std::uint8_t *frame)
{
    std::copy(LAC_SLOW_PROTOCOLS_ADDRESS.begin(), LAC_SLOW_PROTOCOLS_ADDRESS.end(), frame);
    std::copy(source.begin(), source.end(), frame + 6);
    put16(frame + 12, LAC_SLOW_PROTOCOLS_ETHERTYPE);
}

void LacpMacHeaderSet(const LacPort *port, std::uint8_t *frame)
{
    lacSetMacHeader(port->port_mac, frame);
}

void lacEncodePdu(const LacInfo &actor, const LacInfo &partner, std::uint8_t *bytes)
{
    bytes[0] = LAC_SUBTYPE_LACP;
    bytes[1] = VERSION;
    bytes[2] = ACTOR_TLV;
    bytes[3] = INFORMATION_LENGTH;
    lacEncodeInfo(actor, bytes + offsetof(LacPdu, actor));
    bytes[22] = PARTNER_TLV;
    bytes[23] = INFORMATION_LENGTH;
    lacEncodeInfo(partner, bytes + offsetof(LacPdu, partner));
    bytes[42] = COLLECTOR_TLV;
    bytes[43] = COLLECTOR_LENGTH;
    put16(bytes + offsetof(LacPdu, collector_max_delay), COLLECTOR_MAX_DELAY);
}

void lacEncodeInfo(const LacInfo &info, std::uint8_t *bytes)
{
    put16(bytes, info.system_priority);
    std::copy(info.system.begin(), info.system.end(), bytes + 2);
    put16(bytes + 8, info.key);
    put16(bytes + 10, info.port_priority);
    put16(bytes + 12, info.port);
    bytes[14] = info.state;
    std::copy(info.reserved.begin(), info.reserved.end(), bytes + 15);
}

LacInfo lacDecodeInfo(const std::uint8_t *bytes)
{
    LacInfo info;
    info.system_priority = get16(bytes);
    std::copy_n(bytes + 2, info.system.size(), info.system.begin());
    info.key = get16(bytes + 8);
    info.port_priority = get16(bytes + 10);
    info.port = get16(bytes + 12);
    info.state = bytes[14];
    std::copy_n(bytes + 15, info.reserved.size(), info.reserved.begin());
    return info;
}

LacPdu lacDecodePdu(const std::uint8_t *bytes)
{
    LacPdu pdu{};
    pdu.subtype = bytes[0];
    pdu.version = bytes[1];
    pdu.actor_tlv_type = bytes[2];
    pdu.actor_tlv_length = bytes[3];
    pdu.actor = lacDecodeInfo(bytes + offsetof(LacPdu, actor));
    pdu.partner_tlv_type = bytes[22];
    pdu.partner_tlv_length = bytes[23];
    pdu.partner = lacDecodeInfo(bytes + offsetof(LacPdu, partner));
    pdu.collector_tlv_type = bytes[42];
    pdu.collector_tlv_length = bytes[43];
    pdu.collector_max_delay = get16(bytes + offsetof(LacPdu, collector_max_delay));
    pdu.terminator_tlv_type = bytes[58];
    pdu.terminator_tlv_length = bytes[59];
    return pdu;
}
