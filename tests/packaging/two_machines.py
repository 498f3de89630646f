#!/usr/bin/env python3
"""Two machines with two cards each, cabled to each other, set up by the commands of docs/machines.md: they form a group,
carry traffic, lose a cable, crash, are upgraded, lose their power, stop and go. Run by boot_check.sh, whose folder has the
images.

    tests/packaging/two_machines.py FOLDER"""

import json
import re
import socket
import subprocess
import sys
import time
from pathlib import Path

GUIDE = Path(__file__).resolve().parents[2] / "docs/machines.md"
BLOCKS = re.findall(r"^```(?:sh)?\n(.*?)^```", GUIDE.read_text(encoding="utf-8"), re.MULTILINE | re.DOTALL)
SET_UP, START, SHELL, CHECK, BACK = (next(block for block in BLOCKS if word in block) for word in (
    "cp /usr", "enable --now olt", "write memory", "ping", "disable"))
# As the guide says of cards with other names.
NAMES = """
sed -i 's/eno1 eno2/eth0 eth1/' /etc/systemd/network/30-lacpd-uplinks.network
sed -i 's/eno1/eth0/; s/eno2/eth1/' /etc/default/olt-switch
"""
CARDS = (1, 2)
END = "<end "
PATIENCE = 180  # seconds; an emulated machine is slow
KERNEL = ("root=/dev/vda rw console=ttyS0 net.ifnames=0 quiet systemd.show_status=0 systemd.mask=serial-getty@ttyS0.service "
          "systemd.hostname=")

ACTIVE = "[ $(systemctl is-active olt-datastore olt-switch lacpd | grep -c ^active) = {} ]".format
SUCCESS = "[ $(systemctl show --value -p Result {}) = success ]".format
SERVES = "{} && sleep 3 && grep -c 'channel-group 1 mode active' /etc/lacpd/lacpd.conf | grep -x 2".format(ACTIVE(3))
LIFE = {
    "order: datastore, switch, daemon": """{ systemctl show --value -p ExecMainExitTimestampMonotonic olt-datastore
        systemctl show --value -p ExecMainStartTimestampMonotonic olt-switch lacpd; } | grep . | sort -nc""",
    "nothing failed first": "[ $(systemctl show --value -p NRestarts lacpd) = 0 ] && " + ACTIVE(3),
    "the system is read-only": "nsenter -t $(pidof lacpd) -m touch /usr/x 2>&1 | grep Read-only",
    "the daemon stops with success": f"systemctl stop lacpd && {SUCCESS('lacpd')} && {ACTIVE(2)}",
    "the datastore takes the switch along": f"systemctl stop olt-datastore && {SUCCESS('olt-switch')} && {ACTIVE(0)}",
    "the daemon starts what it needs": f"systemctl start lacpd && {SERVES}",
    "an upgrade starts nothing that was stopped": "systemctl stop olt-switch lacpd; dpkg -i /mnt/lacpd_3_*.deb && "
                                                  f"[ -z \"$(systemctl list-jobs --no-legend)\" ] && {ACTIVE(1)}",
    "removing stops all": f"systemctl start lacpd && {ACTIVE(3)} && dpkg -r lacpd && ! pgrep 'lacpd|olt-switch'",
    "it can be installed again": "dpkg -i /mnt/lacpd_3_*.deb && systemctl start olt-datastore olt-switch lacpd && " + SERVES,
    "nothing has failed": '[ -z "$(systemctl --failed --no-legend)" ]',
}


def connected(path):
    for _ in range(PATIENCE * 10):
        try:
            end = socket.socket(socket.AF_UNIX)
            end.connect(str(path))
            return end
        except OSError:
            time.sleep(0.1)
    raise TimeoutError(f"nobody listens at {path}")


