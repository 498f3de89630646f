"""Where the programs under test are."""

import os
import re
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]


def _libraries_of(build):
    """The prefix of the libraries that the build has used."""
    try:
        cache = (build / "CMakeCache.txt").read_text(encoding="utf-8")
    except FileNotFoundError:
        raise FileNotFoundError(f"{build} is no build directory; build first") from None
    return Path(re.search(r"^LACPD_DEPS_PREFIX:PATH=(.*)$", cache, re.MULTILINE)[1])


class Programs:
    def __init__(self, build_dir):
        build = Path(build_dir).resolve()
        prefix = _libraries_of(build)
        self.lacpd = build / "services/l2/lacpd/lacpd"
        self.switch = build / "switch/olt-switch"
        self.sysrepocfg = prefix / "bin/sysrepocfg"
        self.sysrepoctl = prefix / "bin/sysrepoctl"
        self.datastore_setup = ROOT / "scripts/datastore.sh"
        for program in vars(self).values():
            if not os.access(program, os.X_OK):
                raise FileNotFoundError(f"{program} is not there; build first")
