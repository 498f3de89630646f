#include "kernel_plane.h"

#include "forwarding.h"

#include <algorithm>
#include <iostream>
#include <nftables/libnftables.h>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>

namespace olt
{

namespace
{

constexpr std::uint32_t BUCKETS = 256;        // of flows, each of which has its member
constexpr std::uint64_t ETHERNET_HEADER = 14; // which the kernel's counters leave out
constexpr std::chrono::milliseconds TRY_AGAIN_AFTER(250);
constexpr char TABLE[] = "add table netdev olt-switch\n";
constexpr char REMOVAL[] = "add table netdev olt-switch\ndelete table netdev olt-switch\n";

// The addresses of a protocol that make a flow.
std::string fields_of(const std::string &protocol, const Criterion &criterion)
{
    const std::string source = protocol + " saddr", destination = protocol + " daddr";
    return (criterion.source ? source : "") + (criterion.source && criterion.destination ? " . " : "") +
           (criterion.destination ? destination : "");
}

std::string name(const char *what, std::uint32_t number)
{
    return what + std::to_string(number);
}

// The next rules of a chain: LACPDUs are the CPU's, and neither those nor frames for a bridge go on.
std::string exceptions(const std::string &slow, const std::string &reserved)
{
    return "  meta protocol 0x8809 " + slow + "accept\n  ether daddr 01:80:c2:00:00:02 " + slow +
           "accept\n  ether daddr 01:80:c2:00:00:00-01:80:c2:00:00:0f " + reserved + "accept\n";
}

std::string counted(const std::string &counter)
{
    return "counter name " + counter + " ";
}

std::string chain(const std::string &name, const std::string &interface, const std::string &rules)
{
    return " chain " + name + " {\n  type filter hook ingress device \"" + interface + "\" priority 0\n" + rules +
           " }\n";
}

std::string forward_to(const std::string &interface)
{
    return "fwd to \"" + interface + "\"";
}

std::vector<std::string> counter_names(const Options &options)
{
    std::vector<std::string> names{"host_rx", "host_tx", "host_dropped"};
    for (const auto &[number, interface] : options.ports)
        for (const char *what : {"rx", "tx", "dropped", "lost"})
            names.push_back(name(what, number));
    for (std::uint32_t group = 1; group <= MAX_GROUP; ++group)
        for (const char *what : {"group_rx", "group_tx", "group_lost"})
            names.push_back(name(what, group));
    return names;
}

// A flow keeps its bucket, and a bucket its member while that one stays.
std::string spread(const std::string &match, const std::string &protocol, const Trunk &trunk)
{
    std::ostringstream rule;
    rule << "  " << match << "jhash " << fields_of(protocol, criterion_of(trunk.criterion)) << " mod " << BUCKETS
         << " seed 0x1 vmap {";
    for (std::uint32_t bucket = 0; bucket < BUCKETS; ++bucket)
        rule << (bucket == 0 ? " " : ", ") << bucket << " : goto to" << choose_member(trunk.members, bucket);
    rule << " }\n";
    return rule.str();
}

std::string spread(const Trunk &trunk)
{
    const std::string by_mac = spread("", "ether", trunk);
    return criterion_of(trunk.criterion).ip
               ? spread("meta protocol ip ", "ip", trunk) + spread("meta protocol ip6 ", "ip6", trunk) + by_mac
               : by_mac;
}

} // namespace

void KernelPlane::Release::operator()(nft_ctx *context) const
{
    nft_ctx_free(context);
}

KernelPlane::KernelPlane(EventLoop &loop, const Options &options, const TrunkTable &trunks, const LinkMonitor &links)
    : loop_(loop), options_(options), trunks_(trunks), links_(links), host_(options.host, false),
      nft_(nft_ctx_new(NFT_CTX_DEFAULT)), kept_until_(TrunkTable::Clock::now() + options.stale_grace)
{
    if (!nft_ || nft_ctx_buffer_output(nft_.get()) != 0 || nft_ctx_buffer_error(nft_.get()) != 0 || !run(TABLE))
        throw std::runtime_error("the kernel cannot forward user traffic; see that it has nftables and that this "
                                 "program runs as root, or leave --kernel-forwarding out");
}

KernelPlane::~KernelPlane()
{
    run(REMOVAL);
}

bool KernelPlane::follow(const std::string &interface, int index)
{
    return interface != options_.host || host_.follow(index);
}

void KernelPlane::settle()
{
    const bool waits = trunks_.all().empty() && TrunkTable::Clock::now() < kept_until_;
    const std::string wanted = waits ? installed_ : rules();
    if (wanted != installed_) {
        kept_until_ = {};
        before_ = counts();
        installed_ = run(wanted) ? wanted : "";
    }
    if (!installed_.empty())
        again_.reset();
    else if (!again_)
        again_ = Event::every(loop_, TRY_AGAIN_AFTER, [this] { settle(); });
}

// What fails is told once. An interface that went before its rule came is told of by the next
// notice.
bool KernelPlane::run(const std::string &commands)
{
    if (nft_run_cmd_from_buffer(nft_.get(), commands.c_str()) == 0)
        return true;
    std::string text = nft_ctx_get_error_buffer(nft_.get());
    text.resize(std::min(text.find('\n'), text.size()));
    if (text != complaint_ && text.find("Interface does not exist") == std::string::npos &&
        text.find("No such file or directory") == std::string::npos)
        std::cerr << "olt-switch: the kernel does not forward user traffic: " << text << std::endl;
    complaint_ = text;
    return false;
}

// A chain that is not there, and one that hangs on another interface of the same name, are other texts.
std::string KernelPlane::hooked(const std::string &name, const std::string &interface, const std::string &rules) const
{
    const int index = links_.link(interface).index;
    return index == 0 ? "" : "# " + std::to_string(index) + "\n" + chain(name, interface, rules);
}

// Where a bucket's frames leave.
std::string KernelPlane::member_chain(std::uint32_t number, const std::string &interface) const
{
    const auto group = group_of(trunks_, number);
    if (!group)
        return "";
    const std::string sent = counted(name("tx", number)) + counted(name("group_tx", *group));
    const std::string lost = counted(name("lost", number)) + counted(name("group_lost", *group));
    return " chain to" + std::to_string(number) + " {\n  " +
           (links_.link(interface).carrier ? sent + forward_to(interface) : lost + "drop") + "\n }\n";
}

std::string KernelPlane::port_chain(std::uint32_t number, const std::string &interface) const
{
    const auto group = group_of(trunks_, number);
    const std::string dropped = counted(name("dropped", number));
    const std::string to_host = links_.link(options_.host).index != 0 ? forward_to(options_.host) : "drop";
    const std::string last =
        group ? counted(name("rx", number)) + counted(name("group_rx", *group)) + counted("host_tx") + to_host
              : dropped;
    return hooked(name("port", number), interface, exceptions("", dropped) + "  " + last + "\n");
}

std::string KernelPlane::host_chain() const
{
    const std::string dropped = counted("host_dropped");
    const std::string last = trunks_.all().empty()
                                 ? "  " + dropped + "\n"
                                 : "  " + counted("host_rx") + "\n" + spread(trunks_.all().begin()->second);
    return hooked("host", options_.host, exceptions(dropped, dropped) + last);
}

std::string KernelPlane::rules() const
{
    std::string text = REMOVAL + std::string("table netdev olt-switch {\n");
    for (const std::string &counter : counter_names(options_))
        text += " counter " + counter + " {\n }\n";
    for (const auto &[number, interface] : options_.ports)
        text += member_chain(number, interface) + port_chain(number, interface);
    return text + host_chain() + "}\n";
}

// ---- counters -------------------------------------------------------------------------------------------------

KernelPlane::Counts KernelPlane::counts() const
{
    Counts all = before_;
    if (installed_.empty())
        return all;
    nft_ctx_output_set_flags(nft_.get(), NFT_CTX_OUTPUT_JSON);
    const bool read = nft_run_cmd_from_buffer(nft_.get(), "list counters table netdev olt-switch") == 0;
    nft_ctx_output_set_flags(nft_.get(), 0);
    const auto listed = nlohmann::json::parse(read ? nft_ctx_get_output_buffer(nft_.get()) : "", nullptr, false);
    if (!listed.contains("nftables"))
        return all;
    for (const auto &object : listed["nftables"]) {
        if (!object.contains("counter"))
            continue;
        const std::uint64_t frames = object["counter"]["packets"], bytes = object["counter"]["bytes"];
        TrafficCount &count = all[object["counter"]["name"]];
        count.frames += frames;
        count.bytes += bytes + frames * ETHERNET_HEADER;
    }
    return all;
}

TrafficReport KernelPlane::report() const
{
    Counts all = counts();
    const auto with_dropped = [&all](const std::string &carried, const std::string &dropped) {
        TrafficCount count = all[carried];
        count.dropped = dropped.empty() ? 0 : all[dropped].frames;
        return count;
    };
    TrafficReport report;
    report.host = {options_.host, {with_dropped("host_rx", "host_dropped"), with_dropped("host_tx", "")}};
    for (const auto &[number, interface] : options_.ports)
        report.ports[number] = {interface,
                                {with_dropped(name("rx", number), name("dropped", number)),
                                 with_dropped(name("tx", number), name("lost", number))}};
    for (std::uint32_t group = 1; group <= MAX_GROUP; ++group) {
        const TrafficCounters counters = {with_dropped(name("group_rx", group), ""),
                                          with_dropped(name("group_tx", group), name("group_lost", group))};
        if (counters.rx.frames + counters.tx.frames + counters.tx.dropped != 0)
            report.trunks[group] = counters;
    }
    return report;
}

} // namespace olt
