#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Runs scenario files: a host, one scsitool command line, and what it should print and do.

usage: run.py --binary SCSITOOL --source SOURCE_DIR [--update] [--wrapper CMD] PATH...
PATH is a scenario file or a directory searched for them (*.scenario, at any depth). Exit status
0 when every scenario matches; with --update the expected sections are rewritten from the actual
run and what changed is printed (a "contains" section is never rewritten: a failing one is
reported and keeps the run failing). --wrapper runs the command under another program (e.g.
valgrind with --error-exitcode and --log-file, so that only the exit status tells).

A scenario file:

    # One line that says what the scenario shows.
    --- host                       the host snapshot, inline JSON ...
    --- host examples/hosts/x.json ... or a file of the source tree
    --- command
    scsitool map --rescan-buses    run with --host (and --events, --trace) added in front
    --- stdout                     the expected sections; only those present are compared
    --- stderr
    --- exit
    --- events                     what the simulated kernel saw (--events)
    --- trace 3                    the trace up to that level (1 to 6), without time and pid;
                                   the function tracer's entry and exit lines, which carry
                                   source lines, are left out at 6
    --- trace 6 calls              the same with the function tracer's lines kept, each source
                                   line number shown as "#"
    --- file NAME                  a file the command wrote under {tmp}
    --- given NAME                 a file put under {tmp} before the command runs, inline ...
    --- given NAME examples/x.json ... or a copy of a file of the source tree
    --- contains trace 3           these lines, in this order, somewhere in the trace (other
                                   lines may come before, between and after them); "contains"
                                   goes in front of any of the sections above: stdout, stderr,
                                   events, trace N, file NAME

A section pins its whole text; a "contains" section pins only the lines a scenario is about, each
one whole, in order. A scenario may have both for one output (say the stderr, and the one trace
line that explains it); when it traces twice, both sections name the same level.

