#!/usr/bin/env python3
"""Checks that the tools' tree matches its picture in docs/design.md ("The tools' rooms").

The picture's mermaid block names every arrow (a room that uses another), its table every
room. Fails, naming the file and line, when:
  - a folder of tools/ is not a room of the table, or a room has no folder;
  - a file of a room includes another room's header ("room/Name.h") without an arrow to it,
    or includes a tools header by its bare name (the folder must be written);
  - a file of a room opens, inside namespace orvcam, a namespace other than its room's or a
    room it has an arrow to (a forward declaration).
Usage: check-rooms.py ROOT
"""
import pathlib
import re
import sys

DOC = "docs/design.md"
SECTION = "## The tools' rooms"
SOURCES = (".h", ".cpp", ".in")


def read_picture(root):
    text = (root / DOC).read_text()
    if SECTION not in text:
        sys.exit("check-rooms: %s has no section %r" % (DOC, SECTION))
    section = text.split(SECTION, 1)[1].split("\n## ", 1)[0]
    block = re.search(r"```mermaid\n(.*?)```", section, re.S)
    if not block:
        sys.exit("check-rooms: %s: %r has no mermaid picture" % (DOC, SECTION))
    arrows = {}
    for line in block.group(1).splitlines():
        m = re.fullmatch(r"\s*(\w+) --> (\w+)\s*", line)
        if m:
            arrows.setdefault(m.group(1), set()).add(m.group(2))
    rooms = set(re.findall(r"^\| `(\w+)` \|", section, re.M))
    if not rooms:
        sys.exit("check-rooms: %s: %r has no table of rooms" % (DOC, SECTION))
    return rooms, arrows


def main(argv):
    root = pathlib.Path(argv[0] if argv else ".")
    rooms, arrows = read_picture(root)
    problems = []
    for room in sorted(set(arrows) | {r for rs in arrows.values() for r in rs}):
        if room not in rooms:
            problems.append("%s: the picture's room %s is not in the table" % (DOC, room))
    folders = {p.name for p in (root / "tools").iterdir() if p.is_dir()}
    for f in sorted(folders - rooms):
        problems.append("tools/%s: a folder that is not a room of %s" % (f, DOC))
    for r in sorted(rooms - folders):
        problems.append("%s: room %s has no folder tools/%s" % (DOC, r, r))
    headers = {}
    for room in folders & rooms:
        for h in (root / "tools" / room).glob("*.h"):
            headers.setdefault(h.name, room)
    for room in sorted(folders & rooms):
        allowed = arrows.get(room, set()) | {room}
        for path in sorted((root / "tools" / room).iterdir()):
            if path.suffix not in SOURCES:
                continue
            rel = path.relative_to(root)
            for no, line in enumerate(path.read_text().splitlines(), 1):
                inc = re.match(r'#include "(?:(\w+)/)?(\w+\.h)"', line)
                if inc:
                    used, name = inc.group(1), inc.group(2)
                    if used is None and name in headers:
                        problems.append('%s:%d: includes "%s" without its folder (%s/%s)'
                                        % (rel, no, name, headers[name], name))
                    elif used in rooms and used not in allowed:
                        problems.append("%s:%d: room %s includes room %s, which the picture "
                                        "gives it no arrow to" % (rel, no, room, used))
            text = path.read_text()
            for m in re.finditer(r"^namespace orvcam \{\n(?:\n|//.*\n)*namespace (\w+) \{", text,
                                 re.M):
                ns = m.group(1)
                if ns not in allowed:
                    no = text[: m.start(1)].count("\n") + 1
                    problems.append("%s:%d: namespace orvcam::%s in room %s (its own is "
                                    "orvcam::%s)" % (rel, no, ns, room, room))
    for p in problems:
        print("FAIL: " + p)
    if problems:
        return 1
    print("check-rooms: %d rooms, %d arrows, tools/ matches %s"
          % (len(rooms), sum(len(a) for a in arrows.values()), DOC))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
