"""Starts, good and bad, and what a running daemon does with signals and strangers."""

import signal
import socket

import pytest

from helpers import enter, join, leave, quietly
from lab import Shell, ShellError, Ticks, eventually, stays
from lab.system import CPU_INTERFACE, PASSWORD, SHELL_PORT

NO_WAIT = {"KEL_DB_INVENTORY_WAIT": "0"}
INVENTORY_LINES = ("LACP Msg: get port information from database failed! ret ",
                   "LACP Msg: get base configuration from database failed! ret ")


@pytest.fixture(scope="module")
def system(lab):
    terminal = lab.system("left", ports=2)
    for port in (1, 2):
        lab.loose_cable(terminal, port)
    terminal.start_switch()
    return terminal


@pytest.fixture
def running(system):
    """The daemon, newly started; stopped after the test."""
    system.daemon = None
    system.start_daemon()
    yield system
    system.stop_daemon()


def ended(system, *options, **environment):
    """Status and output of a daemon that must end by itself."""
    process = system.launch_daemon(*options, environment=environment, name="ended")
    return process.wait(10), process.output()


# ---- options


@pytest.mark.parametrize("options", [("-n", "1"), ("--instance", "1"), ("-a",), ("--apiserver",), ("--nonsense",),
                                     ("-Y",)], ids=" ".join)
def test_options_that_are_not_taken_print_the_usage(system, options):
    status, output = ended(system, *options)
    assert status == 1
    assert "Usage: lacpd [OPTION...]" in output
    if options[0] in ("-n", "-a"):
        assert "-n, --instance     Set the instance id\n  -a, --apiserver    Enable OSPF apiserver\n" in output


@pytest.mark.parametrize("option", ["-d", "-t"])
def test_daemon_mode_is_refused_with_a_sentence(system, option):
    status, output = ended(system, option)
    assert status == 1
    assert "start lacpd in the foreground" in output


# ---- what is missing


def test_no_datastore(system):
    nowhere = {"SYSREPO_REPOSITORY_PATH": str(system.directory / "nowhere")}
    system.start_daemon(environment={**nowhere, **NO_WAIT})
    try:
        output = system.daemon.output()
        assert "LACP Msg: init database failed!\n" in output
        assert "there is no datastore in" in output
        assert all(line in output for line in INVENTORY_LINES)
        assert "LACP Msg: LACPD subscription callback func failed! ret = " in output
        assert "Msg:" not in system.configure("hostname left")
        assert "set system-priority to 5 failed!" in system.configure("lacp system-priority 5")
        assert system.daemon.status is None
    finally:
        system.stop_daemon()


def test_no_cpu_interface(system):
    system.remove_cpu_interface()
    try:
        system.start_daemon()
        system.daemon.wait_for_output("LACPD get ifindex failed : No such device", Ticks.LINK)
        quietly(system, *join(1, 1, "active"), *enter(1, "no channel-group 1"))
        assert system.daemon.status is None
    finally:
        system.stop_daemon()
        system.add_cpu_interface()
        system.stop_switch()
        system.start_switch()


def test_no_inventory(lab):
    bare = lab.system("bare", ports=0)
    bare.start_daemon(environment=NO_WAIT)
    output = bare.daemon.output()
    assert all(line in output for line in INVENTORY_LINES)
    assert bare.configured() == []
    assert bare.configure(*join(1, 1, "on")) == (
        "LACP Msg: set channel-group 1 to on mode failed! This group is already in other mode.\n")
    assert bare.datastore.groups() == {}
    quietly(bare, "lacp system-priority 5")
    assert bare.datastore.system_priority() == 5
    assert bare.stop_daemon() == 0


def test_the_inventory_may_come_a_little_later(lab):
    late = lab.system("late", ports=1)
    lab.loose_cable(late, 1)
    late.daemon = late.launch_daemon(environment={"KEL_DB_INVENTORY_WAIT": "20"})
    late.daemon.wait_for_output("waiting up to 20 seconds for the switch", Ticks.LINK)
    late.start_switch()
    eventually("the daemon listens", late.listening, lambda ports: SHELL_PORT in ports, Ticks.LINK)
    quietly(late, *join(1, 1, "on"))
    late.await_trunk(1, {1}, Ticks.LINK)


def test_no_driver_service(system):
    system.stop_switch()
    system.start_daemon()
    try:
        quietly(system, *join(1, 1, "on"), *join(2, 1, "on"))
        assert "deal_channel_group_updown_port sclient_send_message() failed ret -1" in system.daemon.output()
        assert system.datastore.members(1) == {1, 2}
        system.start_switch()
        system.await_trunk(1, {1, 2}, Ticks.of(3))
        system.stop_switch()
        quietly(system, *leave(2, 1))
        system.start_switch()
        system.await_trunk(1, {1}, Ticks.of(3))
    finally:
        system.stop_daemon()
        if system.switch.status is not None:
            system.start_switch()


# ---- what is there already


