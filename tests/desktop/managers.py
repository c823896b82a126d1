"""The real file managers: how each is started, read and operated."""

import re
import shutil
import signal

from gi.repository import GLib

import accessible
import processes
from session import COLOURS
from waiting import NotSeen, until, until_equal

MENU_ITEMS = ("menu item", "check menu item", "radio menu item")
FEWEST_PIXELS = 20  # of an emblem's colour, to count as one
VIEW_PADDING = 24  # of Nautilus's grid, in pixels
LABELS = {"SYNCED": "Synced", "PENDING": "Sync in progress", "SKIPPED": "Not synced", "": ""}
WITHOUT_TEXT = "unknown"  # what Nemo and Caja show of a file without a text
ENTRIES = ("Share", "Copy Link", "Comments", "View versions", "View in Cloud")


class FileManager:
    """One running file manager in a session. Items are named as their files."""

    program = ""
    command = ()
    plugins = ()  # patterns of what is laid over /usr, relative to the build tree
    cells = ("icon",)  # roles of the files' accessibles
    has_badges = True
    settings = None  # path of its settings, where it shows our column
    column_can_be_clicked = False  # by way of its accessible
    shows_greyed = True
    pruned = ("menu bar", "tool bar")

    def __init__(self, session):
        self.session = session
        self.output = session.folder / f"{self.program}.log"
        self.process = None
        self._bus = accessible.Bus(session.environment["DBUS_SESSION_BUS_ADDRESS"])
        self._app = None
        self._clicks_aside = False
        self._view = None

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
        return self._bus.application(self.process.pid)

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
        return self.session.display.windows(self.program)

    def open_window(self, folder):
        """Opens one more window on `folder`."""
        before = len(self.windows())
        processes.start([*self.command, folder], self.environment, self.output)
        until("one more window", lambda: len(self.windows()) == before + 1)

    def close_window(self, window):
        self.session.display.close_window(window)
        until("the closing of a window", lambda: window not in self.windows())

    def activate(self):
        self.session.display.activate(self.windows()[-1])

    # --- Files on screen

    def items(self):
        """The accessibles of the files on screen: name -> accessible. The view that holds them is remembered."""
        found = self._items_below(self._view) if self._view else {}
        if not found:
            found = self._items_below(self._app)
            self._view = self.view_of(list(found.values())[-1]) if found else None
        return found

    def _items_below(self, node):
        return {item.name(): item for item in node.walk(self.pruned) if self.is_item(item)}

    def is_item(self, node):
        return node.role() in self.cells and node.name() != ""

    def view_of(self, item):
        return item.parent()

    def wait_for_items(self, names):
        names = set(names)

        def all_are_shown():
            if names <= set(self.items()):
                return True
            self._view = None  # another may have taken its place
            return False

        until(f"the files {sorted(names)}", all_are_shown)

    def rectangles(self):
        """Where the files are on the screen: name -> rectangle."""
        return {name: box for name, node in self.items().items() if (box := node.extents()) and box[2] > 0}

    def badges(self, names):
        """The badges of the files on screen among `names`, by the colour in each one's rectangle; "" for none."""
        return {name: self._badge_in(box) for name, box in self.rectangles().items() if name in names}

    def _badge_in(self, box):
        counts = {badge: self.session.screen.count(colour, box) for badge, colour in COLOURS.items()}
        return "+".join(badge for badge, count in counts.items() if count >= FEWEST_PIXELS)

    def badges_match(self, expected):
        return self.badges(expected) == expected

    def wait_for_badges(self, expected):
        until_equal("the badges", expected, lambda: self.badges(expected))

    def column(self, names):
        """What our column says of the files among `names` in a list view, in the order of the list."""
        said, name = {}, None
        for node in self._list().walk():
            text = node.name() or node.text()
            if text in names:
                name = text
                said.setdefault(name, "")
            elif name and text and text in (*LABELS.values(), WITHOUT_TEXT):
                said[name] = text
        return said

    def _list(self):
        return until("a list view", lambda: next(filter(self.is_list, self._app.walk(self.pruned)), None))

    def is_list(self, node):
        return node.role() == "tree table"

    def click_column(self):
        next(node for node in self._list().children() if node.name() == "Sync status").act()

    def coloured_pixels(self):
        """How many pixels of any emblem are on the whole screen."""
        return sum(self.session.screen.count(colour) for colour in COLOURS.values())

    # --- Going from folder to folder

    def enter(self, folder):
        """Opens a folder on screen, in the same window, as the user does."""
        raise NotImplementedError

    def _enter_at(self, x, y, folder):
        """By a click and a key: to Qt 6, two clicks within one millisecond are no double click. One soon after another
        must not make one either, so they alternate between two places."""
        self.activate()
        self._clicks_aside = not self._clicks_aside
        self.click(x + 12 * self._clicks_aside, y)
        until(f"the selection of {folder}", lambda: (item := self.items().get(folder)) and item.has("SELECTED"))
        self.session.display.key("Return")

    def go_up(self):
        self.activate()
        self.session.display.key("alt+Up")

    # --- Menus

    def open_menu(self, item):
        """Opens the context menu of an item, or with None that of the folder's background."""
        raise NotImplementedError

    def menu_nodes(self):
        """The accessibles of what the open menu shows; empty without one. A menu is a separate window."""
        windows = [node for node in self._app.children() if node.role() == "window"]
        return [node for window in windows for node in window.walk() if node.role() in MENU_ITEMS and node.has("SHOWING")]

    def menu(self, item):
        """Opens a menu, reads it and leaves it open: title -> whether it can be chosen."""
        return {title: node.has("SENSITIVE") for title, node in self._open_menu(item).items()}

    def _open_menu(self, item):
        self.open_menu(item)
        nodes = until("the menu", self.menu_nodes)
        return {self.title(node): node for node in nodes}

    def title(self, entry):
        return entry.name()

    def close_menu(self):
        self.session.display.key("Escape")
        self._wait_for_menu_gone()

    def _wait_for_menu_gone(self):
        until("the menu's end", lambda: not self.session.display.has_popup(self.program) and not self.menu_nodes())

    def entries(self, item):
        """Our entries in an item's menu, which is closed again; the menu must hold others too."""
        shown = self.menu(item)
        self.close_menu()
        if not set(shown) - set(ENTRIES):
            raise AssertionError(f"a menu without the file manager's own entries: {shown}")
        return {title: enabled for title, enabled in shown.items() if title in ENTRIES}

    def choose(self, item, title):
        self.press(self._open_menu(item)[title])
        self._wait_for_menu_gone()

    def press(self, entry):
        entry.act()

    def click(self, x, y, button=1):
        self.session.display.click(x, y, button)

    def rest(self):
        """Nothing selected, the pointer off the files: emblems have their own colours."""
        self.session.display.move_pointer(1, 1)


