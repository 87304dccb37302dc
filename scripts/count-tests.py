#!/usr/bin/env python3
"""count-tests.py JUNIT.xml [AGAIN.xml] - sums up the results of a ctest run.

AGAIN.xml has the results of failed programs that were run again; they replace the first results, and
a line names each program that only failed the first time. count-tests.py --failed JUNIT.xml prints the
names of the programs that failed, one a line. count-tests.py --each JUNIT.xml prints a line for each program, the
sums in words, and fails if a program did.

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


def results(path):
    return {test.get("name"): test for test in ElementTree.parse(path).iter("testcase")}


def has_failed(test):
    return test.get("status") not in ("run", "disabled") and not was_skipped(test)


def count(name, test):
    """(passed, failed, skipped) of a program. Prints the reasons of skips."""
    text = test.findtext("system-out") or ""
    if has_failed(test):
        result = cases(text) or (0, 1, 0)
        result = (result[0], max(result[1], 1), result[2])
    elif test.get("status") == "run":
        result = cases(text) or (1, 0, 0)
    else:
        result = (0, 0, 1)
        print(f"skipped {name}: {text.strip() or 'no reason given'}", file=sys.stderr)
    for case, reason in skip_reasons(name, text):
        print(f"skipped {case}: {reason or 'no reason given'}", file=sys.stderr)
    return result


def in_words(result):
    return "{} passed, {} failed, {} skipped".format(*result)


def count_all(tests, each=False):
    total = [0, 0, 0]
    for name, test in tests.items():
        result = count(name, test)
        total = [a + b for a, b in zip(total, result)]
        if each:
            seconds = float(test.get("time", 0))
            print(f"{'not ok' if result[1] else 'ok'} - {name}: {in_words(result)} ({seconds:.0f} s)")
    return total


def main():
    if sys.argv[1] == "--failed":
        for name, test in results(sys.argv[2]).items():
            if has_failed(test):
                print(name)
        return
    if sys.argv[1] == "--each":
        total = count_all(results(sys.argv[2]), each=True)
        print(in_words(total))
        sys.exit(total[1] > 0 or sum(total) == 0)
    tests = results(sys.argv[1])
    again = results(sys.argv[2]) if len(sys.argv) > 2 else {}
    for name, test in again.items():
        if name in tests and has_failed(tests[name]) and not has_failed(test):
            print(f"unstable {name}: failed, and passed when it was run again alone", file=sys.stderr)
    total = count_all({**tests, **again})
    if sum(total) == 0:
        print(f"{sys.argv[1]}: no tests", file=sys.stderr)
        total = [0, 1, 0]
    print(*total)


main()
