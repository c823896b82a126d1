"""The one table: a row an attack."""

import dataclasses
import textwrap

WIDTH = 100
COLUMNS = (("p50", "ms"), ("p99", "ms"), ("bare", "p99"), ("before", "MiB"), ("peak", "MiB"), ("after", "MiB"))
MET, MISSED, NOT_RUN, IMPOSSIBLE = "met", "MISSED", "NOT RUN", "impossible"


@dataclasses.dataclass
class Row:
    attack: str
    target: str
    p50: float | None = None
    p99: float | None = None
    bare: float | None = None
    before: float | None = None
    peak: float | None = None
    after: float | None = None
    lost: list = dataclasses.field(default_factory=list)
    notes: list = dataclasses.field(default_factory=list)
    missed: list = dataclasses.field(default_factory=list)  # what of the target was missed
    result: str = ""

    def __post_init__(self):
        self.result = self.result or (MISSED if self.missed else MET)

    def times(self, times):
        self.p50, self.p99 = times.p50, times.p99

    def memory(self, memory):
        self.before, self.peak, self.after = memory.before, memory.peak, memory.after

    def judge(self):
        """Decides by what was missed."""
        self.result = MISSED if self.missed else MET
        return self

    def require(self, condition, otherwise):
        if not condition:
            self.missed.append(otherwise)

    def failed(self):
        return self.result in (MISSED, NOT_RUN)

    def figures(self):
        values = (self.p50, self.p99, self.bare, self.before, self.peak, self.after)
        return ["-" if value is None else f"{value:.1f}" if value < 100 else f"{value:,.0f}" for value in values]

    def details(self):
        yield "target", self.target
        yield "lost", ", ".join(self.lost) or "nothing"
        if self.notes:
            yield "seen", "; ".join(self.notes)
        if self.missed:
            yield "missed", "; ".join(self.missed)


def header():
    first = f"{'attack':46}" + "".join(f"{name:>7}" for name, _ in COLUMNS) + "  result"
    second = " " * 46 + "".join(f"{unit:>7}" for _, unit in COLUMNS)
    return f"{first}\n{second}\n{'-' * WIDTH}"


def lines(row):
    """The row for a terminal: its figures, and below what was to be met and what was lost."""
    yield f"{row.attack[:46]:46}" + "".join(f"{text:>7}" for text in row.figures()) + f"  {row.result}"
    for name, text in row.details():
        yield from textwrap.wrap(f"{name}: {text}", WIDTH, initial_indent="    ", subsequent_indent="      ")


def footer(rows):
    failed = [row.attack for row in rows if row.failed()]
    return f"{'-' * WIDTH}\n{len(rows)} attacks, {len(rows) - len(failed)} as they must be, {len(failed)} not"


def markdown(rows):
    yield "| Attack | p50 | p99 | bare p99 | before | peak | after | Lost | Target | |"
    yield "|---|--:|--:|--:|--:|--:|--:|---|---|---|"
    for row in rows:
        figures = ["" if figure == "-" else figure for figure in row.figures()]
        cells = [row.attack, *figures, ", ".join(row.lost), row.target, row.result]
        yield "| " + " | ".join(cell.replace("|", "\\|") for cell in cells) + " |"
