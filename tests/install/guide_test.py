#!/usr/bin/python3
"""Does what a guide tells its reader to do, in the order of the text: writes the files, runs the
commands. The package is installed from a build for it, as the guide to hook filters says.

A fenced block is a file when a file name follows its language (a second block for the same file goes
on with it), the new text of a function with `FILE: FUNCTION`, and commands with the language sh, to
be run in a clone (`clone`), expected to fail (`fails`), or neither.

usage: guide_test.py SOURCE_TREE BUILD_TREE GUIDE...
"""

import os
import pathlib
import re
import subprocess
import sys
import tempfile

SOURCE, BUILD = (pathlib.Path(path).resolve() for path in sys.argv[1:3])


def blocks(text):
    for match in re.finditer(r"^```(\w+)(?: ([^\n]*))?\n(.*?)^```$", text, re.MULTILINE | re.DOTALL):
        yield match[1], match[2] or "", match[3]


class Reader:
    """A user who follows one guide, with a home and a directory of their own."""

    def __init__(self, home):
        self.home, self.seed = home, None
        self.project = home / "project"
        self.project.mkdir()
        self.environment = {"HOME": str(home)}

    def follow(self, text):
        for language, words, body in blocks(text):
            if language == "sh":
                self.run(words, body)
            elif ": " in words:
                self.replace_function(*words.split(": "), body)
            else:
                with open(self.project / words, "a", encoding="utf-8") as file:
                    file.write(body)

    def replace_function(self, name, function, body):
        path = self.project / name
        pattern = rf"^\w+ {function}\(.*?^}}\n"
        text, count = re.subn(pattern, lambda _: body, path.read_text(), flags=re.M | re.S)
        if count != 1:
            sys.exit(f"{name} has {count} functions {function}")
        path.write_text(text)

    def run(self, words, commands):
        """Variables that a block exports are there in the next."""
        clone = words == "clone"
        if clone:
            # Everything is built by now: only that make knows these targets is left to see.
            commands = re.sub(r"^make ", "make --dry-run ", commands, flags=re.MULTILINE)
            commands = commands.replace("build/release", str(BUILD))
        if self.seed:
            commands = re.sub(r"NETSIEVE_SEED=\d+", f"NETSIEVE_SEED={self.seed}", commands)
        state = self.home / "environment"
        script = f"set -e\n{commands}\nenv -0 >'{state}'\n"
        result = subprocess.run(
            ["bash", "-c", script],
            cwd=SOURCE if clone else self.project,
            env=os.environ | self.environment,
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False,
        )
        if (result.returncode != 0) != (words == "fails"):
            sys.exit(f"{commands}\nended with {result.returncode}:\n{result.stdout}")
        if words == "fails":
            self.note_seed(commands, result.stdout)
        else:
            entries = state.read_text().split("\0")
            self.environment |= dict(entry.split("=", 1) for entry in entries if "=" in entry)

    def note_seed(self, commands, output):
        """A failure has to be the one that the guide speaks of, and the same on each replay."""
        if "NETSIEVE_SEED=" not in commands:
            self.seed = None
        found = re.search(r"(.*)\nreplay: NETSIEVE_SEED=(\d+)", output)
        if not found or (self.seed and self.seed != found[2]):
            sys.exit(f"{commands}\ndid not fail as it should (seed {self.seed}):\n{output}")
        self.seed = found[2]


def main():
    with tempfile.TemporaryDirectory() as directory:
        for guide in sys.argv[3:]:
            home = pathlib.Path(directory) / pathlib.Path(guide).stem
            home.mkdir()
            reader = Reader(home)
            text = pathlib.Path(guide).read_text(encoding="utf-8")
            if "sh clone" not in text:
                reader.run("clone", "cmake --install build/release --prefix ~/netsieve")
                reader.environment["CMAKE_PREFIX_PATH"] = str(home / "netsieve")
            reader.follow(text)


if __name__ == "__main__":
    main()
