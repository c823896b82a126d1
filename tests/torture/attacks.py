"""What the attacks share: how one becomes a row of the table."""

import contextlib
import dataclasses
import pathlib
import shutil
import signal
import tempfile
import time
import traceback

import processes
from room import Memory, Room
from table import IMPOSSIBLE, NOT_RUN, Row
from waiting import NotSeen

ATTACKS = []
ENDING = 3.5  # seconds within which the extension ends when it is asked to
CHANGE = 15.0  # seconds within which a change is seen: two passes and some for a loaded machine
PATIENCE = 10_000  # milliseconds that a plug-in may wait for a menu (docs/dbus.md)
BADGE = 100.0  # milliseconds: the 99th percentile of the honest client's badges


class Impossible(Exception):
    """This machine does not let the attack run; the reason is no fault of the program."""


def attack(name, target):
    """Makes of `function(torture, row)` a row of the table. It fills the row and adds the targets that were missed."""

    def register(function):
        ATTACKS.append((name, target, function))
        return function

    return register


@dataclasses.dataclass
class Torture:
    """The run, as its attacks need to know it."""

    build: pathlib.Path
    folder: pathlib.Path
    short: bool
    verbose: bool = False

    @property
    def window(self):
        """Seconds that the honest client measures."""
        return 3.0 if self.short else 15.0

    def some(self, many, few):
        return few if self.short else many

    def room(self, **options):
        return Room(tempfile.mkdtemp(prefix="room", dir=self.folder), self.build, **options)

    @staticmethod
    def _too_long(*_):
        raise NotSeen("the end of the attack: it took too long")

    def run(self, name, target, function):
        row = Row(name, target)
        begun = time.monotonic()
        signal.signal(signal.SIGALRM, self._too_long)
        signal.alarm(self.some(300, 90))
        try:
            function(self, row)
        except Impossible as why:
            row.result = IMPOSSIBLE
            row.notes.append(f"not run: {why}")
            return row
        except NotSeen as fault:
            row.missed.append(str(fault))
        except Exception as error:  # whatever it is, the other attacks go on
            if self.verbose:
                traceback.print_exc()
            row.result = NOT_RUN
            row.notes.append(f"not run: {type(error).__name__}: {error}")
            return row
        finally:
            signal.alarm(0)
            processes.end_all()
            for folder in self.folder.iterdir():
                shutil.rmtree(folder, ignore_errors=True)
        if self.verbose:
            row.notes.append(f"{time.monotonic() - begun:.1f} s")
        return row.judge()


@contextlib.contextmanager
def watched(row, process, most=None):
    """Watches the memory of a process meanwhile; the peak must be below `most` MiB."""
    memory = Memory(process.pid)
    yield memory
    memory.settle()
    row.memory(memory)
    row.require(not memory.killed, f"ended by the test at {memory.peak:,.0f} MiB, before the machine suffered")
    if most:
        row.require(memory.peak < most, f"peak {memory.peak:,.0f} MiB")


@contextlib.contextmanager
def watched_room(torture, row, most=None, **options):
    """A room where the extension, `room.extension`, runs and its memory is watched."""
    with torture.room(**options) as room:
        room.extension = room.start_extension()
        with watched(row, room.extension, most):
            yield room


def note_losses(row, answers):
    """The honest client's figures; it must have lost nothing."""
    row.times(answers.badges)
    row.lost += answers.lost()
    row.require(not row.lost, "something was lost")


def note_answers(row, answers, bare=None):
    """The honest client's figures and losses, against the target of the floods."""
    note_losses(row, answers)
    limit = BADGE
    if bare is not None:
        row.bare = bare.badges.p99
        limit = max(BADGE, 2 * row.bare)
    row.require(row.p99 is not None and row.p99 < limit, f"p99 {row.p99 or 0:,.0f} ms")
    row.notes.append(f"{answers.report['badges']['answered']} badges answered")
    if len(answers.menus):
        row.require(answers.menus.most < PATIENCE, f"a menu took {answers.menus.most / 1000:.1f} s")
        row.notes.append(f"menus: longest {answers.menus.most / 1000:.2f} s")


def end_status(process, seconds):
    """Waits for the end of a process; its exit status (negative: the signal) and the seconds, none when it goes on."""
    begun = time.monotonic()
    try:
        status = process.wait(seconds)
    except Exception:  # it goes on
        return None, seconds
    return status, time.monotonic() - begun


def ask_to_end(process, seconds=10.0):
    process.send_signal(signal.SIGTERM)
    return end_status(process, seconds)
