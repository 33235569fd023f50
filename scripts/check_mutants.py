"""Disables each check of the verifier alone, and sees whether the tests find it.

A check is a call of a function that takes the place of its caller, `CheckSite site =
CheckSite::Here()`. Disabled, a call that is a statement is not made, and one within an expression is
`true`, as when nothing is wrong. One build has a switch at every call, and the environment says which
is off: a mutant costs a run of the tests and no compiling.
"""

import concurrent.futures
import re
from dataclasses import dataclass

import mutator
from mutant_builds import Bench, Build, MutantError, Stage, run_stage

SWITCH = "NETSIEVE_MUTANT_CHECK"

# Ahead of each source; the lines keep their numbers.
PROLOGUE = f"""#include <cstdlib>
namespace {{
[[maybe_unused]] inline bool MutantCheckIsOff(int check) {{
    static const char* const off = std::getenv("{SWITCH}");
    return off != nullptr && std::atoi(off) == check;
}}
}}
#line 1
"""


@dataclass(frozen=True)
class Check:
    number: int  # from 1
    path: str
    line: int
    text: str  # the call, in one line


def names_that_take_a_site(sources):
    declaration = re.compile(r"(\w+)\((?:[^;{]|\{\})*?CheckSite site = CheckSite::Here\(\)")
    return {name for text in sources.values() for name in declaration.findall(text)}


def find_calls(path, text, names):
    """The checks of a file, each as the offsets of its expression and whether that is a statement."""
    tokens = mutator.tokenize(text)
    partner, opened = {}, []
    for index, token in enumerate(tokens):
        if token.kind == "sign" and token.text in ("(", "[", "{"):
            opened.append(index)
        elif token.kind == "sign" and token.text in (")", "]", "}"):
            begin = opened.pop()
            partner[begin], partner[index] = index, begin
    for index, token in enumerate(tokens[:-1]):
        if token.text not in names or tokens[index + 1].text != "(":
            continue
        end = partner[index + 1]
        arguments = [token.text for token in tokens[index + 2:end]]
        if "CheckSite" in arguments or arguments[-1:] == ["site"]:
            continue
        begin = index
        while tokens[begin - 1].text in (".", "->", "::"):
            begin -= 2
            if tokens[begin].text == ")":
                begin = partner[begin] - 1
        statement = tokens[begin - 1].text in (";", "{", "}", ")", "else") and tokens[end + 1].text == ";"
        yield tokens[begin].start, tokens[end].end, statement


def with_switches(sources):
    """The checks of `sources`, a dictionary of path and text, and the texts with the switches."""
    names, checks, switched = names_that_take_a_site(sources), [], {}
    for path in sorted(sources):
        text, edits = sources[path], []
        for begin, end, statement in find_calls(path, text, names):
            check = Check(len(checks) + 1, path, text.count("\n", 0, begin) + 1, " ".join(text[begin:end].split()))
            checks.append(check)
            off = f"MutantCheckIsOff({check.number})"
            edits.append((begin, end, f"if (!{off}) {{ {text[begin:end]}; }}" if statement else
                          f"({off} || {text[begin:end]})"))
        if edits:
            for begin, end, changed in reversed(edits):
                text = text[:begin] + changed + text[end:]
            switched[path] = PROLOGUE + text
    return checks, switched


class CheckRunner:
    def __init__(self, tree, work, settings, jobs):
        self.jobs, self.work = jobs, work
        self.build = Build(tree, "release", settings["programs"], jobs, settings["without"])
        self.bench = Bench(work / "switched")

    def compile(self, switched):
        """All objects and programs, once. Raises MutantError when that does not work."""
        self.bench.place(self.build, switched)
        with concurrent.futures.ThreadPoolExecutor(self.jobs) as pool:
            done = list(pool.map(self.bench.compile, sorted(self.bench.units())))
        self.binaries = {program: self.bench.link(program) for program in self.build.programs}
        if not all(done) or None in self.binaries.values():
            raise MutantError("the sources with a switch at each check do not compile")

    def test(self, check):
        """What finds the check disabled; None when all tests pass. 0 disables none."""
        for stage in self.build.stages:
            log = self.work / f"check{check}.log"
            found = run_stage(stage, self.binaries[stage.program], log, self.build.limit(stage),
                              {SWITCH: str(check)})
            log.unlink()
            if found.outcome != "passed":
                name = stage.program.rsplit("/", 1)[-1]
                return f"{name}: {found.test}" + (" hangs" if found.outcome == "hung" else "")
        return None


def run(work, settings, jobs):
    """Prints each check of the tree in `work` and what finds it disabled. True when all are found."""
    tree = work / "tree"
    paths = mutator.find_sources(tree, settings["folders"])
    checks, switched = with_switches({path: (tree / path).read_text() for path in paths})
    runner = CheckRunner(tree, work, settings, jobs)
    runner.compile(switched)
    if found := runner.test(0):
        raise MutantError(f"{found} fails with no check disabled")
    survivors = 0
    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        for check, found in zip(checks, pool.map(lambda check: runner.test(check.number), checks)):
            survivors += found is None
            print(f"{check.path}:{check.line}: {check.text[:100]}\n    {found or 'SURVIVED'}", flush=True)
    print(f"{len(checks)} checks, each disabled alone: {len(checks) - survivors} found")
    return survivors == 0
