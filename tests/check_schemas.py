#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Every JSON output of scsitool, on every example host, against its schema under docs/.

Usage: check_schemas.py SCSITOOL SOURCE_DIR. Exits 77 (skipped) without python3-jsonschema."""
import json
import os
import subprocess
import sys
import tempfile

try:
    import jsonschema
except ImportError:
    print("python3-jsonschema is not installed")
    sys.exit(77)

binary, source = sys.argv[1], sys.argv[2]
hosts_dir = os.path.join(source, "examples", "hosts")


def schema(name):
    with open(os.path.join(source, "docs", name)) as f:
        return json.load(f)


def output(args):
    result = subprocess.run([binary] + args, capture_output=True, text=True)
    if result.returncode != 0:
        raise SystemExit(f"scsitool {' '.join(args)}: exit {result.returncode}: {result.stderr}")
    return json.loads(result.stdout)


failures = 0
checked = 0


def check(value, schema_name, what):
    global failures, checked
    checked += 1
    errors = list(jsonschema.Draft202012Validator(schema(schema_name)).iter_errors(value))
    for error in errors:
        failures += 1
        print(f"{what}: {schema_name}: {'/'.join(map(str, error.absolute_path))}: {error.message}")


for name in sorted(os.listdir(hosts_dir)):
    if not name.endswith(".json"):
        continue
    host = os.path.join(hosts_dir, name)
    with open(host) as f:
        check(json.load(f), "host-snapshot.schema.json", name)
    check(output(["--host", host, "map", "--json"]), "schemas/map.schema.json", name)
    check(output(["--host", host, "map", "--volumes", "--json"]), "schemas/volumes.schema.json", name)
    check(output(["--host", host, "initiators", "--json"]), "schemas/initiators.schema.json", name)
    for entry in output(["--host", host, "map", "--json"]):
        if entry["kind"] == "disk" and entry["state"] == "running":
            check(output(["--host", host, "show", entry["DeviceName"], "--json"]),
                  "schemas/show.schema.json", f"{name} {entry['DeviceName']}")
    with tempfile.TemporaryDirectory() as tmp:
        capture = os.path.join(tmp, "capture.json")
        subprocess.run([binary, "--host", host, "capture", capture], check=True)
        with open(capture) as f:
            check(json.load(f), "host-snapshot.schema.json", f"{name} capture")

# The comparisons: every example host against the datacenter host (whatever differs), and the
# fleet of them all. Both exit 5 when they find something.
def compared(args):
    result = subprocess.run([binary] + args, capture_output=True, text=True)
    if result.returncode not in (0, 5):
        raise SystemExit(f"scsitool {' '.join(args)}: exit {result.returncode}: {result.stderr}")
    return json.loads(result.stdout)


hosts = sorted(os.path.join(hosts_dir, n) for n in os.listdir(hosts_dir) if n.endswith(".json"))
base = os.path.join(hosts_dir, "datacenter.json")
for host in hosts:
    check(compared(["diff", "--json", base, host]), "schemas/diff.schema.json",
          f"diff {os.path.basename(host)}")
    check(compared(["--host", host, "diff", "--json", "-", base]), "schemas/diff.schema.json",
          f"diff - {os.path.basename(host)}")
check(compared(["fleet", "--json"] + hosts), "schemas/fleet.schema.json", "fleet")

print(f"{checked} outputs checked, {failures} schema errors")
sys.exit(1 if failures else 0)