In the command line and the expectations {tmp} stands for a scratch directory and {src} for
the source tree. Output that does not end in a newline shows "(no newline at end)" on a line of
its own. tests/runner/ holds the cases that check this runner itself.
"""
import argparse
import difflib
import glob
import os
import re
import shlex
import subprocess
import sys
import tempfile

NO_NEWLINE = "(no newline at end)\n"
CONTAINS = "contains "
FUNCTION_LINE = re.compile(r"^L6 (Entering|Exiting) Function .*\n?", re.M)
FUNCTION_SOURCE_LINE = re.compile(r"^(L6 (?:Entering|Exiting) Function .* \[)\d+(, [^\]]*\])$", re.M)
TRACE_PREFIX = re.compile(r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} pid \d+ tid \d+ ", re.M)


class Scenario:
    def __init__(self, path):
        self.path = path
        self.title = ""
        self.sections = []  # [header, body] in file order; header like "stdout", "trace 3"
        text = open(path, encoding="utf-8").read()
        lines = text.splitlines(keepends=True)
        if not lines or not lines[0].startswith("# "):
            raise ValueError(f"{path}: the first line must be '# what the scenario shows'")
        self.title = lines[0]
        current = None
        for line in lines[1:]:
            if line.startswith("--- "):
                current = [line[4:].strip(), ""]
                self.sections.append(current)
            elif current is None:
                if line.startswith("#") or not line.strip():
                    self.title += line
                    continue
                raise ValueError(f"{path}: text before the first section: {line!r}")
            else:
                current[1] += line

    def get(self, name):
        """The first section that pins or looks into `name`, as (header without "contains", body)."""
        for header, body in self.sections:
            if subject(header).split(" ")[0] == name:
                return subject(header), body
        return None, None

    def write(self):
        out = self.title
        for header, body in self.sections:
            out += "--- " + header + "\n" + body
        open(self.path, "w", encoding="utf-8").write(out)


def subject(header):
    """The output a section header names: "contains trace 3" and "trace 3" both name "trace 3"."""
    return header[len(CONTAINS):] if header.startswith(CONTAINS) else header


def missing_line(expected, actual):
    """None when every line of `expected` is a line of `actual`, in the same order; otherwise a
    message that names the first line not found and the actual line it was looked for after."""
    lines = actual.splitlines()
    at = 0
    for number, wanted in enumerate(expected.splitlines(), 1):
        start = at
        while at < len(lines) and lines[at] != wanted:
            at += 1
        if at == len(lines):
            where = f"after actual line {start}" if start else "anywhere"
            return f"expected line {number} not found {where}: {wanted!r}"
        at += 1
    return None


def shown(text):
    if text and not text.endswith("\n"):
        return text + "\n" + NO_NEWLINE
    return text


def run(scenario, binary, source, wrapper=()):
    """The actual text of every expected section of `scenario`."""
    with tempfile.TemporaryDirectory(prefix="scenario-") as tmp:
        def expand(text):
            return text.replace("{tmp}", tmp).replace("{src}", source)

        def fold(text):
            return text.replace(tmp, "{tmp}").replace(source, "{src}")

        _, command = scenario.get("command")
        if command is None:
            raise ValueError(f"{scenario.path}: no command section")
        args = shlex.split(expand(command.strip()))
        if not args or args[0] != "scsitool":
            raise ValueError(f"{scenario.path}: the command must start with scsitool")
        front = []
        header, host = scenario.get("host")
        if header is not None:
            parts = header.split(" ", 1)
            if len(parts) == 2:
                front += ["--host", os.path.join(source, parts[1].strip())]
            else:
                hostFile = os.path.join(tmp, "host.json")
                open(hostFile, "w", encoding="utf-8").write(host)
                front += ["--host", hostFile]
        for header, body in scenario.sections:
            if header.split(" ")[0] != "given":
                continue
            parts = header.split()
            if len(parts) not in (2, 3):
                raise ValueError(f"{scenario.path}: given takes a name and at most one source file")
            target = os.path.join(tmp, parts[1])
            os.makedirs(os.path.dirname(target), exist_ok=True)
            text = open(os.path.join(source, parts[2]), encoding="utf-8").read() \
                if len(parts) == 3 else body
            open(target, "w", encoding="utf-8").write(text)
        events = os.path.join(tmp, "events.txt")
        if scenario.get("events")[0] is not None:
            front += ["--events", events]
        levels = {subject(header).split(" ", 1)[1] if " " in subject(header) else "3"
                  for header, _ in scenario.sections if subject(header).split(" ")[0] == "trace"}
        trace = os.path.join(tmp, "trace.txt")
        if len(levels) > 1:
            raise ValueError(f"{scenario.path}: one trace level per scenario, not {sorted(levels)}")
        if levels:
            words = levels.pop().split(" ")
            level = words[0]
            if words[1:] not in ([], ["calls"]):
                raise ValueError(f"{scenario.path}: a trace section is \"trace N\" or \"trace 6 calls\"")
            if level not in ("1", "2", "3", "4", "5", "6"):
                raise ValueError(f"{scenario.path}: trace levels are 1 to 6")
            front += ["--trace", trace, "--trace-level", level]
        # A capture records when it was taken: every scenario runs at the same moment, the epoch.
        env = dict(os.environ, SOURCE_DATE_EPOCH="0")
        proc = subprocess.run(list(wrapper) + [binary] + front + args[1:], cwd=tmp, env=env, stdin=subprocess.DEVNULL,
                              capture_output=True, timeout=600)
        actual = {}
        for full, _ in scenario.sections:
            header = subject(full)
            name = header.split(" ")[0]
            if name == "stdout":
                actual[header] = shown(fold(proc.stdout.decode("utf-8", "replace")))
            elif name == "stderr":
                actual[header] = shown(fold(proc.stderr.decode("utf-8", "replace")))
            elif name == "exit":
                actual[header] = f"{proc.returncode}\n"
            elif name == "events":
                text = open(events, encoding="utf-8").read() if os.path.exists(events) else ""
                actual[header] = shown(fold(text))
            elif name == "trace":
                text = open(trace, encoding="utf-8", errors="replace").read() \
                    if os.path.exists(trace) else ""
                text = TRACE_PREFIX.sub("", text)
                if header.endswith(" calls"):
                    text = FUNCTION_SOURCE_LINE.sub(r"\1#\2", text)
                else:
                    text = FUNCTION_LINE.sub("", text)
                actual[header] = shown(fold(text))
            elif name == "file":
                path = os.path.join(tmp, header.split(" ", 1)[1].strip())
                text = open(path, encoding="utf-8").read() if os.path.exists(path) else ""
                actual[header] = shown(fold(text))
            elif name not in ("host", "command", "given") or full != header:
                raise ValueError(f"{scenario.path}: unknown section {full!r}")
        return actual


def check(path, binary, source, update, wrapper):
    scenario = Scenario(path)
    actual = run(scenario, binary, source, wrapper)
    differs = False  # a whole section differs: --update rewrites it
    missing = False  # a "contains" line is missing: only a person can fix that
    for section in scenario.sections:
        header, expected = section
        text = actual.get(subject(header))
        if text is None:
            continue
        if header.startswith(CONTAINS):
            if not expected.strip():
                raise ValueError(f"{path}: [{header}] is empty: it would require nothing")
            problem = missing_line(expected, text)
            if problem:
                missing = True
                print(f"{path} [{header}]: {problem}; the actual text:")
                print("".join("    " + line for line in text.splitlines(True)), end="")
            continue
        if text == expected:
            continue
        differs = True
        diff = "".join(difflib.unified_diff(expected.splitlines(True), text.splitlines(True),
                                            f"{path} [{header}] expected", "actual"))
        print(diff, end="" if diff.endswith("\n") else "\n")
        section[1] = text
    if differs and update:
        scenario.write()
        print(f"{path}: rewritten")
        return not missing
    return not differs and not missing


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--binary", required=True)
    ap.add_argument("--source", required=True)
    ap.add_argument("--update", action="store_true", help="rewrite the expectations from the run")
    ap.add_argument("--wrapper", default="", help="a command line to run scsitool under")
    ap.add_argument("paths", nargs="+")
    args = ap.parse_args()
    source = os.path.realpath(args.source)
    files = []
    for path in args.paths:
        files += sorted(glob.glob(os.path.join(path, "**", "*.scenario"), recursive=True)) \
            if os.path.isdir(path) else [path]
    failed = 0
    for path in files:
        try:
            ok = check(path, os.path.realpath(args.binary), source, args.update,
                       shlex.split(args.wrapper))
        except (ValueError, OSError, subprocess.TimeoutExpired) as error:
            message = str(error)
            print(message if message.startswith(path + ": ") else f"{path}: {message}")
            ok = False
        if not ok:
            failed += 1
            print(f"FAIL {path}")
    print(f"{len(files) - failed}/{len(files)} scenarios pass")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
