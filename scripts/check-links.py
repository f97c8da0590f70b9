#!/usr/bin/env python3
"""Checks the relative links of the project's Markdown documents.

Reads README.md, every docs/**/*.md and every examples/**/README.md under ROOT (default: the
directory above this script) and checks each relative link [text](path), [text](path#anchor)
and [text](#anchor), and each reference definition [ref]: path: the file or directory must
exist (relative to the linking file; a path starting with '/' is relative to ROOT), and an
anchor into a Markdown file must match one of its headings as GitHub names them (lower case,
spaces to '-', punctuation other than '-' and '_' dropped, repeated names numbered -1, -2, ...)
or an explicit <a name="..."> / id="...". Links with a scheme (http:, https:, mailto:, ...)
and links inside fenced code blocks or code spans are skipped.

Prints each broken link as file:line and exits 1; otherwise prints how many links it checked
and exits 0. Standard library only.
"""
import os
import re
import sys
from urllib.parse import unquote

FENCE = re.compile(r"^ {0,3}(`{3,}|~{3,})")
ATX = re.compile(r"^ {0,3}(#{1,6})(?:[ \t]+(.*?))?(?:[ \t]+#+)?[ \t]*$")
SETEXT = re.compile(r"^ {0,3}(=+|-+)[ \t]*$")
CODE_SPAN = re.compile(r"(`+)(?:(?!\n[ \t]*\n).)*?(?<!`)\1(?!`)", re.S)
INLINE_LINK = re.compile(
    r"!?\[([^\[\]]*)\]\(\s*(<[^>\n]*>|[^\s()]*)(?:\s+(?:\"[^\"]*\"|'[^']*'|\([^)]*\)))?\s*\)")
REF_DEF = re.compile(r"^ {0,3}\[([^\]]+)\]:[ \t]*(<[^>\n]*>|\S+)", re.M)
HTML_ANCHOR = re.compile(r"<a\s[^>]*\b(?:name|id)\s*=\s*[\"']([^\"']+)[\"']", re.I)
SCHEME = re.compile(r"^[A-Za-z][A-Za-z0-9+.-]*:")


def blank(match):
    """The match replaced by spaces, its line breaks kept, so offsets and lines stay put."""
    return re.sub(r"[^\n]", " ", match.group(0))


def prose(text, spans=True):
    """The text with fenced code blocks (and code spans) blanked out, offsets unchanged."""
    lines = text.split("\n")
    out = []
    fence = None
    for line in lines:
        m = FENCE.match(line)
        if fence is None and m:
            fence = m.group(1)
            out.append(" " * len(line))
        elif fence is not None:
            if m and m.group(1)[0] == fence[0] and len(m.group(1)) >= len(fence) \
                    and not line.strip()[len(m.group(1)):].strip():
                fence = None
            out.append(" " * len(line))
        else:
            out.append(line)
    text = "\n".join(out)
    return CODE_SPAN.sub(blank, text) if spans else text


def heading_text(raw):
    """What GitHub renders of a heading's Markdown: code spans, links and emphasis unwrapped."""
    parts = re.split(r"(`+[^`]*?`+)", raw)
    out = []
    for part in parts:
        if part.startswith("`"):
            out.append(part.strip("`").strip())
            continue
        part = re.sub(r"!?\[([^\]]*)\]\([^)]*\)", r"\1", part)  # links and images: their text
        part = re.sub(r"<[^>]+>", "", part)  # inline HTML
        part = re.sub(r"(?<!\w)_+|_+(?!\w)", "", part)  # _emphasis_, not snake_case
        out.append(part)
    return "".join(out)


def slug(raw):
    text = heading_text(raw).strip().lower()
    kept = "".join(c for c in text if c.isalnum() or c in "-_ ")
    return kept.replace(" ", "-")


