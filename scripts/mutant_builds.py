"""Builds and tests mutants beside an unbroken tree that stays as it is.

A mutant costs the translation units that see its change, and the link of the programs that are run
until one finds it. Its files lie in a folder of their worker that is searched before the tree; the
objects take the place of the tree's own in the link, where lld takes the members of an archive from
a list of objects.
"""

import filecmp
import json
import os
import pathlib
import re
import shlex
import shutil
import signal
import subprocess
import threading
import time
from dataclasses import dataclass

# Quick, and takes objects between --start-lib and --end-lib as an archive. Looked up where lld-14 is.
LINKER = ("-B/usr/lib/llvm-14/bin", "-fuse-ld=lld")
MEMORY_LIMIT = 8 << 20  # KiB of address space; a fault may allocate without end
SCHEDULES = os.environ.get("NETSIEVE_SCHEDULES", "2500")  # finds a fault several times over
FEW_SCHEDULES = "100"
# A model runs whole, but for the search build, in which it would take minutes.
MODEL_SCHEDULES = {"search": str(4 * int(SCHEDULES))}

# What real threads meet is another thing each time. The image that some tests load has no fault in it.
MODELS = "*Models*"
OTHERS = "-*RealThreads*:*Models*:*/Image*:*Image.*"


class MutantError(Exception):
    """Nothing can be said about any mutant: the unbroken tree does not build or does not pass."""


def snapshot(source, tree):
    """Makes `tree` a copy of `source`. What did not change keeps its time, and is not built again."""
    source, tree = pathlib.Path(source), pathlib.Path(tree)

    def files(top):
        for folder, names, found in os.walk(top):
            if pathlib.Path(folder) == top:
                names[:] = [name for name in names if name not in ("build", ".git")]
            names[:] = [name for name in names if name != "__pycache__"]
            yield from (pathlib.Path(folder, name).relative_to(top) for name in found)

    wanted = set(files(source))
    for path in set(files(tree)) - wanted:
        (tree / path).unlink()
    for path in wanted:
        copy = tree / path
        if not (copy.is_file() and filecmp.cmp(source / path, copy, shallow=False)):
            copy.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(source / path, copy)


@dataclass(frozen=True)
class Stage:
    """A part of a test program."""
    program: str  # as hook/hook_tests
    filter: str
    schedules: str  # None: the program's own number

    def environment(self):
        environment = {name: value for name, value in os.environ.items() if name != "NETSIEVE_SCHEDULES"}
        if self.schedules is not None:
            environment["NETSIEVE_SCHEDULES"] = self.schedules
        return environment


@dataclass(frozen=True)
class Finding:
    outcome: str  # passed, failed or hung
    test: str
    seconds: float


def run_stage(stage, binary, log, limit, environment=None):
    """Runs a part of a test program until its first failure, for `limit` seconds at most, with what
    `environment` has besides."""
    # The command timeout is for a program that outlives this one.
    command = ["timeout", "-s", "KILL", str(limit + 10), "sh", "-c",
               f'ulimit -c 0 -v {MEMORY_LIMIT}; exec "$@"', "sh", str(binary),
               f"--gtest_filter={stage.filter}", "--gtest_fail_fast", "--gtest_color=no"]
    started = time.monotonic()
    outcome = "passed"
    with open(log, "w") as output:
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=output, stderr=output,
                                   env={**stage.environment(), **(environment or {})}, start_new_session=True, cwd=log.parent)
        try:
            status = process.wait(limit)
            if _ended_from_outside(status):
                raise MutantError(f"{stage.program} was ended by somebody else")
            if status != 0:
                outcome = "failed"
        except subprocess.TimeoutExpired:
            outcome = "hung"
            os.killpg(process.pid, signal.SIGKILL)
            process.wait()
    seconds = time.monotonic() - started
    return Finding(outcome, "" if outcome == "passed" else _first_failure(log), seconds)


def _ended_from_outside(status):
    """Whether a program had a signal that no fault sends, as seen by us or said by timeout."""
    if status == 124:
        return True
    number = -status if status < 0 else status - 128
    return number in (signal.SIGHUP, signal.SIGINT, signal.SIGTERM, signal.SIGKILL)


def _first_failure(log):
    """The first test that failed; the last that began when the program did not end by itself."""
    text = log.read_text(errors="replace")
    names = re.findall(r"^\[  FAILED  \] ([^\s,]+\.[^\s,]+)", text, re.MULTILINE)
    return names[0] if names else (re.findall(r"^\[ RUN      \] (\S+)", text, re.MULTILINE) or [""])[-1]


