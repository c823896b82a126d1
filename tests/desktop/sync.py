"""The stand-in sync application (kelvane-sim), at work on one folder."""

import json
import pathlib
import signal
import subprocess
import threading

import processes
from waiting import until_equal

CODES = {"SYNCED": 2, "PENDING": 1, "SKIPPED": 0, "": -1}


class Sync:
    """Runs the stand-in of the build tree on `folder`. Items are named relative to it: "a.txt"."""

    def __init__(self, session, folder):
        self._session = session
        self._program = session.build / "bin/kelvane-sim"
        self.folder = pathlib.Path(folder)
        self.container = session.data / "group-containers/com.vornet.KelvaneSync"
        self.statuses = {}
        self._process = None

    def start(self):
        command = [self._program, self.folder, "--container", self.container, "--synced", "--transfer-time", "0.2"]
        pipes = {"stdin": subprocess.PIPE, "stdout": subprocess.PIPE, "text": True, "bufsize": 1}
        self._process = processes.start(command, self._session.environment, self._session.output, **pipes)
        if self._process.stdout.readline() != "started\n":
            raise RuntimeError(f"the stand-in ended: {self._session.output.read_text(errors='replace')}")
        for name, badge in self.statuses.items():
            self._tell(name, badge)

    def stop(self):
        processes.end(self._process)

    def set(self, name, badge):
        """Gives an item the status whose badge is `badge`; "" for none."""
        self.statuses[name] = badge
        self._tell(name, badge)

    def _tell(self, name, badge):
        self._process.stdin.write(f"{CODES[badge]} /{name}\n")
        answer = self._process.stdout.readline()
        if answer != "ok\n":
            raise RuntimeError(f"the stand-in answered: {answer}")

    def freeze(self):
        """It answers nothing any more."""
        self._process.send_signal(signal.SIGSTOP)

    def thaw(self):
        self._process.send_signal(signal.SIGCONT)

    def stall(self, seconds):
        """It answers nothing for that time."""
        self.freeze()
        threading.Timer(seconds, self.thaw).start()

    def actions(self):
        """What the user chose, as the stand-in received it: (action, names of the items)."""
        journal = self.container / "actions.jsonl"
        lines = journal.read_text().splitlines() if journal.exists() else []
        actions = [json.loads(line) for line in lines]
        return [(action["action"], [path.lstrip("/") for path in action["paths"]]) for action in actions]

    def wait_for_actions(self, expected):
        until_equal("the actions received", expected, self.actions)
