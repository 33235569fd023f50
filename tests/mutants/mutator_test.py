#!/usr/bin/env python3
"""Checks scripts/mutator.py: the faults that it makes, what it leaves alone, and that a seed names
the same mutants each time.

usage: mutator_test.py SOURCE_DIR
"""

import collections
import sys
import unittest

SOURCE_DIR = sys.argv.pop()
sys.path.insert(0, f"{SOURCE_DIR}/scripts")
sys.dont_write_bytecode = True
import check_mutants
import mutator

PLATFORM = """\
#define STATUS_SUCCESS 0
#define STATUS_UNSUCCESSFUL 1
constexpr ULONG LINK_STATE_UP = 1;
constexpr ULONG LINK_STATE_DOWN = 2;
"""

# A line of a function's body, the kind of a fault, and the line with the fault.
FAULTS = [
    ("if (a == b) {", "negate", "if (!(a == b)) {"),
    ("if (!Ready()) {", "negate", "if (Ready()) {"),
    ("} else if (Ready(a)) {", "negate", "} else if (!(Ready(a))) {"),
    ("return a == b ? 1 : 2;", "negate", "return !(a == b) ? 1 : 2;"),
    ("for (int i = 0; i < n; ++i) {", "negate", "for (int i = 0; !(i < n); ++i) {"),
    ("Free(list, static_cast<int>(a));", "remove", ";"),
    ("record->Count[2] = a;", "remove", ";"),
    ("++module->Calls;", "remove", ";"),
    ("*result = first;", "remove", ";"),
    ("return;", "remove", ";"),
    ("const SIZE_T size = SizeOf(list);", "remove", "const SIZE_T size = {};"),
    ("SpinLockGuard guard(&module->Lock);", "guard", ";"),
    ("ListGuard guard;", "guard", ";"),
    ("std::lock_guard<std::mutex> lock(mutex_);", "guard", ";"),
    ("if (a < b) {", "compare", "if (a <= b) {"),
    ("if (a >= b) {", "compare", "if (a > b) {"),
    ("return a != b;", "compare", "return a == b;"),
    ("return a && b;", "logic", "return a || b;"),
    ("return size - 1;", "offset", "return size ;"),
    ("return first + second;", "arithmetic", "return first - second;"),
    ("count += size;", "arithmetic", "count -= size;"),
    ("if (--count == 0) {", "step", "if (++count == 0) {"),
    ("Allocate(0x10);", "constant", "Allocate(0x11);"),
    ("Set(LINK_STATE_UP);", "constant", "Set(LINK_STATE_DOWN);"),
    ("return STATUS_SUCCESS;", "status", "return STATUS_UNSUCCESSFUL;"),
    ("return STATUS_PENDING;", "status", "return STATUS_SUCCESS;"),
    ("Wait(TRUE);", "boolean", "Wait(FALSE);"),
    ("Copy(to, from[1, 2], size);", "arguments", "Copy(from[1, 2], to, size);"),
    ("End(HOLD_A | HOLD_B);", "flag", "End(HOLD_A );"),
]

# Nothing of this is to be broken.
LEFT_ALONE = """\
#include "driver/spin_lock.h"
#define LIMIT (a < 1 && \\
               b < 2)
// if (a == b) { Free(list); return 1; }
/* count = 0;
   ++count; */
static_assert(sizeof(RECORD) == 16 && TRUE);
NETSIEVE_LAYOUT(offsetof(RECORD, Next) == 8);
using Handler = void (*)(int a, int b);
void Declared(int first, int second);
struct POLICY {
    POLICY(const POLICY&) = delete;
    virtual int Pure() = 0;
};
void Prints() {
    RECORD* record;
    const char* texts[] = {"a == b; f(1, 2); // 'x'", R"(if (a) { return 1; })"};
    std::vector<const char*> list{texts, texts};
}
"""


def in_body(line):
    closing = "}" * (line.count("{") - line.count("}")) if not line.startswith("}") else "}"
    opening = "if (x) {\n" if line.startswith("}") else ""
    return f"void Function() {{\n{opening}{line}\n{closing}\n}}\n"


def mutants_of(text, path="src/driver/example.cpp"):
    return [mutant for mutant in mutator.all_mutants({path: text, "src/platform/kernel.h": PLATFORM})
            if mutant.path == path]


