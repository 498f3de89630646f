"""What an operator can see: commands and their help, displays, traces, inspection of the datastore."""

import re
import subprocess
import threading
import time

import pytest

from helpers import enter, join, quietly
from lab import Ticks, eventually
from lab.shell import PROMPT

SEPARATOR = "-" * 71

# Commands by node, in the order in which they are installed; the interface command's twin is hidden.
COMMANDS = {
    "view": ["show channel-group [(1-4)] <detail|ports>"],
    "config": [
        "interface gigabitEthernet SLOT-PORT",
        "show channel-group [(1-4)] <detail|ports>",
        "show channel-group (1-4) port",
        "show channel-group interface all",
        "show channel-group information",
        "channel-group <(1-4)|all> load-balance <src-mac|dst-mac|src-dst-mac|src-ip|dst-ip|src-dst-ip>",
        "lacp system-priority <(0-65535)|default>",
        "show lacp database",
    ],
    "uplink-port": [
        "<exit|quit>",
        "channel-group (1-4) mode <on|active|passive>",
        "no channel-group (1-4)",
        "lacp timeout <long|short>",
        "lacp port-priority <(0-65535)|default>",
        "show lacp database <actor|partner> information",
        "show lacp database",
    ],
    "debug": [
        "[no] debug lacp packet <rx|tx|all>",
        "debug lacp <off|rx|tx|task|pdu|other|all>",
    ],
}

# Help by what has been typed. A word that begins several commands shows the help of the first of them.
CONFIG_HELP = {
    "interface ": {"gigabitEthernet": "GigabitEthernet IEEE 802.3z"},
    "interface gigabitEthernet ": {
        "SLOT-PORT": "GigabitEthernet interface number,slot:<0>,port:<1-x>,x is 4,8 or 16."},
    "show channel-group ": {
        "(1-4)": "Specify channel group id.",
        "detail": "Detail of channel-group.",
        "information": "Specify all information.",
        "interface": "Specify interface information.",
        "ports": "Information of ports for channel-group."},
    "show channel-group 1 ": {
        "detail": "Detail of channel-group.",
        "port": "Specify 802.3ad port information.",
        "ports": "Information of ports for channel-group."},
    "show channel-group interface ": {"all": "Specify all interfaces."},
    "channel-group ": {"(1-4)": "Channel group number.", "all": "Specify all channel group."},
    "channel-group all ": {"load-balance": "Load Balancing method."},
    "channel-group 1 load-balance ": {
        "src-mac": "Specify criteria by source mac.",
        "dst-mac": "Specify criteria by destination mac.",
        "src-dst-mac": "Specify criteria by source and destination mac.",
        "src-ip": "Specify criteria by source ip.",
        "dst-ip": "Specify criteria by destination ip.",
        "src-dst-ip": "Specify criteria by source and destination ip."},
    "lacp ": {"system-priority": "Link aggregation actor system priority."},
    "lacp system-priority ": {"(0-65535)": "Priority value <0-65535>.", "default": "default value is 32768."},
    "show lacp ": {"database": "Info of database."},
}
CONFIG_WORDS = {
    "": {"interface": "Select an interface to configure.",
         "channel-group": "Etherchannel/port bundling configuration.",
         "lacp": "Link aggregation configuration."},
    "show ": {"channel-group": "Channel group information.", "lacp": "Show lacp information."},
}
PORT_HELP = {
    "": {"exit": "Exit current mode and down to previous mode.",
         "quit": "Exit current mode and down to previous mode.",
         "channel-group": "Etherchannel-port bundling configuration.",
         "no": "Negate a command or set its defaults.",
         "lacp": "Link aggregation configuration.",
         "show": "Show running system information."},
    "channel-group ": {"(1-4)": "Channel group number."},
    "channel-group 1 ": {"mode": "Channel group mode, include manual-mode, lacp-mode."},
    "channel-group 1 mode ": {
        "on": "Add port to channel-group manually.",
        "active": "Enable LACP unconditionally.",
        "passive": "Enable LACP only if a LACP device is detected."},
    "no ": {"channel-group": "Etherchannel-port bundling configuration."},
    "no channel-group ": {"(1-4)": "Channel group number."},
    "lacp ": {"timeout": "Specify the Timeout control value.",
              "port-priority": "Channel-group port actor's priority."},
    "lacp timeout ": {"long": "Use long timeout control value,90s.", "short": "Use short timeout control value,3s."},
    "lacp port-priority ": {"(0-65535)": "Port priority value <0-65535>.", "default": "default value is 32768."},
    "show ": {"lacp": "Show lacp information."},
    "show lacp ": {"database": "Info of database."},
    "show lacp database ": {"actor": "Actor of LACP.", "partner": "Partner of LACP.", "<cr>": ""},
    "show lacp database actor ": {"information": "Readonly information."},
    "show lacp database partner ": {"information": "Readonly information."},
}
DEBUG_HELP = {
    "no debug ": {"lacp": "Specify lacp debugging operation."},
    "no debug lacp ": {"packet": "Packet Debug."},
    "debug ": {"lacp": "Specify lacp debugging operation."},
    "debug lacp ": {
        "packet": "Packet Debug.",
        "off": "Shut off debug information.",
        "rx": "Open lacp receive debug information.",
        "tx": "Open lacp transmit debug information.",
        "task": "Open lacp task debug information.",
        "pdu": "Open lacp bpdu debug information.",
        "other": "Open lacp others debug information.",
        "all": "Open lacp all debug information."},
    "debug lacp packet ": {
        "rx": "RX packet debug", "tx": "TX packet debug", "all": "Both rx and tx packet debug"},
}
DEBUG_WORDS = {"": {"debug": "Debugging functions.", "no": "Disable debug mode"}}


