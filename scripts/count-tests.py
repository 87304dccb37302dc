#!/usr/bin/env python3
"""count-tests.py JUNIT.xml... - sums up the results of ctest runs.

A test program of many tests counts as many: GoogleTest's cases and the "ok - " lines of shell
tests. Anything else counts as one. Prints the reason of every skip, then "PASSED FAILED SKIPPED".
A program that failed counts as at least one failure, whatever it printed, and no tests at all is
a failure.
"""

import re
import sys
import xml.etree.ElementTree as ElementTree

SKIPPED_CASE = re.compile(r"^\[  SKIPPED \] ([^ ,]+) \(", re.M)


def cases(text):
    """(passed, failed, skipped) by what a program printed, or None if it does not say."""
    if re.search(r"^\[==========\] \d+ tests? from .* ran", text, re.M):
        number = lambda word: sum(
            int(n) for n in re.findall(rf"^\[  {word} +\] (\d+) tests?[.,]", text, re.M)
        )
        return number("PASSED"), number("FAILED"), number("SKIPPED")
    passed = len(re.findall(r"^ok - ", text, re.M))
    failed = len(re.findall(r"^not ok - ", text, re.M))
    return (passed, failed, 0) if passed + failed else None


def was_skipped(test):
    """A program that could not be run at all is marked like one that asked to be skipped."""
    mark = test.find("skipped")
    return mark is not None and mark.get("message", "").startswith("SKIP_")


def skip_reasons(name, text):
    """GoogleTest prints a skip's reason before the line that names the case."""
    for case in sorted(set(SKIPPED_CASE.findall(text))):
        start = text.rfind(f"[ RUN      ] {case}\n")
        end = text.find("[  SKIPPED ]", start)
        yield f"{name}: {case}", " ".join(text[start:end].split("\n")[1:]).strip()


def count(path):
    total = [0, 0, 0]
    for test in ElementTree.parse(path).iter("testcase"):
        name = test.get("name")
        text = test.findtext("system-out") or ""
        status = test.get("status")
        if status == "run":
            result = cases(text) or (1, 0, 0)
        elif status == "disabled" or was_skipped(test):
            result = (0, 0, 1)
            print(f"skipped {name}: {text.strip() or 'no reason given'}", file=sys.stderr)
        else:
            result = cases(text) or (0, 1, 0)
            result = (result[0], max(result[1], 1), result[2])
        for case, reason in skip_reasons(name, text):
            print(f"skipped {case}: {reason or 'no reason given'}", file=sys.stderr)
        total = [a + b for a, b in zip(total, result)]
    return total


def main():
    total = [0, 0, 0]
    for path in sys.argv[1:]:
        counted = count(path)
        if sum(counted) == 0:
            print(f"{path}: no tests", file=sys.stderr)
            counted = [0, 1, 0]
        total = [a + b for a, b in zip(total, counted)]
    print(*total)


main()
