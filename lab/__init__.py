"""Complete terminals on one machine: each in a network namespace of its own, with a private datastore.

    with Lab(Programs("build")) as lab:
        left, right = lab.pair(ports=2)
        left.configure(*left.enter(1, "channel-group 1 mode active"))

Needs root and nothing but Python's standard library. Whatever was started, made or mounted is gone when the lab ends.
`python3 -m lab BUILD-DIRECTORY` gives two terminals to log in to.
"""

from lab.datastore import Datastore
from lab.lab import Lab
from lab.programs import Programs
from lab.shell import Shell, ShellError
from lab.system import System
from lab.ticks import Ticks
from lab.traffic import Flow
from lab.waiting import LabError, eventually, stays
from lab.wire import Capture, Lacpdu

__all__ = ["Capture", "Datastore", "Flow", "Lab", "LabError", "Lacpdu", "Programs", "Shell", "ShellError", "System",
           "Ticks", "eventually", "stays"]
