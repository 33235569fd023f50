#!/usr/bin/python3
"""Works on classic little-endian pcap files with nanosecond stamps, as tcpdump writes them here.

flatten IN OUT       copies IN, and calls every frame as long as what was captured of it
subtract IN FLAT SELECTED OUT
                     copies IN without the frames that SELECTED holds; FLAT is IN, flattened, and
                     SELECTED what tcpdump selected from FLAT. Frames that no hook is ever shown
                     (empty ones, and those above 65535 bytes) stay.
"""

import struct
import sys

LONGEST_OFFERED = 65535


def records(path):
    """The file header, then each frame as (header, bytes)."""
    with open(path, "rb") as file:
        yield file.read(24)
        while header := file.read(16):
            yield header, file.read(struct.unpack("<4I", header)[2])


def flatten(source, target):
    frames = records(source)
    with open(target, "wb") as out:
        out.write(next(frames))
        for header, data in frames:
            out.write(header[:12] + struct.pack("<I", len(data)) + data)


def subtract(source, flat, selected, target):
    frames, flats, gone = records(source), records(flat), records(selected)
    next(flats), next(gone)
    with open(target, "wb") as out:
        out.write(next(frames))
        next_gone = next(gone, None)
        for frame, flat_frame in zip(frames, flats, strict=True):
            # Equal frames with equal stamps are all selected, or none is.
            taken = flat_frame == next_gone
            if taken:
                next_gone = next(gone, None)
            if not taken or not 0 < len(frame[1]) <= LONGEST_OFFERED:
                out.write(frame[0] + frame[1])
    if next_gone is not None:
        sys.exit("subtract_capture: a selected frame is not in the capture")


if __name__ == "__main__":
    {"flatten": flatten, "subtract": subtract}[sys.argv[1]](*sys.argv[2:])
