"""The software switch as a program: frames, carriers, driver requests, a second one, its end."""

import os
import signal
import socket
import stat
import time

import pytest

from switchbench import CREATE, DESTROY, PSC_SET, SOON, message

SLOW = bytes.fromhex("0180c2000002")
SOURCE = bytes.fromhex("020000000a01")
UNICAST = bytes.fromhex("020000000b01")
PDU = b"\x88\x09" + bytes(range(110))
SRC_MAC, SRC_DST_MAC = 9, 19
GRACE = 1


def to_cpu(port, vlan=1):
    return b"\x90\x82" + bytes(4) + port.to_bytes(2, "big") + bytes(4) + b"\x81\x00" + vlan.to_bytes(2, "big")


def from_cpu(port):
    return b"\x90\x89" + bytes(4) + port.to_bytes(2, "little") + bytes(4)


# ---- frames

@pytest.mark.parametrize("port", [1, 3])
def test_a_slow_protocols_frame_reaches_the_cpu_in_both_tags(switch, port):
    cpu, far = switch.wire("ethv0"), switch.wire(f"far{port}")
    far.send(SLOW + SOURCE + PDU)
    frame = cpu.receive()
    assert frame == SLOW + SOURCE + to_cpu(port) + PDU
    assert (frame[:12] + frame[24:])[18:] == PDU[2:], "the PDU is at byte 18 without the switch tag"
    assert switch.port(port)["rx_slow"] == 1
    assert switch.state()["cpu"]["sent"] == 1


def test_address_or_type_make_a_slow_protocols_frame(switch):
    cpu, far = switch.wire("ethv0"), switch.wire("far1")
    for frame in (UNICAST + SOURCE + PDU, SLOW + SOURCE + b"\x08\x00" + bytes(60)):
        far.send(frame)
        assert cpu.receive() == frame[:12] + to_cpu(1) + frame[12:]
    far.send(UNICAST + SOURCE + b"\x08\x00" + bytes(60))
    assert cpu.receive(within=0.5) is None, "user traffic is not the CPU's"
    assert switch.port(1)["rx_slow"] == 2


def test_a_vlan_tag_on_the_cable_stays_in_the_frame(switch):
    cpu, far = switch.wire("ethv0"), switch.wire("far1")
    tagged = SLOW + SOURCE + b"\x81\x00\x60\x05" + PDU
    far.send(tagged)
    assert cpu.receive() == SLOW + SOURCE + to_cpu(1) + tagged[12:]


def test_the_vlan_towards_the_cpu_can_be_chosen(bench):
    bench.start("--vlan", "4094")
    cpu, far = bench.wire("ethv0"), bench.wire("far2")
    far.send(SLOW + SOURCE + PDU)
    assert cpu.receive() == SLOW + SOURCE + to_cpu(2, vlan=4094) + PDU


@pytest.mark.parametrize("port", [1, 3])
def test_a_frame_from_the_cpu_leaves_its_port_without_a_tag(switch, port):
    cpu = switch.wire("ethv0")
    fars = {number: switch.wire(f"far{number}") for number in (1, 2, 3)}
    cpu.send(SLOW + SOURCE + from_cpu(port) + PDU)
    assert fars.pop(port).receive() == SLOW + SOURCE + PDU
    assert all(other.receive(within=0.2) is None for other in fars.values())
    assert switch.port(port)["tx_slow"] == 1


def test_what_the_cpu_may_not_send_is_dropped_and_counted(switch):
    cpu = switch.wire("ethv0")
    fars = [switch.wire(f"far{number}") for number in (1, 2, 3)]
    cpu.send(SLOW + SOURCE + PDU)                                # no tag
    cpu.send(SLOW + SOURCE + to_cpu(1) + PDU)                    # the other direction's tag
    cpu.send(SLOW + SOURCE + b"\x90\x89" + bytes(5))             # too short for a tag
    cpu.send(SLOW + SOURCE + from_cpu(0) + PDU)
    cpu.send(SLOW + SOURCE + from_cpu(4) + PDU)
    cpu.send(SLOW + SOURCE + b"\x90\x89" + bytes(4) + b"\x00\x01" + bytes(4) + PDU)  # 256, not 1
    switch.await_state("frames from the CPU", lambda: switch.state()["cpu"]["received"], 6)
    assert switch.state()["cpu"]["bad_tag"] == 3
    assert switch.state()["cpu"]["unknown_port"] == 3
    assert all(far.receive(within=0.2) is None for far in fars)


def test_what_a_port_cannot_send_is_counted(switch):
    switch.namespace.ip("link", "set", "ge1", "down")
    switch.wire("ethv0").send(SLOW + SOURCE + from_cpu(1) + PDU)
    switch.await_state("dropped frames", lambda: switch.port(1)["dropped"], 1)
    assert switch.port(1)["tx_slow"] == 0


def test_frames_that_leave_by_another_program_are_not_taken_for_received_ones(switch):
    cpu, near = switch.wire("ethv0"), switch.wire("ge1")
    near.send(SLOW + SOURCE + PDU)
    assert cpu.receive(within=0.5) is None
    assert switch.port(1)["rx_slow"] == 0


