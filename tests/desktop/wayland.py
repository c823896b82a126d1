"""A headless Wayland desktop: the compositor sway without a GPU, pictures by grim, pointer and keys by a client that lasts
as long as the session, since a compositor forgets the devices of a client that leaves."""

import array
import json
import os
import pathlib
import socket
import struct
import tempfile
import time

import processes
from screen import GrimScreen
from waiting import until

TOOLS = ("sway", "swaymsg", "grim")
BUTTONS = {1: 0x110, 3: 0x111}  # BTN_LEFT, BTN_RIGHT of linux/input-event-codes.h
KEYS = {"Escape": 1, "Return": 28, "ctrl": 29, "alt": 56, "F4": 62, "Up": 103, "Down": 108, "Menu": 127}  # there: KEY_…
MODIFIERS = {"ctrl": 4, "alt": 8}  # masks of the keymap below
KEYMAP = b"""xkb_keymap {
  xkb_keycodes { include "evdev+aliases(qwerty)" };
  xkb_types { include "complete" };
  xkb_compat { include "complete" };
  xkb_symbols { include "pc+us+inet(evdev)" };
};
\0"""
CONFIGURATION = """output * mode {}x{}@60Hz
xwayland disable
default_border none
default_floating_border none
focus_follows_mouse no
workspace_layout tabbed
"""


class Wayland:
    """Started in `session`, whose environment its programs then have."""

    places_popups = False  # the compositor moves menus and says where to nobody

    def __init__(self, session, size):
        self._session = session
        self._size = size
        session.environment.update(XDG_SESSION_TYPE="wayland", GDK_BACKEND="wayland", QT_QPA_PLATFORM="wayland")
        self._folder = pathlib.Path(session.environment["XDG_RUNTIME_DIR"])

    def manage_windows(self):
        environment = self._session.environment
        configuration = self._session.folder / "sway.conf"
        configuration.write_text(CONFIGURATION.format(*self._size))
        # No GPU, no devices: the picture is drawn by the processor.
        headless = {"WLR_BACKENDS": "headless", "WLR_RENDERER": "pixman", "WLR_LIBINPUT_NO_DEVICES": "1"}
        self._session.start("sway", "-c", configuration, environment={**environment, **headless})
        environment["WAYLAND_DISPLAY"] = until("the compositor", lambda: self._socket("wayland-?")).name
        environment["SWAYSOCK"] = str(until("the compositor's commands", lambda: self._socket("sway-ipc.*")))
        os.environ.update(environment)
        until("an output", lambda: json.loads(self._swaymsg("-t", "get_outputs")))
        self.screen = GrimScreen(environment, *self._size)
        self._devices = _Devices(self._folder / environment["WAYLAND_DISPLAY"], self._size)

    def _socket(self, pattern):
        return next(self._folder.glob(pattern), None)

    def _swaymsg(self, *arguments):
        return processes.run(["swaymsg", *arguments], self._session.environment)

    # --- Windows

    def _nodes(self):
        queue = [json.loads(self._swaymsg("-t", "get_tree"))]
        while queue:
            node = queue.pop()
            yield node
            queue += node.get("nodes", []) + node.get("floating_nodes", [])

    def windows(self, program):
        """The ids of the program's windows, oldest first."""
        return sorted(node["id"] for node in self._nodes() if program in (node.get("app_id") or "").lower())

    def activate(self, window):
        self._swaymsg(f"[con_id={window}]", "focus")
        until("a window in front", lambda: any(node["id"] == window and node["focused"] for node in self._nodes()))

    def close_window(self, window):
        self._swaymsg(f"[con_id={window}]", "kill")

    def geometry(self, window):
        """(x, y, width) of a window on the screen."""
        place = next(node["rect"] for node in self._nodes() if node["id"] == window)
        return place["x"], place["y"], place["width"]

    def has_popup(self, _program):
        return False  # the compositor lists none; the caller looks at the accessibles as well

    # --- Pointer and keys

    def key(self, combination):
        """Presses keys, such as "alt+Up"."""
        self._devices.key(combination.split("+"))

    def move_pointer(self, x, y):
        self._devices.move(x, y)

    def click(self, x, y, button=1):
        """`button`: 1 left, 3 right."""
        self._devices.move(x, y)
        self._devices.click(BUTTONS[button])


