#!/usr/bin/env python3
"""Checks that every public member of the exported headers states its contract.

Usage: check-contracts.py PATH...   (a directory means every *.h directly in it)

A public member is a declaration in the public part of a class or struct (a method, a
constructor or destructor, a field, a mutex, a constant), an enumerator, or a declaration at
namespace scope (a constant, a free function). Its contract is a comment directly above it
(the block of comment-only lines that ends on the line before it) or a trailing comment on one
of its lines, which says "Thread: <context>" with a context of include/ThreadContext.h
("request thread", "event thread", "any thread", "setup"; "the sensor's request thread" and
the like count), or "Internal:" for members clients do not touch.

Not members, so not checked: private and protected sections, type aliases (using, typedef),
friends, static_asserts, forward declarations, deleted or defaulted functions, and the heads
of nested types (their members are checked). Inline function bodies are skipped.

Prints header:line for each member without a contract and exits 1; exits 2 when no member was
found at all (a parser that sees nothing must not pass).
"""
import os
import re
import sys

CONTRACT = re.compile(
    r"Thread:\s*(?:the \w+'s\s+)?(?:request thread|event thread|any thread|setup)\b"
    r"|Internal:")
IDENT = re.compile(r"[A-Za-z_]\w*")
PUNCT2 = ("::", "->", "<<", ">>", "==", "!=", "<=", ">=", "&&", "||")


def scan(text):
    """Tokens as (text, line), and each line's comment text (None: the line has no comment).

    Preprocessor lines give no tokens; string and character literals are single tokens."""
    tokens = []
    comments = {}
    code_lines = set()
    i, line, n = 0, 1, len(text)
    at_line_start = True
    while i < n:
        c = text[i]
        if c == "\n":
            line += 1
            i += 1
            at_line_start = True
            continue
        if c in " \t\r":
            i += 1
            continue
        if at_line_start and c == "#":
            # A directive, with its continuation lines.
            while i < n and text[i] != "\n":
                if text[i] == "\\" and i + 1 < n and text[i + 1] == "\n":
                    line += 1
                    i += 1
                i += 1
            continue
        at_line_start = False
        if text.startswith("//", i):
            end = text.find("\n", i)
            end = n if end < 0 else end
            comments[line] = (comments.get(line, "") + " " + text[i + 2:end].strip()).strip()
            i = end
            continue
        if text.startswith("/*", i):
            end = text.find("*/", i + 2)
            end = n if end < 0 else end
            for k, part in enumerate(text[i + 2:end].split("\n")):
                comments[line + k] = (comments.get(line + k, "") + " " +
                                      part.strip(" *")).strip()
            line += text.count("\n", i, end)
            i = end + 2
            continue
        code_lines.add(line)
        if c in "\"'":
            j = i + 1
            while j < n and text[j] != c:
                j += 2 if text[j] == "\\" else 1
            tokens.append((text[i:j + 1], line))
            i = j + 1
            continue
        m = IDENT.match(text, i)
        if m:
            tokens.append((m.group(), line))
            i = m.end()
            continue
        if text[i].isdigit():
            j = i
            while j < n and (text[j].isalnum() or text[j] in "._'"):
                j += 1
            tokens.append((text[i:j], line))
            i = j
            continue
        two = text[i:i + 2]
        if two in PUNCT2:
            tokens.append((two, line))
            i += 2
            continue
        tokens.append((c, line))
        i += 1
    return tokens, comments, code_lines


