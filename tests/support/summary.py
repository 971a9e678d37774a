#!/usr/bin/python3
# SPDX-License-Identifier: MIT
# summary.py: counts the stories that passed, failed and were skipped, and lists the skipped ones.
#
# For CTest a file of stories is one test, so CTest cannot report single skipped stories. Each file leaves a
# JUnit report of pytest. A file without a report has failed before its end; CTest reports that.
#
# The explorer of interleavings leaves a table of its stories, and the last line has the sums.
#
# usage: summary.py DIRECTORY    of the reports
import sys
import xml.etree.ElementTree as ElementTree
from collections import defaultdict
from pathlib import Path


def main(directory):
    passed = failed = 0
    skipped = defaultdict(list)  # reason -> names
    for report in sorted(Path(directory).glob("*.xml")):
        for case in ElementTree.parse(report).iter("testcase"):
            skip = case.find("skipped")
            if skip is not None:
                skipped[skip.get("message")].append(case.get("name"))
            elif case.find("failure") is not None or case.find("error") is not None:
                failed += 1
            else:
                passed += 1
    for reason, names in skipped.items():
        print(f"\nSkipped: {reason}")
        for name in names:
            print(f"  {name}")
    print()
    for table in sorted(Path(directory).glob("*.txt")):
        lines = table.read_text().splitlines() or ["no story was explored"]
        print(f"{lines[-1]} ({table})")
    if passed + failed:
        print(f"stories: {passed} passed, {failed} failed, {sum(map(len, skipped.values()))} skipped")


main(*sys.argv[1:])
