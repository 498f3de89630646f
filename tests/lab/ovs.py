"""A partner of another make: Open vSwitch with bonds that speak LACP."""

import os
import re
import subprocess
from collections import namedtuple
from pathlib import Path

from lab.station import Station
from lab.wire import Info

BRIDGE = "br0"
SCHEMA = Path("/usr/share/openvswitch/vswitch.ovsschema")
TOOL_TIME = 10  # seconds

# A port of a bond: whether traffic may use it, and both sides as it knows them, with addresses as text.
Member = namedtuple("Member", "enabled actor partner")

_BOND = re.compile(r"^---- (\S+) ----$(.*?)(?=^----|\Z)", re.MULTILINE | re.DOTALL)
_MEMBER = re.compile(r"^member:? ge(\d+): (.*?)(?=^member|\Z)", re.MULTILINE | re.DOTALL)
_FIELD = re.compile(r"^ +([\w ]+): ?(.*)$", re.MULTILINE)
_STATE = ("activity", "timeout", "aggregation", "synchronized", "collecting", "distributing", "defaulted", "expired")


def _settings(values):
    return [f'other_config:{name.replace("_", "-")}="{value}"' if "_" in name else f"{name}={value}"
            for name, value in values.items()]


def _members(text):
    return {(bond, int(port)): part for bond, parts in _BOND.findall(text) for port, part in _MEMBER.findall(parts)}


def _side(fields, side):
    priority, system, key, port_priority, port, state = (
        fields[f"{side} {name}"] for name in ("sys_priority", "sys_id", "key", "port_priority", "port_id", "state"))
    return Info(int(priority), system, int(key), int(port_priority), int(port),
                sum(1 << _STATE.index(word) for word in state.split()))


class OpenVSwitch(Station):
    """make() provides namespace and database; start() runs the programs; then bonds are made of cabled ports."""

    def __init__(self, *arguments):
        super().__init__(*arguments)
        self.database = None
        self.switch = None
        self._socket = f"unix:{self.directory}/database.sock"
        self._environment = {f"OVS_{kind}DIR": str(self.directory) for kind in ("RUN", "LOG", "DB", "SYSCONF")}

    def make(self):
        if not SCHEMA.exists():
            raise FileNotFoundError(f"{SCHEMA} is not there; run scripts/deps.sh --tests")
        self.directory.mkdir()
        self.make_namespace()
        self._tool("ovsdb-tool", "create", self.directory / "database", SCHEMA)

    def start(self):
        self.database = self._start("ovsdb-server", self.directory / "database", f"--remote=p{self._socket}")
        self.switch = self._start("ovs-vswitchd", self._socket)
        self._configure("add-br", BRIDGE, "--", "set", "bridge", BRIDGE, "datapath_type=netdev")

    def _start(self, program, *arguments):
        control = self._control(program)
        process = self._run(program, [program, *arguments, f"--unixctl={control}", "-vsyslog:off"], self._environment)
        self._await(process, "answers", control.exists, bool)
        return process

    def _control(self, program):
        return self.directory / f"{program}.control"

    def stop(self):
        for process in (self.switch, self.database):
            if process:
                process.stop()

    def add_bond(self, bond, ports, **settings):
        """Settings as for set_bond."""
        self._configure("add-bond", BRIDGE, bond, *map(self.port_interface, ports), "--", "set", "port", bond,
                        "bond_mode=balance-slb", *_settings(settings))

    def set_bond(self, bond, **settings):
        """`lacp` is active, passive or off; `lacp_time`, `lacp_system_id` and the like are keys of other_config."""
        self._configure("set", "port", bond, *_settings(settings))

    def set_port(self, port, **settings):
        self._configure("set", "interface", self.port_interface(port), *_settings(settings))

    def members(self):
        """Members by bond and port; bonds without LACP have none."""
        bonds = _members(self._ask("bond/show"))
        return {place: self._member(text, bonds[place]) for place, text in _members(self._ask("lacp/show")).items()}

    @staticmethod
    def _member(lacp, bond):
        fields = dict(_FIELD.findall(lacp))
        # The bond follows the carrier at once, and LACP's verdict a moment later.
        enabled = bond.startswith("enabled") and fields["may_enable"] == "true"
        return Member(enabled, _side(fields, "actor"), _side(fields, "partner"))

    def _configure(self, *words):
        self._tool("ovs-vsctl", "--no-syslog", f"--db={self._socket}", *words)

    def _ask(self, *words):
        return self._tool("ovs-appctl", "-t", self._control("ovs-vswitchd"), *words)

    def _tool(self, *words):
        result = subprocess.run([*map(str, words)], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                                check=False, env={**os.environ, **self._environment}, timeout=TOOL_TIME)
        if result.returncode != 0:
            raise OSError(f"{' '.join(map(str, words))}: {result.stdout}{result.stderr}")
        return result.stdout
