# SPDX-License-Identifier: MIT
# results.py: the results of a run: the rows of the table, and every number from which they come.
#
# A ratio comes from one round, which measures all subjects within some milliseconds, and the table has the
# median of all rounds. So other work on the machine slows both sides, or falls into few rounds.
import json
import os
import statistics


def median_ratio(rounds, one, other):
    return statistics.median(figures[one] / figures[other] for figures in rounds)


def median(rounds, name):
    return statistics.median(figures[name] for figures in rounds)


def microseconds(rounds, name):
    return f"{median(rounds, name) / 1000:.1f} us"


class Results:
    HEAD = ("what", "daemon", "compared with", "its value", "ratio", "bar", "")

    def __init__(self, heading):
        self.heading = heading
        self.rows = []
        self.details = []  # rows for the file of numbers only
        self.numbers = {}  # name of a measurement -> its rounds
        self.broken_gates = []

    def row(self, what, value, other="", other_value="", ratio="", bar="", met=None, gate=True, detail=False):
        """Adds a row to the table, or a detail. A false `gate` means that an exact count has grown."""
        verdict = {True: "met", False: "NOT MET", None: ""}[met]
        row = (what, value, other, other_value, ratio, bar, verdict)
        (self.details if detail else self.rows).append(row)
        if not gate:
            self.broken_gates.append(what)
        print("  ".join(cell for cell in row if cell), flush=True)

    def ratio_row(self, what, rounds, other, most=None, detail=False):
        """Compares the daemon with one other subject of the same rounds; `most` is the bar for the ratio."""
        ratio = median_ratio(rounds, "daemon", other)
        bar, met = ("", None) if most is None else (f"at most {most:.2f}", ratio <= most)
        values = [microseconds(rounds, name) for name in ("daemon", other)]
        self.row(what, values[0], other, values[1], f"{ratio:.3f}", bar, met, detail=detail)

    def table(self):
        rows = [self.HEAD, ["---"] * len(self.HEAD), *self.rows]
        return "\n".join([self.heading, "", *("| " + " | ".join(row) + " |" for row in rows), ""])

    def write(self, directory):
        os.makedirs(directory, exist_ok=True)
        results = {"heading": self.heading, "head": self.HEAD, "rows": self.rows, "details": self.details}
        with open(f"{directory}/results.json", "w") as file:
            json.dump({**results, "numbers": self.numbers}, file)
        with open(f"{directory}/table.md", "w") as file:
            file.write(self.table())

    def write_page(self, page, architecture):
        """Replaces the last table of the architecture in the page, unless the sources are read-only."""
        if not os.access(page, os.W_OK):
            return
        with open(page) as file:
            before, begin, rest = file.read().partition(f"<!-- last table: {architecture} -->\n")
        _, end, after = rest.partition("<!-- end -->\n")
        with open(page, "w") as file:
            file.write(before + begin + self.table() + end + after)
