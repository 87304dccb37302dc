#!/usr/bin/env python3
"""spdx.py BUILD DEBS OUT - writes an SPDX 2.3 document (JSON) of the Debian packages in DEBS, which were made from
BUILD on this machine: which packages of Debian their programs load, and whose code is compiled into them.

What is loaded is read from the packed files (readelf). What is compiled in is read from the build (ninja): the headers
that each program's objects were compiled with, and the archives that it was linked with. Headers of a library that one
of the programs loads only describe it, and count as a dependency of the build. Versions are those that dpkg
has installed; licences those that the copyright files of the packages state. Fails if a file belongs to no package.

SOURCE_DATE_EPOCH is the date of the document.
"""
import collections
import datetime
import functools
import glob
import hashlib
import json
import os
import re
import subprocess
import sys
import tempfile

# The short names of Debian's copyright files that mean a licence of SPDX's list.
LICENCES = {"Apache-2.0": "Apache-2.0", "BSD-2-clause": "BSD-2-Clause", "BSD-3-clause": "BSD-3-Clause",
            "BSD-2-Clause": "BSD-2-Clause", "BSD-3-Clause": "BSD-3-Clause", "Expat": "MIT", "MIT": "MIT",
            "LGPL-2": "LGPL-2.0-only", "LGPL-2+": "LGPL-2.0-or-later", "LGPL-2.1": "LGPL-2.1-only",
            "LGPL-2.1+": "LGPL-2.1-or-later", "LGPL-3": "LGPL-3.0-only", "LGPL-3+": "LGPL-3.0-or-later",
            "GPL-2": "GPL-2.0-only", "GPL-2+": "GPL-2.0-or-later", "GPL-3": "GPL-3.0-only",
            "GPL-3+": "GPL-3.0-or-later", "Zlib": "Zlib", "zlib": "Zlib"}
# The headers of the C library and of the kernel only describe interfaces.
INTERFACES = {"libc6-dev", "linux-libc-dev", "libcrypt-dev"}
# Libraries that a program loads when it needs them. They are not among those that readelf prints.
LOADED_LATER = {"systemd"}


def output(*command, **options):
    return subprocess.run(command, check=True, text=True, stdout=subprocess.PIPE, **options).stdout


def names_of(path):
    """The names under which dpkg may know a file: it knows those of /usr by the paths from before /lib was a link."""
    names = [path, os.path.realpath(path)]
    return names + [name[len("/usr"):] for name in names if name.startswith("/usr/lib")]


OWNERS = {}  # the package of each file that was asked for


def owners(paths):
    """The packages that files of the system belong to. dpkg is asked once for all of them, which takes seconds."""
    paths = set(paths)
    unknown = sorted({name for path in paths for name in names_of(path) if name not in OWNERS})
    if unknown:
        found = subprocess.run(["dpkg-query", "--search", *unknown], text=True, capture_output=True, check=False)
        for line in found.stdout.splitlines():
            packages, _, name = line.partition(": ")
            OWNERS[name] = packages.split(",")[0].split(":")[0]
    result = set()
    for path in paths:
        packages = [OWNERS[name] for name in names_of(path) if name in OWNERS]
        if not packages:
            sys.exit(f"spdx.py: {path} belongs to no package")
        result.add(packages[0])
    return result


@functools.lru_cache(maxsize=None)
def installed(package):
    fields = output("dpkg-query", "--show", "--showformat=${Version} ${Architecture} ${source:Package}\n", package)
    return fields.splitlines()[0].split()


def source_of(package):
    return installed(package)[2]


def licences(package):
    """The licence of most files of a package, or NOASSERTION, and all names that its copyright file has."""
    with open(f"/usr/share/doc/{package}/copyright", encoding="utf-8", errors="replace") as file:
        text = file.read()
    names = sorted(set(re.findall(r"^License: *(\S.*)$", text, re.M)))
    main = re.search(r"^Files: *\*\s*\n(?:[A-Z ].*\n)*?License: *(\S.*)$", text, re.M)
    return LICENCES.get(main.group(1).strip(), "NOASSERTION") if main else "NOASSERTION", names


