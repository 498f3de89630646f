#include "rows.h"

#include <sstream>

namespace
{

// Port 1 in service alone in group 1, and what is different in other states. Capitals stand for words.
const std::map<std::string, std::string> NAMES = {
    {"OUR", "21122aabbcc"},
    {"PEER", "23344556677"},
    {"OTHER", "29988776655"},
    {"SERVING",
     "group=1 ntt=0 asp=8000 asys=OUR key=1 prio=8000 no=1 actor=3d psp=8000 psys=PEER pkey=7 pprio=8000 pno=1 "
     "partner=3d xkey=1 up=1 lacp=1 ready_n=0 sel=1 matched=1 attached=1 collects=1 rx=1 tx=2 mux=6 hold=1 "
     "cw=15a5a per=11e1e ww=200 txs=0 muxs=100 alone=0 aokey=1 aakey=1 apsys=PEER apsp=8000 apkey=7 "
     "mask=1 heard=3d told=3d in=1 wanted=1 written=1 cfg1.key=1 g1.type=5 g1.agg=1 g1.list=1 g1.up=1 "
     "link1=1 @g1/member-port/1 @g1/lacp-type=dynamic"},
    {"ATTACHED", "SERVING mux=3 collects=0 mask=0 actor=d"},
    {"WAITING", "SERVING OUTSIDE mux=2 attached=0 collects=0 mask=0 actor=5 apsys=0 apkey=0 ww=10201 waits=1"},
    {"DETACHED", "SERVING OUTSIDE mux=1 sel=0 attached=0 collects=0 mask=0 actor=5 apsys=0 apkey=0"},
    {"EXPIRED", "SERVING rx=2 matched=0 partner=37 actor=bd cw=10300"},
    {"DEFAULTED", "SERVING rx=3 actor=7d NOBODY partner=8 heard=0 alone=1 apsys=0 apsp=0 apkey=0 cw=10300"},
    {"DOWN", "DETACHED NOBODY partner=0 heard=0 told=0 actor=45 matched=0 rx=6 up=0 tx=0 hold=0 cw=0 per=0"},
    {"NOBODY", "psp=0 psys=0 pkey=0 pprio=0 pno=0"},
    // Two ports behind port 1: both waiting, or both in service.
    {"TWO",
     "WAITING 2.group=1 2.key=1 2.actor=5 2.psp=8000 2.psys=PEER 2.pkey=7 2.pprio=8000 2.pno=2 2.partner=3d 2.up=1 "
     "2.lacp=1 2.sel=1 2.rx=1 2.tx=2 2.mux=2 2.hold=1 2.ww=10201 2.txs=0 2.alone=0 2.agg=1 2.waits=1 2.told=3d "
     "2.heard=3d 2.ntt=0 2.mask=0"},
    {"PAIR", "TWO SERVING mask=3 2.actor=3d 2.attached=1 2.collects=1 2.mux=6 2.ww=200 2.apsys=PEER 2.apkey=7 2.in=1 "
             "2.wanted=1 2.written=1 g1.list=3 g1.up=3 waits=0 2.waits=0 link2=1 @g1/member-port/2"},
    // What follows from the states.
    {"TOLD", "ntt=1 txs=10000"},
    {"STARTS_WAITING", "mux=2 ww=10202"},
    {"COLLECTS", "mux=6 actor=3d mask=1 collects=1"},
    {"STOPS", "mask=0 collects=0 n_attach=1 TOLD"},
    {"LEAVES", "STOPS attached=0 apsys=0 apkey=0 mux=1"},
    {"LEFT", "STOPS attached=0 mux=1"}, // its aggregator was empty
    {"ATTACHES", "ready=1 attached=1 n_attach=1 TOLD VIEW"},
    {"KICK", "muxs=10101"},
    {"HEARD", "heard_at=1"},
    {"VIEW", "apsys=PEER apkey=7"},
    {"ANEW", "sel=0 actor=5 LEAVES KICK HEARD"},
    {"MISMATCH", "TOLD partner=35 n_change=1 matched=0 n_unmatched=1 HEARD"},
    {"EXPIRES", "matched=0 partner=37 actor=bd rx=2 cw=10303 sys.changed=1"},
    {"GIVES_UP", "partner=8 heard=0 matched=1 n_trans=1 rx=3 KICK sys.changed=1"},
    {"PERIOD", "hold=0 TOLD"},
    {"SENT", "ntt=0 hold=2 n_tx=1"},
    {"TICKED", "cw=15a59 per=11e1d"},
    {"TAKES_OVER", "agg=2 2.agg=2 g1.agg=2 TOLD ww=10202 2.ntt=1 2.txs=10000 2.ww=10202"},
    {"SECOND_STANDS_BY", "2.sel=2 2.ww=10202 2.waits=0"},
    {"IN_PLACE", "2.agg=2 2.mask=3 2.ntt=1 2.txs=10000 2.n_attach=1 2.ready=1 g1.agg=2"},
    {"IS_MEMBER", "written=1 w:+g1/member-port/1 g1.list=1 g1.n=1 g1.up=1 g1.upn=1 create:1,9,1,1"},
    {"OUTSIDE", "wanted=0 written=0 g1.list=0 g1.up=0 @-g1/member-port/1"},
    {"GOES", "wanted=0 written=0 w:-g1/member-port/1 g1.list=0 g1.n=0 g1.up=0 g1.upn=0 destroy:1"},
};

} // namespace