class _IconContainer(FileManager):
    """Caja and Nemo: files can be selected and opened by way of their accessibles."""

    pruned = ("menu bar", "tool bar", "table", "tree table", "icon")
    column_can_be_clicked = True

    def is_item(self, node):
        return super().is_item(node) and node.parent().role() == "layered pane"

    def is_list(self, node):
        return super().is_list(node) and node.name() == "List View"

    def _select(self, item):
        until(f"the selection of {item}", lambda: self._is_selected(item))

    def _is_selected(self, item):
        items = self.items()
        if not items or (item is not None and item not in items):
            return False
        try:
            view = next(iter(items.values())).parent()
            wanted = [] if item is None else [items[item]]
            if view.selected() == wanted:
                return True
            view.select(*wanted or [None])
        except GLib.Error:
            pass  # the folder is being shown again
        return False

    def open_menu(self, item):
        self.activate()
        self._select(item)
        self.session.display.key("Menu")

    def enter(self, folder):
        self.items()[folder].act("open")

    def rest(self):
        super().rest()
        self._select(None)


class Caja(_IconContainer):
    program = "caja"
    command = ("caja", "--no-desktop", "--browser")
    settings = "org/mate/caja"
    plugins = ("lib/*/caja/extensions-2.0/libvornet-caja.so", "share/caja/extensions/libvornet-caja.caja-extension")


class Nemo(_IconContainer):
    """Its files' accessibles do not say where they are. Emblems are assigned by their order, which is that of names."""

    program = "nemo"
    command = ("nemo", "--no-desktop")
    settings = "org/nemo"
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
    settings = "org/gnome/nautilus"
    plugins = ("lib/*/nautilus/extensions-4/libvornet-nautilus.so",)
    cells = ("table cell",)
    pruned = ("tool bar", "list")

    def is_item(self, node):
        return super().is_item(node) and node.name() != "NautilusGridCell"

    def _items_below(self, node):
        """From version 51 on their names are followed by their kinds."""
        return {re.sub(r"\. (File|Folder)$", "", name): item for name, item in super()._items_below(node).items()}

    def view_of(self, item):
        return item.parent().parent()

    def rectangles(self):
        """GTK 4 knows positions in the window alone, without the margin that is for resizing; from 4.18 on the frame says
        how far its content is from its edge, and leaves out the padding of the view."""
        found = {}
        for item, node in self.items().items():
            box = node.extents(on_screen=False)
            if box and box[2] > 0:
                x, y = self._origin(node)
                found[item] = (x + box[0], y + box[1], box[2], box[3])
        return found

    def _origin(self, node):
        while node.role() != "frame":
            node = node.parent()
        x, y, whole = self.session.display.geometry(self.windows()[-1])
        left, top, width, _ = node.extents(on_screen=False)
        margin = (whole - width) // 2
        padding = VIEW_PADDING if left else 0
        return x + margin - left + padding, y + margin - top + padding

    def _select(self, item):
        """By one click and, from then on, keys: GTK 4 passes over clicks after a menu that the pointer had opened."""
        self.activate()
        boxes = self.rectangles()
        if item is None:  # below the last row of files
            x, y = min(box[0] for box in boxes.values()) + 20, max(box[1] + box[3] for box in boxes.values()) + 40
        else:
            x, y = boxes[item][0] + boxes[item][2] // 2, boxes[item][1] + 50
        self.click(x, y)
        wanted = f"“{item}” selected" if item else ""
        until(f"the selection of {item}", lambda: self._selection().startswith(wanted) and bool(wanted) == bool(self._selection()))

    def _selection(self):
        """The window's text on the selection; "" while nothing is selected."""
        names = (node.name() for node in self._app.walk((*self.pruned, "table")))
        return next((text for text in names if " selected" in text), "")

    def enter(self, folder):
        self._select(folder)
        self.session.display.key("Return")

    def open_menu(self, item):
        self._select(item)
        self.session.display.key("Menu")

    def title(self, entry):
        """From GTK 4.18 on an entry has no name but a label."""
        return entry.name() or next(filter(None, entry.labels()), "")

    def menu_nodes(self):
        """Its menu is in its window, and no more once it is closed."""
        return [node for node in self._app.walk((*self.pruned, "table")) if node.role() in MENU_ITEMS]