class Machine:
    def __init__(self, folder, name, other):
        self.folder, self.name, self.other = folder, name, other
        self.disk = folder / f"{name}.img"
        subprocess.run(["cp", "--sparse=always", folder / "root.img", self.disk], check=True)
        self.process, self.unread = None, ""

    def power_on(self):
        """Waits for the shell on the serial line, which comes with the data disk's script."""
        sockets = {kind: self.folder / f"{self.name}.{kind}" for kind in ("serial", "control")}
        cables = [word for card in CARDS for word in (
            "-netdev", f"dgram,id=cable{card},local.type=unix,local.path={self.folder}/{self.name}{card},"
                       f"remote.type=unix,remote.path={self.folder}/{self.other}{card}",
            "-device", f"virtio-net-pci,netdev=cable{card},mac=52:54:00:00:{ord(self.name):02x}:{card:02x}")]
        for path in (*sockets.values(), *(self.folder / f"{self.name}{card}" for card in CARDS)):
            path.unlink(missing_ok=True)
        self.process = subprocess.Popen([
            "qemu-system-x86_64", "-accel", "tcg", "-cpu", "max", "-m", "512", "-nodefaults", "-display", "none",
            "-serial", f"unix:{sockets['serial']},server=on,wait=off",
            "-qmp", f"unix:{sockets['control']},server=on,wait=off", *cables,
            "-kernel", self.folder / "root/vmlinuz", "-initrd", self.folder / "root/initrd.img",
            "-append", KERNEL + self.name, "-drive", f"file={self.disk},if=virtio,format=raw",
            "-drive", f"file={self.folder}/data.img,if=virtio,format=raw,snapshot=on"], stdin=subprocess.DEVNULL)
        self.unread = ""
        self.serial = connected(sockets["serial"])
        self.serial.settimeout(PATIENCE)
        self.control = connected(sockets["control"]).makefile("rw")
        self.order("qmp_capabilities")
        self.read(f"{END}ready>")

    def power_off(self):
        self.process.kill()
        self.process.wait()

    def order(self, command, **arguments):
        self.control.write(json.dumps({"execute": command, "arguments": arguments}) + "\n")
        self.control.flush()
        while "return" not in json.loads(self.control.readline()):
            pass

    def pull(self, card, pulled=True):
        self.order("set_link", name=f"cable{card}", up=not pulled)

    def read(self, end):
        while end not in self.unread:
            self.unread += self.serial.recv(4096).decode(errors="replace").replace("\r", "")
        text, _, self.unread = self.unread.partition(end)
        return text

    def run(self, script, check=True):
        self.serial.sendall(f"({script.strip()}\n) 2>&1 </dev/null; echo '{END}'$?'>'\n".encode())
        shown = self.read(END)
        status = self.read(">")
        assert status == "0" or not check, f"{self.name}: {script}\n{shown}[{status}]"
        return shown

    def until(self, what, script):
        started = time.monotonic()
        while (shown := self.run(f"{script} && echo <yes>".replace("<yes>", "'yes'"), check=False))[-4:] != "yes\n":
            assert time.monotonic() - started < PATIENCE, f"{self.name}: {what}\n{shown}" + self.run(
                "olt-switch --show; journalctl -b -o cat -n 30 -u lacpd -u 'olt-*'; ip -br address", check=False)
        print(f"ok    {self.name}: {what}", flush=True)

    def processes(self):
        return {unit: self.run(f"systemctl show --value -p MainPID {unit}") for unit in ("olt-switch", "lacpd")}

    def ping(self, count, interval, during=lambda: None):
        """Answers of the other machine's user while something happens."""
        self.serial.sendall(f"ping -q -c {count} -i {interval} -W 5 10.77.0.{2 if self.name == 'A' else 1} "
                            f"2>&1; echo '{END}0>'\n".encode())
        during()
        shown = self.read(f"{END}0>")
        return count - int(re.search(r"(\d+) received", shown)[1])


def transfer(sender, receiver):
    receiver.run("rm -f /tmp/whole; (nc -l 9 | cmp - <(seq 2500000) && touch /tmp/whole) >/dev/null 2>&1 &\nsleep 3")
    sender.run(f"seq 2500000 | nc -N -w {PATIENCE} 10.77.0.2 9")
    receiver.until("19 MB arrive whole", "test -e /tmp/whole")


