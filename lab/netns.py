"""Network namespaces by name."""

import contextlib
import ctypes
import os
import signal
import subprocess
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

_libc = ctypes.CDLL(None, use_errno=True)
_CLONE_NEWNET = 0x40000000
_NETNS_DIR = Path("/run/netns")


def ip(*arguments):
    result = subprocess.run(["ip", *map(str, arguments)], capture_output=True, text=True, check=False)
    if result.returncode != 0:
        raise OSError(f"ip {' '.join(map(str, arguments))}: {result.stderr.strip()}")
    return result.stdout


class Namespace:
    def __init__(self, name):
        self.name = name
        ip("netns", "add", name)
        self.ip("link", "set", "lo", "up")
        subprocess.run([*self.enter(), "sysctl", "-qw", "net.ipv6.conf.all.disable_ipv6=1",
                        "net.ipv6.conf.default.disable_ipv6=1"], check=True)

    def ip(self, *arguments):
        return ip("-n", self.name, *arguments)

    def enter(self):
        """The words in front of a command that runs inside; the command keeps the process id."""
        return ["ip", "netns", "exec", self.name]

    def call(self, function):
        """Runs a function on a thread inside the namespace. Sockets made there stay there."""
        def body():
            with open(_NETNS_DIR / self.name, "rb") as handle:
                if _libc.setns(handle.fileno(), _CLONE_NEWNET) != 0:
                    raise OSError(ctypes.get_errno(), f"cannot enter namespace {self.name}")
            return function()

        with ThreadPoolExecutor(1) as thread:
            return thread.submit(body).result()

    def remove(self):
        remove(self.name)


def names():
    return [entry.name for entry in _NETNS_DIR.iterdir()] if _NETNS_DIR.is_dir() else []


def remove(name):
    """Ends what still runs inside, then removes the namespace and its interfaces."""
    if name in names():
        for process in ip("netns", "pids", name).split():
            with contextlib.suppress(ProcessLookupError):
                os.kill(int(process), signal.SIGKILL)
        ip("netns", "del", name)