# ---- carriers

def test_carriers_are_followed(switch):
    for far_state, carrier in (("down", False), ("up", True)):
        switch.namespace.ip("link", "set", "far2", far_state)
        switch.await_state("carrier of port 2", lambda: switch.port(2)["carrier"], carrier)
        assert f"port 2: carrier {far_state}\n" in switch.process.output()
    assert switch.port(1)["carrier"] is True
    assert switch.port(2)["published"] is None, "there is no datastore"


def test_an_interface_that_is_down_has_no_carrier_and_stays_down(bench):
    bench.namespace.ip("link", "set", "ge3", "down")
    bench.start()
    assert bench.port(3)["carrier"] is False
    assert "state DOWN" in bench.namespace.ip("link", "show", "ge3")
    bench.namespace.ip("link", "set", "ge3", "up")
    bench.await_state("carrier of port 3", lambda: bench.port(3)["carrier"], True)
    cpu, far = bench.wire("ethv0"), bench.wire("far3")
    far.send(SLOW + SOURCE + PDU)
    assert cpu.receive() == SLOW + SOURCE + to_cpu(3) + PDU


def test_an_interface_may_go_and_come_again(switch):
    switch.namespace.ip("link", "del", "ge1")
    switch.await_state("carrier of port 1", lambda: switch.port(1)["carrier"], False)
    switch.pair("ge1", "far1")
    switch.await_state("carrier of port 1", lambda: switch.port(1)["carrier"], True)
    cpu, far = switch.wire("ethv0"), switch.wire("far1")
    far.send(SLOW + SOURCE + PDU)
    assert cpu.receive() == SLOW + SOURCE + to_cpu(1) + PDU
    cpu.send(SLOW + SOURCE + from_cpu(1) + PDU)
    assert far.receive() == SLOW + SOURCE + PDU


def test_a_renamed_interface_is_no_longer_the_ports(switch):
    switch.namespace.ip("link", "set", "ge1", "down")
    switch.namespace.ip("link", "set", "ge1", "name", "other")
    switch.namespace.ip("link", "set", "other", "up")
    time.sleep(0.5)
    assert switch.port(1)["carrier"] is False


# ---- driver service

def test_requests_make_change_and_remove_trunks(switch):
    driver = switch.driver()
    driver.request(CREATE, 1, SRC_MAC, 0b011, 2)
    switch.await_count("creates", 1)
    assert switch.trunks() == {1: {"group": 1, "criterion": "src-mac", "code": 9, "members": [1, 2], "stale": False}}
    driver.request(CREATE, 1, SRC_MAC, 0b100, 1)
    driver.request(PSC_SET, 1, SRC_DST_MAC)
    switch.await_count("psc_sets", 1)
    assert switch.trunks()[1]["members"] == [3]
    assert switch.trunks()[1]["criterion"] == "src-dst-mac"
    driver.request(CREATE, 2, SRC_MAC, 0b110, 2)
    switch.await_count("creates", 3)
    assert {group: trunk["members"] for group, trunk in switch.trunks().items()} == {2: [2, 3]}, "the last one asked"
    assert switch.state()["driver"]["moved_ports"] == 1
    driver.request(DESTROY, 2)
    switch.await_count("destroys", 1)
    assert switch.trunks() == {}
    lines = switch.process.output().splitlines()
    assert [line for line in lines if line.startswith("trunk")] == [
        "trunk 1: members 1,2 src-mac", "trunk 1: members 3 src-mac", "trunk 1: members 3 src-dst-mac",
        "trunk 1: removed", "trunk 2: members 2,3 src-mac", "trunk 2: removed"]


GOOD = message(CREATE, 1, SRC_MAC, 1, 1)
MALFORMED = {
    "one byte": b"\x00",
    "length too large": message(CREATE, 1, SRC_MAC, 1, 1, length=25),
    "kind": message(CREATE, 1, SRC_MAC, 1, 1, kind=3),
    "body too long": message(DESTROY, 1, 1),
    "larger than any message": GOOD + bytes(60000),
    "random": os.urandom(7),
}


def test_malformed_messages_are_answered_counted_and_survived(switch):
    driver = switch.driver()
    for number, (name, data) in enumerate(MALFORMED.items(), start=1):
        driver.send(data)
        assert 1 <= driver.error()[0] <= 5, name
        assert switch.state()["driver"]["malformed"] == number, name
    driver.send(b"")
    assert driver.error() == (1, 0)
    driver.send(GOOD)
    switch.await_count("creates", 1)
    assert switch.state()["driver"]["refused"] == 0


def test_requests_for_what_cannot_be_are_refused(switch):
    driver = switch.driver()
    refused = [(6, (CREATE, 5, SRC_MAC, 1, 1)), (7, (CREATE, 1, 2, 1, 1)), (8, (CREATE, 1, SRC_MAC, 0b1000, 1)),
               (9, (PSC_SET, 1, SRC_MAC))]
    for code, request in refused:
        driver.request(*request)
        assert driver.error() == (code, request[0]), request
    assert switch.state()["driver"]["refused"] == len(refused)
    assert switch.trunks() == {}


