// What a restart needs of the daemon that ran before, and the file on the run folder's memory file system that holds
// it.
//
// The record is a snapshot of native layout: it is read on the machine, in the boot, that wrote it. The file's time
// of modification says when the daemon was last alive.
#pragma once

#include "lacp.h"

#include <array>
#include <span>
#include <string>
#include <type_traits>

struct LacResumePort {
    std::uint32_t group;      // whose member-port list has the port; 0: none has, and the rest says nothing
    LacInfo actor;            // as it is sent
    LacInfo partner;          // as the receive machine has it
    std::uint8_t heard_state; // Actor_State as the partner last sent it
};

struct LacResume {
    std::array<char, 40> boot; // the kernel's identifier of the boot, 0-terminated
    PortInventory inventory;
    Mac system;
    std::array<LacResumePort, LAC_MAX_PORTS> ports;
};
static_assert(std::is_trivially_copyable_v<LacResume>);

// A record without ports, of this boot and of the inventory and system as they are now.
LacResume lacResumeNow();

// The bytes of a file, and back. Reading gives null, or why the bytes are not used.
constexpr std::size_t LAC_RESUME_SIZE = 16 + sizeof(LacResume);
std::array<std::uint8_t, LAC_RESUME_SIZE> lacEncodeResume(const LacResume &record);
const char *lacDecodeResume(std::span<const std::uint8_t> bytes, LacResume &record);
// Null, or why a record is not of the inventory and system as they are now.
const char *lacForeignResume(const LacResume &record, const LacResume &now);

// Reads the file: null with the record and for how long the daemon has been away, why the file is not used, or an
// empty text when there is none. Writing gives 0 or an error number; what cannot be written is not left behind
// either.
const char *lacReadResume(const std::string &path, LacResume &record, std::uint64_t &away_ms);
int lacWriteResume(const std::string &path, const LacResume &record);
// Says that the daemon is alive. Any thread.
void lacStampResume(const std::string &path);
