#!/usr/bin/python3
"""`netsieve image` says of each image what another reader of the format says, and what is wrong with
one that was spoilt.

usage: image_command_test.py NETSIEVE IMAGE_DIRECTORY
"""

import json
import pathlib
import subprocess
import sys
import tempfile

import pefile

NETSIEVE, DIRECTORY = sys.argv[1], pathlib.Path(sys.argv[2])
FAILURES = []


def expect(found, wanted, what):
    if found != wanted:
        FAILURES.append(f"{what}: {found}, expected {wanted}")


def report(path):
    result = subprocess.run([NETSIEVE, "image", path, "--json"], capture_output=True, check=False)
    answer = json.loads(result.stdout)
    expect(result.returncode, answer["exit_status"], f"{path}: exit status")
    return answer


def protection(section):
    bits = ((0x40000000, "r"), (0x80000000, "w"), (0x20000000, "x"))
    return "".join(letter if section.Characteristics & bit else "-" for bit, letter in bits)


def check_good(path):
    answer, image = report(path), pefile.PE(path)
    found, header = answer["image"], image.OPTIONAL_HEADER
    expect((answer["exit_status"], answer["runnable"], answer["fault"]), (0, True, None), path)
    expect(found["entry_point"], header.AddressOfEntryPoint, f"{path}: entry point")
    expect((found["checksum"], found["checksum_right"]), (header.CheckSum, True), f"{path}: checksum")
    sections = [
        (s.Name.rstrip(b"\0").decode(), s.VirtualAddress, s.Misc_VirtualSize, protection(s))
        for s in image.sections
    ]
    expect([tuple(s.values()) for s in found["sections"]], sections, f"{path}: sections")
    exports = getattr(image, "DIRECTORY_ENTRY_EXPORT", None)
    names = sorted(s.name.decode() for s in exports.symbols) if exports else []
    expect(found["exports"], names, f"{path}: exports")
    imports = {(m.dll.decode(), i.name.decode()) for m in image.DIRECTORY_ENTRY_IMPORT for i in m.imports}
    expect({(i["module"], i["name"]) for i in found["imports"]}, imports, f"{path}: imports")


def check_spoilt(path, scratch):
    bad = scratch / "bad.sys"
    data = bytearray(path.read_bytes().replace(b"KeSetEvent\0", b"KeSatEvent\0"))
    bad.write_bytes(data)
    expect(report(bad)["fault"]["name"], "wrong-checksum", "a changed byte")
    image = pefile.PE(data=bytes(data))
    image.OPTIONAL_HEADER.CheckSum = image.generate_checksum()
    image.write(str(bad))
    answer = report(bad)
    expect(answer["fault"]["name"], "unknown-imports", "an unknown import")
    expect(answer["exit_status"], 7, "an unknown import")
    missing = [i["name"] for i in answer["image"]["imports"] if not i["known"]]
    expect(missing, ["KeSatEvent"], "what is missing")
    text = subprocess.run([NETSIEVE, "image", bad], capture_output=True, text=True, check=False).stdout
    expect("  KeSatEvent  (missing)\n" in text, True, "the text names what is missing")
    bad.write_bytes(data[:3000])
    answer = report(bad)
    expect((answer["image"], answer["exit_status"]), (None, 3), "a truncated image")


def main():
    images = sorted(DIRECTORY.glob("*.sys"))
    expect("NETSIEVE.sys" in [path.name for path in images], True, "the driver is there")
    for path in images:
        check_good(path)
    with tempfile.TemporaryDirectory() as directory:
        check_spoilt(DIRECTORY / "NETSIEVE.sys", pathlib.Path(directory))
    print("\n".join(FAILURES), file=sys.stderr)
    return 1 if FAILURES else 0


if __name__ == "__main__":
    sys.exit(main())
