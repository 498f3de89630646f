"""User traffic through the switch: both ways, chosen members, what may not pass, counters."""

import struct

import pytest

from switchbench import CREATE, DESTROY, PORTS, PSC_SET

HOST = bytes.fromhex("020000000001")
NEIGHBOUR = bytes.fromhex("020000000002")
BROADCAST = b"\xff" * 6
SLOW = bytes.fromhex("0180c2000002")
LLDP = bytes.fromhex("0180c200000e")
SRC_IP, SRC_MAC, SRC_DST_IP = 0, 9, 18
QUIET = 0.3     # nothing comes any more
AT_ONCE = 0.05  # what has been sent is there


def frame(number, destination=NEIGHBOUR, source=HOST, src_ip=1, dst_ip=2, tag=b""):
    """An IPv4 packet with a number in it."""
    addresses = bytes([10, 0, 0, src_ip, 10, 0, 0, dst_ip])
    ip = struct.pack("!BBHHHBBH8s", 0x45, 0, 46, 0, 0, 64, 17, 0, addresses)
    return destination + source + tag + b"\x08\x00" + ip + number.to_bytes(4, "big") + bytes(22)


class Stand:
    """A switch with host interface, trunk 1 over ports 1 and 2; port 3 is in no trunk."""

    def __init__(self, bench):
        self.bench = bench
        bench.pair("hostsw", "host0")
        bench.start("--host", "hostsw")
        self.host = bench.wire("host0")
        self.fars = {port: bench.wire(f"far{port}") for port in PORTS}
        self.driver = bench.driver()

    def trunk(self, group=1, criterion=SRC_DST_IP, members=0b011):
        before = self.bench.state()["driver"]["creates"]
        self.driver.request(CREATE, group, criterion, members, members.bit_count())
        self.bench.await_count("creates", before + 1)

    def traffic(self):
        return self.bench.state()["traffic"]

    def port_traffic(self, number):
        return next(port for port in self.traffic()["ports"] if port["port"] == number)

    def trunk_traffic(self, group):
        return next(trunk for trunk in self.traffic()["trunks"] if trunk["group"] == group)

    def handled(self):
        """Frames of the host that the switch has dealt with."""
        host = self.traffic()["host"]["rx"]
        return host["frames"] + host["dropped"]

    def leaving(self, *frames):
        """Sends frames from the host; those that come out of each port, in order."""
        before = self.handled()
        for data in frames:
            self.host.send(data)
        self.bench.await_state("frames of the host", self.handled, before + len(frames))
        return {port: drain(wire, within=AT_ONCE) for port, wire in self.fars.items()}


def drain(wire, within=QUIET):
    found = []
    while (data := wire.receive(within)) is not None:
        found.append(data)
    return found


@pytest.fixture
def stand(bench):
    return Stand(bench)


# ---- from the host

def test_every_frame_leaves_once_unchanged_and_in_order_within_its_flow(stand):
    stand.trunk()
    sent = [frame(number, src_ip=number % 16) for number in range(320)]
    out = stand.leaving(*sent)
    assert out[3] == [], "a port in no trunk"
    assert sorted(out[1] + out[2]) == sorted(sent), "nothing lost, nothing twice, nothing changed"
    for flow in range(16):
        mine = sent[flow::16]
        parts = [[data for data in out[port] if data in mine] for port in (1, 2)]
        assert sorted(parts) == [[], mine], "one member, in order"
    assert out[1] and out[2], "sixteen flows use both members"


def test_a_vlan_tag_stays_and_the_packet_behind_it_counts(stand):
    stand.trunk(criterion=SRC_IP)
    tag = b"\x81\x00\x60\x05"
    plain = stand.leaving(*(frame(number, src_ip=number) for number in range(16)))
    tagged = stand.leaving(*(frame(number, src_ip=number, tag=tag) for number in range(16)))
    for port in (1, 2):
        assert tagged[port] == [data[:12] + tag + data[12:] for data in plain[port]]