class _Devices:
    """A virtual pointer (zwlr_virtual_pointer_v1) and keyboard (zwp_virtual_keyboard_v1), in the bytes of the protocol."""

    DISPLAY, REGISTRY, SYNC, POINTERS, POINTER, SEAT, KEYBOARDS, KEYBOARD = range(1, 9)  # our ids of the objects

    def __init__(self, path, size):
        self._size = size
        self._start = time.monotonic()
        self._socket = socket.socket(socket.AF_UNIX)
        self._socket.connect(str(path))
        self._send(self.DISPLAY, 1, struct.pack("<I", self.REGISTRY))
        self._send(self.DISPLAY, 0, struct.pack("<I", self.SYNC))
        offered = self._globals()
        self._bind(offered, "zwlr_virtual_pointer_manager_v1", self.POINTERS)
        self._send(self.POINTERS, 0, struct.pack("<II", 0, self.POINTER))
        self._bind(offered, "wl_seat", self.SEAT)
        self._bind(offered, "zwp_virtual_keyboard_manager_v1", self.KEYBOARDS)
        self._send(self.KEYBOARDS, 0, struct.pack("<II", self.SEAT, self.KEYBOARD))
        with tempfile.TemporaryFile() as keymap:
            keymap.write(KEYMAP)
            keymap.flush()
            descriptors = [(socket.SOL_SOCKET, socket.SCM_RIGHTS, array.array("i", [keymap.fileno()]))]
            self._socket.sendmsg([self._message(self.KEYBOARD, 0, struct.pack("<II", 1, len(KEYMAP)))], descriptors)

    @staticmethod
    def _message(target, code, body=b""):
        return struct.pack("<II", target, (8 + len(body)) << 16 | code) + body

    def _send(self, target, code, body=b""):
        self._socket.sendall(self._message(target, code, body))

    def _globals(self):
        """What the compositor offers: interface -> number."""
        offered, data = {}, b""
        while True:
            data += self._socket.recv(65536)
            while len(data) >= 8:
                target, word = struct.unpack("<II", data[:8])
                size = word >> 16
                if len(data) < size:
                    break
                body, data = data[8:size], data[size:]
                if target == self.SYNC:
                    return offered
                if target == self.REGISTRY and word & 0xFFFF == 0:
                    number, length = struct.unpack("<II", body[:8])
                    offered[body[8 : 7 + length].decode()] = number

    def _bind(self, offered, interface, target):
        text = interface.encode() + b"\0"
        padded = text + bytes(-len(text) % 4)
        self._send(self.REGISTRY, 0, struct.pack("<II", offered[interface], len(text)) + padded + struct.pack("<II", 1, target))

    def _now(self):
        return int((time.monotonic() - self._start) * 1000) & 0xFFFFFFFF

    def move(self, x, y):
        # By way of a place beside it, so that there is a motion even if it is there already.
        for place in (x - 1, x):
            self._send(self.POINTER, 1, struct.pack("<IIIII", self._now(), max(0, int(place)), int(y), *self._size))
            self._send(self.POINTER, 4)

    def click(self, button):
        for pressed in (1, 0):
            self._send(self.POINTER, 2, struct.pack("<III", self._now(), button, pressed))
            self._send(self.POINTER, 4)

    def key(self, names):
        mask = sum(MODIFIERS.get(name, 0) for name in names[:-1])
        strokes = [(KEYS[name], 1) for name in names] + [(KEYS[name], 0) for name in reversed(names)]
        for code, pressed in strokes:
            if mask and code == KEYS[names[-1]]:
                self._send(self.KEYBOARD, 2, struct.pack("<IIII", mask if pressed else 0, 0, 0, 0))
            self._send(self.KEYBOARD, 1, struct.pack("<III", self._now(), code, pressed))
