"""The place where one attack happens: a home, a synced folder, a private message bus, a sync application, the extension."""

import contextlib
import os
import pathlib
import plistlib
import shutil
import signal
import sqlite3
import subprocess
import threading
import time

import processes
import wire
from helpers import SyncApplication
from waiting import until

CONTAINER = "group-containers/com.vornet.KelvaneSync"
SERVICE = "com.vornet.KelvaneSync.FinderBadgeExtension.service"
FOLDERS = 60  # beside those of the rows
MIB = 1 << 20


def url(path):
    return pathlib.Path(path).as_uri()


class Room:
    """`folder`: an empty one. `sync`: whether the sync application listens from the beginning."""

    def __init__(self, folder, build, sync=True, configured=True):
        self.folder, self.build = pathlib.Path(folder), pathlib.Path(build)
        self.root, self.data = self.folder / "Kelvane", self.folder / "home/.local/share"
        self.container, self.program = self.data / CONTAINER, self.build / "libexec/VornetVIExt"
        self.output = self.folder / "output.log"
        self._open = contextlib.ExitStack()
        for path in (self.root / "honest", self.root / "fill", self.root / "cold", self.container, self.folder / "runtime"):
            path.mkdir(parents=True)
        (self.folder / "runtime").chmod(0o700)
        for number in range(FOLDERS):
            (self.root / f"f{number:02}").mkdir()
        (self.root / "honest/item.txt").write_text("text\n")
        self.write_database({"/honest/item.txt": 2, "/cold/item.txt": 2} | {f"/cold/e{n:05}": 2 for n in range(10_000)})
        if configured:
            self.write_preferences(self.root)
        self.environment = {name: os.environ[name] for name in ("PATH", "TMPDIR") if name in os.environ}
        self.environment.update(HOME=str(self.folder / "home"), XDG_DATA_HOME=str(self.data),
                                XDG_RUNTIME_DIR=str(self.folder / "runtime"), LC_ALL="C.UTF-8",
                                PYTHONPATH=str(pathlib.Path(__file__).parent))
        try:
            self.bus = self._start_bus()
            self.client = wire.Connection(self.address)
            self.sync = self.keep(SyncApplication(self, listen=sync))
        except BaseException:
            self.close()
            raise

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        self._open.close()
        for process in {self.extension_process()} - {None}:
            os.kill(process, signal.SIGKILL)
        if hasattr(self, "bus"):
            processes.end(self.bus)

    def keep(self, helper):
        """Ends the helper with the room."""
        self._open.callback(helper.end)
        return helper

    def _start_bus(self):
        services = self.data / "dbus-1/services"
        services.mkdir(parents=True)
        shutil.copy(self.build / "share/dbus-1/services" / SERVICE, services)
        reading, writing = os.pipe()
        command = ["dbus-daemon", "--session", "--nofork", "--nopidfile", f"--print-address={writing}"]
        bus = processes.start(command, self.environment, self.output, pass_fds=[writing])
        os.close(writing)
        with os.fdopen(reading, encoding="ascii") as file:
            self.address = file.readline().strip()
        if not self.address:
            raise RuntimeError(f"the message bus could not be started: {self.output.read_text(errors='replace')}")
        self.environment["DBUS_SESSION_BUS_ADDRESS"] = self.address
        return bus

    # --- Its files ----------------------------------------------------------------------------------------------------

    def url(self, name=""):
        """The URL of an item of the synced folder; "" is the folder itself."""
        return url(self.root / name)

    def write_database(self, statuses, path=None):
        """Replaces `sync.db` by a new one."""
        new = self.container / "sync.db.new"
        new.unlink(missing_ok=True)
        with contextlib.closing(sqlite3.connect(new)) as database:
            database.execute("CREATE TABLE ea (path TEXT, status INTEGER)")
            database.executemany("INSERT INTO ea VALUES (?, ?)", statuses.items())
            database.execute("CREATE INDEX ea_path ON ea (path)")
            database.commit()
        os.replace(new, path or self.container / "sync.db")

    def write_preferences(self, root):
        self.write_preferences_bytes(plistlib.dumps({"root_dir": str(root)}))

    def write_preferences_bytes(self, content):
        new = self.container / "VornetKelvane.plist.new"
        new.write_bytes(content)
        os.replace(new, self.container / "VornetKelvane.plist")

    @property
    def log(self):
        return self.container / "log/vi.log"

    def log_text(self):
        return self.log.read_text(errors="replace") if self.log.exists() else ""

    # --- The extension ------------------------------------------------------------------------------------------------

    def extension_process(self):
        try:
            return self.client.process() if hasattr(self, "client") else None
        except OSError:
            return None

    def start_extension(self, wrapper=(), **options):
        """Starts it directly, by way of the command `wrapper`, and waits until it serves. Its Popen."""
        command = [*wrapper, self.program]
        process = processes.start(command, self.environment, self.output, **options)
        self._open.callback(processes.end, process, signal.SIGKILL)
        until("the extension on the bus", lambda: self.extension_process() or process.poll() is not None)
        if process.poll() is not None:
            raise RuntimeError(f"the extension ended with status {process.returncode}: {self.last_words()}")
        return process

    def start_echo(self):
        """Starts the service that does nothing, under the extension's name."""
        process = processes.start([self.build / "tests/vornet-echo", wire.NAME], self.environment, self.output)
        self._open.callback(processes.end, process, signal.SIGKILL)
        until("the bare service on the bus", self.extension_process)
        return process

    def last_words(self):
        lines = self.output.read_text(errors="replace").strip().splitlines() if self.output.exists() else []
        return lines[-1] if lines else "it said nothing"

    def badge(self, name, start=False):
        """The badge of an item now; an error's name for an error; none without an answer."""
        reply = self.client.ask(wire.badges(wire.NAME, [self.url(name)], start))
        if reply is None or reply.kind == wire.ERROR:
            return reply and reply.error
        return reply.arguments()[0][0]

    def wait_for_badge(self, name, badge, timeout=30.0):
        """Waits until the item has the badge; the seconds that it took."""
        begun = time.monotonic()
        until(f"the badge {badge} of {name}", lambda: self.badge(name) == badge, timeout)
        return time.monotonic() - begun

    def urls(self, folder, count):
        """The URLs of the first items that `fill` makes, or that the database has of "cold"."""
        return [self.url(f"{folder}/e{number:05}") for number in range(count)]

    def observe_new(self, name):
        """A folder that is new on screen has all folders polled at once."""
        (self.root / name).mkdir()
        self.observe(name)

    def observe(self, name, client=None):
        return (client or self.client).ask(wire.observe(wire.NAME, self.url(name)))

    def fill(self, name, count, client=None):
        """Has the folder observed, with so many items whose badges only the sync application knows. Waits for them."""
        self.sync.tell(folders={f"/{name}/": {"prefix": "e", "count": count, "code": 1}})
        self.observe(name, client)
        self.wait_for_badge(f"{name}/e{count - 1:05}", "PENDING")

    def force_pass(self):
        """Has every folder on screen polled now, and waits until it was."""
        self._passes = getattr(self, "_passes", 0) + 1
        name = f"pass{self._passes}"
        self.sync.tell(items={f"/{name}/": {f"/{name}/x": 1}})
        self.observe_new(name)
        self.wait_for_badge(f"{name}/x", "PENDING")