def test_broadcasts_leave_once_and_only_while_there_is_a_trunk(stand):
    stand.trunk(group=2, members=0b001)
    stand.trunk(group=3, members=0b110)
    sent = frame(1, destination=BROADCAST)
    assert stand.leaving(sent) == {1: [sent], 2: [], 3: []}
    assert stand.trunk_traffic(2)["tx"]["frames"] == 1
    for group in (2, 3):
        stand.driver.request(DESTROY, group)
    stand.bench.await_count("destroys", 2)
    assert stand.leaving(sent) == {1: [], 2: [], 3: []}, "without a trunk nothing leaves"
    assert stand.traffic()["host"]["rx"]["dropped"] == 1


def test_a_new_criterion_is_used_at_once(stand):
    stand.trunk(criterion=SRC_MAC)
    sent = [frame(number, src_ip=number) for number in range(32)]
    out = stand.leaving(*sent)
    assert sorted((len(out[1]), len(out[2]))) == [0, 32]
    stand.driver.request(PSC_SET, 1, SRC_IP)
    stand.bench.await_count("psc_sets", 1)
    out = stand.leaving(*sent)
    assert out[1] and out[2]


@pytest.mark.parametrize("destination", [SLOW, LLDP])
def test_link_local_frames_of_the_host_stay(stand, destination):
    stand.trunk()
    cpu = stand.bench.wire("ethv0")
    assert stand.leaving(frame(1, destination=destination)) == {1: [], 2: [], 3: []}
    assert cpu.receive(within=QUIET) is None
    assert stand.traffic()["host"]["rx"]["dropped"] == 1


# ---- what the kernel has left to do

TAGS = pytest.mark.parametrize("tag", [b"", b"\x81\x00\x60\x05"], ids=["untagged", "tagged"])
UDP_CHECKSUM, TCP_CHECKSUM = 6, 16
TO_SEGMENT = 4000


@TAGS
def test_a_checksum_that_is_to_be_filled_in_stays_so(stand, tag):
    stand.trunk(members=0b001)
    host, far = stand.bench.offload_wire("host0"), stand.bench.offload_wire("far1")
    sent = frame(1, tag=tag)
    host.send_for_checksum(sent, start=34 + len(tag), offset=UDP_CHECKSUM)
    header, received = far.receive_with_header()
    assert (header[0], header[4:]) == (host.NEEDS_CHECKSUM, (34, UDP_CHECKSUM))
    assert received == frame(1), "the kernel keeps the tag aside"


@TAGS
def test_a_train_of_segments_passes_in_one_piece(stand, tag):
    stand.trunk(members=0b001)
    host, far = stand.bench.offload_wire("host0"), stand.bench.offload_wire("far1")
    payload = bytes(byte % 251 for byte in range(TO_SEGMENT))
    ip = struct.pack("!BBHHHBBH8s", 0x45, 0, 40 + TO_SEGMENT, 0, 0, 64, 6, 0, bytes([10, 0, 0, 1, 10, 0, 0, 2]))
    tcp = struct.pack("!HHIIBBHHH", 5000, 5001, 1, 1, 5 << 4, 0x10, 1000, 0, 0)
    untagged = NEIGHBOUR + HOST + b"\x08\x00" + ip + tcp + payload
    host.send_for_checksum(untagged[:12] + tag + untagged[12:], start=34 + len(tag), offset=TCP_CHECKSUM,
                           segments=(host.TCP_SEGMENTS, 54 + len(tag), 1000))
    (_, kind, _, size, start, offset), received = far.receive_with_header()
    assert (kind, size, start, offset) == (host.TCP_SEGMENTS, 1000, 34, TCP_CHECKSUM)
    assert received == untagged
    assert stand.port_traffic(1)["tx"] == {"frames": 1, "bytes": len(untagged) + len(tag), "dropped": 0}


# ---- to the host

def test_frames_of_every_member_reach_the_host_and_no_other_port(stand):
    stand.trunk(group=1, members=0b001)
    stand.trunk(group=2, members=0b110)
    for port, wire in stand.fars.items():
        sent = [frame(number, destination=destination, tag=tag) for number, (destination, tag) in enumerate(
            ((HOST, b""), (NEIGHBOUR, b""), (BROADCAST, b""), (HOST, b"\x81\x00\x60\x05")))]
        for data in sent:
            wire.send(data)
        assert drain(stand.host) == sent, f"port {port}"
    assert all(drain(wire) == [] for wire in stand.fars.values())


