"""The real file managers: how each is started, read and operated."""

import os
import re
import shutil
import signal

from gi.repository import Atspi, GLib

import accessible
import processes
from accessible import act, actions, extents, has, name, role, walk
from session import COLOURS
from waiting import NotSeen, until, until_equal

FEWEST_PIXELS = 20  # of an emblem's colour, to count as one
ENTRIES = ("Share", "Copy Link", "Comments", "View versions", "View in Cloud")


class FileManager:
    """One running file manager in a session. Items are named as their files."""

    program = ""
    command = ()
    plugins = ()  # patterns of what is laid over /usr, relative to the build tree
    cells = ("icon",)  # roles of the files' accessibles
    has_badges = True
    shows_greyed = True
    pruned = ("menu bar", "tool bar")

    def __init__(self, session):
        self.session = session
        self.output = session.folder / f"{self.program}.log"
        self.process = None
        self._app = None

    @classmethod
    def is_installed(cls):
        return shutil.which(cls.program) is not None

    # --- Life

    def start(self, folder, environment=None):
        self.environment = environment or self.session.environment
        self.process = processes.start([*self.command, folder], self.environment, self.output)
        self._app = until(f"{self.program} among the accessible programs", self._find_application)
        until(f"a window of {self.program}", self.windows)

    def _find_application(self):
        if self.process.poll() is not None:
            raise NotSeen(f"{self.program} has ended: {self.output.read_text(errors='replace')[-2000:]}")
        return accessible.application(self.process.pid)

    def kill(self):
        self.process.send_signal(signal.SIGKILL)
        self.process.wait()

    def stop(self):
        """Closes all windows, as the user does, and waits until the program has ended or, where it stays, ends it."""
        while self.process.poll() is None and self.windows():
            self.close_window(self.windows()[-1])
        processes.end(self.process)

    def is_running(self):
        return self.process.poll() is None

    # --- Windows

    def windows(self):
        """The ids of its windows, oldest first."""
        listed = processes.run(["xprop", "-root", "_NET_CLIENT_LIST"], self.session.environment)
        return [window for window in re.findall(r"0x[0-9a-f]+", listed) if self._owns(window)]

    def _owns(self, window):
        try:
            return self.program in processes.run(["xprop", "-id", window, "WM_CLASS"], self.session.environment).lower()
        except processes.subprocess.CalledProcessError:
            return False  # closed meanwhile

    def open_window(self, folder):
        """Opens one more window on `folder`."""
        before = len(self.windows())
        processes.start([*self.command, folder], self.environment, self.output)
        until("one more window", lambda: len(self.windows()) == before + 1)

    def close_window(self, window):
        self.session.xdotool("windowactivate", "--sync", window)
        self.session.xdotool("key", "alt+F4")
        until("the closing of a window", lambda: window not in self.windows())

    def activate(self):
        self.session.xdotool("windowactivate", "--sync", self.windows()[-1])

    # --- Files on screen

    def items(self):
        """The accessibles of the files on screen: name -> accessible."""
        return {name(node): node for node in walk(self._app, self.pruned) if self.is_item(node)}

    def is_item(self, node):
        return role(node) in self.cells and name(node) != ""

    def wait_for_items(self, names):
        names = set(names)
        until(f"the files {sorted(names)}", lambda: names <= set(self.items()))

    def rectangles(self):
        """Where the files stand on the screen: name -> rectangle."""
        return {name: box for name, node in self.items().items() if (box := extents(node)) and box[2] > 0}

    def badges(self):
        """The badge of every file on screen, by its colour in the file's rectangle; "" for none."""
        return {name: self._badge_in(box) for name, box in self.rectangles().items()}

    def _badge_in(self, box):
        counts = {badge: self.session.screen.count(colour, box) for badge, colour in COLOURS.items()}
        return "+".join(badge for badge, count in counts.items() if count >= FEWEST_PIXELS)

    def badges_match(self, expected):
        return self.badges() == expected

    def wait_for_badges(self, expected):
        until_equal("the badges", expected, self.badges)

    def coloured_pixels(self):
        """How many pixels of any emblem are on the whole screen."""
        return sum(self.session.screen.count(colour) for colour in COLOURS.values())

    # --- Going from folder to folder

    def enter(self, folder):
        """Opens a folder on screen, in the same window, as the user does."""
        raise NotImplementedError

    def go_up(self):
        self.activate()
        self.session.xdotool("key", "alt+Up")

    # --- Menus

    def open_menu(self, item):
        """Opens the context menu of an item, or with None that of the folder's background."""
        raise NotImplementedError

    def menu_nodes(self):
        """The accessibles of what the open menu shows; empty without one."""
        return [
            node
            for node in walk(self._app, self.pruned)
            if role(node) in ("menu item", "check menu item") and has(node, "SHOWING")
        ]

    def menu(self, item):
        """Opens a menu, reads it and leaves it open: title -> whether it can be chosen."""
        self.open_menu(item)
        until("the menu", self.menu_nodes)
        return {name(node): has(node, "SENSITIVE") for node in self.menu_nodes()}

    def close_menu(self):
        self.session.xdotool("key", "Escape")
        until("the menu's end", lambda: not self.menu_nodes())

    def entries(self, item):
        """Our entries in an item's menu, which is closed again; the menu must hold others too."""
        shown = self.menu(item)
        self.close_menu()
        if not set(shown) - set(ENTRIES):
            raise AssertionError(f"a menu without the file manager's own entries: {shown}")
        return {title: enabled for title, enabled in shown.items() if title in ENTRIES}

    def choose(self, item, title):
        self.menu(item)
        act(next(node for node in self.menu_nodes() if name(node) == title))
        until("the menu's end", lambda: not self.menu_nodes())

    def click(self, x, y, button=1, repeat=1):
        clicks = ["click", "--repeat", repeat, "--delay", 20, button]
        self.session.xdotool("mousemove", x, y, *clicks)

    def rest(self):
        """Nothing selected, the pointer off the files: emblems stand in their own colours."""
        self.session.xdotool("mousemove", 1, 1)


