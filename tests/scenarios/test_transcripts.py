"""Transcripts: what is typed and what is answered, word for word. `pytest-3 --record` writes them anew.

    left(config)# line     typed at this prompt; "2 left# " in a second session; for a "?" at its end the help is shown, for
                           "<Tab>" what the line becomes; "~5 left# " is typed for up to five ticks, until the answer
                           is right
    $ words                the system's tools, in its namespace and folder; [1] is a status that is not 0
    ! words                Python, of lab and the systems
    ; words                a comment; the first tells how many ports the systems have; "left 8, right 3 ports" are not
                           cabled and not started"""

import contextlib
import os
import re
import subprocess
from pathlib import Path

import pytest

import helpers
from lab import Lab, LabError, Programs, Ticks, eventually, stays
from lab.programs import ROOT

STEP = re.compile(r"^(?:(?P<kind>[;$!]) |(?:~(?P<ticks>\d+) )?(?P<who>(?:2 )?(?P<name>left|right|other))\S*?[>#] )"
                  r"(?P<line>.*)\n", re.MULTILINE)


class Replay:
    def __init__(self, lab, text):
        ports, head = int(re.match(r"; .*?(\d+) ports", text)[1]), text.splitlines()[0].partition(".")[0]
        if apart := re.findall(r"(\w+) (\d+)[, ]", head):
            self.systems = {name: lab.system(name, int(count)) for name, count in apart}
        elif re.search("^right", text, re.MULTILINE):
            self.systems = dict(zip(("left", "right"), lab.pair(ports)))
        else:
            self.systems = {"left": lab.system("left", ports)}
            for port in range(1, ports + 1):
                lab.loose_cable(self.systems["left"], port)
            if ports:
                self.systems["left"].start()
        self.left, self.sessions = self.systems["left"], {}
        self.names = {**vars(helpers), "lab": lab, "Ticks": Ticks, "stays": stays, **self.systems}
        programs = lab.programs
        folders = *(path.parent for path in (programs.lacpd, programs.switch, programs.sysrepocfg)), ROOT / "scripts"
        self.environment = {**os.environ, **self.left.environment, "ROOT": str(ROOT),
                            "LIB": str(programs.prefix / "lib"),
                            "PATH": ":".join([*map(str, folders), os.environ["PATH"]])}

    def step(self, step, expected):
        """A step and its answer as they come out now."""
        answers = {";": lambda line: expected, "$": self.run, "!": self.evaluate}
        if step["kind"]:
            return step[0] + answers[step["kind"]](step["line"])
        seen = []
        with contextlib.suppress(LabError):
            eventually("", lambda: seen.append(self.type(step)) or seen[-1],
                       lambda text: not step["ticks"] or text == step[0] + expected, Ticks.of(int(step["ticks"] or 0)))
        return seen[-1]

    def type(self, step):
        shell = self.sessions.get(step["who"])
        if not shell:
            shell = self.sessions[step["who"]] = self.systems[step["name"]].shell(enable=False)
            shell.run("terminal length 0")
        head = step[0][:step.start("name") - step.start()] + f"{shell.prompt}{step['line']}\n"
        if step["line"].endswith("?"):
            return head + shell.help(step["line"][:-1])
        if step["line"].endswith("<Tab>"):
            return f"{head}{shell.complete(step['line'][:-5])}\n"
        return head + re.sub("^! .*\n", "", shell.run(step["line"]), flags=re.MULTILINE)  # with the lab's folder

    def evaluate(self, line):
        self.sessions = {} if "_daemon(" in line else self.sessions
        value = eval(line, self.names)
        return "" if value in (None, "") else f"{value}\n".replace("\r", "")

    def run(self, line):
        result = subprocess.run([*self.left.namespace.enter(), "bash", "-c", line], stdin=subprocess.DEVNULL, text=True,
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, cwd=self.left.directory, check=False,
                                env=self.environment, timeout=60)
        return result.stdout.replace("\r", "") + f"[{result.returncode}]\n" * (result.returncode != 0)


@pytest.mark.parametrize("path", sorted(Path(__file__).parent.glob("transcripts/*.txt")), ids=lambda path: path.stem)
def test_transcript(pytestconfig, path):
    text = path.read_text(encoding="utf-8")
    steps = [*STEP.finditer(text)]
    ends = [*(step.start() for step in steps[1:]), len(text)]
    with Lab(Programs(pytestconfig.getoption("--build"))) as lab:
        replay = Replay(lab, text)
        now = "".join(replay.step(step, text[step.end():end]) for step, end in zip(steps, ends))
        now = now.replace(str(lab.directory), "LAB")
    if pytestconfig.getoption("--record"):
        path.write_text(now, encoding="utf-8")
    else:
        assert now == text


# ---- The documents' examples, as transcripts. A block is one when a comment stands before it:
#
#    <!-- file NAME -->    what later examples use under that name, in the terminal's folder
#    <!-- run -->          what is typed, with "# " for the system's tools; answers may take some ticks. A block without
#                          any prompt is a script that has to end well.

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