def has_trunk(*cards):
    members = ", ".join(map(str, cards))
    return f"""olt-switch --show | tr -d '\\n' | tr -s ' ' | grep -q '"group": 1, .*"members": \\[ \\?{members} \\?\\]'"""


def main(folder):
    machines = a, b = Machine(folder, "A", "B"), Machine(folder, "B", "A")
    try:
        for machine in machines:
            machine.power_on()
            print(f"ok    {machine.name} boots", flush=True)
            machine.run(f"dpkg -i /mnt/lacpd_1_*.deb && {ACTIVE(0)}")
            mine = (lambda text: text) if machine is a else lambda text: text.replace("0a:00", "0b:00").replace(
                "10.77.0.1/24", "10.77.0.2/24")
            machine.run("set -e\n" + mine(SET_UP) + NAMES)
            machine.run("set -e\n" + re.sub("^telnet.*\n", "", mine(START), flags=re.MULTILINE))
            typed = re.findall(r"^olt\S*[>#] (.*)$", SHELL, re.MULTILINE)
            machine.until("its shell answers", "nc -z 127.0.0.1 2704")
            machine.run("{ for line in secret '" + "' '".join(typed) + "'; do echo \"$line\"; sleep 1; done; } | "
                        "nc -q 1 127.0.0.1 2704")
        for machine in machines:
            machine.until("both cards are in the trunk", has_trunk(1, 2))
        print(f"ok    {a.ping(100, 0.05)} of 100 packets lost at rest", flush=True)
        a.run(CHECK.replace("eno1", "eth0"))
        transfer(a, b)
        for machine in machines:
            machine.pull(1)
        for machine in machines:
            machine.until("the other card serves alone", has_trunk(2))
        assert a.ping(20, 0.1) == 0
        for machine in machines:
            machine.pull(1, False)
        for machine in machines:
            machine.until("both are back", has_trunk(1, 2))
        for what, script, most, started in (
                ("the switch crashes", "kill -KILL $(pidof olt-switch)", 200, "olt-switch"),
                ("the daemon crashes", "kill -KILL $(pidof lacpd)", 1, "lacpd"),
                ("another daemon is installed", "dpkg -i /mnt/lacpd_2_*.deb", 1, "lacpd"),
                ("the daemon hangs", "kill -STOP $(pidof lacpd)", 1, "lacpd"),
                ("another library is installed", "dpkg -i /mnt/lacpd_3_*.deb", 400, "olt-switch lacpd")):
            before = a.processes()
            lost = b.ping(600, 0.05, lambda script=script: a.run(f"{script}; sleep 12"))
            assert [name for name, pid in a.processes().items() if pid != before[name]] == started.split()
            print(f"ok    {lost} of 600 packets lost, 50 ms apart, while at A {what}", flush=True)
            assert lost <= most
            for machine in machines:
                machine.until("both cards are in the trunk", has_trunk(1, 2))
        a.power_off()
        b.until("nothing serves without A", "! " + has_trunk(1, 2))
        a.power_on()
        for machine in machines:
            machine.until("all is as before after the power cut", has_trunk(1, 2))
        a.run("ip address add 10.77.0.1/24 dev host0", check=False)
        assert b.ping(20, 0.1) == 0
        for what, script in LIFE.items():
            a.until(what, script)
        a.run("set -e\n" + BACK)
        a.run("systemctl start lacpd; dpkg -P lacpd", check=False)
        a.until("nothing is left of it", "! ip link show ethv0 && ! pidof lacpd olt-switch && [ ! -e /run/lacpd ] && "
                "[ -z \"$(systemctl list-units --all --no-legend 'lacpd*' 'olt-*')\" ]")
        print("passed")
    finally:
        for machine in machines:
            if machine.process:
                machine.power_off()


if __name__ == "__main__":
    main(Path(sys.argv[1]).resolve())
