#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Writes the examples of `scsitool diff` and `scsitool fleet` from the datacenter host:

- datacenter-later.json: the same host some weeks on. The array reused the LUN behind sdd for a
  new volume (remapped), a firmware update added a T10 designator to the ACME disk's page 0x83
  (identity-changed under the same NAA), the Fujitsu LUN came back as sdr (moved), the latent
  Clariion LUN sdo was found (added), and the second Clariion LUN sdm was unmapped (removed).
- dbhost02.json: a second host of the cluster zoned to three of the same LUNs, whose ACME disk
  already runs the new firmware: the fleet shares three volumes and finds one conflict.

and the hosts of the change-detection scenarios under tests/scenarios/changes/hosts/:

- outage.json: the datacenter host with paths down and nodes lost: sdd stopped answering, sde is
  gone, sdf opens for root only, and sdb, the one path of mpatha and of emcpowerb, stopped
  answering (the multipath map and the PowerPath device have no live path).
- paths-down.json: the same without the node for root only, so that it can be captured.
- readdressed.json: the Fujitsu LUN sdk at another address under the same name.
- address-remapped.json: a new volume at sdd's address, which came up as sdz.
- no-rights.json: the datacenter host, without its multipath maps and PowerPath devices, where
  no disk node opens without root.
- with-machine-id.json, dbhost02-with-machine-id.json: the two hosts with their machine ids, for
  the captures below.
- localhost-a.json, localhost-b.json: captures of two hosts that are both named localhost.
- anon-dbhost01.json, anon-dbhost02.json: anonymised captures of the two cluster hosts.
- localhost-b-recorded-differs.json: the second localhost's capture whose recorded map gives
  /dev/sdc another UDID than its replay does.

