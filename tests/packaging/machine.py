"""This machine in layers that are thrown away: what is installed, removed or written in it never reaches the disk."""

import os
import signal
import subprocess
from pathlib import Path

LAYERED = ("etc", "usr", "var")
EMPTY = ("/run", "/dev/shm")

# The layers are in memory, mounted where nobody outside sees them. What is hidden is there and empty.
_SET_UP = """
set -e
layers=$1
shift
mount --make-rprivate /
mount -t tmpfs layers "$layers"
for folder in """ + " ".join(LAYERED) + """; do
  layer=$layers/$folder
  mkdir -p "$layer/upper" "$layer/work"
  mount -t overlay overlay -o "lowerdir=/$folder,upperdir=$layer/upper,workdir=$layer/work" "/$folder"
done
for folder; do
  mount -t tmpfs empty "$folder"
done
chmod 1777 /dev/shm
ip link set lo up
echo ready
exec sleep infinity
"""


class Machine:
    def __init__(self, directory, hidden, namespace=None):
        self._layers = Path(directory)
        self._layers.mkdir()
        self._namespace = namespace
        network = namespace.enter() if namespace else ["unshare", "--net"]
        self._keeper = subprocess.Popen([*network, "unshare", "--mount", "sh", "-c", _SET_UP, "sh",
                                         self._layers, *hidden, *EMPTY], stdout=subprocess.PIPE, text=True)
        if self._keeper.stdout.readline() != "ready\n":
            raise OSError("no layers could be made on this machine")

    def enter(self):
        """The words in front of a command that runs inside; the command keeps the process id."""
        return ["nsenter", f"--target={self._keeper.pid}", "--mount", "--net"]

    def run(self, *command, check=True, **environment):
        result = subprocess.run([*self.enter(), *map(str, command)], stdin=subprocess.DEVNULL, capture_output=True,
                                text=True, check=False,
                                env={**os.environ, "DEBIAN_FRONTEND": "noninteractive", **environment})
        if check and result.returncode != 0:
            raise AssertionError(f"{' '.join(map(str, command))} ended with {result.returncode}:\n"
                                 f"{result.stdout}{result.stderr}")
        return result

    def read(self, path):
        return self.run("cat", path).stdout

    def write(self, path, text):
        subprocess.run([*self.enter(), "tee", path], input=text, text=True, check=True, stdout=subprocess.DEVNULL)

    def exists(self, path):
        return self.run("test", "-e", path, check=False).returncode == 0

    def owner(self, path):
        """"user:group mode", as the system shows them."""
        return self.run("stat", "-c", "%U:%G %a", path).stdout.strip()

    def changes(self):
        """Paths that are in the layers and were not on the machine, and files of the machine that have changed."""
        found = set()
        for folder in LAYERED:
            upper = self._layers / folder / "upper"
            for line in self.run("find", upper, "-mindepth", "1", "-printf", "%y %P\n").stdout.splitlines():
                kind, _, path = line.partition(" ")
                path = f"/{folder}/{path}"
                if kind != "d" or not os.path.isdir(path):
                    found.add(path)
        return found

    def close(self):
        self._keeper.send_signal(signal.SIGKILL)
        self._keeper.wait()
