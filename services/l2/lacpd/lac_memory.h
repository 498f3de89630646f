// Memory types of the daemon, as the framework's memory display shows them.
#pragma once

#include "frr/frr.hpp"

#include <memory>

extern frr::MemType MTYPE_LACP_SSP_PACKET;
extern frr::MemType MTYPE_LACP_DRVCTRL;
extern frr::MemType MTYPE_LACP_STATS;
extern frr::MemType MTYPE_LACP_PORT;
extern frr::MemType MTYPE_LACP_SYS;
extern frr::MemType MTYPE_LACP_GROUP;
extern frr::MemType MTYPE_LACP_PDU_TX_MARKER;
extern frr::MemType MTYPE_LACP_PDU_TX;
extern frr::MemType MTYPE_LACP_PDU;
extern frr::MemType MTYPE_LACP_CLI;

// An array of records that live as long as the process, zero-initialised.
template <typename T> T *lac_new_records(frr::MemType &type, std::size_t count)
{
    auto *memory = static_cast<T *>(qcalloc(type, sizeof(T) * (count == 0 ? 1 : count)));
    std::uninitialized_value_construct_n(memory, count);
    return memory;
}