def anchors(path, cache={}):
    """Every anchor a Markdown file offers: its headings' slugs, numbered when repeated, and
    explicit HTML anchors."""
    if path in cache:
        return cache[path]
    with open(path, encoding="utf-8") as f:
        text = f.read()
    found = set()
    seen = {}

    def add(raw):
        base = slug(raw)
        n = seen.get(base, 0)
        seen[base] = n + 1
        found.add(base if n == 0 else "%s-%d" % (base, n))

    lines = prose(text, spans=False).split("\n")
    for i, line in enumerate(lines):
        m = ATX.match(line)
        if m:
            add(m.group(2) or "")
            continue
        # A setext underline (=== or ---) makes the paragraph line above it a heading; after a
        # blank line, a list item, a table row or an indented line it is none.
        prev = lines[i - 1] if i > 0 else ""
        if SETEXT.match(line) and prev.strip() and not prev.startswith("    ") \
                and not re.match(r"^ {0,3}([-*+>] |\d+[.)] |\||#)", prev) and "|" not in prev:
            add(prev.strip())
    found.update(HTML_ANCHOR.findall(text))
    cache[path] = found
    return found


def documents(root):
    docs = []
    if os.path.isfile(os.path.join(root, "README.md")):
        docs.append(os.path.join(root, "README.md"))
    for sub, pick in (("docs", lambda n: n.endswith(".md")),
                      ("examples", lambda n: n == "README.md")):
        top = os.path.join(root, sub)
        for dirpath, dirnames, filenames in os.walk(top):
            dirnames.sort()
            docs.extend(os.path.join(dirpath, n) for n in sorted(filenames) if pick(n))
    return docs


def check(root, doc):
    """(links checked, [broken link messages]) for one document."""
    with open(doc, encoding="utf-8") as f:
        original = f.read()
    text = prose(original)
    targets = [(m.start(), original[m.start(1):m.end(1)], m.group(2))
               for m in INLINE_LINK.finditer(text)]
    targets += [(m.start(), m.group(1), m.group(2)) for m in REF_DEF.finditer(text)]
    checked = 0
    broken = []
    rel = os.path.relpath(doc, root)
    for offset, label, target in sorted(targets):
        target = target.strip("<>")
        if SCHEME.match(target):
            continue
        checked += 1
        line = text.count("\n", 0, offset) + 1
        where = "%s:%d: [%s](%s)" % (rel, line, " ".join(label.split()), target)
        path, _, anchor = target.partition("#")
        path = unquote(path)
        if not path:
            dest = doc
        elif path.startswith("/"):
            dest = os.path.join(root, path.lstrip("/"))
        else:
            dest = os.path.join(os.path.dirname(doc), path)
        dest = os.path.normpath(dest)
        if not target:
            broken.append("%s: empty link" % where)
            continue
        if not os.path.exists(dest):
            broken.append("%s: no such file %s" % (where, os.path.relpath(dest, root)))
            continue
        if not anchor:
            continue
        if os.path.isdir(dest):
            dest = os.path.join(dest, "README.md")
            if not os.path.isfile(dest):
                continue
        if not dest.lower().endswith((".md", ".markdown")):
            continue  # line anchors (#L10) and the like of other files are not checked
        if unquote(anchor) not in anchors(dest):
            broken.append("%s: no heading #%s in %s" % (where, anchor, os.path.relpath(dest, root)))
    return checked, broken


def main(argv):
    if len(argv) > 2 or (len(argv) == 2 and argv[1] in ("-h", "--help")):
        print("usage: check-links.py [ROOT]", file=sys.stderr)
        return 2
    root = os.path.abspath(argv[1] if len(argv) == 2 else
                           os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
    docs = documents(root)
    if not docs:
        print("check-links: no Markdown documents under %s" % root, file=sys.stderr)
        return 2
    total = 0
    broken = []
    for doc in docs:
        n, b = check(root, doc)
        total += n
        broken += b
    for message in broken:
        print(message)
    if broken:
        print("check-links: %d of %d relative links in %d files are broken"
              % (len(broken), total, len(docs)))
        return 1
    print("check-links: %d relative links in %d files checked, none broken" % (total, len(docs)))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
