"""The figures of a run: rows with their medians, ratios and targets, printed as a table, as Markdown or as JSON."""

import dataclasses
import statistics

# unit -> digits behind the point
UNITS = {"ns": 2, "us": 1, "ms": 3, "s": 2, "KiB": 1, "MiB": 1, "%": 3, "calls": 5, "M records/s": 2, "MB/s": 1}


@dataclasses.dataclass
class Target:
    text: str
    is_met: bool


@dataclasses.dataclass
class Row:
    group: str
    subject: str
    variant: str
    unit: str
    samples: list
    native: "Row" = None
    floors: dict = dataclasses.field(default_factory=dict)  # name of the floor -> Row
    target: Target = None
    note: str = ""
    is_skipped: bool = False

    @property
    def median(self):
        return statistics.median(self.samples) if self.samples else None

    def quartiles(self):
        if len(self.samples) < 4:
            return min(self.samples), max(self.samples)
        low, _, high = statistics.quantiles(self.samples, n=4)
        return low, high

    def added(self):
        """What is added to the native figure, in the row's unit."""
        return self.median - self.native.median if self.samples and self.native else None

    def ratios(self):
        others = ({"native": self.native} if self.native else {}) | self.floors
        return {name: self.median / row.median for name, row in others.items() if self.samples and row.median}

    def as_json(self):
        fact = {"group": self.group, "subject": self.subject, "variant": self.variant, "unit": self.unit}
        if self.samples:
            low, high = self.quartiles()
            fact |= {"median": self.median, "quartiles": [low, high], "least": min(self.samples),
                     "most": max(self.samples), "samples": len(self.samples)}
        if self.added() is not None:
            fact["added"] = self.added()
        if self.ratios():
            fact["ratios"] = self.ratios()
        if self.target:
            fact["target"] = {"text": self.target.text, "met": self.target.is_met}
        if self.note:
            fact["note"] = self.note
        return fact


def skipped(group, subject, variant, reason):
    """A row that says why there is no figure."""
    return Row(group, subject, variant, "", [], note=reason, is_skipped=True)


def _number(value, unit):
    return f"{value:,.{UNITS[unit]}f}"


def _cells(row):
    if not row.samples:
        return [row.subject, row.variant, "-", "", "", "", row.note]
    low, high = row.quartiles()
    spread = f"{_number(low, row.unit)}..{_number(high, row.unit)}" if len(row.samples) > 1 else ""
    added = "" if row.added() is None else f"{row.added():+,.{UNITS[row.unit]}f}"
    ratios = ", ".join(f"{ratio:.2f} {name}" for name, ratio in row.ratios().items())
    verdict = "" if not row.target else f"{row.target.text}: {'met' if row.target.is_met else 'NOT MET'}"
    remarks = "; ".join(text for text in (verdict, row.note) if text)
    return [row.subject, row.variant, f"{_number(row.median, row.unit)} {row.unit}", spread, added, ratios, remarks]


def markdown(rows):
    """One table a group, without the spread: the form of Docs/performance.md."""
    titles = ["what", "variant", "median", "over native", "x", "target; note"]
    text = []
    for group in dict.fromkeys(row.group for row in rows):
        text += ["", f"**{group[0].upper()}{group[1:]}**", "", f"| {' | '.join(titles)} |",
                 "|---|---|---:|---:|---|---|"]
        for row in rows:
            if row.group == group:
                subject, variant, median, _, *others = _cells(row)
                text.append(f"| {' | '.join([subject, variant, median, *others])} |")
    return "\n".join(text[1:])


TITLES = ["what", "variant", "median", "quartiles", "over native", "x", "target; note"]
RIGHT_ALIGNED = {2, 3, 4}


def table(rows):
    cells = [TITLES] + [_cells(row) for row in rows]
    widths = [max(len(line[column]) for line in cells) for column in range(len(TITLES))]

    def line(values):
        return "  ".join(value.rjust(width) if column in RIGHT_ALIGNED else value.ljust(width)
                         for column, (value, width) in enumerate(zip(values, widths))).rstrip()

    text = [line(TITLES)]
    group = None
    for row, values in zip(rows, cells[1:]):
        if row.group != group:
            group = row.group
            text += ["", f"-- {group}"]
        text.append(line(values))
    return "\n".join(text)
