"""Attacks the extension from outside and prints one table; see docs/reliability.md. Usage: torture.py --build DIR [--short]
[--only TEXT]… [--markdown FILE] [--verbose]. Exit status 1 when a row misses its target, 2 for wrong usage."""

import argparse
import os
import pathlib
import signal
import socket
import sys
import time

sys.path.insert(1, str(pathlib.Path(__file__).resolve().parent.parent / "desktop"))
import namespaces
import program
import table
from attacks import ATTACKS, Torture
from sync_application import PORT

# They register their attacks, in this order.
import bus_floods
import database_faults
import link_faults
import process_faults
import preference_faults
import observers

LONG_FORM_ONLY = (
    "application: 60 MiB of statuses, then few",  # takes half a minute on a busy machine
    "100,000 changes a pass, one observer deaf",  # takes half a minute on a busy machine
)


def take_the_port():
    """In its own namespaces the port is free. Elsewhere it must be."""
    if os.environ.get(namespaces.MARK) == str(os.getpid()) or namespaces.are_possible():
        namespaces.enter()  # restarts this program, the first time
        namespaces.bring_up_loopback()
        return
    with socket.socket() as probe:
        probe.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        try:
            probe.bind(("127.0.0.1", PORT))
        except OSError as error:
            sys.exit(f"torture: port {PORT} is not free: {error.strerror}; end the sync application first")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", required=True, type=program.path)
    parser.add_argument("--short", action="store_true", help="short windows, fewer rounds: about three minutes")
    parser.add_argument("--only", action="append", default=[], help="only the attacks whose names hold this text")
    parser.add_argument("--markdown", type=pathlib.Path, help="also writes the table to this file")
    parser.add_argument("--verbose", action="store_true", help="says why an attack could not run, and how long each took")
    arguments = parser.parse_args()
    left_out = LONG_FORM_ONLY if arguments.short and not arguments.only else ()
    chosen = [one for one in ATTACKS if not arguments.only or any(text in one[0] for text in arguments.only)]
    chosen = [one for one in chosen if one[0] not in left_out]
    if not chosen:
        parser.error("no attack has such a name")
    take_the_port()
    signal.signal(signal.SIGINT, signal.default_int_handler)  # also when it was started to ignore it
    rows, begun = [], time.monotonic()
    with program.workplace() as folder:
        folder.chmod(0o755)  # another user's process starts from here
        torture = Torture(arguments.build, folder, arguments.short, arguments.verbose)
        print(table.header(), flush=True)
        for name, target, function in chosen:
            row = torture.run(name, target, function)
            if arguments.short and row.failed():
                # Short windows have few samples: one stall of the machine spoils a 99th percentile.
                print("\n".join(table.lines(row)) + "\n    once more:", flush=True)
                row = torture.run(name, target, function)
            rows.append(row)
            print("\n".join(table.lines(row)), flush=True)
    print(table.footer(rows))
    for name in left_out:
        print(f"LEFT OUT: {name} (the long form has it)")
    print(f"{time.monotonic() - begun:.0f} s on {os.cpu_count()} processors, load {os.getloadavg()[0]:.1f} at the end")
    if arguments.markdown:
        arguments.markdown.write_text("\n".join(table.markdown(rows)) + "\n", encoding="utf-8")
    return int(any(row.failed() for row in rows))


if __name__ == "__main__":
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        sys.exit(130)
