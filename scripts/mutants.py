#!/usr/bin/env python3
"""Puts faults into the sources, one at a time, and sees whether the tests find each.

    scripts/mutants.py [NAME...]                the hand-made faults, tests/mutants/NAME.patch
    scripts/mutants.py --generated [--seed S] [--count N]
    scripts/mutants.py --only ID [ID...]        generated faults, whatever is known of them
    scripts/mutants.py --show ID [ID...]        prints them
    scripts/mutants.py --report [--seed S] [--count N]
    scripts/mutants.py --checks                 each check of the verifier disabled (check_mutants.py)

A patch begins with two lines of text: what it breaks, and `build: release`, or `build: search` for
a fault that shows only where every load and store is a scheduling point. A hand-made fault that
survives fails the run, as does a patch that no longer fits.

Generated faults are drawn by the seed, each line of code as likely as any other. One that does not
compile, or whose object files are those of the unbroken tree, is not counted and another is drawn.
One that survives the release build is tried in the search build, and is found too when the lock
analysis of clang refuses it there. What was found is kept in build/mutants, and a run that was
interrupted goes on where it was; after a change of the tests --retry runs the survivors again, and
--fresh forgets everything. tests/mutants/equivalent.json lists those that were judged to change
nothing, as objects with the members file, before, after (the line without and with the fault, as
they are printed), reason, and where that names several, follows (the line ahead). The run fails
when fewer than --rate percent of the others are found, when a removed guard is not, and when an
entry of the list names no mutant, several, or one that is found.

Which folders are broken, and which programs test them, is in tests/mutants/sets.json (--set).
"""

import argparse
import collections
import concurrent.futures
import fcntl
import hashlib
import itertools
import json
import os
import pathlib
import re
import subprocess
import sys
import threading
import time
from dataclasses import dataclass

sys.dont_write_bytecode = True
import check_mutants
import mutator
from mutant_builds import Bench, Build, MutantError, References, snapshot

TOP = pathlib.Path(__file__).resolve().parent.parent
PATCHES = TOP / "tests" / "mutants"
WORK = TOP / "build" / "mutants"
LIKELY = 4  # tests that found other faults of the same file are tried first


@dataclass(frozen=True)
class Fault:
    """What is put into the tree: a generated mutant, or a patch."""
    id: str
    title: str
    files: dict  # path and text
    diff: str
    inside: bool  # in the body of a function


def fault_of(mutant, sources):
    return Fault(mutant.id, mutant.describe(), {mutant.path: mutant.text},
                 mutant.diff(sources[mutant.path]), mutant.inside)


def read_patch(name, scratch):
    """The fault of a hand-made patch and the build that shows it; None when it no longer fits."""
    patch = PATCHES / f"{name}.patch"
    text = patch.read_text()
    preset = re.search(r"^build: (\w+)$", text, re.MULTILINE)
    if preset is None:
        raise MutantError(f"{patch} does not say `build: release` or `build: search`")
    files = {}
    for path in re.findall(r"^\+\+\+ b/(\S+)", text, re.MULTILINE):
        if not (TOP / path).is_file():
            return None, preset.group(1)
        target = scratch / path
        target.parent.mkdir(parents=True, exist_ok=True)
        target.write_text((TOP / path).read_text())
        files[path] = target
    # No fuzz: a hunk that only nearly fits may put the fault somewhere else.
    done = subprocess.run(["patch", "--quiet", "--force", "--fuzz=0", "--reject-file=-", "-p1", "-d",
                           str(scratch)], input=text, text=True, stdout=subprocess.DEVNULL,
                          stderr=subprocess.DEVNULL)
    if done.returncode != 0:
        return None, preset.group(1)
    files = {path: target.read_text() for path, target in files.items()}
    return Fault(name, text.split("\n")[0], files, text, False), preset.group(1)


class Records:
    """What is known of generated faults: one line of JSON for each fault and build."""

    def __init__(self, path, sources, fresh):
        self.path, self.sources = path, digest(sources)
        self.lock = threading.Lock()
        self.known = {}  # by id, then by build
        if fresh:
            path.unlink(missing_ok=True)
        if path.exists():
            for line in path.read_text().splitlines():
                record = json.loads(line)
                if record["sources"] == self.sources:
                    self.known.setdefault(record["id"], {})[record["build"]] = record

    def add(self, fault, preset, **members):
        record = {"id": fault.id, "build": preset, "sources": self.sources, "title": fault.title, **members}
        with self.lock:
            self.known.setdefault(fault.id, {})[preset] = record
            with open(self.path, "a") as file:
                file.write(json.dumps(record) + "\n")

    def forget_survivors(self):
        for identity, records in list(self.known.items()):
            if records and all(record["outcome"] == "survived" for record in records.values()):
                del self.known[identity]

    def outcome(self, identity, preset):
        return self.known.get(identity, {}).get(preset, {}).get("outcome")

    def finder(self, identity):
        """The record of what found a fault; None when nothing did."""
        return next((record for record in self.known.get(identity, {}).values()
                     if record["outcome"] in ("failed", "hung")), None)

    def is_counted(self, identity):
        return self.outcome(identity, "release") in ("failed", "hung", "survived")


