#!/usr/bin/env python3
"""changelog.py [VERSION]: prints CHANGELOG.md as debian/changelog has it, its newest release as VERSION if that is given.

Changes that are not released yet stand with those of the newest release.
"""
import datetime
import pathlib
import re
import sys
import textwrap

root = pathlib.Path(__file__).resolve().parent.parent
maintainer = re.search(r"^Maintainer: (.*)$", (root / "debian/control").read_text(), re.MULTILINE)[1]
releases = re.split(r"^## ", (root / "CHANGELOG.md").read_text(), flags=re.MULTILINE)[1:]
if releases[0].startswith("Unreleased\n"):
    unreleased = releases.pop(0).partition("\n")[2]
    head, _, text = releases[0].partition("\n")
    releases[0] = f"{head}\n{unreleased.strip()}\n{text.lstrip()}"
for i, release in enumerate(releases):
    head, _, text = release.partition("\n")
    version, date = head.split(", ")
    if i == 0 and len(sys.argv) > 1:
        version = sys.argv[1]
    changes = re.split(r"^- ", text, flags=re.MULTILINE)[1:]
    print(f"qelstd ({version}) unstable; urgency=medium\n")
    for change in changes:
        plain = re.sub(r"\[([^]]*)\]\([^)]*\)", r"\1", change.replace("**", ""))
        print(textwrap.fill(" ".join(plain.split()), 76, initial_indent="  * ", subsequent_indent="    "))
    day = datetime.date.fromisoformat(date)
    print(f"\n -- {maintainer}  {day:%a, %d %b %Y} 00:00:00 +0000\n")
