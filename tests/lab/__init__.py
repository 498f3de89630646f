"""Complete systems on one machine: each in a network namespace of its own, with a private datastore.

    with Lab(programs) as lab:
        left, right = lab.system("left", ports=2), lab.system("right", ports=2)
        lab.cable(left, 1, right, 1)
        left.start(), right.start()
        left.configure("interface gigabitEthernet 0/1", "channel-group 1 mode active")

Needs root and nothing but Python's standard library. Whatever was started, made or mounted is gone when the lab ends.
"""

from lab.datastore import Datastore
from lab.lab import Lab
from lab.programs import Programs
from lab.shell import Shell, ShellError
from lab.system import System
from lab.ticks import Ticks
from lab.traffic import Flow, transfer
from lab.waiting import LabError, eventually, stays
from lab.wire import Capture, Lacpdu

__all__ = ["Capture", "Datastore", "Flow", "Lab", "LabError", "Lacpdu", "Programs", "Shell", "ShellError", "System",
           "Ticks", "eventually", "stays", "transfer"]
