"""Where the programs under test are."""

import os
import re
import subprocess
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]


class Programs:
    def __init__(self, build_dir):
        self.build = Path(build_dir).resolve()
        try:
            cache = (self.build / "CMakeCache.txt").read_text(encoding="utf-8")
        except FileNotFoundError:
            raise FileNotFoundError(f"{self.build} is no build directory; build first") from None
        self.prefix = Path(re.search(r"^LACPD_DEPS_PREFIX:PATH=(.*)$", cache, re.MULTILINE)[1])
        sanitizer = re.search(r"^LACPD_SANITIZER:\w+=(.*)$", cache, re.MULTILINE)[1]
        if sanitizer == "thread":  # for tools and clients that know nothing of it
            self.prefix = Path(subprocess.run([ROOT / "scripts/deps.sh", "--prefix"], capture_output=True, text=True,
                                              check=True).stdout.strip())
        self.lacpd = self.build / "services/l2/lacpd/lacpd"
        self.last_word = self.build / "services/l2/lacpd/lacpd-last-word"
        self.switch = self.build / "switch/olt-switch"
        self.sysrepocfg = self.prefix / "bin/sysrepocfg"
        self.sysrepoctl = self.prefix / "bin/sysrepoctl"
        self.datastore_setup = ROOT / "scripts/datastore.sh"
        for program in vars(self).values():
            if not os.access(program, os.X_OK):
                raise FileNotFoundError(f"{program} is not there; build first")
        self.slowed = bool(sanitizer)
