"""The windows of programs as assistive technologies see them, read and operated by messages of the accessibility bus (AT-SPI)
itself, so that every answer is current."""

from gi.repository import Gio, GLib

from waiting import until

MOST_CHILDREN = 400
TIMEOUT = 10_000  # ms
ROLES = {
    8: "check menu item",
    23: "frame",
    26: "icon",
    30: "layered pane",
    31: "list",
    32: "list item",
    34: "menu bar",
    35: "menu item",
    41: "popup menu",
    45: "radio menu item",
    55: "table",
    56: "table cell",
    63: "tool bar",
    66: "tree table",
    69: "window",
}
STATES = {"ENABLED": 8, "FOCUSED": 12, "SELECTED": 23, "SENSITIVE": 24, "SHOWING": 25}
_ACCESSIBLE = "org.a11y.atspi.Accessible"


def connect(address):
    flags = Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION
    return Gio.DBusConnection.new_for_address_sync(address, flags, None, None)


class Bus:
    """The accessibility bus of the session whose message bus has this address."""

    def __init__(self, session_address):
        session = connect(session_address)
        arguments = ("org.a11y.Bus", "/org/a11y/bus", "org.a11y.Bus", "GetAddress", None, None, 0, TIMEOUT, None)
        self._connection = connect(session.call_sync(*arguments).unpack()[0])

    def call(self, owner, path, interface, method, arguments=None):
        """The values of the answer; raises GLib.Error for what has vanished or has no such method."""
        answer = self._connection.call_sync(owner, path, interface, method, arguments, None, 0, TIMEOUT, None)
        return answer.unpack()

    def application(self, process):
        """The root of the program with this process id; none until it reports one."""
        root = Node(self, "org.a11y.atspi.Registry", "/org/a11y/atspi/accessible/root")
        driver = ("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus")
        for node in root.children():
            try:
                owner = GLib.Variant("(s)", (node.owner,))
                if self.call(*driver, "GetConnectionUnixProcessID", owner)[0] == process:
                    return node
            except GLib.Error:
                continue
        return None


class Node:
    """One accessible. Once it has vanished, questions have empty answers and actions raise GLib.Error."""

    def __init__(self, bus, owner, path):
        self._bus, self.owner, self.path = bus, owner, path
        self._role = None

    def __eq__(self, other):
        return (self.owner, self.path) == (other.owner, other.path)

    def __hash__(self):
        return hash((self.owner, self.path))

    def _call(self, interface, method, arguments=None):
        return self._bus.call(self.owner, self.path, interface, method, arguments)

    def _ask(self, otherwise, interface, method, arguments=None):
        try:
            return self._call(interface, method, arguments)
        except GLib.Error:
            return otherwise

    def _property(self, interface, name, otherwise):
        arguments = GLib.Variant("(ss)", (interface, name))
        return self._ask((otherwise,), "org.freedesktop.DBus.Properties", "Get", arguments)[0]

    def children(self):
        found = self._ask(([],), _ACCESSIBLE, "GetChildren")[0]
        return [Node(self._bus, *child) for child in found[:MOST_CHILDREN] if not child[1].endswith("/null")]

    def labels(self):
        """The texts of the accessibles that are said to label it."""
        LABELLED_BY = 2
        relations = self._ask(([],), _ACCESSIBLE, "GetRelationSet")[0]
        labels = [Node(self._bus, *label) for kind, targets in relations if kind == LABELLED_BY for label in targets]
        return [label.text() for label in labels]

    def text(self):
        return self._ask(("",), "org.a11y.atspi.Text", "GetText", GLib.Variant("(ii)", (0, -1)))[0]

    def parent(self):
        return Node(self._bus, *self._property(_ACCESSIBLE, "Parent", (self.owner, self.path)))

    def name(self):
        return self._property(_ACCESSIBLE, "Name", "")

    def role(self):
        """One of ROLES; "" for others."""
        if self._role is None:
            self._role = ROLES.get(self._ask((0,), _ACCESSIBLE, "GetRole")[0], "")
        return self._role

    def has(self, state):
        low, high = (self._ask(([0, 0],), _ACCESSIBLE, "GetState")[0] + [0, 0])[:2]
        return bool((low | high << 32) >> STATES[state] & 1)

    def extents(self, on_screen=True):
        """(x, y, width, height) on the screen, or relative to its window; no width when it is nowhere."""
        arguments = GLib.Variant("(u)", (0 if on_screen else 1,))
        return tuple(self._ask(((0, 0, 0, 0),), "org.a11y.atspi.Component", "GetExtents", arguments)[0])

    def act(self, action=None):
        """Performs its action of this name, or its first."""
        interface = "org.a11y.atspi.Action"
        indices = [GLib.Variant("(i)", (index,)) for index in range(self._property(interface, "NActions", 0))]
        names = [self._call(interface, "GetName", index)[0] for index in indices]
        self._call(interface, "DoAction", indices[names.index(action) if action else 0])

    def index(self):
        return self._call(_ACCESSIBLE, "GetIndexInParent")[0]

    def selected(self):
        """Which of its children are selected."""
        count = self._property("org.a11y.atspi.Selection", "NSelectedChildren", 0)
        calls = [("org.a11y.atspi.Selection", "GetSelectedChild", GLib.Variant("(i)", (index,))) for index in range(count)]
        return [Node(self._bus, *self._call(*call)[0]) for call in calls]

    def select(self, child):
        """Selects one child and no other, or with None nothing."""
        self._call("org.a11y.atspi.Selection", "ClearSelection")
        if child is not None:
            self._call("org.a11y.atspi.Selection", "SelectChild", GLib.Variant("(i)", (child.index(),)))

    def walk(self, pruned=()):
        """Itself and everything below it, but what is below roles in `pruned`."""
        queue = [self]
        while queue:
            node = queue.pop()
            yield node
            if not pruned or node.role() not in pruned:
                queue += reversed(node.children())


class AppearanceWatch:
    """The accessibles that come to be shown. Make it before the program starts: a running one may learn too late that
    somebody listens."""

    EVENT = "object:state-changed:showing"
    _REGISTRY = ("org.a11y.atspi.Registry", "/org/a11y/atspi/registry", "org.a11y.atspi.Registry")

    def __init__(self, bus):
        self._bus = bus
        self._nodes = []
        bus._connection.signal_subscribe(
            None, "org.a11y.atspi.Event.Object", "StateChanged", None, "showing", 0, self._seen
        )
        bus.call(*self._REGISTRY, "RegisterEvent", GLib.Variant("(sass)", (self.EVENT, [], "")))

    def _seen(self, _connection, sender, path, _interface, _signal, values):
        if values[1] == 1:
            self._nodes.append(Node(self._bus, sender, path))

    @staticmethod
    def _receive():
        while GLib.MainContext.default().iteration(False):
            pass

    def forget(self):
        """Forgets what has been shown so far."""
        self._receive()
        self._nodes.clear()

    def wait_for(self, what, wanted):
        """The first since forget() that satisfies `wanted`."""

        def found():
            self._receive()
            return next((node for node in self._nodes if wanted(node)), None)

        return until(what, found)
