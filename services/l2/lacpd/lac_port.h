// System and port records. What is written here is written by the dispatcher once it runs.
#pragma once

#include "lacp.h"

// Creates the system record, the ports and their counters once.
void lac_LacInit();
// The record of a port number, or null. Any thread.
LacPort *lacNoToPort(std::uint32_t port_no);
int get_lacp_channel_group_id(std::uint32_t port_no); // -1: no such port. Any thread.
std::uint32_t get_lacp_if_startup();

std::uint32_t lacIsLinkUp(const LacPort *port);         // one datastore read
std::uint32_t lacIsPortFullDuplex(const LacPort *port); // every port counts as full duplex
std::int32_t lacGetLinkSpeed(const LacPort *port);      // not known: always 0
std::uint32_t lacSameSpeed(const LacPort *one, const LacPort *other);
int portMapTotalPortCountGet(std::uint32_t *count);

// Information blocks of a port as values.
LacInfo lac_actor_info(const LacPort *port);
LacInfo lac_partner_info(const LacPort *port);
LacInfo lac_partner_admin_info(const LacPort *port);
void lac_set_partner_info(LacPort *port, const LacInfo &info);

// What is configured for the port.
inline LacPortCfg &lac_port_cfg(const LacPort *port)
{
    return lacPortCfg[(port->port_no - 1) % LAC_MAX_PORTS];
}

// The port in a port mask.
inline std::uint32_t lac_port_bit(const LacPort *port)
{
    return 1U << ((port->port_no - 1) % 32);
}

inline void lac_set_actor_state(LacPort *port, std::uint8_t bits)
{
    port->actor_oper_state |= bits;
}
inline void lac_clear_actor_state(LacPort *port, std::uint8_t bits)
{
    port->actor_oper_state &= static_cast<std::uint8_t>(~bits);
}
inline void lac_set_partner_state(LacPort *port, std::uint8_t bits)
{
    port->partner_oper_state |= bits;
}
inline void lac_clear_partner_state(LacPort *port, std::uint8_t bits)
{
    port->partner_oper_state &= static_cast<std::uint8_t>(~bits);
}

// Something of what a restart needs has changed. Dispatcher.
inline void lac_note_change()
{
    lacSystem->unsaved = true;
}

// The ports of the system, in list order: for (LacPort *port : lac_ports()).
class LacPortIterator
{
  public:
    explicit LacPortIterator(LacPort *port) : port_(port) {}
    LacPort *operator*() const { return port_; }
    LacPortIterator &operator++()
    {
        port_ = port_->next;
        return *this;
    }
    bool operator!=(const LacPortIterator &other) const { return port_ != other.port_; }

  private:
    LacPort *port_;
};
struct LacPortRange {
    LacPortIterator begin() const { return LacPortIterator(lacSystem == nullptr ? nullptr : lacSystem->head.next); }
    LacPortIterator end() const { return LacPortIterator(lacSystem == nullptr ? nullptr : &lacSystem->head); }
};
inline LacPortRange lac_ports()
{
    return {};
}
