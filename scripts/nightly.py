#!/usr/bin/env python3
"""What a night has time for: fuzz targets and schedule searches, with a page on what was found.

usage: scripts/nightly.py [--hours H] [--shard I/N] [--jobs N] [--schedules N]
           [--search-schedules N] [--fuzz-seconds S] [--first-seed N] [--only TEXT] [--list]

Takes the builds build/release, build/search and build/fuzz as they are. Each search of a program
*_schedule_tests and each fuzz target is a task of its own, and --shard 2/3 takes every third from the
second on. Nothing new is begun when --hours (8) are over. What is done is kept in build/nightly for
the commit, the seed and the budgets: the same command goes on where it was interrupted. The page,
build/nightly/report.md, says what ran, for how long and how much, what was not begun, and of each
finding how to run it alone. Ends with 1 when something was found.
"""

import argparse
import concurrent.futures
import json
import os
import pathlib
import re
import subprocess
import sys
import time
from dataclasses import asdict, dataclass, field

TREE = pathlib.Path(__file__).resolve().parent.parent
STATE = TREE / "build" / "nightly"
DAY = 86400


@dataclass(frozen=True)
class Task:
    name: str
    command: tuple
    environment: tuple = ()


@dataclass
class Outcome:
    name: str
    seconds: float
    counted: str  # what it did, in its own words
    found: list = field(default_factory=list)  # lines of its output; empty when all is well


def cases_of(program):
    """The cases of a GoogleTest program."""
    listing = subprocess.run([program, "--gtest_list_tests"], check=True, capture_output=True, text=True)
    suite, cases = "", []
    for line in listing.stdout.splitlines()[1:]:
        text = line.split("#")[0].strip()
        if line.startswith(" "):
            cases.append(suite + text)
        else:
            suite = text
    return cases


def search_tasks(build, schedules, first_seed):
    environment = (("NETSIEVE_SCHEDULES", str(schedules)), ("NETSIEVE_FIRST_SEED", str(first_seed)),
                   ("NETSIEVE_PCT_DEPTH", "3"), ("NETSIEVE_PREEMPTIONS", "3"))
    for program in sorted((TREE / "build" / build / "tests").glob("*/*_schedule_tests")):
        for case in cases_of(program):
            yield Task(f"{build} {program.name} {case}",
                       (str(program), f"--gtest_filter={case}", "--gtest_color=no"), environment)


def fuzz_tasks(seconds):
    for program in sorted((TREE / "build/fuzz/tests/fuzz").glob("*_fuzz")):
        yield Task(f"fuzz {program.name}",
                   (str(TREE / "scripts/fuzz.sh"), str(TREE / "build/fuzz"), str(seconds), program.name))


def all_tasks(options):
    tasks = [*fuzz_tasks(options.fuzz_seconds),
             *search_tasks("release", options.schedules, options.first_seed),
             *search_tasks("search", options.search_schedules, options.first_seed)]
    index, count = (int(number) for number in options.shard.split("/"))
    if not 1 <= index <= count:
        sys.exit(f"--shard {options.shard}: the first number is 1 to the second")
    return [task for task in tasks[index - 1::count] if options.only in task.name]


def run(task):
    started = time.monotonic()
    process = subprocess.run(task.command, env={**os.environ, **dict(task.environment)}, text=True,
                             stdout=subprocess.PIPE, stderr=subprocess.STDOUT, errors="replace",
                             stdin=subprocess.DEVNULL, cwd=TREE)
    lines = process.stdout.splitlines()
    counted = "; ".join(re.sub(r"^.*?: ", "", line) for line in lines if re.search(r"\d+ schedules,", line))
    inputs = re.findall(r"^all +(\d+ inputs)", process.stdout, re.MULTILINE)
    found = [] if process.returncode == 0 else (lines[-60:] or [f"status {process.returncode}"])
    return Outcome(task.name, time.monotonic() - started, counted or "".join(inputs), found)