class Thunar(FileManager):
    """Shows its files as a list, because the accessibles of that say where they are. It has no emblems."""

    program = "thunar"
    command = ("thunar",)
    plugins = ("lib/*/thunarx-3/libvornet-thunar.so",)
    cells = ("table cell",)
    pruned = ("menu bar", "tool bar", "status bar")
    has_badges = False
    shows_greyed = False  # but where no entry can be chosen
    menu_offset = 20  # pixels from a file's left edge, where it is right-clicked

    def start(self, folder, environment=None):
        super().start(folder, environment)
        self._show_list()

    def open_window(self, folder):
        super().open_window(folder)
        self._show_list()

    def _show_list(self):
        self.activate()
        self.session.display.key("ctrl+2")

    def view_of(self, item):
        return None  # the list of places beside the files holds accessibles of the same kind

    def enter(self, folder):
        x, y, _, height = self.rectangles()[folder]
        self._enter_at(x + 20, y + height // 2, folder)

    def open_menu(self, item):
        self.activate()
        boxes = self.rectangles()
        if item is None:
            x, y = max(boxes.values())[0] + 20, max(box[1] + box[3] for box in boxes.values()) + 60
        else:
            x, y = boxes[item][0] + self.menu_offset, boxes[item][1] + boxes[item][3] // 2
        self.click(x, y, button=3)


class Dolphin(FileManager):
    """Its context menu is not among the accessibles of its windows; it is found by its appearance."""

    program = "dolphin"
    command = ("dolphin", "--new-window")
    plugins = ()
    cells = ("table cell", "list item")  # of Qt 5 and of Qt 6
    pruned = ("menu bar", "tool bar", "menu item", "popup menu")
    menu_offset = 30  # pixels from an item's upper edge, where it is right-clicked

    def __init__(self, session):
        super().__init__(session)
        self._menu = None
        self._appearances = accessible.AppearanceWatch(self._bus)

    def is_item(self, node):
        """The list of files has its folder's name; that of places has none."""
        return super().is_item(node) and (node.role() != "list item" or node.parent().name() != "")

    def start(self, folder, environment=None):
        plugins = f"{self.session.build}/{self.plugin_folder(self.session.build)}"
        super().start(folder, dict(environment or self.session.environment, QT_PLUGIN_PATH=plugins))

    @staticmethod
    def plugin_folder(build):
        """The folder of Qt's plug-ins in the build tree, which holds kf5/overlayicon or kf6/overlayicon."""
        found = sorted(build.glob("lib/*/**/plugins/kf[56]/overlayicon"))
        return found[0].parent.parent.relative_to(build) if found else "lib/plugins"

    def enter(self, folder):
        x, y, width, _ = self.rectangles()[folder]
        self._enter_at(x + width // 2, y + 30, folder)

    def open_menu(self, item):
        self.activate()
        boxes = self.rectangles()
        if item is None:
            x, y = min(box[0] for box in boxes.values()) + 20, max(box[1] + box[3] for box in boxes.values()) + 60
        else:
            x, y = boxes[item][0] + boxes[item][2] // 2, boxes[item][1] + self.menu_offset
        self._appearances.forget()
        self.click(x, y, button=3)
        self._menu = self._appearances.wait_for("the menu", lambda node: node.role() == "popup menu")

    def menu_nodes(self):
        if self._menu is None or not self._menu.has("SHOWING"):
            return []
        return [node for node in self._menu.children() if node.role() == "menu item" and node.has("SHOWING")]

    def press(self, entry):
        if not self.session.display.places_popups:
            return self._press_by_keys(entry)
        x, y, width, height = entry.extents()
        self.click(x + width // 2, y + height // 2)

    def badges(self, names):
        """Going up selects the folder left, maybe after rest(); emblems of what is selected have other colours."""
        if any(item.has("SELECTED") for item in self.items().values()):
            self.rest()
        return super().badges(names)

    def _press_by_keys(self, entry):
        def is_marked():
            if not entry.has("FOCUSED"):
                self.session.display.key("Down")
            return entry.has("FOCUSED")

        until("the entry marked", is_marked)
        self.session.display.key("Return")

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
