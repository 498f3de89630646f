"""Waiting for a state, and for a state that must not change; both bounded."""

import time

POLL = 0.1


class LabError(AssertionError):
    """Something in the lab is not as it must be; the text says what."""


def eventually(what, read, accept, within):
    """Reads until `accept` takes the value, and returns it. `what` names the state in the failure."""
    deadline = time.monotonic() + within
    while True:
        value = read()
        if accept(value):
            return value
        if time.monotonic() > deadline:
            raise LabError(f"{what}: not within {within:.1f} s; last seen: {value!r}")
        time.sleep(POLL)


def stays(what, read, accept, seconds):
    """Reads for some time; every value must be accepted."""
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        value = read()
        if not accept(value):
            raise LabError(f"{what}: no longer so; seen: {value!r}")
        time.sleep(POLL)
