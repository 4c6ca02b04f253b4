#!/usr/bin/env python3
"""Compares what the tests reached in src/ with the list of what cannot be reached; scripts/coverage calls it.

Usage: compare.py ROOT EXPORT.json EXPORT.lcov UNREACHED.tsv

What is instantiated several times counts as one: an outcome is reached when one instantiation reaches it. Lines of
nothing but brackets do not count.
"""

import collections
import json
import pathlib
import sys


class Source:
    """The text of a source file, by llvm-cov's positions: lines and columns from 1, columns in bytes."""

    def __init__(self, path):
        self.lines = path.read_bytes().split(b"\n")

    def text(self, start_line, start_column, end_line, end_column):
        part = self.lines[start_line - 1 : end_line]
        part[-1] = part[-1][: end_column - 1]
        part[0] = part[0][start_column - 1 :]
        return " ".join(b" ".join(part).decode().split())

    def line(self, number):
        return " ".join(self.lines[number - 1].decode().split())


class Figure:
    """What there is of a kind, and what of it is not reached: places as (file, line, what)."""

    def __init__(self):
        self.count = 0
        self.missed = []

    def add(self, reached, place):
        self.count += 1
        if not reached:
            self.missed.append(place)


def read_lines(path, root, sources, figure):
    name = None
    for line in path.read_text().splitlines():
        if line.startswith("SF:"):
            name = str(pathlib.Path(line[3:]).relative_to(root))
        elif line.startswith("DA:"):
            number, count = (int(part) for part in line[3:].split(",")[:2])
            text = sources[name].line(number)
            if text.strip("{};()"):
                figure.add(count > 0, (name, number, text))


def read_branches(name, branches, source, figure):
    outcomes = collections.OrderedDict()
    for branch in branches:
        seen = outcomes.setdefault(tuple(branch[:4]), [0, 0])
        seen[0] += branch[4]
        seen[1] += branch[5]
    for position, seen in sorted(outcomes.items()):
        for outcome, count in zip(("true", "false"), seen):
            figure.add(count > 0, (name, position[0], f"{source.text(*position)} -> {outcome}"))
    return sorted(outcomes)


def read_decisions(name, records, conditions, source, figure):
    decisions = collections.OrderedDict()
    for record in records:
        shown = record[-1]
        seen = decisions.setdefault(tuple(record[:4]), [False] * len(shown))
        for number, covered in enumerate(shown):
            seen[number] = seen[number] or covered
    for position, seen in sorted(decisions.items()):
        inside = [c for c in conditions if position[:2] <= c[:2] and c[2:] <= position[2:]]
        for number, covered in enumerate(seen):
            condition = source.text(*inside[number]) if len(inside) == len(seen) else f"condition {number + 1}"
            figure.add(covered, (name, position[0], f"{condition} in: {source.text(*position)}"))


def read_list(path):
    """Rows of file, kind, what and reason, as a count of (file, kind, what)."""
    named = collections.Counter()
    for number, line in enumerate(path.read_text().splitlines(), 1):
        if not line or line.startswith("#"):
            continue
        fields = line.split("\t")
        if len(fields) != 4 or not all(fields):
            sys.exit(f"{path}:{number}: not four fields: file, kind, what, reason")
        named[tuple(fields[:3])] += 1
    return named


def percentage(figure):
    # Rounded down: 100.0 is said of all alone.
    return (figure.count - len(figure.missed)) * 1000 // max(figure.count, 1) / 10


def main():
    root, export, lcov, unreached = (pathlib.Path(argument) for argument in sys.argv[1:5])
    root = root.resolve()
    figures = {"line": Figure(), "branch": Figure(), "MC/DC": Figure()}
    files = {
        str(pathlib.Path(one["filename"]).relative_to(root)): one
        for one in json.loads(export.read_text())["data"][0]["files"]
    }
    sources = {name: Source(root / name) for name in files}
    read_lines(lcov, root, sources, figures["line"])
    for name, one in sorted(files.items()):
        conditions = read_branches(name, one["branches"], sources[name], figures["branch"])
        read_decisions(name, one["mcdc_records"], conditions, sources[name], figures["MC/DC"])

    listed = read_list(unreached)
    named = sum(listed.values())
    bad = 0
    open_figures = {}
    for kind, figure in figures.items():
        unnamed = Figure()
        unnamed.count = figure.count
        for name, number, what in figure.missed:
            if listed[name, kind, what] > 0:
                listed[name, kind, what] -= 1
            else:
                unnamed.missed.append(what)
                print(f"not reached: {name}:{number}: {kind}: {what}")
                bad = 1
        open_figures[kind] = unnamed
    for (name, kind, what), count in sorted(listed.items()):
        if count > 0:
            print(f"named in {unreached.name}, and reached or gone: {name}: {kind}: {what}")
            bad = 1
    print(
        f"of {figures['line'].count} lines, {figures['branch'].count} outcomes of conditions and"
        f" {figures['MC/DC'].count} conditions of decisions; what is named counts as reached"
    )
    shown = ", ".join(
        f"{label} {percentage(open_figures[kind]):.1f} %"
        for label, kind in (("lines", "line"), ("branches", "branch"), ("MC/DC", "MC/DC"))
    )
    print(f"result: {shown}, {named} named")
    return bad


sys.exit(main())
