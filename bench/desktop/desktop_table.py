"""The tables of `script/bench --desktop`: what the plug-ins cost in the real file managers."""

import json
import pathlib
import shutil
import statistics
import subprocess
import sys

SOURCE = pathlib.Path(__file__).resolve().parents[2]
BUILD = SOURCE / "build/release"
PAINTING = ("nautilus", "caja", "nemo", "dolphin")
MANAGERS = (*PAINTING, "thunar")  # without emblems
TIMEOUT = 3600  # seconds, for all runs of one file manager
OURS = ("filled", "unfilled")
ALL = ("without", "constant", *OURS)

# Title, figure, decimals, modes that have a row; of a target "1.1 C" is 1.1 times the constant plug-in's.
PAINT = (
    ("Files drawn, s", "files", 2, ALL, {"filled": "1.1 C", "unfilled": "1.1 C"}),
    ("CPU of the file manager, s", "cpu", 2, ALL, {"filled": "1.1 C", "unfilled": "1.1 C"}),
    ("Badges drawn after the files, ms", "later", 0, ALL[1:], {"filled": "100", "unfilled": "150"}),
    ("Badges gone again, ms", "gone", 0, ALL[1:], {"filled": "0", "unfilled": "0"}),
    ("CPU of the extension, s", "extension", 2, OURS, {"unfilled": "0.1"}),
    ("Longest stall, ms", "stall", 0, ALL, {"filled": "1.1 C", "unfilled": "1.1 C"}),
    ("Longest turn of the plug-in, ms", "turn", 1, OURS, {"filled": "4", "unfilled": "4"}),
    ("Most work in a turn, ms", "worked", 1, OURS, {}),
    ("Items asked for", "items", 0, ALL, {}),
    ("Of these asked for again, %", "again", 1, ALL, {"filled": "1"}),
)
NEVER = ("gone", "turn")  # their targets hold for each run, others for the median
MEMORY = ("before", "folder open", "folder left", "50 folders later")


def run(script, manager, *options):
    """The lines of JSON that a script prints."""
    command = ["/usr/bin/python3", "-B", SOURCE / "bench/desktop" / script, "--manager", manager, "--build", BUILD, *options]
    print(f"  {script} {manager} {' '.join(options)}", file=sys.stderr)
    done = subprocess.run(command, stdout=subprocess.PIPE, text=True, timeout=TIMEOUT, check=True)
    return [json.loads(line) for line in done.stdout.splitlines()]


def figure(one, key):
    """A figure of a run; None where it has none."""
    if key == "later":
        return max(0.0, one["badges"] - one["files"]) * 1000 if "badges" in one else None
    if key == "again":
        return 100 * one["again"] / one["items"] if one["items"] else None
    value = one.get(key)
    return value * 1000 if key in ("gone", "stall") and value is not None else value


def measure(chosen, repetitions):
    """Manager -> figures, and the managers that could not be measured."""
    figures, failed = {}, []
    for manager in chosen or MANAGERS:
        if not shutil.which(manager):
            print(f"  LEFT OUT: {manager} (not installed)", file=sys.stderr)
            continue
        try:
            figures[manager] = measure_one(manager, repetitions)
        except subprocess.SubprocessError as error:
            print(f"  FAILED: {manager} ({error})", file=sys.stderr)
            failed.append(manager)
    return figures, failed


def measure_one(manager, repetitions):
    """Figures: (figure, mode) -> values of the repetitions, and "memory" -> with the plug-in and without."""
    found = {"memory": [run("visit.py", manager, "--plugin", plugin)[0] for plugin in ("yes", "no")]}
    runs = run("paint.py", manager, "--repetitions", str(repetitions)) if manager in PAINTING else []
    for _, key, _, modes, _ in PAINT:
        for mode in modes:
            spied = key in ("items", "again")  # what is counted, in the run whose times are discarded
            values = [figure(one, key) for one in runs if one["mode"] == mode and one["spied"] == spied]
            found[key, mode] = [value for value in values if value is not None]
    return found


def verdict(found, key, mode, target):
    """" (1.18: missed)"; "" without a target."""
    values = found[key, mode]
    if not target or not values:
        return ""
    number, _, of = target.partition(" ")
    value, reference = max(values) if key in NEVER else statistics.median(values), 1
    if of:
        reference = statistics.median(found[key, "constant"] or [0])
    result = "met" if value <= float(number) * reference else "missed"
    return f", {value / reference:.2f} C: {result}" if of and reference else f": {result}"


def cell(found, key, mode, decimals, target):
    values = found[key, mode]
    if not values:
        return "–"
    text = f"{statistics.median(values):.{decimals}f}"
    if max(values) > min(values):
        text += f" ({min(values):.{decimals}f}–{max(values):.{decimals}f})"
    return text + verdict(found, key, mode, target)


def rows(figures):
    """Title, target, and a cell for each manager that draws emblems."""
    for title, key, decimals, modes, targets in PAINT:
        for mode in modes:
            target = targets.get(mode)
            cells = [cell(found, key, mode, decimals, target) for found in figures]
            yield f"{title}: {mode}", f"≤ {target}" if target else "–", cells


def table(figures):
    """Markdown: a table of times, medians with the lowest and the highest; then one of memory in MiB, with/without, while
    folders come and go, and of the plug-in's work meanwhile."""
    painting = {manager: found for manager, found in figures.items() if manager in PAINTING}
    lines = ["| | Target | " + " | ".join(manager.capitalize() for manager in painting) + " |"]
    lines += ["|---" * (len(painting) + 2) + "|"]
    lines += [f"| {title} | {target} | {' | '.join(cells)} |" for title, target, cells in rows(painting.values())]
    lines += ["", "| Memory, MiB | " + " | ".join(manager.capitalize() for manager in figures) + " |"]
    lines += ["|---" * (len(figures) + 1) + "|"]
    for name in MEMORY:
        cells = ("/".join(f"{memory[name] / 1024:.1f}" for memory in found["memory"]) for found in figures.values())
        lines.append(f"| {name} | {' | '.join(cells)} |")
    turns = [found["memory"][0] for found in figures.values()]
    lines.append(f"| Most work in a turn, ms | {' | '.join(str(turn['worked']) for turn in turns)} |")
    return "\n".join(lines)


def missed(figures):
    """The targets that were missed."""
    return [
        f"{manager}: {title} ({mode})"
        for manager, found in figures.items()
        for title, key, _, modes, targets in PAINT
        for mode in modes
        if verdict(found, key, mode, targets.get(mode)).endswith("missed")
    ]
