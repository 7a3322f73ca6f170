"""Boxes of an MP4 or MOV file for planting faults: found by a path, changed in place.

A path is "moov/trak[2]/mdia/mdhd", where [2] takes the second box of a type."""
import re
import struct

CONTAINERS = {b"moov", b"trak", b"edts", b"mdia", b"minf", b"dinf", b"stbl", b"udta", b"mvex",
              b"moof", b"traf", b"mfra", b"tref", b"gmhd", b"wave"}
ENTRIES = {b"avc1": 78, b"hev1": 78, b"hvc1": 78, b"mp4a": 28, b"apcn": 78}


def children(data, begin, end):
    """(begin, end, type) of the boxes of a range; ends where a size makes no sense."""
    while end - begin >= 8:
        size, kind = struct.unpack_from(">I4s", data, begin)
        if size == 1:
            size = struct.unpack_from(">Q", data, begin + 8)[0]
        if size == 0:
            size = end - begin
        if size < 8 or begin + size > end:
            return
        yield begin, begin + size, kind
        begin += size


def inside(data, begin, kind, parent):
    """Where the children of a box begin; None for a box without any."""
    if parent == b"stsd" and kind == b"mp4a":
        return begin + 36 + (16 if data[begin + 17] == 1 else 0)
    if parent == b"stsd":
        return begin + 8 + ENTRIES[kind] if kind in ENTRIES else None
    if kind in (b"stsd", b"dref"):
        return begin + 16
    if kind == b"meta":
        return begin + (8 if data[begin + 12:begin + 16] == b"hdlr" else 12)
    if kind in CONTAINERS or parent == b"ilst" or kind == b"ilst":
        return None if parent in (b"wave", b"tref") else begin + 8
    return None


def walk(data, begin=0, end=None, parent=b"", way=()):
    """(way, begin, end) of all boxes, parents before their children."""
    for start, stop, kind in children(data, begin, len(data) if end is None else end):
        here = (*way, start)
        yield here, start, stop, kind, parent
        first = inside(data, start, kind, parent)
        if first is not None and first <= stop:
            yield from walk(data, first, stop, kind, here)


class Editor:
    """The bytes of a file. Offsets of put and add count from the beginning of the box."""

    def __init__(self, data):
        self.data = bytearray(data)

    def way(self, path):
        """(begin, end) of each box on the way to one."""
        begin, end, parent, found = 0, len(self.data), b"", []
        for part in path.split("/"):
            name, number = re.fullmatch(r"(.{4})(?:\[(\d+)\])?", part).groups()
            same = [box for box in children(self.data, begin, end)
                    if box[2] == name.encode("latin-1")]
            start, stop, kind = same[int(number or 1) - 1]
            found.append((start, stop))
            begin, end = inside(self.data, start, kind, parent), stop
            parent = kind
        return found

    def span(self, path):
        return self.way(path)[-1]

    def begin(self, path):
        return self.span(path)[0]

    def get(self, path, at, width=4):
        begin = self.begin(path) + at
        return int.from_bytes(self.data[begin:begin + width], "big")

    def put(self, path, at, value, width=4):
        begin = self.begin(path) + at
        self.data[begin:begin + width] = value.to_bytes(width, "big")

    def add(self, path, at, amount, width=4):
        self.put(path, at, (self.get(path, at, width) + amount) % 256 ** width, width)

    def flip(self, path, at, bits):
        self.data[self.begin(path) + at] ^= bits

    def retype(self, path, kind):
        begin = self.begin(path) + 4
        self.data[begin:begin + 4] = kind

    def splice(self, path, at, remove, bytes_=b""):
        """Replaces bytes of a box; it and those around it get the sizes that they then have."""
        way = self.way(path)
        begin = way[-1][0] + at
        self.data[begin:begin + remove] = bytes_
        for start, stop in way:
            struct.pack_into(">I", self.data, start, stop - start + len(bytes_) - remove)

    def remove(self, path):
        way = path.rpartition("/")[0]
        begin, end = self.span(path)
        if way:
            self.splice(way, begin - self.begin(way), end - begin)
        else:
            del self.data[begin:end]

    def append(self, path, bytes_):
        """Puts bytes behind the last child of a box."""
        begin, end = self.span(path)
        self.splice(path, end - begin, 0, bytes_)

    def sample(self, track, number=1):
        """Where the first sample of a chunk of a track lies."""
        return self.get(f"{track}/mdia/minf/stbl/stco", 12 + 4 * number)


def box(kind, content=b""):
    return struct.pack(">I4s", 8 + len(content), kind) + content
