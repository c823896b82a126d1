"""The stand-in sync application (kelvane-sim), at work on one folder."""

import json
import pathlib
import socket

import processes
from waiting import until, until_equal

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
        command = [self._program, "run", self.folder, "--synced", "--transfer-time", "0.2"]
        self._process = processes.start(command, self._session.environment, self._session.output)
        until("the stand-in", lambda: self._listens() or self._process.poll() is not None)
        if self._process.poll() is not None:
            raise RuntimeError(f"the stand-in ended: {self._session.output.read_text(errors='replace')}")
        for name, badge in self.statuses.items():
            self._tell("status", "/" + name, CODES[badge])

    def _listens(self):
        """Whether it takes commands; the socket of one before may still lie there."""
        with socket.socket(socket.AF_UNIX) as probe:
            return probe.connect_ex(str(self.container / "control.sock")) == 0

    def stop(self):
        processes.end(self._process)

    def set(self, name, badge):
        """Gives an item the status whose badge is `badge`; "" for none."""
        self.statuses[name] = badge
        self._tell("status", "/" + name, CODES[badge])

    def fault(self, text):
        self._tell("fault", text)

    def _tell(self, *words):
        processes.run([self._program, *words], self._session.environment)

    def actions(self):
        """What the user chose, as the stand-in received it: (action, names of the items)."""
        journal = self.container / "actions.jsonl"
        lines = journal.read_text().splitlines() if journal.exists() else []
        actions = [json.loads(line) for line in lines]
        return [(action["action"], [path.lstrip("/") for path in action["paths"]]) for action in actions]

    def wait_for_actions(self, expected):
        until_equal("the actions received", expected, self.actions)
