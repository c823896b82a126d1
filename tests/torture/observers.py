"""Observers: one that never reads what it is sent, beside one that does."""

import threading
import time

import wire
from attacks import attack, note_losses, watched
from helpers import HonestClient
from room import resident
from waiting import until

ENTRIES = 100_000
BADGES = {2: "SYNCED", 1: "PENDING", 0: "SKIPPED"}


class Observer:
    """Observes a folder and applies every change that it is sent."""

    def __init__(self, room, name):
        self.connection = wire.Connection(room.address)
        room.observe(name, self.connection)
        self.badges, self.signals, self.closed = {}, 0, False
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._read, daemon=True)
        self._thread.start()

    def _read(self):
        try:
            while not self._stop.is_set():
                message = self.connection.receive(0.2)
                if message is not None and message.member == "BadgesChanged":
                    self.signals += 1
                    self.badges.update(message.arguments()[0])
        except (wire.Closed, OSError):
            self.closed = True

    def differing(self, badge):
        """How many items do not have this badge."""
        return ENTRIES - sum(one == badge for one in list(self.badges.values()))

    def end(self):
        self._stop.set()
        self._thread.join()


@attack("100,000 changes a pass, one observer deaf", "all changes arrive; growth < 10 %")
def never_reads(torture, row):
    with torture.room() as room:
        process = room.start_extension()
        room.sync.tell(folders={"/big/": {"prefix": "e", "count": ENTRIES, "code": 1, "turning": True}})
        (room.root / "big").mkdir()
        silent = wire.Connection(room.address)
        silent.send(wire.observe(wire.NAME, room.url("big")))
        observer = Observer(room, "big")
        try:
            client = room.keep(HonestClient(room, menu=False))
            sizes, seconds = [], []
            with watched(row, process):
                client.go()
                for _ in range(torture.some(12, 5)):
                    begun = time.monotonic()
                    count = room.sync.received()["turned"].get("/big/", [0])[0]
                    room.force_pass()
                    until("the pass", lambda: room.sync.received()["turned"].get("/big/", [0])[0] > count)
                    if count:  # the first one is no change
                        until("all changes at the honest observer", lambda: all_seen(room, observer))
                        seconds.append(time.monotonic() - begun)
                    sizes.append(resident(process.pid))
                answers = client.stop()
                until("all changes at the end", lambda: all_seen(room, observer))
        finally:
            observer.end()
        note_losses(row, answers)
        row.require(not observer.closed, "the honest observer lost its connection")
        grown = max(sizes[3:]) / sizes[2] - 1
        row.require(grown < 0.1, f"memory grew by {100 * grown:.0f} % after pass 3")
        row.notes.append(f"{observer.signals} signals to the honest observer, all changes {max(seconds):.1f} s after a pass")
        silent.close()


def all_seen(room, observer):
    turned = room.sync.received()["turned"]["/big/"]
    return observer.differing(BADGES[turned[1]]) == 0
