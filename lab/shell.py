"""A session of the daemon's shell over TCP, as a terminal sees it."""

import re
import socket
import time

PROMPT = re.compile(r"(?:^|\n)(?P<prompt>[\w-]+(?:\([\w/-]+\))?[>#] )$")
PASSWORD_PROMPT = re.compile(r"Password: $")
LOGIN_ANSWER = re.compile(f"{PROMPT.pattern}|{PASSWORD_PROMPT.pattern}")
TIMEOUT = 20.0
_TELNET = re.compile(rb"\xff(?:[\xfb-\xfe].|\xfa.*?\xff\xf0|[^\xfa-\xfe])|\r", re.DOTALL)


class ShellError(AssertionError):
    pass


class Shell:
    """Logged in and in the enable node unless said otherwise."""

    def __init__(self, namespace, port, password, enable=True):
        self.prompt = ""
        self._socket = namespace.call(lambda: socket.create_connection(("127.0.0.1", port), TIMEOUT))
        try:
            self._read_until(PASSWORD_PROMPT)
            self._send(password)
            self._read_until(LOGIN_ANSWER)
            if not self.prompt:
                raise ShellError("the shell does not take the password")
            if enable:
                self.run("enable")
                self.run("terminal length 0")
        except BaseException:
            self.close()
            raise

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def run(self, command):
        """Types one line; returns what the shell says until it prompts again."""
        self._send(command)
        text = self._read_until(PROMPT)
        _, _, output = text.partition("\n")  # the echo of what was typed
        return output[:output.rfind(self.prompt)]

    def help(self, line):
        """What a question mark behind the line shows; the line is then wiped out."""
        self._socket.sendall(line.encode() + b"?")
        again = self.prompt + line
        text = self._read_until(re.compile(f"\n(?P<prompt>{re.escape(self.prompt)}){re.escape(line)}$"))
        self._socket.sendall(b"\x15\n")
        self._read_until(PROMPT)
        return text.partition("\n")[2][:-len(again)]

    def complete(self, line):
        """What the line has become after a tabulator; it is then wiped out."""
        self._socket.sendall(line.encode() + b"\t\x15\n")
        wiped = re.compile(rf"(\x08+) +\1\n(?P<prompt>{re.escape(self.prompt)})$")
        text = self._read_until(wiped)
        shown = []
        for character in wiped.sub("", text).rpartition(self.prompt)[2]:
            if character == "\x08":
                shown.pop()
            else:
                shown.append(character)
        return "".join(shown)

    def configure(self, *commands):
        """Types lines in the configuration node; returns all that was said."""
        return "".join([self.run(command) for command in ("configure terminal", *commands, "end")])

    def close(self):
        self._socket.close()

    def _send(self, line):
        self._socket.sendall(line.encode() + b"\n")

    def _read_until(self, pattern):
        data, deadline = b"", time.monotonic() + TIMEOUT
        while True:
            text = _TELNET.sub(b"", data).decode("utf-8", "replace")
            match = pattern.search(text)
            if match:
                self.prompt = match.groupdict().get("prompt") or ""
                return text
            self._socket.settimeout(max(deadline - time.monotonic(), 0.01))
            try:
                more = self._socket.recv(4096)
            except TimeoutError:
                raise ShellError(f"no prompt within {TIMEOUT} s; so far: {text!r}") from None
            if not more:
                raise ShellError(f"the shell closed the session; so far: {text!r}")
            data += more
