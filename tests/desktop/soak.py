"""Works with one real file manager for a long time, in a random order, repeatable by seed: goes from folder to folder, opens menus,
changes files and statuses, kills and restarts the extension and the stand-in. Then every badge must be right.

Usage: soak.py --manager NAME --build DIR [--minutes N] [--seed N] [--keep DIR]
Exit status 1 when the file manager ended, something was not seen, or memory grew beyond the bound.
"""

import collections
import random
import shutil
import sys
import time

import managers
import processes
import program
from desktop_test import Desktop
from waiting import NotSeen

# KiB that a program's own memory may grow between the first quarter of the time and the end.
MOST_GROWTH = {"file manager": 32 * 1024, "extension": 8 * 1024}
BADGES = ("SYNCED", "PENDING", "SKIPPED", "")
FOLDERS = ("one", "two words", "drei ü")
FILES = ("a b.txt", "c#d.txt", "e%41f.txt", "g;h&i.txt", "zoë 🙂.txt", "long " + "x" * 60 + ".txt")


class Soak:
    def __init__(self, desktop, seed):
        self.t = desktop
        self.manager = desktop.manager
        self.random = random.Random(seed)
        self.done = collections.Counter()
        self.here = None  # the folder on screen, None for the root
        self.made = []
        shutil.rmtree(desktop.sub)
        for file in list(desktop.root.iterdir()):
            file.unlink()
        desktop.sync.statuses.clear()
        for folder in FOLDERS:
            (desktop.root / folder).mkdir()
            for file in FILES:
                (desktop.root / folder / file).write_text("text\n")
                desktop.sync.statuses[f"{folder}/{file}"] = self.random.choice(BADGES)
            desktop.sync.statuses[folder] = self.random.choice(BADGES)
        # Names that are no text have no badge, and must do no harm.
        (desktop.root / FOLDERS[0] / "caf\udce9").write_text("text\n")

    def start(self):
        self.t.sync.start()
        self.manager.start(self.t.root)
        self.manager.wait_for_items(FOLDERS)

    def step(self):
        actions = {
            self.navigate: 30,
            self.look_at_a_menu: 20,
            self.change_a_status: 20,
            self.write_a_file: 6,
            self.make_a_file: 5,
            self.remove_a_file: 4,
            self.open_and_close_a_window: 4,
            self.kill_the_extension: 4,
            self.freeze_the_extension: 3,
            self.restart_the_sync_application: 3,
            self.stall_the_sync_application: 3,
        }
        action = self.random.choices(list(actions), list(actions.values()))[0]
        action()
        self.done[action.__name__] += 1
        if not self.manager.is_running():
            raise NotSeen(f"{self.manager.program} has ended")

    def navigate(self):
        if self.here is None:
            self.here = self.random.choice(FOLDERS)
            self.manager.enter(self.here)
            self.manager.wait_for_items(FILES)
        else:
            self.here = None
            self.manager.go_up()
            self.manager.wait_for_items(FOLDERS)

    def look_at_a_menu(self):
        entries = self.manager.entries(self.random.choice(FILES if self.here else FOLDERS))
        if self.manager.shows_greyed:
            assert set(entries) == set(managers.ENTRIES), entries

    def change_a_status(self):
        self.t.sync.set(self.random.choice(list(self.t.sync.statuses)), self.random.choice(BADGES))

    def write_a_file(self):
        (self.t.root / self.random.choice(FOLDERS) / self.random.choice(FILES)).write_text(f"text {self.random.random()}\n")

    def make_a_file(self):
        self.made.append(self.t.root / self.random.choice(FOLDERS) / f"new {sum(self.done.values())}.txt")
        self.made[-1].write_text("new\n")

    def remove_a_file(self):
        if self.made:
            self.made.pop(self.random.randrange(len(self.made))).unlink()

    def open_and_close_a_window(self):
        self.manager.open_window(self.t.root)
        self.manager.close_window(self.manager.windows()[-1])
        self.manager.wait_for_items(FILES if self.here else FOLDERS)

    def kill_the_extension(self):
        if self.t.extension.process():
            self.t.extension.kill()

    def freeze_the_extension(self):
        if not self.t.extension.process():
            return
        self.t.extension.freeze()
        self.navigate()
        self.look_at_a_menu()
        self.t.extension.thaw()

    def restart_the_sync_application(self):
        self.t.sync.stop()
        self.navigate()
        self.t.sync.start()

    def stall_the_sync_application(self):
        self.t.sync.stall(2)
        self.navigate()

    def memory(self):
        """KiB of each program's private memory; of the extension, when it is running."""
        extension = self.t.extension.process()
        memory = {"file manager": processes.resident_kib(self.manager.process.pid)}
        if extension:
            memory["extension"] = processes.resident_kib(extension)
        return memory

    def finish(self):
        """Every badge right, in every folder."""
        while self.made:
            self.remove_a_file()
        if self.here is not None:
            self.navigate()
        for name in self.t.sync.statuses:
            self.t.sync.set(name, self.random.choice(BADGES))
        if not self.manager.has_badges:
            return
        for folder in (None, *FOLDERS):
            if folder:
                self.manager.enter(folder)
                self.manager.wait_for_items(FILES)
            names = FILES if folder else FOLDERS
            self.manager.rest()
            # In the order in which Nemo shows them.
            shown = sorted(names)
            self.manager.wait_for_badges({name: self.t.sync.statuses[f"{folder}/{name}" if folder else name] for name in shown})
            if folder:
                self.manager.go_up()
                self.manager.wait_for_items(FOLDERS)


