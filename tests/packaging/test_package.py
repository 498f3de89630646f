"""The package as an operator meets it: installed, set up, started as its units say, upgraded, removed."""

import os
import re
import shlex
import subprocess
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2]))

from lab import eventually  # noqa: E402 (needs the path above)
from lab.process import Process  # noqa: E402

ROOT = Path(__file__).resolve().parents[2]
BUILD = Path(os.environ.get("LACPD_BUILD_DIR", ROOT / "build")).resolve()
# What an installed program must not need: the build and the libraries that were built for it.
HIDDEN = [str(BUILD), re.search("^LACPD_DEPS_PREFIX:PATH=(.*)$", (BUILD / "CMakeCache.txt").read_text(), re.M)[1]]
# A view of this machine that is thrown away: the layers are in memory, what is hidden is there and empty.
LAYERS = """
mount --make-rprivate /
mkdir "$1"
mount -t tmpfs layers "$1"
for folder in etc usr var; do
  mkdir -p "$1/upper/$folder" "$1/work/$folder"
  mount -t overlay overlay -o "lowerdir=/$folder,upperdir=$1/upper/$folder,workdir=$1/work/$folder" "/$folder"
done
for hidden in /run /dev/shm "${@:2}"; do mount -t tmpfs -o mode=1777 empty "$hidden"; done
ip link set lo up
echo ready
exec sleep infinity
"""
SCRIPTS = "/usr/sbin/olt-datastore /usr/share/lacpd/scripts/{datastore,install-configuration}.sh"
PROGRAMS = "/usr/sbin/{lacpd,olt-switch} /usr/lib/lacpd/bin/{sysrepoctl,sysrepocfg,lacpd-last-word}"
LIBRARIES = "/usr/lib/lacpd/lib{yang.so.3,sysrepo.so.7,frr.so.0}"
UNITS = "/usr/lib/systemd/system/{lacpd,olt-datastore,olt-switch}.service"
PAGES = "/usr/share/man/man8/{lacpd,olt-datastore,olt-switch}.8.gz"
FILES = (f"{UNITS} {PAGES} /etc/default/olt-switch /usr/share/doc/lacpd/copyright /usr/share/lacpd/nacm.xml "
         "/usr/share/lacpd/lacpd.conf /usr/share/lacpd/yang/{olt-ifm,olt-lacp}.yang")
INSTALLED = [  # what is asked, and the whole answer
    (f"stat -c '%U:%G %a' {SCRIPTS} {PROGRAMS} | sort -u", "root:root 755"),
    (f"stat -Lc '%U:%G %a' {FILES} {LIBRARIES} | sort -u", "root:root 644"),
    (r"find $(dpkg -L lacpd) -maxdepth 0 ! -type l \( ! -user root -o ! -group root -o -perm /022 \)", ""),
    ("stat -c '%U:%G %a' /etc/lacpd /etc/lacpd/lacpd.conf", "daemon:daemon 750\ndaemon:daemon 640"),
    ("cd /etc/lacpd; grep -cE '^hostname |^!password ' lacpd.conf; grep -E '^(enable )?password' lacpd.conf", "2"),
    (rf"readelf -d {PROGRAMS} {LIBRARIES} | sed -n 's/.*(\(RUNPATH\|RPATH\)).*\[\(.*\)\]/\2/p' | uniq",
     "$ORIGIN/../lib/lacpd\n$ORIGIN/..\n$ORIGIN"),
    (f"for file in {PROGRAMS}; do setpriv --reuid=daemon --regid=daemon --clear-groups $file --version 2>/dev/null | "
     "head -n 1 | cut -d ' ' -f 1; done", "lacpd\nolt-switch\nsysrepoctl\nsysrepocfg\nlacpd-last-word:"),
    (f"zgrep -lE '{'|'.join(HIDDEN)}|@[A-Z_]+@' {SCRIPTS} {FILES}", ""),
    (f"systemd-analyze verify --man=no {UNITS} 2>&1 | grep -E 'lacpd|olt-'", ""),
    (f"for page in {PAGES}; do man --warnings -E UTF-8 -Tutf8 -l $page >/dev/null; done", ""),
]
RUNNING = [
    # User daemon; net_bind_service 10, net_admin 12, net_raw 13, sys_admin 21.
    ("grep -E 'Uid|CapPrm' /proc/$(cat /run/lacpd/lacpd.pid)/status | xargs", "Uid: 1 1 1 1 CapPrm: 0000000000203400"),
    ("ss -Hltn sport = 2704 | awk '{ print $4 }'", "127.0.0.1:2704"),
    ("stat -c '%U:%G %a' /run/lacpd/lacpd.vty /run/olt/switch-{driver,state}.sock /etc/sysrepo /dev/shm/sysrepo | uniq",
     "daemon:daemon 770\nroot:daemon 660\nroot:daemon 2770"),
    ("olt-switch --show | grep -o '\"group\": 1'", '"group": 1'),
]


