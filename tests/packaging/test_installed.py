"""The package as an operator meets it: installed, set up, started as the units start it."""

import re
import shlex
import shutil

import pytest

from lab.process import Process
from lab.shell import Shell
from lab.waiting import eventually

UNITS = ("olt-datastore", "olt-switch", "lacpd")
PASSWORD = "packaging"
MODULES = ("olt-ifm", "olt-lacp")


# ---- what a unit says -----------------------------------------------------------------------------------------

class Unit:
    def __init__(self, machine, name):
        self._machine = machine
        self._lines = machine.read(f"/usr/lib/systemd/system/{name}.service").splitlines()

    def all(self, key):
        return [line.partition("=")[2] for line in self._lines if line.startswith(f"{key}=")]

    def one(self, key):
        [value] = self.all(key)
        return value

    def command(self, **variables):
        """The program with the capabilities and groups that the unit leaves it, its environment set."""
        names = self.one("CapabilityBoundingSet").split()
        bounding = ",".join("+" + name.removeprefix("CAP_").lower() for name in names)
        words = shlex.split(self.one("ExecStart"))
        words = [part for word in words for part in
                 (shlex.split(variables[word[1:]]) if word.startswith("$") else [word])]
        return ["env", *self.all("Environment"), "setpriv", f"--bounding-set=-all,{bounding}",
                f"--groups={self.one('SupplementaryGroups')}", "--no-new-privs", *words]


# ---- after installation ---------------------------------------------------------------------------------------

def test_programs_use_their_own_libraries(installed):
    for program in ("lacpd", "olt-switch"):
        libraries = installed.run("ldd", f"/usr/sbin/{program}").stdout
        for name in ("libsysrepo", "libyang"):
            assert re.search(rf"{name}\.so\.\d+ => /usr/(sbin/\.\./)?lib/lacpd/{name}", libraries), libraries
    assert installed.run("/usr/sbin/lacpd", "--version").stdout.startswith("lacpd version")
    assert installed.run("/usr/sbin/lacpd", "--help").stdout.startswith("Usage: lacpd")
    assert installed.run("/usr/sbin/olt-switch", "--version").stdout.startswith("olt-switch ")


def test_user_daemon_can_read_the_libraries(installed):
    result = installed.run("setpriv", "--reuid=daemon", "--regid=daemon", "--clear-groups",
                           "/usr/lib/lacpd/bin/sysrepoctl", "--version")
    assert "sysrepoctl" in result.stdout


def test_configuration_belongs_to_the_daemon(installed):
    assert installed.owner("/etc/lacpd") == "daemon:daemon 750"
    assert installed.owner("/etc/lacpd/lacpd.conf") == "daemon:daemon 640"
    text = installed.read("/etc/lacpd/lacpd.conf")
    assert re.search(r"^hostname \w+$", text, re.MULTILINE)
    assert re.search(r"^!password ", text, re.MULTILINE)
    assert not re.search(r"^(enable )?password ", text, re.MULTILINE)


@pytest.mark.skipif(not shutil.which("systemd-analyze"), reason="systemd-analyze is not here")
def test_units_are_valid_and_ordered(installed):
    result = installed.run("systemd-analyze", "verify", "--man=no",
                           *(f"/usr/lib/systemd/system/{name}.service" for name in UNITS), check=False)
    complaints = [line for line in result.stderr.splitlines() if any(name in line for name in UNITS)]
    assert (result.returncode, complaints) == (0, []), result.stderr
    switch, daemon = Unit(installed, "olt-switch"), Unit(installed, "lacpd")
    assert "olt-datastore.service" in switch.one("After").split()
    assert {"olt-datastore.service", "olt-switch.service"} <= set(daemon.one("After").split())
    assert "-A 127.0.0.1" in daemon.one("ExecStart")


# ---- in service -----------------------------------------------------------------------------------------------

def revisions(machine):
    listing = machine.run("/usr/lib/lacpd/bin/sysrepoctl", "-l").stdout
    rows = [[cell.strip() for cell in line.split("|")] for line in listing.splitlines()]
    return {row[0]: row[1:] for row in rows if row[0] in MODULES}


def test_datastore_is_set_up_again_and_again(installed):
    installed.run("olt-datastore")
    first = revisions(installed)
    assert set(first) == set(MODULES)
    assert installed.owner("/etc/sysrepo") == "root:daemon 770"
    installed.run("olt-datastore")
    assert revisions(installed) == first
    installed.run("rm", "-r", "/dev/shm/sysrepo")  # what a boot does
    installed.run("olt-datastore")
    assert revisions(installed) == first
    assert installed.owner("/dev/shm/sysrepo") == "root:daemon 770"


@pytest.fixture(scope="module")
def interfaces(installed, namespace):
    namespace.ip("link", "add", "ethv0", "type", "veth", "peer", "name", "cpu0")
    for port in (1, 2):
        namespace.ip("link", "add", f"ge{port}", "type", "veth", "peer", "name", f"far{port}")
        namespace.ip("link", "set", f"far{port}", "up")
    for name in ("ethv0", "cpu0", "ge1", "ge2"):
        namespace.ip("link", "set", name, "up")


