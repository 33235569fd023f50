#!/usr/bin/python3
"""Puts each fault that scripts/check_image.py knows into a good image; it has to report each.

usage: check_image_test.py GOOD_IMAGE
"""

import pathlib
import subprocess
import sys
import tempfile

import pefile

HERE = pathlib.Path(__file__).resolve().parent
CHECK = HERE.parent.parent / "scripts" / "check_image.py"


def section(image, name):
    return next(s for s in image.sections if s.Name.startswith(name))


def set_header(**fields):
    def damage(image):
        for field, value in fields.items():
            setattr(image.OPTIONAL_HEADER, field, value)

    return damage


def set_directory(name, address, size):
    def damage(image):
        index = pefile.DIRECTORY_ENTRY["IMAGE_DIRECTORY_ENTRY_" + name]
        image.OPTIONAL_HEADER.DATA_DIRECTORY[index].VirtualAddress = address
        image.OPTIONAL_HEADER.DATA_DIRECTORY[index].Size = size

    return damage


def set_bytes(name, old, new):
    """Replaces the first `old` in section `name`.

    The damage is returned, for pefile would write the records it has parsed over it.
    """

    def damage(image):
        found = section(image, name)
        return found.PointerToRawData + found.get_data().index(old), new

    return damage


def widen_text(image):
    section(image, b".text").Characteristics |= 0x80000000


def rename_section(image):
    section(image, b".rdata").Name = b".CRT"


def strip_relocations(image):
    image.FILE_HEADER.Characteristics |= 1


def shorten_function(image):
    image.DIRECTORY_ENTRY_EXCEPTION[0].struct.EndAddress -= 1


LIBRARY = "/usr/x86_64-w64-mingw32/lib/libndis.a"
EMPTY_LIST = b"\xff" * 8 + b"\0" * 8
ONE_CONSTRUCTOR = b"\xff" * 8 + (0x140001010).to_bytes(8, "little")

# The fault put in, and a part of the one line that must be reported for it.
FAULTS = [
    (set_header(Subsystem=2), "the subsystem is 2"),
    (set_header(DllCharacteristics=0x100), "not marked as movable"),
    (set_header(DllCharacteristics=0x040), "without executable data"),
    (widen_text, "section .text is both writable and executable"),
    (rename_section, "section .CRT would need start-up code"),
    (set_directory("DELAY_IMPORT", 0x3000, 8), "it has a DELAY_IMPORT directory"),
    (strip_relocations, "relocations are stripped"),
    (set_directory("BASERELOC", 0, 0), "the pointer at 0x2000 has no relocation"),
    (set_bytes(b".idata", b"NDIS.SYS", b"HAL.dll\0"), "NdisGetVersion is imported from HAL.dll"),
    (
        set_bytes(b".idata", b"NdisGetVersion", b"NdisGotVersion"),
        "NdisGotVersion is not in the import library of NDIS.SYS",
    ),
    (set_bytes(b".edata", b"ToySum", b"ToySun"), "ToySum is in the export list but is not"),
    (set_bytes(b".edata", b"ToySum", b"ToySun"), "ToySun is exported but is not in"),
    (set_directory("EXCEPTION", 0, 0), "it has no unwind data"),
    (shorten_function, "has no unwind data"),
    (set_bytes(b".text", EMPTY_LIST, ONE_CONSTRUCTOR), "it is a constructor in the start-up list"),
    (set_directory("RESOURCE", 0, 0), "it has no version resource"),
    (set_bytes(b".rsrc", b"\x02\0\x01\0\x04\0\x03\0", b"\x02\0\x01\0\x05\0\x03\0"), "says 1.2.3.5"),
]


def write_damaged(good, damage, bad):
    image = pefile.PE(good)
    patch = damage(image)
    data = bytearray(image.write())
    if patch:
        data[patch[0] : patch[0] + len(patch[1])] = patch[1]
    image = pefile.PE(data=bytes(data))
    image.OPTIONAL_HEADER.CheckSum = image.generate_checksum()
    image.write(bad)


def check(path):
    command = [sys.executable, CHECK, "--def", HERE / "toy" / "toy.def", "--version", "1.2.3.4"]
    command += ["--library", f"ndis.sys={LIBRARY}"]
    result = subprocess.run([*command, path], capture_output=True, text=True, check=False)
    return result.returncode, result.stderr.strip()


def main():
    good = sys.argv[1]
    failures = []
    status, output = check(good)
    if status != 0:
        failures.append(f"the good image is refused: {output}")
    with tempfile.TemporaryDirectory() as directory:
        bad = f"{directory}/bad.sys"
        for damage, expected in FAULTS:
            write_damaged(good, damage, bad)
            status, output = check(bad)
            if status != 1 or expected not in output:
                failures.append(f"'{expected}' is not reported but: {status} {output}")
        stale = bytearray(pathlib.Path(good).read_bytes())
        stale[0x40] ^= 1
        pathlib.Path(bad).write_bytes(stale)
        if "the checksum is" not in check(bad)[1]:
            failures.append("a wrong checksum is not reported")
    print("\n".join(failures), file=sys.stderr)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
