"""The helper programs of the attacks: the honest client, the attackers, and the sync application. Each is a process
that takes commands as lines on its standard input, and ends when that is closed."""

import json
import pathlib
import select
import subprocess
import sys
import threading

import processes
import wire

HERE = pathlib.Path(__file__).parent


class Helper:
    def __init__(self, environment, output, program, settings=None, wrapper=()):
        command = [*wrapper, sys.executable, "-B", HERE / program]
        self._name = program
        with open(output, "ab") as errors:
            self.process = subprocess.Popen(
                [str(part) for part in command],
                env=environment,
                stdin=subprocess.PIPE,
                stdout=subprocess.PIPE,
                stderr=errors,
                text=True,
                start_new_session=True,
            )
        if settings is not None:
            self.say(json.dumps(settings))

    def say(self, line):
        try:
            self.process.stdin.write(line + "\n")
            self.process.stdin.flush()
        except OSError:
            pass  # its output says why it ended

    def hear(self, timeout=60):
        if not select.select([self.process.stdout], [], [], timeout)[0]:
            raise RuntimeError(f"{self._name} says nothing")
        line = self.process.stdout.readline()
        if not line:
            raise RuntimeError(f"{self._name} ended with status {self.process.wait(10)}")
        return line.strip()

    def end(self):
        processes.end(self.process)


class HonestClient(Helper):
    """Asks for badges and menus as a file manager does; see honest.py."""

    def __init__(self, room, name=wire.NAME, badges=("SYNCED",), observe=True, item=None, menu=True, entries=5):
        settings = {"address": room.address, "name": name, "item": item or room.url("honest/item.txt"), "badges": badges}
        if observe:
            settings["observe"] = room.url("honest")
        if menu:
            settings.update(menu=room.url("honest/item.txt"), entries=entries)
        super().__init__(room.environment, room.output, "honest.py", settings)
        if (word := self.hear()) != "ready":
            raise RuntimeError(f"the honest client, before anything happened: {word}")

    def go(self):
        self.say("go")

    def stop(self):
        self.say("stop")
        return Answers(json.loads(self.hear()))


class Answers:
    """What the honest client got."""

    def __init__(self, report):
        self.report = report
        self.badges = Times(report["badges"]["milliseconds"])
        self.menus = Times(report["menus"]["milliseconds"]) if report["menus"] else Times([])

    def lost(self):
        """What was refused, unanswered or wrong, as words."""
        words = []
        for kind, one in (("badges", "badges"), ("menus", "menus")):
            report = self.report[kind]
            if not report:
                continue
            words += [f"{count} {one} {error.rpartition('.')[2]}" for error, count in report["errors"].items()]
            words += [f"{report['unanswered']} {one} never answered"] if report["unanswered"] else []
            words += [f"{report['wrong']} {one} wrong"] if report["wrong"] else []
        if self.report["closed"]:
            words.append("its connection")
        return words


class Times:
    """Times of one kind, in milliseconds."""

    def __init__(self, milliseconds):
        self._sorted = sorted(milliseconds)

    def __len__(self):
        return len(self._sorted)

    def percentile(self, share):
        if not self._sorted:
            return None
        return self._sorted[min(len(self._sorted) - 1, int(share / 100 * len(self._sorted)))]

    @property
    def p50(self):
        return self.percentile(50)

    @property
    def p99(self):
        return self.percentile(99)

    @property
    def most(self):
        return self.percentile(100)


class Flood(Helper):
    """An attacker; see flood.py. `urls` are its targets, `calls` those of a round, `at_once` how many may be unanswered."""

    def __init__(self, room, kind, urls, name=wire.NAME, connections=1, calls=1 << 60, at_once=1, **settings):
        settings.update(address=room.address, name=name, kind=kind, urls=urls)
        settings.update(connections=connections, calls=calls, at_once=at_once)
        super().__init__(room.environment, room.output, "flood.py", settings)
        self.hear()

    def go(self):
        self.say("go")

    def stop(self):
        self.say("stop")
        return json.loads(self.hear())


class SyncApplication(Helper):
    """The sync application; see sync_application.py. Listens at once."""

    def __init__(self, room, listen=True, wrapper=()):
        super().__init__(room.environment, room.output, "sync_application.py", wrapper=wrapper)
        self._lock = threading.Lock()
        answer = self.tell(items={"/honest/": {"/honest/item.txt": 2}}, **({"listen": True} if listen else {}))
        if "error" in answer:
            raise RuntimeError(f"the sync application cannot listen: {answer['error']}")

    def tell(self, **order):
        with self._lock:
            self.say(json.dumps(order))
            return json.loads(self.hear())

    def received(self):
        return self.tell(tell=True)

    def polls(self):
        """How many requests for statuses have come."""
        return self.received()["requests"].get("get_icons_for_folder", 0)

    def fault(self, name, command="*"):
        self.tell(fault={command: name})