@functools.lru_cache(maxsize=None)
def library_paths():
    lines = output("/sbin/ldconfig", "-p").splitlines()[1:]
    found = {}
    for line in lines:
        name, _, path = line.strip().partition(" => ")
        found.setdefault(name.split(" ")[0], path)
    return found


def is_elf(path):
    if os.path.islink(path):
        return False
    with open(path, "rb") as file:
        return file.read(4) == b"\x7fELF"


def needed(path):
    return re.findall(r"\(NEEDED\).*\[(.*)\]", output("readelf", "--dynamic", "--wide", path))


class Build:
    """What ninja knows about a build."""

    def __init__(self, directory):
        self.directory = directory
        self.headers = {}  # of each object
        target = None
        for line in output("ninja", "-C", directory, "-t", "deps").splitlines():
            if line and not line.startswith(" "):
                target = line.split(":")[0]
                self.headers[target] = []
            elif line.strip().startswith("/usr/"):
                self.headers[target].append(line.strip())
        if not any(self.headers.values()):
            sys.exit(f"spdx.py: {directory} was not built by ninja")
        self.outputs = {os.path.basename(target): target for target in
                        (line.split(":")[0] for line in output("ninja", "-C", directory, "-t", "targets", "all")
                         .splitlines()) if target.startswith(("bin/", "lib/"))}

    def compiled_in(self, program):
        """The packages whose headers or archives are part of a program."""
        target = self.outputs[program]
        inputs = output("ninja", "-C", self.directory, "-t", "inputs", target).splitlines()
        files = {header for name in inputs for header in self.headers.get(name, ())}
        commands = output("ninja", "-C", self.directory, "-t", "commands", "-s", target)
        for flag, archive in (("-static-libstdc++", "libstdc++.a"), ("-static-libgcc", "libgcc.a")):
            if flag in commands:
                files.add(os.path.realpath(output("c++", f"-print-file-name={archive}").strip()))
        files.update(re.findall(r"(/usr/\S+\.a)\b", commands))
        return owners(files) - INTERFACES


def parts(deb, build, own):
    """The packages that the programs of a package load, and those that are compiled into them."""
    libraries, compiled = set(), set()
    with tempfile.TemporaryDirectory() as tree:
        subprocess.run(["dpkg-deb", "--extract", deb, tree], check=True)
        for directory, _, names in os.walk(tree):
            for name in filter(lambda name: is_elf(os.path.join(directory, name)), names):
                libraries.update(library_paths()[library] for library in needed(os.path.join(directory, name))
                                 if library not in own)
                compiled |= build.compiled_in(name)
    return owners(libraries), compiled


def spdx_id(kind, name):
    return f"SPDXRef-{kind}-" + re.sub(r"[^A-Za-z0-9.-]", "-", name)


def of_debian(package):
    version, architecture, source = installed(package)
    declared, names = licences(package)
    return {"SPDXID": spdx_id("Debian", package), "name": package, "versionInfo": version,
            "supplier": "Organization: Debian", "downloadLocation": "NOASSERTION", "filesAnalyzed": False,
            "licenseConcluded": "NOASSERTION", "licenseDeclared": declared, "copyrightText": "NOASSERTION",
            "licenseComments": f"/usr/share/doc/{package}/copyright names: {', '.join(names) or 'no short names'}",
            "sourceInfo": f"source package {source}",
            "externalRefs": [{"referenceCategory": "PACKAGE-MANAGER", "referenceType": "purl",
                              "referenceLocator": f"pkg:deb/debian/{package}@{version}?arch={architecture}"}]}


def of_ours(deb, fields):
    with open(deb, "rb") as file:
        checksum = hashlib.sha256(file.read()).hexdigest()
    return {"SPDXID": spdx_id("Package", fields["Package"]), "name": fields["Package"],
            "versionInfo": fields["Version"], "packageFileName": os.path.basename(deb),
            "supplier": "NOASSERTION", "downloadLocation": "NOASSERTION", "filesAnalyzed": False,
            "checksums": [{"algorithm": "SHA256", "checksumValue": checksum}],
            "licenseConcluded": "NOASSERTION", "licenseDeclared": "NOASSERTION",
            "licenseComments": "The owner has not chosen a licence yet.",
            "copyrightText": "Copyright (C) 2026 the owner of zncontainer"}


