#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Writes the examples of `scsitool diff` and `scsitool fleet` from the datacenter host:

- datacenter-later.json: the same host some weeks on. The array reused the LUN behind sdd for a
  new volume (remapped), a firmware update added a T10 designator to the ACME disk's page 0x83
  (identity-changed under the same NAA), the Fujitsu LUN came back as sdr (moved), the latent
  Clariion LUN sdo was found (added), and the second Clariion LUN sdm was unmapped (removed).
- dbhost02.json: a second host of the cluster zoned to three of the same LUNs, whose ACME disk
  already runs the new firmware: the fleet shares three volumes and finds one conflict.

Run from the top of the tree: python3 scripts/make_compare_examples.py
"""
import copy
import json
import re

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


def main():
    with open(SOURCE) as f:
        base = json.load(f)
    write("examples/hosts/datacenter-later.json", later(base))
    write("examples/hosts/dbhost02.json", second_host(base))


if __name__ == "__main__":
    main()