std::string expanded(const std::string &words)
{
    std::istringstream text(words);
    std::string out;
    for (std::string word; text >> word;) {
        const std::size_t value = word.find('=') + 1;
        const auto found = NAMES.find(word.substr(value));
        if (found == NAMES.end())
            out += word + " ";
        else
            out += word.substr(0, value) + expanded(found->second) + (value == 0 ? " " : "");
    }
    return out;
}

// A LACPDU of port 1's partner that knows us; "key=9" of the actor's side, "v.key=9" of its view differ.
void Machines::hear(const std::string &differences)
{
    LacInfo sides[] = {{0x8000, PEER_MAC, 7, 0x8000, 1, 0x3D, {}}, lac_actor_info(&p_)};
    std::istringstream text(expanded(differences));
    for (std::string word; text >> word;) {
        const bool view = word.starts_with("v.");
        const std::string name = word.substr(view ? 2 : 0, word.find('=') - (view ? 2 : 0));
        const std::uint64_t value = std::stoull(word.substr(word.find('=') + 1), nullptr, 16);
        LacInfo &side = sides[view ? 1 : 0];
        if (name == "sys")
            side.system = PublishedMac::unpack(value);
        else if (name == "state")
            side.state = static_cast<std::uint8_t>(value);
        else
            (name == "sp"     ? side.system_priority
             : name == "key"  ? side.key
             : name == "prio" ? side.port_priority
                              : side.port) = static_cast<std::uint16_t>(value);
    }
    lacRx(&p_, lacDecodePdu(pdu_bytes(sides[0], sides[1]).data()));
}

void Machines::act(const std::string &event)
{
    const std::string kind = event.substr(0, event.find(' '));
    const std::string rest = event.size() == kind.size() ? "" : event.substr(kind.size() + 1);
    static const std::map<std::string, std::function<void(LacPort *)>> EVENTS = {
        {"mux", lacMuxMachine},
        {"mux-init", lacMuxMachineInitPort},
        {"collect", Enable_Collecting_Distributing},
        {"uncollect", [](LacPort *p) { Disable_Collecting_Distributing(p, p->aggregator); }},
        {"mask", lacInitPortMask},
        {"attach", [](LacPort *) { Attach_Mux_To_Aggregator(1, 2); }},
        {"detach", [](LacPort *) { Detach_Mux_From_Aggregator(1, 2); }},
        {"select", lacSelect},
        {"period", update_Period},
        {"tick", [](LacPort *) { LacTick(); }},
        {"on", [](LacPort *) { lac_set(1); }},
        {"off", [](LacPort *) { lac_set(2); }},
        {"link-up", [](LacPort *) { lacLinkUp(1); }},
        {"link-down", [](LacPort *) { lacLinkDown(1); }},
        {"port-on", [](LacPort *) { lacSetPortLacpState(1, 1); }},
        {"port-off", [](LacPort *) { lacSetPortLacpState(1, 0); }},
        {"timers",
         [](LacPort *p) {
             start_current_while_timer(p, 0), Start_wait_while_timer(p), Start_periodic_timer(p, 1),
                 Start_tx_scheduler(p), mux_scheduler_start(p);
         }},
    };
    const auto number = [&] { return static_cast<std::uint32_t>(std::stoul(rest)); };
    if (kind == "hears") {
        hear(rest);
    } else if (kind == "frame") { // the octets of a PDU
        Engine::hear(tagged_frame(1, hex(rest)));
        Engine::dispatch();
    } else if (kind == "msg") { // CODE/PORT=VALUE
        const std::size_t at = rest.find('=');
        Engine::send(std::stoull(rest), static_cast<std::uint32_t>(std::stoul(rest.substr(rest.find('/') + 1))),
                     std::stoull(expanded(rest.substr(at + 1)), nullptr, 16));
        Engine::dispatch();
    } else if (kind == "rx")
        lacRxMachine(&p_, number(), nullptr);
    else if (kind == "tx")
        tx_machine(&p_, number());
    else if (kind == "periodic")
        periodic_machine(&p_, number());
    else if (kind == "to")
        lacChangeAggregator(&p_, lacNoToPort(number()));
    else if (kind == "settle")
        result = lacSettleMembers(rest == "retry") != 0 ? " barred!" : "";
    else
        EVENTS.at(kind)(&p_);
}
