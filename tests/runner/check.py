#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Checks the scenario runner itself on one file of tests/runner/.

usage: check.py RUNNER SCSITOOL SOURCE_DIR FILE
The file's second line says what the runner must do with it: "# passes", or "# fails: TEXT" where
TEXT is the first line the runner prints about the file, without the file's path in front.
Exit status 0 when it does.
"""
import os
import subprocess
import sys


def main():
    runner, binary, source, path = sys.argv[1:5]
    relative = os.path.relpath(os.path.realpath(path), os.path.realpath(source))
    lines = open(path, encoding="utf-8").read().splitlines()
    want = lines[1] if len(lines) > 1 else ""
    proc = subprocess.run([sys.executable, runner, "--binary", binary, "--source", source, relative],
                          cwd=source, capture_output=True, text=True, timeout=600)
    print(proc.stdout, end="")
    first = proc.stdout.splitlines()[0] if proc.stdout else ""
    if want == "# passes":
        return 0 if proc.returncode == 0 else 1
    if not want.startswith("# fails: "):
        print(f"{path}: the second line must be '# passes' or '# fails: TEXT'")
        return 1
    expected = relative + (" " if want[9:].startswith("[") else "") + want[9:]
    if proc.returncode != 1 or first != expected:
        print(f"{path}: expected the runner to fail with\n    {expected}\nnot exit {proc.returncode} with\n    {first}")
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