def soak(arguments, folder):
    kind = managers.ALL[arguments.manager]
    program.install_plugin(kind, arguments.build, folder)
    desktop = Desktop(kind, folder / "session", arguments.build)
    work = Soak(desktop, arguments.seed)
    first, last, warm = {}, {}, False
    try:
        start = time.monotonic()
        work.start()
        while (passed := time.monotonic() - start) < arguments.minutes * 60:
            work.step()
            warm = warm or passed > arguments.minutes * 15
            if warm:
                last.update(work.memory())
                for program, size in last.items():
                    first.setdefault(program, size)
        work.finish()
    except Exception:  # whatever it is, the soak has failed
        desktop.failed(f"after {dict(work.done)}", arguments.keep)
        return 1
    finally:
        desktop.close()
    failed = 0
    print(f"{arguments.manager}, seed {arguments.seed}, {arguments.minutes:g} minutes: {sum(work.done.values())} steps")
    for name, count in sorted(work.done.items()):
        print(f"  {count:5}  {name.replace('_', ' ')}")
    for program, size in first.items():
        growth = last[program] - size
        failed |= growth > MOST_GROWTH[program]
        verdict = "TOO MUCH" if growth > MOST_GROWTH[program] else "within"
        print(
            f"  {program}: {size / 1024:.1f} MiB after the first quarter, {last[program] / 1024:.1f} MiB at the end, "
            f"{growth / 1024:+.1f} MiB ({verdict} {MOST_GROWTH[program] // 1024} MiB)"
        )
    print("  all badges right at the end" if kind.has_badges else "  no badges to look at", flush=True)
    return int(failed)


def main():
    parser = program.parser(__doc__)
    parser.add_argument("--minutes", type=float, default=10)
    parser.add_argument("--seed", type=int, default=random.SystemRandom().randrange(1 << 31))
    parser.add_argument("--keep", type=program.path, help="folder for what a failure leaves (default: in the build tree)")
    arguments = parser.parse_args()
    arguments.keep = arguments.keep or arguments.build / "soak" / arguments.manager
    with program.own_machine() as folder:
        return soak(arguments, folder)


if __name__ == "__main__":
    sys.exit(main())
