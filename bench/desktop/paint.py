"""Measures when one real file manager has drawn a large folder and its emblems, and prints the figures of each run as JSON.

Usage: paint.py --manager NAME --build DIR [--files N] [--repetitions N] [--pictures DIR]
"""

import collections
import json
import pathlib
import re
import shutil
import signal
import sys
import threading
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "tests/desktop"))

from gi.repository import GLib  # noqa: E402

import accessible  # noqa: E402
import managers  # noqa: E402
import namespaces  # noqa: E402
import processes  # noqa: E402
import program  # noqa: E402
from extension import NAME, Extension  # noqa: E402
from screen import Screen  # noqa: E402
from session import COLOURS, Session  # noqa: E402
from sync import Sync  # noqa: E402
from waiting import until  # noqa: E402

MODES = ("without", "constant", "filled", "unfilled")  # the last two: ours, where the sync application has answered or not
OBJECT, INTERFACE = "/com/vornet/FinderSync1", "com.vornet.FinderSync1"
INTERVAL = 1 / 30  # seconds between two looks at the screen
QUIET = 1.5  # seconds without work, after which a file manager has done what it does
RESTING = 0.1  # seconds of processor time that this work may take: the heartbeat's share, on a slow machine too
MOST = 60.0  # seconds that a run may take
BEAT = 0.01  # seconds between two questions to its main loop
CONTENT = (640, 300, 355, 375)  # of the screen: x, y, width, height; all file managers show a dozen files there
STRIP = 64  # bytes that are compared at a time
CHANGED = 0.002  # of the pixels: less is no change of the files drawn
TURN = re.compile(r"a turn of ([\d.]+) ms, ([\d.]+) of them at work")
ASKED = re.compile(r"asked for (\S+)")


def processor_time(process):
    """In seconds."""
    try:
        return time.clock_gettime((~process << 3) | 2)  # as clock_getcpuclockid(3)
    except OSError:
        return 0.0


def is_ready(process):
    """Whether its first thread runs, or would if it had a processor."""
    return processes.state(process) == "R"


def wait_until_quiet(process, quiet=QUIET):
    """Until the process has used next to no processor time for a while."""
    end = time.monotonic() + MOST
    used, resting = processor_time(process), time.monotonic()
    while time.monotonic() < end and time.monotonic() - resting < quiet:
        time.sleep(0.1)
        if processor_time(process) - used > RESTING or is_ready(process):
            used, resting = processor_time(process), time.monotonic()


def longest_turn(text):
    """Of our plug-in, by its traces in a file manager's output, in milliseconds: elapsed, and of processor time."""
    turns = [(float(elapsed), float(work)) for elapsed, work in TURN.findall(text)]
    return {"turn": max((elapsed for elapsed, _ in turns), default=0.0), "worked": max((work for _, work in turns), default=0.0)}


class Heartbeat(threading.Thread):
    """Asks a main loop for an answer again and again, and keeps the longest that one took."""

    def __init__(self, bus, process):
        super().__init__(daemon=True)
        self._bus, self._process = bus, process
        self._beating = True
        self.longest = 0.0
        self.start()

    def run(self):
        application = None
        while self._beating and not application:
            time.sleep(BEAT)
            application = self._bus.application(self._process)
        while self._beating:
            asked = time.monotonic()
            try:
                self._bus.call(application.owner, application.path, "org.a11y.atspi.Accessible", "GetState")
            except GLib.Error:
                return
            self.longest = max(self.longest, time.monotonic() - asked)
            time.sleep(BEAT)

    def stop(self):
        self._beating = False
        self.join()
        return self.longest


class Picture(Screen):
    """What a screen showed at one moment in `rectangle`."""

    def __init__(self, screen, rectangle):
        self.width, self.height = rectangle[2:]
        self.bytes = screen.pixels(rectangle)

    def _rows(self, rectangle):
        x, y, width, height = rectangle or (0, 0, self.width, self.height)
        for row in range(max(0, y), min(self.height, y + height)):
            yield self.bytes[(row * self.width + max(0, x)) * 4 : (row * self.width + min(self.width, x + width)) * 4]

    def without(self, boxes):
        """Its pixels, black in `boxes`."""
        pixels = bytearray(self.bytes)
        for x, y, width, height in boxes:
            left, right = max(0, x), min(self.width, x + width)
            for row in range(max(0, y), min(self.height, y + height)):
                start = (row * self.width + left) * 4
                pixels[start : start + (right - left) * 4] = bytes((right - left) * 4)
        return bytes(pixels)


