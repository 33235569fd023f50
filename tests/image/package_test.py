#!/usr/bin/python3
"""Checks the package for Windows: that its .inf files agree with themselves, with the driver and
with what is in the package, that both import libraries carry every export, that a sample can be
built from the package alone, and that a signed copy holds signatures that mean something.

usage: package_test.py PACKAGE SOURCE_TREE
"""

import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

import pefile

PACKAGE, SOURCE = (pathlib.Path(path).resolve() for path in sys.argv[1:3])
FAILURES = []


def expect(condition, message):
    if not condition:
        FAILURES.append(message)


def run(*command, **options):
    return subprocess.run(command, capture_output=True, text=True, check=False, **options)


class Inf:
    """Sections of an .inf file as lists of (key, values), with its strings put in."""

    def __init__(self, path):
        data = path.read_bytes()
        expect(data.count(b"\n") == data.count(b"\r\n"), f"{path.name}: lines end without CR LF")
        self.name, self.sections, lines = path.name, {}, None
        for line in data.decode("ascii").splitlines():
            line = re.sub(r'^((?:[^";]|"[^"]*")*);.*', r"\1", line).strip()
            if match := re.fullmatch(r"\[(.+)\]", line):
                expect(match[1].lower() not in self.sections, f"{path.name}: [{match[1]}] twice")
                lines = self.sections.setdefault(match[1].lower(), [])
            elif line:
                key, _, value = line.rpartition("=") if "=" in line else ("", "", line)
                lines.append((key.strip(), [v.strip().strip('"') for v in value.split(",")]))
        strings = {key.lower(): values[0] for key, values in self.section("Strings")}
        for lines in self.sections.values():
            lines[:] = [(self.expand(k, strings), [self.expand(v, strings) for v in values])
                        for k, values in lines]

    def expand(self, text, strings):
        def put(match):
            expect(match[1] in ("12", *strings), f"{self.name}: %{match[1]}% is not defined")
            return strings.get(match[1], match[0])

        return re.sub(r"%([^%]+)%", lambda m: put(re.fullmatch("%(.*)%", m[0].lower())), text)

    def section(self, name):
        expect(name.lower() in self.sections, f"{self.name} has no [{name}]")
        return self.sections.get(name.lower(), [])

    def value(self, section, key):
        found = [values for k, values in self.section(section) if k.lower() == key.lower()]
        expect(len(found) == 1, f"{self.name}: [{section}] has {len(found)} lines for {key}")
        return found[0] if found else [""]

    def expect(self, section, key, *wanted):
        found = self.value(section, key)
        expect(found == list(wanted), f"{self.name}: [{section}] {key} is {found}, not {wanted}")

    def registry(self, section):
        """The values that an AddReg section sets, by key and name."""
        return {(v[1], v[2]): v[4] for _, v in self.section(section)}


def check_service(inf, sections, service, binary, directory):
    """The part that every .inf here has: one file, one kernel service, and a clean way out."""
    install, uninstall = sections
    version = pefile.PE(directory / binary).VS_FIXEDFILEINFO[0]
    words = (version.FileVersionMS, version.FileVersionLS)
    number = ".".join(str(part) for word in words for part in (word >> 16, word & 0xFFFF))
    expect(inf.value("Version", "DriverVer")[1] == number, f"{inf.name}: not for {number}")
    inf.expect("Version", "Signature", "$Windows NT$")
    inf.expect("Version", "CatalogFile", inf.name.replace(".inf", ".cat"))
    added = inf.value(install + ".Services", "AddService")
    expect(added[0] == service, f"{inf.name} adds the service {added[0]}, not {service}")
    inf.expect(uninstall + ".Services", "DelService", service, "0x200")
    inf.expect(added[2], "ServiceType", "1")
    inf.expect(added[2], "ServiceBinary", f"%12%\\{binary}")
    files = inf.value(install, "CopyFiles")[0]
    expect([v[0] for _, v in inf.section(files)] == [binary], f"{inf.name} copies another file")
    inf.expect("DestinationDirs", files, "12")
    disk = inf.value("SourceDisksFiles", binary)[0]
    inf.value("SourceDisksNames", disk)
    return added[2]


def check_driver_inf():
    """What NDIS looks the driver up by has to be what the driver registers as."""
    entry = (SOURCE / "src/driver/driver_entry.cpp").read_text()
    unique = re.search(r'UniqueName, u"([^"]+)"', entry)[1]
    service = re.search(r'ServiceName, u"([^"]+)"', entry)[1]
    inf = Inf(PACKAGE / "netsieve.inf")
    check_service(inf, ("Install", "Install.Remove"), service, "NETSIEVE.sys", PACKAGE)
    inf.expect("Version", "ClassGUID", "{4D36E974-E325-11CE-BFC1-08002BE10318}")
    inf.expect("Install", "NetCfgInstanceId", unique)
    inf.expect("Install", "Characteristics", "0x40000")
    provider = inf.value("Version", "Provider")[0]
    models, platform = inf.value("Manufacturer", provider)
    expect(platform == "NTamd64", f"{inf.name} is for {platform}")
    (_, (install, component)), = inf.section(f"{models}.{platform}")
    expect((install, component) == ("Install", "netsieve"), f"{inf.name} installs {component}")
    values = inf.registry(inf.value("Install", "AddReg")[0])
    wanted = {
        ("Ndi", "Service"): service,
        ("Ndi", "CoServices"): service,
        ("Ndi", "FilterType"): "0x00000002",
        ("Ndi\\Interfaces", "UpperRange"): "noupper",
        ("Ndi\\Interfaces", "LowerRange"): "nolower",
        ("Ndi\\Interfaces", "FilterMediaTypes"): "ethernet",
    }
    for key, value in wanted.items():
        expect(values.get(key) == value, f"{inf.name}: {key} is {values.get(key)}, not {value}")
    expect(values.get(("Ndi", "FilterRunType")) in ("0x00000001", "0x00000002"), "no run type")
    expect(("Ndi", "FilterClass") in values, f"{inf.name} has no filter class")
    return service