class _IconContainer(FileManager):
    """Caja and Nemo: files can be selected and opened by way of their accessibles."""

    def _select(self, item):
        any_item = next(iter(self.items().values()))
        view = any_item.get_parent()
        view.clear_selection()
        if item is not None:
            view.select_child(self.items()[item].get_index_in_parent())
        wanted = [] if item is None else [item]
        selected = lambda: [name(view.get_selected_child(i)) for i in range(view.get_n_selected_children())]
        until_equal("the selection", wanted, selected)

    def open_menu(self, item):
        self.activate()
        self._select(item)
        self.session.xdotool("key", "Menu")

    def enter(self, folder):
        act(self.items()[folder], "open")

    def rest(self):
        super().rest()
        self._select(None)


class Caja(_IconContainer):
    program = "caja"
    command = ("caja", "--no-desktop", "--browser")
    plugins = ("lib/*/caja/extensions-2.0/libvornet-caja.so", "share/caja/extensions/libvornet-caja.caja-extension")


class Nemo(_IconContainer):
    """Its files' accessibles do not say where they are. Emblems are told apart by their order, which is that of names."""

    program = "nemo"
    command = ("nemo", "--no-desktop")
    plugins = ("lib/*/nemo/extensions-3.0/libvornet-nemo.so",)

    def badges_in_order(self):
        places = []
        for badge, colour in COLOURS.items():
            places += [(y, x, badge) for x, y, width, height in self.session.screen.places(colour) if width * height >= FEWEST_PIXELS]
        return [badge for _, _, badge in sorted(places)]

    @staticmethod
    def _in_order(expected):
        return [badge for name, badge in expected.items() if badge]

    def badges_match(self, expected):
        return self.badges_in_order() == self._in_order(expected)

    def wait_for_badges(self, expected):
        until_equal("the badges in order", self._in_order(expected), self.badges_in_order)


