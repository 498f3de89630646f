"""A system's private datastore, through the datastore's own tools."""

import json
import os
import subprocess
import tempfile
from collections import namedtuple

Group = namedtuple("Group", "type load_balance members")

_URN = "urn:olt:params:xml:ns:yang:"
_OPERATIONS = "urn:ietf:params:xml:ns:netconf:base:1.0"


def _elements(leaves):
    return "".join(f"<{name.replace('_', '-')}>{one}</{name.replace('_', '-')}>" for name, value in leaves.items()
                   for one in (value if isinstance(value, list) else [value]))


class Datastore:
    def __init__(self, directory, programs):
        self._programs = programs
        self.environment = {"SYSREPO_REPOSITORY_PATH": str(directory / "repository"),
                            "SYSREPO_SHM_DIR": str(directory / "shm"),
                            "SYSREPO_SHM_PREFIX": "lab"}

    def install(self):
        self._run([self._programs.datastore_setup], SYSREPOCTL=str(self._programs.sysrepoctl))

    def read(self, module, datastore="running"):
        """The data of a module as a dictionary."""
        return json.loads(self._run([self._programs.sysrepocfg, "-X", "-f", "json", "-m", module, "-d", datastore])
                          or "{}")

    def edit(self, module, xml):
        """Applies an edit; the elements take the module's namespace."""
        top, _, rest = xml.partition(">")
        with tempfile.NamedTemporaryFile("w", suffix=".xml") as file:
            file.write(f'{top} xmlns="{_URN}{module}" xmlns:nc="{_OPERATIONS}">{rest}')
            file.flush()
            self._run([self._programs.sysrepocfg, f"--edit={file.name}", "-m", module, "-d", "running"])

    def set_group(self, number, **leaves):
        """Sets leaves of a group, `lacp_type` for lacp-type; a list sets a leaf-list."""
        self.edit("olt-lacp", f"<channel-group><group><id>{number}</id>{_elements(leaves)}</group></channel-group>")

    def set_trunk(self, port, **leaves):
        self.edit("olt-ifm", f"<up-link-ports><interface><name>gigabitethernet 0/{port}</name>"
                             f'<trunk xmlns="{_URN}olt-lacp">{_elements(leaves)}</trunk></interface></up-link-ports>')

    def groups(self):
        """Group entries by number, with the ports in their member-port lists."""
        entries = self.read("olt-lacp").get("olt-lacp:channel-group", {}).get("group", [])
        return {int(entry["id"]): Group(entry.get("lacp-type"), entry.get("load-balance"), {
            int(name.rpartition("/")[2]) for name in entry.get("member-port", [])}) for entry in entries}

    def members(self, number):
        group = self.groups().get(number)
        return group.members if group else set()

    def interfaces(self):
        entries = self.read("olt-ifm").get("olt-ifm:up-link-ports", {}).get("interface", [])
        return {entry["name"]: entry for entry in entries}

    def link_status(self, port):
        return self.interfaces()[f"gigabitethernet 0/{port}"]["interface-basic"]["link-status"]

    def system_priority(self):
        return self.read("olt-lacp").get("olt-lacp:global-configuration", {}).get("system-priority")

    def _run(self, command, **environment):
        result = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False,
                                env={**os.environ, **self.environment, **environment})
        if result.returncode != 0:
            raise OSError(f"{' '.join(map(str, command))}: {result.stdout}{result.stderr}")
        return result.stdout