The captures need the command: python3 scripts/make_compare_examples.py [SCSITOOL]; without it
only the hand-written hosts are written. Run from the top of the tree.
"""
import copy
import json
import os
import re
import subprocess
import sys

SCENARIO_HOSTS = "tests/scenarios/changes/hosts"

SOURCE = "examples/hosts/datacenter.json"

# A T10 vendor id designator (association: logical unit) as the new ACME firmware reports it.
T10 = b"ACME    BD2-0001"


def hexbytes(data):
    return " ".join("%02x" % b for b in data)


def parse(text):
    return bytes.fromhex(text.replace(" ", "").replace("\n", ""))


def with_t10(page83):
    page = parse(page83)
    descriptors = page[4:] + bytes([0x02, 0x01, 0x00, len(T10)]) + T10
    return hexbytes(page[:2] + len(descriptors).to_bytes(2, "big") + descriptors)


def device(host, name):
    return next(d for d in host["devices"] if d["name"] == name)


def write(path, host):
    text = json.dumps(host, indent=2)
    # Short lists of numbers or names on one line, as the other examples have them.
    text = re.sub(r"\[\s+([^\[\]{}]*?)\s+\]",
                  lambda m: "[" + re.sub(r",\s+", ", ", m.group(1)) + "]", text)
    with open(path, "w") as f:
        f.write(text + "\n")


def later(base):
    host = copy.deepcopy(base)
    sdd = device(host, "sdd")
    sdd["vpd"]["83"] = sdd["vpd"]["83"].replace("1a 2b", "1a 2c")
    sdl = device(host, "sdl")
    sdl["vpd"]["83"] = with_t10(sdl["vpd"]["83"])
    device(host, "sdk")["name"] = "sdr"
    device(host, "sdo")["state"] = "running"
    host["devices"] = [d for d in host["devices"] if d["name"] != "sdm"]
    return host


def second_host(base):
    host = copy.deepcopy(base)
    host["hostname"] = "dbhost02.example.com"
    keep = {"sdb", "sdc", "sde", "sdl"}
    host["devices"] = [d for d in host["devices"] if d["name"] in keep]
    host["multipath_maps"] = [m for m in host["multipath_maps"] if m["device"] in keep]
    host["powerpath"] = [p for p in host["powerpath"] if p["device"] in keep]
    sdl = device(host, "sdl")
    sdl["vpd"]["83"] = with_t10(sdl["vpd"]["83"])
    return host


def outage(base):
    host = copy.deepcopy(base)
    device(host, "sdd")["state"] = "unresponsive"
    device(host, "sde")["state"] = "gone"
    device(host, "sdf")["state"] = "denied"
    device(host, "sdb")["state"] = "unresponsive"
    return host


def paths_down(base):
    host = outage(base)
    device(host, "sdf")["state"] = "running"
    return host


def readdressed(base):
    host = copy.deepcopy(base)
    device(host, "sdk")["address"] = [5, 0, 1, 1]
    return host


def address_remapped(base):
    host = copy.deepcopy(base)
    sdd = device(host, "sdd")
    sdd["name"] = "sdz"
    sdd["vpd"]["83"] = sdd["vpd"]["83"].replace("1a 2b", "1a 2c")
    return host


def no_rights(base):
    # Without multipath or PowerPath: the simulated host opens their nodes to anyone.
    host = copy.deepcopy(base)
    host["multipath_maps"] = []
    host["powerpath"] = []
    host["device_mapper"] = False
    for d in host["devices"]:
        if d["state"] in ("running", "unresponsive"):
            d["state"] = "denied"
    return host


def with_machine_id(base, machine_id, hostname=None):
    host = copy.deepcopy(base)
    host["files"]["/etc/machine-id"] = machine_id + "\n"
    if hostname:
        host["hostname"] = hostname
    return host


def capture(binary, host_file, out, *options):
    env = dict(os.environ, SOURCE_DATE_EPOCH="0")
    subprocess.run([binary, "--host", host_file, "capture"] + list(options) + [out], env=env,
                   check=True)


def main():
    with open(SOURCE) as f:
        base = json.load(f)
    write("examples/hosts/datacenter-later.json", later(base))
    write("examples/hosts/dbhost02.json", second_host(base))
    write(f"{SCENARIO_HOSTS}/outage.json", outage(base))
    write(f"{SCENARIO_HOSTS}/paths-down.json", paths_down(base))
    write(f"{SCENARIO_HOSTS}/readdressed.json", readdressed(base))
    write(f"{SCENARIO_HOSTS}/no-rights.json", no_rights(base))
    write(f"{SCENARIO_HOSTS}/address-remapped.json", address_remapped(base))
    first = with_machine_id(base, "5f0c9a4e2b7d4c1e8a3f6b2d9e0c7a14")
    second = with_machine_id(second_host(base), "c3a1e7f09b2d4e6a8c5b1f3e7d9a2c40")
    write(f"{SCENARIO_HOSTS}/with-machine-id.json", first)
    write(f"{SCENARIO_HOSTS}/dbhost02-with-machine-id.json", second)
    if len(sys.argv) < 2:
        return
    binary = sys.argv[1]
    hosts = SCENARIO_HOSTS
    capture(binary, f"{hosts}/with-machine-id.json", f"{hosts}/anon-dbhost01.json", "--anonymise")
    capture(binary, f"{hosts}/dbhost02-with-machine-id.json", f"{hosts}/anon-dbhost02.json",
            "--anonymise")
    for name, machine_id, source in (("localhost-a", "0a1b2c3d4e5f40718293a4b5c6d7e8f9", base),
                                     ("localhost-b", "f9e8d7c6b5a4403928170f6e5d4c3b2a",
                                      second_host(base))):
        plain = f"{hosts}/{name}-host.json"
        write(plain, with_machine_id(source, machine_id, "localhost"))
        capture(binary, plain, f"{hosts}/{name}.json")
        os.remove(plain)
    # The second localhost's capture with one recorded UDID that its replay does not give.
    with open(f"{hosts}/localhost-b.json") as f:
        tampered = json.load(f)
    for row in tampered["capture"]["map"]:
        if row["DeviceName"] == "/dev/sdc":
            row["Uid"] = "UDID##EMC##SYMMETRIX##000001879014##0B00"
    tampered["capture"]["capture_id"] = "0" * 32
    write(f"{hosts}/localhost-b-recorded-differs.json", tampered)


if __name__ == "__main__":
    main()
