// The machines, row by row.
#include "engine.h"

const std::vector<Row> MACHINES = {
    // mux machine and attachment, 43.4.15.
    {"WAITING ready_n=1 partner=35", "mux", "ATTACHES mux=3 actor=d ready_n=0"},
    {"WAITING ready_n=1", "mux", "ATTACHES COLLECTS ready_n=0"},
    {"ATTACHED mux=13 attached=0 partner=35 actor=35 ready_n=1 in=0", "mux",
     "mux=3 attached=1 n_attach=1 actor=d ready_n=0 in=1 TOLD"},
    {"ATTACHED mux=14 partner=35 | mux=15 partner=35 | mux=16 partner=35", "mux", "mux=3 n_attach=1 TOLD"},
    // A lone port needs no synchronized partner.
    {"ATTACHED partner=35 alone=1 rx=3", "mux", "COLLECTS TOLD"},
    {"ATTACHED partner=35 alone=1 | partner=35 rx=3 | SERVING | SERVING mux=5", "mux", ""},
    {"SERVING partner=35 | partner=35 mux=4", "mux", "mux=3 STOPS actor=d"},
    {"SERVING partner=35 alone=1 rx=3", "mux", ""},
    // What tells a change of our Synchronization is not held back.
    {"ATTACHED hold=3 told=d", "mux", "COLLECTS ntt=1"},
    {"SERVING agg=2 2.mask=3 mask=0 chain=2", "mux-init",
     "sel=0 attached=0 2.mask=2 collects=0 agg=1 chain=1 actor=5 TOLD apsys=0 apkey=0 mux=1"},
    // receive machine, 43.4.12.
    {"SERVING", "hears state=35", "heard=35 n_trans=1 KICK HEARD"},
    {"SERVING attached=0 mux=1 collects=0 mask=0", "hears key=9", "pkey=9 apkey=9 sel=0 actor=35 TOLD HEARD"},
    {"SERVING", "hears v.sp=1 | hears v.key=9 | hears v.prio=9 | hears v.port=9 | hears v.state=39", "MISMATCH"},
    {"SERVING", "hears v.state=3c | hears v.state=3f | hears v.state=35", "TOLD KICK HEARD"},
    // The system's address is matched for Synchronization, the port's for matched.
    {"SERVING", "hears v.sys=OTHER", "MISMATCH"},
    {"SERVING sys.mac=OTHER", "hears", "partner=35 n_change=1 HEARD"},
    // LACP runs when the partner is active, or both know each other to be.
    {"SERVING", "hears state=3c", "partner=3c heard=3c KICK HEARD"},
    {"SERVING", "hears state=3c v.state=3c", "MISMATCH partner=34 heard=3c"},
    {"SERVING actor=3c", "hears state=3c v.state=3d", "MISMATCH partner=34 heard=3c"},
    {"SERVING partner=39", "hears state=31 v.key=9", "TOLD heard=31 n_trans=1 KICK HEARD"},
    {"DETACHED mux=0", "hears", "VIEW HEARD"},
    {"EXPIRED", "hears", "partner=3d actor=3d rx=1 cw=15a5a matched=1 KICK HEARD"},
    // Its aggregator's link is down.
    {"EXPIRED agg=2 link2=0", "hears", "partner=3d matched=1 KICK HEARD"},
    {"EXPIRED agg=2 link2=1", "hears", "partner=3d actor=3d rx=1 cw=15a5a matched=1 KICK HEARD"},
    {"DEFAULTED", "hears",
     "psp=8000 psys=PEER pkey=7 pprio=8000 pno=1 partner=3d heard=3d apsp=8000 sel=0 actor=5 LEFT rx=1 cw=15a5a "
     "KICK HEARD"},
    // The first other port that knows the sender has lost it.
    {"SERVING 2.pno=1 2.psys=PEER 3.pno=1 3.psys=PEER", "hears",
     "2.pno=0 2.psys=0 n_moved=1 KICK HEARD sys.changed=1"},
    {"SERVING 2.pno=1 2.psys=OTHER 3.pno=2 3.psys=PEER", "hears", "KICK HEARD"},
    // Current_while expires.
    {"EXPIRED NOBODY partner=2", "rx 18", "GIVES_UP actor=7d"},
    {"EXPIRED NOBODY partner=2 ysp=1", "rx 18", "psp=1 sel=0 actor=45 LEAVES GIVES_UP"},
    {"EXPIRED NOBODY partner=2 ysys=OTHER", "rx 18", "psys=OTHER sel=0 actor=45 LEAVES GIVES_UP"},
    {"EXPIRED NOBODY partner=2 ykey=9", "rx 18", "pkey=9 sel=0 actor=45 LEAVES GIVES_UP"},
    {"EXPIRED NOBODY partner=2 yprio=9", "rx 18", "pprio=9 sel=0 actor=45 LEAVES GIVES_UP"},
    {"EXPIRED NOBODY partner=2 yno=9", "rx 18", "pno=9 sel=0 actor=45 LEAVES GIVES_UP"},
    {"EXPIRED NOBODY partner=6 ystate=5", "rx 18", "actor=7d GIVES_UP partner=9"},
    {"WAITING sel=0 | DETACHED mux=0", "rx 99", "KICK"},
    {"SERVING link1=0 ystate=d", "rx 4", "NOBODY partner=5 heard=0 rx=6 actor=7d matched=0 sys.changed=1"},
    {"DETACHED lacp=0 ystate=d", "rx 3", "NOBODY partner=9 heard=0 rx=5 alone=1 actor=45 sys.changed=1"},
    {"SERVING up=0", "rx 3", "up=1 EXPIRES"},
    {"SERVING lacp=0 matched=0 actor=bd", "rx 3",
     "NOBODY partner=0 heard=0 sel=0 matched=1 rx=5 alone=1 actor=45 sys.changed=1 KICK LEAVES"},
    {"SERVING link1=0 actor=bf asp=1 asys=OTHER no=9 key=3 moved=1", "rx 1",
     "asp=8000 asys=OUR no=1 moved=0 actor=47 NOBODY partner=0 heard=0 sel=0 up=0 rx=6 matched=0 sys.changed=1 "
     "KICK LEAVES"},
    // periodic and transmit machines, 43.4.13 and 43.4.16.
    {"SERVING tx=0 per=10101", "period", "tx=2"},
    {"SERVING tx=1 per=10101 partner=3f", "period", "PERIOD"},
    {"SERVING tx=1 per=10101", "period", "tx=2"},
    {"SERVING", "period", ""},
    {"SERVING", "periodic 1 | periodic 4", "tx=0 per=0"},
    {"SERVING", "periodic 3", ""},
    {"SERVING ntt=1 hold=3", "tx 11", ""},
    {"SERVING ntt=1 hold=3 told=35", "tx 11", "ntt=0 n_tx=1 told=3d sent:1"},
    {"SERVING", "tx 11", ""},
    {"SERVING ntt=1 tx=0 hold=3", "tx 11", "ntt=0"},
    // timers and the tick, 43.4.4.
    {"SERVING cw=15a00", "tick", "EXPIRES tx=1 per=10100 PERIOD"},
    {"SERVING ww=10202", "tick", "TICKED ww=10201"},
    {"WAITING ww=10200 partner=35", "tick",
     "TICKED ready=1 attached=1 n_attach=1 VIEW txs=10000 mux=3 actor=d ww=200 hold=2 n_tx=1 told=d sent:1"},
    {"SERVING txs=10100 ntt=1", "tick", "TICKED SENT txs=10101 sent:1"},
    {"SERVING txs=10100 actor=3c | txs=10100 partner=3c", "tick", "TICKED txs=10101"},
    // The partner has turned fast.
    {"SERVING partner=3f per=11e05", "tick", "TICKED tx=1 per=10100 PERIOD"},
    {"SERVING partner=3f per=11e00", "tick", "TICKED tx=1 per=10101 PERIOD"},
    {"SERVING muxs=10101", "tick", "TICKED muxs=10100"},
    {"SERVING muxs=10100", "tick", "TICKED muxs=100"},
    {"SERVING muxs=10100 up=0", "tick", "TICKED KICK sel=0 LEAVES actor=5"},
    {"SERVING barred=2", "tick", "TICKED barred=1"},
    {"SERVING barred=1", "tick", "TICKED barred=0 muxs=10100"},
    // A failed read changes nothing.
    {"SERVING @p1/link-status=unreadable-so", "tick", ""},
    // The tick follows the link: an event may have found no room.
    {"SERVING link1=0", "tick",
     "up=0 NOBODY partner=0 heard=0 rx=6 matched=0 sys.changed=1 tx=0 per=0 told=0 hold=0 sel=0 actor=45 LEAVES"},
    {"DOWN", "tick", "up=1 partner=2 actor=c5 rx=2 cw=10302 sys.changed=1 sel=2 mux=2 ww=10201 tx=1 per=10100 TOLD"},
    {"DOWN link1=0", "tick", ""},
    // Only PORT_DISABLED is brought up.
    {"DOWN rx=5 up=1 cw=100 actor=5", "tick", "tx=2 per=11e1d TOLD"},
    {"SERVING ntt=1 lacp=0 | ntt=1 sys.state=0", "tx 11", ""},
    {"SERVING txs=10100 actor=3c partner=3c", "tick", "TICKED txs=0"},
    {"SERVING cw=100000 ww=100000 per=100000 txs=100000 muxs=100000 ready_n=1", "timers",
     "cw=15a5a ww=10202 per=10101 txs=10101 muxs=10101 ready_n=0"},
    // selection, 43.4.14.
    {"TWO prio=7fff 2.no=0", "select", ""},
    {"TWO 2.no=0", "select", "TAKES_OVER"},
    {"TWO 2.prio=1 2.rx=3", "select", "2.alone=1 2.agg=2"},
    {"DEFAULTED alone=0", "select", "alone=1"},
    {"TWO actor=45", "select", "TAKES_OVER"},
    {"TWO 2.actor=45 2.no=0", "select", ""},
    // No candidate; a DEFAULTED one stands alone.
    {"TWO 2.prio=1 2.group=2", "select", ""},
    {"TWO 2.prio=1 2.up=0 | 2.prio=1 2.lacp=0", "select", "2.sel=0 2.agg=2 2.mux=1 2.waits=0 2.ntt=1 2.txs=10000"},
    // Those that serve take nobody for their aggregator who has not heard its partner.
    {"TWO SERVING 2.prio=1 2.actor=45", "select", ""},
    {"TWO SERVING 2.prio=1 2.actor=45 actor=7d waits=0", "select",
     "agg=2 mask=0 TOLD apsys=0 apkey=0 n_attach=1 ready=1 2.agg=2 g1.agg=2 2.mask=1 2.ntt=1 2.txs=10000 "
     "2.ww=10202"},
    // Looped back.
    {"TWO psys=OUR 2.psys=OUR 2.pno=9", "select", "sel=2 ww=10202 waits=0"},
    {"TWO psys=OUR 2.psys=OUR 2.pno=9 pno=9 | psys=OUR 2.psys=OUR 2.pno=9 pprio=9 | psys=OUR 2.psys=OUR 2.pno=9 "
     "asp=9",
     "select", ""},
    {"TWO 2.alone=1", "select", "2.alone=0 2.ntt=1 2.txs=10000 2.ww=10202"},
    {"DETACHED ready_n=1 ctrl.started=0", "select", "ready_n=0 sel=1 mux=11"},
    {"PAIR 2.prio=1 rx=2 | 2.prio=1 in=2", "select", "WAITS_ANEW"},
    {"PAIR 2.prio=1 alone=1", "select", "WAITS_ANEW alone=0"},
    // ports and the system.
    {"DOWN told=3d hold=3", "link-up",
     "up=1 partner=2 actor=c5 rx=2 cw=10303 sys.changed=1 told=0 hold=0 TOLD sel=2 STARTS_WAITING"},
    {"DETACHED lacp=0 rx=5 NOBODY partner=0 heard=0 actor=45 cw=0 tx=0 per=0 alone=1", "port-on",
     "lacp=1 EXPIRES partner=2 actor=c5 alone=0 sel=2 STARTS_WAITING TOLD"},
    {"DETACHED lacp=0 rx=5 NOBODY partner=0 heard=0 actor=45 tx=0 per=0 link1=0", "port-on",
     "lacp=1 up=0 rx=6 matched=0 told=0 hold=0 sys.changed=1"},
    {"SERVING muxs=505 ww=707 actor=3f barred=1 bar=2 moved=1 cfg1.key=9 cfg1.prio=8 cfg1.passive=1 ctrl.prio=5",
     "port-off",
     "ww=200 lacp=0 asp=5 xsp=5 key=9 xkey=9 aokey=9 prio=8 xprio=8 xstate=7c NOBODY partner=0 heard=0 told=0 "
     "hold=0 "
     "tx=0 rx=5 sel=0 alone=1 moved=0 actor=44 barred=0 bar=0 cw=0 per=0 muxs=10101 apsp=0 sys.changed=1 LEAVES"},
    {"SERVING cfg1.short=1 2.lacp=1 link2=1", "on", "ALL_ANEW"},
    {"SERVING agg=2 2.mask=1 chain=2", "off", "ALL_STOP"},
    {"SERVING cfg1.short=1 2.lacp=1 link2=1 sys.on=0", "msg 1/0=0", "ALL_ANEW sys.on=1 GOES"},
    {"SERVING agg=2 2.mask=1 chain=2", "msg 2/0=0", "ALL_STOP sys.on=0 GOES"},
    {"SERVING", "msg 17/1=1", "actor=3f cfg1.short=1 cw=10303"},
    {"SERVING actor=3f cfg1.short=1 lacp=0", "msg 17/1=0", "actor=3d cfg1.short=0"},
    {"SERVING actor=3f cfg1.short=1 cw=10301", "msg 17/1=0", "actor=3d cfg1.short=0 cw=15a5a"},
    {"SERVING", "msg 18/1=2", "actor=3c xstate=7c cfg1.passive=1"},
    {"SERVING actor=3c xstate=7c cfg1.passive=1", "msg 18/1=1", "actor=3d xstate=7d cfg1.passive=0"},
    {"SERVING", "msg 23/0=9", "ctrl.prio=9 asp=9 xsp=9 2.asp=9 2.xsp=9 3.asp=9 3.xsp=9 4.asp=9 4.xsp=9"},
    // Selection again in a group without a recorded aggregator, by a port that is configured for it.
    {"WAITING g1.agg=0 @p1/channel-group=1", "msg 22/2=1", "g1.agg=1 TOLD ww=10202"},
    {"WAITING g1.agg=0 | g1.agg=2 @p1/channel-group=1 | g1.agg=0 @p1/channel-group=2", "msg 22/2=1", ""},
    {"WAITING g1.agg=0 @p1/channel-group=1", "msg 22/1=1 | msg 22/2=9", ""},
    {"DOWN link1=0 lacp=0", "msg 7/1=0 | msg 16/1=1", "lacp=1 sys.changed=1"},
    {"SERVING sys.on=0", "msg 5/1=0 | msg 6/1=0 | msg 7/1=0 | msg 2/0=0 | msg 4244438268/0=0", ""},
    {"DOWN rx=2 up=1", "msg 6/1=0",
     "partner=2 actor=c5 cw=10303 sys.changed=1 sel=2 STARTS_WAITING"}, // the link is up
    {"SERVING", "msg 1/0=0 | msg 0/1=1 | msg 3/1=1 | msg 8/1=1 | msg 26/1=1 | msg 4294967302/1=1", ""},
    {"SERVING", "frame 02 01 01", "n_marker=1 n_answer=1 sent:1"},
    {"SERVING", "frame 02 01 02", "n_response=1"},
    // Octets that are missing are 0, as is the partner that other ports know.
    {"SERVING", "frame 01", "n_rx=1 NOBODY apsp=0 heard=0 MISMATCH partner=0 ANEW n_moved=1 sys.changed=1 GOES"},
    {"SERVING", "msg 21/9=1 | msg 22/9=1 | msg 5/0=0", ""},
    {"SERVING OUTSIDE", "msg 3/1=1", "wanted=1 IS_MEMBER"}, // members are settled after every message
    {"SERVING tries=1", "msg 4244438268/0=0", "TICKED tries=0 w:+g1/member-port/1"}, // and again by ticks
    // Membership.
    {"SERVING OUTSIDE", "settle", "wanted=1 IS_MEMBER"},
    {"SERVING in=2 @g2/lacp-type=dynamic g2.type=5", "settle",
     "GOES wanted=2 written=2 w:+g2/member-port/1 g2.list=1 g2.n=1 g2.up=1 g2.upn=1 create:2,9,1,1"},
    // What was refused is tried again with ticks, a few times when the datastore was busy.
    {"SERVING OUTSIDE !+member-port=-3", "settle", "wanted=1 written=1 tries=1 w:+g1/member-port/1"},
    {"SERVING tries=1 bar=8", "settle retry", "tries=0 bar=0 w:+g1/member-port/1"},
    {"SERVING tries=2 !+member-port=-3", "settle retry", "tries=3 w:+g1/member-port/1"},
    {"SERVING tries=3 !+member-port=-3", "settle retry", "tries=0 bar=2 barred=2 w:+g1/member-port/1 r:1"},
    {"SERVING OUTSIDE bar=2 !+member-port=10", "settle", "wanted=1 bar=4 barred=4 w:+g1/member-port/1 r:1"},
    {"SERVING OUTSIDE bar=100 !+member-port=10", "settle", "wanted=1 barred=100 w:+g1/member-port/1 r:1"},
    {"SERVING heard=35 !-member-port=-3 | heard=35 !-member-port=10", "settle",
     "wanted=0 tries=1 w:-g1/member-port/1"},
    {"SERVING heard=35 !-member-port=-2", "settle", "wanted=0 written=0 w:-g1/member-port/1"},
    // One that finds the datastore busy speaks for the others.
    {"PAIR OUTSIDE 2.wanted=0 2.written=0 !+member-port=-3", "settle",
     "wanted=1 written=1 tries=1 2.wanted=1 2.written=1 2.tries=1 w:+g1/member-port/1"},
    {"PAIR heard=35 2.heard=35 !-member-port=-3", "settle",
     "wanted=0 tries=1 2.wanted=0 2.tries=1 w:-g1/member-port/1"},
};

TEST(Machines, Rows)
{
    check(MACHINES);
}
