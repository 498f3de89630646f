"""Two cabled terminals with users behind them, until Ctrl-C: python3 -m lab [BUILD-DIRECTORY] [PORTS]"""

import signal
import sys

from lab import Lab, Programs
from lab.programs import ROOT
from lab.system import PASSWORD, SHELL_PORT

TEXT = """
{name}
  log in             ip netns exec {namespace} telnet 127.0.0.1 {port}     password {password}, then enable
  the switch         {switch} --show --state-socket {state}
  the datastore      {environment} {sysrepocfg} -X -f json -m olt-lacp
  the user           ip netns exec {host} ping {other}
  cables             ge1 to ge{ports} go to the other one's of the same number; cut one with
                     ip -n {namespace} link set ge1 down
  output             {directory}/*.out"""


def describe(system, other):
    print(TEXT.format(
        name=system.name, namespace=system.namespace.name, port=SHELL_PORT, password=PASSWORD,
        switch=system.programs.switch, state=system.state_socket,
        sysrepocfg=system.programs.sysrepocfg, host=system.host.name, other=other.host_address, ports=system.ports,
        directory=system.directory,
        environment=" ".join(f"{name}={value}" for name, value in system.datastore.environment.items())), flush=True)


def main(build=ROOT / "build", ports=4):
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    try:
        with Lab(Programs(build)) as lab:
            left, right = lab.pair(int(ports))
            describe(left, right)
            describe(right, left)
            print("\nCtrl-C takes everything down.", flush=True)
            signal.pause()
    except KeyboardInterrupt:
        print("\ntaken down")
    except (OSError, AssertionError) as error:
        sys.exit(f"lab: {error}")


if __name__ == "__main__":
    main(*sys.argv[1:])