class Mutator(unittest.TestCase):
    def test_makes_each_fault(self):
        for line, kind, broken in FAULTS:
            with self.subTest(line=line, kind=kind):
                made = [(mutant.kind, mutant.after) for mutant in mutants_of(in_body(line))]
                self.assertIn((kind, broken), made)
        kinds = {kind for _, kind, _ in FAULTS} | {"loop"}
        self.assertEqual(set(mutator.KINDS), kinds)

    def test_cuts_a_loop_short(self):
        loop = [mutant for mutant in mutants_of(in_body("while (a) {\nif (b) {\n}\n")) if mutant.kind == "loop"]
        self.assertEqual([(mutant.line, mutant.after) for mutant in loop], [(2, "break; }")])

    def test_removes_a_statement_whole_and_keeps_the_lines(self):
        text = in_body("Send(list,\n     port,\n     flags);")
        removed, = (mutant for mutant in mutants_of(text) if mutant.kind == "remove")
        self.assertEqual(removed.text, in_body("\n\n;"))
        for mutant in mutants_of(text):
            self.assertEqual(mutant.text.count("\n"), text.count("\n"))

    def test_leaves_alone_what_is_no_code(self):
        self.assertEqual([mutant.describe() for mutant in mutants_of(LEFT_ALONE)], [])

    def test_sees_the_body_behind_an_annotation(self):
        text = "class CAPABILITY(1) LOCK {\nint Size[2];\n};\n"
        self.assertEqual({mutant.kind for mutant in mutants_of(text)}, {"constant"})
        text = "void Function() REQUIRES(g_Locks[1]) {\nFree(list);\n}\n"
        self.assertEqual([mutant.after for mutant in mutants_of(text)], [";"])

    def test_leaves_the_values_of_the_platform_alone(self):
        value = "constexpr ULONG LIMIT = 7;\n"
        self.assertEqual(len(mutants_of(value)), 2)
        self.assertEqual(mutants_of(value, "src/platform/ndis.h"), [])

    def test_a_seed_names_the_same_mutants(self):
        text = "".join(in_body(line) for line, _, _ in FAULTS)
        drawn = [[mutant.id for mutant in mutator.draw(mutants_of(text), seed)] for seed in (1, 1, 2)]
        self.assertEqual(drawn[0], drawn[1])
        self.assertNotEqual(drawn[0], drawn[2])
        self.assertEqual(sorted(drawn[0]), sorted(mutant.id for mutant in mutants_of(text)))
        self.assertEqual(len(set(drawn[0])), len(drawn[0]))

    def test_each_line_is_as_likely_as_any_other(self):
        mutants = mutants_of(in_body("Wait(TRUE);\nif (a < b && c < d || Is(1, 2, 3)) {\n}"))
        first = collections.Counter(next(mutator.draw(mutants, seed)).line for seed in range(2000))
        self.assertEqual(set(first), {2, 3})
        self.assertAlmostEqual(first[2], 1000, delta=150)

    def test_a_diff_makes_the_mutant(self):
        text = in_body("Free(list);")
        mutant = mutants_of(text)[0]
        self.assertIn("-Free(list);\n+;\n", mutant.diff(text))
        self.assertTrue(mutant.diff(text).startswith("--- a/src/driver/example.cpp\n+++ b/"))

    def test_puts_a_switch_at_each_check(self):
        header = "bool MayCall(int a = {}, CheckSite site = CheckSite::Here());\n"
        body = "if (!MayCall(1)) {\nMachine::Current().pool(2).MayCall(\n3);\n}\nMayCall(4, site);\nOther(5);"
        checks, switched = check_mutants.with_switches({"a.h": header, "b.cpp": in_body(body)})
        self.assertEqual([(check.number, check.path, check.line) for check in checks],
                         [(1, "b.cpp", 2), (2, "b.cpp", 3)])
        self.assertEqual(switched, {"b.cpp": check_mutants.PROLOGUE + in_body(
            body.replace("!MayCall(1)", "!(MutantCheckIsOff(1) || MayCall(1))").replace(
                "Machine::Current().pool(2).MayCall(\n3);",
                "if (!MutantCheckIsOff(2)) { Machine::Current().pool(2).MayCall(\n3); };"))})


if __name__ == "__main__":
    unittest.main()
