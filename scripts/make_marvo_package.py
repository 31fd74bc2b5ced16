#!/usr/bin/env python3
"""Builds a Marvo component package for demos and tests (docs/upgrade.md).

Each component is made up: a "VERSION=<text>" line (the virtual lidar shows it after the
reboot, docs/virtual-lidar.md) and filler bytes. FPGA images get 1024 leading bytes the
program drops before sending, so their version line comes after them.

  scripts/make_marvo_package.py out.bin [--version 2.0.0] [--size 20000] [--only APP_A,APP_B]
"""
import argparse
import struct

NAMES = ["BMB_APP_A", "BMB_APP_B", "BMB_FPGA", "TMB_FPGA", "TMB_PARAM"]


def component(name, version, size):
    body = ("VERSION=%s %s\n" % (name, version)).encode()
    if name.endswith("FPGA"):
        body = bytes(1024) + body
    filler = bytes((i * 131 + len(name)) & 0xFF for i in range(max(0, size - len(body))))
    return body + filler


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("out")
    ap.add_argument("--version", default="2.0.0")
    ap.add_argument("--size", type=int, default=20000, help="bytes per component")
    ap.add_argument("--only", default=",".join(NAMES), help="components to include, by name")
    args = ap.parse_args()
    wanted = [n.strip() for n in args.only.split(",") if n.strip()]
    for n in wanted:
        if n not in NAMES:
            ap.error("unknown component %s (one of %s)" % (n, ", ".join(NAMES)))

    flags = 0
    pairs = []
    data = b""
    for index, name in enumerate(NAMES):
        if name in wanted:
            blob = component(name, args.version, args.size)
            flags |= 1 << index
            pairs.append((len(data), len(blob)))  # offsets count from the end of the header
            data += blob
        else:
            pairs.append((0, 0))
    header = b"QRNA" + struct.pack("<IB3x", 56 + len(data), flags)
    for offset, size in pairs:
        header += struct.pack("<II", offset, size)
    header += bytes(4)
    assert len(header) == 56
    with open(args.out, "wb") as f:
        f.write(header + data)
    print("%s: %d bytes, flags 0x%02X" % (args.out, len(header) + len(data), flags))


if __name__ == "__main__":
    main()
