#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The command's documentation against the command itself.

usage: check_docs.py SCSITOOL SOURCE_DIR

- Every subcommand and option that `scsitool --help` and `scsitool COMMAND --help` list is in the
  man page (tools/scsitool/share/scsitool.1.in) and the bash completion, and the completion offers
  no option the command does not take.
- Every example of the README that runs on a bundled host (a ```sh block of one command naming
  examples/hosts/, followed by a ``` block) prints what the README shows. In the shown output a
  line "..." stands for any number of lines and "…" for any text within a line.
"""
import os
import re
import subprocess
import sys

OPTION = re.compile(r"^\s+(?:-\w,)?(--[a-z0-9][a-z0-9-]*)")


def help_of(binary, *args):
    out = subprocess.run([binary, *args, "--help"], capture_output=True, text=True, check=True).stdout
    options, commands, section = [], [], ""
    for line in out.splitlines():
        if line and not line.startswith(" "):
            section = line
            continue
        match = OPTION.match(line)
        if section == "Options:" and match:
            options.append(match.group(1))
        elif section == "Subcommands:" and line.strip():
            commands.append(line.split()[0])
    return options, commands


def check_man(man, globals_, commands, failures):
    text = man.replace("\\-", "-")
    for option in globals_:
        if not re.search(r"^\.BI? " + re.escape(option) + r"\b", text, re.M):
            failures.append(f"man page: global option {option} is not described")
    for command, options in commands.items():
        line = re.search(r"^\.BR " + re.escape(command) + r" .*$", text, re.M)
        if not line:
            failures.append(f"man page: command {command} is not described")
            continue
        for option in options:
            if option not in line.group(0):
                failures.append(f"man page: {command} {option} is not in its synopsis")


def check_completion(completion, globals_, commands, failures):
    def words(name):
        match = re.search(r"local " + name + r'="([^"]*)"', completion)
        return set(match.group(1).split()) if match else set()

    if words("commands") != set(commands):
        failures.append(f"completion: commands {sorted(words('commands'))}, the command has "
                        f"{sorted(commands)}")
    if words("globals") != set(globals_):
        failures.append(f"completion: global options {sorted(words('globals'))}, the command "
                        f"has {sorted(globals_)}")
    offered = {}
    for names, options in re.findall(r'^\s*([a-z |]+)\) options="([^"]*)"', completion, re.M):
        for name in names.split("|"):
            offered[name.strip()] = set(options.split())
    for command, options in commands.items():
        if offered.get(command, set()) != set(options):
            failures.append(f"completion: {command} offers {sorted(offered.get(command, set()))}, "
                            f"it takes {sorted(options)}")


def matches(shown, actual):
    """Whether the actual lines fit the shown ones ("..." lines, "…" within a line)."""
    def fits(pattern, line):
        return re.fullmatch(".*".join(re.escape(part) for part in pattern.split("…")), line)

    def walk(i, j):
        if i == len(shown):
            return j == len(actual)
        if shown[i] == "...":
            return any(walk(i + 1, k) for k in range(j, len(actual) + 1))
        return j < len(actual) and bool(fits(shown[i], actual[j])) and walk(i + 1, j + 1)

    return walk(0, 0)


def readme_examples(readme):
    blocks = re.findall(r"^```(\w*)\n(.*?)^```\n", readme, re.M | re.S)
    for (lang, body), (next_lang, shown) in zip(blocks, blocks[1:]):
        lines = [line for line in body.splitlines() if line.strip()]
        if lang == "sh" and next_lang == "" and len(lines) == 1 and "examples/hosts/" in lines[0]:
            yield lines[0], shown


def check_readme(binary, source, readme, failures):
    count = 0
    for command, shown in readme_examples(readme):
        count += 1
        line = command.replace("build/default/tools/scsitool/scsitool", "'" + binary + "'")
        # What a person sees on the terminal: standard output and standard error together.
        proc = subprocess.run(["bash", "-c", "{ " + line + "; } 2>&1"], cwd=source,
                              capture_output=True, text=True, stdin=subprocess.DEVNULL,
                              env=dict(os.environ, SOURCE_DATE_EPOCH="0"))
        if not matches(shown.splitlines(), proc.stdout.splitlines()):
            failures.append(f"README: `{command}` prints\n{proc.stdout}which the README does not "
                            f"show:\n{shown}")
    if count == 0:
        failures.append("README: no example runs on a bundled host")
    return count


def main():
    binary, source = sys.argv[1], sys.argv[2]
    globals_, names = help_of(binary)
    globals_ += [] if "--version" in globals_ else ["--version"]
    commands = {name: [o for o in help_of(binary, name)[0] if o != "--help"] for name in names}
    share = os.path.join(source, "tools/scsitool/share")
    failures = []
    check_man(open(os.path.join(share, "scsitool.1.in")).read(), globals_, commands, failures)
    check_completion(open(os.path.join(share, "scsitool.bash-completion")).read(), globals_,
                     commands, failures)
    examples = check_readme(binary, source, open(os.path.join(source, "README.md")).read(),
                            failures)
    for failure in failures:
        print(failure)
    print(f"{len(names)} commands, {examples} README examples: "
          f"{'ok' if not failures else str(len(failures)) + ' failures'}")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
