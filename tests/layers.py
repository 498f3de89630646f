#!/usr/bin/env python3
"""Includes of the daemon go down: a file includes headers of its own layer or of one below, and no two each other. What
is given is the folder of the framework's headers, which platform/frr alone includes."""

import graphlib
import pathlib
import re
import sys

LAYERS = [  # from the ground up
    "lac_word lacp",
    "lac_memory lacp_privileges lac_store lacp_sclient lac_port lac_timer lac_wire lac_task lac_resume_file lacp_packet channel_group",
    "lac_member channel_group_member channel_group_plan",
    "lac_tx lac_mux lac_rx lac_select",
    "lac_event lac_pdu lac_tick lac_resume lac_dispatch",
    "lac_show channel_group_show lacp_operational lacp_database_cb lacp_database",
    "lacp_cli_show lacp_cli_debug lacp_cli_database lacp_cli",
    "lacp_main lacp_last_word",
]
FLOOR = {name: number for number, names in enumerate(LAYERS) for name in names.split()}
ROOT = pathlib.Path(__file__).resolve().parents[1]
FOLDER = ROOT / "services/l2/lacpd"
FRAMEWORK = pathlib.Path(sys.argv[1])


def main():
    includes, wrong = {}, []
    for path in [*FOLDER.glob("*.cpp"), *FOLDER.glob("*.h")]:
        names = set(re.findall(r'^#include "(\w+)\.h"', path.read_text(encoding="utf-8"), re.MULTILINE)) - {path.stem}
        includes.setdefault(path.stem, set()).update(names)
    wrong += [f"{name} has no layer" for name in includes if name not in FLOOR]
    wrong += [f"{name} includes {other}, which is above it" for name, others in includes.items() for other in others
              if FLOOR.get(other, 0) > FLOOR.get(name, 0)]
    wrong += [f"{path.relative_to(ROOT)} includes the framework's {name}"
              for path in ROOT.glob("[p-t]*/**/*.[ch]*") if path.parent.name != "frr"
              for name in re.findall(r"^#include <([\w/]+\.h)>", path.read_text(encoding="utf-8"), re.MULTILINE)
              if (FRAMEWORK / name).exists()]
    wrong += [] if (FRAMEWORK / "command.h").exists() else [f"{FRAMEWORK} has no headers of the framework"]
    try:
        graphlib.TopologicalSorter(includes).prepare()
    except graphlib.CycleError as error:
        wrong.append("a circle: " + " -> ".join(error.args[1]))
    print("\n".join(wrong) or f"{len(includes)} rooms on {len(LAYERS)} layers, no include goes up")
    return bool(wrong)


sys.exit(main())
