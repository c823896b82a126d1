"""Measures, in pictures of the real Nautilus, how well its emblems stand out: in its list of the smallest icons, in the light
and the dark theme, at scale 1 (emblems of 16 pixels) and 2.

Usage: contrast.py --build DIR [--keep DIR]
DIR: the build tree. Enlarged pictures of the emblems go to --keep. Prints a table; exit status 1 when a figure misses its bound.

An emblem is what changes in the picture when a file gets its badge; the ground is what was there before. Its shape is made of
the pixels whose relative luminance is at least half as far from the ground's as that of any: colour does not count.
"""

import contextlib
import statistics
import sys

import managers
import processes
import program
from extension import Extension
from session import Session
from sync import Sync
from waiting import until

BADGES = ("SYNCED", "PENDING", "SKIPPED")
THEMES = ("light", "dark")
SCALES = (1, 2)
SIZE = 16  # of an emblem, at scale 1
# Mean over the shape, soft edges included. https://www.w3.org/TR/WCAG21/#non-text-contrast asks it of the plain colour, which
# is the median.
LEAST_CONTRAST = 3.0
# Of the pixels that either of two shapes has, the share that only one has, laid over each other as well as they fit.
LEAST_DIFFERENCE = 0.2
ENLARGED = 8
SETTINGS = """[org/gnome/desktop/interface]
color-scheme='{scheme}'
[org/gnome/nautilus/preferences]
default-folder-viewer='list-view'
[org/gnome/nautilus/list-view]
default-zoom-level='small'
"""


def luminance(pixel):
    """Relative luminance, 0 to 1, of (red, green, blue)."""

    def linear(channel):
        channel /= 255
        return channel / 12.92 if channel <= 0.04045 else ((channel + 0.055) / 1.055) ** 2.4

    return sum(weight * linear(channel) for weight, channel in zip((0.2126, 0.7152, 0.0722), pixel))


def contrast(one, other):
    """WCAG's ratio of two relative luminances."""
    return (max(one, other) + 0.05) / (min(one, other) + 0.05)


