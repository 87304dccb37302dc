#!/usr/bin/env python3
"""packages_prototypes.py HEADERS PAGE...: every function that a manual page of section 3 declares is declared
so in a header, and every function of the headers is declared by a page."""
import pathlib
import re
import sys


def normal(text):
    """One spelling for a declaration: where spaces and stars stand does not matter."""
    text = re.sub(r"ZNC_PRINTF_LIKE.*", "", text)
    text = re.sub(r"\s+", " ", text).strip()
    text = re.sub(r"\s*\*\s*", "*", text)
    return re.sub(r"\s*([(),])\s*", r"\1", text)


def declarations(text):
    """Function declarations by name."""
    found = {}
    for match in re.finditer(r"^\s*((?:const |struct )?\w+[\s*]+(\w+)\([^;{}]*\))[^;{}]*;", text, re.M):
        if "typedef" not in match.group(0):
            found[match.group(2)] = normal(match.group(1))
    return found


def main():
    headers = {}
    for header in pathlib.Path(sys.argv[1]).glob("*.h"):
        text = re.sub(r"/\*.*?\*/", "", header.read_text(), flags=re.S)
        text = re.sub(r"^\s*#.*$", "", text, flags=re.M)
        text = re.sub(r"^ZNC_NODISCARD ", "", text, flags=re.M)
        headers |= declarations(text)
    pages = {}
    for name in sys.argv[2:]:
        text = pathlib.Path(name).read_text()
        synopsis = re.search(r"^SYNOPSIS\n(.*?)^\S", text, re.S | re.M)
        if name.endswith(".3") and synopsis:
            pages |= declarations(synopsis.group(1))
    wrong = 0
    for name in sorted(headers.keys() | pages.keys()):
        if headers.get(name) != pages.get(name):
            print(f"{name}\n  header: {headers.get(name)}\n  page:   {pages.get(name)}")
            wrong = 1
    print(f"{len(headers)} in the headers, {len(pages)} in the pages")
    return wrong or not headers


if __name__ == "__main__":
    sys.exit(main())
