"""The documents' examples run, and answer as it is printed. A block is an example when a comment stands before it:

    <!-- file NAME -->    what later examples use under that name, in the terminal's folder
    <!-- run -->          what is typed, as in a transcript, with "# " for the system's tools; answers may take some ticks.
                          A block without any prompt is a script that has to end well."""

import re

import pytest

from lab import Lab, Programs, Ticks, eventually
from lab.programs import ROOT
from test_transcripts import STEP, Replay

EXAMPLE = re.compile(r"^<!-- (file|run) ?(\S*) -->\n```\w*\n(.*?)^```$", re.MULTILINE | re.DOTALL)


def joined(who, port, *lines):
    return f"{who}(config)# interface gigabitEthernet 0/{port}\n" + "".join(
        f"{who}(config-if-ge0/{port})# {line}\n" for line in (*lines, "exit"))


DOCUMENTS = {  # and what is typed before
    "docs/clients.md": "; 6 ports\nleft> enable\nright> enable\nright# configure terminal\n" + "".join(
        joined("right", port, "channel-group 1 mode active", "lacp timeout short") for port in (1, 2, 3)),
    "docs/operating.md": "; 4 ports\nright> enable\nright# configure terminal\n"
    "left> enable\nleft# configure terminal\n" + joined("left", 3, "channel-group 2 mode on") + "".join(
        joined(who, port, f"channel-group 1 mode {mode}", "lacp timeout short")
        for port in (1, 2) for who, mode in (("left", "active"), ("right", "passive"))) +
    joined("left", 4, "channel-group 1 mode active") +
    "left(config)# channel-group 1 load-balance src-dst-mac\nleft(config)# lacp system-priority 4096\n",
}


def play(replay, text):
    steps = [*STEP.finditer(text)]
    for step, end in zip(steps, [*(step.start() for step in steps[1:]), len(text)]):
        wanted = text[step.start():end]
        eventually(step[0], lambda: replay.step(step, wanted[len(step[0]):]), lambda shown: shown == wanted, Ticks.FORM)


@pytest.mark.parametrize("name", DOCUMENTS)
def test_examples(pytestconfig, name):
    with Lab(Programs(pytestconfig.getoption("--build"))) as lab:
        replay = Replay(lab, DOCUMENTS[name])
        replay.environment |= {"LD_LIBRARY_PATH": replay.environment["LIB"],
                               "PKG_CONFIG_PATH": f"{replay.environment['LIB']}/pkgconfig"}
        play(replay, DOCUMENTS[name])
        for kind, file, text in EXAMPLE.findall((ROOT / name).read_text(encoding="utf-8")):
            if kind == "file":
                (replay.left.directory / file).write_text(text, encoding="utf-8")
            elif STEP.search(typed := re.sub("^# ", "$ ", text, flags=re.MULTILINE)):
                play(replay, typed)
            else:
                shown = replay.run(f"set -e\n{text}")
                assert not re.search(r"^\[\d+\]\n\Z", shown, re.MULTILINE), shown
