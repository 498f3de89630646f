// Follows interfaces through rtnetlink.
#pragma once

#include "event_loop.h"

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

struct nl_msg;
struct nl_sock;

namespace olt
{

struct Link {
    int index = 0; // 0: there is no such interface
    bool carrier = false;
    bool ethernet = false;
    unsigned mtu = 0;

    bool operator==(const Link &) const = default;
};

// Reads only: an interface that is down has no carrier, and stays down until the operator takes it up.
class LinkMonitor
{
  public:
    using Changed = std::function<void(const std::string &interface, const Link &before, const Link &now)>;

    // The interfaces may come and go. `addressed` is called when one of them may have got another address.
    LinkMonitor(EventLoop &loop, const std::vector<std::string> &interfaces, Changed changed,
                std::function<void()> addressed);

    const Link &link(const std::string &interface) const { return links_.at(interface); }
    // The interface's own network addresses, with commas between them.
    std::string addresses(const std::string &interface) const;

  private:
    struct Notice {
        std::string name;
        Link link;
        bool gone;
    };
    struct Release {
        void operator()(nl_sock *socket) const;
    };
    using Socket = std::unique_ptr<nl_sock, Release>;

    static Socket connect();
    static int on_message(nl_msg *message, void *self) noexcept;
    void follow(EventLoop &loop);
    void receive();
    void take(const Notice &notice);
    void update(const std::string &interface, const Link &now);
    Link read(const std::string &interface) const;
    void read_all();

    std::map<std::string, Link> links_;
    Changed changed_;
    std::function<void()> addressed_;
    Socket notices_socket_;
    Socket requests_socket_;
    std::vector<Notice> notices_; // of one reception
    bool address_notice_ = false;
    std::unique_ptr<Event> readable_;
};

} // namespace olt
