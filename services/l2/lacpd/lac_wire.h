// Octets of the Slow Protocols PDUs, IEEE Std 802.3 43.4.2.2. Any thread.
#pragma once

#include "lacp.h"

// Writes destination, source and EtherType into the first 14 bytes of a frame.
void lacSetMacHeader(const Mac &source, std::uint8_t *frame);
void LacpMacHeaderSet(const LacPort *port, std::uint8_t *frame);

// Writes the 110 bytes of a LACPDU, which are 0 before.
void lacEncodePdu(const LacInfo &actor, const LacInfo &partner, std::uint8_t *bytes);

// Decodes the 110 bytes of a LACPDU; nothing is validated.
LacPdu lacDecodePdu(const std::uint8_t *bytes);
// Writes the 18 octets of one side's information, and reads them.
void lacEncodeInfo(const LacInfo &info, std::uint8_t *bytes);
LacInfo lacDecodeInfo(const std::uint8_t *bytes);