def check_sample_infs(driver_service):
    samples = sorted(path.stem for path in (PACKAGE / "samples").glob("*.sys"))
    expect(samples == ["beacon", "block_dns", "delay"], f"the samples are {samples}")
    for name in samples:
        inf = Inf(PACKAGE / "samples" / f"{name}.inf")
        sections = ("DefaultInstall.NTamd64", "DefaultUninstall.NTamd64")
        service = check_service(inf, sections, name, f"{name}.sys", PACKAGE / "samples")
        inf.expect(service, "Dependencies", driver_service)
        inf.expect(service, "StartType", "3")


def check_import_libraries():
    """Each is read by the tools of the other toolchain."""
    text = (SOURCE / "windows/NETSIEVE.def").read_text()
    names = {f"{p}{name}" for name in re.findall(r"ITarn\w+", text) for p in ("", "__imp_")}
    expect(len(names) == 32, "the export list has not sixteen names")
    header = (PACKAGE / "include/netsieve_hook.h").read_text()
    declared = set(re.findall(r"NTAPI\s+(ITarn\w+)\(", header))
    expect(declared == {n for n in names if n[0] == "I"}, f"the header declares {sorted(declared)}")
    readers = {"netsieve.lib": "x86_64-w64-mingw32-nm", "libnetsieve.a": "llvm-nm-14"}
    for library, tool in readers.items():
        symbols = run(tool, PACKAGE / "lib" / library).stdout
        found = set(re.findall(r" [TtIiDd] ((?:__imp_)?ITarn\w+)", symbols))
        expect(found == names, f"{library}: {sorted(found ^ names)}")


def imports_of_driver(path):
    modules = getattr(pefile.PE(path), "DIRECTORY_ENTRY_IMPORT", [])
    return {i.name for m in modules if m.dll == b"NETSIEVE.sys" for i in m.imports}


def check_building(scratch):
    """The README's command makes the sample from the package alone, and so does the other linker."""
    readme = (PACKAGE / "README.txt").read_text()
    expect("@" not in readme, "README.txt has something that was not put in")
    gnu = re.search(r"x86_64-w64-mingw32-g\+\+.*(?:\n    .*)+", readme)[0].split()
    gnu[gnu.index("-o") + 1] = "gnu.sys"
    compile_only = [word for word in gnu[: gnu.index("-o")] if not word.startswith("-Wl")]
    compile_only += ["-c", "-o", "block_dns.obj", "samples/block_dns.cpp"]
    microsoft = ["lld-link-14", "-driver", "-subsystem:native", "-entry:DriverEntry", "-machine:x64"]
    microsoft += ["-nodefaultlib", "-out:microsoft.sys", "block_dns.obj", "lib/netsieve.lib"]
    shutil.copytree(PACKAGE, scratch / "package")
    for command in (gnu, compile_only, microsoft):
        result = run(*command, cwd=scratch / "package")
        expect(result.returncode == 0, f"{command[0]}: {result.stderr}")
    wanted = imports_of_driver(PACKAGE / "samples/block_dns.sys")
    for built in ("gnu.sys", "microsoft.sys"):
        found = imports_of_driver(scratch / "package" / built)
        expect(found == wanted and found, f"{built} imports {found}, the sample {wanted}")


def check_signing(scratch):
    signed = scratch / "signed"
    result = run(SOURCE / "scripts/sign-package.sh", PACKAGE, signed)
    expect(result.returncode == 0, f"sign-package.sh: {result.stderr}")
    certificate = scratch / "certificate.pem"
    run("openssl", "x509", "-inform", "DER", "-in", signed / "netsieve-test.cer", "-out", certificate)
    drivers = [signed / "NETSIEVE.sys", *(signed / "samples").glob("*.sys")]
    for path in drivers:
        image = pefile.PE(path)
        expect(image.OPTIONAL_HEADER.CheckSum == image.generate_checksum(), f"{path}: checksum")
        verify = ("osslsigncode", "verify", "-CAfile", certificate, "-in", path)
        result = run(*verify)
        expect(result.returncode == 0, f"{path}: {result.stdout}")
        damaged = bytearray(path.read_bytes())
        damaged[image.sections[0].PointerToRawData] ^= 1
        path.write_bytes(damaged)
        expect(run(*verify).returncode != 0, f"{path}: the signature does not see a change")


def main():
    check_sample_infs(check_driver_inf())
    check_import_libraries()
    with tempfile.TemporaryDirectory() as directory:
        check_building(pathlib.Path(directory))
        check_signing(pathlib.Path(directory))
    print("\n".join(FAILURES), file=sys.stderr)
    return 1 if FAILURES else 0


if __name__ == "__main__":
    sys.exit(main())
