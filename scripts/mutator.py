"""Makes mutants of C++ sources: small faults, one in each, drawn from a seed.

The work is done on tokens, not on a syntax tree, and leans on what the formatter guarantees: binary
operators have blanks on both sides, template brackets have none, and every loop has braces. What
comes out need not compile; whoever compiles it draws again. A mutant never changes the number of
lines, so that nothing but the fault can differ in the object file.
"""

import bisect
import difflib
import hashlib
import pathlib
import random
import re
from dataclasses import dataclass

KINDS = ("arguments", "arithmetic", "boolean", "compare", "constant", "flag", "guard", "logic", "loop",
         "negate", "offset", "remove", "status", "step")

_TOKEN = re.compile(
    r"""(?P<raw>u?8?R"(?P<mark>[^(\s]*)\(.*?\)(?P=mark)")
      | (?P<string>(?:u8|u|U|L)?"(?:\\.|[^"\\\n])*")
      | (?P<char>(?<![0-9A-Fa-f])(?:u8|u|U|L)?'(?:\\.|[^'\\\n])*')
      | (?P<comment>//[^\n]*|/\*.*?\*/)
      | (?P<directive>^[ \t]*\#(?:\\\n|[^\n])*)
      | (?P<number>\.?[0-9](?:['.]?[0-9A-Za-z_])*)
      | (?P<word>[A-Za-z_]\w*)
      | (?P<sign><=>|<<=|>>=|->\*|\.\.\.|->|\+\+|--|&&|\|\||[<>=!+\-*/%&|^]=|<<|::|\S)""",
    re.VERBOSE | re.DOTALL | re.MULTILINE)

_CLOSING = {"(": ")", "[": "]", "{": "}"}
_COMPARE = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "=="}
_LOGIC = {"&&": "||", "||": "&&"}
_ARITHMETIC = {"+": "-", "-": "+", "+=": "-=", "-=": "+="}
_STEP = {"++": "--", "--": "++"}
_BOOLEAN = {"TRUE": "FALSE", "FALSE": "TRUE", "true": "false", "false": "true"}
_TYPES_AHEAD = {"const", "constexpr", "static", "auto", "using", "typedef", "struct", "class", "enum",
                "friend", "template", "union", "volatile", "static_assert", "alignas", "inline"}
_CONTROL = {"if", "while", "for", "switch", "catch"}
_NO_EXPRESSION = _TYPES_AHEAD | _CONTROL | {"return", "else", "do", "case", "default", "goto", "public",
                                            "private", "protected", "try", "throw", "delete"}
_GUARD = re.compile(r"\w*(Guard|_guard|_lock)$")
_NAMED_CONSTANT = re.compile(r"[A-Z][A-Z0-9]*(_[A-Z0-9]+)+$")


@dataclass(frozen=True)
class Token:
    kind: str  # number, word, sign; strings and characters stay as text
    text: str
    start: int
    end: int


@dataclass(frozen=True)
class Mutant:
    id: str  # the same for the same file, line and change
    kind: str  # one of KINDS
    path: str  # from the top of the tree
    line: int  # where the change begins, from 1
    before: str  # the lines that change, stripped and joined
    after: str
    follows: str  # the line ahead of them that is not blank, which tells equal lines apart
    text: str  # the whole file with the fault in it
    inside: bool  # in the body of a function, and so in no declaration that other files agree on

    def describe(self):
        return f"{self.path}:{self.line}: {self.kind}: `{self.before}` -> `{self.after}`"

    def diff(self, original):
        lines = difflib.unified_diff(original.splitlines(True), self.text.splitlines(True),
                                     f"a/{self.path}", f"b/{self.path}", n=2)
        return "".join(lines)


def tokenize(text):
    """The tokens of `text` without comments and preprocessor lines."""
    return [Token(match.lastgroup if match.lastgroup != "mark" else "raw", match.group(),
                  match.start(), match.end())
            for match in _TOKEN.finditer(text) if match.lastgroup not in ("comment", "directive")]


