"""One terminal: datastore, software switch and daemon in a network namespace."""

import json
import shutil
import signal
import subprocess

from lab.datastore import Datastore
from lab.netns import Namespace
from lab.process import tail
from lab.shell import Shell
from lab.station import Station
from lab.waiting import LabError, eventually

CPU_INTERFACE = "ethv0"       # the daemon's
CPU_SWITCH_SIDE = "cpu0"      # the switch's end of it
HOST_INTERFACE = "host0"      # the user's
HOST_SWITCH_SIDE = "hostsw"   # the switch's end of it
HOST_ADDRESSES = 8
SHELL_PORT = 2704
PASSWORD = "lab"
USER = "daemon"


class System(Station):
    """make() provides namespace, interfaces and datastore; start() runs the programs."""

    def __init__(self, name, directory, namespace_name, number, ports, programs):
        super().__init__(name, directory, namespace_name)
        self.number = number
        self.ports = ports
        self.programs = programs
        self.host = None  # the namespace of the user behind the switch
        self.switch = None
        self.daemon = None
        self.host_addresses = [f"10.77.{number}.{last}" for last in range(1, HOST_ADDRESSES + 1)]
        self.host_address = self.host_addresses[0]
        self.run_directory = self.directory / "run"
        self.configuration_file = self.run_directory / "lacpd.conf"
        self.log_file = self.run_directory / "lacpd.log"  # the framework's log, not what the daemon prints
        self.driver_socket = self.directory / "driver.sock"
        self.state_socket = self.directory / "state.sock"
        self.mac = f"02:00:00:00:{number:02x}:00"
        self.datastore = Datastore(self.directory, programs)

    def make(self):
        self._make_directories()
        self.make_namespace()
        self.add_cpu_interface()
        self.datastore.install()

    # ---- parts

    def add_cpu_interface(self):
        self.namespace.ip("link", "add", CPU_INTERFACE, "address", self.mac, "type", "veth", "peer", "name",
                          CPU_SWITCH_SIDE)
        self.namespace.ip("link", "set", CPU_INTERFACE, "up")
        self.namespace.ip("link", "set", CPU_SWITCH_SIDE, "up")

    def add_host(self):
        """A user with addresses, whose traffic the trunks carry. Before start()."""
        self.host = Namespace(f"{self._namespace_name}-host")
        self.namespace.ip("link", "add", HOST_SWITCH_SIDE, "type", "veth", "peer", "name", HOST_INTERFACE, "address",
                          f"02:00:00:00:{self.number:02x}:ff", "netns", self.host.name)
        self.namespace.ip("link", "set", HOST_SWITCH_SIDE, "up")
        self.host.ip("link", "set", HOST_INTERFACE, "up")
        for address in self.host_addresses:
            self.host.ip("address", "add", f"{address}/16", "dev", HOST_INTERFACE)

    def remove_cpu_interface(self):
        self.namespace.ip("link", "del", CPU_INTERFACE)

    @property
    def environment(self):
        return {**self.datastore.environment, "SCLIENT_SOCKET": str(self.driver_socket)}

    def _make_directories(self):
        self.directory.mkdir()
        self.run_directory.mkdir()
        shutil.chown(self.directory, group=USER)
        self.directory.chmod(0o750)
        # The daemon writes its configuration, process id and log itself, as its own user.
        shutil.chown(self.run_directory, USER, USER)
        self.write_configuration(f"hostname {self.name}\npassword {PASSWORD}\n")

    def write_configuration(self, text):
        self.configuration_file.write_text(text, encoding="utf-8")
        shutil.chown(self.configuration_file, USER, USER)
        self.configuration_file.chmod(0o640)

    # ---- programs

    def start(self):
        self.start_switch()
        self.start_daemon()

    def start_switch(self, *options):
        ports = [word for port in range(1, self.ports + 1)
                 for word in ("--port", f"{port}={self.port_interface(port)}")]
        host = ("--host", HOST_SWITCH_SIDE) if self.host else ()
        self.switch = self._run("olt-switch", [
            self.programs.switch, "--cpu", CPU_SWITCH_SIDE, *host, *ports,
            "--driver-socket", self.driver_socket, "--state-socket", self.state_socket, *options])
        self._await(self.switch, "answers", self._show, lambda shown: shown.returncode == 0)

    def launch_daemon(self, *options, environment=None, name="lacpd", configuration=None, port=SHELL_PORT):
        """The daemon's process, without waiting for its shell."""
        return self._run(name, [
            self.programs.lacpd, "-f", configuration or self.configuration_file, "-A", "127.0.0.1", "-P", port,
            "-i", self.run_directory / f"{name}.pid", "--vty_socket", self.run_directory,
            "--log", f"file:{self.log_file}", "--log-level", "info", *options], environment)

    def start_daemon(self, *options, environment=None):
        self.daemon = self.launch_daemon(*options, environment=environment)
        self._await(self.daemon, "listens", self.listens, bool)

    def stop_daemon(self, number=signal.SIGTERM):
        return self.daemon.stop(number) if self.daemon else None

    def speak_for_daemon(self):
        """As the service manager does when it was killed; what is said about it."""
        return subprocess.run([*self.namespace.enter(), self.programs.last_word, self.run_directory / "lacpd.resume"],
                              capture_output=True, text=True, check=True).stdout

    def stop_switch(self):
        return self.switch.stop() if self.switch else None

    def stop(self):
        """Ends everything, in the order of dependence."""
        self.stop_daemon()
        self.stop_switch()

    def restart_daemon(self, number=signal.SIGTERM):
        self.stop_daemon(number)
        self.start_daemon()

    def restart_switch(self, *options):
        self.stop_switch()
        self.start_switch(*options)

    def remove(self):
        if self.host:
            self.host.remove()
        super().remove()

    def _run(self, name, command, environment=None):
        return super()._run(name, command, {**self.environment, **(environment or {})})

    # ---- what an operator sees

    def shell(self, **options):
        return Shell(self.namespace, SHELL_PORT, PASSWORD, **options)

    def configure(self, *commands):
        """Types configuration commands in a session of their own; returns what the shell answered."""
        with self.shell() as shell:
            return shell.configure(*commands)

    def running_config(self):
        with self.shell() as shell:
            return shell.run("show running-config")

    def configured(self):
        """The daemon's own lines of the running configuration: interfaces, groups, priority."""
        return [line for line in self.running_config().splitlines()
                if line.startswith(("interface ", " ", "channel-group ", "lacp "))]

    def listens(self):
        return subprocess.run([*self.namespace.enter(), "ss", "-Hltn", f"sport = {SHELL_PORT}"], check=True,
                              capture_output=True).stdout

    def state(self):
        """The switch's state, as it shows it."""
        result = self._show()
        if result.returncode != 0:
            raise LabError(f"the switch of {self.name} does not answer:\n{tail(self.switch.log)}")
        return json.loads(result.stdout)

    def _show(self):
        return subprocess.run([self.programs.switch, "--show", "--state-socket", self.state_socket],
                              capture_output=True, text=True, check=False)

    def trunks(self):
        """Member ports of the switch's trunks, by group."""
        return {trunk["group"]: set(trunk["members"]) for trunk in self.state()["trunks"]}

    def traffic(self, port):
        """Counters of the user traffic of a port."""
        return next(entry for entry in self.state()["traffic"]["ports"] if entry["port"] == port)

    def address_over(self, port, target, count=8):
        """An address of the user behind it whose packets to another user leave over this port."""
        for address in self.host_addresses:
            before = self.traffic(port)["tx"]["frames"]
            subprocess.run([*self.host.enter(), "ping", "-q", "-c", str(count), "-i", "0.02", "-W", "1", "-I", address,
                            target.host_address], stdout=subprocess.DEVNULL, check=False)
            if self.traffic(port)["tx"]["frames"] - before >= count:
                return address
        raise LabError(f"{self.name}: no user's packets leave over port {port}")

    def trunk(self, group):
        return next((trunk for trunk in self.state()["trunks"] if trunk["group"] == group), None)

    def await_trunk(self, group, ports, within):
        """Waits until the group's trunk has exactly these ports; none means no trunk."""
        wanted = set(ports)
        eventually(f"{self.name}: trunk {group} has ports {sorted(wanted)}", self.trunks,
                   lambda trunks: trunks.get(group, set()) == wanted, within)
