"""A partner of another make: Open vSwitch with bonds that speak LACP."""

import os
import re
import signal
import subprocess
from collections import namedtuple
from pathlib import Path

from lab.station import Station

BRIDGE = "br0"
SCHEMA = Path("/usr/share/openvswitch/vswitch.ovsschema")
TOOL_TIME = 10  # seconds

# A port of a bond: whether traffic may use it, and both sides as it knows them.
Member = namedtuple("Member", "enabled actor partner")
Side = namedtuple("Side", "system_priority system port_priority key port state")

_MEMBER = re.compile(r"^member:? ge(\d+): (.*?)(?=^member|^----|\Z)", re.MULTILINE | re.DOTALL)
_FIELD = re.compile(r"^ +([\w ]+): ?(.*)$", re.MULTILINE)
_STATE = ("activity", "timeout", "aggregation", "synchronized", "collecting", "distributing", "defaulted", "expired")


def _side(fields, side):
    priority, *rest = (int(fields[f"{side} {name}"]) for name in ("sys_priority", "port_priority", "key", "port_id"))
    state = sum(1 << _STATE.index(word) for word in fields[f"{side} state"].split())
    return Side(priority, fields[f"{side} sys_id"], *rest, state)


class OpenVSwitch(Station):
    """make() provides namespace and database; start() runs the programs; then bonds are made of cabled ports.

    Its habits: a changed setting is told at once and makes all ports of the bond expire until they hear the other side.
    Synchronization, Collecting and Distributing are told together and do not wait for the other side's Synchronization;
    a port is enabled with the latter. LACPDUs come every second or every 30, the timeout is three times that; one that
    is due in 30 seconds does not come earlier when the other side turns to the short timeout. A port without a bond, or
    the last one in a bond, says that it is Individual."""

    def __init__(self, *arguments):
        super().__init__(*arguments)
        self.database = None
        self.switch = None
        self.paused = False
        self.socket = f"unix:{self.directory}/database.sock"
        self._environment = {f"OVS_{kind}DIR": str(self.directory) for kind in ("RUN", "LOG", "DB", "SYSCONF")}

    def make(self):
        if not SCHEMA.exists():
            raise FileNotFoundError(f"{SCHEMA} is not there; run scripts/deps.sh --tests")
        self.directory.mkdir()
        self.make_namespace()
        self._tool("ovsdb-tool", "create", self.directory / "database", SCHEMA)

    def start(self):
        self.database = self._start("ovsdb-server", self.directory / "database", f"--remote=p{self.socket}")
        self.switch = self._start("ovs-vswitchd", self.socket)
        self.configure(f"add-br {BRIDGE} -- set bridge {BRIDGE} datapath_type=netdev")

    def add_host(self, address):
        """A user of its bridge. After start()."""
        self.host, self.host_address, self.host_addresses = self.namespace, address, [address]
        self.namespace.ip("address", "add", f"{address}/16", "dev", BRIDGE)
        self.namespace.ip("link", "set", BRIDGE, "up")

    def _start(self, program, *arguments):
        control = self.control(program)
        process = self._run(program, [program, *arguments, f"--unixctl={control}", "-vsyslog:off"], self._environment)
        self._await(process, "answers", control.exists, bool)
        return process

    def control(self, program):
        """The socket of a program for ovs-appctl."""
        return self.directory / f"{program}.control"

    def stop(self):
        for process in (self.switch, self.database):
            if process:
                process.stop()

    def pause(self):
        self.paused = True
        self.switch.send_signal(signal.SIGSTOP)

    def resume(self):
        self.switch.send_signal(signal.SIGCONT)
        self.paused = False

    def configure(self, text):
        """Runs commands of ovs-vsctl, with " -- " between them."""
        self._tool("ovs-vsctl", "--no-syslog", f"--db={self.socket}", *text.split())

    def add_bond(self, bond, ports, settings):
        """Settings are columns, `lacp=active other_config:lacp-time=fast`. Without a key of its own a bond takes the
        number of one of its ports for key; a key set on any port is that of the whole bond."""
        names = " ".join(map(self.port_interface, ports))
        numbers = "".join(f" -- set interface {self.port_interface(port)} other_config:lacp-port-id={port}"
                          f" other_config:lacp-aggregation-key={ports[0]}" for port in ports)
        self.configure(f"add-bond {BRIDGE} {bond} {names} -- set port {bond} bond_mode=balance-slb {settings}{numbers}")

    def members(self):
        """Ports that speak LACP; none while it is paused."""
        if self.paused:
            return {}
        bonds = dict(_MEMBER.findall(self._ask("bond/show")))
        return {int(port): self._member(text, bonds[port]) for port, text in _MEMBER.findall(self._ask("lacp/show"))}

    def losses(self, port):
        """How often it has had to do without a port of a bond."""
        return self.switch.output().count(f"member {self.port_interface(port)}: disabled")

    @staticmethod
    def _member(lacp, bond):
        fields = dict(_FIELD.findall(lacp))
        # The bond follows the carrier at once, and LACP's verdict a moment later.
        enabled = bond.startswith("enabled") and fields["may_enable"] == "true"
        return Member(enabled, _side(fields, "actor"), _side(fields, "partner"))

    def _ask(self, *words):
        return self._tool("ovs-appctl", "-t", self.control("ovs-vswitchd"), *words)

    def _tool(self, *words):
        result = subprocess.run([*map(str, words)], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                                check=False, env={**os.environ, **self._environment}, timeout=TOOL_TIME)
        if result.returncode != 0:
            raise OSError(f"{' '.join(map(str, words))}: {result.stdout}{result.stderr}")
        return result.stdout
