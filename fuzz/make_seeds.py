#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Writes the seed corpora under fuzz/corpus/ (checked in; rerun after a
change of a target's input layout)."""
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))
CODES = [4, 5, 36, 38, 33, 34, 35, 37, 39, 40, 41, 42, 43, 44, 45, 46, 47, 48, 49, 50, 51, 52, 56, 57, 58, 59]


def put(target, name, data):
    d = os.path.join(HERE, "corpus", target)
    os.makedirs(d, exist_ok=True)
    with open(os.path.join(d, name), "wb") as f:
        f.write(data)


def cstr(s, n):
    b = s.encode() if isinstance(s, str) else s
    return b[:n].ljust(n, b"\0")


def vlan_conf(vid, ifname, logical=b"br-x", fwd=0x3, untag=0x1):
    return (struct.pack("<i", vid) + cstr(b"", 128) + cstr(ifname, 64) + cstr(logical, 64)
            + cstr(b"", 512) + cstr(b"", 512) + struct.pack("<IIii", fwd, untag, 0, 0))


def bus(code, data, aux=b"", flags=0):
    pick = CODES.index(code)
    return struct.pack("<BHHB", pick, len(data), len(aux), flags) + b"\0" + data + aux


put("fuzz_bus_handler", "vlan_add", bus(36, cstr("", 64) + vlan_conf(30, "eth0")))
put("fuzz_bus_handler", "vlan_add_payload", bus(36, cstr("", 64) + vlan_conf(31, b"eth0;touch x")))
put("fuzz_bus_handler", "vlan_del", bus(38, cstr("", 64) + vlan_conf(10, "eth0")))
put("fuzz_bus_handler", "db_event", bus(4, cstr("vlanEncapIf", 64) + struct.pack("<iiii", 1, 0, 18, 0)))
put("fuzz_bus_handler", "db_delete", bus(4, cstr("vlanEncapIf", 64) + struct.pack("<iiii", 2, 0, 9, 0),
                                         b"vlanId\0interfaceName\0" + b"20\0eth0\0"))
put("fuzz_bus_handler", "ifdev", bus(5, cstr("eth1", 132) + struct.pack("<I", 22) + bytes(996),
                                     bytes(32) + struct.pack("<III", 100000, 0, 50)))
put("fuzz_bus_handler", "rate_limit", bus(50, cstr("PSE", 64) + struct.pack("<III", 1, 1, 5000), bytes(16)))
put("fuzz_bus_handler", "qos_bcm", bus(47, cstr("BCM", 64) + struct.pack("<I", 1)))

# Rows: per table a row count, then per column a kind byte (<16: a known
# value, <64: a number from the next four bytes, else a text: length, bytes).
def text(s):
    b = s.encode() if isinstance(s, str) else s
    return bytes([200, len(b)]) + b


def known(i):
    return bytes([i])


def number(n):
    return bytes([20]) + struct.pack("<i", n)


sw_pse = text("PSE") + text("") + number(1) * 6 + number(2)
sw_bcm = known(0) + known(5) + number(1) * 6 + number(1)
port_bcm = known(0) + number(0) + number(1) + number(0) * 3 + text("lan1") + text("") + number(0) * 7
port_pse = known(1) + number(1) + number(1) + number(0) * 3 + text("eth0") + known(3) + number(0) * 7
vlan = number(10) + text("eth0") + text("br-lan") + text("") + text("") + known(6) + known(6) + number(0)
rows = bytes([2]) + sw_pse + sw_bcm + bytes([2]) + port_bcm + port_pse + bytes([1]) + vlan
put("fuzz_config_rows", "router", rows + bytes([2, 1, 0, 0]))
put("fuzz_config_rows", "self_map", bytes([1]) + sw_pse + bytes([2])
    + known(1) + number(2) + number(1) + number(0) * 3 + text("eth2") + text("") + number(0) * 7
    + known(1) + number(1) + number(1) + number(0) * 3 + text("eth0") + known(4) + number(0) * 7 + bytes([0]))
put("fuzz_config_rows", "payload", rows[:-len(vlan)] + number(20) + text("eth0$(touch x)") + text("")
    + text("") + text("") + text("9999999999999") + known(6) + number(0)
    + bytes([2, 1, 2]) + text("vlanId\0interfaceName\0" "20\0eth0;id\0"))

# Frames: a mode byte (even: to the server; odd: a reply, with the aux
# capacity), then the frame.
def frame(src, dst, cmd, req, data, aux, result=0, magic=0x4d425553):
    return struct.pack("<IIIIIIIi", magic, src, dst, cmd, req, len(data), len(aux), result) + data + aux


put("fuzz_bus_frames", "request", bytes([0]) + frame(1, 150, 40, 1, b"abcd", b"xxxxxxxx"))
put("fuzz_bus_frames", "request_bad_len", bytes([0]) + frame(1, 150, 40, 1, b"abcd", b"")[:-2])
put("fuzz_bus_frames", "reply", bytes([1]) + struct.pack("<H", 16) + frame(151, 0, 40, 0, b"", b"answer", 3))
put("fuzz_bus_frames", "reply_too_big", bytes([1]) + struct.pack("<H", 2) + frame(151, 0, 40, 0, b"", b"answer"))
