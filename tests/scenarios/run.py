#!/usr/bin/env python3
"""Runs scenario files: a host, one scsitool command line, and what it should print and do.

usage: run.py --binary SCSITOOL --source SOURCE_DIR [--update] [--wrapper CMD] PATH...
PATH is a scenario file or a directory of them (*.scenario). Exit status 0 when every scenario
matches; with --update the expected sections are rewritten from the actual run and what changed
is printed. --wrapper runs the command under another program (e.g. valgrind with
--error-exitcode and --log-file, so that only the exit status tells).

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
    --- file NAME                  a file the command wrote under {tmp}
    --- given NAME                 a file put under {tmp} before the command runs, inline ...
    --- given NAME examples/x.json ... or a copy of a file of the source tree

In the command line and the expectations {tmp} stands for a scratch directory and {src} for
the source tree. Output that does not end in a newline shows "(no newline at end)" on a line of
its own.
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
FUNCTION_LINE = re.compile(r"^L6 (Entering|Exiting) Function .*\n?", re.M)
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
        for header, body in self.sections:
            if header.split(" ")[0] == name:
                return header, body
        return None, None

    def write(self):
        out = self.title
        for header, body in self.sections:
            out += "--- " + header + "\n" + body
        open(self.path, "w", encoding="utf-8").write(out)


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
        trace_header = scenario.get("trace")[0]
        trace = os.path.join(tmp, "trace.txt")
        if trace_header is not None:
            level = trace_header.split(" ")[1] if " " in trace_header else "3"
            if level not in ("1", "2", "3", "4", "5", "6"):
                raise ValueError(f"{scenario.path}: trace levels are 1 to 6")
            front += ["--trace", trace, "--trace-level", level]
        # A capture records when it was taken: every scenario runs at the same moment, the epoch.
        env = dict(os.environ, SOURCE_DATE_EPOCH="0")
        proc = subprocess.run(list(wrapper) + [binary] + front + args[1:], cwd=tmp, env=env, stdin=subprocess.DEVNULL,
                              capture_output=True, timeout=600)
        actual = {}
        for header, _ in scenario.sections:
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
                actual[header] = shown(fold(FUNCTION_LINE.sub("", TRACE_PREFIX.sub("", text))))
            elif name == "file":
                path = os.path.join(tmp, header.split(" ", 1)[1].strip())
                text = open(path, encoding="utf-8").read() if os.path.exists(path) else ""
                actual[header] = shown(fold(text))
            elif name not in ("host", "command", "given"):
                raise ValueError(f"{scenario.path}: unknown section {header!r}")
        return actual


def check(path, binary, source, update, wrapper):
    scenario = Scenario(path)
    actual = run(scenario, binary, source, wrapper)
    ok = True
    for section in scenario.sections:
        header, expected = section
        if header not in actual or actual[header] == expected:
            continue
        ok = False
        diff = "".join(difflib.unified_diff(expected.splitlines(True), actual[header].splitlines(True),
                                            f"{path} [{header}] expected", "actual"))
        print(diff, end="" if diff.endswith("\n") else "\n")
        section[1] = actual[header]
    if not ok and update:
        scenario.write()
        print(f"{path}: rewritten")
        return True
    return ok


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
        files += sorted(glob.glob(os.path.join(path, "*.scenario"))) if os.path.isdir(path) else [path]
    failed = 0
    for path in files:
        try:
            ok = check(path, os.path.realpath(args.binary), source, args.update,
                       shlex.split(args.wrapper))
        except (ValueError, OSError, subprocess.TimeoutExpired) as error:
            print(f"{path}: {error}")
            ok = False
        if not ok:
            failed += 1
            print(f"FAIL {path}")
    print(f"{len(files) - failed}/{len(files)} scenarios pass")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
