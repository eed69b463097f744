"""The records of a dump file (.lmr), for the tests. As a program:
  dumpfile.py same ORIGINAL COPY   every record of COPY is a record of ORIGINAL with its
                                   timestamp, and the heads agree; prints how many records
  dumpfile.py depths FILE X Y      the depth at pixel (X, Y) of each record of a mode 0 or 1 file
Exits non-zero with the reason on a failure."""
import struct
import sys
from collections import namedtuple

HEAD_BYTES = 69
RECORD_HEADER_BYTES = 15
# blocks: the record's data blocks as one, mode + 1 of width x height x size bytes each.
Record = namedtuple("Record", "index width height size timestamp line blocks")


class Dump:
    def __init__(self, path):
        data = open(path, "rb").read()
        self.lines, self.mode = data[2], struct.unpack_from("<H", data, 5)[0]
        self.camera = data[33:HEAD_BYTES]  # the serial number and the camera name
        self.records, offset = [], HEAD_BYTES
        while offset < len(data):
            index, width, height, size, stamp = struct.unpack_from("<BHHHQ", data, offset)
            line = offset + RECORD_HEADER_BYTES + (width if self.lines else 0)
            end = line + width * height * size * (self.mode + 1)
            if end > len(data):
                raise ValueError(f"{path}: the record at byte {offset} is cut short")
            self.records.append(Record(index, width, height, size, stamp,
                                       data[offset + RECORD_HEADER_BYTES:line], data[line:end]))
            offset = end

    def head(self):
        return self.lines, self.mode, self.camera


def same(original_path, copy_path):
    original, copy = Dump(original_path), Dump(copy_path)
    if original.head() != copy.head():
        sys.exit(f"heads differ: {original.head()} and {copy.head()}")
    if not copy.records:
        sys.exit("no records in the copy")
    recorded = {}
    for r in original.records:
        recorded.setdefault(r.timestamp, []).append(r[1:])
    for r in copy.records:
        if r[1:] not in recorded.get(r.timestamp, []):
            sys.exit(f"the record of timestamp {r.timestamp} is not the original's")
    print(len(copy.records))


def depths(path, x, y):
    for r in Dump(path).records:
        print(struct.unpack_from("<H", r.blocks, 2 * (y * r.width + x))[0])


if __name__ == "__main__":
    try:
        if sys.argv[1] == "same":
            same(sys.argv[2], sys.argv[3])
        else:
            depths(sys.argv[2], int(sys.argv[3]), int(sys.argv[4]))
    except ValueError as error:
        sys.exit(str(error))
