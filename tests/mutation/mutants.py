"""Finds places of C++ sources that can be made wrong by a small change, and makes the change."""

import dataclasses
import re

TOKEN = re.compile(
    r"""(?P<comment>//[^\n]*|/\*.*?\*/)
      | (?P<directive>^[ \t]*\#[^\n]*)
      | (?P<string>"(?:[^"\\\n]|\\.)*")
      | (?P<char>'(?:[^'\\\n]|\\.)')
      | (?P<number>(?:0[xX][0-9a-fA-F]+|\d+)(?:\.\d+)?[uUlL]*)
      | (?P<name>[A-Za-z_]\w*)
      | (?P<op><<=|>>=|->|\+\+|--|<<|>>|[<>=!+\-*/%&|^]=|&&|\|\||::|\.\.\.|[^\s\w])""",
    re.VERBOSE | re.MULTILINE | re.DOTALL,
)

OPERATORS = {
    "comparison": {"==": "!=", "!=": "==", "<": "<=", "<=": "<", ">": ">=", ">=": ">"},
    "logic": {"&&": "||", "||": "&&"},
    "arithmetic": {"+": "-", "-": "+", "*": "/", "/": "*", "%": "/", "+=": "-=", "-=": "+=",
                   "++": "--", "--": "++"},
    "shift": {"<<": ">>", ">>": "<<", "<<=": ">>=", ">>=": "<<="},
    "mask": {"&": "|", "|": "&", "^": "|", "&=": "|=", "|=": "&=", "^=": "|="},
}
OPERATOR = {op: (kind, new) for kind, pairs in OPERATORS.items() for op, new in pairs.items()}
TIGHT = {"++", "--"}  # written without spaces around them, unlike every other binary operator

ERRORS = ["EINVAL", "EIO", "EFAULT", "ENOMEM", "EBUSY"]
CONVERSION = re.compile(r"%[-+ #0]*[\d*]*(?:\.[\d*]+)?(?:hh|h|ll|l|z)?[a-zA-Z%]")
ESCAPE = re.compile(r"\\.")

ROW = re.compile(r"^\s+(\w+)?(<\w+>)?\{.*\},?(\s*/\*.*\*/)?$")
ENUMERATOR = re.compile(r"^\s+[A-Za-z_]\w*(\s*=\s*[^,=]+)?,(\s*/\*.*\*/)?$")
MEMBER = re.compile(r"^\s+(?!return |using |throw |delete |goto )[\w:]+( [\w:]+)* \w+(\[\w+\])?;"
                    r"(\s*/\*.*\*/)?$")

# What begins no statement that could be left out.
NO_STATEMENT = set("""
    alignas auto break case class const constexpr constinit continue default delete do else enum
    explicit extern for friend goto if inline namespace new operator private protected public return
    sizeof static struct switch template throw try typedef union using virtual while
""".split())


@dataclasses.dataclass(frozen=True)
class Mutant:
    """A change of whole lines, `line` being the number of the first."""

    path: str
    line: int
    kind: str
    before: tuple
    after: tuple

    def key(self):
        """Identifies it wherever its lines have moved."""
        return self.path, flat(self.before), flat(self.after)

    def place(self, lines):
        """Its place among the lines, or None if its own are gone."""
        size = len(self.before)
        places = [i for i in range(len(lines)) if tuple(lines[i:i + size]) == self.before]
        return min(places, key=lambda i: abs(i + 1 - self.line), default=None)

    def function_words(self, text):
        """The words of the name of the function that it changes."""
        lines = text.split("\n")
        for line in reversed(lines[:(self.place(lines) or 0) + 1]):
            name = re.match(r"[\w:].*?(\w+)(\(| = )", line)
            if name:
                return name.group(1).lower().split("_")
        return []

    def apply(self, text):
        """The text with the change, or None."""
        lines = text.split("\n")
        size, place = len(self.before), self.place(lines)
        if place is None:
            return None
        return "\n".join(lines[:place] + list(self.after) + lines[place + size:])


def flat(lines):
    """Lines as one, however they are indented."""
    return " ".join(part for part in (line.strip() for line in lines) if part)


@dataclasses.dataclass
class Token:
    kind: str
    text: str
    start: int
    end: int


def tokens_of(text):
    """The tokens that may be changed: comments, directives, static assertions and attributes, none
    of which a test can notice, are left out."""
    tokens = [Token(m.lastgroup, m.group(), m.start(), m.end()) for m in TOKEN.finditer(text)
              if m.lastgroup not in ("comment", "directive")]
    kept, depth, closing = [], 0, ""
    for i, token in enumerate(tokens):
        if depth == 0 and token.text == "static_assert":
            closing = "()"
            depth = -1  # the parenthesis follows
            continue
        if depth == 0 and token.text == "[" and tokens[i + 1].text == "[":
            closing = "[]"
            depth = 0
        if closing:
            depth = max(depth, 0) + (token.text == closing[0]) - (token.text == closing[1])
            if depth == 0:
                closing = ""
            continue
        kept.append(token)
    return kept


def next_character(char):
    return {"z": "a", "Z": "A", "9": "0"}.get(char) or chr(ord(char) + 1)


