"""Visits a large folder and others in one real file manager, and prints its memory and the plug-in's longest turns as JSON.

In KiB and milliseconds. While the large folder is on screen the extension is killed, and comes back.

Usage: visit.py --manager NAME --build DIR --plugin yes|no [--files N] [--visits N]
"""

import json
import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "tests/desktop"))

import managers  # noqa: E402
import processes  # noqa: E402
import program  # noqa: E402
from extension import Extension  # noqa: E402
from paint import longest_turn, wait_until_quiet  # noqa: E402
from session import Session  # noqa: E402
from sync import Sync  # noqa: E402
from waiting import until  # noqa: E402


def make_folders(root, files, visits):
    big = root / "big"
    big.mkdir(parents=True)
    for number in range(files):
        (big / f"file {number:05}.txt").touch()
    inner = root
    for visit in range(visits):
        inner = inner / f"next {visit}"
        inner.mkdir()
        (inner / "a.txt").touch()


def measure(arguments, folder):
    kind = managers.ALL[arguments.manager]
    with_plugin = arguments.plugin == "yes"
    if with_plugin:
        program.install_plugin(kind, arguments.build, folder)
    session = Session(folder / "session", arguments.build)
    root = folder / "session/Kelvane"
    make_folders(root, arguments.files, arguments.visits)
    sync = Sync(session, root)
    sync.start()
    extension = Extension(session)
    manager = kind(session)
    if not with_plugin and not kind.plugins:
        manager.plugin_folder = lambda build: "none"  # Dolphin's are found by way of its environment
    manager.start(root, dict(session.environment, G_MESSAGES_DEBUG="vornet-vi"))
    manager.wait_for_items({"big", "next 0"})
    if with_plugin and kind.has_badges:
        extension.wait_until_running()
    wait_until_quiet(manager.process.pid)

    result = {"before": processes.resident_kib(manager.process.pid)}
    manager.enter("big")
    until("the large folder", lambda: "file 00000.txt" in manager.items())
    wait_until_quiet(manager.process.pid)
    result["folder open"] = processes.resident_kib(manager.process.pid)
    if with_plugin and kind.has_badges:
        extension.kill()
        extension.wait_until_running()
        wait_until_quiet(manager.process.pid)

    manager.go_up()
    manager.wait_for_items({"big", "next 0"})
    wait_until_quiet(manager.process.pid)
    result["folder left"] = processes.resident_kib(manager.process.pid)
    path = root
    for visit in range(arguments.visits - 1):
        manager.enter(f"next {visit}")
        path /= f"next {visit}"
        if with_plugin and kind.has_badges:
            until(f"visit {visit}", lambda path=path: str(path) in extension.observed())
        manager.wait_for_items({f"next {visit + 1}", "a.txt"})
        if not kind.has_badges:
            wait_until_quiet(manager.process.pid, quiet=0.3)  # rows may move while the view is being filled
    wait_until_quiet(manager.process.pid)
    result[f"{arguments.visits} folders later"] = processes.resident_kib(manager.process.pid)
    session.close()
    return result | longest_turn(manager.output.read_text(errors="replace"))


def main():
    parser = program.parser(__doc__)
    parser.add_argument("--plugin", required=True, choices=("yes", "no"))
    parser.add_argument("--files", type=int, default=10_000)
    parser.add_argument("--visits", type=int, default=50)
    arguments = parser.parse_args()
    with program.own_machine() as folder:
        print(json.dumps(measure(arguments, folder)))


if __name__ == "__main__":
    main()