def digest(sources):
    text = json.dumps(sorted(sources.items()))
    return hashlib.sha256(text.encode()).hexdigest()[:16]


class Runner:
    """Tests faults on several benches at once."""

    def __init__(self, tree, settings, jobs, analysis):
        self.tree, self.settings, self.jobs = tree, settings, jobs
        self.analysis = analysis  # whether a fault that the lock analysis refuses is found
        self.folders = tuple(folder + "/" for folder in settings["folders"])
        self.builds = {}
        self.references = References(WORK / "unbroken")
        self.lock = threading.Lock()
        self.killers = collections.defaultdict(collections.Counter)  # by path: stage and test
        self.benches = [Bench(WORK / f"bench{at}") for at in range(jobs)]

    def build(self, preset):
        if preset not in self.builds:
            started = time.monotonic()
            build = Build(self.tree, preset, self.settings["programs"], self.jobs)
            print(f"the unbroken {preset} build passes; its tests take {sum(build.seconds.values()):.1f} s, "
                  f"and with the build {time.monotonic() - started:.0f} s", flush=True)
            self.builds[preset] = build
        return self.builds[preset]

    def run(self, fault, preset):
        """Returns the outcome, the test that found the fault, and the seconds that it took."""
        with self.lock:
            bench = self.benches.pop()
        started = time.monotonic()
        try:
            outcome, test = self._run_on(bench, fault, preset)
        finally:
            with self.lock:
                self.benches.append(bench)
        return outcome, test, round(time.monotonic() - started, 1)

    def _run_on(self, bench, fault, preset):
        build = self.builds[preset]
        # What only the body of an inline function says is in the objects of the broken folders; on a
        # declaration all objects have to agree.
        bench.place(build, fault.files, self.folders if fault.inside else ("",))
        if not bench.units():
            return "not built", ""
        for units in (bench.units(self.folders), bench.units()):
            if not bench.compile_all(units):
                return "does not compile", ""
            if not self.references.is_same(bench):
                break
        else:
            return "same object", ""
        path = next(iter(fault.files))
        with self.lock:
            likely = [killer for killer, _ in self.killers[path, preset].most_common(LIKELY)]
        try:
            stage, found = bench.test(likely)
        except ValueError:
            return "does not compile", ""
        if found is None:
            refused = self.analysis and bench.is_refused_by_lock_analysis()
            return ("failed", "lock analysis") if refused else ("survived", "")
        known = next((known for known in build.stages if known.program == stage.program and
                      known.schedules == stage.schedules), None)
        with self.lock:
            if known is not None and found.test:
                self.killers[path, preset][known, found.test] += 1
        return found.outcome, f"{stage.program.rsplit('/', 1)[-1]}: {found.test}"

    def each(self, faults, preset, enough=None):
        """Runs faults in their order, and yields each with what `run` returned. Begins no other when
        `enough` says so."""
        self.build(preset)
        faults = iter(faults)
        with concurrent.futures.ThreadPoolExecutor(self.jobs) as pool:
            running = {}
            while True:
                while len(running) < self.jobs and not (enough and enough()):
                    fault = next(faults, None)
                    if fault is None:
                        break
                    running[pool.submit(self.run, fault, preset)] = fault
                if not running:
                    return
                done, _ = concurrent.futures.wait(running, return_when=concurrent.futures.FIRST_COMPLETED)
                for future in done:
                    yield running.pop(future), *future.result()


# The hand-made faults

def run_hand_made(names, runner):
    known = sorted(patch.stem for patch in PATCHES.glob("*.patch"))
    names = names or known
    for name in set(names) - set(known):
        raise MutantError(f"there is no tests/mutants/{name}.patch")
    scratch, by_build, failures = WORK / "patched", {}, 0
    for name in names:
        fault, preset = read_patch(name, scratch / name)
        if fault is None:
            failures += 1
            print(f"{name:26} {preset:7} THE PATCH NO LONGER FITS")
        else:
            by_build.setdefault(preset, []).append(fault)
    for preset, faults in by_build.items():
        for fault, outcome, test, seconds in runner.each(faults, preset):
            failures += outcome not in ("failed", "hung")
            text = {"failed": test, "hung": f"{test} hangs"}.get(outcome, outcome.upper())
            print(f"{fault.id:26} {preset:7} {seconds:5.1f} s  {text}\n{'':36}{fault.title}", flush=True)
    print(f"{len(names)} faults, {len(names) - failures} found")
    return failures == 0


