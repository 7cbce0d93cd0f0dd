"""Writes cabinet files for tests: one folder, stored without compression. Names are taken as
given, so a test can plant a name no archiver would write (`..\\x`, `C:x`).
Runs anywhere Python does, the WOW64 root included."""

import struct
import time

A_RDONLY, A_HIDDEN, A_SYSTEM, A_ARCH, A_NAME_IS_UTF = 0x01, 0x02, 0x04, 0x20, 0x80
BLOCK = 32768


def dos_date_time(seconds):
    t = time.localtime(seconds)
    date = ((t.tm_year - 1980) << 9) | (t.tm_mon << 5) | t.tm_mday
    return date, (t.tm_hour << 11) | (t.tm_min << 5) | (t.tm_sec // 2)


def checksum(data, seed=0):
    """The data block checksum: little-endian words XORed, the tail bytes in reverse order."""
    value = seed
    whole = len(data) // 4 * 4
    for (word,) in struct.iter_unpack("<I", data[:whole]):
        value ^= word
    tail = 0
    for byte in data[whole:]:
        tail = (tail << 8) | byte
    return value ^ tail


def data_block(block):
    sizes = struct.pack("<HH", len(block), len(block))
    return struct.pack("<I", checksum(sizes, checksum(block))) + sizes + block


def cabinet_bytes(entries, mtime=1_600_000_000):
    """`entries`: (name, data) or (name, data, attributes) in cabinet order."""
    files, payload = [], b""
    for entry in entries:
        name, data = entry[0], entry[1]
        attributes = entry[2] if len(entry) > 2 else A_ARCH
        try:
            encoded = name.encode("ascii")
        except UnicodeEncodeError:
            encoded, attributes = name.encode("utf-8"), attributes | A_NAME_IS_UTF
        date, clock = dos_date_time(mtime)
        files.append(struct.pack("<IIHHHH", len(data), len(payload), 0, date, clock, attributes) + encoded + b"\0")
        payload += data
    blocks = [payload[i:i + BLOCK] for i in range(0, len(payload), BLOCK)] or [b""]
    header_size, folder_size = 36, 8
    files_offset = header_size + folder_size
    data_offset = files_offset + sum(len(f) for f in files)
    data = b"".join(data_block(b) for b in blocks)
    total = data_offset + len(data)
    header = struct.pack("<4sIIIIIBBHHHHH", b"MSCF", 0, total, 0, files_offset, 0, 3, 1, 1, len(files), 0, 0x1234, 0)
    folder = struct.pack("<IHH", data_offset, len(blocks), 0)
    return header + folder + b"".join(files) + data


def write_cabinet(path, entries, **kwargs):
    data = cabinet_bytes(entries, **kwargs)
    with open(path, "wb") as out:
        out.write(data)
    return data
