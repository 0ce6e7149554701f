#!/usr/bin/env python3
"""Writes the starting corpus of msg_recv_fuzz: replies as ptp4l sends them, one file each."""
import os
import struct
import sys


def header(msg_type, length, seq=1, byte0_high=0):
    return struct.pack(">BBHBBHqI8sHHBb", byte0_high | msg_type, 2, length, 0, 0, 0, 0, 0,
                       bytes(range(1, 9)), 1, seq, 0x04, 0x7F)


def management(tlv, action=2):
    body = bytes([0xFF] * 8) + struct.pack(">HBBBB", 0xFFFF, 0, 0, action, 0)
    msg = header(0x0D, 48 + len(tlv)) + body + tlv
    assert len(msg) == 48 + len(tlv)
    return msg


def mgmt_tlv(mid, data):
    return struct.pack(">HHH", 1, 2 + len(data), mid) + data


def error_tlv(mid, error):
    return struct.pack(">HHHHI", 2, 8, error, mid, 0)


CLOCK_ID = bytes([0x00, 0x1B, 0x19, 0xFF, 0xFE, 0x00, 0x00, 0x01])

REPLIES = {
    "default_ds": management(mgmt_tlv(0x2000, struct.pack(
        ">BBHBBBHB8sBB", 0x02, 0, 1, 128, 248, 0xFE, 0xFFFF, 128, CLOCK_ID, 0, 0))),
    "current_ds": management(mgmt_tlv(0x2001, struct.pack(">Hqq", 1, 0x18000, 0x2A0000))),
    "parent_ds": management(mgmt_tlv(0x2002, CLOCK_ID + struct.pack(
        ">HBBHiBBBHB", 1, 0, 0, 0xFFFF, 0x7FFFFFFF, 128, 6, 0x21, 0x4E5D, 128) + CLOCK_ID)),
    "port_ds": management(mgmt_tlv(0x2004, CLOCK_ID + struct.pack(
        ">HBbqbBbBbB", 1, 9, 0, -1, 1, 3, 0, 1, 0, 2))),
    "time_status": management(mgmt_tlv(0xC000, struct.pack(
        ">qqiiHHQHi", -120, 5, 0, 0, 0, 0, 0, 0, 1) + CLOCK_ID)),
    "stats": management(mgmt_tlv(0xC006, struct.pack("<6d", 12.5, 40.0, 0.5, 1.25, 900.0, 3.0))),
    "empty_stats": management(mgmt_tlv(0xC006, b"")),
    "set_echo": management(mgmt_tlv(0x2005, bytes([0x80, 0x00]))),
    "not_supported": management(error_tlv(0x2007, 6)),
    "subscribe": management(mgmt_tlv(0xC003, struct.pack(">H", 0xFFFF) + bytes([3]) + bytes(63))),
    "path_trace": management(mgmt_tlv(0x2015, bytes([0, 0, 16, 0]) + CLOCK_ID * 2)),
    "clock_description": management(mgmt_tlv(0x0001, struct.pack(">H", 0x8000) + b"\x0aIEEE 802.3"
        + struct.pack(">H", 6) + bytes(6) + struct.pack(">HH", 1, 4) + bytes(4)
        + b"\x00\x1b\x19\x00" + b"\x03ost" + b"\x00\x00" + bytes(6) + b"\x00")),
    "port_properties": management(mgmt_tlv(0xC004, CLOCK_ID + struct.pack(">HBB", 1, 9, 1)
        + b"\x04eth0\x00")),
    "signaling_follow_up": header(0x0C, 76) + bytes(10) + struct.pack(
        ">HH3s3siHHQHi", 3, 28, b"\x00\x80\xc2", b"\x00\x00\x01", 0, 0, 0, 0, 0, 0)
        + struct.pack(">HH", 8, 8) + CLOCK_ID,
    "announce": header(0x0B, 64) + bytes(10) + struct.pack(
        ">hBBBBHB8sHB", 37, 0, 128, 6, 0x21, 0x4E5D, 128, CLOCK_ID, 0, 0xA0),
}


def main():
    out = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), "corpus")
    os.makedirs(out, exist_ok=True)
    for name, data in REPLIES.items():
        with open(os.path.join(out, name), "wb") as f:
            f.write(data)


if __name__ == "__main__":
    main()
