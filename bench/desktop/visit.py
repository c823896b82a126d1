"""Opens a large folder in one real file manager, with the plug-in or without, and prints what that cost as JSON.

Usage: visit.py --manager NAME --build DIR --plugin yes|no [--files N] [--visits N]
"""

import argparse
import json
import pathlib
import re
import shutil
import sys
import tempfile
import threading
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "tests/desktop"))

import accessible  # noqa: E402
import managers  # noqa: E402
import namespaces  # noqa: E402
import processes  # noqa: E402
from extension import Extension  # noqa: E402
from session import Session  # noqa: E402
from sync import Sync  # noqa: E402
from waiting import until  # noqa: E402

KNOWN = re.compile(r"the badges of (\d+) items are known, ([\d.]+) ms after")
TURN = re.compile(r"a turn of ([\d.]+) ms")
QUIET = 1.0  # seconds without work, after which a file manager has done what it does


class Heartbeat(threading.Thread):
    """Asks the file manager's main loop for an answer again and again, and keeps the longest that one took."""

    def __init__(self, session, process):
        super().__init__(daemon=True)
        self._bus = accessible.Bus(session.environment["DBUS_SESSION_BUS_ADDRESS"])
        self._application = self._bus.application(process)
        self._beating = True
        self.longest = 0.0
        self.start()

    def run(self):
        while self._beating:
            asked = time.monotonic()
            self._bus.call(self._application.owner, self._application.path, "org.a11y.atspi.Accessible", "GetState")
            self.longest = max(self.longest, time.monotonic() - asked)
            time.sleep(0.005)

    def stop(self):
        self._beating = False
        self.join()
        return round(self.longest * 1000)


def processor_time(process):
    with open(f"/proc/{process}/stat", encoding="utf-8", errors="replace") as file:
        fields = file.read().rpartition(")")[2].split()
    return int(fields[11]) + int(fields[12])


def wait_until_quiet(process, quiet=QUIET, most=120.0):
    """Until the process has used next to no processor time for a while."""
    end = time.monotonic() + most
    used, since = processor_time(process), time.monotonic()
    while time.monotonic() < end and time.monotonic() - since < quiet:
        time.sleep(0.1)
        now = processor_time(process)
        if now - used > 3:  # hundredths of a second; the heartbeat takes some of them
            used, since = now, time.monotonic()


def make_folders(root, files, visits):
    big = root / "big"
    big.mkdir(parents=True)
    for number in range(files):
        (big / f"file {number:05}.txt").touch()
    inner = root
    for visit in range(visits):
        inner = inner / f"next {visit}"
        inner.mkdir()
        (inner / "a.txt").touch()


def measure(arguments, folder):
    kind = managers.ALL[arguments.manager]
    with_plugin = arguments.plugin == "yes"
    if with_plugin and kind.plugins:
        files = managers.plugin_files(kind, arguments.build)
        namespaces.install(arguments.build, files, folder / "layer")
    session = Session(folder / "session", arguments.build)
    root = folder / "session/Kelvane"
    make_folders(root, arguments.files, arguments.visits)
    sync = Sync(session, root)
    sync.start()
    extension = Extension(session)
    manager = kind(session)
    environment = dict(session.environment, G_MESSAGES_DEBUG="vornet-vi")
    if not with_plugin and not kind.plugins:
        manager.plugin_folder = lambda build: "none"  # Dolphin's are found by way of its environment
    manager.start(root, environment)
    manager.wait_for_items({"big", "next 0"})
    if with_plugin and kind.has_badges:
        extension.wait_until_running()
    wait_until_quiet(manager.process.pid)

    result = {"manager": arguments.manager, "plugin": with_plugin}
    result["memory before"] = processes.resident_kib(manager.process.pid)
    manager.output.write_text("")
    heartbeat = Heartbeat(session, manager.process.pid)
    manager.enter("big")
    until("the large folder", lambda: "file 00000.txt" in manager.items())
    wait_until_quiet(manager.process.pid)
    result["longest stall"] = heartbeat.stop()
    traced = manager.output.read_text(errors="replace")
    known = KNOWN.findall(traced)
    result["items"] = max((int(items) for items, _ in known), default=0)
    result["known after"] = float(known[-1][1]) if known else None
    result["longest turn"] = max((float(turn) for turn in TURN.findall(traced)), default=0.0)
    result["memory with the folder"] = processes.resident_kib(manager.process.pid)

    manager.go_up()
    manager.wait_for_items({"big", "next 0"})
    wait_until_quiet(manager.process.pid)
    result["memory afterwards"] = processes.resident_kib(manager.process.pid)
    path = root
    for visit in range(arguments.visits - 1):
        manager.enter(f"next {visit}")
        path /= f"next {visit}"
        if with_plugin and kind.has_badges:
            until(f"visit {visit}", lambda path=path: str(path) in extension.observed())
        manager.wait_for_items({f"next {visit + 1}", "a.txt"})
        if not kind.has_badges:
            wait_until_quiet(manager.process.pid, quiet=0.3)  # rows may move while the view is being filled
    wait_until_quiet(manager.process.pid)
    result["memory after visits"] = processes.resident_kib(manager.process.pid)
    session.close()
    return result


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--manager", required=True, choices=managers.ALL)
    parser.add_argument("--build", required=True, type=lambda text: pathlib.Path(text).resolve())
    parser.add_argument("--plugin", required=True, choices=("yes", "no"))
    parser.add_argument("--files", type=int, default=10_000)
    parser.add_argument("--visits", type=int, default=50)
    arguments = parser.parse_args()
    namespaces.enter()
    namespaces.bring_up_loopback()
    processes.adopt_orphans()
    folder = pathlib.Path(tempfile.mkdtemp(prefix="vornet-bench-"))
    try:
        print(json.dumps(measure(arguments, folder)))
    finally:
        processes.end_all()
        shutil.rmtree(folder, ignore_errors=True)


if __name__ == "__main__":
    main()