def help_for(shell, line):
    """What a question mark behind the line shows, by word; the line is then wiped out."""
    shell._socket.sendall(line.encode() + b"?")
    again = shell.prompt + line
    text = shell._read_until(re.compile(f"\n{re.escape(again)}$"))
    shell._socket.sendall(b"\x15\n")
    shell._read_until(PROMPT)
    rows = [row.split(None, 1) for row in text[:text.rindex(again)].splitlines() if row.startswith("  ")]
    return {row[0]: row[1].strip() if len(row) > 1 else "" for row in rows}


def expect_help(shell, table):
    for line, words in table.items():
        assert help_for(shell, line) == words, f"{line!r} in {shell.prompt!r}"


def expect_words(shell, table):
    for line, words in table.items():
        assert words.items() <= help_for(shell, line).items(), f"{line!r} in {shell.prompt!r}"


# ---- commands -------------------------------------------------------------------------------------------------

@pytest.fixture(scope="module")
def idle(lab):
    """A system that nothing is configured on."""
    system = lab.system("idle", ports=2)
    for port in (1, 2):
        lab.loose_cable(system, port)
    system.start()
    return system


def test_every_command_is_in_its_node_and_in_order(idle):
    with idle.shell() as shell:
        found = {}
        for row in shell.run("find .*").splitlines():
            match = re.match(r"  \(([\w-]+)\) +(.*)$", row)
            if match:
                found.setdefault(match[1], []).append(match[2].strip())
    for node, commands in COMMANDS.items():
        assert [command for command in found[node] if command in commands] == commands, node
    assert found["uplink-port"] == COMMANDS["uplink-port"], "nothing else is in the port's node"
    assert "lacp" not in found or found["lacp"] == [], "the node of the writer has no command"


def test_help_in_the_configuration_node(idle):
    with idle.shell() as shell:
        shell.run("configure terminal")
        expect_help(shell, CONFIG_HELP)
        expect_words(shell, CONFIG_WORDS)


def test_help_in_the_node_of_a_port(idle):
    with idle.shell() as shell:
        shell.run("configure terminal")
        shell.run("interface gigabitEthernet 0/1")
        expect_help(shell, PORT_HELP)


def test_the_hidden_spelling_works_and_is_not_shown(idle):
    with idle.shell() as shell:
        shell.run("configure terminal")
        assert "gigabitethernet" not in help_for(shell, "interface ")
        assert shell.run("interface gigabitethernet 0/2") == ""
        assert shell.prompt == "idle(config-if-ge0/2)# "
        shell.run("exit")
        assert shell.prompt == "idle(config)# "


