"""A sync application that misbehaves on command, in its own process, which serves the fixed port on bare sockets. It reads
commands from standard input and answers each on standard output, a line of JSON for a line of JSON; it ends with its input.

{"folders": {"/a/": {"prefix": "e", "count": 3, "code": 2}}}   what the folders hold: /a/e00000 to /a/e00002, synced. With
                                                     "turning" every request finds all of them changed. Others are empty.
{"items": {"/a/": {"/a/x": 2}}}                      further items
{"fault": {"COMMAND": "NAME"}}                       what happens to requests; "*" is every command, "" is no fault
{"listen": false}                                    stops or begins to listen
{"flap": 0.1}                                        listens and does not in turn, each so many seconds; 0 listens again
{"one_at_a_time": true}                              serves a connection until the client closes it, then the next one
{"tell": true}                                       only answers

Every answer tells what has been received: requests by command, actions with their paths, bytes, codes of turning folders."""

import json
import socket
import struct
import sys
import threading
import time

PORT = 8806
CODES = (2, 1, 0)


def entries(folder, plan):
    """The reply of a folder as pairs, JSON without its braces."""
    texts = [f'"{folder}{plan["prefix"]}{number:05}":{plan["code"]}' for number in range(plan["count"])]
    return ",".join(texts)


class Application:
    def __init__(self):
        self.lock = threading.Lock()
        self.folders, self.items, self.faults = {}, {}, {}
        self.bodies = {}  # of whole folders, by name and code
        self.requests, self.actions, self.turned, self.received = {}, [], {}, 0
        self.one_at_a_time, self.listener, self.flapping = False, None, None

    # --- Commands ---------------------------------------------------------------------------------------------------

    def command(self, order):
        with self.lock:
            for folder, plan in order.get("folders", {}).items():
                self.folders[folder] = plan
                codes = CODES if plan.get("turning") else (plan["code"],)
                self.bodies[folder] = {code: entries(folder, {**plan, "code": code}) for code in codes}
            self.items.update(order.get("items", {}))
            self.faults.update(order.get("fault", {}))
            self.one_at_a_time = order.get("one_at_a_time", self.one_at_a_time)
        if "flap" in order:
            self.flap(order["flap"])
        if "listen" in order:
            self.listen() if order["listen"] else self.close()
        with self.lock:
            return {"requests": dict(self.requests), "actions": list(self.actions), "bytes": self.received,
                    "turned": dict(self.turned)}

    def listen(self):
        if self.listener:
            return
        listener = socket.socket()
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        listener.bind(("127.0.0.1", PORT))
        listener.listen(128)
        self.listener = listener
        threading.Thread(target=self.accept, args=(listener,), daemon=True).start()

    def close(self):
        listener, self.listener = self.listener, None
        if listener:
            listener.shutdown(socket.SHUT_RDWR)  # wakes who accepts
            listener.close()

    def flap(self, seconds):
        self.flapping = seconds or None
        if seconds:
            threading.Thread(target=self.keep_flapping, args=(seconds,), daemon=True).start()
        else:
            time.sleep(0.3)  # the last turn is over
            self.listen()

    def keep_flapping(self, seconds):
        while self.flapping:
            self.close()
            time.sleep(seconds)
            self.listen()
            time.sleep(seconds)

    # --- Requests ---------------------------------------------------------------------------------------------------

    def accept(self, listener):
        while True:
            try:
                connection, _ = listener.accept()
            except OSError:
                return
            connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            if self.one_at_a_time:
                self.serve(connection)
            else:
                threading.Thread(target=self.serve, args=(connection,), daemon=True).start()

    def serve(self, connection):
        try:
            with connection, connection.makefile("rb") as stream:
                while self.exchange(connection, stream):
                    pass
        except OSError:
            pass  # the client has gone

    def exchange(self, connection, stream):
        """One request and its reply; false when the connection is to end."""
        line = stream.readline(1 << 16)
        if not line:
            return False
        with self.lock:
            self.received += len(line)
        length = 0
        while (header := stream.readline(1 << 16)) not in (b"\r\n", b""):
            name, _, value = header.partition(b":")
            if name.lower() == b"content-length":
                length = int(value)
            if name.lower() == b"expect":
                connection.sendall(b"HTTP/1.1 100 Continue\r\n\r\n")
        body = stream.read(length)
        command = line.split()[1].decode().strip("/")
        with self.lock:
            self.received += length
            self.requests[command] = self.requests.get(command, 0) + 1
            fault = self.faults.get(command) or self.faults.get("*") or ""
        request = json.loads(body) if body else {}
        if command == "select_context_menu":
            with self.lock:
                self.actions.append(request["paths"])
        if fault:
            return getattr(self, "fault_" + fault)(connection, command, request)
        self.reply(connection, self.answer(command, request))
        return True

    def answer(self, command, request):
        if command == "mac_populate_menu":
            return b'{"1":true,"2":true,"3":true,"4":true,"5":true}'
        if command != "get_icons_for_folder":
            return b"{}"
        folder = request["dir_name"]
        with self.lock:
            plan, text = self.folders.get(folder), ""
            if plan:
                if plan.get("turning"):
                    plan["code"] = CODES[(CODES.index(plan["code"]) + 1) % len(CODES)]
                    count, _ = self.turned.get(folder, (0, 0))
                    self.turned[folder] = (count + 1, plan["code"])
                text = self.bodies[folder][plan["code"]]
            more = ",".join(f"{json.dumps(path)}:{code}" for path, code in self.items.get(folder, {}).items())
        return ("{" + ",".join(part for part in (text, more) if part) + "}").encode()

    @staticmethod
    def reply(connection, body, status="200 OK"):
        head = f"HTTP/1.1 {status}\r\nContent-Type: application/json\r\nContent-Length: {len(body)}\r\n\r\n"
        connection.sendall(head.encode() + body)

    # --- Faults: each gets the request read, and ends the connection by returning false ------------------------------

    @staticmethod
    def until_closed(connection):
        while connection.recv(1 << 16):
            pass
        return False

    def fault_silent(self, connection, command, request):
        return self.until_closed(connection)

    def fault_silent_then_close(self, connection, command, request):
        time.sleep(2.79)
        return False

    def fault_close(self, connection, command, request):
        return False

    def fault_reset(self, connection, command, request):
        connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        return False

    def drip(self, connection, data):
        for byte in data:
            connection.sendall(bytes([byte]))
            time.sleep(0.2)
        return False

    def fault_drip_headers(self, connection, command, request):
        return self.drip(connection, b"HTTP/1.1 200 OK\r\nX-Slow: " + b"x" * 100)

    def fault_drip_body(self, connection, command, request):
        connection.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n")
        return self.drip(connection, b"{" + b" " * 100)

    def fault_cut_404(self, connection, command, request):
        connection.sendall(b"HTTP/1.1 404 Not Found\r\nContent-Type: appl")
        return False

    def fault_cut_200(self, connection, command, request):
        connection.sendall(b"HTTP/1.1 200 OK\r\nContent-Type: appl")
        return False

    def fault_slow(self, connection, command, request):
        time.sleep(0.2)
        self.reply(connection, self.answer(command, request))
        return True

    @staticmethod
    def pour(connection, size, key, value, last):
        """A JSON object of `size` bytes: pairs of `value` with keys that all differ, and `last`."""
        connection.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n{" % size)
        piece = b"".join(b'"%s@@@@%05d":%s,' % (key, number, value) for number in range(30_000))
        left, number = size - 1, 0
        while left > len(piece) + len(last) + 1:
            connection.sendall(piece.replace(b"@@@@", b"%04d" % number))
            left, number = left - len(piece), number + 1
        connection.sendall((last + b"}").rjust(left))
        return True

    def fault_huge_statuses(self, connection, command, request):
        """60 MiB of statuses: below the limit."""
        return self.pour(connection, 60 << 20, b"%se" % request["dir_name"].encode(), b"2", b'"":2')

    def fault_huge_mismatch(self, connection, command, request):
        """250 MiB of pairs whose values are no codes."""
        return self.pour(connection, 250 << 20, b"/", b'"x"', b'"":""')

    def fault_huge_menu(self, connection, command, request):
        """250 MiB of a menu whose entries are right."""
        return self.pour(connection, 250 << 20, b"", b"true", b'"1":true')


def main():
    application = Application()
    for line in sys.stdin:
        try:
            answer = application.command(json.loads(line))
        except OSError as error:
            answer = {"error": str(error)}
        print(json.dumps(answer), flush=True)


if __name__ == "__main__":
    main()