class Night:
    """The tasks that are done, for the commit, seed and budgets, as lines of JSON."""

    def __init__(self, options):
        commit = subprocess.run(["git", "describe", "--always", "--dirty"], cwd=TREE, check=True,
                                capture_output=True, text=True).stdout.strip()
        self.title = f"{commit}, first seed {options.first_seed}"
        STATE.mkdir(parents=True, exist_ok=True)
        budget = f"{options.schedules}-{options.search_schedules}-{options.fuzz_seconds}"
        self.path = STATE / f"{commit}-{options.first_seed}-{budget}.jsonl"
        self.outcomes = []
        if self.path.exists():
            self.outcomes = [Outcome(**json.loads(line)) for line in self.path.read_text().splitlines()]

    def add(self, outcome):
        self.outcomes.append(outcome)
        with self.path.open("a") as file:
            file.write(json.dumps(asdict(outcome)) + "\n")
        print(f"{'FOUND' if outcome.found else 'ok':5} {outcome.seconds:8.1f} s  {outcome.name}  "
              f"{outcome.counted}", flush=True)

    def report(self, tasks):
        done = {outcome.name for outcome in self.outcomes}
        waiting = [task for task in tasks if task.name not in done]
        by_name = {task.name: task for task in tasks}
        findings = [outcome for outcome in self.outcomes if outcome.found]
        lines = [f"# {self.title}", "",
                 f"{len(tasks) - len(waiting)} of {len(tasks)} tasks, {len(findings)} findings, "
                 f"{sum(outcome.seconds for outcome in self.outcomes) / 3600:.2f} hours of one core."]
        for outcome in findings:
            lines += ["", f"## {outcome.name}", "", "```", *outcome.found, "```", ""]
            if task := by_name.get(outcome.name):
                settings = " ".join(f"{name}={value}" for name, value in task.environment)
                lines.append(f"Run with: `{settings} {' '.join(task.command)}`; a seed that is named above "
                             "alone with `NETSIEVE_SEED` as well.")
        lines += ["", "| task | seconds | what it did |", "| --- | ---: | --- |"]
        lines += [f"| {outcome.name} | {outcome.seconds:.0f} | {outcome.counted} |"
                  for outcome in sorted(self.outcomes, key=lambda outcome: outcome.name)]
        lines += [f"| {task.name} | | not begun |" for task in waiting]
        page = STATE / "report.md"
        page.write_text("\n".join(lines) + "\n")
        print(f"{lines[2]} The page is {page.relative_to(TREE)}.")
        return 1 if findings else 0


def run_all(night, tasks, options):
    end = time.monotonic() + options.hours * 3600
    done = {outcome.name for outcome in night.outcomes}
    waiting = [task for task in tasks if task.name not in done]
    with concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
        running = set()
        while running or (waiting and time.monotonic() < end):
            while waiting and len(running) < options.jobs and time.monotonic() < end:
                running.add(pool.submit(run, waiting.pop(0)))
            ended, running = concurrent.futures.wait(
                running, return_when=concurrent.futures.FIRST_COMPLETED)
            for future in ended:
                night.add(future.result())


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0], epilog="See the head of the file.")
    parser.add_argument("--hours", type=float, default=8)
    parser.add_argument("--shard", default="1/1", help="I/N: every N-th task from the I-th on")
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    parser.add_argument("--schedules", type=int, default=1_000_000, help="of each search")
    parser.add_argument("--search-schedules", type=int, default=100_000,
                        help="the same where each load and store is a point")
    parser.add_argument("--fuzz-seconds", type=int, default=3600, help="for each target")
    parser.add_argument("--first-seed", type=int, default=int(time.time()) // DAY * 10_000_000,
                        help="of the searches; another one each day")
    parser.add_argument("--only", default="", help="tasks whose name has this text")
    parser.add_argument("--list", action="store_true", help="print the tasks and run none")
    options = parser.parse_args()
    tasks = all_tasks(options)
    if options.list:
        print("\n".join(task.name for task in tasks))
        return 0
    night = Night(options)
    run_all(night, tasks, options)
    return night.report(tasks)


if __name__ == "__main__":
    sys.exit(main())
