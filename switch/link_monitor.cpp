#include "link_monitor.h"

#include <array>
#include <linux/if.h>
#include <linux/if_arp.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <netlink/route/addr.h>
#include <netlink/route/link.h>
#include <stdexcept>
#include <sys/socket.h>
#include <utility>

namespace olt
{

namespace
{

constexpr int RECEIVE_BUFFER = 1 << 20;

struct ReleaseCache {
    void operator()(nl_cache *cache) const { nl_cache_free(cache); }
};

struct ReleaseLink {
    void operator()(rtnl_link *link) const { rtnl_link_put(link); }
};

Link state_of(rtnl_link *link)
{
    // "Lower up" is the carrier of an interface that is taken up.
    return {rtnl_link_get_ifindex(link), (rtnl_link_get_flags(link) & IFF_LOWER_UP) != 0,
            rtnl_link_get_arptype(link) == ARPHRD_ETHER, rtnl_link_get_mtu(link)};
}

} // namespace

void LinkMonitor::Release::operator()(nl_sock *socket) const
{
    nl_socket_free(socket);
}

LinkMonitor::Socket LinkMonitor::connect()
{
    Socket socket(nl_socket_alloc());
    if (!socket || nl_connect(socket.get(), NETLINK_ROUTE) < 0)
        throw std::runtime_error("the kernel's list of interfaces cannot be read");
    return socket;
}

LinkMonitor::LinkMonitor(EventLoop &loop, const std::vector<std::string> &interfaces, Changed changed,
                         std::function<void()> addressed)
    : changed_(std::move(changed)), addressed_(std::move(addressed)), notices_socket_(connect()),
      requests_socket_(connect())
{
    follow(loop); // before reading, so that no change falls in between
    for (const std::string &interface : interfaces)
        links_[interface] = read(interface);
}

void LinkMonitor::follow(EventLoop &loop)
{
    nl_sock *socket = notices_socket_.get();
    nl_socket_disable_seq_check(socket);
    nl_socket_set_buffer_size(socket, RECEIVE_BUFFER, 0); // a smaller one works too
    if (nl_socket_modify_cb(socket, NL_CB_VALID, NL_CB_CUSTOM, on_message, this) < 0 ||
        nl_socket_add_memberships(socket, RTNLGRP_LINK, RTNLGRP_IPV4_IFADDR, RTNLGRP_IPV6_IFADDR, 0) < 0 ||
        nl_socket_set_nonblocking(socket) < 0)
        throw std::runtime_error("the kernel's notices of interfaces cannot be had");
    readable_ = Event::readable(loop, nl_socket_get_fd(socket), [this] { receive(); });
}

int LinkMonitor::on_message(nl_msg *message, void *self) noexcept
{
    struct Context {
        LinkMonitor *monitor;
        bool gone;
    };
    const int type = nlmsg_hdr(message)->nlmsg_type;
    if (type == RTM_NEWADDR)
        static_cast<LinkMonitor *>(self)->address_notice_ = true;
    if (type != RTM_NEWLINK && type != RTM_DELLINK)
        return NL_OK;
    Context context{static_cast<LinkMonitor *>(self), type == RTM_DELLINK};
    nl_msg_parse(
        message,
        [](nl_object *object, void *argument) noexcept {
            const auto *context = static_cast<const Context *>(argument);
            auto *link = reinterpret_cast<rtnl_link *>(object);
            const char *name = rtnl_link_get_name(link);
            // A bridge tells about its ports in messages of a family of their own.
            if (rtnl_link_get_family(link) == AF_UNSPEC && name != nullptr)
                context->monitor->notices_.push_back({name, state_of(link), context->gone});
        },
        &context);
    return NL_OK;
}

void LinkMonitor::receive()
{
    notices_.clear();
    const int result = nl_recvmsgs_default(notices_socket_.get());
    for (const Notice &notice : notices_)
        take(notice);
    if (result < 0 && result != -NLE_AGAIN)
        read_all(); // the kernel had more to say than the buffer holds
    if (std::exchange(address_notice_, false))
        addressed_();
}

void LinkMonitor::take(const Notice &notice)
{
    for (const auto &[interface, link] : links_) {
        const bool same = interface == notice.name && !notice.gone;
        if (same)
            update(interface, notice.link);
        else if (link.index == notice.link.index)
            update(interface, {}); // removed, renamed or moved away
    }
}

void LinkMonitor::update(const std::string &interface, const Link &now)
{
    Link &link = links_.at(interface);
    if (link == now)
        return;
    const Link before = std::exchange(link, now);
    changed_(interface, before, now);
}

Link LinkMonitor::read(const std::string &interface) const
{
    rtnl_link *found = nullptr;
    if (rtnl_link_get_kernel(requests_socket_.get(), 0, interface.c_str(), &found) < 0)
        return {};
    const std::unique_ptr<rtnl_link, ReleaseLink> link(found);
    return state_of(link.get());
}

std::string LinkMonitor::addresses(const std::string &interface) const
{
    nl_cache *read = nullptr;
    if (rtnl_addr_alloc_cache(requests_socket_.get(), &read) < 0)
        return {};
    const std::unique_ptr<nl_cache, ReleaseCache> cache(read);
    std::string list;
    for (nl_object *object = nl_cache_get_first(cache.get()); object != nullptr; object = nl_cache_get_next(object)) {
        auto *address = reinterpret_cast<rtnl_addr *>(object);
        if (rtnl_addr_get_ifindex(address) != links_.at(interface).index)
            continue;
        std::array<char, INET6_ADDRSTRLEN + 4> text;
        list += (list.empty() ? "" : ", ");
        list += nl_addr2str(rtnl_addr_get_local(address), text.data(), text.size());
    }
    return list;
}

void LinkMonitor::read_all()
{
    for (const auto &[interface, link] : links_)
        update(interface, read(interface));
}

} // namespace olt
