"""Where the programs under test are."""

import os
import subprocess
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]


class Programs:
    def __init__(self, build_dir):
        build = Path(build_dir).resolve()
        prefix = subprocess.run([ROOT / "scripts/deps.sh", "--prefix"], check=True, capture_output=True,
                                text=True).stdout.strip()
        prefix = Path(os.environ.get("LACPD_DEPS_PREFIX", prefix))
        self.lacpd = build / "services/l2/lacpd/lacpd"
        self.switch = build / "switch/olt-switch"
        self.sysrepocfg = prefix / "bin/sysrepocfg"
        self.sysrepoctl = prefix / "bin/sysrepoctl"
        self.datastore_setup = ROOT / "scripts/datastore.sh"
        for program in vars(self).values():
            if not os.access(program, os.X_OK):
                raise FileNotFoundError(f"{program} is not there; build first")