def test_the_view_node_has_the_group_display(idle):
    with idle.shell(enable=False) as shell:
        assert shell.prompt == "idle> "
        shown = shell.run("show channel-group detail")
        assert shown.splitlines().count(SEPARATOR) == 5
        assert shown.count("Not Used") == 4
        assert shell.run("show channel-group ports") == SEPARATOR + "\n"
        assert "Unknown command" in shell.run("show channel-group information")


def test_the_debug_node_is_entered_from_the_enable_node(idle):
    with idle.shell() as shell:
        assert help_for(shell, "debug-m") == {"debug-mode": "Switch traces and packet dumps on and off."}
        shell.run("debug-mode")
        assert shell.prompt == "idle(debug)# "
        expect_help(shell, DEBUG_HELP)
        expect_words(shell, DEBUG_WORDS)
        shell.run("exit")
        assert shell.prompt == "idle# "
        shell.run("configure terminal")
        assert "Unknown command" in shell.run("debug-mode")
        assert "Unknown command" in shell.run("debug lacp rx")


def test_displays_before_lacp_is_on(idle):
    with idle.shell() as shell:
        shell.run("configure terminal")
        assert shell.run("show channel-group information") == "please lacp enable first!\n"
        assert shell.run("show channel-group interface all") == "please lacp enable first!\n"
        assert shell.run("show channel-group 1 port") == "\nLACP disabled\n"


def test_inspection_of_a_port_without_leaves(idle):
    with idle.shell() as shell:
        shell.run("configure terminal")
        shell.run("interface gigabitEthernet 0/7")
        assert shell.run("show lacp database") == ""
        lines = shell.run("show lacp database partner information").splitlines()
        assert len(lines) == 9, "a line a leaf, whatever the outcome"
        assert all(re.search(r", ret (-\d+|[1-9]\d*|0x[0-9a-f]+)$", line) and not line.endswith(("ret 0", "0x0"))
                   for line in lines), lines


# ---- a running aggregation ------------------------------------------------------------------------------------

@pytest.fixture(scope="module")
def running(pair):
    """Two ports in a dynamic group; the third in a manual one on the left."""
    left, right = pair
    quietly(left, *join(1, 1, "active", "lacp timeout short"), *join(2, 1, "active", "lacp port-priority 100"),
            *join(3, 2, "on"), "channel-group 1 load-balance src-dst-mac", "lacp system-priority 4096")
    quietly(right, *join(1, 1, "passive"), *join(2, 1, "passive"))
    for system in pair:
        system.await_trunk(1, {1, 2}, Ticks.FORM)
    return pair


def configuration_display(system, command):
    with system.shell() as shell:
        shell.run("configure terminal")
        return shell.run(command)


def test_the_groups(running):
    left, _ = running
    assert configuration_display(left, "show channel-group 1 detail") == f"""\
{SEPARATOR}
Channel-group ID:\t\t\t1
Channel-group Used:\t\t\tUsed
Channel-group Type:\t\t\tLACP Protocol
Channel-group Load Balance:\t\tsrc-dst-mac
Channel-group Port Member:\t\t(2)
\t\t\t\t\tgigabitEthernet 0/1
\t\t\t\t\tgigabitEthernet 0/2
Channel-group Uplink Port Member:\t(2)
\t\t\t\t\tgigabitethernet 0/1
\t\t\t\t\tgigabitethernet 0/2
{SEPARATOR}
"""
    manual = configuration_display(left, "show channel-group 2 detail")
    assert "Channel-group Type:\t\t\tManual Channel-group\n" in manual
    assert "Channel-group Uplink Port Member:\t(1)\n\t\t\t\t\tgigabitethernet 0/3\n" in manual


def test_the_neighbours_see_each_other(running):
    left, right = running

    def short(mac):
        digits = mac.replace(":", "")
        return ".".join(digits[i:i + 4] for i in (0, 4, 8))

    first = f"""\
System ID:0x8000,   {short(left.mac)}
                    Flags    LACP port    Admin   Oper   Port    Port
Port                         Priority      Key    Key   Number   State
gigabitEthernet0/01 FA        32768        1      1     1      3f  

Partner's information:
----------------------
Parter 's system ID:0x8000, {short(right.mac)}
                    Flags    LACP port     Oper     Port     Port
Port                         Priority      Key     Number   State
gigabitEthernet0/01 SP        32768        1        1       3c  
"""
    text = eventually("port 1 is in step", lambda: configuration_display(left, "show channel-group 1 port"),
                      lambda shown: first in shown, Ticks.of(5))
    assert "\ngigabitEthernet0/02 SA        100        1      1     2      3d  \n" in text
    assert text.count("Port: gigabitEthernet0/") == 2