class Checker:
    def __init__(self, path, text):
        self.path = path
        self.tokens, self.comments, self.code_lines = scan(text)
        self.checked = 0
        self.missing = []

    def contract_of(self, first_line, last_line):
        parts = []
        ln = first_line - 1
        while ln in self.comments and ln not in self.code_lines:
            parts.insert(0, self.comments[ln])
            ln -= 1
        for ln in range(first_line, last_line + 1):
            if ln in self.comments:
                parts.append(self.comments[ln])
        return " ".join(parts)

    def member(self, start, end):
        """Tokens [start, end) are one public declaration."""
        words = [t for t, _ in self.tokens[start:end]]
        if not words:
            return
        head = words[0]
        if head in ("using", "typedef", "friend", "static_assert"):
            return
        if head == "template" and "using" in words:  # an alias template
            return
        # Deleted or defaulted: "= delete ;" / "= default ;".
        for k in range(len(words) - 1):
            if words[k] == "=" and words[k + 1] in ("delete", "default"):
                return
        first, last = self.tokens[start][1], self.tokens[end - 1][1]
        self.checked += 1
        if not CONTRACT.search(self.contract_of(first, last)):
            text = " ".join(words)
            self.missing.append("%s:%d: public member without a contract comment: %s" %
                                (self.path, first, text[:80]))

    def skip_braces(self, i):
        """i is at '{'; returns the index after its matching '}'."""
        depth = 0
        while i < len(self.tokens):
            t = self.tokens[i][0]
            if t == "{":
                depth += 1
            elif t == "}":
                depth -= 1
                if depth == 0:
                    return i + 1
            i += 1
        return i

    def enum_body(self, i, public):
        """i is after '{' of an enum; returns the index after its '}'."""
        start = i
        depth = 0
        while i < len(self.tokens):
            t = self.tokens[i][0]
            if t in "([{":
                depth += 1
            elif t in ")]" or (t == "}" and depth > 0):
                depth -= 1
            elif depth == 0 and t in (",", "}"):
                if public and i > start:
                    self.member(start, i)
                if t == "}":
                    return i + 1
                start = i + 1
            i += 1
        return i

    def scope(self, i, kind, public):
        """Parses declarations from i until the scope's '}' (or the end); returns the index
        after it. kind is 'namespace', 'class' or 'struct'; public says whether the scope's
        declarations are part of the interface."""
        access = kind != "class"
        start = i
        paren = 0
        while i < len(self.tokens):
            t = self.tokens[i][0]
            if i == start:
                if t == "}":
                    return i + 1
                if t == ";":
                    i += 1
                    start = i
                    continue
                if t in ("public", "private", "protected") and i + 1 < len(self.tokens) and \
                        self.tokens[i + 1][0] == ":":
                    access = t == "public"
                    i += 2
                    start = i
                    continue
            visible = public and access
            if t in "([":
                paren += 1
            elif t in ")]":
                paren -= 1
            elif t == "{" and paren > 0:
                i = self.skip_braces(i)
                continue
            elif t == ";" and paren == 0:
                words = [w for w, _ in self.tokens[start:i]]
                forward = len(words) <= 3 and words[0] in ("class", "struct", "union", "enum")
                if visible and not forward:
                    self.member(start, i)
                i += 1
                start = i
                continue
            elif t == "{" and paren == 0:
                words = [w for w, _ in self.tokens[start:i]]
                while words and words[0] == "template":
                    # Drop "template <...>".
                    depth, k = 0, 1
                    for k in range(1, len(words)):
                        depth += {"<": 1, ">": -1, ">>": -2}.get(words[k], 0)
                        if depth <= 0 and k > 1:
                            break
                    words = words[k + 1:]
                kw = words[0] if words else ""
                if kw == "namespace" or (kw == "extern" and len(words) == 2):
                    i = self.scope(i + 1, "namespace", public)
                    start = i
                    continue
                if kw in ("class", "struct", "union") and "(" not in words:
                    i = self.scope(i + 1, "struct" if kw != "class" else "class", visible)
                    # "} name;" or "};"
                    while i < len(self.tokens) and self.tokens[i][0] != ";":
                        i += 1
                    i += 1
                    start = i
                    continue
                if kw == "enum":
                    i = self.enum_body(i + 1, visible)
                    while i < len(self.tokens) and self.tokens[i][0] != ";":
                        i += 1
                    i += 1
                    start = i
                    continue
                # A function body or a brace initializer; a constructor's initializer list
                # may go on after one ("a{x}, b(y) {}").
                i = self.skip_braces(i)
                if i < len(self.tokens) and self.tokens[i][0] in (",", "{"):
                    continue
                if i < len(self.tokens) and self.tokens[i][0] == ";":
                    i += 1
                if visible:
                    self.member(start, i)
                start = i
                continue
            elif t == "}" and paren == 0:
                return i + 1
            i += 1
        return i

    def run(self):
        self.scope(0, "namespace", True)


def headers(paths):
    for p in paths:
        if os.path.isdir(p):
            for name in sorted(os.listdir(p)):
                if name.endswith(".h"):
                    yield os.path.join(p, name)
        else:
            yield p


def main(argv):
    if len(argv) < 2:
        print(__doc__.strip().splitlines()[2], file=sys.stderr)
        return 2
    total = 0
    missing = []
    for path in headers(argv[1:]):
        with open(path, encoding="utf-8") as f:
            checker = Checker(path, f.read())
        checker.run()
        total += checker.checked
        missing += checker.missing
    for line in missing:
        print(line)
    if total == 0:
        print("check-contracts: no public member found in %s" % " ".join(argv[1:]))
        return 2
    print("check-contracts: %d public members, %d without a contract" % (total, len(missing)))
    return 1 if missing else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
