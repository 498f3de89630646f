"""The software switch as a program, without a daemon: frames, interfaces, requests, traffic, beginning and end."""

import contextlib
import fcntl
import os
import signal
import socket
import struct
import subprocess
import sys
import threading
import time
from pathlib import Path

import pytest
from scapy.all import ARP, GRE, IP, TCP, UDP, VXLAN, Ether, IPv6, checksum, conf

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT))

from lab import Capture, Lab, Programs, eventually  # noqa: E402 (needs the path above)

BUILD = os.environ.get("LACPD_BUILD_DIR", ROOT / "build")
PORTS = (1, 2, 3)
CREATE, DESTROY, PSC_SET, ERROR = 10, 11, 12, 255
SRC_IP, SRC_MAC, SRC_DST_IP, SRC_DST_MAC = 0, 9, 18, 19
SLOW, HOST = "01:80:c2:00:00:02", "02:00:00:00:00:01"
TAG, SERVICE_TAG = b"\x81\x00\x60\x05", b"\x88\xa8\x00\x05"
LACPDU = bytes(Ether(dst=SLOW, src=HOST, type=0x8809) / bytes(range(110)))
SOON, GRACE = 5.0, 1
SOL_PACKET, PACKET_VNET_HDR = 263, 15
TUNSETIFF, IFF_TAP, IFF_NO_PI, IFF_VNET_HDR = 0x400454CA, 2, 0x1000, 0x4000
conf.bufsize = 4 << 20  # the system's limit


def message(number, *fields, version=1, kind=2, excess=0):
    return struct.pack(f"!HBBHH{len(fields)}I", 8 + 4 * len(fields) + excess, version, kind, 0, number, *fields)


def tagged(frame, tag):
    return frame[:12] + tag + frame[12:]


def to_cpu(frame, port, vlan=1):
    return tagged(frame, bytes.fromhex(f"9082 00000000 {port:04x} 00000000 8100 {vlan:04x}"))


def from_cpu(frame, port):
    return tagged(frame, bytes.fromhex(f"9089 00000000 {port % 256:02x} {port // 256:02x} 00000000"))


def packet(kind=IP, tag=b"", dst=None, smac=1, dmac=2, sip=3, dip=4, load=5):
    """A frame whose addresses differ from another's in the numbers given."""
    net = IPv6(src=f"fd00:{sip}::", dst=f"fd00::{dip}") if kind is IPv6 else IP(src=f"10.0.0.{sip}", dst=f"10.0.0.{dip}")
    rest = ARP(psrc=net.src, pdst=net.dst) if kind is ARP else net / UDP()
    ether = Ether(src=f"02:00:00:00:00:{smac:02x}", dst=dst or f"02:00:00:00:00:{dmac:02x}")
    return tagged(bytes(ether / rest / bytes([load])), tag)