def named_constants(texts):
    """The families of the constants that `texts` define: those that share the first two words."""
    families = {}
    for text in texts:
        names = re.findall(r"^[ \t]*#define ([A-Z]\w+)[ \t]+\S", text, re.MULTILINE)
        names += re.findall(r"\bconstexpr\s[^=;(){}]*?\b([A-Z]\w+)\s*=", text)
        for enumerators in re.findall(r"\benum\b[^{;]*\{([^}]*)\}", text):
            names += re.findall(r"(?:^|,)\s*([A-Z]\w+)", re.sub(r"//[^\n]*", "", enumerators))
        for name in filter(_NAMED_CONSTANT.match, names):
            families.setdefault(_family(name), set()).add(name)
    return {family: sorted(names) for family, names in families.items()}


def _family(name):
    words = name.split("_")
    return "_".join(words[:2]) if len(words) > 2 else words[0]


class _File:
    """One source file, and the search for everything that can be broken in it."""

    def __init__(self, path, text, families):
        self.path = path
        self.text = text
        self.families = families
        self.names = set().union(*families.values()) if families else set()
        self.tokens = tokenize(text)
        self.line_starts = [0] + [match.end() for match in re.finditer("\n", text)]
        self.token_starts = [token.start for token in self.tokens]
        self.partner = self._match_brackets()
        self.in_body = self._find_bodies()
        self.skipped = self._find_skipped()
        self.found = {}

    def mutants(self):
        for index in range(len(self.tokens)):
            if not self.skipped[index]:
                self._at_token(index)
        for start in self._statement_starts():
            self._at_statement(start)
        return list(self.found.values())

    # What the tokens mean

    def _match_brackets(self):
        partner, open_brackets = {}, []
        for index, token in enumerate(self.tokens):
            if token.kind != "sign":
                continue
            if token.text in _CLOSING:
                open_brackets.append(index)
            elif token.text in _CLOSING.values() and open_brackets:
                begin = open_brackets.pop()
                partner[begin], partner[index] = index, begin
        return partner

    def _find_bodies(self):
        """For each token whether it is inside a function's body."""
        in_body, ends = [], []
        for index, token in enumerate(self.tokens):
            while ends and index > ends[-1]:
                ends.pop()
            in_body.append(bool(ends))
            if token.text == "{" and not ends and index in self.partner and self._opens_body(index):
                ends.append(self.partner[index])
        return in_body

    def _opens_body(self, index):
        """A body follows a parameter list, perhaps with qualifiers or initialisers between."""
        at = index - 1
        while at >= 0 and self._text(at) not in (";", "{", "}"):
            if self._text(at) == ")":
                return not self._is_declared_type(self.partner.get(at, 0))
            if self._text(at) == "=":
                return False
            at -= 1
        return at >= 0 and self._text(at) == "}" and self._text(index - 1) == "}" and \
            self._is_initialiser_end(index - 1)

    def _is_initialiser_end(self, closing):
        """A constructor whose last member is initialised in braces."""
        begin = self.partner.get(closing)
        return begin is not None and begin >= 2 and self._text(begin - 2) in (",", ":")

    def _is_declared_type(self, opening):
        return opening > 0 and self._text(opening - 1) in ("alignas", "__attribute__", "CAPABILITY")

    def _find_skipped(self):
        """Tokens of what is checked by the compiler alone, or only declares."""
        skipped = [False] * len(self.tokens)
        for index, token in enumerate(self.tokens):
            ends = None
            if token.text in ("static_assert", "using", "typedef", "friend"):
                ends = (at for at in range(index, len(self.tokens)) if self._text(at) == ";")
            elif not self.in_body[index] and re.fullmatch(r"[A-Z_0-9]+", token.text) and \
                    self._text(index + 1) == "(":
                ends = iter([self.partner.get(index + 1, index)])  # layouts, and which lock guards what
            if ends is not None:
                last = next(ends, index)
                skipped[index:last + 1] = [True] * (last + 1 - index)
            if token.text == "=" and self._text(index + 1) in ("delete", "default", "0"):
                skipped[index + 1] = skipped[index + 1] or not self.in_body[index] and \
                    self._text(index - 1) in (")", "const", "noexcept", "override")
        return skipped

    def _statement_starts(self):
        for index in range(1, len(self.tokens)):
            if self.in_body[index] and not self.skipped[index] and self._starts_statement(index):
                yield index

    def _starts_statement(self, index):
        before = self._text(index - 1)
        if before in (";", "}", "else", "do"):
            return not self._inside_parentheses(index) and not self._inside_initialiser(index)
        if before == "{":
            return not self._is_initialiser(index - 1)
        if before == ":":
            return self._is_label(index - 1)
        if before == ")":
            return self._text(self.partner.get(index - 1, 0) - 1) in _CONTROL
        return False

    def _is_label(self, colon):
        at = colon - 1
        while at > 0 and self._text(at) not in (";", "{", "}", "?", "case", "default"):
            at -= 1
        return self._text(at) in ("case", "default")

    def _is_initialiser(self, opening):
        before = self.tokens[opening - 1]
        if before.text in (")", "else", "do", "const", "noexcept", "override", "mutable", "try", ":"):
            return False
        if before.text in (";", "{", "}"):
            return before.text == "{" and self._is_initialiser(opening - 1)
        return True

    def _enclosing(self, index):
        depth = 0
        for at in range(index - 1, -1, -1):
            if self.tokens[at].kind != "sign":
                continue
            if self._text(at) in _CLOSING.values():
                depth += 1
            elif self._text(at) in _CLOSING:
                if depth == 0:
                    return at
                depth -= 1
        return -1

    def _inside_parentheses(self, index):
        return self._text(self._enclosing(index)) in ("(", "[")

    def _inside_initialiser(self, index):
        opening = self._enclosing(index)
        return self._text(opening) == "{" and self.in_body[opening] and self._is_initialiser(opening)

    def _text(self, index):
        return self.tokens[index].text if 0 <= index < len(self.tokens) else ""

    def _is_binary(self, index):
        """An operator with blanks on both sides; a template's bracket has none."""
        token = self.tokens[index]
        return (self.text[token.start - 1].isspace() and self.text[token.end:token.end + 1].isspace()
                and self._text(index - 1) not in ("operator", "return", "=", "(", ","))

    # The faults

    def _at_token(self, index):
        token = self.tokens[index]
        if token.kind == "number":
            self._change_number(index)
        elif token.kind == "word":
            self._change_word(index)
        if not self.in_body[index] or token.kind != "sign":
            return
        for kind, swaps in (("compare", _COMPARE), ("logic", _LOGIC), ("arithmetic", _ARITHMETIC)):
            if token.text in swaps and self._is_binary(index):
                self._replace(kind, index, index, swaps[token.text])
        if token.text in _STEP:
            self._replace("step", index, index, _STEP[token.text])
        if token.text in ("+", "-") and self._text(index + 1) == "1" and self._is_binary(index):
            self._replace("offset", index, index + 1, "")
        if token.text == "|" and self._is_binary(index) and self.tokens[index + 1].kind == "word":
            self._replace("flag", index, index + 1, "")
        if token.text == "!":
            self._replace("negate", index, index, "")
        if token.text == "?":
            self._negate_choice(index)
        if token.text == "(":
            self._exchange_arguments(index)

    def _is_platform_value(self, index):
        """Values that the platform publishes, as against those that this code chose."""
        return not self.in_body[index] and "/platform/" in self.path

    def _change_number(self, index):
        match = re.fullmatch(r"(0[xX][0-9A-Fa-f']+|[0-9']+)([uUlL]*)", self._text(index))
        if match is None or self._is_platform_value(index):
            return
        digits = match.group(1).replace("'", "")
        octal = len(digits) > 1 and digits[0] == "0" and digits[1] not in "xX"
        value = int(digits, 8 if octal else 0)
        for changed in (value + 1, value - 1) if value > 0 else (1,):
            text = hex(changed) if digits[:2] in ("0x", "0X") else str(changed)
            self._replace("constant", index, index, text + match.group(2))

    def _change_word(self, index):
        word = self._text(index)
        if word in _BOOLEAN:
            self._replace("boolean", index, index, _BOOLEAN[word])
        elif re.match(r"(NDIS_)?STATUS_", word):
            if self.in_body[index]:
                self._change_status(index, word)
        elif self.in_body[index] and _NAMED_CONSTANT.match(word):
            family = self.families.get(_family(word), [])
            if word in family and len(family) > 1:
                at = family.index(word)
                for other in {family[at - 1], family[(at + 1) % len(family)]}:
                    self._replace("constant", index, index, other)

    def _change_status(self, index, word):
        prefix = "NDIS_STATUS_" if word.startswith("NDIS_") else "STATUS_"
        failure = prefix + ("FAILURE" if prefix == "NDIS_STATUS_" else "UNSUCCESSFUL")
        other = failure if word == prefix + "SUCCESS" else prefix + "SUCCESS"
        if other in self.names:
            self._replace("status", index, index, other)

    def _negate_choice(self, index):
        """The condition of `?:` begins behind what binds less than it."""
        at, depth = index - 1, 0
        while at > 0 and not (depth == 0 and self._text(at) in
                              ("return", "=", "(", ",", ";", "{", "}", "?", ":", "[")):
            if self._text(at) in _CLOSING.values() and self.tokens[at].kind == "sign":
                at = self.partner.get(at, at)
            at -= 1
        if at + 1 < index:
            self._wrap(at + 1, index - 1)

    def _exchange_arguments(self, opening):
        if self.tokens[opening - 1].kind != "word" or self._text(opening - 1) in _CONTROL | {
                "sizeof", "return", "decltype", "offsetof", "alignof"}:
            return
        arguments = self._arguments(opening)
        for first, second in zip(arguments, arguments[1:]):
            left, right = self._source(*first), self._source(*second)
            if left != right:
                between = self.text[self.tokens[first[1]].end:self.tokens[second[0]].start]
                self._replace("arguments", first[0], second[1], right + between + left)

    def _arguments(self, opening):
        closing = self.partner.get(opening)
        if closing is None or closing == opening + 1:
            return []
        arguments, begin, at = [], opening + 1, opening + 1
        while at <= closing:
            if at == closing or self._text(at) == ",":
                if begin < at:
                    arguments.append((begin, at - 1))
                begin = at + 1
            elif self._text(at) in _CLOSING and self.tokens[at].kind == "sign":
                at = self.partner.get(at, at)
            at += 1
        return arguments

    def _at_statement(self, start):
        word = self._text(start)
        if word in ("if", "while", "for"):
            self._at_control(start, word)
        elif word == "do" and self._text(start + 1) == "{":
            self._cut_loop(start, start + 1)
        elif word in ("return", "break", "continue") and self._text(start + 1) == ";":
            self._replace("remove", start, start, "")
        elif word in ("const", "auto") or word not in _NO_EXPRESSION and word not in ("{", "}", ";"):
            self._remove_statement(start)

    def _at_control(self, start, word):
        opening = start + 1
        if self._text(opening) != "(" or opening not in self.partner:
            return
        closing = self.partner[opening]
        if word != "if" and self._text(closing + 1) == "{":
            self._cut_loop(start, closing + 1)
        begin, end = self._condition(opening, closing, word)
        declares = any(self._text(at) == "=" for at in range(begin, end + 1))
        if begin <= end and not declares and not (word == "if" and self._text(begin) == "!"):
            self._wrap(begin, end)

    def _condition(self, opening, closing, word):
        ends = [at for at in range(opening + 1, closing)
                if self._text(at) == ";" and self._enclosing(at) == opening]
        if word == "for":
            return (ends[0] + 1, ends[1] - 1) if len(ends) == 2 else (1, 0)
        return (ends[-1] + 1 if ends else opening + 1), closing - 1

    def _cut_loop(self, start, opening):
        closing = self.partner.get(opening)
        if closing is not None:
            self._edit("loop", self._line(start), [(self.tokens[closing].start, self.tokens[closing].start,
                                                    "break; ")])

    def _remove_statement(self, start):
        end = start
        while end < len(self.tokens) and self._text(end) not in (";", "}"):
            if self._text(end) in _CLOSING and self.tokens[end].kind == "sign":
                end = self.partner.get(end, end)
            end += 1
        if self._text(end) != ";":
            return
        if not self._declares(start, end):
            self._replace("remove", start, end - 1, "")
        elif self._declares_guard(start, end):
            self._replace("guard", start, end - 1, "")
        else:
            self._leave_empty(start, end)

    def _declares_guard(self, start, end):
        opening = next((at for at in range(start, end) if self._text(at) in ("(", "{", "=")), end)
        return any(_GUARD.match(self._text(at)) for at in range(start, opening - 1))

    def _leave_empty(self, start, end):
        """A variable that should begin with a value."""
        opening = next((at for at in range(start, end) if self._text(at) in ("(", "{", "=")), end)
        if self._text(opening) == "=" and self._text(opening + 1) not in ("nullptr", "0", "{", "["):
            self._replace("remove", opening + 1, end - 1, "{}")

    def _declares(self, start, end):
        """Two names in a row, perhaps with `*` or `&` at the first, before any bracket."""
        for at in range(start, end):
            text = self._text(at)
            if text in ("(", "=", "[", ".", "->", "++", "--") or text.endswith("="):
                return False
            following = self.tokens[at + 1]
            if self.tokens[at].kind == "word" and following.kind == "word":
                return True
            if text in ("*", "&", ">") and at > start and following.kind == "word":
                return True
        return False

    # Edits

    def _source(self, first, last):
        return self.text[self.tokens[first].start:self.tokens[last].end]

    def _line(self, index):
        return bisect.bisect_right(self.line_starts, self.tokens[index].start)

    def _wrap(self, first, last):
        begin, end = self.tokens[first].start, self.tokens[last].end
        self._edit("negate", self._line(first), [(begin, begin, "!("), (end, end, ")")])

    def _replace(self, kind, first, last, text):
        begin, end = self.tokens[first].start, self.tokens[last].end
        lost = self.text.count("\n", begin, end) - text.count("\n")
        self._edit(kind, self._line(first), [(begin, end, text + "\n" * max(lost, 0))])

    def _edit(self, kind, line, edits):
        text = self.text
        for begin, end, replacement in reversed(edits):
            text = text[:begin] + replacement + text[end:]
        old, new = self.text.split("\n"), text.split("\n")
        changed = [at for at in range(len(old)) if old[at] != new[at]]
        if not changed:
            return
        span = range(changed[0], changed[-1] + 1)
        before = " ".join(" ".join(old[at] for at in span).split())
        after = " ".join(" ".join(new[at] for at in span).split())
        follows = next((old[at].strip() for at in range(changed[0] - 1, -1, -1) if old[at].strip()), "")
        name = f"{self.path}\n{line}\n{kind}\n{before}\n{after}"
        if len(changed) > 1 or before in ("}", "};"):
            name += f"\n{changed}"
        identity = hashlib.sha256((name + text).encode()).hexdigest()[:10]
        self.found.setdefault(text, Mutant(identity, kind, self.path, line, before, after, follows, text,
                                             self._is_inside(edits[0][0])))

    def _is_inside(self, offset):
        return self.in_body[bisect.bisect_right(self.token_starts, offset) - 1]