class Build:
    """One build of the unbroken tree: how its objects are compiled and its programs are linked."""

    def __init__(self, tree, preset, programs, jobs, without=()):
        """`without`: tests that are left out."""
        self.tree = pathlib.Path(tree)
        self.preset = preset
        self.folder = self.tree / "build" / preset
        self.programs = list(programs)
        self.others = ":".join([OTHERS, *without])
        self._make(jobs)
        self._read()
        self._measure()

    def _make(self, jobs):
        configure = ["cmake", "--preset", self.preset, "-DNETSIEVE_TESTS=ON", "-DNETSIEVE_BENCH=OFF"]
        targets = [program.rsplit("/", 1)[-1] for program in self.programs]
        build = ["cmake", "--build", "--preset", self.preset, "--parallel", str(jobs), "--target", *targets]
        for command in (configure, build):
            done = subprocess.run(command, cwd=self.tree, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                  text=True)
            if done.returncode != 0:
                raise MutantError(f"{done.stdout[-3000:]}\nthe tests do not build ({self.preset})")

    def _ninja(self, *arguments):
        return subprocess.run(["ninja", "-t", *arguments], cwd=self.folder, check=True, text=True,
                              stdout=subprocess.PIPE).stdout

    def _read(self):
        self.compile, self.sources = {}, {}
        for entry in json.loads((self.folder / "compile_commands.json").read_text()):
            command = shlex.split(entry["command"])
            unit = command[command.index("-o") + 1]
            self.compile[unit] = command
            self.sources[unit] = os.path.relpath(entry["file"], self.tree)
        self.links, self.archives = {}, {}
        for program in self.programs:
            command = shlex.split(self._ninja("commands", "-s", f"tests/{program}"))
            self.links[program] = [word for word in command if word not in (":", "&&")]
            for word in command:
                if word.endswith(".a") and not word.startswith("/") and word not in self.archives:
                    line = shlex.split(self._ninja("commands", "-s", word))
                    self.archives[word] = [member for member in line if member.endswith(".o")]
        self.includes = {}
        for block in self._ninja("deps").split("\n\n"):
            unit, _, paths = block.partition(": #deps")
            for path in paths.split("\n")[1:]:
                path = os.path.normpath(self.folder / path.strip())
                self.includes.setdefault(os.path.relpath(path, self.tree), set()).add(unit)

    def units_of(self, program):
        """The objects of the tree that can become part of a program."""
        words = self.links[program]
        return {word for word in words if word in self.compile}.union(
            *(self.archives[word] for word in words if word in self.archives))

    def units_that_see(self, paths, program):
        """The objects of a program that are compiled from one of `paths`, a source or a header."""
        seen = set().union(*(self.includes.get(path, set()) for path in paths))
        seen |= {unit for unit, source in self.sources.items() if source in paths}
        return seen & self.units_of(program)

    def binary(self, program):
        return self.folder / "tests" / program

    # The unbroken programs

    def _measure(self):
        """Every part of every program has to pass; from its time comes the limit for the mutants."""
        log = self.folder / "unbroken.log"
        others, models = [], []
        for program in self.programs:
            searches = "schedule" in program
            if searches:
                others.append(Stage(program, self.others, FEW_SCHEDULES))
            others.append(Stage(program, self.others, SCHEDULES))
            if self._has_tests(program, MODELS):
                models.append(Stage(program, MODELS, MODEL_SCHEDULES.get(self.preset)))
        self.seconds = self._known_times()
        for stage in others + models:
            if stage in self.seconds:
                continue
            found = run_stage(stage, self.binary(stage.program), log, 600)
            if found.outcome != "passed":
                raise MutantError(f"{stage.program}: {found.test} {found.outcome} without any fault "
                                  f"({self.preset} build); see {log}")
            self.seconds[stage] = found.seconds
            self._keep_times()
        self.stages = sorted(others, key=self.seconds.get) + sorted(models, key=self.seconds.get)

    def _known_times(self):
        """The times of stages that have passed since their programs were linked."""
        path = self.folder / "unbroken.json"
        if not path.exists():
            return {}
        return {Stage(*stage): seconds for *stage, seconds, linked in json.loads(path.read_text())
                if linked == self._linked(stage[0])}

    def _keep_times(self):
        times = [[stage.program, stage.filter, stage.schedules, seconds, self._linked(stage.program)]
                 for stage, seconds in self.seconds.items()]
        (self.folder / "unbroken.json").write_text(json.dumps(times))

    def _linked(self, program):
        return self.binary(program).stat().st_mtime_ns if self.binary(program).exists() else None

    def _has_tests(self, program, tests):
        listed = subprocess.run([self.binary(program), "--gtest_list_tests", f"--gtest_filter={tests}"],
                                check=True, text=True, stdout=subprocess.PIPE).stdout
        return any(line.startswith("  ") for line in listed.splitlines())

    def limit(self, stage):
        """Seconds after which a mutant hangs: far above what the unbroken program takes."""
        return 10 + 8 * self.seconds[stage]


