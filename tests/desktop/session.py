"""A headless desktop session: a display, a window manager, a message bus and a fresh home, for one file manager."""

import os
import pathlib
import shutil

import processes
from wayland import Wayland
from x11 import X11

SERVICE = "com.vornet.KelvaneSync.FinderBadgeExtension.service"
EMBLEMS = {"SYNCED": "emblem-vornet-synced", "PENDING": "emblem-vornet-pending", "SKIPPED": "emblem-vornet-skipped"}
# Colours that no theme has, to know each emblem by.
COLOURS = {"SYNCED": (0x18, 0xA1, 0x34), "PENDING": (0x1C, 0x6B, 0xE0), "SKIPPED": (0xD4, 0x1E, 0x2F)}
# Those of the emblems themselves (resources/images/scalable).
REAL_COLOURS = {"SYNCED": (0x00, 0x36, 0x06), "PENDING": (0x00, 0x20, 0xA0), "SKIPPED": (0x86, 0x00, 0x00)}
KEPT = ("PATH", "TMPDIR")
DISPLAYS = {"x11": X11, "wayland": Wayland}


class Session:
    """Makes the session in the empty folder `folder`, for the programs of the build tree `build`. `display` is one of
    DISPLAYS."""

    def __init__(self, folder, build, size=(1280, 900), user="home", display="x11"):
        self.folder = pathlib.Path(folder)
        self.home = self.folder / user
        self.build = pathlib.Path(build)
        self.output = self.folder / "session.log"
        self.data = self.home / ".local/share"
        self._processes = []
        self._make_home()
        self.environment = self._environment()
        self._start(DISPLAYS[display], size)

    def _make_home(self):
        for folder in (".config/gtk-3.0", ".cache", ".local/state", "../runtime"):
            (self.home / folder).mkdir(parents=True, exist_ok=True)
        (self.folder / "runtime").chmod(0o700)
        (self.home / ".config/gtk-3.0/settings.ini").write_text("[Settings]\ngtk-menu-images=1\n")
        # From version 48 on Nautilus dims emblems; here they are known by their colours.
        self._style = self.home / ".config/gtk-4.0/gtk.css"
        self._style.parent.mkdir()
        self._style.write_text(".dim-label, .dimmed { opacity: 1; }\n")
        (self.home / ".config/kdeglobals").write_text("[Icons]\nTheme=breeze\n")
        emblems = self.folder / "colours/icons/hicolor/scalable/emblems"
        emblems.mkdir(parents=True)
        for badge, (red, green, blue) in COLOURS.items():
            (emblems / f"{EMBLEMS[badge]}.svg").write_text(
                '<svg xmlns="http://www.w3.org/2000/svg" width="16" height="16">'
                f'<rect width="16" height="16" fill="#{red:02x}{green:02x}{blue:02x}"/></svg>\n'
            )
        self.install_extension()

    def _environment(self):
        environment = {name: os.environ[name] for name in KEPT if name in os.environ}
        environment.update(
            HOME=str(self.home),
            XDG_CONFIG_HOME=str(self.home / ".config"),
            XDG_CACHE_HOME=str(self.home / ".cache"),
            XDG_STATE_HOME=str(self.home / ".local/state"),
            XDG_DATA_HOME=str(self.data),
            XDG_DATA_DIRS=f"{self.folder}/colours:/usr/local/share:/usr/share",
            XDG_RUNTIME_DIR=str(self.folder / "runtime"),
            LANG="C.UTF-8",
            LC_ALL="C.UTF-8",
            GSETTINGS_BACKEND="memory",
            GSK_RENDERER="cairo",
            GTK_USE_PORTAL="0",
            QT_LINUX_ACCESSIBILITY_ALWAYS_ON="1",
            NO_AT_BRIDGE="0",
        )
        return environment

    def _start(self, display, size):
        self.display = display(self, size)
        address, address_in = os.pipe()
        command = ["dbus-daemon", "--session", "--nofork", "--nopidfile", f"--print-address={address_in}"]
        self.start(*command, pass_fds=[address_in])
        os.close(address_in)
        self.environment["DBUS_SESSION_BUS_ADDRESS"] = self.first_line(address, "the message bus")
        # The bindings of the accessibility bus and of the message bus take these from this process.
        os.environ.update(self.environment)
        self.display.manage_windows()

    @property
    def screen(self):
        return self.display.screen

    def first_line(self, descriptor, what):
        with os.fdopen(descriptor, encoding="ascii") as file:
            line = file.readline().strip()
        if not line:
            raise RuntimeError(f"{what} could not be started: {self.output.read_text(errors='replace')}")
        return line

    def install_extension(self):
        """Puts the file that has the bus start the extension where the bus looks for it."""
        services = self.data / "dbus-1/services"
        services.mkdir(parents=True, exist_ok=True)
        shutil.copy(self.build / "share/dbus-1/services" / SERVICE, services)

    def remove_extension(self):
        """Takes the file away again. The bus notices by itself; to be sure, wait until the name cannot be activated."""
        (self.data / "dbus-1/services" / SERVICE).unlink()

    def environment_with_real_emblems(self):
        """For a program that is started with it, the emblems look as they do for users."""
        for cache in (self.home / ".cache").glob("icon-cache*"):
            cache.unlink()  # Dolphin's memory of the coloured ones
        return dict(self.environment, XDG_DATA_DIRS=f"{self.build}/share:/usr/local/share:/usr/share")

    def environment_with_column(self, settings):
        """A program that is started with it, and has its settings below the path `settings`, shows lists with our column."""
        file = self.home / ".config/glib-2.0/settings/keyfile"
        file.parent.mkdir(parents=True, exist_ok=True)
        columns = "['name', 'VornetVI::sync_status']"
        file.write_text(
            f"[{settings}/preferences]\ndefault-folder-viewer='list-view'\n"
            f"[{settings}/list-view]\ndefault-visible-columns={columns}\ndefault-column-order={columns}\n"
        )
        return dict(self.environment, GSETTINGS_BACKEND="keyfile")

    def let_emblems_be_dimmed(self):
        """Programs started from now on draw emblems as opaque as they do for users."""
        self._style.unlink()

    def start(self, *command, environment=None, **options):
        """Starts a program that ends with the session."""
        self._processes.append(processes.start(command, environment or self.environment, self.output, **options))

    def close(self):
        for process in reversed(self._processes):
            processes.end(process)