def is_same(one, other):
    """Whether two pictures differ by next to nothing: a caret, a smoothed edge."""
    if one == other:
        return True
    differing = sum(one[i : i + STRIP] != other[i : i + STRIP] for i in range(0, len(one), STRIP))
    return differing * STRIP < CHANGED * len(one)


def since(film, holds):
    """The time of the first picture from which on `holds(picture)` for all."""
    found = None
    for moment, picture in reversed(film):
        if not holds(picture):
            break
        found = moment
    return found


def read(film):
    """When the files were as they stayed, emblems apart, and the badges too; how long badges were gone that had been there."""
    colour = COLOURS["SYNCED"]
    last = film[-1][1]
    emblems = [box for box in last.places(colour) if box[2] * box[3] >= managers.FEWEST_PIXELS]
    edges = [(x - 2, y - 2, width + 4, height + 4) for x, y, width, height in emblems]
    drawn = last.without(edges)
    figures = {"files": since(film, lambda picture: is_same(picture.without(edges), drawn)), "emblems": len(emblems)}
    counts = [picture.count(colour) for _, picture in film]
    if emblems:
        # Emblems that cover each other's edges may have a few pixels more on the way.
        complete = [count >= counts[-1] - managers.FEWEST_PIXELS for count in counts]
        figures["badges"] = next(film[i][0] for i in range(len(film)) if all(complete[i:]))
        most, gone = 0, 0.0
        for i in range(len(film) - 1):
            most = max(most, counts[i])
            if counts[i] < most - managers.FEWEST_PIXELS:
                gone += film[i + 1][0] - film[i][0]
        figures["gone"] = gone
    return figures