def _status(process):
    try:
        with open(f"/proc/{process}/status", encoding="utf-8") as file:
            return dict(line.split(":", 1) for line in file if ":" in line)
    except OSError:
        return {}


def resident(process):
    """Resident memory in MiB; none when there is no such process."""
    value = _status(process).get("VmRSS")
    return value and int(value.split()[0]) / 1024


def _available():
    """MiB that the machine has left."""
    with open("/proc/meminfo", encoding="ascii") as file:
        return int(dict(line.split(":") for line in file)["MemAvailable"].split()[0]) / 1024


class Memory:
    """Watches a process's memory; kills it beyond 3 GiB or half of what is left, before the machine suffers."""

    def __init__(self, process):
        self._process, self._most = process, min(3072, _available() / 2)
        self.before, self.peak, self.after, self.killed = resident(process), 0.0, None, False
        self._ended = threading.Event()
        self._thread = threading.Thread(target=self._watch, daemon=True)
        self._thread.start()

    def _watch(self):
        while not self._ended.wait(0.02):
            status = _status(self._process)
            if "VmHWM" not in status:
                return
            self.peak = max(self.peak, int(status["VmHWM"].split()[0]) / 1024)
            if int(status["VmRSS"].split()[0]) / 1024 > self._most:
                self.killed = True
                os.kill(self._process, signal.SIGKILL)
                return

    def settle(self, seconds=2.0):
        """Gives the process some time to return memory, then measures a last time."""
        end = time.monotonic() + seconds
        while time.monotonic() < end and (now := resident(self._process)) and now > self.before * 1.1:
            time.sleep(0.05)
        self.after = resident(self._process)
        self._ended.set()
        self._thread.join()
        return self


def run_vornet_vi(room, *arguments, timeout=20):
    """Standard output and errors of the program for the terminal."""
    done = subprocess.run([room.build / "bin/vornet-vi", *arguments], env=room.environment, stdin=subprocess.DEVNULL,
                          capture_output=True, text=True, timeout=timeout, check=False)
    return done.stdout + done.stderr