class Picture:
    """The pixels of a screen at one moment."""

    def __init__(self, screen):
        self._data = screen.wait_until_still()
        self._width = screen.width

    def at(self, x, y):
        start = 4 * (y * self._width + x)
        blue, green, red = self._data[start : start + 3]
        return red, green, blue

    def changes(self, other):
        """The places (x, y) where another picture has another colour."""
        row = 4 * self._width
        found = []
        for y in range(len(self._data) // row):
            if self._data[y * row : (y + 1) * row] != other._data[y * row : (y + 1) * row]:
                found += [(x, y) for x in range(self._width) if self.at(x, y) != other.at(x, y)]
        return found


class Emblem:
    """One emblem as it was drawn: `before` and `after` are the pictures without and with it."""

    def __init__(self, before, after, scale):
        places = before.changes(after)
        xs, ys = [x for x, _ in places], [y for _, y in places]
        self.box = (min(xs), min(ys), max(xs) - min(xs) + 1, max(ys) - min(ys) + 1)
        if max(self.box[2:]) > SIZE * scale:
            raise AssertionError(f"more than an emblem of {SIZE * scale} pixels has changed: {self.box}")
        ground = {place: luminance(before.at(*place)) for place in places}
        drawn = {place: luminance(after.at(*place)) for place in places}
        furthest = max(abs(drawn[place] - ground[place]) for place in places)
        shape = [place for place in places if abs(drawn[place] - ground[place]) >= furthest / 2]
        ratios = [contrast(drawn[place], ground[place]) for place in shape]
        self.contrast = statistics.median(ratios)
        self.mean = statistics.mean(ratios)
        self.share = len(shape) / (SIZE * scale) ** 2
        self._shape = {(x - self.box[0], y - self.box[1]) for x, y in shape}

    def difference(self, other):
        """0 for equal shapes, 1 for disjoint ones: the least of all ways to lay one over the other."""
        reach = range(-SIZE // 4, SIZE // 4 + 1)
        moved = ({(x + right, y + down) for x, y in other._shape} for right in reach for down in reach)
        return min(len(self._shape ^ shape) / len(self._shape | shape) for shape in moved)

    def lines(self):
        """Its shape as text."""
        _, _, width, height = self.box
        return ["".join("#" if (x, y) in self._shape else "." for x in range(width)) for y in range(height)]


@contextlib.contextmanager
def nautilus(folder, build, theme, scale):
    """Runs Nautilus on a synced folder of three files; yields the session and the stand-in."""
    folder.mkdir()
    session = Session(folder, build, size=(1000 * scale, 640 * scale))
    try:
        session.let_emblems_be_dimmed()
        settings = session.home / ".config/glib-2.0/settings/keyfile"
        settings.parent.mkdir(parents=True)
        settings.write_text(SETTINGS.format(scheme=f"prefer-{theme}" if theme == "dark" else "default"))
        root = session.home / "Kelvane"
        root.mkdir()
        sync = Sync(session, root)
        for badge in BADGES:
            (root / f"{badge.lower()}.txt").write_text("text\n")
            sync.statuses[f"{badge.lower()}.txt"] = ""
        sync.start()
        session.display.move_pointer(1, 1)
        own = {"GSETTINGS_BACKEND": "keyfile", "ADW_DISABLE_PORTAL": "1", "GDK_SCALE": str(scale)}
        managers.Nautilus(session).start(root, dict(session.environment_with_real_emblems(), **own))
        Extension(session).wait_for_observed(root)
        yield session, sync
    finally:
        session.close()


def measure(folder, build, theme, scale, keep):
    """badge -> Emblem."""
    with nautilus(folder, build, theme, scale) as (session, sync):
        screen, emblems = session.screen, {}
        for badge in BADGES:
            before = Picture(screen)
            pixels = screen.pixels()
            sync.set(f"{badge.lower()}.txt", badge)
            until(f"the emblem {badge}", lambda pixels=pixels: screen.pixels() != pixels)
            emblems[badge] = Emblem(before, Picture(screen), scale)
        if keep:
            keep.mkdir(parents=True, exist_ok=True)
            screen.save(keep / f"{theme}-{scale}.png")
            for badge, emblem in emblems.items():
                x, y, width, height = emblem.box
                around = (x - 4 * scale, y - 4 * scale, width + 8 * scale, height + 8 * scale)
                screen.save(keep / f"{theme}-{scale}-{badge.lower()}.png", around, ENLARGED // scale)
        return emblems


def report(theme, scale, emblems):
    """Prints the rows of one theme and scale; returns whether all bounds are kept."""
    kept = True
    for badge, emblem in emblems.items():
        others = {other: emblem.difference(shape) for other, shape in emblems.items() if other != badge}
        nearest = min(others, key=others.get)
        kept = kept and emblem.mean >= LEAST_CONTRAST and others[nearest] >= LEAST_DIFFERENCE
        figures = f"| {emblem.contrast:.1f} | {emblem.mean:.1f} | {100 * emblem.share:.0f} % | {100 * others[nearest]:.0f} % ({nearest.lower()}) |"
        print(f"| {theme} | {scale} | {badge.lower()} {figures}", flush=True)
    return kept


def main():
    parser = program.parser(__doc__, manager=False)
    parser.add_argument("--keep", type=program.path, help="folder for enlarged pictures")
    arguments = parser.parse_args()
    with program.own_machine(ordinary=True) as folder:
        program.install_plugin(managers.Nautilus, arguments.build, folder)
        print("| Theme | Scale | Emblem | Contrast | Edges included | Share of its square | Least difference |\n|---|---|---|---|---|---|---|")
        kept = []
        for theme in THEMES:
            for scale in SCALES:
                emblems = measure(folder / f"{theme}-{scale}", arguments.build, theme, scale, arguments.keep)
                kept.append(report(theme, scale, emblems))
                processes.end_all()
    return 0 if all(kept) else 1


if __name__ == "__main__":
    sys.exit(main())