class Bench:
    """The folder of one worker, where one mutant at a time is compiled, linked and tested."""

    def __init__(self, folder):
        self.folder = pathlib.Path(folder)

    def place(self, build, files, folders=("",)):
        """Begins with a mutant: `files` are the paths that it changes and their texts, `folders`
        hold the sources that are to see it."""
        shutil.rmtree(self.folder, ignore_errors=True)
        self.overlay = self.folder / "overlay"
        for path, text in files.items():
            (self.overlay / path).parent.mkdir(parents=True, exist_ok=True)
            (self.overlay / path).write_text(text)
        self.build, self.paths, self.folders, self.objects = build, set(files), tuple(folders), {}

    def compile(self, unit):
        """Compiles an object of the mutant, once. False when it does not compile."""
        if unit not in self.objects:
            target = self.folder / "objects" / unit
            target.parent.mkdir(parents=True, exist_ok=True)
            done = subprocess.run(self._compile_command(unit, target), cwd=self.build.folder,
                                  stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            self.objects[unit] = target if done.returncode == 0 else None
        return self.objects[unit] is not None

    def is_refused_by_lock_analysis(self):
        """Whether a clang build stops at the fault by what it says of locks, which is an error there."""
        for unit in self.units():
            command = self._compile_command(unit, self.folder / "unused.o")
            if "-Wthread-safety" in command:
                command[command.index("-w")] = "-Wno-everything"
                command += ["-fsyntax-only", "-Wthread-safety", "-Werror"]
                if subprocess.run(command, cwd=self.build.folder, stdout=subprocess.DEVNULL,
                                  stderr=subprocess.DEVNULL).returncode != 0:
                    return True
        return False

    def _compile_command(self, unit, target):
        """Warnings are off: code that is unused because of the fault is not the fault to find."""
        tree, command, at = str(self.build.tree), [], 0
        words = self.build.compile[unit]
        while not re.search(r"(g\+\+|clang\+\+|gcc|clang|cc)[-0-9.]*$", words[at]):
            at += 1  # a launcher, which must not keep the objects of mutants
        for word in words[at:]:
            if word.startswith("-I") and word[2:].startswith(tree):
                command.append("-I" + str(self.overlay) + word[2 + len(tree):])
            command.append(word)
        command[command.index("-o") + 1] = str(target)
        source = command.index("-c") + 1
        if self.build.sources[unit] in self.paths:
            command[source] = str(self.overlay / self.build.sources[unit])
        return command + ["-w", f"-ffile-prefix-map={self.overlay}={tree}"]

    def compile_all(self, units):
        return all(self.compile(unit) for unit in sorted(units))

    def units(self, folders=("",)):
        """The objects of all programs that see the fault and have their source below `folders`."""
        seen = set().union(*(self._units_in(program) for program in self.build.programs))
        return {unit for unit in seen if self.build.sources[unit].startswith(tuple(folders))}

    def _units_in(self, program):
        return {unit for unit in self.build.units_that_see(self.paths, program)
                if self.build.sources[unit].startswith(self.folders)}

    def link(self, program):
        """The program with the fault in it; None when it cannot be linked, and the tree's own when
        nothing of the fault is in it."""
        units = self._units_in(program)
        if not units:
            return self.build.binary(program)
        if not self.compile_all(units):
            return None
        target = self.folder / "bin" / program
        target.parent.mkdir(parents=True, exist_ok=True)
        command = []
        for word in self.build.links[program]:
            if word in units:
                command.append(str(self.objects[word]))
            elif units & set(self.build.archives.get(word, ())):
                members = (str(self.objects.get(unit) or unit) for unit in self.build.archives[word])
                command += ["-Wl,--start-lib", *members, "-Wl,--end-lib"]
            else:
                command.append(word)
        command[command.index("-o") + 1] = str(target)
        done = subprocess.run([*command, *LINKER], cwd=self.build.folder, stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL)
        return target if done.returncode == 0 else None

    def test(self, likely=()):
        """Tests the mutant with what is likely to find it, pairs of a stage and a test, then with
        all. Returns the stage and the finding that ended it; None and None when all pass, and
        raises ValueError when it cannot be linked."""
        binaries = {}
        stages = [Stage(stage.program, test, stage.schedules) for stage, test in likely]
        limits = [self.build.limit(stage) for stage, _ in likely]
        stages += self.build.stages
        limits += [self.build.limit(stage) for stage in self.build.stages]
        for stage, limit in zip(stages, limits):
            if stage.program not in binaries:
                binaries[stage.program] = self.link(stage.program)
            if binaries[stage.program] is None:
                raise ValueError("does not link")
            if binaries[stage.program] == self.build.binary(stage.program):
                continue
            found = run_stage(stage, binaries[stage.program], self.folder / "log", limit)
            if found.outcome != "passed":
                return stage, found
        return None, None


class References:
    """What the unbroken sources compile to, made as a mutant's objects are."""

    def __init__(self, folder):
        self.folder = pathlib.Path(folder)
        self.lock = threading.Lock()
        self.contents = {}

    def is_same(self, bench):
        """True when each object made so far is, byte for byte, what it is without the fault."""
        return all(target.read_bytes() == self._content(bench.build, unit)
                   for unit, target in bench.objects.items())

    def _content(self, build, unit):
        with self.lock:
            key = (build.preset, unit)
            if key not in self.contents:
                source = build.sources[unit]
                bench = Bench(self.folder)
                bench.place(build, {source: (build.tree / source).read_text()})
                if not bench.compile(unit):
                    raise MutantError(f"{source} does not compile ({build.preset} build)")
                self.contents[key] = bench.objects[unit].read_bytes()
            return self.contents[key]