class Service:
    """Both programs, started one after the other as their units say."""

    def __init__(self, machine, folder):
        self._machine = machine
        self._folder = folder
        self.switch = self._start("olt-switch", OLT_SWITCH_OPTIONS="--cpu cpu0 --port 1=ge1 --port 2=ge2")
        eventually("the switch answers", lambda: machine.run("olt-switch", "--show", check=False).returncode,
                   lambda status: status == 0, 20)
        self.start_daemon()

    def start_daemon(self):
        preparation = Unit(self._machine, "lacpd").one("ExecStartPre").removeprefix("+")
        self._machine.run(*shlex.split(preparation))
        self.daemon = self._start("lacpd")
        eventually("the shell listens", lambda: self._machine.run("ss", "-Hltn", "sport", "=", "2704").stdout,
                   lambda text: "127.0.0.1:2704" in text, 20)

    def _start(self, name, **variables):
        command = Unit(self._machine, name).command(**variables)
        return Process(name, [*self._machine.enter(), *command], {}, self._folder / f"{name}.out")

    def close(self):
        return self.daemon.stop(), self.switch.stop()


@pytest.fixture(scope="module")
def service(installed, interfaces, tmp_path_factory):
    installed.run("olt-datastore")
    text = installed.read("/etc/lacpd/lacpd.conf").replace("!password CHOOSE-ONE", f"password {PASSWORD}")
    installed.write("/etc/lacpd/lacpd.conf", text)
    running = Service(installed, tmp_path_factory.mktemp("service"))
    yield running
    running.close()


def trunk_one(machine):
    return '"group": 1' in machine.run("olt-switch", "--show").stdout


def process_status(pid, key):
    with open(f"/proc/{pid}/status", encoding="utf-8") as file:
        return next(line.split()[1:] for line in file if line.startswith(f"{key}:"))


def test_daemon_works_as_its_user_with_four_capabilities(service):
    pid = service.daemon.pid
    assert set(process_status(pid, "Uid")) == {"1"}
    raw, bind, admin, system = 1 << 13, 1 << 10, 1 << 12, 1 << 21
    assert int(process_status(pid, "CapPrm")[0], 16) == raw | bind | admin | system


def test_local_files_are_where_the_unit_puts_them(service, installed):
    assert installed.owner("/run/lacpd").startswith("daemon:daemon")
    assert int(installed.read("/run/lacpd/lacpd.pid")) == service.daemon.pid
    assert installed.owner("/run/lacpd/lacpd.vty") == "daemon:daemon 770"
    assert {installed.owner(f"/run/olt/switch-{name}.sock") for name in ("driver", "state")} == {"root:daemon 660"}


def test_group_is_configured_saved_and_there_after_a_restart(service, installed, namespace):
    with Shell(namespace, 2704, PASSWORD) as shell:
        assert shell.configure("interface gigabitEthernet 0/1", "channel-group 1 mode on").strip() == ""
        eventually("the trunk stands", lambda: trunk_one(installed), bool, 10)
        assert shell.run("write memory") == "Configuration saved to /etc/lacpd/lacpd.conf\n"
    assert installed.owner("/etc/lacpd/lacpd.conf").startswith("daemon:daemon")
    assert "channel-group 1 mode on" in installed.read("/etc/lacpd/lacpd.conf")
    assert service.daemon.stop() == 0
    service.start_daemon()
    with Shell(namespace, 2704, PASSWORD) as shell:
        eventually("the group is back", lambda: shell.run("show running-config"),
                   lambda text: "channel-group 1 mode on" in text, 10)


def test_packet_socket_opened_within_the_capabilities(service, installed):
    rows = installed.run("cat", "/proc/net/packet").stdout
    assert rows.count("\n") > 3, rows  # a header, the daemon's socket and the switch's
    assert "keldatabase:" not in service.daemon.output()


# ---- upgrade and removal, at the end --------------------------------------------------------------------------

def test_installing_again_keeps_the_configuration(service, installed, package):
    service.close()
    before = installed.read("/etc/lacpd/lacpd.conf")
    installed.write("/etc/default/olt-switch", "OLT_SWITCH_OPTIONS=--cpu cpu0 --port 1=ge1\n")
    installed.run("dpkg", "-i", package)
    assert installed.read("/etc/lacpd/lacpd.conf") == before
    assert installed.read("/etc/default/olt-switch") == "OLT_SWITCH_OPTIONS=--cpu cpu0 --port 1=ge1\n"


def left_over(machine):
    """What is not the package manager's own and not the datastore, which other programs may use too."""
    own = ("/var/lib/dpkg/", "/var/log/", "/var/cache/man/", "/var/cache/ldconfig/", "/etc/sysrepo")
    return sorted(path for path in machine.changes() if not path.startswith(own))


def test_removing_keeps_configuration_and_purging_keeps_nothing(installed):
    assert {"/usr/sbin/lacpd", "/etc/default/olt-switch"} <= set(left_over(installed))
    installed.run("dpkg", "-r", "lacpd")
    assert not installed.exists("/usr/sbin/lacpd")
    assert not installed.exists("/usr/lib/lacpd")
    assert installed.exists("/etc/lacpd/lacpd.conf")
    installed.run("dpkg", "-P", "lacpd")
    assert left_over(installed) == []
