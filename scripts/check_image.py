#!/usr/bin/python3
"""Checks that a kernel image is what a kernel loader takes, with a reader that is not ours.

Every fault is printed on a line of its own; the exit status is 1 when there is any.
"""

import argparse
import os
import re
import subprocess
import sys

import pefile

MODULES = {"ndis.sys", "ntoskrnl.exe"}
FORBIDDEN_SECTIONS = {".tls", ".ctors", ".dtors", ".CRT", ".init_array"}
FORBIDDEN_DIRECTORIES = ("TLS", "DELAY_IMPORT", "COM_DESCRIPTOR", "BOUND_IMPORT")
MEM_EXECUTE = 0x20000000
MEM_WRITE = 0x80000000
RELOCS_STRIPPED = 0x0001
DYNAMIC_BASE = 0x0040
NX_COMPAT = 0x0100


def directory(image, name):
    index = pefile.DIRECTORY_ENTRY["IMAGE_DIRECTORY_ENTRY_" + name]
    return image.OPTIONAL_HEADER.DATA_DIRECTORY[index]


def check_headers(image):
    header = image.OPTIONAL_HEADER
    if image.FILE_HEADER.Machine != pefile.MACHINE_TYPE["IMAGE_FILE_MACHINE_AMD64"]:
        yield f"the machine is {image.FILE_HEADER.Machine:#x}, not x64"
    if header.Magic != 0x20B:
        yield "it is not PE32+"
    if header.Subsystem != 1:
        yield f"the subsystem is {header.Subsystem}, not native"
    if header.CheckSum == 0 or header.CheckSum != image.generate_checksum():
        yield f"the checksum is {header.CheckSum:#x}, not {image.generate_checksum():#x}"
    if not header.DllCharacteristics & DYNAMIC_BASE:
        yield "it is not marked as movable"
    if not header.DllCharacteristics & NX_COMPAT:
        yield "it is not marked as running without executable data"
    if image.FILE_HEADER.TimeDateStamp != 0:
        yield "it carries a time stamp, so two builds differ"
    for warning in image.get_warnings():
        # A small image is mostly padding; that statistic is about packed malware.
        if not warning.startswith("Byte 0x00 makes up"):
            yield f"pefile warns: {warning}"


def check_sections(image):
    for section in image.sections:
        name = section.Name.rstrip(b"\0").decode("ascii", "replace")
        flags = section.Characteristics
        if flags & MEM_EXECUTE and flags & MEM_WRITE:
            yield f"section {name} is both writable and executable"
        if name.split("$")[0] in FORBIDDEN_SECTIONS:
            yield f"section {name} would need start-up code that no kernel runs"
    for name in FORBIDDEN_DIRECTORIES:
        if directory(image, name).Size != 0:
            yield f"it has a {name} directory"


def check_relocations(image):
    """Every pointer into the image has a relocation.

    The image is linked at a base that no other eight bytes of it spell, so its pointers can be told
    from what is no pointer.
    """
    if image.FILE_HEADER.Characteristics & RELOCS_STRIPPED:
        yield "its relocations are stripped, so a kernel cannot place it"
    blocks = getattr(image, "DIRECTORY_ENTRY_BASERELOC", [])
    relocated = {entry.rva for block in blocks for entry in block.entries}
    first = image.OPTIONAL_HEADER.ImageBase
    last = first + image.OPTIONAL_HEADER.SizeOfImage
    for section in image.sections:
        data = section.get_data()
        for offset in range(0, len(data) - 7, 8):
            address = section.VirtualAddress + offset
            pointer = int.from_bytes(data[offset : offset + 8], "little")
            if first <= pointer < last and address not in relocated:
                yield f"the pointer at {address:#x} has no relocation"


def names_of_library(path):
    """What an import library can bind, as the linker's own tool lists it."""
    listing = subprocess.run(
        ["x86_64-w64-mingw32-nm", path], capture_output=True, text=True, check=True
    ).stdout
    return set(re.findall(r"^[0-9a-f]+ \w __imp_(\w+)$", listing, re.MULTILINE))


def check_import_names(image, libraries):
    """Every name is one that the module is known to export: a loader refuses any other."""
    pairs = (library.split("=", 1) for library in libraries)
    known = {module.lower(): names_of_library(path) for module, path in pairs}
    for module in getattr(image, "DIRECTORY_ENTRY_IMPORT", []):
        names = known.get(module.dll.decode("ascii", "replace").lower())
        for entry in module.imports:
            name = entry.name.decode("ascii", "replace") if entry.name else ""
            if names is not None and name and name not in names:
                yield f"{name} is not in the import library of {module.dll.decode('ascii')}"


def check_imports(image, modules):
    for module in getattr(image, "DIRECTORY_ENTRY_IMPORT", []):
        dll = module.dll.decode("ascii", "replace")
        for entry in module.imports:
            name = entry.name.decode("ascii", "replace") if entry.name else f"#{entry.ordinal}"
            if dll.lower() not in modules:
                yield f"{name} is imported from {dll}"
            elif not entry.name:
                yield f"ordinal {entry.ordinal} of {dll} is imported without a name"


