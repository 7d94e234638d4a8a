"""Compares the names a shared library exports with the documented ones in exports.txt.

usage: check_exports.py LIBRARY SECTION EXPORTS_TXT READER CXXFILT
READER is the nm of the target for an ELF library, its objdump for a DLL. Fails on names too many and too few.
"""

import re
import subprocess
import sys


def documented(path, section):
    """Reads one section: a list of (kind, name, may be missing)."""
    entries, current = [], None
    for line in open(path, encoding="utf-8"):
        line = line.split("#")[0].strip()
        if line.startswith("["):
            current = line.strip("[]")
        elif line and current == section:
            kind, name, *mark = line.split()
            entries.append((kind, name, mark == ["later"]))
    assert entries, f"no section {section} in {path}"
    return entries


def exported(library, reader):
    """The mangled names in the library's table of exports."""
    if library.lower().endswith(".dll"):
        text = subprocess.run([reader, "-p", library], check=True, capture_output=True, text=True).stdout
        table = text.split("[Ordinal/Name Pointer] Table", 1)[1].split("\n\n", 1)[0]
        return [line.split()[-1] for line in table.splitlines() if line.strip().startswith("[")]
    command = [reader, "-D", "--defined-only", "--no-demangle", library]
    text = subprocess.run(command, check=True, capture_output=True, text=True).stdout
    return [line.split()[-1].split("@")[0] for line in text.splitlines()]


def demangled(names, cxxfilt):
    text = subprocess.run([cxxfilt], input="\n".join(names), check=True, capture_output=True, text=True).stdout
    return text.splitlines()


def pattern(kind, name):
    """What a demangled name that belongs to an entry looks like."""
    if kind == "class":
        about = "(vtable|VTT|typeinfo|typeinfo name) for "
        return re.compile(rf"(non-virtual thunk to )?{name}::|{about}{name}(::\w+)?$")
    return re.compile(rf"{name}(\(|\[|$)")


def main():
    library, section, expectations, reader, cxxfilt = sys.argv[1:]
    names = exported(library, reader)
    entries = [(pattern(kind, name), name, later) for kind, name, later in documented(expectations, section)]
    unseen = {name for _, name, later in entries if not later}
    unexpected = []
    for mangled, readable in zip(names, demangled(names, cxxfilt)):
        owners = [name for form, name, _ in entries if form.match(readable)]
        unseen.difference_update(owners)
        if not owners:
            unexpected.append(f"{readable}   ({mangled})")
    print(f"{library}: {len(names)} names exported")
    for name in unexpected:
        print(f"exported, but not documented: {name}")
    for name in sorted(unseen):
        print(f"documented, but not exported: {name}")
    sys.exit(1 if unexpected or unseen or not names else 0)


main()