def changed_number(text, rng):
    digits = re.match(r"0[xX][0-9a-fA-F]+|\d+", text).group()
    base = 16 if digits[:2].lower() == "0x" else 10
    value = int(digits, base)
    new = rng.choice([value + 1] if value == 0 else [value + 1, value - 1, value * 2])
    return (f"0x{new:X}" if base == 16 else str(new)) + text[len(digits):]


def changed_literal(text, rng):
    """A string or character with one letter or digit changed, or a conversion of it."""
    inner = text[1:-1]
    fixed = set()
    conversions = []
    for match in [*CONVERSION.finditer(inner), *ESCAPE.finditer(inner)]:
        fixed.update(range(match.start(), match.end()))
        if match.group()[-1] in "dux":
            conversions.append(match.end() - 1)
    places = [i for i, c in enumerate(inner) if i not in fixed and c.isascii() and c.isalnum()]
    if not places:
        places = [i for i in range(len(inner)) if i not in fixed]
    if conversions and rng.random() < 0.3:
        places = conversions
    if not places:
        return None
    at = rng.choice(places)
    new = ("u" if inner[at] == "x" else "x") if at in conversions else next_character(inner[at])
    if new in "\"'\\":
        new = "_"
    return text[0] + inner[:at] + new + inner[at + 1:] + text[-1]


def change_of(text, tokens, i, rng):
    """(kind, new text) for token `i`, or None."""
    token, before = tokens[i], tokens[i - 1].text if i else ""
    if token.kind == "number":
        return "number", changed_number(token.text, rng)
    if token.kind in ("string", "char"):
        new = changed_literal(token.text, rng)
        return new and ("text", new)
    if token.kind == "name":
        if token.text in ("true", "false"):
            return "truth", "false" if token.text == "true" else "true"
        if token.text in ERRORS:
            return "error", rng.choice([name for name in ERRORS if name != token.text])
        return None
    if token.text == "!":
        return "truth", ""
    if token.text not in OPERATOR or before in ("operator", "template"):
        return None
    spaced = text[token.start - 1] == " " and text[token.end] in " \n"
    return OPERATOR[token.text] if spaced or token.text in TIGHT else None


def statements(tokens):
    """Ranges (first, last token) of calls and assignments that could be left out."""
    start, depth = 0, 0
    for i, token in enumerate(tokens):
        if token.text in ("(", "["):
            depth += 1
        elif token.text in (")", "]"):
            depth -= 1
        elif depth > 0:
            continue
        elif token.text in ("{", "}"):
            start = i + 1
        elif token.text == ":" and tokens[start].text in ("case", "default", "public", "private"):
            start = i + 1
        elif token.text == ";":
            words = tokens[start:i]
            if is_removable(words):
                yield words[0], words[-1]
            start = i + 1


def is_removable(words):
    if len(words) < 2 or (words[0].kind != "name" and words[0].text not in ("*", "++", "--")):
        return False
    if words[0].text in NO_STATEMENT or (words[0].kind == "name" and words[1].kind == "name"):
        return False
    if words[1].text in ("<", "&", "*") or [word.text for word in words[1:3]] == ["(", "*"]:
        return False
    if words[1].text == "::" and len(words) > 3 and words[3].text not in ("(", "::"):
        return False
    return any(word.text == "(" or word.text in ("++", "--") or word.text.endswith("=")
               for word in words)


def swaps(path, lines):
    """First line numbers, from 0, of neighbouring rows, enumerators or, on the device, members."""
    kinds = (ROW, ENUMERATOR, MEMBER) if "_format" in path else (ROW, ENUMERATOR)
    for i in range(len(lines) - 1):
        one, two = lines[i], lines[i + 1]
        indents = len(one) - len(one.lstrip()), len(two) - len(two.lstrip())
        alike = any(kind.match(one) and kind.match(two) for kind in kinds)
        if alike and indents[0] == indents[1] and one != two:
            yield i


def edited(path, text, start, end, new, kind):
    """The Mutant that puts `new` in the place of text[start:end]; it keeps the number of lines."""
    first = text.rfind("\n", 0, start) + 1
    last = text.find("\n", end)
    last = len(text) if last < 0 else last
    new += "\n" * (text.count("\n", start, end) - new.count("\n"))
    before = text[first:last]
    after = text[first:start] + new + text[end:last]
    return Mutant(path, text.count("\n", 0, first) + 1, kind, tuple(before.split("\n")),
                  tuple(after.split("\n")))


def mutants_of(path, text, rng):
    """All of a file, one for each token that can be changed, in lists by kind."""
    found = {}

    def add(mutant):
        if mutant.before != mutant.after:
            found.setdefault(mutant.kind, []).append(mutant)

    tokens = tokens_of(text)
    for i, token in enumerate(tokens):
        change = change_of(text, tokens, i, rng)
        if change is not None:
            add(edited(path, text, token.start, token.end, change[1], change[0]))
    for first, last in statements(tokens):
        if text[first.start - 1] == " ":  # not at the outermost level
            add(edited(path, text, first.start, last.end, "", "statement"))
    lines = text.split("\n")
    for i in swaps(path, lines):
        one, two = lines[i], lines[i + 1]
        if one.rstrip().endswith("}") != two.rstrip().endswith("}"):  # the last has no comma
            continue
        add(Mutant(path, i + 1, "order", (one, two), (two, one)))
    return found