# The generated faults

class Drawn:
    """The mutants of a set, in the order of a seed, with what is known of them."""

    def __init__(self, options, settings):
        paths = mutator.find_sources(TOP, settings["folders"], settings.get("exclude", ()))
        self.sources = {path: (TOP / path).read_text() for path in paths}
        self.mutants = mutator.all_mutants(self.sources)
        self.by_id = {mutant.id: mutant for mutant in self.mutants}
        self.options, self.settings = options, settings
        WORK.mkdir(parents=True, exist_ok=True)
        self.records = Records(WORK / f"{options.set}.jsonl", self.sources, options.fresh)

    def in_order(self):
        return mutator.draw(self.mutants, self.options.seed)

    def faults(self, mutants):
        return [fault_of(mutant, self.sources) for mutant in mutants]

    def named(self, names):
        unknown = [name for name in names if name not in self.by_id]
        if unknown:
            raise MutantError(f"this tree has no mutant {', '.join(unknown)}")
        return [self.by_id[name] for name in names]

    def counted(self):
        """The first mutants of the seed that compile to something else, as many as are wanted."""
        counted = (mutant for mutant in self.in_order() if self.records.is_counted(mutant.id))
        return list(itertools.islice(counted, self.options.count))


def test_drawn(runner, drawn):
    """Goes through the draws until enough of them count; none that is known is run again."""
    records, wanted = drawn.records, drawn.options.count
    counted = 0

    def unknown():
        nonlocal counted
        for mutant in drawn.in_order():
            if counted >= wanted:
                return
            if records.outcome(mutant.id, "release") is None:
                yield fault_of(mutant, drawn.sources)
            else:
                counted += records.is_counted(mutant.id)

    for result in runner.each(unknown(), "release", lambda: counted >= wanted):
        note(records, "release", *result)
        counted += records.is_counted(result[0].id)
    survivors = [mutant for mutant in drawn.counted() if needs_search(records, mutant.id)]
    test_again(runner, records, drawn.faults(survivors))


def needs_search(records, identity):
    return records.outcome(identity, "release") == "survived" and \
        records.outcome(identity, "search") is None


def test_again(runner, records, faults):
    """What survived the release build, where every load and store is a scheduling point."""
    if faults:
        for result in runner.each(faults, "search"):
            note(records, "search", *result)


def test_named(runner, drawn, names):
    faults = drawn.faults(drawn.named(names))
    for result in runner.each(faults, "release"):
        note(drawn.records, "release", *result)
    again = [fault for fault in faults if drawn.records.outcome(fault.id, "release") == "survived"]
    test_again(runner, drawn.records, again)
    return not [fault for fault in faults if drawn.records.finder(fault.id) is None]


def note(records, preset, fault, outcome, test, seconds):
    records.add(fault, preset, outcome=outcome, test=test, seconds=seconds)
    print(f"{fault.id} {preset:7} {seconds:5.1f} s  {fault.title}\n{'':29}{outcome}: {test}".rstrip(": "),
          flush=True)


def read_equivalent(drawn):
    """The reasons of the judged equivalents by id, and what is wrong with the others: an entry has
    to name one mutant of the tree."""
    judged, wrong = {}, []
    mine = tuple(folder + "/" for folder in drawn.settings["folders"])
    for entry in json.loads((PATCHES / "equivalent.json").read_text()):
        named = [mutant for mutant in drawn.mutants
                 if (mutant.path, mutant.before, mutant.after) ==
                 (entry["file"], entry["before"], entry["after"])
                 and mutant.follows == entry.get("follows", mutant.follows)]
        if len(named) == 1:
            judged[named[0].id] = entry["reason"]
        elif entry["file"].startswith(mine):
            wrong.append(f"{entry['file']}: `{entry['before']}` -> `{entry['after']}` is {len(named)} mutants")
    return judged, wrong


