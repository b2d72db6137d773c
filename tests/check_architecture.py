#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The documents stay true to the tree.

- docs/architecture.md names every tracked C++ file under the section of its folder (a heading
  that names the folder in backticks), by its path inside that folder or its name, with or
  without the extension;
- every C++ source a build compiles is in a CMake source list (or fuzz/targets.txt);
- every path that README.md, docs/*.md, fuzz/README.md, tests/vm/README.md and abi/README.md name
  in backticks exists, inside the tree (from its top or from the document's folder). Paths of
  the running system (absolute ones), of a build directory, and placeholders (<group>, *, …)
  match any name.

Usage: check_architecture.py SOURCE_DIR. Exits 77 (skipped) outside a git checkout.
"""
import glob
import os
import re
import subprocess
import sys

ARCHITECTURE = "docs/architecture.md"
DOCUMENTS = ["README.md", "docs/*.md", "fuzz/README.md", "tests/vm/README.md", "abi/README.md"]
# Files no build lists: the package test's consumers are built by tests/package/*.sh.
NOT_IN_CMAKE = re.compile(r"^tests/package/|\.h$")
# The folders whose C++ files the architecture page covers: all of them.
CODE = re.compile(r"\.(cpp|h)$")
TICKED = re.compile(r"`([^`\n]+)`")
HEADING = re.compile(r"^#+ .*?`([^`]+/)`")
PATHLIKE = re.compile(r"^[\w.<>*…+-]+(/[\w.<>*…+-]*)+$")
PLACEHOLDER = re.compile(r"<[^>]*>|\*|…")
# A path that starts in a place named in capitals (`WORK/out/`, `DIR/include/scsitool/`) is
# somewhere the reader chose, not in the tree.
CHOSEN = re.compile(r"^[A-Z][A-Z_]*/")


def tracked(source):
    out = subprocess.run(["git", "-C", source, "ls-files", "-z"], check=True,
                         capture_output=True, text=True).stdout
    return [path for path in out.split("\0") if path and os.path.exists(f"{source}/{path}")]


def architecture_sections(text):
    """{folder: set of names in backticks under that folder's heading}"""
    sections = {}
    folder = None
    for line in text.splitlines():
        heading = HEADING.match(line)
        if heading:
            folder = heading.group(1)
            sections.setdefault(folder, set())
        elif line.startswith("#"):
            folder = None
        elif folder:
            for name in TICKED.findall(line):
                sections[folder].update(part.strip() for part in name.split(","))
    return sections


def named(path, sections):
    for folder, names in sections.items():
        if not path.startswith(folder):
            continue
        inside = path[len(folder):]
        stem = os.path.splitext(inside)[0]
        base = os.path.basename(inside)
        if {inside, stem, base, os.path.splitext(base)[0]} & names:
            return True
    return False


def unnamed_sources(source, files):
    with open(f"{source}/{ARCHITECTURE}", encoding="utf-8") as stream:
        sections = architecture_sections(stream.read())
    return [f"{ARCHITECTURE}: {path} is not named under its folder's heading"
            for path in files if CODE.search(path) and not named(path, sections)]


def unlisted_sources(source, files):
    listed = ""
    for path in files:
        if path.endswith("CMakeLists.txt") or path == "fuzz/targets.txt":
            with open(f"{source}/{path}", encoding="utf-8") as stream:
                listed += stream.read()
    words = set(re.findall(r"[\w.-]+", listed))
    problems = []
    for path in files:
        if not path.endswith(".cpp") or NOT_IN_CMAKE.search(path):
            continue
        base = os.path.basename(path)
        if base not in words and os.path.splitext(base)[0] not in words:
            problems.append(f"{path} is in no CMake source list")
    return problems


def exists(source, document, folder, path):
    """From the top, from the document's folder, or from the folder its section is about; a
    name without its extension (`support/temp_dir`) stands for its .h and .cpp."""
    path = path.rstrip("/")
    pattern = PLACEHOLDER.sub("*", path)
    bases = [source, os.path.join(source, os.path.dirname(document))]
    if folder:
        bases.append(os.path.join(source, folder))
    for base in bases:
        if glob.glob(os.path.join(base, pattern)) or glob.glob(os.path.join(base, pattern + ".*")):
            return True
    return False


def missing_paths(source):
    problems = []
    documents = sorted({path for pattern in DOCUMENTS
                        for path in glob.glob(os.path.join(source, pattern))})
    for full in documents:
        document = os.path.relpath(full, source)
        with open(full, encoding="utf-8") as stream:
            text = stream.read()
        # Code blocks hold commands and output, not references.
        text = re.sub(r"^```.*?^```", "", text, flags=re.S | re.M)
        folder = None
        for line in text.splitlines():
            if line.startswith("#"):
                heading = HEADING.match(line)
                folder = heading.group(1) if heading else None
            for token in TICKED.findall(line):
                token = token.strip()
                if not PATHLIKE.match(token) or token.startswith(("build/", "./build/")):
                    continue
                if token.startswith(("~", "/")) or "://" in token or CHOSEN.match(token):
                    continue
                if not exists(source, document, folder, token):
                    problems.append(f"{document}: `{token}` does not exist")
    return problems


def main():
    source = sys.argv[1]
    try:
        files = tracked(source)
    except (OSError, subprocess.CalledProcessError):
        print("check_architecture: not a git checkout, nothing to check")
        return 77
    problems = unnamed_sources(source, files) + unlisted_sources(source, files) + \
        missing_paths(source)
    for line in problems:
        print(line)
    print(f"check_architecture: {len(problems)} problems")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
