"""A session of the daemon's shell over TCP, as a terminal sees it."""

import re
import socket
import time

PROMPT = re.compile(r"(?:^|\n)(?P<prompt>[\w-]+(?:\([\w/-]+\))?[>#] )$")
PASSWORD_PROMPT = re.compile(r"Password: $")
LOGIN_ANSWER = re.compile(f"{PROMPT.pattern}|{PASSWORD_PROMPT.pattern}")
TIMEOUT = 20.0

_IAC = 255
_SUBNEGOTIATION, _SUBNEGOTIATION_END = 250, 240
_OPTIONS = range(251, 255)


class ShellError(AssertionError):
    pass


def _without_telnet(data):
    """The text in `data`, and the rest that ends within a telnet command."""
    text = bytearray()
    at = 0
    while at < len(data):
        if data[at] != _IAC:
            text.append(data[at])
            at += 1
            continue
        if at + 1 >= len(data):
            break
        command = data[at + 1]
        if command in _OPTIONS:
            if at + 2 >= len(data):
                break
            at += 3
        elif command == _SUBNEGOTIATION:
            end = data.find(bytes([_IAC, _SUBNEGOTIATION_END]), at)
            if end < 0:
                break
            at = end + 2
        else:
            at += 2
    return bytes(text), data[at:]


class Shell:
    """Logged in and in the enable node unless said otherwise."""

    def __init__(self, namespace, port, password, enable=True):
        self.prompt = ""
        self._rest = b""
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

    def configure(self, *commands):
        """Types lines in the configuration node; returns all that was said."""
        output = [self.run(command) for command in ("configure terminal", *commands, "end")]
        return "".join(output)

    def close(self):
        self._socket.close()

    def _send(self, line):
        self._socket.sendall(line.encode() + b"\n")

    def _read_until(self, pattern):
        text = ""
        deadline = time.monotonic() + TIMEOUT
        while True:
            match = pattern.search(text)
            if match:
                self.prompt = match.groupdict().get("prompt") or ""
                return text
            self._socket.settimeout(max(deadline - time.monotonic(), 0.01))
            try:
                data = self._socket.recv(4096)
            except TimeoutError:
                raise ShellError(f"no prompt within {TIMEOUT} s; so far: {text!r}") from None
            if not data:
                raise ShellError(f"the shell closed the session; so far: {text!r}")
            plain, self._rest = _without_telnet(self._rest + data)
            text += plain.decode("utf-8", "replace").replace("\r", "")
