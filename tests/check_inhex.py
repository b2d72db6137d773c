#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The hex that `scsitool show` prints under each page, read back by sg3_utils.

For every disk of every example host, each page section's hex lines go to `sg_inq --inhex` (the
standard INQUIRY) or `sg_vpd --inhex` (a VPD page) with -H, and the bytes sg3_utils prints back
must be the page's bytes of `show --json`, byte for byte (a VPD page up to the length its header
announces: sg_vpd reads no further). sg3_utils also decodes page 0x83: every NAA designator
that show names must be in its answer.

Usage: check_inhex.py SCSITOOL SOURCE_DIR. Exits 77 (skipped) without sg3-utils."""
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile

if shutil.which("sg_inq") is None or shutil.which("sg_vpd") is None:
    print("sg3-utils is not installed")
    sys.exit(77)

binary, source = sys.argv[1], sys.argv[2]
hosts_dir = os.path.join(source, "examples", "hosts")
failures = 0
checked = 0


def run(args):
    return subprocess.run(args, capture_output=True, text=True)


def sections(text):
    """Page sections of the table: title line -> the hex lines under it."""
    found = {}
    title = None
    for line in text.splitlines():
        if not line:
            title = None
        elif not line.startswith(" "):
            title = line
            found[title] = []
        elif title is not None and "#" in line:
            found[title].append(line)
    return found


def read_back(tool, hex_lines):
    with tempfile.NamedTemporaryFile("w", suffix=".hex", delete=False) as f:
        f.write("\n".join(hex_lines) + "\n")
        name = f.name
    try:
        result = run([tool, "--inhex=" + name, "-H"])
        decoded = run([tool, "--inhex=" + name])
    finally:
        os.unlink(name)
    data = bytearray()
    for line in result.stdout.splitlines():
        match = re.match(r"^ [0-9a-f]{2,}\s{2,}((?:[0-9a-f]{2}\s+)+)", line + " ")
        if match:
            data += bytes(int(pair, 16) for pair in match.group(1).split())
    return result.returncode, bytes(data), decoded.stdout


def fail(message):
    global failures
    failures += 1
    print("FAIL " + message)


for host in sorted(os.listdir(hosts_dir)):
    path = os.path.join(hosts_dir, host)
    with open(path) as f:
        snapshot = json.load(f)
    for device in snapshot.get("devices", []):
        name = device["name"]
        if not name.startswith("sd") or device.get("state") in ("latent", "removed"):
            continue
        shown = run([binary, "--host", path, "show", name])
        as_json = run([binary, "--host", path, "show", name, "--json"])
        if shown.returncode != 0 or as_json.returncode != 0:
            continue  # a disk that does not answer shows no pages
        report = json.loads(as_json.stdout)
        pages = {"inquiry": bytes.fromhex(report["inquiry"])}
        pages.update({code: bytes.fromhex(hexed) for code, hexed in report["vpd"].items()})
        for title, lines in sections(shown.stdout).items():
            if title.startswith("standard INQUIRY"):
                key, tool = "inquiry", "sg_inq"
            elif re.match(r"VPD page 0x[0-9a-f]{2} ", title) and lines:
                key, tool = title[11:13], "sg_vpd"
            else:
                continue
            expected = pages[key]
            if tool == "sg_vpd" and len(expected) >= 4:
                expected = expected[:4 + expected[2] * 256 + expected[3]]
            checked += 1
            code, data, decoded = read_back(tool, lines)
            what = f"{host} {name} {title}"
            if code != 0:
                fail(f"{what}: {tool} exits {code}")
            elif data != expected:
                fail(f"{what}: {tool} reads back {data.hex()}, the page is {expected.hex()}")
            if key == "83":
                for designator in report["decoded"]["83"]["designators"]:
                    value = designator["value"]
                    if value.startswith("naa.") and "0x" + value[4:] not in decoded:
                        fail(f"{what}: sg_vpd does not name {value}")

print(f"{checked} pages read back, {failures} failures")
sys.exit(1 if failures or checked == 0 else 0)
