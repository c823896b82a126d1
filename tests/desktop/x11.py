"""A headless X11 display with a window manager: windows by xprop, pointer and keys by xdotool."""

import os
import re
import subprocess

import processes
from screen import XvfbScreen
from waiting import until

TOOLS = ("Xvfb", "openbox", "xdotool", "xprop", "xwininfo")


class X11:
    """Started in `session`, whose environment its programs then have."""

    places_popups = True  # whether programs know where their menus are

    def __init__(self, session, size):
        self._session = session
        (session.folder / "screen").mkdir()
        display, display_in = os.pipe()
        command = ["Xvfb", "-displayfd", display_in, "-screen", "0", f"{size[0]}x{size[1]}x24", "-nolisten", "tcp"]
        session.start(*command, "-fbdir", session.folder / "screen", "-noreset", pass_fds=[display_in])
        os.close(display_in)
        session.environment["DISPLAY"] = ":" + session.first_line(display, "the display")
        self.screen = XvfbScreen(session.folder / "screen/Xvfb_screen0")

    def manage_windows(self):
        self._session.start("openbox")
        until("the window manager", lambda: "window id" in self._run("xprop", "-root", "_NET_SUPPORTING_WM_CHECK"))

    def _run(self, *command):
        return processes.run(command, self._session.environment)

    def xdotool(self, *arguments):
        return self._run("xdotool", *arguments).strip()

    # --- Windows

    def windows(self, program):
        """The ids of the program's windows, oldest first."""
        listed = self._run("xprop", "-root", "_NET_CLIENT_LIST")
        return [window for window in re.findall(r"0x[0-9a-f]+", listed) if self._owns(program, window)]

    def _owns(self, program, window):
        try:
            return program in self._run("xprop", "-id", window, "WM_CLASS").lower()
        except subprocess.CalledProcessError:
            return False  # closed meanwhile

    def activate(self, window):
        self.xdotool("windowactivate", "--sync", window)

    def close_window(self, window):
        self.activate(window)
        self.key("alt+F4")

    def geometry(self, window):
        """(x, y, width) of a window on the screen."""
        values = dict(re.findall(r"(\w+)=(-?\d+)", self.xdotool("getwindowgeometry", "--shell", window)))
        return int(values["X"]), int(values["Y"]), int(values["WIDTH"])

    def has_popup(self, program):
        """True if the screen shows a window of the program that the window manager does not manage: a menu."""
        lines = [line.split() for line in self._run("xwininfo", "-root", "-children").lower().splitlines() if program in line.lower()]
        try:
            return any("IsViewable" in self._run("xwininfo", "-id", line[0]) for line in lines)
        except subprocess.CalledProcessError:
            return True  # one has just gone; the caller looks again

    # --- Pointer and keys

    def key(self, combination):
        """Presses keys, such as "alt+Up"."""
        self.xdotool("key", combination)

    def move_pointer(self, x, y):
        self.xdotool("mousemove", x, y)

    def click(self, x, y, button=1):
        """`button`: 1 left, 3 right."""
        self.xdotool("mousemove", x, y, "click", button)
