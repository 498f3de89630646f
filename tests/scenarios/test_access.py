"""Who may talk to the system: sockets, files, the shell's address, access rules of management clients."""

import os
import re
import socket
import stat
import subprocess
import sys
from pathlib import Path

import pytest

from helpers import enter, quietly
from lab import Shell, ShellError, Ticks, eventually
from lab.programs import ROOT
from lab.system import PASSWORD, SHELL_PORT

UNAUTHORIZED = 11  # the datastore's code for a write that the access rules refuse
NOBODY = ["setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups"]
OPERATOR = ["setpriv", "--reuid=nobody", "--regid=nogroup", "--groups=daemon"]
CONNECT = "import socket, sys; socket.socket(socket.AF_UNIX, getattr(socket, sys.argv[1])).connect(sys.argv[2])"
SOCKETS = {"driver.sock": "SOCK_SEQPACKET", "state.sock": "SOCK_STREAM", "run/lacpd.vty": "SOCK_STREAM"}


@pytest.fixture(scope="module")
def system(lab):
    terminal = lab.system("left", ports=2)
    for port in (1, 2):
        lab.loose_cable(terminal, port)
    terminal.start()
    terminal.directory.chmod(0o755)  # as /run/olt and /run/lacpd are: the sockets protect themselves
    return terminal


def access(path):
    status = path.lstat()
    return f"{path.owner()}:{path.group()} {stat.S_IMODE(status.st_mode):o}"


def run(*command, **environment):
    return subprocess.run([str(word) for word in command], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          check=False, env={**os.environ, **environment}, timeout=60)


# ---- unix sockets


@pytest.mark.parametrize(("name", "mode"), [("driver.sock", "root:daemon 660"), ("state.sock", "root:daemon 660"),
                                            ("run/lacpd.vty", "daemon:daemon 770")])
def test_sockets_are_for_their_owner_and_group_daemon(system, name, mode):
    path = system.directory / name
    assert stat.S_ISSOCK(path.lstat().st_mode)
    assert access(path) == mode
    refused = run(*NOBODY, sys.executable, "-c", CONNECT, SOCKETS[name], path)
    assert (refused.returncode, "PermissionError" in refused.stderr) == (1, True), refused.stderr
    assert run(*OPERATOR, sys.executable, "-c", CONNECT, SOCKETS[name], path).returncode == 0


def test_nothing_listens_for_the_network_but_the_shell_on_loopback(system):
    assert system.listening() == {SHELL_PORT: "127.0.0.1"}
    datagrams = run(*system.namespace.enter(), "ss", "-Hlun").stdout
    assert datagrams == ""


# ---- files


def open_to_others(folder):
    return [f"{access(path)} {path}" for path in [folder, *folder.rglob("*")]
            if not path.is_symlink() and stat.S_IMODE(path.lstat().st_mode) & 0o007]


def test_datastore_is_closed_to_others(system):
    places = [system.directory / "repository", system.directory / "shm"]
    assert [place for folder in places for place in open_to_others(folder)] == []
    for folder in places:
        assert access(folder) == "root:daemon 770"
    command = [system.programs.sysrepocfg, "-X", "-f", "json", "-m", "olt-lacp", "-d", "running"]
    assert run(*NOBODY, *command, **system.datastore.environment).returncode != 0
    assert run(*OPERATOR, *command, **system.datastore.environment).returncode == 0


def test_saved_configuration_shows_its_passwords_to_nobody_else(system):
    with system.shell() as shell:
        assert "Configuration saved" in shell.run("write memory")
    kept = [path for path in system.run_directory.glob("lacpd.conf*") if PASSWORD in path.read_text(encoding="utf-8")]
    assert system.configuration_file in kept
    for path in kept:
        assert path.owner() == "daemon"
        assert not stat.S_IMODE(path.stat().st_mode) & 0o007, path


# ---- the shell


def test_no_password_no_network_session(system):
    saved = system.configuration_file.read_text(encoding="utf-8")
    system.stop_daemon()
    system.write_configuration("hostname left\n")
    try:
        system.start_daemon()
        with pytest.raises(ShellError, match="password is not set"):
            Shell(system.namespace, SHELL_PORT, PASSWORD)
    finally:
        system.stop_daemon()
        system.write_configuration(saved)
        system.start_daemon()


