#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Writes the seed corpora of the fuzz targets from the example hosts (examples/hosts/*.json) and
the hosts captured on a real kernel (fuzz/hosts/*.json, e.g. the virtual machine's guest):
their real device pages, the kernel files and command output the simulated host shows for them,
the snapshots themselves, and a few configuration files. Run from anywhere; writes into
fuzz/corpus/<target>/, where the inputs a campaign kept (campaign.sh --merge) stay beside them."""
import glob
import hashlib
import json
import os
import struct

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
CORPUS = os.path.join(ROOT, "fuzz", "corpus")


def hexbytes(text):
    return bytes.fromhex("".join(text.split()))


def chunk(tag, code, data):
    if isinstance(data, str):
        data = data.encode()
    return struct.pack(">cBH", tag.encode(), code, len(data)) + data


def write(target, data):
    directory = os.path.join(CORPUS, target)
    os.makedirs(directory, exist_ok=True)
    name = hashlib.sha1(data).hexdigest()[:16]
    with open(os.path.join(directory, name), "wb") as f:
        f.write(data)


def device_seed(device, address=True):
    data = chunk("I", 0, hexbytes(device["inquiry"]))
    for code, page in sorted(device.get("vpd", {}).items()):
        data += chunk("G", int(code, 16), hexbytes(page))
    if address:
        data += chunk("A", 0, bytes(a & 0xFF for a in device["address"]))
    return data


TYPES = {0: "Direct-Access    ", 1: "Sequential-Access", 5: "CD-ROM           ",
         0xC: "RAID             ", 0xD: "Enclosure        ", 0x1F: "Unknown          "}


def field(inquiry, offset, count):
    return "".join(chr(b) if 32 <= b < 127 else " " for b in inquiry[offset:offset + count]).ljust(count)


def proc_scsi(devices, old):
    text = "Attached devices:\n"
    for d in devices:
        inq = hexbytes(d["inquiry"])
        h, c, i, l = d["address"]
        text += "Host: scsi%d Channel: %02d Id: %02d Lun: %02d\n" % (h, c, i, l)
        text += "  Vendor: %s Model: %s Rev: %s\n" % (field(inq, 8, 8), field(inq, 16, 16), field(inq, 32, 4))
        kind = TYPES.get(inq[0] & 0x1F if inq else 0x1F, "Unknown          ")
        text += "  Type:   %s                %s: %02x\n" % (kind, "ANSI SCSI revision" if old else "ANSI  SCSI revision", 5)
    return text


def proc_partitions(devices):
    text = "major minor  #blocks  name\n\n"
    for n, d in enumerate(devices):
        if not d["name"].startswith("sd"):
            continue
        blocks = d.get("blocks", 10485760)
        text += "%4u  %7u %10u %s\n" % (8 + 57 * (n >= 16), (n % 16) * 16, blocks, d["name"])
        for p, part in enumerate(d.get("partitions", [])):
            text += "%4u  %7u %10u %s\n" % (8, (n % 16) * 16 + p + 1, blocks // 2, part)
    return text


def main():
    hosts = sorted(glob.glob(os.path.join(ROOT, "examples", "hosts", "*.json")) +
                   glob.glob(os.path.join(ROOT, "fuzz", "hosts", "*.json")))
    for path in hosts:
        with open(path, "rb") as f:
            raw = f.read()
        host = json.loads(raw)
        write("fuzz_snapshot", raw)
        devices = [d for d in host["devices"] if d.get("state", "running") != "latent"]
        for d in host["devices"]:
            seed = device_seed(d)
            write("fuzz_update_device", seed)
            supported = hexbytes(d.get("vpd", {}).get("00", "00 00 00 00"))[4:]
            generator_seed = device_seed(d, address=False) + chunk("S", 0, supported)
            if "vendor_command" in d:
                generator_seed += chunk("N", 0, hexbytes(d["vendor_command"]))
            write("fuzz_generators", generator_seed)
        old = host["kernel_release"].startswith("2.4.")
        files = chunk("f", 0, "/proc/scsi/scsi\n" + proc_scsi(devices, old))
        files += chunk("f", 0, "/proc/partitions\n" + proc_partitions(devices))
        for name, content in host.get("files", {}).items():
            files += chunk("f", 0, name + "\n" + content)
        adapters = host.get("adapters", [])
        drivers = sorted({a["driver"] for a in adapters} | {"scsi"})
        files += chunk("c", 0, "/bin/ls /proc/scsi\n" + "\n".join(drivers))
        for driver in drivers:
            numbers = [str(a["host"]) for a in adapters if a["driver"] == driver]
            files += chunk("c", 0, "/bin/ls /proc/scsi/%s\n%s" % (driver, "\n".join(numbers)))
            files += chunk("c", 0, "/bin/ls /proc/scsi/%s/\n%s" % (driver, "\n".join(numbers)))
        for a in adapters:
            if a.get("proc_text"):
                files += chunk("f", 0, "/proc/scsi/%s/%d\n%s" % (a["driver"], a["host"], a["proc_text"]))
            if a.get("fc_host"):
                files += chunk("f", 0, "/sys/class/fc_host/host%d/port_name\n%s\n" % (a["host"], a["port_name"]))
        fc = [("host%d" % a["host"]) for a in adapters if a.get("fc_host")]
        if fc:
            files += chunk("c", 0, "/bin/ls /sys/class/fc_host/\n" + "\n".join(fc))
        for line, answer in host.get("commands", {}).items():
            files += chunk("c", answer.get("exit", 0), line + "\n" + "\n".join(answer.get("output", [])))
        write("fuzz_kernel_files", files)
    # Lines the 255-byte reads split, and the scsi_host route of the port names.
    write("fuzz_kernel_files", chunk("f", 0, "/proc/scsi/scsi\nHost: scsi0 Channel: 00 Id: 00 Lun: 00" + " " * 300 + "x\n  Vendor: A\n  Type:   Direct-Access\n"))
    write("fuzz_kernel_files", chunk("c", 2, "/bin/ls /sys/class/fc_host/\n") + chunk("c", 0, "/bin/ls /sys/class/scsi_host/\nhost5") +
          chunk("f", 0, "/sys/class/scsi_host/host5/device/fc_host:host5/port_name\n0x5001438001234567\n"))
    # Inputs that found faults: a device rejected for an unknown field (its buffers leaked), and
    # configuration lines that made the INI reader read in front of its line buffer.
    write("fuzz_snapshot", b'{"format": 1, "hostname": "h", "kernel_release": "2.6.18", "proc_scsi": true, '
          b'"devices": [{"name": "sda", "address": [0, 0, 0, 0], "inquiry": "00 00 05 02", '
          b'"partitions": ["sda1"], "vdp": {}}]}')
    write("fuzz_snapshot", b"[TUNING_PARAMS]\n=5\n\x00OPEN_DEVICE_RETRY_ATTEMPTS=2\n")
    write("fuzz_update_device", b"")
    for text in ["[TUNING_PARAMS]\nOPEN_DEVICE_RETRY_ATTEMPTS=5\nOPEN_DEVICE_RETRY_DELAY_IN_SEC=1\n",
                 "[TUNING_PARAMS]\nOPEN_DEVICE_RETRY_ATTEMPTS=12\n",
                 "; comment\n[OTHER]\nkey=value\n[TUNING_PARAMS]\nOPEN_DEVICE_RETRY_DELAY_IN_SEC=-1\n"]:
        write("fuzz_snapshot", text.encode())


if __name__ == "__main__":
    main()
