#!/usr/bin/env python3
"""Which lines and branches of the driver the tests take, from a build that counts them.

usage: scripts/coverage.py BUILD

Prints a table of the files of src/ and what was never taken. A line or branch that no test can take
is said to be one in the source, with the reason, in a comment on it or right above it:

    // Never: the sum was tested when the record was made.

Fails when something was not taken and nothing says so, and when what is said never to be was. A
branch is one way out of a condition.
"""

import collections
import json
import pathlib
import re
import subprocess
import sys

TREE = pathlib.Path(__file__).resolve().parent.parent
NEVER = re.compile(r"//.*\bNever: ")
LLVM = 14


def programs(build):
    """Those that the driver is part of, and not one with a fault in it."""
    found = [build / "bin" / "netsieve", *sorted(build.glob("tests/*/*_tests"))]
    return [path for path in found if path.exists() and "mutant" not in path.name]


def exported(build):
    counts = build / "driver.profdata"
    raw = sorted((build / "profiles").glob("*.profraw"))
    if not raw:
        sys.exit(f"{build}/profiles has no counts: run the tests of that build first")
    subprocess.run([f"llvm-profdata-{LLVM}", "merge", "-sparse", *raw, "-o", counts], check=True)
    command = [f"llvm-cov-{LLVM}", "export", f"-instr-profile={counts}"]
    for path in programs(build):
        command += ["-object", path]
    return json.loads(subprocess.run(command, check=True, capture_output=True).stdout)


def lines_of(segments):
    """Line number to count, from the segments in which a file is given."""
    counts = {}
    count, counted = 0, False
    for (line, _, now, has_count, begins, gap), following in zip(segments, segments[1:] + [None]):
        if following is None:
            break
        count, counted = now, has_count and not gap
        if counted:
            if begins:
                counts[line] = max(count, counts.get(line, 0))
            for inner in range(line + 1, following[0] + (following[1] > 1)):
                counts[inner] = max(count, counts.get(inner, 0))
    return counts


def ways_of(branches):
    """(line, column, which way) to how often it was taken, in all instances of the code."""
    taken = collections.Counter()
    for line, column, _, _, on_true, on_false, *_ in branches:
        taken[line, column, "true"] += on_true
        taken[line, column, "false"] += on_false
    return taken


class File:
    def __init__(self, path, data):
        self.path = path
        self.text = path.read_text().splitlines()
        self.lines = lines_of(data["segments"])
        self.ways = ways_of(data["branches"])
        self.excused = {number for number in range(1, len(self.text) + 1) if self.says_never(number)}
        self.open = sorted({(line, "never reached") for line, count in self.lines.items()
                            if count == 0} |
                           {(line, f"never {way}: column {column}")
                            for (line, column, way), count in self.ways.items()
                            if count == 0 and self.lines.get(line, 1) != 0})

    def says_never(self, number):
        """On the line itself, or in the comment right above it."""
        if NEVER.search(self.text[number - 1]):
            return True
        above = number - 2
        while above >= 0 and self.text[above].lstrip().startswith("//"):
            if NEVER.search(self.text[above]):
                return True
            above -= 1
        return False

    def unexplained(self):
        return [(line, why) for line, why in self.open if line not in self.excused]

    def wrongly_excused(self):
        open_lines = {line for line, _ in self.open}
        return [number for number in sorted(self.excused)
                if not self.text[number - 1].lstrip().startswith("//") and number not in open_lines]


def main():
    if len(sys.argv) != 2 or sys.argv[1].startswith("-"):
        sys.exit(__doc__)
    files = [File(pathlib.Path(data["filename"]), data)
             for data in exported(pathlib.Path(sys.argv[1]))["data"][0]["files"]
             if pathlib.Path(data["filename"]).is_relative_to(TREE / "src")]
    print(f"{'file':44} {'lines':>6} {'taken':>6} {'ways':>6} {'taken':>6}")
    sums = [0] * 4
    for file in files:
        row = [len(file.lines), sum(count > 0 for count in file.lines.values()),
               len(file.ways), sum(count > 0 for count in file.ways.values())]
        sums = [total + value for total, value in zip(sums, row)]
        print(f"{str(file.path.relative_to(TREE)):44}" + "".join(f" {value:6}" for value in row))
    print(f"{'all':44}" + "".join(f" {value:6}" for value in sums))
    print(f"{sums[1] / sums[0]:.2%} of the lines, {sums[3] / sums[2]:.2%} of the ways out of conditions")

    failed = False
    for file in files:
        name = file.path.relative_to(TREE)
        for line, why in file.unexplained():
            failed = True
            print(f"{name}:{line}: {why}\n    {file.text[line - 1].strip()}")
        for line in file.wrongly_excused():
            failed = True
            print(f"{name}:{line}: said never to be taken, and is\n    {file.text[line - 1].strip()}")
    sys.exit(failed)


if __name__ == "__main__":
    main()
