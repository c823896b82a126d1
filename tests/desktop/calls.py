"""Every call that a plug-in makes of the extension, as it passes over the message bus."""

import collections
import re

import processes
from waiting import until

RULE = "type='method_call',interface='com.vornet.FinderSync1'"
_CALL = re.compile(r"^method call time=\S+ sender=(\S+) .*member=(\w+)\n(?:   string \"(.*)\"\n)?", re.M)


class Calls:
    def __init__(self, session):
        self._output = session.folder / "calls.log"
        self._errors = session.output
        with open(self._output, "wb") as output:
            command = ["dbus-monitor", "--session", RULE]
            self._process = processes.start(command, session.environment, session.output, stdout=output)
        # It has become a monitor once it reports the loss of its name.
        until("the monitor of the bus", lambda: "NameLost" in self._text() or "NameAcquired" in self._text())

    def _text(self):
        return self._output.read_text(errors="replace")

    def all(self):
        """(who called, method, first argument where that is a text), in order."""
        return _CALL.findall(self._text())

    def count(self, method=None):
        return sum(method in (None, called) for _, called, _ in self.all())

    def observations(self, callers):
        """URL of the folder -> how many observations of it `callers` (names on the bus) have begun and not ended."""
        counts = collections.Counter()
        for caller, method, url in self.all():
            if caller in callers and method in ("BeginObserving", "EndObserving"):
                counts[url.rstrip("/")] += 1 if method == "BeginObserving" else -1
        return {url: count for url, count in counts.items() if count}

    def close(self):
        processes.end(self._process)
