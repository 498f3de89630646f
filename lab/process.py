"""A program with its output in a file."""

import os
import signal
import subprocess

from lab.waiting import LabError, eventually

TAIL_LINES = 25


def tail(path, lines=TAIL_LINES):
    try:
        with open(path, encoding="utf-8", errors="replace") as file:
            return "".join(file.readlines()[-lines:])
    except FileNotFoundError:
        return ""


class Process:
    def __init__(self, name, command, environment, log):
        self.name = name
        self.log = log
        with open(log, "ab") as output:
            self._start = output.tell()
            self._process = subprocess.Popen([str(word) for word in command], stdin=subprocess.DEVNULL,
                                             stdout=output, stderr=subprocess.STDOUT,
                                             env={**os.environ, **environment})
        self.pid = self._process.pid
        self.send_signal = self._process.send_signal

    @property
    def status(self):
        """Exit status, or None while it runs."""
        return self._process.poll()

    def output(self):
        """What this process has written; the file may hold earlier ones' output before it."""
        with open(self.log, "rb") as file:
            file.seek(self._start)
            return file.read().decode("utf-8", "replace")

    def wait_for_output(self, text, within):
        self.await_that(f"says {text!r}", self.output, lambda output: text in output, within)

    def await_that(self, what, read, accept, within):
        """Waits for a state that can come only while it runs."""
        def running(value):
            if not accept(value) and self.status is not None:
                raise LabError(f"{self.name} ended with status {self.status}:\n{tail(self.log)}")
            return accept(value)
        eventually(f"{self.name} {what}", read, running, within)

    def wait(self, within):
        """The exit status."""
        try:
            return self._process.wait(within)
        except subprocess.TimeoutExpired:
            raise LabError(f"{self.name} still runs after {within} s:\n{tail(self.log)}") from None

    def stop(self, number=signal.SIGTERM, within=10):
        if self.status is None:
            self.send_signal(number)
            try:
                self._process.wait(within)
            except subprocess.TimeoutExpired:
                self._process.kill()
                self._process.wait()
        return self.status