def report(drawn):
    records, mutants = drawn.records, drawn.counted()
    judged, unclear = read_equivalent(drawn)
    tried = collections.Counter(records.outcome(mutant.id, "release") for mutant in drawn.in_order())
    found = [mutant for mutant in mutants if records.finder(mutant.id)]
    survivors = [mutant for mutant in mutants if not records.finder(mutant.id)]
    equivalent = [mutant for mutant in survivors if mutant.id in judged]
    survivors = [mutant for mutant in survivors if mutant.id not in judged]
    for mutant in survivors:
        missing = "" if records.outcome(mutant.id, "search") else " (not tried in the search build yet)"
        print(f"\n{mutant.id} survives{missing}: {mutant.describe()}\n{mutant.diff(drawn.sources[mutant.path])}")
    for mutant in equivalent:
        print(f"{mutant.id} is equivalent: {mutant.describe()}\n    {judged[mutant.id]}")
    wrong = [mutant for mutant in found if mutant.id in judged]
    for mutant in wrong:
        print(f"{mutant.id} was judged equivalent, and {records.finder(mutant.id)['test']} finds it")
    for entry in unclear:
        print(f"equivalent.json: {entry}")
    print_figures(drawn, found, survivors, equivalent, tried)
    rate = 100 * len(found) / max(len(found) + len(survivors), 1)
    guards = [mutant for mutant in survivors if mutant.kind == "guard"]
    complete = len(mutants) == drawn.options.count
    return complete and rate >= drawn.options.rate and not (guards or wrong or unclear)


def print_figures(drawn, found, survivors, equivalent, tried):
    records = drawn.records
    finders = [records.finder(mutant.id) for mutant in found]
    print(f"\nkind         found of")
    for kind in mutator.KINDS:
        of = sum(mutant.kind == kind for mutant in found + survivors)
        if of:
            print(f"{kind:12} {sum(mutant.kind == kind for mutant in found):5} {of:2}")
    by_program = collections.Counter(finder["test"].split(":")[0] for finder in finders)
    print("found by " + ", ".join(f"{name} {count}" for name, count in by_program.most_common()))
    print(f"{sum(finder['outcome'] == 'hung' for finder in finders)} of them by hanging, "
          f"{sum(finder['build'] == 'search' for finder in finders)} in the search build alone")
    print(f"drawn besides: {tried['does not compile']} that do not compile, {tried['same object']} with the "
          f"same object, {tried['not built']} in files that no program contains")
    total = len(found) + len(survivors)
    print(f"seed {drawn.options.seed}: {total + len(equivalent)} mutants, {len(equivalent)} equivalent, "
          f"{len(found)} of {total} found ({100 * len(found) / max(total, 1):.1f} %)")


def parse_options():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("names", nargs="*", metavar="NAME")
    mode = parser.add_mutually_exclusive_group()
    mode.add_argument("--generated", action="store_true")
    mode.add_argument("--only", nargs="+", metavar="ID")
    mode.add_argument("--show", nargs="+", metavar="ID")
    mode.add_argument("--report", action="store_true")
    mode.add_argument("--checks", action="store_true")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--count", type=int, default=300)
    parser.add_argument("--rate", type=float, default=97)
    parser.add_argument("--set", default="driver")
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    parser.add_argument("--retry", action="store_true")
    parser.add_argument("--fresh", action="store_true")
    return parser.parse_args()


def lock_work():
    """The copy of the tree and the benches belong to one run at a time, until it lets go of this."""
    WORK.mkdir(parents=True, exist_ok=True)
    lock = open(WORK / "lock", "w")
    try:
        fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
        raise MutantError(f"another run is going on in {WORK}") from None
    return lock


def run(options):
    settings = json.loads((PATCHES / "sets.json").read_text())["checks" if options.checks else options.set]
    generated = options.generated or options.only or options.show or options.report
    drawn = Drawn(options, settings) if generated else None
    if options.show:
        for mutant in drawn.named(options.show):
            print(f"{mutant.describe()}\n{mutant.diff(drawn.sources[mutant.path])}")
        return True
    if options.report:
        return report(drawn)
    with lock_work():
        snapshot(TOP, WORK / "tree")
        if options.checks:
            return check_mutants.run(WORK, settings, options.jobs)
        runner = Runner(WORK / "tree", settings, options.jobs, analysis=drawn is not None)
        if options.only:
            return test_named(runner, drawn, options.only)
        if not options.generated:
            return run_hand_made(options.names, runner)
        if options.retry:
            drawn.records.forget_survivors()
        test_drawn(runner, drawn)
        return report(drawn)


def main():
    try:
        return 0 if run(parse_options()) else 1
    except MutantError as error:
        print(f"mutants: {error}", file=sys.stderr)
        return 2


if __name__ == "__main__":
    sys.exit(main())
