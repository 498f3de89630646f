#!/usr/bin/env python3
"""Two terminals, cabled together, form link aggregations.

Starts two complete systems (datastore, software switch, lacpd), each in a network namespace of its own, configures them
through their shells, shows the trunks of both switches, cuts a link and restores it. Meanwhile a user behind one sends to a
user behind the other.

    scripts/demo.py [BUILD-DIRECTORY]       as root, after a build
"""

import signal
import sys
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT))

from lab import Capture, Flow, Lab, LabError, Lacpdu, Programs, Ticks  # noqa: E402 (needs the path above)

PORTS = 4
DYNAMIC, MANUAL = 1, 2
CUT_PORT = 2

CONFIGURATION = """\
interface gigabitEthernet 0/1
channel-group 1 mode {mode}
lacp timeout short
exit
interface gigabitEthernet 0/2
channel-group 1 mode {mode}
lacp timeout short
exit
interface gigabitEthernet 0/3
channel-group 2 mode on
exit
interface gigabitEthernet 0/4
channel-group 2 mode on
exit
channel-group 1 load-balance src-ip"""

started = time.monotonic()


def say(text):
    print(f"[{time.monotonic() - started:5.1f} s] {text}", flush=True)


def show(title, text):
    print(f"\n  {title}\n" + "".join(f"    {line}\n" for line in text.splitlines() if line.strip()), flush=True)


def check(condition, complaint):
    if not condition:
        raise LabError(complaint)


def configure(system, mode):
    say(f"{system.name}: configuring ports 1 and 2 for LACP ({mode}), ports 3 and 4 for a manual group")
    answer = system.configure(*CONFIGURATION.format(mode=mode).splitlines())
    check(answer.strip() == "", f"the shell of {system.name} answered: {answer}")


def await_trunks(systems, expected, within):
    deadline = time.monotonic() + within
    for system in systems:
        for group, ports in expected.items():
            system.await_trunk(group, ports, max(deadline - time.monotonic(), 0))


def show_trunks(systems):
    for system in systems:
        lines = [f"trunk {trunk['group']}: ports {trunk['members']}, {trunk['criterion']}"
                 for trunk in system.state()["trunks"]]
        show(f"switch of {system.name}", "\n".join(lines))


def show_last_lacpdu(capture, sender, port):
    frames = capture.frames(count=1000, within=0.2)
    check(frames, f"no LACPDU from {sender.name} on port {port}")
    pdu = Lacpdu(frames[-1].data)
    check(pdu.actor.system.hex(":") == sender.mac, f"LACPDU of a stranger: {pdu.actor.system.hex(':')}")
    show(f"last of {len(frames)} LACPDUs from {sender.name} on the cable of port {port}",
         f"{len(frames[-1].data)} bytes, "
         f"actor {pdu.actor.system.hex(':')} port {pdu.actor.port} key {pdu.actor.key} state 0x{pdu.actor.state:02x}, "
         f"partner {pdu.partner.system.hex(':')} port {pdu.partner.port} key {pdu.partner.key} "
         f"state 0x{pdu.partner.state:02x}")


def show_displays(systems):
    for system in systems:
        with system.shell() as shell:
            shell.run("configure terminal")
            for command in ("show channel-group detail", f"show channel-group {DYNAMIC} port"):
                show(shell.prompt + command, shell.run(command))


def show_flow(report):
    show("packets of the left user to the right one, a thousand a second",
         f"{report.sent} sent, {report.lost} lost, longest time between two {report.outage * 1000:.0f} ms")


def run(lab):
    say("starting two systems: each has a namespace, a datastore, a software switch and lacpd")
    both = left, right = lab.pair(PORTS)

    with Capture(right.namespace, right.port_interface(1)) as from_left, \
            Capture(left.namespace, left.port_interface(1)) as from_right:
        configure(left, "active")
        configure(right, "passive")
        await_trunks(both, {DYNAMIC: {1, 2}, MANUAL: {3, 4}}, Ticks.FORM)
        say("both channel groups stand on both sides")
        show_last_lacpdu(from_left, left, 1)
        show_last_lacpdu(from_right, right, 1)
    show("left# show running-config", left.running_config())
    show_trunks(both)

    address = left.address_over(CUT_PORT, right)
    say(f"the user behind left sends to the one behind right from {address}: these packets leave over port {CUT_PORT}")
    with Flow(left, right, address) as flow:
        time.sleep(1)
        say(f"cutting the link between the ports {CUT_PORT}")
        right.set_link(CUT_PORT, up=False)
        await_trunks(both, {DYNAMIC: {1}, MANUAL: {3, 4}}, Ticks.LINK)
        say("trunk 1 has shrunk on both sides")
        time.sleep(1)
    show_flow(flow.report)
    show_trunks(both)

    say(f"restoring the link between the ports {CUT_PORT}")
    with Flow(left, right, address) as flow:
        right.set_link(CUT_PORT, up=True)
        await_trunks(both, {DYNAMIC: {1, 2}, MANUAL: {3, 4}}, Ticks.FORM)
        say("trunk 1 has grown again on both sides; what the earlier one sent over the link until then is lost")
        time.sleep(1)
    show_flow(flow.report)
    show_trunks(both)
    show_displays(both)


def main(arguments):
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    build = Path(arguments[0]) if arguments else ROOT / "build"
    lab = None
    try:
        lab = Lab(Programs(build))
        with lab:
            try:
                run(lab)
            except BaseException:
                print(lab.logs(), file=sys.stderr)
                raise
    except (OSError, AssertionError) as error:
        print(f"demo: FAILED: {error}", file=sys.stderr)
        return 1
    say("demo: OK: both groups came up, shrank and grew on both sides")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
