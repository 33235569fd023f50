#!/usr/bin/env python3
"""Reads the includes of the sources and compares them with the order that docs/architecture.md states.

usage: include_order_test.py SOURCE_DIR

The document has one line that begins with `src:` and names the folders of src/ from the bottom up; a
folder includes only from itself and from those named before it. Beyond that src/ includes nothing of
the host or the tools, the host reaches no further into src/ than the platform and the client header,
and the command reads the driver's records in one folder.
"""
import re
import sys
from pathlib import Path

INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.MULTILINE)
# What src/ offers to everyone: the platform, the client header, the driver's entry, and the constants of
# the exports.
PUBLIC = ("platform/", "client/", "driver/driver_entry.h", "config/system_information.h",
          "config/boot_filter_list.h")

RECORDS = "tools/netsieve/records"


def includes(path):
    return INCLUDE.findall(path.read_text(encoding="utf-8"))


def sources(folder):
    return sorted(path for path in folder.rglob("*") if path.suffix in (".h", ".cpp", ".c"))


def stated_order(top):
    text = (top / "docs/architecture.md").read_text(encoding="utf-8")
    line = re.search(r"^ *src: (.+)$", text, re.MULTILINE)
    if line is None:
        sys.exit("docs/architecture.md does not state the order of src/")
    return re.split(r"\s*◄─+\s*", line.group(1).strip())


def faults_of_driver(top, order):
    folders = sorted(path.name for path in (top / "src").iterdir() if path.is_dir())
    if folders != sorted(order):
        yield f"src/ has the folders {folders}, docs/architecture.md orders {sorted(order)}"
    for path in sources(top / "src"):
        own = order.index(path.relative_to(top / "src").parts[0])
        for name in includes(path):
            folder = name.split("/")[0]
            if folder not in order or order.index(folder) > own:
                yield f"{path.relative_to(top)} includes {name}"


def faults_of_users(top, order, folder):
    for path in sources(top / folder):
        where = str(path.relative_to(top))
        if where.startswith(RECORDS + "/"):
            continue
        for name in includes(path):
            if name.split("/")[0] in order and not name.startswith(PUBLIC):
                yield f"{where} includes {name}"


def main():
    top = Path(sys.argv[1])
    order = stated_order(top)
    faults = [*faults_of_driver(top, order), *faults_of_users(top, order, "host"),
              *faults_of_users(top, order, "samples"), *faults_of_users(top, order, "tools")]
    for fault in faults:
        print(fault, file=sys.stderr)
    if faults:
        sys.exit(f"{len(faults)} includes against the stated order")
    print(f"{len(sources(top / 'src'))} sources keep the order {' <- '.join(order)}")


main()