class Nautilus(FileManager):
    program = "nautilus"
    command = ("nautilus", "--new-window")
    plugins = ("lib/*/nautilus/extensions-4/libvornet-nautilus.so",)
    cells = ("table cell",)
    pruned = ("tool bar", "list")

    def is_item(self, node):
        return super().is_item(node) and name(node) != "NautilusGridCell"

    def rectangles(self):
        """GTK 4 knows positions in the window alone, without the margin that is for resizing."""
        found = {}
        for item, node in self.items().items():
            box = extents(node, on_screen=False)
            if box and box[2] > 0:
                x, y = self._origin(node)
                found[item] = (x + box[0], y + box[1], box[2], box[3])
        return found

    def _origin(self, node):
        while role(node) != "frame":
            node = node.get_parent()
        window = self.windows()[-1]
        values = dict(re.findall(r"(\w+)=(-?\d+)", self.session.xdotool("getwindowgeometry", "--shell", window)))
        margin = (int(values["WIDTH"]) - extents(node, on_screen=False)[2]) // 2
        return int(values["X"]) + margin, int(values["Y"]) + margin

    def enter(self, folder):
        self.activate()
        x, y, width, _ = self.rectangles()[folder]
        self.click(x + width // 2, y + 50, repeat=2)

    def open_menu(self, item):
        self.activate()
        boxes = self.rectangles()
        if item is None:
            x, y = self._background(boxes)
        else:
            x, y = boxes[item][0] + boxes[item][2] // 2, boxes[item][1] + 50
        self.click(x, y, button=3)

    @staticmethod
    def _background(boxes):
        """Below the last row of files."""
        return min(box[0] for box in boxes.values()) + 20, max(box[1] + box[3] for box in boxes.values()) + 40


class Thunar(FileManager):
    """Shows its files as a list, because the accessibles of that say where they are. It has no emblems."""

    program = "thunar"
    command = ("thunar",)
    plugins = ("lib/*/thunarx-3/libvornet-thunar.so",)
    cells = ("table cell",)
    has_badges = False
    shows_greyed = False  # but where no entry can be chosen

    def start(self, folder, environment=None):
        super().start(folder, environment)
        self._show_list()

    def open_window(self, folder):
        super().open_window(folder)
        self._show_list()

    def _show_list(self):
        self.activate()
        self.session.xdotool("key", "ctrl+2")

    def enter(self, folder):
        self.activate()
        x, y, width, height = self.rectangles()[folder]
        self.click(x + 20, y + height // 2, repeat=2)

    def open_menu(self, item):
        self.activate()
        boxes = self.rectangles()
        if item is None:
            x, y = max(boxes.values())[0] + 20, max(box[1] + box[3] for box in boxes.values()) + 60
        else:
            x, y = boxes[item][0] + 20, boxes[item][1] + boxes[item][3] // 2
        self.click(x, y, button=3)


class Dolphin(FileManager):
    """Its context menu is not among the accessibles of its windows; it is found by the focus that comes to an entry."""

    program = "dolphin"
    command = ("dolphin", "--new-window")
    plugins = ()
    cells = ("table cell",)
    pruned = ("menu bar", "tool bar", "menu item", "popup menu")

    def __init__(self, session):
        super().__init__(session)
        self._menu = None
        self._focused = []
        self._listener = Atspi.EventListener.new(lambda event: self._focused.append(event.source))

    def start(self, folder, environment=None):
        plugins = f"{self.session.build}/{self.plugin_folder(self.session.build)}"
        super().start(folder, dict(environment or self.session.environment, QT_PLUGIN_PATH=plugins))

    @staticmethod
    def plugin_folder(build):
        """The folder of Qt's plug-ins in the build tree, which holds kf5/overlayicon."""
        found = sorted(build.glob("lib/*/qt5/plugins/kf5/overlayicon")) + sorted(build.glob("lib/*/plugins/kf5/overlayicon"))
        return found[0].parent.parent.relative_to(build) if found else "lib/plugins"

    def enter(self, folder):
        self.activate()
        x, y, width, _ = self.rectangles()[folder]
        self.click(x + width // 2, y + 30, repeat=2)

    def open_menu(self, item):
        self.activate()
        boxes = self.rectangles()
        if item is None:
            x, y = min(box[0] for box in boxes.values()) + 20, max(box[1] + box[3] for box in boxes.values()) + 60
        else:
            x, y = boxes[item][0] + boxes[item][2] // 2, boxes[item][1] + 30
        self._focused.clear()
        self._listener.register("object:state-changed:focused")
        try:
            before = self.session.screen.pixels()
            self.click(x, y, button=3)
            until("the menu on the screen", lambda: self.session.screen.pixels() != before)
            self._menu = until("the menu", self._menu_in_focus)
        finally:
            self._listener.deregister("object:state-changed:focused")

    def _menu_in_focus(self):
        self.session.xdotool("key", "Down")
        context = GLib.MainContext.default()
        while context.iteration(False):
            pass
        for node in self._focused:
            if role(node) == "menu item":
                return node.get_parent()
        return None

    def menu_nodes(self):
        if self._menu is None or not has(self._menu, "SHOWING"):
            return []
        nodes = [self._menu.get_child_at_index(index) for index in range(self._menu.get_child_count())]
        return [node for node in nodes if role(node) == "menu item" and has(node, "SHOWING")]

    def rest(self):
        boxes = self.rectangles()
        x, y = min(box[0] for box in boxes.values()) + 20, max(box[1] + box[3] for box in boxes.values()) + 60
        self.click(x, y)
        super().rest()


def plugin_files(kind, build):
    """What is laid over /usr for a file manager, relative to the build tree; raises when it is not built."""
    files = []
    for pattern in kind.plugins:
        found = [path.relative_to(build) for path in build.glob(pattern)]
        if not found:
            raise FileNotFoundError(f"{build}/{pattern}: the plug-in for {kind.program} is not built")
        files += found
    return files


ALL = {manager.program: manager for manager in (Nautilus, Nemo, Caja, Dolphin, Thunar)}