def find_sources(tree, folders, exclude=()):
    """The paths of the C++ files below `folders`, from the top of the tree, sorted."""
    tree = pathlib.Path(tree)
    paths = (path.relative_to(tree).as_posix() for folder in folders
             for path in (tree / folder).rglob("*") if path.suffix in (".cpp", ".h"))
    return sorted(path for path in set(paths) if path not in exclude)


def all_mutants(sources):
    """Every mutant of `sources`, a dictionary of path and text, in the order of the paths."""
    families = named_constants(sources.values())
    mutants = []
    for path in sorted(sources):
        mutants += sorted(_File(path, sources[path], families).mutants(),
                          key=lambda mutant: (mutant.line, mutant.kind, mutant.id))
    return mutants


def draw(mutants, seed):
    """Yields mutants in the order of the seed, each once: first a line, each line of code as likely
    as any other, then one of the faults of that line."""
    by_line = {}
    for mutant in mutants:
        by_line.setdefault((mutant.path, mutant.line), []).append(mutant)
    lines = sorted(by_line)
    chance = random.Random(seed)
    while lines:
        at = chance.randrange(len(lines))
        left = by_line[lines[at]]
        yield left.pop(chance.randrange(len(left)))
        if not left:
            lines[at] = lines[-1]
            lines.pop()
