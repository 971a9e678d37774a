# SPDX-License-Identifier: MIT
# results.py: what a run has found: the rows of the table, and every number behind them.
#
# A ratio is taken within a round, in which all that is compared was measured within some milliseconds, and
# the median of all rounds counts: what else the machine does then falls on both sides, or into few rounds.
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
        self.numbers = {}  # name of a measurement -> its rounds
        self.broken_gates = []

    def row(self, what, value, other="", other_value="", ratio="", bar="", met=None, gate=True):
        """One line of the table. `gate` is false when a count that is exact on every machine has grown."""
        verdict = {True: "met", False: "NOT MET", None: ""}[met]
        self.rows.append((what, value, other, other_value, ratio, bar, verdict))
        if not gate:
            self.broken_gates.append(what)
        print("  ".join(cell for cell in self.rows[-1] if cell), flush=True)

    def ratio_row(self, what, rounds, other, most=None, show=microseconds):
        """The daemon beside one other of the same rounds; at most `most` times it, or shown without a bar."""
        ratio = median_ratio(rounds, "daemon", other)
        self.row(what, show(rounds, "daemon"), other, show(rounds, other), f"{ratio:.3f}",
                 "" if most is None else f"at most {most:.2f}", None if most is None else ratio <= most)

    def table(self):
        rows = [self.HEAD, ["---"] * len(self.HEAD), *self.rows]
        return "\n".join([self.heading, "", *("| " + " | ".join(row) + " |" for row in rows), ""])

    def write(self, directory):
        os.makedirs(directory, exist_ok=True)
        with open(f"{directory}/results.json", "w") as file:
            json.dump({"heading": self.heading, "head": self.HEAD, "rows": self.rows,
                       "numbers": self.numbers}, file)
        with open(f"{directory}/table.md", "w") as file:
            file.write(self.table())

    def write_page(self, page, architecture):
        """Puts the table in the place of the architecture's last one, unless the sources are read-only."""
        if not os.access(page, os.W_OK):
            return
        with open(page) as file:
            before, begin, rest = file.read().partition(f"<!-- last table: {architecture} -->\n")
        _, end, behind = rest.partition("<!-- end -->\n")
        with open(page, "w") as file:
            file.write(before + begin + self.table() + end + behind)
