"""The table of `script/bench --desktop`: what the plug-ins cost in the real file managers."""

import json
import pathlib
import shutil
import subprocess
import sys

SOURCE = pathlib.Path(__file__).resolve().parents[2]
BUILD = SOURCE / "build/release"
MANAGERS = ("nautilus", "nemo", "caja", "dolphin", "thunar")
REPETITIONS = 1
TIMEOUT = 900  # seconds, for one visit

ROWS = (
    ("Items that the file manager asked for", "items", "", True),
    ("Badges known after the last item came", "known after", "ms", True),
    ("Longest turn of ours on the window's thread", "longest turn", "ms", True),
    ("Longest stall of the window", "longest stall", "ms", False),
    ("Memory before", "memory before", "MiB", False),
    ("Memory with the folder open", "memory with the folder", "MiB", False),
    ("Memory when it is left", "memory afterwards", "MiB", False),
    ("Memory 50 folders later", "memory after visits", "MiB", False),
)


def visit(manager, plugin):
    command = ["/usr/bin/python3", "-B", str(SOURCE / "bench/desktop/visit.py"), "--manager", manager]
    command += ["--build", str(BUILD), "--plugin", plugin]
    print(f"  {manager}, {'with' if plugin == 'yes' else 'without'} the plug-in", file=sys.stderr)
    done = subprocess.run(command, stdout=subprocess.PIPE, text=True, timeout=TIMEOUT, check=True)
    return json.loads(done.stdout)


def lowest(runs, key):
    values = [run[key] for run in runs if run[key] is not None]
    return min(values) if values else None


def text(value, unit):
    if value is None:
        return "–"
    return f"{value / 1024:.1f}" if unit == "MiB" else f"{value:.0f}" if unit != "ms" or value >= 100 else f"{value:.1f}"


def measure():
    """Manager -> figures with the plug-in and without; the lowest of the repetitions, which are interleaved."""
    figures = {}
    for manager in MANAGERS:
        if not shutil.which(manager):
            print(f"  LEFT OUT: {manager} (not installed)", file=sys.stderr)
            continue
        runs = {"yes": [], "no": []}
        for _ in range(REPETITIONS):
            for plugin, done in runs.items():
                done.append(visit(manager, plugin))
        figures[manager] = {
            plugin: {key: lowest(done, key) for _, key, _, _ in ROWS} for plugin, done in runs.items()
        }
    return figures


def table(figures):
    """Markdown: one column a manager; with the plug-in, and behind a stroke without it."""
    lines = ["| | " + " | ".join(manager.capitalize() for manager in figures) + " |", "|---" * (len(figures) + 1) + "|"]
    for title, key, unit, ours_only in ROWS:
        cells = []
        for both in figures.values():
            shown = key if both["yes"]["items"] or not ours_only else None
            cell = text(both["yes"][key], unit) if shown else "–"
            if shown == "longest turn" and not both["yes"][key]:
                cell = "< 1"  # none was long enough to be traced
            cells.append(cell if ours_only else f"{cell} / {text(both['no'][key], unit)}")
        lines.append(f"| {title}{', ' + unit if unit else ''} | " + " | ".join(cells) + " |")
    return "\n".join(lines)


def missed(figures):
    """What is not as quick as it should be: all badges within a second, no turn longer than a frame of the window."""
    found = []
    for manager, both in figures.items():
        if (both["yes"]["known after"] or 0) > 1000:
            found.append(f"{manager}: all badges within 1 s")
        if both["yes"]["longest turn"] > 16:
            found.append(f"{manager}: no turn over 16 ms")
    return found