def test_the_other_displays(running):
    left, _ = running
    summary = configuration_display(left, "show channel-group interface all").splitlines()
    assert summary[2:] == ["Port   [Sys P] [Port P]   [Key]    [APort]  [Syn]  [Col]  [Dis]",
                           "   1     4096   32768        1        2       1      Col    Dis",
                           "   2     4096     100        1        2       1      Col    Dis",
                           "   3     4096   32768      100        3       1      No     No"]
    dump = configuration_display(left, "show channel-group information")
    assert dump.startswith("\n" + "*" * 64 + "\n") and dump.endswith("-" * 86 + "\n")
    assert dump.count("\n01 ") == 7 and dump.count("\n03 ") == 7, "a row a port in each of the seven blocks"
    ports = configuration_display(left, "show channel-group 3 ports")
    assert ports.count("Port Number = ") == 3, "whatever the group"
    assert "Port Number = 1\n\tChannel ID = 1\n\tIndividual Aggregator = 0\n\tAggregator Port = 2\n" in ports


def test_the_database_of_groups(running):
    left, _ = running
    eventually("both are members", lambda: left.datastore.members(1), lambda members: members == {1, 2}, Ticks.LINK)
    text = configuration_display(left, "show lacp database")
    rule = "-" * 34
    assert text.startswith(f"{rule}channel-group 1{rule}\n\tload balance: src-dst-mac\n"
                           "\tchannel-group type: dynamic\n\tjoin-port include:\n")
    assert f"\n{rule}channel-group 4{rule}\n\tjoin-port include:\n\tmember-port include:\n" in text
    assert f"\n{rule}global config{rule}\nsystem priority: 4096\nlacp list xml:\n <channel-group " in text
    members = text.split("member-port include:\n")[1].split(rule)[0]
    assert members == "\t\tgigabitethernet 0/1\n\t\tgigabitethernet 0/2\n"


def test_the_database_of_a_port(running):
    left, _ = running
    with left.shell() as shell:
        shell.run("configure terminal")
        shell.run("interface gigabitEthernet 0/1")
        assert shell.run("show lacp database") == ("get priority value:32768 ret:0\nget timeout value:short ret:0\n"
                                                   "get group id value:1 ret:0\nget mode value:active ret:0\n")


def test_operational_leaves_through_the_datastores_own_tool(running):
    left, right = running

    def leaf(role, name):
        path = (f"/olt-ifm:up-link-ports/interface[name='gigabitethernet 0/2']/olt-lacp:trunk-info/"
                f"port[role='{role}']/{name}")
        result = subprocess.run([left.programs.sysrepocfg, "-X", "-d", "operational", "-f", "json", "-x", path],
                                env={**left.datastore.environment, "PATH": "/usr/bin:/bin"}, capture_output=True,
                                text=True, check=True)
        match = re.search(f'"{name}": ?"?([^",\\s]*)', result.stdout)
        return match[1] if match else None
    digits = right.mac.replace(":", "")
    assert leaf("partner", "system-id") == f"{digits[:4]}.{digits[4:8]}.{digits[8:]}"
    assert leaf("actor", "priority") == "100"
    assert leaf("actor", "mode") == "active"
    assert leaf("partner", "mode") == "passive"
    assert leaf("actor", "col-dis") == leaf("partner", "col-dis") == "true"
    assert leaf("actor", "system-priority") == "4096"


ACTOR_LINES = re.compile(r"""=> get (?P<role>actor|partner) port id \d+, ret 0
=> get (?P=role) port synchronization [01], ret 0
=> get (?P=role) port collection and distribution [01], ret 0
=> get (?P=role) port mode (active|passive), ret 0
=> get (?P=role) oper key \d+, ret 0
=> get (?P=role) port state \d+, ret 0x0
=> get (?P=role) port priority \d+, ret 0
=> get (?P=role) port timeout (short|long), ret 0
=> get (?P=role) port system id [0-9a-f]{4}\.[0-9a-f]{4}\.[0-9a-f]{4}, ret 0
""")