def test_what_a_previous_run_left_is_cleared(system):
    for port in (1, 2):
        system.datastore.edit("olt-ifm", f"""<up-link-ports><interface><name>gigabitethernet 0/{port}</name>
            <trunk xmlns="urn:olt:params:xml:ns:yang:olt-lacp"><channel-group>3</channel-group><mode>passive</mode>
            <priority>7</priority><timeout>short</timeout></trunk></interface></up-link-ports>""")
    system.datastore.edit("olt-lacp", """<channel-group><group><id>3</id><lacp-type>dynamic</lacp-type>
        <load-balance>src-ip</load-balance><member-port>gigabitethernet 0/1</member-port></group></channel-group>""")
    system.datastore.edit("olt-lacp", "<global-configuration><system-priority>9</system-priority>"
                                      "</global-configuration>")
    assert system.datastore.groups() and system.datastore.system_priority() == 9
    system.start_daemon()
    try:
        assert system.datastore.groups() == {}
        assert system.datastore.system_priority() is None
        for port in (1, 2):
            trunk = system.datastore.trunk(port)
            assert (trunk.get("channel-group"), trunk.get("mode"), trunk.get("timeout")) == (None, None, None)
            assert trunk.get("priority", 32768) == 32768
            assert system.datastore.link_status(port) == "up"
        assert system.configured() == []
    finally:
        system.stop_daemon()


def test_a_second_daemon_on_the_same_datastore_changes_nothing(running):
    quietly(running, *join(1, 1, "on"), "lacp system-priority 5")
    running.await_trunk(1, {1}, Ticks.LINK)
    before = (running.configured(), running.datastore.groups())
    second = running.launch_daemon(name="second", port=2705, configuration="/dev/null")
    try:
        check_second(running, second, before)
    finally:
        assert second.stop() == 0


def check_second(running, second, before):
    second.wait_for_output("LACP Msg: LACPD subscription callback func failed! ret = ", Ticks.LINK)
    assert f"process {running.daemon.pid} already serves the configuration" in second.output()
    stays("the first daemon's groups", lambda: (running.configured(), running.datastore.groups(), running.trunks()),
          lambda now: now == (*before, {1: {1}}), 1.0)
    assert second.status is None


# ---- signals


def test_signals(running):
    log = running.log_file
    running.daemon.send_signal(signal.SIGHUP)
    eventually("the log has the line of SIGHUP", log.read_text, lambda text: "SIGHUP received" in text, Ticks.LINK)
    moved = log.with_suffix(".old")
    log.rename(moved)
    running.daemon.send_signal(signal.SIGUSR1)
    eventually("a new log file is there", log.exists, bool, Ticks.LINK)
    running.daemon.send_signal(signal.SIGHUP)
    eventually("the new log has the line", log.read_text, lambda text: "SIGHUP received" in text, Ticks.LINK)
    running.daemon.send_signal(signal.SIGTERM)
    assert running.daemon.wait(10) == 0
    assert "Terminating on signal" in log.read_text()


def test_an_interrupt_ends_it_with_status_0(running):
    running.daemon.send_signal(signal.SIGINT)
    assert running.daemon.wait(10) == 0


# ---- who may talk to it


def test_the_shell_listens_on_loopback_only(running):
    assert running.listening() == {SHELL_PORT: "127.0.0.1"}


def test_a_wrong_password_is_refused(running):
    with pytest.raises(ShellError, match="does not take the password"):
        Shell(running.namespace, SHELL_PORT, "wrong")


def test_without_a_password_there_is_no_network_session(system):
    text = system.configuration_file.read_text(encoding="utf-8")
    system.write_configuration("hostname left\n")
    system.start_daemon()
    try:
        with pytest.raises(ShellError, match="Vty password is not set."):
            Shell(system.namespace, SHELL_PORT, PASSWORD)
    finally:
        system.stop_daemon()
        system.write_configuration(text)


def test_the_daemon_runs_as_its_own_user_with_four_capabilities(running):
    with open(f"/proc/{running.daemon.pid}/status", encoding="utf-8") as file:
        status = dict(line.rstrip("\n").split(":\t", 1) for line in file if ":\t" in line)
    assert "0" not in status["Uid"].split()[1:2] and status["Uid"].split()[1] != "0"
    names = {10: "bind service", 12: "network administration", 13: "raw network access", 21: "system administration"}
    assert int(status["CapPrm"], 16) == sum(1 << bit for bit in names)


def test_ended_sessions_leave_nothing_open(running):
    def descriptors():
        from os import listdir
        return len(listdir(f"/proc/{running.daemon.pid}/fd"))

    with running.shell() as shell:
        shell.run("show running-config")
    before = eventually("open files", descriptors, lambda count: count > 0, 1)
    for _ in range(10):
        with running.shell() as shell:
            shell.run("show running-config")
    eventually("open files are as many as before", descriptors, lambda count: count <= before, Ticks.of(3))


def test_lines_that_are_no_commands_do_no_harm(running):
    connection = running.namespace.call(lambda: socket.create_connection(("127.0.0.1", SHELL_PORT), 5))
    connection.sendall(bytes(range(256)) * 20)
    connection.close()
    quietly(running, *join(1, 1, "on"))
    assert running.daemon.status is None
