#!/usr/bin/env python3
"""Checks every #include "..." of the tree against the table of who may
include whom in ARCHITECTURE.md (the section "Who may include whom").

Each row names a folder (or one file) and the folders its files may include
besides their own; "*" allows everything. A file belongs to the longest folder
or file of the table that holds it; a source file in no folder of the table, or an include of a
folder the row does not allow, fails with its file and line.

    include_rules.py SOURCE_ROOT
"""
import os
import re
import sys

SOURCES = (".h", ".cpp")
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"')
ROW = re.compile(r"^\|\s*`([^`]+)`\s*\|(.*)\|\s*$")


def read_table(root):
    rules, inside = {}, False
    with open(os.path.join(root, "ARCHITECTURE.md"), encoding="utf-8") as f:
        for line in f:
            if line.startswith("## "):
                inside = line.strip() == "## Who may include whom"
                continue
            m = ROW.match(line) if inside else None
            if m:
                allowed = m.group(2).strip()
                rules[m.group(1)] = "*" if allowed == "*" else set(re.findall(r"`([^`]+/)`", allowed))
    return rules


def folder_of(path, folders):
    best = None
    for folder in folders:
        if path.startswith(folder) and (best is None or len(folder) > len(best)):
            best = folder
    return best


def check(root):
    rules = read_table(root)
    if not rules:
        return ["ARCHITECTURE.md: no table under \"## Who may include whom\""]
    faults = []
    skip = {".git"}
    for base, dirs, files in os.walk(root):
        rel_base = os.path.relpath(base, root)
        dirs[:] = sorted(d for d in dirs if d not in skip and not d.startswith("build"))
        for name in sorted(files):
            if not name.endswith(SOURCES):
                continue
            rel = os.path.normpath(os.path.join(rel_base, name))
            own = folder_of(rel, rules)
            if own is None:
                faults.append("%s: in no folder of the include table" % rel)
                continue
            allowed = rules[own]
            with open(os.path.join(root, rel), encoding="utf-8", errors="replace") as f:
                for n, line in enumerate(f, 1):
                    m = INCLUDE.match(line)
                    if not m or allowed == "*":
                        continue
                    target = m.group(1)
                    if "/" not in target:
                        continue  # a header beside the file, in its own folder
                    to = folder_of(target, rules)
                    if to is None:
                        faults.append("%s:%d: includes %s, in no folder of the include table" % (rel, n, target))
                    elif to != own and to not in allowed:
                        faults.append("%s:%d: %s may not include %s (%s)" % (rel, n, own, to, target))
    return faults


def main():
    root = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else ".")
    faults = check(root)
    for f in faults:
        print(f)
    print("%d include faults" % len(faults))
    sys.exit(1 if faults else 0)


if __name__ == "__main__":
    main()
