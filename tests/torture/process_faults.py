"""Faults of the process itself, of its bus and of the machine that it runs on."""

import os
import pathlib
import re
import signal
import subprocess
import time

import namespaces
import processes
import wire
from attacks import ENDING, Impossible, ask_to_end, attack, end_status, note_answers, note_losses, watched
from helpers import Flood, HonestClient, Times
from link_faults import menu_time, menus_at_once
from room import FOLDERS
from waiting import until

BACK = 5.0  # seconds within which a killed extension shows a right badge again
RECORD = re.compile(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} ")


def running(build):
    """How many processes of the extension there are."""
    program, count = os.path.realpath(build / "libexec/VornetVIExt"), 0
    for process in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            count += os.readlink(process / "exe") == program and processes.is_running(int(process.name))
        except OSError:
            pass
    return count


@attack("kill -9, repeated", "p99 < 5 s; one process left")
def killed(torture, row):
    with torture.room() as room:
        room.badge("honest/item.txt", start=True)
        room.wait_for_badge("honest/item.txt", "SYNCED")
        flood = room.keep(Flood(room, "badges", room.urls("cold", 500), connections=4))
        flood.go()
        milliseconds = []
        for number in range(torture.some(100, 10)):
            process = until("the extension", room.extension_process)
            os.kill(process, signal.SIGKILL)
            begun = time.monotonic()
            while (badge := room.badge("honest/item.txt", start=True)) != "SYNCED" and time.monotonic() < begun + 30:
                time.sleep(0.001)
            milliseconds.append(1000 * (time.monotonic() - begun))
            if badge != "SYNCED":
                row.lost.append(f"the badge after kill {number + 1} ({badge})")
                break
        flood.stop()
        row.times(Times(milliseconds))
        row.require(not row.lost, "not right again")
        row.require(row.p99 < 1000 * BACK, f"p99 {row.p99 / 1000:.1f} s")
        alive = running(torture.build)
        row.require(alive == 1, f"{alive} processes at the end")
        row.notes.append(f"{len(milliseconds)} kills, longest {max(milliseconds) / 1000:.2f} s")


def write_records(room, count=20):
    """Has the extension write a line in its log for each of so many calls: menus of more items than a menu may have."""
    call = wire.menu(wire.NAME, [room.url("honest/item.txt")] * 16)
    for _ in range(count):
        room.client.ask(call)


# --- Asked to end -----------------------------------------------------------------------------------------------------


def full_pipe():
    """A pipe that takes nothing any more, and that nobody reads: its two ends."""
    reading, writing = os.pipe()
    os.set_blocking(writing, False)
    try:
        while True:
            os.write(writing, b"x" * 4096)
    except BlockingIOError:
        os.set_blocking(writing, True)
    return reading, writing


def in_a_request(room):
    room.sync.fault("silent")
    room.observe("honest")
    call = wire.menu(wire.NAME, [room.url("honest/item.txt")])
    for _ in range(20):
        room.client.send(call)
    until("menus under way", lambda: room.sync.received()["requests"].get("mac_populate_menu", 0) >= 1)
    until("a poll under way", room.sync.polls)


def in_a_flood(room):
    flood = room.keep(Flood(room, "badges", room.urls("cold", 10_000), connections=4, at_once=10))
    flood.go()
    time.sleep(0.5)


def bus_gone(room):
    room.bus.kill()


def frozen_bus(room):
    room.bus.send_signal(signal.SIGSTOP)


@attack("SIGTERM in eight states", "within 3.5 s, status 0 (bus frozen: 0 or 1)")
def asked_to_end(torture, row):
    states = (("idle", None), ("unconfigured", None), ("in a request", in_a_request), ("in a flood", in_a_flood),
              ("output blocked", None), ("bus gone, in a request", bus_gone), ("bus frozen", frozen_bus),
              ("bus frozen, in a request", frozen_bus))
    milliseconds = []
    for name, prepare in states:
        with torture.room(configured=name != "unconfigured") as room:
            options, pipe = {}, ()
            if name == "output blocked":
                pipe = full_pipe()
                options["stdout"] = pipe[1]
            process = room.start_extension(**options)
            if name.endswith(", in a request"):
                in_a_request(room)
            (prepare or (lambda _: None))(room)
            if pipe:
                write_records(room)  # each is a line of output, too
            status, seconds = ask_to_end(process)
            room.bus.send_signal(signal.SIGCONT)
            for end in pipe:
                os.close(end)
        milliseconds.append(1000 * seconds)
        row.notes.append(f"{name}: {seconds:.2f} s" if status is not None else f"{name}: never")
        row.require(status is not None, f"{name}: goes on")
        row.require(status in ((0, 1, None) if prepare is frozen_bus else (0, None)), f"{name}: status {status}")
        row.require(status is None or seconds < ENDING, f"{name}: {seconds:.1f} s")
    row.times(Times(milliseconds))