def test_a_port_in_no_trunk_carries_nothing(stand):
    stand.trunk()
    stand.fars[3].send(frame(1, destination=HOST))
    stand.fars[3].send(frame(2, destination=BROADCAST))
    assert stand.host.receive(within=QUIET) is None
    assert stand.port_traffic(3)["rx"] == {"frames": 0, "bytes": 0, "dropped": 2}


def test_slow_protocols_frames_go_to_the_cpu_only(stand):
    stand.trunk()
    cpu = stand.bench.wire("ethv0")
    stand.fars[1].send(SLOW + NEIGHBOUR + b"\x88\x09" + bytes(110))
    assert cpu.receive() is not None and cpu.receive(within=QUIET) is None
    assert stand.host.receive(within=QUIET) is None
    stand.fars[1].send(frame(1, destination=LLDP))
    assert stand.host.receive(within=QUIET) is None
    assert stand.port_traffic(1)["rx"] == {"frames": 0, "bytes": 0, "dropped": 1}


def test_slow_protocols_frames_pass_beside_a_flood(stand):
    stand.trunk()
    cpu = stand.bench.wire("ethv0")
    flood = frame(0, destination=HOST) + bytes(900)
    for _ in range(20):
        for _ in range(1000):
            stand.fars[1].send(flood)
        stand.fars[1].send(SLOW + NEIGHBOUR + b"\x88\x09" + bytes(110))
    assert sum(cpu.receive() is not None for _ in range(20)) == 20
    stand.bench.await_state("slow-protocols frames", lambda: stand.bench.port(1)["rx_slow"], 20)


# ---- counters

def test_counters_tell_frames_bytes_and_what_was_dropped(stand):
    stand.trunk()
    sent = [frame(number, src_ip=number) for number in range(20)]
    out = stand.leaving(*sent)
    for data in sent[:3]:
        stand.fars[2].send(data)
    assert len(drain(stand.host)) == 3
    size = len(sent[0])

    def count(frames, dropped=0):
        return {"frames": frames, "bytes": frames * size, "dropped": dropped}

    assert stand.port_traffic(1)["tx"] == count(len(out[1]))
    assert stand.port_traffic(2)["tx"] == count(len(out[2]))
    assert stand.port_traffic(2)["rx"] == count(3)
    assert stand.trunk_traffic(1) == {"group": 1, "rx": count(3), "tx": count(20)}
    host = stand.traffic()["host"]
    assert (host["interface"], host["rx"], host["tx"], host["missed"]) == ("hostsw", count(20), count(3), 0)


def test_what_a_member_cannot_send_is_dropped_alone(stand):
    stand.trunk()
    sent = [frame(number, src_ip=number) for number in range(20)]
    before = stand.leaving(*sent)
    stand.bench.namespace.ip("link", "set", "ge1", "down")
    after = stand.leaving(*sent)
    assert (after[1], after[2]) == ([], before[2])
    assert stand.port_traffic(1)["tx"]["dropped"] == len(before[1])
    assert stand.trunk_traffic(1)["tx"]["dropped"] == len(before[1])


def test_an_interface_that_comes_again_carries_traffic_again(stand):
    stand.trunk(members=0b001)
    for near, far in (("ge1", "far1"), ("hostsw", "host0")):
        stand.bench.namespace.ip("link", "del", near)
        stand.bench.pair(near, far)
    stand.bench.await_state("carrier", lambda: stand.bench.port(1)["carrier"], True)
    host, far = stand.bench.wire("host0"), stand.bench.wire("far1")
    host.send(frame(1))
    assert far.receive() == frame(1)
    far.send(frame(2))
    assert host.receive() == frame(2)


# ---- options

def test_without_a_host_interface_there_is_no_user_traffic(switch):
    driver = switch.driver()
    driver.request(CREATE, 1, SRC_MAC, 0b111, 3)
    switch.await_count("creates", 1)
    fars = [switch.wire(f"far{port}") for port in PORTS]
    fars[0].send(frame(1))
    assert all(wire.receive(within=QUIET) is None for wire in fars)
    assert switch.state()["traffic"] is None


@pytest.mark.parametrize("interface, words", [("cpu0", "given twice"), ("ge1", "given twice"),
                                              ("nothere", "there is no interface nothere")])
def test_a_host_interface_that_cannot_be_is_named(bench, interface, words):
    result = bench.run("--host", interface)
    assert result.returncode == 1
    assert words in result.stderr and result.stderr.count("\n") == 1
