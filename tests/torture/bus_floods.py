"""Floods by other clients of the bus. Each is done twice: to the extension, and to a bare service of the same interface under
the same name, so that what the bus itself costs is known."""

import time

from attacks import attack, note_answers, watched, watched_room
from helpers import Flood, HonestClient
from room import FOLDERS, Memory

MOST_MEMORY = 100  # MiB
# Badge p99 below 100 ms or twice the bare one; peak below MOST_MEMORY; no honest call refused, wrong or unanswered; menus
# within 10 s.
TARGET = "flood"
MANY = 10_000  # URLs in a call: as many as it may have


def measure(torture, client, flood):
    if flood:
        flood.go()
        time.sleep(0.5)  # it is at its height when the honest client begins
    client.go()
    time.sleep(torture.window)
    answers = client.stop()
    return answers, flood.stop() if flood else None


def flooded(torture, row, kind, urls, prepare=lambda room: None, fill=False, **settings):
    """`urls(room)`: the targets; `prepare(room)`: before the flood begins; `fill`: the targets are in the cache."""
    with torture.room() as room:
        process = room.start_extension()
        if fill:
            room.fill("fill", MANY)
        client = room.keep(HonestClient(room))
        prepare(room)
        flood = room.keep(Flood(room, kind, urls(room), **settings))
        with watched(row, process, MOST_MEMORY) as memory:
            answers, done = measure(torture, client, flood)
        row.notes.append(f"{done['sent']} calls sent, {done['answered']} answered")
        row.require(process.poll() is None or memory.killed, f"the extension ended with status {process.returncode}")
        if done["errors"]:
            row.notes.append("of them " + ", ".join(f"{count} {error}" for error, count in sorted(done["errors"].items())))
    with torture.room() as room:
        echo = room.start_echo()
        client = room.keep(HonestClient(room, badges=("",), entries=0))
        flood = room.keep(Flood(room, kind, urls(room), **settings))
        memory = Memory(echo.pid)
        bare, done = measure(torture, client, flood)
        memory.settle(0)
        row.notes.append(f"bare: peak {memory.peak:.0f} MiB, {done['answered']} answered")
    note_answers(row, answers, bare)


def filled(room):
    return room.urls("fill", MANY)


@attack("quiet", "steady")
def quiet(torture, row):
    with watched_room(torture, row, MOST_MEMORY) as room:
        answers, _ = measure(torture, room.keep(HonestClient(room)), None)
    with torture.room() as room:
        room.start_echo()
        client = room.keep(HonestClient(room, badges=("",), entries=0))
        bare, _ = measure(torture, client, None)
    note_answers(row, answers, bare)


@attack("flood: 5,000 malformed calls", TARGET)
def malformed(torture, row):
    flooded(torture, row, "malformed", lambda room: [room.url("honest")], calls=5_000, at_once=5_000)


@attack("flood: 1,100 x 10,000 URLs", TARGET)
def one_client(torture, row):
    flooded(torture, row, "badges", filled, fill=True, calls=1_100, at_once=1_100)


@attack("flood: 60 calls of 64 MB", TARGET)
def large(torture, row):
    flooded(torture, row, "large", lambda room: [room.url("cold")], calls=60, at_once=60, bytes=64_000_000)


@attack("flood: 20,000 x BeginObserving", TARGET)
def observing(torture, row):
    spelling = lambda number: "/" * (1 + number // FOLDERS) + f"f{number % FOLDERS:02}"
    urls = lambda room: [room.url() + spelling(number) for number in range(20_000)]
    flooded(torture, row, "observing", urls, calls=20_000, at_once=20_000)


@attack("flood: 50 clients, cached", TARGET)
def cached(torture, row):
    flooded(torture, row, "badges", filled, fill=True, connections=50)


@attack("flood: 50 clients, sync.db", TARGET)
def from_database(torture, row):
    flooded(torture, row, "badges", lambda room: room.urls("cold", MANY), connections=50)


@attack("flood: menus, application hangs", TARGET)
def menus(torture, row):
    hang = lambda room: room.sync.fault("silent")
    flooded(torture, row, "menus", lambda room: [room.url("honest/item.txt")], hang, at_once=500)
