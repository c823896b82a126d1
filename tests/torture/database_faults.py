"""Faults of sync.db while it is asked."""

import contextlib
import sqlite3
import time

from attacks import attack, note_answers, watched_room
from helpers import Flood, HonestClient

BATCH = 500


@attack("sync.db locked, batches under way", "cached badges steady; right 2 s later")
def locked(torture, row):
    with watched_room(torture, row) as room:
        client = room.keep(HonestClient(room))
        flood = room.keep(Flood(room, "badges", room.urls("cold", BATCH), connections=2))
        with contextlib.closing(sqlite3.connect(room.container / "sync.db", isolation_level=None)) as writer:
            writer.execute("BEGIN EXCLUSIVE")
            client.go()
            flood.go()
            time.sleep(torture.window)
            answers = client.stop()
            writer.execute("ROLLBACK")
        done = flood.stop()
        took = room.wait_for_badge("cold/item.txt", "SYNCED")
        row.require(took < 2, f"right badge {took:.1f} s after the lock")
        row.notes.append(f"{done['answered']} of {done['sent']} batches answered under the lock; right badge {took:.2f} s after")
    note_answers(row, answers)


@attack("sync.db replaced every 50 ms", "steady; right 2 s later")
def replaced(torture, row):
    with watched_room(torture, row) as room:
        client = room.keep(HonestClient(room, badges=("SYNCED", "PENDING"), item=room.url("cold/item.txt"), menu=False))
        client.go()
        end, count = time.monotonic() + torture.window, 0
        while time.monotonic() < end:
            count += 1
            room.write_database({"/cold/item.txt": 1 + count % 2, f"/cold/{count}": 2})
            time.sleep(0.05)
        answers = client.stop()
        room.write_database({"/cold/item.txt": 0})
        took = room.wait_for_badge("cold/item.txt", "SKIPPED")
        row.require(took < 2, f"right badge {took:.1f} s after the last one")
        row.notes.append(f"replaced {count} times, right badge after {took:.2f} s")
    note_answers(row, answers)
