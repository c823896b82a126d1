"""An attacker, in its own process: connections to the bus that send calls without regard for anybody. The first line of input
is its settings as JSON; "go" starts it, "stop" or the end of the input ends it. Reports as JSON."""

import collections
import json
import selectors
import sys

from gi.repository import GLib

import wire


def malformed(name, settings):
    """Calls that nobody may make, of many kinds."""
    texts = lambda *urls: GLib.Variant("(as)", (list(urls),))
    folder, properties = settings["urls"][0], "org.freedesktop.DBus.Properties"
    nested = GLib.Variant("v", GLib.Variant("av", [GLib.Variant("s", folder)] * 50))
    wrong = ("not a URL", "http://localhost/x", "file:///a/../b", "file://elsewhere/a", "file:///%00")
    return [
        *(wire.badges(name, [url]) for url in wrong),
        wire.badges(name, [folder] * 20 + [""]),
        wire.Call(name, "RequestBadges", GLib.Variant("(s)", (folder,))),
        wire.Call(name, "RequestBadges", GLib.Variant("(a{sv})", ({"a": GLib.Variant("i", 1)},))),
        wire.Call(name, "RequestBadges"),
        wire.Call(name, "RequestBadges", GLib.Variant.new_tuple(nested)),
        wire.Call(name, "GetMenu", texts("relative/path")),
        wire.Call(name, "GetMenu", GLib.Variant("(u)", (7,))),
        wire.perform(name, "init", [folder]),
        wire.perform(name, "copyLink:", ["file:///etc/passwd"]),
        wire.Call(name, "BeginObserving", GLib.Variant("(s)", ("file:///proc/self",))),
        wire.Call(name, "BeginObserving", GLib.Variant("(s)", ("file:///" + "%2e" * 2000,))),
        wire.Call(name, "EndObserving", GLib.Variant("(s)", (folder,))),
        wire.Call(name, "NoSuchMethod", GLib.Variant.new_tuple(nested)),
        wire.Call(name, "RequestBadges", texts(folder), path="/no/such/object"),
        wire.Call(name, "RequestBadges", texts(folder), interface="com.vornet.NoSuchInterface"),
        wire.Call(name, "Get", GLib.Variant("(ss)", (wire.INTERFACE, "Nothing")), interface=properties),
        wire.Call(name, "Set", GLib.Variant("(ssv)", (wire.INTERFACE, "Version", nested)), interface=properties),
    ]


def large(name, settings):
    """One call of so many bytes, with as many URLs as a call may have."""
    each = settings["bytes"] // 10_000 - 5  # each text has a length and an end in the message
    base = settings["urls"][0] + "/"
    return [wire.badges(name, [(base + f"{number:05}").ljust(each, "x") for number in range(10_000)])]


KINDS = {
    "malformed": malformed,
    "large": large,
    "badges": lambda name, settings: [wire.badges(name, settings["urls"])],
    "menus": lambda name, settings: [wire.menu(name, settings["urls"])],
    "observing": lambda name, settings: [wire.observe(name, url) for url in settings["urls"]],
}


class Attacker:
    """One connection. In each round it makes `calls` calls, at most `at_once` of them unanswered; then it starts again."""

    def __init__(self, settings, calls):
        self.connection = wire.Connection(settings["address"])
        self.connection.socket.setblocking(False)
        self._calls, self._round, self._at_once = calls, settings["calls"], settings["at_once"]
        self._unsent, self._received, self._skip = [], bytearray(), 0
        self.sent, self.answered, self.errors, self._sent_in_round, self._open = 0, 0, collections.Counter(), 0, 0

    def wants_to_send(self):
        return bool(self._unsent) or (self._open < self._at_once and self._sent_in_round < self._round)

    def write(self):
        if not self._unsent:
            call = self._calls[self.sent % len(self._calls)]
            self._unsent = [memoryview(call.head(self.connection.next_serial())), memoryview(call.rest)]
            self.sent, self._sent_in_round, self._open = self.sent + 1, self._sent_in_round + 1, self._open + 1
        try:
            count = self.connection.socket.sendmsg([part[: 1 << 20] for part in self._unsent])
        except BlockingIOError:
            return
        while self._unsent and count >= len(self._unsent[0]):
            count -= len(self._unsent.pop(0))
        if self._unsent:
            self._unsent[0] = self._unsent[0][count:]

    def read(self):
        try:
            data = self.connection.socket.recv(1 << 20)
        except BlockingIOError:
            return
        if not data:
            raise wire.Closed("the bus has closed the connection")
        skipped = min(self._skip, len(data))
        self._skip -= skipped
        self._received += memoryview(data)[skipped:]
        while len(self._received) >= 16 and not self._skip:
            size = wire.frame_size(self._received)
            if self._received[1] == wire.ERROR:
                if len(self._received) < size:
                    return
                self.errors[wire.Message(bytes(self._received[:size])).error.rpartition(".")[2]] += 1
            if self._received[1] in (wire.ERROR, wire.RETURN):
                self._answered()
            self._skip = max(0, size - len(self._received))
            del self._received[:size]

    def _answered(self):
        self.answered, self._open = self.answered + 1, self._open - 1
        if self._sent_in_round == self._round and not self._open:
            self._sent_in_round = 0


def main():
    settings = json.loads(sys.stdin.readline())
    calls = KINDS[settings["kind"]](settings["name"], settings)
    attackers = [Attacker(settings, calls) for _ in range(settings["connections"])]
    print("ready", flush=True)
    sys.stdin.readline()  # "go"
    waiting = selectors.DefaultSelector()
    waiting.register(sys.stdin, selectors.EVENT_READ)
    for attacker in attackers:
        waiting.register(attacker.connection, selectors.EVENT_READ | selectors.EVENT_WRITE, attacker)
    stopped = False
    while not stopped:
        for key, events in waiting.select():
            attacker = key.data
            if attacker is None:
                stopped = True
                break
            try:
                if events & selectors.EVENT_READ:
                    attacker.read()
                if events & selectors.EVENT_WRITE and attacker.wants_to_send():
                    attacker.write()
            except (wire.Closed, OSError):
                waiting.unregister(attacker.connection)
                continue
            interest = selectors.EVENT_READ | (selectors.EVENT_WRITE if attacker.wants_to_send() else 0)
            if interest != key.events:
                waiting.modify(attacker.connection, interest, attacker)
    total = {figure: sum(getattr(attacker, figure) for attacker in attackers) for figure in ("sent", "answered")}
    errors = sum((attacker.errors for attacker in attackers), collections.Counter())
    print(json.dumps({**total, "errors": errors}), flush=True)


if __name__ == "__main__":
    main()
