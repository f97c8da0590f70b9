#!/usr/bin/env python3
"""The library's log lines are an interface: camdeliver-log, the explorer and the simulator's
checks read them. tools/logread/LibraryLines.h declares every line the library writes (tag,
macro, function, format) and, for each, the key by which the reader knows it (or why it does
not read it). This check fails, naming the place to update, when

  - a line of hw/camsys/cam_deliver/*.cpp is not declared, or a declared line is no longer
    written (a line changed in the library: update the table, then the reader);
  - a declared key does not fit its line (a fragment not in its format, a function other
    than the line's);
  - the reader no longer uses a declared key (LogReader no longer dispatches on that
    function or matches that fragment, the message catalogue no longer knows that text).

  scripts/check-log-lines.py [SOURCE_ROOT]            exit 0 when everything agrees
  scripts/check-log-lines.py --list [SOURCE_ROOT]     prints the lines the library writes
"""
import pathlib
import re
import sys

LIBRARY = "hw/camsys/cam_deliver"
TABLE = "tools/logread/LibraryLines.h"
READER = ["tools/logread/LineHandlers.cpp", "tools/logread/LogReader.cpp", "tools/logread/Settle.cpp",
          "tools/log/Analysis.cpp"]
CATALOGUE = "tools/logread/MessageCatalogue.cpp"
MACROS = ("CD_LOGD", "CD_LOGV", "CD_LOGW", "CD_LOGE", "CD_FATAL")
STRING = re.compile(r'"((?:[^"\\]|\\.)*)"')
DEFINITION = re.compile(r"^[A-Za-z_][\w:<>,\s\*&]*?(?:\b|(?=~))(?:\w+::)*(~?\w+)\(")


def call_text(source, start):
    """The argument text of the macro call whose '(' is at `start`."""
    depth = 0
    i = start
    while i < len(source):
        c = source[i]
        if c == '"':
            i += 1
            while source[i] != '"':
                i += 2 if source[i] == "\\" else 1
        elif c == "(":
            depth += 1
        elif c == ")":
            depth -= 1
            if depth == 0:
                return source[start + 1:i]
        i += 1
    raise ValueError("unbalanced call")


def enclosing_function(lines, index):
    """The function a call on line `index` is in: operator() inside a lambda of the
    definition that starts at column 0 above it."""
    lambda_seen = False
    for i in range(index, -1, -1):
        text = lines[i]
        if re.search(r"\[[&=\w, ]*\]\s*\([^)]*\)\s*(ORVCAM_\w+\([^)]*\)\s*)?\{", text) or \
                re.search(r"\[[&=\w, ]*\]\s*\(\)\s*ORVCAM", text):
            lambda_seen = True
        m = DEFINITION.match(text)
        if m and not text.startswith(("#", "namespace", "using", "static_assert", "}")):
            return "operator()" if lambda_seen else m.group(1)
    return "?"


def library_lines(root):
    """(tag, macro, function, format, where) of every line the library writes."""
    found = []
    for path in sorted((root / LIBRARY).glob("*.cpp")):
        source = path.read_text()
        lines = source.split("\n")
        tag_match = re.search(r'#define CD_LOG_TAG "([^"]+)"', source)
        tag = tag_match.group(1) if tag_match else "?"
        for m in re.finditer(r"\b(%s)\(" % "|".join(MACROS), source):
            if source[:m.start()].rstrip().endswith("#define"):
                continue
            args = call_text(source, m.end() - 1)
            literals = []
            for s in STRING.finditer(args):
                between = args[literals[-1][1]:s.start()] if literals else ""
                if literals and between.strip():
                    break
                literals.append((s.group(1), s.end()))
            fmt = "".join(text for text, _ in literals)
            line_no = source.count("\n", 0, m.start())
            where = "%s:%d" % (path.relative_to(root), line_no + 1)
            found.append((tag, m.group(1), enclosing_function(lines, line_no), fmt, where))
        # The frame lists are written by one helper in the name of the query that asked.
        for m in re.finditer(r"logging::emit\(CD_LOG_TAG,[^;]*?\"([^\"]*)\"", source, re.S):
            line_no = source.count("\n", 0, m.start())
            where = "%s:%d" % (path.relative_to(root), line_no + 1)
            found.append((tag, "emit", "(the query)", m.group(1), where))
    return found


