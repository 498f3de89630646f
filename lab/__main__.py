"""Two cabled terminals with users behind them, until Ctrl-C; or one terminal and a partner of another make."""

import argparse
import signal
import sys

from lab import Lab, Programs
from lab.openvswitch import OpenVSwitch
from lab.programs import ROOT
from lab.system import PASSWORD, SHELL_PORT

TERMINAL = """
{name}
  log in             ip netns exec {namespace} telnet 127.0.0.1 {port}     password {password}, then enable
  the switch         {switch} --show --state-socket {state}
  the datastore      {environment} {sysrepocfg} -X -f json -m olt-lacp
  the user           ip netns exec {host} ping {other}
  cables             ge1 to ge{ports} go to the other one's of the same number; cut one with
                     ip -n {namespace} link set ge1 down
  output             {directory}/*.out"""
BOND = "lacp=active other_config:lacp-time=fast"
PARTNER = """
{name}, with the bond "trunk" of all its ports ({settings}), which answers
channel-group 1 mode active
  its view           ovs-appctl -t {control} lacp/show trunk
  its settings       ovs-vsctl --db={socket} set port trunk lacp=passive
  the user           ip netns exec {namespace} ping {other}"""
PARTNER_ADDRESS = "10.77.99.1"


def describe(system, other):
    print(TERMINAL.format(
        name=system.name, namespace=system.namespace.name, port=SHELL_PORT, password=PASSWORD,
        switch=system.programs.switch, state=system.state_socket,
        sysrepocfg=system.programs.sysrepocfg, host=system.host.name, other=other.host_address, ports=system.ports,
        directory=system.directory,
        environment=" ".join(f"{name}={value}" for name, value in system.datastore.environment.items())), flush=True)


def show_terminals(lab, ports):
    left, right = lab.pair(ports)
    describe(left, right)
    describe(right, left)


def show_partner(lab, ports):
    partner, terminal = lab.add(OpenVSwitch, "openvswitch"), lab.system("left", ports)
    numbers = list(range(1, ports + 1))
    for port in numbers:
        lab.cable(terminal, port, partner, port)
    terminal.add_host()
    terminal.start()
    partner.start()
    partner.add_host(PARTNER_ADDRESS)
    partner.add_bond("trunk", numbers, BOND)
    describe(terminal, partner)
    print(PARTNER.format(name=partner.name, settings=BOND, control=partner.control("ovs-vswitchd"), socket=partner.socket,
                         namespace=partner.namespace.name, other=terminal.host_address), flush=True)


def main():
    parser = argparse.ArgumentParser(prog="python3 -m lab", description=__doc__)
    parser.add_argument("build", nargs="?", default=ROOT / "build", help="build directory")
    parser.add_argument("ports", nargs="?", type=int, default=4, help="of each")
    parser.add_argument("--partner", choices=["openvswitch"], help="in place of the second terminal")
    options = parser.parse_args()
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    try:
        with Lab(Programs(options.build)) as lab:
            (show_partner if options.partner else show_terminals)(lab, options.ports)
            print("\nCtrl-C takes everything down.", flush=True)
            signal.pause()
    except KeyboardInterrupt:
        print("\ntaken down")
    except (OSError, AssertionError) as error:
        sys.exit(f"lab: {error}")


if __name__ == "__main__":
    main()
