"""The honest client, in its own process: every 20 ms it asks for the badge of one item, twice a second for the menu of one,
as a file manager does, one call of a kind at a time. Its first line of input is its settings as JSON; it reports as JSON."""

import collections
import json
import select
import sys
import time

import wire

PERIOD, MENU_PERIOD = 0.02, 0.5
WARM_UP = 25
# How long a plug-in may wait for an answer before it gives up (docs/dbus.md).
PATIENCE = 10.0


class Question:
    """A call that is asked again and again, never twice at a time."""

    def __init__(self, call, period):
        self.call, self.period = call, period
        self.next = time.monotonic()
        self.serial, self.asked = None, 0.0
        self.milliseconds, self.errors, self.wrong, self.answered = [], collections.Counter(), 0, 0

    def is_due(self, now):
        return self.serial is None and now >= self.next

    def ask(self, connection):
        self.asked = time.monotonic()
        self.serial = connection.send(self.call)
        self.next = max(self.next + self.period, self.asked)

    def take(self, message, expected):
        self._note(time.monotonic() - self.asked)
        self.serial = None
        if message.kind == wire.ERROR:
            self.errors[message.error] += 1
        else:
            self.answered += 1
            self.wrong += not expected(message.arguments()[0])

    def _note(self, seconds):
        """One long answer also delays the questions that were due meanwhile: each counts with its own delay."""
        self.milliseconds.append(seconds * 1000)
        while (seconds := seconds - self.period) > 0:
            self.milliseconds.append(seconds * 1000)

    def result(self):
        unanswered = int(self.serial is not None)
        if unanswered:
            self._note(time.monotonic() - self.asked)
        return {"milliseconds": self.milliseconds, "errors": self.errors, "wrong": self.wrong, "answered": self.answered,
                "unanswered": unanswered}


def main():
    settings = json.loads(sys.stdin.readline())
    connection = wire.Connection(settings["address"])
    name, expected = settings["name"], settings["badges"]
    if settings.get("observe"):
        connection.ask(wire.observe(name, settings["observe"]))
    badge_call = wire.badges(name, [settings["item"]])
    end, seen = time.monotonic() + 30, 0
    while seen < WARM_UP and time.monotonic() < end:
        reply = connection.ask(badge_call)
        right = reply is not None and reply.kind == wire.RETURN and reply.arguments()[0][0] in expected
        seen += right
        time.sleep(0.002 if right else 0.02)
    print("ready" if seen == WARM_UP else "the badge is not right", flush=True)
    sys.stdin.readline()  # "go"

    badge = Question(badge_call, PERIOD)
    questions = {badge: lambda badges: len(badges) == 1 and badges[0] in expected}
    if settings.get("menu"):
        entries = settings["entries"]
        questions[Question(wire.menu(name, [settings["menu"]]), MENU_PERIOD)] = lambda menu: len(menu) == entries
    closed, stop = "", None
    try:
        while stop is None or (time.monotonic() < stop and any(q.serial for q in questions)):
            now = time.monotonic()
            for question in questions:
                if stop is None and question.is_due(now):
                    question.ask(connection)
            due = [question.next for question in questions if question.serial is None and stop is None]
            wait = max(0.0, min(due, default=now + 0.1) - time.monotonic())
            readable = select.select([connection] + ([sys.stdin] if stop is None else []), [], [], wait)[0]
            if sys.stdin in readable:  # "stop": what was asked may still be answered
                stop = time.monotonic() + PATIENCE
            while (message := connection.receive(0)) is not None:
                for question, check in questions.items():
                    if message.reply_to and message.reply_to == question.serial:
                        question.take(message, check)
    except (wire.Closed, OSError) as error:
        closed = str(error)
    results = [question.result() for question in questions]
    print(json.dumps({"badges": results[0], "menus": results[1] if len(results) > 1 else None, "closed": closed}), flush=True)


if __name__ == "__main__":
    main()