class Machine(Process):
    def __init__(self, layers, hidden=()):
        self.layers = layers
        command = ["unshare", "-nm", "bash", "-ec", LAYERS, "bash", layers, *hidden]
        super().__init__("machine", command, {}, f"{layers}.out")
        self.wait_for_output("ready", 10)

    def command(self, script):
        return ["nsenter", f"--target={self.pid}", "--mount", "--net", "bash", "-ec", script]

    def run(self, script, check=True):
        status, output = subprocess.getstatusoutput(shlex.join(self.command(script)))
        assert status == 0 or not check, f"{script}: {output}"
        return output.strip()

    def answers(self, rows):
        return [(script, self.run(script, check=False)) for script, _ in rows]

    def started(self, name):
        """What a unit starts, with the environment, capabilities and groups that it leaves a program."""
        unit = dict(re.findall(r"^(\w+)=(.*)$", self.run(f"cat /usr/lib/systemd/system/{name}.service"), re.M))
        capabilities = unit["CapabilityBoundingSet"].lower().replace("cap_", "+").replace(" ", ",")
        return (f"{unit.get('ExecStartPre', ':').lstrip('+')}; . {unit.get('EnvironmentFile', '/dev/null')}; "
                f"exec env {unit.get('Environment', '')} setpriv --bounding-set=-all,{capabilities} --no-new-privs "
                f"--groups={unit.get('SupplementaryGroups', 'root')} {unit['ExecStart']}")

    def changes(self):
        """But for the package manager's and the datastore, which other programs may use too."""
        lines = self.run(f"find {self.layers}/upper -mindepth 2 -printf '%y/%P\n'").splitlines()
        others = ("/var/lib/dpkg/", "/var/log/", "/var/cache/man/", "/var/cache/ldconfig/", "/etc/sysrepo")
        return {line[1:] for line in lines
                if not line[1:].startswith(others) and (line[0] != "d" or not os.path.isdir(line[1:]))}


def test_package(tmp_path, request):
    machine = Machine(tmp_path / "layers", HIDDEN)
    request.addfinalizer(lambda: machine.stop(9))
    folder = tmp_path / "made"
    subprocess.run(["cpack", "--config", BUILD / "CPackConfig.cmake", "-B", folder], check=True, capture_output=True)
    machine.run(f"dpkg -i {folder}/*.deb")
    assert machine.answers(INSTALLED) == INSTALLED

    set_up = f"({machine.started('olt-datastore')}) >/dev/null; /usr/lib/lacpd/bin/sysrepoctl -l | grep '^olt-'"
    [modules] = {machine.run(first + set_up) for first in ("", "", "rm -r /dev/shm/sysrepo; ")}  # again, after a boot
    assert re.fullmatch("olt-ifm .*\nolt-lacp .*", modules)

    machine.run("""ip link add ethv0 up type veth peer name cpu0
                   ip link add ge1 up type veth peer name far1
                   ip link set cpu0 up; ip link set far1 up
                   echo 'OLT_SWITCH_OPTIONS="--cpu cpu0 --port 1=ge1"' >/etc/default/olt-switch
                   printf 'interface gigabitEthernet 0/1\n channel-group 1 mode on\n' >>/etc/lacpd/lacpd.conf""")
    services = []
    request.addfinalizer(lambda: [service.stop() for service in services])
    for name, rows in (("olt-switch", [("olt-switch --show | grep -o trunks", "trunks")]), ("lacpd", RUNNING)):
        services.insert(0, Process(name, machine.command(machine.started(name)), {}, tmp_path / name))
        eventually(f"{name} runs", lambda: machine.answers(rows), lambda seen: seen == rows, 30)
    assert "keldatabase:" not in services[0].output()
    assert [service.stop() for service in services] == [0, 0]

    configuration = "cat /etc/lacpd/lacpd.conf /etc/default/olt-switch"
    before = machine.run(configuration)
    for change in (f"dpkg -i {folder}/*.deb; ls /run/lacpd/lacpd.resume", "dpkg -r lacpd"):
        machine.run(change)
        assert machine.run(configuration) == before
    assert machine.changes() == {"/etc/lacpd", "/etc/lacpd/lacpd.conf", "/etc/default/olt-switch"}
    machine.run("dpkg -P lacpd")
    assert machine.changes() == set()


def test_what_the_readme_says(tmp_path, request):
    machine = Machine(tmp_path / "layers")
    request.addfinalizer(lambda: machine.stop(9))
    machine.run("for port in 1 2; do ip link add ge$port up type veth peer name far$port; done")
    [script] = re.findall("^## Run it.*?```sh\nmake build\n(.*?)```", (ROOT / "README.md").read_text(), re.M | re.S)
    script = script.replace("build/", f"{BUILD}/")
    run = Process("readme", machine.command(f"cd {ROOT}; {script}\nsysrepocfg --version; wait"), {}, tmp_path / "readme")
    pids = "pgrep --ns $$ --nslist net"
    request.addfinalizer(lambda: machine.run(f"kill $({pids} -x lacpd) $({pids} -x olt-switch)"))
    eventually("the shell listens", lambda: machine.run("ss -Hltn sport = 2704"), bool, 30)
    assert machine.run("ls /run/lacpd/lacpd.vty /run/olt/switch-driver.sock") and "sysrepocfg" in run.output()
