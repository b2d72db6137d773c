#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Every tracked source file names its licence on its first line (after a #! line).

Usage: check_spdx.py SOURCE_DIR. Exits 77 (skipped) outside a git checkout.
"""
import re
import subprocess
import sys

IDENTIFIER = "SPDX-License-Identifier: Apache-2.0"
# Which files are source, and the comment that carries the identifier in each.
KINDS = [
    (re.compile(r"\.(cpp|h)$"), "// "),
    (re.compile(r"(\.sh|\.py|\.cmake|\.cmake\.in|\.pc\.in|(^|/)CMakeLists\.txt)$"), "# "),
    (re.compile(r"\.map$"), "/* "),
]


def expected_line(path):
    for pattern, comment in KINDS:
        if pattern.search(path):
            return comment + IDENTIFIER + (" */" if comment == "/* " else "")
    return None


def main():
    source = sys.argv[1]
    try:
        files = subprocess.run(["git", "-C", source, "ls-files", "-z"], check=True,
                               capture_output=True, text=True).stdout.split("\0")
    except (OSError, subprocess.CalledProcessError):
        print("check_spdx: not a git checkout, nothing to check")
        return 77
    missing = []
    checked = 0
    for path in filter(None, files):
        want = expected_line(path)
        if want is None:
            continue
        try:
            with open(f"{source}/{path}", encoding="utf-8") as stream:
                lines = stream.read().split("\n", 2)
        except FileNotFoundError:
            continue  # deleted in the work tree, not yet in the index
        checked += 1
        first = lines[1] if lines[0].startswith("#!") and len(lines) > 1 else lines[0]
        if first != want:
            missing.append(f"{path}: first line is {first!r}, expected {want!r}")
    for line in missing:
        print(line)
    print(f"{checked} source files, {len(missing)} without the licence identifier")
    return 1 if missing else 0


if __name__ == "__main__":
    sys.exit(main())