def test_the_daemon_asks_itself_while_links_flap(running):
    """The shell's thread waits for the datastore's, which answers from the daemon's own records."""
    left, right = running
    stop = threading.Event()

    def flap():
        up = True
        while not stop.is_set():
            up = not up
            right.set_link(2, up=up)
            stop.wait(0.4)
        right.set_link(2, up=True)
    flapping = threading.Thread(target=flap)
    flapping.start()
    slowest = 0.0
    try:
        with left.shell() as shell:
            shell.run("configure terminal")
            shell.run("interface gigabitEthernet 0/2")
            for round_number in range(200):
                role = ("actor", "partner")[round_number % 2]
                started = time.monotonic()
                text = shell.run(f"show lacp database {role} information")
                slowest = max(slowest, time.monotonic() - started)
                assert ACTOR_LINES.fullmatch(text), text
    finally:
        stop.set()
        flapping.join()
    assert slowest < 5, f"one display took {slowest:.1f} s"
    assert left.daemon.status is None
    for system in running:  # the last LACPDU that counts may have to wait for the next slow periodic one
        system.await_trunk(1, {1, 2}, Ticks.of(31) + Ticks.FORM)


# ---- traces ---------------------------------------------------------------------------------------------------

def grown(system, action, seconds=0.0):
    """What the daemon prints during an action and some time after it."""
    before = len(system.daemon.output())
    action()
    time.sleep(seconds)
    return system.daemon.output()[before:].replace("\r", "")


def test_traces_are_switched_at_run_time(running):
    left, _ = running
    with left.shell() as shell:
        shell.run("debug-mode")

        def say(line):
            return lambda: shell.run(line)
        assert "\nMsg lacDbgCfg lacDebug 00008000\n" in grown(left, say("debug lacp tx"), 0.2)
        traced = grown(left, lambda: None, 2.5)
        assert " tx_machine  port [1] event [11]\n" in traced
        assert "lac queue" not in traced and "rx Lac_received" not in traced
        assert "\nMsg lacDbgCfg lacDebug 00000000\n" in grown(left, say("debug lacp off"), 0.2)
        assert grown(left, lambda: None, 2.5) == ""


def test_packet_dumps_are_switched_at_run_time(running):
    left, _ = running
    with left.shell() as shell:
        shell.run("debug-mode")
        assert shell.run("debug lacp packet all") == "LACP packet debug rx enable tx enable\n"
        try:
            # The right side asks for nothing fast, but the left one does: it hears one every other second.
            text = eventually("a received frame is dumped", left.daemon.output,
                              lambda output: "description: recv(lacp no ktag and port)\npacket len:  " in output,
                              Ticks.of(3))
        finally:
            assert shell.run("no debug lacp packet all") == "LACP packet debug rx disable tx disable\n"
    dump = text[text.index("description: recv(lacp raw data)"):].replace("\r", "")
    assert re.match(r"description: recv\(lacp raw data\)\npacket len:  \d+\n\n0180 c200 0002 [0-9a-f]{4} [0-9a-f]{4} "
                    r"[0-9a-f]{4} 9082 [0-9a-f]{4} \n", dump), dump[:200]


# ---- configuration --------------------------------------------------------------------------------------------

def test_groups_of_both_kinds_come_back_after_a_restart(running):
    left, _ = running
    before = left.configured()
    shown = configuration_display(left, "show channel-group detail")
    assert shown.count("gigabitethernet 0/") == 3, "every port is in its trunk"
    with left.shell() as shell:
        shell.run("write memory")
    assert left.stop_daemon() == 0
    left.start_daemon()
    eventually("the configuration is replayed", left.configured, lambda lines: lines == before, Ticks.of(3))
    eventually("the groups are as before", lambda: configuration_display(left, "show channel-group detail"),
               lambda text: text == shown, Ticks.of(31) + Ticks.FORM)


def test_a_display_does_not_change_what_is_configured(running):
    left, _ = running
    before = left.configured()
    with left.shell() as shell:
        shell.run("debug-mode")
        shell.run("debug lacp other")
        shell.run("debug lacp off")
    quietly(left, *enter(1))
    assert left.configured() == before, "traces are not stored"
