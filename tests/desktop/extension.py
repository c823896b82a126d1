"""The extension process, which the message bus starts on demand."""

import os
import re
import signal

from gi.repository import Gio, GLib

import processes
from accessible import connect
from waiting import until, until_equal

NAME = "com.vornet.KelvaneSync.FinderBadgeExtension"
_BUS = ("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus")


class Extension:
    """Looks at the extension of `session` from outside, by its own connection to the bus, and never starts it."""

    def __init__(self, session):
        self._connection = connect(session.environment["DBUS_SESSION_BUS_ADDRESS"])
        self._log = session.data / "group-containers/com.vornet.KelvaneSync/log/vi.log"

    def _ask_bus(self, method, arguments=None):
        return self._connection.call_sync(*_BUS, method, arguments, None, Gio.DBusCallFlags.NONE, 10_000, None).unpack()

    def process(self):
        """Its process id; none while it is not running."""
        try:
            return self._ask_bus("GetConnectionUnixProcessID", GLib.Variant("(s)", (NAME,)))[0]
        except GLib.Error:
            return None

    def can_be_started(self):
        return NAME in self._ask_bus("ListActivatableNames")[0]

    def wait_until_running(self, other_than=None):
        return until("the extension", lambda: (found := self.process()) and found != other_than and found)

    def kill(self):
        """Kills it without warning; returns the id that it had."""
        process = self.process()
        os.kill(process, signal.SIGKILL)
        until("the end of the extension", lambda: self.process() != process)
        return process

    def freeze(self):
        os.kill(self.process(), signal.SIGSTOP)

    def thaw(self):
        os.kill(self.process(), signal.SIGCONT)

    def log(self):
        return self._log.read_text(errors="replace") if self._log.exists() else ""

    def clients(self):
        """All names on the bus."""
        return self._ask_bus("ListNames")[0]

    def observed(self):
        """The folders on screen, as its log has it: each window that shows a folder enters it, the last one leaves it."""
        events = {path.rstrip("/"): event for event, path in re.findall(r"Directory (enter|exit): (.*)", self.log())}
        return {path for path, event in events.items() if event == "enter"}

    def entered(self):
        return [path.rstrip("/") for path in re.findall(r"Directory enter: (.*)", self.log())]

    def wait_for_observed(self, *folders):
        until_equal("the folders observed", {str(folder) for folder in folders}, self.observed)

    def resident_kib(self):
        return processes.resident_kib(self.process())