def test_a_wrong_password_opens_nothing(system):
    with pytest.raises(ShellError, match="does not take the password"):
        Shell(system.namespace, SHELL_PORT, "wrong")


def test_shell_is_not_reached_from_another_machine(lab, system):
    system.namespace.ip("address", "add", "192.0.2.1/24", "dev", system.port_interface(1))
    lab.bench.ip("address", "add", "192.0.2.2/24", "dev", "left-1")
    with pytest.raises(ConnectionRefusedError):
        lab.bench.call(lambda: socket.create_connection(("192.0.2.1", SHELL_PORT), Ticks.LINK))


# ---- as shipped


def test_units_and_first_configuration_keep_to_loopback_and_have_no_password():
    unit = (ROOT / "packaging/systemd/lacpd.service.in").read_text(encoding="utf-8")
    assert re.search(r"^ExecStart=\S+/lacpd .*-A 127\.0\.0\.1 ", unit, re.MULTILINE)
    first = (ROOT / "packaging/lacpd.conf").read_text(encoding="utf-8")
    assert not re.search(r"^\s*(enable )?password", first, re.MULTILINE)
    switch = (ROOT / "packaging/systemd/olt-switch.service.in").read_text(encoding="utf-8")
    assert "SupplementaryGroups=daemon" in switch and "ListenStream" not in switch


# ---- management clients


# One more user, who may do what no earlier rule denies.
ADMINISTRATOR = """<nacm xmlns="urn:ietf:params:xml:ns:yang:ietf-netconf-acm">
  <groups><group><name>all</name><user-name>administrator</user-name></group></groups>
  <rule-list><name>all</name><group>all</group>
    <rule><name>all</name><access-operations>*</access-operations><action>permit</action></rule></rule-list></nacm>"""


@pytest.fixture(scope="module")
def write(system, tmp_path_factory):
    """Writes as a user of the example's rules; the datastore's result code."""
    more = tmp_path_factory.mktemp("rules") / "administrator.xml"
    more.write_text(ADMINISTRATOR, encoding="utf-8")
    for file in (ROOT / "packaging/nacm.xml", more):
        result = run(system.programs.sysrepocfg, f"--edit={file}", "-m", "ietf-netconf-acm", "-d", "running",
                     **system.datastore.environment)
        assert result.returncode == 0, result.stderr
    library = Path(system.programs.sysrepocfg).parents[1] / "lib/libsysrepo.so.7"
    client = Path(__file__).with_name("nacm_client.py")

    def as_user(user, xpath, value):
        result = run(sys.executable, client, library, user, xpath, value, **system.datastore.environment)
        assert result.returncode == 0, result.stderr
        return int(result.stdout)
    return as_user


PRIORITY = "/olt-lacp:global-configuration/system-priority"
PORT = "/olt-ifm:up-link-ports/interface[name='gigabitethernet 0/1']"


@pytest.mark.parametrize(("user", "xpath", "value", "result"), [
    ("operator", PRIORITY, "77", 0),
    ("operator", f"{PORT}/olt-lacp:trunk/timeout", "short", 0),
    ("operator", f"{PORT}/interface-basic/link-status", "down", UNAUTHORIZED),
    ("operator", PORT.replace("0/1", "0/8"), "", UNAUTHORIZED),
    ("administrator", PRIORITY, "79", 0),
    ("administrator", f"{PORT}/interface-basic/link-status", "down", UNAUTHORIZED),
    ("stranger", PRIORITY, "78", UNAUTHORIZED),
    ("stranger", f"{PORT}/olt-lacp:trunk/timeout", "long", UNAUTHORIZED)])
def test_example_rules(write, system, user, xpath, value, result):
    before = system.datastore.read("olt-ifm"), system.datastore.read("olt-lacp")
    assert write(user, xpath, value) == result
    after = system.datastore.read("olt-ifm"), system.datastore.read("olt-lacp")
    assert (before == after) == (result != 0)


def test_an_operators_change_reaches_the_daemon(write, system):
    assert write("operator", PRIORITY, "4096") == 0
    eventually("the daemon has the priority", system.configured, lambda lines: "lacp system-priority 4096" in lines,
               Ticks.LINK)


@pytest.mark.usefixtures("write")
def test_the_shell_is_not_bound_by_the_rules(system):
    quietly(system, *enter(2, "lacp timeout short"))
    assert system.datastore.trunk(2)["timeout"] == "short"
