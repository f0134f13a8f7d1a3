#!/usr/bin/env python3
"""The source tree's rooms and the one way their includes run.

Every room may include its own headers and those of the rooms listed before it, never one listed
after it, and no chain of includes between files comes back to where it started. A header's name is
unique across the rooms, so that an include by name says which room it comes from.
Usage: check_rooms.py SOURCE_DIR
"""
import os
import re
import sys

ROOMS = [
    "include", "src/blockfile", "src/status", "src/changelog", "src/plugin", "src/decoder",
    "src/render", "src/logdir", "src/sinks", "src/firebird", "src/replica", "host", "src/metrics",
    "src/snapshot", "tools/fbcdc",
]
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.M)


def main(root):
    rank, files, problems = {}, {}, []
    for i, room in enumerate(ROOMS):
        for name in sorted(os.listdir(os.path.join(root, room))):
            if not name.endswith((".h", ".cpp")):
                continue
            path = os.path.join(room, name)
            files[path] = i
            if name.endswith(".h"):
                if name in rank:
                    problems.append(f"{name} is in two rooms")
                rank[name] = path
    edges = {}
    for path, room in files.items():
        text = open(os.path.join(root, path), encoding="utf-8").read()
        targets = []
        for inc in INCLUDE.findall(text):
            target = os.path.normpath(os.path.join(os.path.dirname(path), inc))
            if target not in files:
                target = rank.get(os.path.basename(inc))
            if target is None:
                problems.append(f"{path}: \"{inc}\" is in no room")
                continue
            if files[target] > room:
                problems.append(f"{path} includes {target}, which is in a room above it")
            targets.append(target)
        edges[path] = targets
    # A depth-first walk finds any chain of includes that returns to a file on it.
    state = {}

    def walk(node, trail):
        state[node] = "open"
        for nxt in edges[node]:
            if state.get(nxt) == "open":
                problems.append("include loop: " + " -> ".join(trail[trail.index(nxt):] + [nxt]))
            elif nxt not in state:
                walk(nxt, trail + [nxt])
        state[node] = "done"

    for node in sorted(edges):
        if node not in state:
            walk(node, [node])
    for p in problems:
        print(p)
    print(f"{len(files)} files in {len(ROOMS)} rooms, {len(problems)} problems")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