def test_a_client_that_reads_nothing_stops_nobody(switch):
    deaf = switch.driver()
    for _ in range(5000):
        deaf.send(b"\x00")
    driver = switch.driver()
    driver.send(GOOD)
    switch.await_count("creates", 1)
    switch.await_count("malformed", 5000)


def test_trunks_outlive_their_daemon_until_the_next_one_has_had_its_time(bench):
    bench.start("--stale-grace", str(GRACE))
    first = bench.driver()
    first.request(CREATE, 1, SRC_MAC, 1, 1)
    first.request(CREATE, 2, SRC_MAC, 2, 1)
    bench.await_count("creates", 2)
    first.close()
    bench.await_count("clients", 0)
    time.sleep(GRACE + 0.5)
    assert not any(trunk["stale"] for trunk in bench.trunks().values()) and len(bench.trunks()) == 2
    second = bench.driver()
    bench.await_count("clients", 1)
    assert all(trunk["stale"] for trunk in bench.trunks().values())
    second.request(CREATE, 1, SRC_MAC, 1, 1)
    bench.await_state("trunks", lambda: set(bench.trunks()), {1})
    assert bench.trunks()[1]["stale"] is False


def test_a_daemon_that_does_not_stay_takes_no_trunk_away(bench):
    bench.start("--stale-grace", str(GRACE))
    first = bench.driver()
    first.request(CREATE, 1, SRC_MAC, 1, 1)
    bench.await_count("creates", 1)
    first.close()
    bench.await_count("clients", 0)
    bench.driver().close()
    time.sleep(GRACE + 0.5)
    assert set(bench.trunks()) == {1}


def test_a_second_connection_beside_the_daemon_changes_nothing(bench):
    bench.start("--stale-grace", str(GRACE))
    bench.driver().request(CREATE, 1, SRC_MAC, 1, 1)
    bench.await_count("creates", 1)
    bench.driver()
    time.sleep(GRACE + 0.5)
    assert bench.trunks()[1]["stale"] is False


# ---- the program

def test_a_second_switch_is_refused(switch):
    second = switch.run()
    assert second.returncode == 1
    assert second.stderr == (f"olt-switch: socket {switch.driver_socket} is served by another switch; stop that one, "
                             "or name another path\n")
    driver = switch.driver()
    driver.send(GOOD)
    switch.await_count("creates", 1)


def test_sockets_of_a_killed_switch_are_taken_over(switch):
    switch.process.send_signal(signal.SIGKILL)
    switch.process.wait(SOON)
    assert switch.driver_socket.exists() and switch.state_socket.exists()
    switch.start()
    assert switch.trunks() == {}


def test_a_file_that_is_no_socket_is_left_alone(bench):
    bench.state_socket.parent.mkdir()
    bench.state_socket.write_text("precious")
    result = bench.run()
    assert result.returncode == 1
    assert str(bench.state_socket) in result.stderr and "remove it" in result.stderr
    assert bench.state_socket.read_text() == "precious"


def test_sockets_are_closed_to_others(switch):
    for path in (switch.driver_socket, switch.state_socket):
        assert stat.S_IMODE(path.stat().st_mode) == 0o660
        assert path.group() == "daemon"
    assert stat.S_IMODE(switch.driver_socket.parent.stat().st_mode) == 0o755


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_a_signal_ends_it_cleanly(switch, number):
    switch.process.send_signal(number)
    assert switch.process.wait(SOON) == 0
    assert not switch.driver_socket.exists() and not switch.state_socket.exists()


def test_a_missing_interface_is_named(bench):
    result = bench.run(ports=(1, 7))
    assert result.returncode == 1
    assert result.stderr == "olt-switch: there is no interface ge7; create it first, or name another one\n"
    assert result.stdout == ""


@pytest.mark.parametrize("options, words", [
    (("--bogus",), "--bogus"), (("--vlan", "4095"), "--vlan"), (("--vlan", "0"), "--vlan"),
    (("--port", "9=ge1"), "9=ge1"), (("--port", "1=ge2"), "twice"), (("--port", "x"), "N=IFACE"),
    (("--port", "4=ge1"), "twice"), (("--stale-grace", "-1"), "--stale-grace")])
def test_bad_options_get_one_sentence(bench, options, words):
    result = bench.run(*options)
    assert result.returncode == 1
    assert result.stderr.startswith("olt-switch: ") and result.stderr.count("\n") == 1
    assert words in result.stderr


@pytest.mark.parametrize("path", ["/" + "x" * 120, "/proc/nowhere/x.sock"])
def test_a_socket_that_cannot_be_made_is_named(bench, path):
    bench.driver_socket = path
    result = bench.run()
    assert result.returncode == 1
    assert result.stderr.startswith(f"olt-switch: socket {path} cannot be ") and result.stderr.count("\n") == 1


def test_a_state_that_nobody_reads_stops_nobody(switch):
    idle = [socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) for _ in range(8)]
    for client in idle:
        client.connect(str(switch.state_socket))
    assert len(switch.state()["ports"]) == 3
    for client in idle:
        client.close()