LITERAL = r'"(?:[^"\\]|\\.)*"'
ENTRY = re.compile(r'^\s*\{(%s),\s*(%s),\s*(%s),\s*(%s),\s*(%s|nullptr),\s*(%s)\},\s*$'
                   % ((LITERAL,) * 5 + (LITERAL,)), re.M)


def unquote(literal):
    return bytes(literal[1:-1], "utf-8").decode("unicode_escape")


def declared_lines(root):
    text = (root / TABLE).read_text()
    out = []
    for m in ENTRY.finditer(text):
        line_no = text.count("\n", 0, m.start()) + 1
        key = None if m.group(5) == "nullptr" else unquote(m.group(5))
        out.append({"tag": unquote(m.group(1)), "macro": unquote(m.group(2)),
                    "function": unquote(m.group(3)), "format": unquote(m.group(4)),
                    "key": key, "note": unquote(m.group(6)),
                    "where": "%s:%d" % (TABLE, line_no)})
    return out


def shape(fmt):
    """The format as the catalogue writes it: each number conversion as N."""
    return re.sub(r"%[-+ #0]*\d*(?:l|ll|z)?[dux]", "N", fmt)


def key_problem(e, root):
    """Why the reader does not know the declared line by its key, or None."""
    kind, _, value = e["key"].partition(":")
    if kind == "func":
        reader = (root / READER[0]).read_text()
        if value != e["function"] and e["function"] != "(the query)":
            return 'its key names the function "%s", not "%s"' % (value, e["function"])
        if ('func == "%s"' % value) not in reader:
            return '%s no longer dispatches on func == "%s"' % (READER[0], value)
        return None
    if kind == "text":
        if value not in e["format"] and e["function"] != "(the query)":
            return 'the fragment "%s" is not part of the format' % value
        reader = "".join((root / p).read_text() for p in READER)
        if ('"%s' % value) not in reader and ('%s"' % value) not in reader:
            return 'the reader (%s) no longer matches "%s"' % (", ".join(READER), value)
        return None
    if kind == "catalogue":
        if value not in shape(e["format"]):
            return 'the catalogue text "%s" is not part of the line\'s shape "%s"' % (
                value, shape(e["format"]))
        catalogue = (root / CATALOGUE).read_text()
        if ('"%s' % value) not in catalogue:
            return '%s no longer knows "%s"' % (CATALOGUE, value)
        return None
    return 'the key "%s" is none of func:, text:, catalogue:' % e["key"]


def main(argv):
    listing = "--list" in argv
    rest = [a for a in argv if a != "--list"]
    root = pathlib.Path(rest[0] if rest else pathlib.Path(__file__).resolve().parent.parent)
    written = library_lines(root)
    if listing:
        for tag, macro, function, fmt, where in written:
            print('%s\t%s\t%s\t%s\t"%s"' % (where, tag, macro, function, fmt))
        return 0
    table = declared_lines(root)
    problems = []
    keys = {}
    for entry in table:
        key = (entry["tag"], entry["macro"], entry["function"], entry["format"])
        keys.setdefault(key, []).append(entry)
    seen = set()
    for tag, macro, function, fmt, where in written:
        key = (tag, macro, function, fmt)
        if key not in keys:
            problems.append('%s: %s in %s writes "%s" (%s), which %s does not declare: declare '
                            'it there and make the reader (%s) read it, or say why not'
                            % (where, macro, function, fmt, tag, TABLE, READER[0]))
        seen.add(key)
    for key, entries in keys.items():
        if key not in seen:
            e = entries[0]
            problems.append('%s: declares %s in %s "%s" (%s), which the library no longer '
                            'writes: a library line changed or went; update the table and the '
                            'reader\'s key "%s"' % (e["where"], e["macro"], e["function"],
                                                          e["format"], e["tag"], e["key"]))
    for e in table:
        if e["key"] is None:
            if not e["note"]:
                problems.append("%s: a line the reader does not read needs a note saying why"
                                % e["where"])
            continue
        why = key_problem(e, root)
        if why:
            problems.append('%s: "%s" (%s in %s): %s; update the reader or the table'
                            % (e["where"], e["format"], e["macro"], e["function"], why))
    for p in problems:
        print("check-log-lines: " + p)
    print("check-log-lines: %d lines written by the library, %d declared, %d read by the reader%s"
          % (len(written), len(table), sum(1 for e in table if e["key"] is not None),
             "" if not problems else "; %d problem(s)" % len(problems)))
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
