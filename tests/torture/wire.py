"""A client of the message bus that speaks its protocol on the bare socket: messages are built once and sent as bytes, and of
those received only the frame and the header are read. So the clients measure the service and not themselves."""

import os
import re
import select
import socket
import struct
import time

from gi.repository import Gio, GLib

NAME = "com.vornet.KelvaneSync.FinderBadgeExtension"
PATH, INTERFACE = "/com/vornet/FinderSync1", "com.vornet.FinderSync1"
BUS = ("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus")
RETURN, ERROR, SIGNAL = 2, 3, 4
_NO_AUTO_START = 2


class Closed(ConnectionError):
    """The bus has closed the connection."""


class Call:
    """A method call, ready to be sent any number of times. `arguments`: a GLib.Variant, a tuple; none for no arguments."""

    def __init__(self, destination, method, arguments=None, path=PATH, interface=INTERFACE, start=False):
        message = Gio.DBusMessage.new_method_call(destination, path, interface, method)
        if not start:
            message.set_flags(Gio.DBusMessageFlags(_NO_AUTO_START))
        if arguments is not None:
            message.set_body(arguments)
        message.set_serial(1)
        blob = bytes(message.to_blob(Gio.DBusCapabilityFlags.NONE))
        assert blob[:1] == b"l", "a machine of the other byte order"
        self._head, self.rest = blob[:8], blob[12:]

    def head(self, serial):
        """The first twelve bytes; `rest` follows."""
        return self._head + struct.pack("<I", serial)


def badges(destination, urls, start=False):
    return Call(destination, "RequestBadges", GLib.Variant("(as)", (urls,)), start=start)


def menu(destination, urls):
    return Call(destination, "GetMenu", GLib.Variant("(as)", (urls,)))


def observe(destination, url):
    return Call(destination, "BeginObserving", GLib.Variant("(s)", (url,)))


def perform(destination, action, urls):
    return Call(destination, "PerformAction", GLib.Variant("(sas)", (action, urls)))


def frame_size(data):
    """The size of the message whose first sixteen bytes `data` begins with."""
    order = "<" if data[0] == 0x6C else ">"
    body, fields = struct.unpack_from(order + "I", data, 4)[0], struct.unpack_from(order + "I", data, 12)[0]
    return 16 + (fields + 7) // 8 * 8 + body


class Message:
    """A received message: its kind, the serial it replies to, the error's name or the signal's."""

    def __init__(self, data):
        self.data = data
        self.kind = data[1]
        self.reply_to, self.error, self.member = 0, "", ""
        order = "<" if data[0] == 0x6C else ">"
        at, end = 16, 16 + struct.unpack_from(order + "I", data, 12)[0]
        while at < end:
            at = (at + 7) // 8 * 8
            field, signature = data[at], data[at + 2 : at + 3]
            at += 4  # the field, and the signature "\1?\0"
            if signature == b"g":
                at += data[at] + 2
                continue
            at = (at + 3) // 4 * 4
            number = struct.unpack_from(order + "I", data, at)[0]
            at += 4
            if signature == b"u":
                if field == 5:
                    self.reply_to = number
                continue
            if field in (3, 4):
                text = data[at : at + number].decode()
                self.member, self.error = (text, self.error) if field == 3 else (self.member, text)
            at += number + 1

    def arguments(self):
        """The content, as Python values."""
        body = Gio.DBusMessage.new_from_blob(self.data, Gio.DBusCapabilityFlags.NONE).get_body()
        return body.unpack() if body else ()


class Connection:
    def __init__(self, address):
        path = re.search(r"unix:(path|abstract)=([^,;]+)", address)
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.connect(("\0" if path[1] == "abstract" else "") + path[2])
        self.socket.sendall(b"\0AUTH EXTERNAL " + str(os.getuid()).encode().hex().encode() + b"\r\n")
        answer = b""
        while not answer.endswith(b"\r\n"):
            answer += self._receive_some(10, 1)
        if not answer.startswith(b"OK "):
            raise Closed(f"the bus does not let us in: {answer!r}")
        self.socket.sendall(b"BEGIN\r\n")
        self._serial = 0
        self._received = bytearray()
        self.name = self.ask(Call(BUS[0], "Hello", None, BUS[1], BUS[2])).arguments()[0]

    def fileno(self):
        return self.socket.fileno()

    def next_serial(self):
        self._serial += 1
        return self._serial

    def send(self, call):
        """Sends the whole of it, waiting if need be. The serial."""
        serial = self.next_serial()
        self.socket.sendall(call.head(serial) + call.rest)
        return serial

    def _receive_some(self, timeout, most=1 << 18):
        if not select.select([self.socket], [], [], max(0, timeout))[0]:
            return b""
        try:
            data = self.socket.recv(most)
        except ConnectionError as error:
            raise Closed(str(error)) from error
        if not data:
            raise Closed("the bus has closed the connection")
        return data

    def receive(self, timeout):
        """The next message; none when none comes within `timeout` seconds."""
        end = time.monotonic() + timeout
        while True:
            if len(self._received) >= 16:
                size = frame_size(self._received)
                if len(self._received) >= size:
                    message = Message(bytes(self._received[:size]))
                    del self._received[:size]
                    return message
            data = self._receive_some(end - time.monotonic())
            self._received += data
            if not data and time.monotonic() >= end:
                return None

    def ask(self, call, timeout=10):
        """Sends a call and waits for its reply, dropping what else comes; none when there is none in time."""
        return self.reply(self.send(call), timeout)

    def reply(self, serial, timeout=10):
        """Waits for the reply to the call of that serial, dropping what else comes; none when there is none in time."""
        end = time.monotonic() + timeout
        while (message := self.receive(end - time.monotonic())) is not None:
            if message.reply_to == serial:
                return message
        return None

    def ask_bus(self, method, *texts):
        """What the bus itself answers; none for an error."""
        arguments = GLib.Variant("(" + "s" * len(texts) + ")", texts) if texts else None
        reply = self.ask(Call(BUS[0], method, arguments, BUS[1], BUS[2]))
        return reply.arguments()[0] if reply and reply.kind == RETURN else None

    def process(self, name=NAME):
        """The process that owns `name`; none when nobody does."""
        return self.ask_bus("GetConnectionUnixProcessID", name)

    def close(self):
        self.socket.close()
