"""Faults of sync.db while it is asked."""

import contextlib
import sqlite3
import threading
import time

from attacks import attack, note_answers, note_memory, watch
from helpers import Flood, HonestClient

BATCH = 500


@attack("sync.db locked, two batches of 500 under way", "cached badge p99 < 100 ms; nothing lost; right badge 2 s after the lock")
def locked(torture, row):
    with torture.room() as room:
        process = room.start_extension()
        client = room.keep(HonestClient(room))
        urls = [room.url(f"cold/e{number:05}") for number in range(BATCH)]
        flood = room.keep(Flood(room, "badges", urls, connections=2))
        memory = watch(process)
        with contextlib.closing(sqlite3.connect(room.container / "sync.db", isolation_level=None)) as writer:
            writer.execute("BEGIN EXCLUSIVE")
            client.go()
            flood.go()
            time.sleep(torture.window)
            answers = client.stop()
            writer.execute("ROLLBACK")
        done = flood.stop()
        note_memory(row, memory)
        took = room.wait_for_badge("cold/item.txt", "SYNCED")
        row.require(took < 2, f"right badge {took:.1f} s after the lock")
        row.notes.append(f"{done['answered']} of {done['sent']} batches answered under the lock, right badge after {took:.2f} s")
    note_answers(row, answers)


@attack("sync.db replaced every 50 ms while asked", "badge p99 < 100 ms; none missing; right 2 s after the last one")
def replaced(torture, row):
    with torture.room() as room:
        process = room.start_extension()
        client = room.keep(HonestClient(room, badges=("SYNCED", "PENDING"), item=room.url("cold/item.txt"), menu=False))
        memory = watch(process)
        client.go()
        end, count = time.monotonic() + torture.window, 0
        while time.monotonic() < end:
            count += 1
            room.write_database({"/cold/item.txt": 1 + count % 2, f"/cold/{count}": 2})
            time.sleep(0.05)
        answers = client.stop()
        room.write_database({"/cold/item.txt": 0})
        took = room.wait_for_badge("cold/item.txt", "SKIPPED")
        note_memory(row, memory)
        row.require(took < 2, f"right badge {took:.1f} s after the last one")
        row.notes.append(f"replaced {count} times, right badge after {took:.2f} s")
    note_answers(row, answers)


@attack("sync.db written 100 times a second, both modes", "badge p99 < 100 ms; none missing, though the database is busy")
def busy(torture, row):
    with torture.room() as room:
        process = room.start_extension()
        client = room.keep(HonestClient(room, item=room.url("cold/item.txt"), menu=False))
        memory = watch(process)
        stop = threading.Event()

        def write():
            for mode in ("DELETE", "WAL"):
                with contextlib.closing(sqlite3.connect(room.container / "sync.db", timeout=30, isolation_level=None)) as writer:
                    writer.execute(f"PRAGMA journal_mode={mode}")
                    end, number = time.monotonic() + torture.window / 2, 0
                    while time.monotonic() < end and not stop.is_set():
                        number += 1
                        writer.execute("UPDATE ea SET status = ? WHERE path = '/cold/e00001'", (number % 3,))
                        time.sleep(0.01)

        writer = threading.Thread(target=write)
        client.go()
        writer.start()
        try:
            writer.join()
            answers = client.stop()
        finally:
            stop.set()
        note_memory(row, memory)
    note_answers(row, answers)