class Bench:
    """One session for all runs of one file manager, in which only its plug-in changes."""

    def __init__(self, arguments, folder):
        self.kind = managers.ALL[arguments.manager]
        self.build = arguments.build
        self.pictures = arguments.pictures
        self.plugins = folder / "plugins"
        self.constant = self.build / f"bench/constant/libvornet-constant-{arguments.manager}.so"
        self._lay_over_usr(folder / "layer")
        self.session = Session(folder / "session", self.build)
        root = folder / "session/Kelvane"
        self.folder = root / "big"
        self.folder.mkdir(parents=True)
        for number in range(arguments.files):
            (self.folder / f"file {number:05}.txt").touch()
        self.sync = Sync(self.session, root)
        self.sync.start()
        self.extension = Extension(self.session)
        address = self.session.environment["DBUS_SESSION_BUS_ADDRESS"]
        self.bus, self.accessibility = accessible.connect(address), accessible.Bus(address)
        self.session.display.move_pointer(1, 1)
        self.background = self.session.screen.pixels()

    def _files(self, ours, constant):
        """What the file manager is to find among its plug-ins: path relative to /usr, or for Dolphin to the folder that its
        environment names -> file."""
        found = {}
        for file in managers.plugin_files(self.kind, self.build):
            if ours:
                found[file] = self.build / file
            if constant:
                other = file.with_name(file.name.replace("vornet-", "vornet-constant-"))
                found[other] = self.constant if file.suffix == ".so" else self.build / file
        if not self.kind.plugins:
            folder = self.build / self.kind.plugin_folder(self.build)
            overlays = next(folder.glob("kf*/overlayicon")).relative_to(folder)
            if ours:
                found |= {file.relative_to(folder): file for file in folder.glob("kf*/*/*.so")}
            if constant:
                found[overlays / "constant.so"] = self.constant
        return found

    def _lay_over_usr(self, layer):
        """In place of plug-ins, links to what a run puts there."""
        layer.mkdir()
        for file in self._files(ours=True, constant=True) if self.kind.plugins else ():
            (layer / file).parent.mkdir(parents=True, exist_ok=True)
            (layer / file).symlink_to(self.plugins / file)
        namespaces.install(self.build, [], layer)

    def _place_plugins(self, ours, constant):
        shutil.rmtree(self.plugins, ignore_errors=True)
        for place, file in self._files(ours, constant).items():
            (self.plugins / place).parent.mkdir(parents=True, exist_ok=True)
            (self.plugins / place).symlink_to(file)

    def _ask_extension(self, interface, method, arguments):
        return self.bus.call_sync(NAME, OBJECT, interface, method, arguments, None, 0, 30_000, None).unpack()[:1]

    def _silent_since(self):
        arguments = GLib.Variant("(ss)", (INTERFACE, "SyncApplicationSilentSince"))
        return self._ask_extension("org.freedesktop.DBus.Properties", "Get", arguments)[0]

    def _prepare_extension(self, mode):
        """Its process; none in modes without ours. Where the folder is to be filled, this program observes it too."""
        if self.extension.process():
            self.extension.kill()
        if mode not in ("filled", "unfilled"):
            return None
        if mode == "unfilled":
            self.sync.freeze()
        self._silent_since()
        if mode == "filled":
            self._ask_extension(INTERFACE, "BeginObserving", GLib.Variant("(s)", (self.folder.as_uri(),)))
            until("an answer of the sync application", lambda: self._silent_since() == 0)
        process = self.extension.process()
        wait_until_quiet(process)
        return process

    def run(self, mode, spying):
        """Opens the folder once, as the first window of a new process. With `spying`, its times mean nothing."""
        extension = self._prepare_extension(mode)
        self._place_plugins(ours=extension is not None, constant=spying or mode == "constant")
        environment = dict(self.session.environment, G_MESSAGES_DEBUG="vornet-vi")
        if not self.kind.plugins:
            environment["QT_PLUGIN_PATH"] = str(self.plugins)
        if spying:
            environment["VORNET_BENCH_SPY"] = "1"
        output = self.session.folder / "run.log"
        output.unlink(missing_ok=True)
        used_before = processor_time(extension) if extension else 0.0
        started = time.monotonic()
        manager = processes.start([*self.kind.command, self.folder], environment, output)
        heartbeat = Heartbeat(self.accessibility, manager.pid)
        film, used = self._film(manager.pid, started)
        figures = {"mode": mode, "spied": spying, "cpu": used, "stall": heartbeat.stop()}
        if extension:
            figures["extension"] = processor_time(extension) - used_before
        processes.end(manager, signal.SIGKILL)
        if mode == "unfilled":
            self.sync.thaw()
        figures |= read(film)
        if not figures["emblems"] and (extension or mode == "constant" and not spying):
            raise RuntimeError(f"{self.kind.program}, {mode}: no emblem was drawn")
        if self.pictures:
            save(film, figures, self.pictures / f"{self.kind.program}-{mode}-{int(started)}")
        text = output.read_text(errors="replace")
        asked = collections.Counter(ASKED.findall(text))
        figures["items"] = len(asked)
        figures["again"] = asked.total() - len(asked)
        figures |= longest_turn(text)
        until("an empty screen", lambda: self.session.screen.pixels() == self.background)
        return figures

    def _film(self, process, started):
        """Pictures of the window's files until nothing has changed any more and the process has rested for a while, and
        the processor time it took."""
        film = [(0.0, Picture(self.session.screen, CONTENT))]
        used, resting = 0.0, started
        while time.monotonic() - started < MOST:
            now = time.monotonic()
            picture = Picture(self.session.screen, CONTENT)
            if picture.bytes != film[-1][1].bytes:
                film.append((now - started, picture))
                resting = now
            if processor_time(process) - used > RESTING or is_ready(process):
                used, resting = processor_time(process), now
            if len(film) > 1 and now - resting > QUIET:
                break
            time.sleep(max(0.0, now + INTERVAL - time.monotonic()))
        return film, used


def save(film, figures, folder):
    """Each picture, to be looked at, named by its time and by what was first complete in it."""
    folder.mkdir(parents=True)
    for moment, picture in film:
        found = [name for name in ("files", "badges") if figures.get(name) == moment]
        picture.save(folder / f"{' '.join([f'{moment:06.2f}', *found])}.png")


def main():
    parser = program.parser(__doc__)
    parser.add_argument("--files", type=int, default=10_000)
    parser.add_argument("--repetitions", type=int, default=5)
    parser.add_argument("--pictures", type=program.path)
    arguments = parser.parse_args()
    with program.own_machine() as folder:
        bench = Bench(arguments, folder)
        for repetition in range(arguments.repetitions + 1):
            for mode in MODES:
                print(json.dumps(bench.run(mode, spying=repetition == 0)), flush=True)
        bench.session.close()


if __name__ == "__main__":
    main()