@attack("bus killed", "within 3.5 s, not by signal")
def bus_killed(torture, row):
    milliseconds = []
    for name, prepare in (("idle", lambda room: None), ("in a request", in_a_request)):
        with torture.room() as room:
            process = room.start_extension()
            prepare(room)
            room.bus.kill()
            status, seconds = end_status(process, 10)
        milliseconds.append(1000 * seconds)
        row.notes.append(f"{name}: {seconds:.2f} s, status {status}")
        row.require(status is not None, f"{name}: goes on")
        row.require(status is None or (status >= 0 and seconds < ENDING), f"{name}: {seconds:.1f} s, status {status}")
    row.times(Times(milliseconds))


# --- A machine that is full -------------------------------------------------------------------------------------------


def joined_records(room):
    """How many lines of the log hold more than one record, or begin with none."""
    bad = 0
    for line in room.log_text().splitlines():
        found = [match.start() for match in RECORD.finditer(line)]
        bad += len(found) > 1
    return bad


def measure_while_writing(torture, room, client):
    """The honest client's answers while hundreds of records are written."""
    client.go()
    end = time.monotonic() + torture.window
    while time.monotonic() < end:
        write_records(room, 10)
        time.sleep(0.05)
    return client.stop()


@attack("disk full, then room", "steady; later records on own lines")
def disk_full(torture, row):
    if os.environ.get(namespaces.MARK) != str(os.getpid()):
        raise Impossible("this system allows no mount of one's own here")
    with torture.room() as room:
        room.log.parent.mkdir()
        mounted = ["mount", "-t", "tmpfs", "-o", "size=64k,mode=0700", "tmpfs", str(room.log.parent)]
        if subprocess.run(mounted, capture_output=True, check=False).returncode != 0:
            raise Impossible("this system allows no mount of one's own here")
        try:
            process = room.start_extension()
            client = room.keep(HonestClient(room))
            filler = room.log.parent / "filler"
            with open(filler, "wb", buffering=0) as file:
                try:
                    while True:
                        file.write(b"x" * 512)
                except OSError:
                    pass  # full
            with watched(row, process):
                answers = measure_while_writing(torture, room, client)
                size = room.log.stat().st_size
                filler.unlink()
                write_records(room)
                grown = room.log.stat().st_size - size
                row.notes.append(f"the log: {size} bytes when it was full, {grown} more for 20 records with room again")
                row.require(grown > 20 * 50, "no records with room again")
            bad = joined_records(room)
            row.require(not bad, f"{bad} records in another's line")
            row.require(process.poll() is None, f"ended with status {process.returncode}")
        finally:
            room.close()
            subprocess.run(["umount", "-l", room.log.parent], capture_output=True, check=False)
    note_answers(row, answers)


@attack("RLIMIT_FSIZE of 8 KiB", "steady, without its log")
def small_files(torture, row):
    with torture.room() as room:
        process = room.start_extension(["prlimit", "--fsize=8192", "--"], stdout=subprocess.DEVNULL)
        client = room.keep(HonestClient(room))
        with watched(row, process):
            answers = measure_while_writing(torture, room, client)
        row.require(process.poll() is None, f"ended with status {process.returncode}")
        row.require(process.poll() is not None or room.log.stat().st_size > 8000, "the log has not reached the limit")
    note_answers(row, answers)


@attack("64 descriptors", "nothing lost, all reachable later; or says why")
def few_descriptors(torture, row):
    with torture.room() as room:
        process = room.start_extension(["prlimit", "--nofile=64", "--"])
        for number in range(FOLDERS):
            room.observe(f"f{number:02}")
        client = room.keep(HonestClient(room))
        with watched(row, process):
            others = [wire.Connection(room.address) for _ in range(40)]
            flood = room.keep(Flood(room, "badges", room.urls("cold", 500), connections=8))
            client.go()
            flood.go()
            ask_for_menus(room, others, time.monotonic() + torture.window)
            answers = client.stop()
            flood.stop()
            row.notes.append(f"{count_descriptors(process)} descriptors at the end")
            if process.poll() is None:
                look_at_what_needs_descriptors(room, row)
        if process.poll() is not None and process.returncode > 0:
            row.notes.append(f"it ended and said: {room.last_words()}")
            return
        row.require(process.poll() is None, f"ended with status {process.returncode}")
    note_losses(row, answers)


def look_at_what_needs_descriptors(room, row):
    """With the load gone, sync.db and the sync application can be reached; or the extension has said why not."""
    begun = time.monotonic()
    while (badge := room.badge("cold/item.txt")) != "SYNCED" and time.monotonic() < begun + 5:
        time.sleep(0.05)
    _, enabled = menu_time(room)
    said = "too many open files" in (room.log_text() + room.output.read_text(errors="replace")).lower()
    row.require(said or badge == "SYNCED", f"sync.db is not read any more ({badge!r}), and nobody says why")
    row.require(said or enabled == 5, "menus are greyed, and nobody says why")


def ask_for_menus(room, clients, end):
    while time.monotonic() < end:
        menus_at_once(room, clients, 10)


def count_descriptors(process):
    try:
        return len(os.listdir(f"/proc/{process.pid}/fd"))
    except OSError:
        return 0