def exports_of_def(path):
    """The names under EXPORTS, one a line, as the linker reads them."""
    lines = [line.split(";")[0].strip() for line in open(path, encoding="ascii")]
    start = lines.index("EXPORTS") + 1
    return {re.split(r"[\s=@]", line)[0] for line in lines[start:] if line}


def check_exports(image, wanted):
    table = getattr(image, "DIRECTORY_ENTRY_EXPORT", None)
    found = {(s.name or b"#").decode("ascii", "replace") for s in table.symbols} if table else set()
    for name in sorted(wanted - found):
        yield f"{name} is in the export list but is not exported"
    for name in sorted(found - wanted):
        yield f"{name} is exported but is not in the export list"


def thunk_target(code, offset, address):
    """The address that `jmp *slot(%rip)` at this place reads, or None for other code."""
    if code[offset : offset + 2] != b"\xff\x25" or offset + 6 > len(code):
        return None
    return address + 6 + int.from_bytes(code[offset + 2 : offset + 6], "little", signed=True)


def uncovered_code(code, base, functions, slots):
    """The first place of a code section that no unwind entry covers and that could be run.

    Import thunks touch no stack and need no entry; padding and the linker's lists of constructors
    are never run. A constructor in such a list would be, at a start-up that no kernel performs, so
    only the marks of an empty list (eight bytes of ones, eight of zeroes) are let through.
    """
    padding = re.compile(rb"\x66*\x90|\xcc|[\x66\x2e]*\x0f\x1f[\x00\x40\x44\x80\x84]|\xff{8}|\x00")
    offset = 0
    for begin, end in sorted(functions) + [(base + len(code), base + len(code))]:
        while base + offset < begin:
            if thunk_target(code, offset, base + offset) in slots:
                offset += 6
                continue
            match = padding.match(code, offset)
            if not match:
                return base + offset
            offset = match.end()
        offset = max(offset, end - base)
    return None


def check_unwind(image):
    entries = getattr(image, "DIRECTORY_ENTRY_EXCEPTION", None)
    if not entries:
        yield "it has no unwind data"
        return
    functions = [(e.struct.BeginAddress, e.struct.EndAddress) for e in entries]
    if functions != sorted(functions):
        yield "the unwind entries are not in order, so a search would miss some"
    imports = getattr(image, "DIRECTORY_ENTRY_IMPORT", [])
    base = image.OPTIONAL_HEADER.ImageBase
    slots = {entry.address - base for module in imports for entry in module.imports}
    for section in image.sections:
        if section.Characteristics & MEM_EXECUTE:
            first, last = section.VirtualAddress, section.VirtualAddress + section.Misc_VirtualSize
            within = [f for f in functions if first <= f[0] and f[1] <= last]
            code = section.get_data()[: section.Misc_VirtualSize]
            address = uncovered_code(code, first, within, slots)
            if address is not None:
                yield (
                    f"the code at {address:#x} has no unwind data: it is a constructor in the "
                    "start-up list, or assembly without unwind directives"
                )


def check_version(image, wanted):
    if not getattr(image, "VS_FIXEDFILEINFO", None):
        yield "it has no version resource"
        return
    fixed = image.VS_FIXEDFILEINFO[0]
    words = (fixed.FileVersionMS, fixed.FileVersionLS)
    found = ".".join(str(part) for word in words for part in (word >> 16, word & 0xFFFF))
    if found != wanted:
        yield f"the version resource says {found}, not {wanted}"


def faults(path, arguments):
    try:
        image = pefile.PE(path)
    except pefile.PEFormatError as error:
        yield f"it cannot be read: {error}"
        return
    yield from check_headers(image)
    yield from check_sections(image)
    yield from check_relocations(image)
    yield from check_imports(image, MODULES | set(arguments.imports))
    yield from check_import_names(image, arguments.library)
    yield from check_exports(image, exports_of_def(arguments.def_file))
    yield from check_unwind(image)
    yield from check_version(image, arguments.version)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--def", dest="def_file", required=True, help="the image's export list")
    parser.add_argument("--version", required=True, help="the version its resource must carry")
    parser.add_argument(
        "--imports", nargs="*", default=[], type=str.lower, metavar="MODULE",
        help="modules that it may import from beside NDIS and the kernel",
    )
    parser.add_argument(
        "--library", action="append", default=[], metavar="MODULE=FILE",
        help="the import library whose names an import from MODULE has to have",
    )
    parser.add_argument("--remove-bad", action="store_true", help="delete an image with a fault")
    parser.add_argument("image")
    arguments = parser.parse_args()

    found = list(faults(arguments.image, arguments))
    for fault in found:
        print(f"{arguments.image}: {fault}", file=sys.stderr)
    if found and arguments.remove_bad:
        os.remove(arguments.image)
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
