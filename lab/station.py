"""What stands on the bench: ports and programs in a network namespace, files in a directory."""

import re
import shutil

from lab.netns import Namespace
from lab.process import Process, tail

START_TIME = 20.0
SANITIZER_REPORT = re.compile(r"^.*(ERROR: (Address|Leak)Sanitizer|WARNING: ThreadSanitizer|runtime error:)",
                              re.MULTILINE)
SANITIZER_REPORT_SIZE = 6000


class Station:
    def __init__(self, name, directory, namespace_name):
        self.name = name
        self.directory = directory
        self.namespace = None
        self._namespace_name = namespace_name

    def make_namespace(self):
        self.namespace = Namespace(self._namespace_name)

    @staticmethod
    def port_interface(port):
        return f"ge{port}"

    def set_link(self, port, up):
        """Takes down or up the port's interface; a link with an end down has no carrier on either."""
        self.namespace.ip("link", "set", self.port_interface(port), "up" if up else "down")

    def remove(self):
        """Removes what was made."""
        if self.namespace:
            self.namespace.remove()
        shutil.rmtree(self.directory, ignore_errors=True)

    def _run(self, name, command, environment):
        return Process(f"{name} of {self.name}", [*self.namespace.enter(), *command], environment,
                       self.directory / f"{name}.out")

    @staticmethod
    def _await(process, what, read, accept):
        process.await_that(what, read, accept, START_TIME)

    def sanitizer_reports(self):
        """What programs that were built with a sanitizer have found."""
        texts = {path.name: path.read_text(encoding="utf-8", errors="replace")
                 for path in sorted(self.directory.glob("*.out"))}
        return "\n".join(f"---- {self.name}: {name}\n{text[found.start():][:SANITIZER_REPORT_SIZE]}"
                         for name, text in texts.items() if (found := SANITIZER_REPORT.search(text)))

    def logs(self):
        """Tails of everything that was written, for a failure."""
        return "\n".join(f"---- {self.name}: {path.name}\n{text.rstrip()}" for path in sorted(
            [*self.directory.glob("*.out"), *self.directory.glob("*/*.log")]) if (text := tail(path)))
