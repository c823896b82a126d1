"""What is on the screen: read as pixels, and counted there."""

import mmap
import struct
import subprocess
import time
import zlib

from waiting import until


class Screen:
    """A picture of `width` and `height`. Rectangles are (x, y, width, height) in pixels of the screen."""

    width = height = 0

    def _rows(self, rectangle):
        """The rows of a rectangle, from the top: 4 bytes a pixel, blue, green, red, and one without meaning."""
        raise NotImplementedError

    def count(self, colour, rectangle=None):
        """The number of pixels that have exactly `colour` (red, green, blue)."""
        red, green, blue = colour
        pixel = bytes((blue, green, red))
        return sum(1 for row in self._rows(rectangle) for _ in _columns(row, pixel))

    def places(self, colour, rectangle=None):
        """Where `colour` is: the rectangle of each group of its pixels that touch each other."""
        red, green, blue = colour
        pixel = bytes((blue, green, red))
        left, top = (rectangle or (0, 0))[:2]
        groups = []  # [left, top, right, bottom]
        for y, row in enumerate(self._rows(rectangle), max(0, top)):
            for start, end in _runs(row, pixel):
                start, end = start + max(0, left), end + max(0, left)
                joined = [group for group in groups if group[3] >= y - 1 and group[0] <= end and group[2] >= start]
                groups = [group for group in groups if group not in joined]
                joined.append([start, y, end, y])
                groups.append([f(group[i] for group in joined) for i, f in enumerate((min, min, max, max))])
        return [(x, y, right - x + 1, bottom - y + 1) for x, y, right, bottom in groups]

    def pixels(self, rectangle=None):
        """All pixels as bytes, to be compared with those of another moment."""
        return b"".join(self._rows(rectangle))

    def wait_until_still(self):
        """Waits until nothing moves any more, and returns the pixels."""
        seen = [b"", self.pixels()]

        def unchanged():
            time.sleep(0.5)
            seen[:] = [seen[1], self.pixels()]
            return seen[0] == seen[1]

        until("a still picture", unchanged)
        return seen[1]

    def save(self, file, rectangle=None, enlarged=1):
        """Writes a PNG file, each pixel as a square of `enlarged` by `enlarged`."""
        rows = list(self._rows(rectangle))
        if enlarged > 1:
            pixels = ([row[start : start + 4] for start in range(0, len(row), 4)] for row in rows)
            rows = [b"".join(pixel * enlarged for pixel in row) for row in pixels for _ in range(enlarged)]
        lines = []
        for row in rows:
            line = bytearray(len(row) // 4 * 3)
            line[0::3], line[1::3], line[2::3] = row[2::4], row[1::4], row[0::4]
            lines.append(b"\0" + line)

        def chunk(kind, data):
            return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))

        head = struct.pack(">IIBBBBB", len(rows[0]) // 4, len(rows), 8, 2, 0, 0, 0)
        with open(file, "wb") as out:
            out.write(b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", head))
            out.write(chunk(b"IDAT", zlib.compress(b"".join(lines), 6)) + chunk(b"IEND", b""))


class XvfbScreen(Screen):
    """The picture in `file`, as `Xvfb -fbdir` keeps it."""

    def __init__(self, file):
        with open(file, "rb") as handle:
            self._map = mmap.mmap(handle.fileno(), 0, access=mmap.ACCESS_READ)
        # The header of the X window dump format: 25 numbers, most significant byte first.
        header = struct.unpack(">25I", self._map[:100])
        self.width, self.height, byte_order, depth = header[4], header[5], header[7], header[11]
        self._stride = header[12]
        self._start = header[0] + header[19] * 12
        if byte_order != 0 or depth != 32:
            raise RuntimeError("the screen has not 32 bits a pixel, lowest byte first")

    def _rows(self, rectangle):
        x, y, width, height = rectangle or (0, 0, self.width, self.height)
        left, right = max(0, x), min(self.width, x + width)
        for row in range(max(0, y), min(self.height, y + height)):
            start = self._start + row * self._stride
            yield self._map[start + left * 4 : start + max(left, right) * 4]


class GrimScreen(Screen):
    """The output of a Wayland compositor, as the program grim copies it, again for each question."""

    def __init__(self, environment, width, height):
        self._environment = environment
        self.width, self.height = width, height

    def _rows(self, rectangle):
        x, y, width, height = rectangle or (0, 0, self.width, self.height)
        left, top, right, bottom = max(0, x), max(0, y), min(self.width, x + width), min(self.height, y + height)
        if left >= right or top >= bottom:
            return
        command = ["grim", "-t", "ppm", "-g", f"{left},{top} {right - left}x{bottom - top}", "-"]
        picture = subprocess.run(command, env=self._environment, capture_output=True, timeout=20, check=True).stdout
        columns, rows = (int(number) for number in picture.split(maxsplit=3)[1:3])
        data = picture[-columns * rows * 3 :]
        for start in range(0, len(data), columns * 3):
            row = bytearray(columns * 4)
            row[0::4], row[1::4], row[2::4] = (data[start + colour : start + columns * 3 : 3] for colour in (2, 1, 0))
            yield bytes(row)


def _columns(row, pixel):
    at = row.find(pixel)
    while at >= 0:
        if at % 4 == 0:
            yield at // 4
        at = row.find(pixel, at + 1)


def _runs(row, pixel):
    """(first, last) column of each run of a pixel."""
    first = last = None
    for column in _columns(row, pixel):
        if last is not None and column > last + 1:
            yield first, last
            first = None
        first, last = column if first is None else first, column
    if first is not None:
        yield first, last