def document(build_directory, debs):
    build = Build(build_directory)
    fields = {deb: dict(line.split(": ", 1) for line in output("dpkg-deb", "--field", deb, "Package", "Version",
                                                             "Source").splitlines()) for deb in debs}
    own = {name for name in build.outputs if name.startswith("libzncontainer.so")}
    ours, theirs, relations = [], {}, []

    def relate(one, kind, other):
        relations.append({"spdxElementId": one, "relationshipType": kind, "relatedSpdxElement": other})

    part = {deb: parts(deb, build, own) for deb in debs}
    sources = {source_of(name) for loaded, _ in part.values() for name in loaded} | LOADED_LATER
    for deb in debs:
        package = of_ours(deb, fields[deb])
        ours.append(package)
        relate("SPDXRef-DOCUMENT", "DESCRIBES", package["SPDXID"])
        loaded, compiled = part[deb]
        for name in sorted(loaded | compiled):
            theirs.setdefault(name, of_debian(name))
            if name in loaded:
                relate(package["SPDXID"], "DYNAMIC_LINK", theirs[name]["SPDXID"])
            elif source_of(name) in sources:
                relate(theirs[name]["SPDXID"], "BUILD_DEPENDENCY_OF", package["SPDXID"])
            else:
                relate(package["SPDXID"], "STATIC_LINK", theirs[name]["SPDXID"])
    version = fields[debs[0]]["Version"]
    seconds = int(os.environ["SOURCE_DATE_EPOCH"])
    content = json.dumps([ours, relations], sort_keys=True)
    return {"spdxVersion": "SPDX-2.3", "dataLicense": "CC0-1.0", "SPDXID": "SPDXRef-DOCUMENT",
            "name": f"zncontainer-{version}",
            "documentNamespace": "https://zncontainer.example.org/spdx/" + hashlib.sha256(content.encode()).hexdigest(),
            "creationInfo": {"created": datetime.datetime.fromtimestamp(seconds, datetime.timezone.utc)
                             .strftime("%Y-%m-%dT%H:%M:%SZ"),
                             "creators": ["Tool: scripts/spdx.py"],
                             "comment": "STATIC_LINK: code of headers or archives of the package is in the programs."},
            "packages": ours + [theirs[name] for name in sorted(theirs)], "relationships": relations}


def problems(spdx):
    """What is wrong with a document, as far as the rules of SPDX can be checked without its tools."""
    required = ("SPDXID", "name", "downloadLocation", "licenseConcluded", "licenseDeclared", "copyrightText")
    ids = [package["SPDXID"] for package in spdx["packages"]]
    if len(set(ids)) != len(ids):
        yield "two packages have the same id"
    for package in spdx["packages"]:
        for name in required:
            if not package.get(name):
                yield f"{package.get('name')}: no {name}"
        if not re.fullmatch(r"SPDXRef-[A-Za-z0-9.-]+", package["SPDXID"]):
            yield f"not an id: {package['SPDXID']}"
    for relation in spdx["relationships"]:
        for end in (relation["spdxElementId"], relation["relatedSpdxElement"]):
            if end != "SPDXRef-DOCUMENT" and end not in ids:
                yield f"unknown: {end}"
    kinds = collections.Counter(relation["relationshipType"] for relation in spdx["relationships"])
    for kind in ("DESCRIBES", "DYNAMIC_LINK", "STATIC_LINK"):
        if not kinds[kind]:
            yield f"nothing is {kind}"


def main():
    if len(sys.argv) != 4:
        sys.exit("usage: spdx.py BUILD DEBS OUT")
    build, directory, out = sys.argv[1:]
    debs = sorted(glob.glob(f"{directory}/*.deb"))
    if not debs:
        sys.exit(f"spdx.py: no packages in {directory}")
    spdx = document(build, debs)
    found = list(problems(spdx))
    if found:
        sys.exit("spdx.py: " + "; ".join(found))
    with open(out, "w", encoding="utf-8") as file:
        json.dump(spdx, file, indent=1)
        file.write("\n")
    print(f"{len(debs)} packages, {len(spdx['packages']) - len(debs)} of Debian in them")


if __name__ == "__main__":
    main()
