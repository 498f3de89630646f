#include "lac_memory.h"

// The types need the group, and both must be there before any other static object allocates.
#ifndef __clang__ // which does not know the warning
#pragma GCC diagnostic ignored "-Wprio-ctor-dtor"
#endif
#define LACPD_EARLY(priority) __attribute__((init_priority(priority)))

static frr::MemGroup LACPD_MEM LACPD_EARLY(1000)("lacpd daemon's memory");

#define LACPD_MTYPE(name, description) frr::MemType name LACPD_EARLY(1001)(LACPD_MEM, description)

LACPD_MTYPE(MTYPE_LACP_SSP_PACKET, "lacp rx and tx pkt");
LACPD_MTYPE(MTYPE_LACP_DRVCTRL, "lacpd stats");
LACPD_MTYPE(MTYPE_LACP_STATS, "lacpd stats");
LACPD_MTYPE(MTYPE_LACP_PORT, "lacpd port");
LACPD_MTYPE(MTYPE_LACP_SYS, "lacpd sys");
LACPD_MTYPE(MTYPE_LACP_GROUP, "lacpd group memory");
LACPD_MTYPE(MTYPE_LACP_PDU_TX_MARKER, "lacpd pdu tx marker memory");
LACPD_MTYPE(MTYPE_LACP_PDU_TX, "lacpd pdu tx memory");
LACPD_MTYPE(MTYPE_LACP_PDU, "lacpd pdu memory");
LACPD_MTYPE(MTYPE_LACP_CLI, "lacpd cli memory");
