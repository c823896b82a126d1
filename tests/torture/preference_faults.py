"""Faults of the sync application's preferences and of the container that they are in."""

import shutil
import struct
import time

import processes
import wire
from attacks import attack, watched_room
from helpers import Times
from room import Memory
from waiting import NotSeen, until

NOTICED = 10.0  # seconds
PROPERTIES = "org.freedesktop.DBus.Properties"


def observed(room, start=True):
    """The roots, as the extension reports them; none while it does not answer."""
    arguments = wire.GLib.Variant("(ss)", (wire.INTERFACE, "ObservedFolders"))
    reply = room.client.ask(wire.Call(wire.NAME, "Get", arguments, interface=PROPERTIES, start=start))
    return reply.arguments()[0] if reply and reply.kind == wire.RETURN else None


def seconds_until_observed(room, path):
    """Asks the extension until it observes `path`; the seconds that this took."""
    begun = time.monotonic()
    expected = [path.as_uri()]
    until(f"the root {path.name}", lambda: [one.rstrip("/") for one in observed(room) or []] == expected, NOTICED)
    return time.monotonic() - begun


def make_other_root(room):
    other = room.folder / "Other"
    other.mkdir()
    (other / "item.txt").write_text("text\n")
    return other


def badge_of(room, path):
    reply = room.client.ask(wire.badges(wire.NAME, [path.as_uri()], start=True))
    return reply.arguments()[0][0] if reply and reply.kind == wire.RETURN else None


@attack("preferences: another root_dir", "status 0; new badges within 10 s")
def another_root(torture, row):
    with watched_room(torture, row) as room:
        other = make_other_root(room)
        room.write_database({"/honest/item.txt": 2, "/item.txt": 1})
        room.wait_for_badge("honest/item.txt", "SYNCED")
        room.write_preferences(other)
        seconds = seconds_until_observed(room, other)
        until("the badge in the new folder", lambda: badge_of(room, other / "item.txt") == "PENDING", NOTICED)
        row.require(badge_of(room, room.root / "honest/item.txt") == "", "the old folder still has badges")
        row.require(room.extension.wait(10) == 0, f"ended with status {room.extension.returncode}")
        row.times(Times([1000 * seconds]))


@attack("preferences: written after the start", "noticed within 10 s")
def written_late(torture, row):
    milliseconds, count = [], torture.some(8, 3)
    for _ in range(count):
        with torture.room(configured=False) as room:
            process = processes.start([room.program], room.environment, room.output)
            try:
                while "Skipping initialization" not in room.log_text():  # at once, so no pause
                    row.require(process.poll() is None, "ended before it was configured")
                    if row.missed:
                        return
                room.write_preferences(room.root)
                until("the extension", room.extension_process)
                milliseconds.append(1000 * seconds_until_observed(room, room.root))
            except NotSeen:
                row.lost.append("preferences that were written")
            finally:
                processes.end(process)
    row.times(Times(milliseconds))
    row.lost = [f"{len(row.lost)} of {count} never noticed"] if row.lost else []
    row.require(not row.lost, "preferences never noticed")


@attack("container remade", "preferences, badges, log within 10 s")
def new_container(torture, row):
    with watched_room(torture, row) as room:
        other = make_other_root(room)
        room.wait_for_badge("honest/item.txt", "SYNCED")
        shutil.rmtree(room.container)
        time.sleep(1.5)  # as an installer takes, so that nobody mistakes it for a renaming
        room.container.mkdir(exist_ok=True)
        room.write_database({"/item.txt": 1})
        room.write_preferences(other)
        seconds = seconds_until_observed(room, other)
        until("the badge of the new database", lambda: badge_of(room, other / "item.txt") == "PENDING", NOTICED)
        until("the log in the new container", lambda: badge_of(room, other / "item.txt") and room.log_text(), NOTICED)
        row.times(Times([1000 * seconds]))


def binary_list(objects):
    """A binary property list of these encoded objects, the first of which is all of it; references are four bytes."""
    data, offsets = b"bplist00", []
    for one in objects:
        offsets.append(len(data))
        data += one
    table = len(data)
    data += b"".join(struct.pack(">I", offset) for offset in offsets)
    return data + struct.pack(">6xBBQQQ", 4, 4, len(objects), 0, table)


def array_of(references):
    size = bytes([0xA0 | len(references)])
    return size + b"".join(struct.pack(">I", one) for one in references)


def shared_references():
    """24 arrays, each holding the next one ten times: small on disk, without end in memory."""
    return binary_list([array_of([number + 1] * 10) for number in range(24)] + [b"\x51x"])


def nested(depth=65_000):
    return b'<?xml version="1.0"?><plist version="1.0">' + b"<array>" * depth + b"</array>" * depth + b"</plist>"


def nested_binary(depth=100_000):
    return binary_list([array_of([number + 1]) for number in range(depth)] + [b"\x51x"])


@attack("preferences: bombs", "peak < 100 MiB; right ones within 10 s")
def bombs(torture, row):
    peaks, milliseconds = [], []
    for name, content in (("shared", shared_references()), ("deep", nested()), ("deep binary", nested_binary())):
        with torture.room(configured=False) as room:
            room.write_preferences_bytes(content)
            process = processes.start([room.program], room.environment, room.output)
            try:
                memory = Memory(process.pid)
                memory.before = memory.before or 0.0
                begun = time.monotonic()
                while not room.extension_process() and process.poll() is None and time.monotonic() < begun + 15:
                    time.sleep(0.01)
                row.require(process.poll() is None and room.extension_process(), f"{name}: status {process.poll()}")
                if process.poll() is None and room.extension_process():
                    room.write_preferences(room.root)
                    milliseconds.append(1000 * seconds_until_observed(room, room.root))
                memory.settle(0)
            except NotSeen as fault:
                row.require(False, f"{name}: {fault}")
            finally:
                processes.end(process)
            peaks.append(memory.peak)
            row.require(memory.peak < 100, f"{name}: peak {memory.peak:,.0f} MiB")
    row.peak = max(peaks)
    row.times(Times(milliseconds))