class Bench:
    """A switch and the far ends of its interfaces."""

    def __init__(self, lab):
        self.lab, self.system, self.wires = lab, lab.system("one", ports=len(PORTS)), {}
        self.system.add_host()
        self.ends = {"cpu": (self.system.namespace, "ethv0"), "host": (self.system.host, "host0"),
                     **{port: (lab.bench, lab.loose_cable(self.system, port)) for port in PORTS}}

    def restart(self, *options):
        self.system.stop_switch()
        self.system.start_switch(*options)
        self.plug_in(*self.ends)
        self.daemon = self.connect()

    def plug_in(self, *ends):
        for end in ends:
            namespace, interface = self.ends[end]
            self.wires[end] = namespace.call(lambda name=interface: conf.L2socket(name, promisc=False, nofilter=True))
            self.wires[end].ins.setblocking(False)

    def await_links(self):
        for namespace, _ in self.ends.values():
            eventually("links", lambda space=namespace: space.ip("-br", "link"), lambda text: "DOWN" not in text, SOON)

    def settled(self, count=0):
        """The state when so many frames or requests have been dealt with: 64 a turn."""
        return [self.system.state() for _ in range(3 + count // 64)][-1]

    def exchange(self, *sends):
        """Sends frames into ends; what has come out of each end since the last time."""
        for end, frame in sends:
            self.wires[end].send(frame)
        self.settled(len(sends))
        found = {}
        for end, wire in self.wires.items():
            with contextlib.suppress(BlockingIOError):
                while True:
                    found.setdefault(end, []).extend(filter(None, [wire.recv_raw()[1]]))
        return {end: frames for end, frames in found.items() if frames}

    def leaving(self, frames):
        return self.exchange(*(("host", frame) for frame in frames))

    def until(self, holds):
        return eventually("the state of the switch", self.system.state, holds, SOON)

    def connect(self):
        """A client of the driver service."""
        client = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        client.settimeout(SOON)
        client.connect(self.system.environment["SCLIENT_SOCKET"])
        return client

    def ask(self, *requests, client=None):
        """The trunks after requests."""
        for request in requests:
            (client or self.daemon).send(message(*request))
        return {trunk.pop("group"): trunk for trunk in self.settled()["trunks"]}


@pytest.fixture(scope="module")
def bench():
    with Lab(Programs(BUILD)) as lab:
        yield Bench(lab)


@pytest.fixture(params=[()], ids=["program"])
def switch(bench, request):
    bench.await_links()
    bench.options = request.param
    bench.restart("--vlan", "4094", "--stale-grace", str(GRACE), *request.param)
    return bench


in_kernel_too = pytest.mark.parametrize("switch", [(), ("--kernel-forwarding",)], ids=["program", "kernel"], indirect=True)


def test_slow_protocols_frames_travel_between_ports_and_cpu(switch):
    for port, frame in ((1, LACPDU), (3, tagged(LACPDU, TAG)), (3, packet(dst=SLOW)), (1, bytes(12) + LACPDU[12:])):
        assert switch.exchange((port, frame)) == {"cpu": [to_cpu(frame, port, vlan=4094)]}
    with Capture(switch.system.namespace, "ge2") as another:
        another.send(LACPDU)
    assert switch.exchange((1, packet())) == {2: [LACPDU]}, "neither what goes out nor user traffic is for the CPU"
    switch.system.set_link(2, up=False)
    frames = [LACPDU, to_cpu(LACPDU, 1), from_cpu(LACPDU, 1)[:25], *(from_cpu(LACPDU, n) for n in (0, 4, 256, 1, 2))]
    frames.append(from_cpu(LACPDU[:14], 3))  # no shorter one has a tag and a type
    assert switch.exchange(*(("cpu", frame) for frame in frames)) == {1: [LACPDU], 3: [LACPDU[:14]]}
    now = switch.system.state()
    assert list(now["cpu"].values()) == ["cpu0", 9, 4, 3, 3, 0], "received, sent, without tag, for no port, not sent"
    assert [list(port.values())[4:] for port in now["ports"]] == [[2, 1, 0], [0, 0, 1], [2, 1, 0]], "in, out, not sent"
    switch.system.set_link(2, up=True)
    switch.system.switch.send_signal(signal.SIGSTOP)
    for frame in [packet() + bytes(900)] * 1000 + [LACPDU]:
        switch.wires[1].send(frame)
    switch.system.switch.send_signal(signal.SIGCONT)
    assert switch.exchange() == {"cpu": [to_cpu(LACPDU, 1, vlan=4094)]}, "there is room beside user traffic"


def test_link_status_follows_the_carriers(switch):
    def statuses():
        return [switch.system.datastore.link_status(port) for port in PORTS]
    switch.system.set_link(3, up=False)
    switch.restart()
    assert statuses() == ["up", "up", "down"], "when it is ready"
    assert "state DOWN" in switch.system.namespace.ip("link", "show", "ge3"), "as the operator left it"
    switch.system.datastore.edit("olt-ifm", '<up-link-ports><interface nc:operation="delete"><name>gigabitethernet 0/2'
                                            "</name></interface></up-link-ports>")
    for port, word in ((1, "down"), (3, "up"), (1, "up"), (2, "down"), (2, "up")):
        switch.system.set_link(port, up=word == "up")
        switch.system.switch.wait_for_output(f"port {port}: carrier {word}\n", SOON)
        switch.until(lambda now, port=port, word=word: now["ports"][port - 1]["published"] == word)
    assert statuses() == ["up", "up", "up"], "the removed entry is made again"
    assert switch.system.state()["datastore"] == {"written": 8, "failed": 1}


def sorted_frames(found):  # user traffic does not wait for a LACPDU
    return {end: sorted(frames, reverse=True) for end, frames in found.items()}


@in_kernel_too
def test_interfaces_that_are_late_renamed_or_come_again_carry_frames(switch):
    ip, sends = switch.system.namespace.ip, ((1, LACPDU), ("cpu", from_cpu(LACPDU, 1)), (1, packet()), ("host", packet()))
    passed = {"cpu": [to_cpu(LACPDU, 1)], 1: [packet(), LACPDU], "host": [packet()]}
    ip("link", "set", "ge1", "name", "other")
    switch.restart(*switch.options)
    assert "port 1: interface ge1 is not there; it is taken when it comes\n" in switch.system.switch.output()
    switch.ask((CREATE, 1, SRC_MAC, 1, 1))
    for old, new, carrier in (("other", "ge1", True), ("ge1", "other", False), ("other", "ge1", True)):
        assert sorted_frames(switch.exchange(*sends)) == ({} if carrier else passed)
        ip("link", "set", old, "name", new)
        switch.until(lambda now, carrier=carrier: now["ports"][0]["carrier"] is carrier)
        assert ("promiscuity 0 " not in ip("-d", "link", "show", new)) is carrier
    for near, end in (("ge1", 1), ("hostsw", "host"), ("cpu0", "cpu")):
        switch.system.namespace.ip("link", "del", near)
        switch.system.switch.wait_for_output(f"interface {near} is gone\n", SOON)
        switch.lab.veth(switch.system.namespace, near, *switch.ends[end])
        switch.plug_in(end)
    switch.await_links()
    switch.until(lambda now: now["ports"][0]["carrier"])
    assert sorted_frames(switch.exchange(*sends)) == passed
    for _ in range(20):
        ip("link", "del", "ge1")
        switch.lab.veth(switch.system.namespace, "ge1", *switch.ends[1])
    ip("link", "set", "ge2", "mtu", 9000)
    ip("address", "add", "10.9.9.9/24", "dev", "ge1")
    switch.system.switch.wait_for_output("port 1: interface ge1 has addresses of its own (10.9.9.9/24), which", SOON)
    switch.system.switch.wait_for_output("the MTUs differ (hostsw 1500, ge1 1500, ge2 9000, ge3 1500): a frame too", SOON)
    ip("link", "set", "ge2", "mtu", 1500)
    ip("address", "flush", "dev", "ge1")
    assert "olt-switch: " not in switch.system.switch.output(), "none of this is an error"


def test_requests_make_change_and_remove_trunks(switch):
    trunks = switch.ask((CREATE, 1, SRC_MAC, 0b011, 2), (CREATE, 1, SRC_MAC, 0b111, 3), (PSC_SET, 1, SRC_DST_MAC),
                        (CREATE, 2, SRC_MAC, 0b110, 2), (DESTROY, 3))
    assert trunks == {1: {"criterion": "src-dst-mac", "code": 19, "members": [1], "stale": False},
                      2: {"criterion": "src-mac", "code": 9, "members": [2, 3], "stale": False}}
    assert list(switch.ask((CREATE, 4, SRC_DST_IP, 0b001, 1), (DESTROY, 2))) == [4], "a trunk without members is none"
    assert list(switch.system.state()["driver"].values()) == [1, 4, 2, 1, 0, 0, 3]
    assert [line for line in switch.system.switch.output().splitlines() if line.startswith("trunk")] == [
        "trunk 1: members 1,2 src-mac", "trunk 1: members 1,2,3 src-mac", "trunk 1: members 1,2,3 src-dst-mac",
        "trunk 1: members 1 src-dst-mac", "trunk 2: members 2,3 src-mac", "trunk 1: removed",
        "trunk 4: members 1 src-dst-ip", "trunk 2: removed"]


def test_bad_requests_are_answered_counted_and_survived(switch):
    good = message(CREATE, 1, SRC_MAC, 1, 1)
    malformed = [(1, message(CREATE, 1, excess=1)), (1, message(CREATE, 1, excess=-1)), (1, good[:7]), (1, b""),
                 (1, good + bytes(60000)), (2, message(CREATE, 1, version=0)), (3, message(CREATE, 1, kind=3)),
                 (4, message(13, 1)), (5, message(CREATE)), (5, message(CREATE, 1, SRC_MAC, 1, 1, 0)),
                 (5, message(DESTROY, 1, 1)), (5, message(PSC_SET, 1))]
    refused = [(6, message(CREATE, 0, SRC_MAC, 1, 1)), (6, message(DESTROY, 5)), (7, message(CREATE, 1, 2, 1, 1)),
               (7, message(PSC_SET, 1, 20)), (8, message(CREATE, 1, SRC_MAC, 0, 0)), (8, message(CREATE, 1, SRC_MAC, 8, 1)),
               (8, message(CREATE, 1, SRC_MAC, 3, 1)), (9, message(PSC_SET, 1, SRC_MAC))]
    for code, request in malformed + refused:
        switch.daemon.send(request)
        number = int.from_bytes(request[6:8], "big") if len(request) >= 8 else 0
        assert switch.daemon.recv(4096) == message(ERROR, code, number), request
    deaf = switch.connect()
    for _ in range(1000):
        deaf.send(b"\x00")
    now = switch.until(lambda now: now["driver"]["malformed"] == len(malformed) + 1000)
    assert (now["driver"]["refused"], now["trunks"]) == (len(refused), [])
    assert list(switch.ask((CREATE, 1, SRC_MAC, 1, 1))) == [1]


def test_a_new_daemon_has_its_time_to_ask_for_the_trunks(switch):
    def knock():  # before anything is ready
        while not clients:
            with contextlib.suppress(OSError):
                clients.append(switch.connect())
        clients[0].send(message(CREATE, 1, SRC_MAC, 1, 1))
    clients = []
    switch.system.stop_switch()
    threading.Thread(target=knock).start()
    switch.system.start_switch("--stale-grace", str(GRACE))
    switch.ask((CREATE, 2, SRC_MAC, 2, 1), client=clients[0])
    clients.append(switch.connect())  # and asks for nothing
    time.sleep(GRACE + 0.5)
    assert switch.system.trunks() == {1: {1}, 2: {2}}
    clients.append(switch.connect())  # the first one is not yet gone
    trunks = switch.ask((CREATE, 1, SRC_MAC, 1, 1), client=clients[-1])
    assert {group: trunk["stale"] for group, trunk in trunks.items()} == {1: False, 2: True}
    switch.until(lambda now: [trunk["group"] for trunk in now["trunks"]] == [1])
    for client in clients:
        client.close()
    switch.until(lambda now: now["driver"]["clients"] == 0)
    switch.connect().close()
    time.sleep(GRACE + 0.5)
    assert switch.system.trunks() == {1: {1}}, "one that does not stay takes no trunk away"
    clients.append(switch.connect())
    switch.until(lambda now: now["trunks"] == [])


CRITERIA = {0: ({"sip"}, {"smac"}), 1: ({"dip"}, {"dmac"}), 9: ({"smac"}, {"smac"}), 10: ({"dmac"}, {"dmac"}),
            18: ({"sip", "dip"}, {"smac", "dmac"}), 19: ({"smac", "dmac"}, {"smac", "dmac"})}  # of IP, of other packets


@in_kernel_too
def test_the_criterion_says_what_makes_a_flow(switch):
    switch.ask((CREATE, 1, SRC_MAC, 0b111, 3))
    sent = {(kind, tag, field): [packet(kind, tag, **{field: 10 + value}) for value in range(8)]
            for kind in (IP, IPv6, ARP) for tag in (b"", TAG, SERVICE_TAG, SERVICE_TAG + TAG)
            for field in ("smac", "dmac", "sip", "dip", "load")}
    for code, (of_ip, of_others) in CRITERIA.items():
        switch.ask((PSC_SET, 1, code))
        out = switch.leaving(sum(sent.values(), []))
        where = {frame: port for port, frames in out.items() for frame in frames}
        for (kind, tag, field), frames in sent.items():
            ports = [where[frame] for frame in frames]
            significant = of_others if kind is ARP or tag == SERVICE_TAG + TAG else of_ip
            assert (len(set(ports)) > 1) == (field in significant), (code, kind, tag, field)
            if tag in (TAG, SERVICE_TAG):
                assert ports == [where[frame] for frame in sent[kind, b"", field]], "a tag makes no other flow"
        for port, frames in out.items():
            assert frames == [frame for frame in sum(sent.values(), []) if where[frame] == port], "once and in order"


@in_kernel_too
def test_only_flows_of_a_lost_member_move(switch):
    sent = [packet(sip=value) for value in range(10, 74)]
    switch.ask((CREATE, 1, SRC_IP, 0b111, 3))
    before = switch.leaving(sent)
    switch.system.set_link(2, up=False)
    switch.until(lambda now: not now["ports"][1]["carrier"])
    assert switch.leaving(sent) == {1: before[1], 3: before[3]}, "what a member cannot send is dropped alone"
    assert switch.system.state()["traffic"]["trunks"][0]["tx"]["dropped"] == len(before[2]) > len(sent) / 6
    switch.system.set_link(2, up=True)
    switch.until(lambda now: now["ports"][1]["carrier"])
    switch.ask((CREATE, 1, SRC_IP, 0b101, 2))
    after = switch.leaving(sent)
    assert set(before[1]) < set(after[1]) and set(before[3]) < set(after[3])
    assert sorted(after[1] + after[3]) == sorted(sent)


@in_kernel_too
def test_traffic_stays_within_trunks_and_is_counted(switch):
    def count(frames, dropped=0, tags=0):
        tags = 0 if switch.options else tags * len(TAG)  # the kernel keeps them aside
        return {"frames": frames, "bytes": frames * len(packet()) + tags, "dropped": dropped}
    passed = [packet(dst=address) for address in (HOST, "ff:ff:ff:ff:ff:ff", "01:80:c2:00:00:10", "01:80:c2:00:01:00")]
    reserved = [packet(dst=address) for address in ("01:80:c2:00:00:00", "01:80:c2:00:00:0f")]
    slow = [LACPDU, bytes(12) + LACPDU[12:]]
    assert switch.leaving(passed[:1]) == {}, "no trunk"
    switch.ask((CREATE, 3, SRC_MAC, 0b100, 1), (CREATE, 2, SRC_MAC, 0b010, 1))
    assert switch.leaving([*passed, *reserved, *slow]) == {2: passed}, "the lowest group carries"
    for port in PORTS:
        found = switch.exchange(*((port, frame) for frame in (*passed, packet(tag=TAG), *reserved, *slow)))
        assert found.pop("cpu") == [to_cpu(frame, port, vlan=4094) for frame in slow]
        assert found == ({} if port == 1 else {"host": [*passed, packet(tag=TAG)]}), "nothing outside trunks"
    ports = [{"port": port, "rx": rx, "tx": tx, "interface": f"ge{port}", "missed": 0} for port, rx, tx in (
        (1, count(0, dropped=7), count(0)), (2, count(5, 2, tags=1), count(4)), (3, count(5, 2, tags=1), count(0)))]
    trunks = [{"group": port["port"], "rx": count(5, tags=1), "tx": port["tx"]} for port in ports[1:]]
    assert switch.system.state()["traffic"] == {
        "host": {"rx": count(4, dropped=4 if switch.options else 5), "tx": count(10, tags=2), "interface": "hostsw", "missed": 0},
        "ports": ports, "trunks": trunks}
    switch.ask((DESTROY, 2))
    assert switch.leaving(passed) == {3: passed}, "the next group stands in"


@pytest.mark.parametrize("switch", [("--kernel-forwarding",)], ids=["kernel"], indirect=True)
def test_the_kernel_forwards_on_when_the_switch_dies(switch):
    def passes():
        return switch.exchange(("host", packet())) == {1: [packet()]}
    switch.ask((CREATE, 1, SRC_MAC, 1, 1))
    switch.system.switch.stop(signal.SIGKILL)
    switch.wires["host"].send(packet())
    switch.restart("--stale-grace", str(3 * GRACE), *switch.options)
    assert passes(), "until it is asked for a trunk"
    eventually("nobody asks", passes, lambda passed: not passed, SOON)
    switch.ask((CREATE, 1, SRC_MAC, 1, 1))
    assert passes() and switch.system.switch.stop() == 0
    assert "olt-switch" not in subprocess.run([*switch.system.namespace.enter(), "nft", "list", "ruleset"],
                                              capture_output=True, text=True, check=True).stdout


def test_what_the_kernel_has_left_to_do_stays_so(switch):
    switch.ask((CREATE, 1, SRC_MAC, 1, 1))
    for name in ("host", 1):
        switch.wires[name].ins.setsockopt(SOL_PACKET, PACKET_VNET_HDR, 1)
    for layer, offset, kind, head, size in ((UDP() / bytes(20), 6, 0, 0, 0), (TCP() / bytes(4000), 16, 1, 54, 1000)):
        frame = bytes(Ether(src=HOST, dst=HOST) / IP(src="10.0.0.1", dst="10.0.0.2") / layer)
        for tag in (b"", TAG):
            header = struct.pack("=BBHHHH", 1, kind, head and head + len(tag), size, 34 + len(tag), offset)
            switch.wires["host"].ins.send(header + tagged(frame, tag))
            switch.settled()
            received = switch.wires[1].ins.recv(1 << 16)  # the kernel keeps the tag aside
            assert (received[:2], received[10:]) == (header[:2], frame)
            assert struct.unpack("=HHH", received[4:10]) == (size, 34, offset)


def tunnel(kind, piece, rest):
    """A frame within a tunnel, as the numbered one of a train of segments."""
    ends, first = Ether(src=HOST, dst=HOST), IP(id=9 + piece)
    inner = IP(src="10.1.0.1", dst="10.1.0.2", id=70 + piece) / rest
    return bytes(ends / {"VXLAN": first / UDP(sport=9, dport=4789) / VXLAN(vni=5) / ends / inner,
                         "VXLAN over IPv6": IPv6() / UDP(sport=9, dport=4789) / VXLAN(vni=5) / ends / inner,
                         "GRE": first / GRE(chksum_present=1) / inner, "IPIP": first / IPv6() / rest}[kind])


def unfinished(frame, start, field):
    """The frame with the sum of a pseudo header for the checksum of what begins at `start`."""
    head, rest = frame[:start + field], frame[start + field + 2:]
    total = (0xFFFF ^ struct.unpack_from("!H", frame, start + field)[0]) + checksum(head[start:] + bytes(2) + rest)
    return head + struct.pack("!H", total % 0xFFFF) + rest


def test_what_the_kernel_has_left_to_do_in_a_tunnel_is_done(switch):
    def tap():  # brings frames in as a tunnel in the kernel leaves them
        device = os.open("/dev/net/tun", os.O_RDWR)
        fcntl.ioctl(device, TUNSETIFF, struct.pack("16sH22x", b"ge2", IFF_TAP | IFF_NO_PI | IFF_VNET_HDR))
        return device
    namespace = switch.system.namespace
    namespace.ip("link", "del", "ge2")
    del switch.wires[2]
    device = namespace.call(tap)
    namespace.ip("link", "set", "ge2", "up")
    switch.until(lambda now: now["ports"][1]["carrier"])
    switch.ask((CREATE, 1, SRC_MAC, 2, 1))
    for kind in ("VXLAN", "VXLAN over IPv6", "GRE", "IPIP"):
        for layer, field, segments, size in ((UDP, 6, 5, 1000), (TCP, 16, 1, 1000), (TCP, 16, 0, 1001), (UDP, 6, 0, 1001)):
            data = bytes(range(250)) * (11 if segments else 4) + b"!"
            cuts = range(0, len(data), size)
            flags = ["CPF"] if len(cuts) == 1 else ["C", *[""] * (len(cuts) - 2), "PF"]
            whole, *pieces = (tunnel(kind, number, (TCP(seq=5 + at, flags=flag) if layer is TCP else layer()) / part)
                              for number, at, flag, part in [(0, 0, "CPF", data)] + [
                                  (number, at, flags[number], data[at:at + size]) for number, at in enumerate(cuts)])
            start = whole.index(data[:100]) - len(layer())
            outside = segments and "VXLAN" in kind
            frame = unfinished(whole, whole.index(struct.pack("!H", 4789)) - 2, 6) if outside else whole
            frame = unfinished(frame, start, field)
            os.write(device, struct.pack("=BBHHHH", 1, segments, start + 20, size if segments else 0, start, field) + frame)
            assert switch.exchange() == {"host": pieces}, (kind, layer, segments)
    os.close(device)
    switch.lab.veth(namespace, "ge2", *switch.ends[2])
