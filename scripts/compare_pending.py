#!/usr/bin/python3
"""Replays captures with hooks that hold frames, and checks every frame that comes out, its time and
its place against a model of what such hooks do. tcpdump says which frames an expression selects.

  delay    every frame comes out once: held ones at their release time, the others and what the
           hook has no room for at their own
  hold     completed with failure, overflow withheld: exactly the frames that are not selected
  pause    held to the end, with a pause half way: what was held then is reported as flushed

All drivers have to write the same bytes.
"""

import argparse
import json
import pathlib
import subprocess
import sys
import tempfile
from collections import namedtuple

import subtract_capture

# Of the 48 records of an adapter a held frame takes two, and one has to stay for the next frame.
ROOM = 23
DELAY_MS = 20
EXPRESSIONS = ("udp", "tcp port 80 or tcp port 443", "broadcast", "greater 200", "arp or icmp")

Frame = namedtuple("Frame", "stamp original data")


class Mismatch(Exception):
    """What is wrong with one replay."""


def run(*command):
    return subprocess.run(command, capture_output=True, text=True, check=False)


def tcpdump(source, target, *expression):
    """Copies the frames that an expression selects; false when the capture is broken."""
    return run("tcpdump", "-r", source, "--time-stamp-precision=nano", "-Z", "root", "-w", target,
               *expression)


def read(path):
    frames = subtract_capture.records(path)
    next(frames)
    for header, data in frames:
        seconds, nanoseconds, _, original = (
            int.from_bytes(header[at:at + 4], "little") for at in (0, 4, 8, 12))
        yield Frame(seconds * 10**9 + nanoseconds, original, data)


def offered(frames, flat, selected):
    """Whether each frame is selected and short enough to be shown to a hook."""
    gone = subtract_capture.records(selected)
    next(gone)
    flats = subtract_capture.records(flat)
    next(flats)
    next_gone = next(gone, None)
    for frame, flat_frame in zip(frames, flats):
        taken = flat_frame == next_gone
        if taken:
            next_gone = next(gone, None)
        yield taken and 0 < len(frame.data) <= subtract_capture.LONGEST_OFFERED


class Clock:
    """The machine's: it stands still for stamps that go back. It counts in units of 100 ns."""

    def __init__(self):
        self.now = None

    def reach(self, stamp):
        if self.now is None or stamp // 100 >= self.now // 100:
            self.now = stamp


def model_delay(frames, chosen):
    clock, held, out, overflow = Clock(), [], [], 0
    for frame, selected in zip(frames, chosen):
        while held and held[0].stamp <= frame.stamp:
            clock.reach(held[0].stamp)
            out.append(held.pop(0)._replace(stamp=clock.now))
        clock.reach(frame.stamp)
        if selected and len(held) < ROOM:
            held.append(frame._replace(stamp=clock.now + DELAY_MS * 10**6))
            held.sort(key=lambda entry: entry.stamp)
        else:
            overflow += selected
            out.append(frame)
    for frame in held:
        clock.reach(frame.stamp)
        out.append(frame._replace(stamp=clock.now))
    return out, {"refused": overflow}


def model_hold(frames, chosen):
    kept = sum(chosen)
    out = [frame for frame, selected in zip(frames, chosen) if not selected]
    return out, {"dropped": min(ROOM, kept), "refused": max(0, kept - ROOM)}


def model_pause(frames, chosen, pause_at):
    clock, out, held, flushed = Clock(), [], [], 0
    for number, (frame, selected) in enumerate(zip(frames, chosen), 1):
        clock.reach(frame.stamp)
        if not selected:
            out.append(frame)
        elif len(held) + flushed < ROOM:
            held.append(frame)
        if number == pause_at:
            # The hook does not hear of it: what it owes for these keeps their places taken.
            flushed, held = len(held), []
    out += [frame._replace(stamp=clock.now) for frame in held]
    return out, {"flushed": flushed, "reinjected": len(held)}


class Comparison:
    def __init__(self, netsieve, drivers, scratch):
        self.netsieve, self.drivers, self.scratch = netsieve, drivers, pathlib.Path(scratch)
        self.compared = self.captures = self.failed = 0

    def file(self, name):
        return str(self.scratch / name)

    def replay(self, capture, driver, direction, options):
        output = self.file("out")
        done = run(self.netsieve, "replay", capture, "--json", "--driver", driver, "--direction",
                   direction, *options, "-o", output)
        if done.returncode != 0:
            raise Mismatch(f"exit status {done.returncode}; it said: {done.stderr}{done.stdout}")
        normal = tcpdump(output, self.file("normal"))
        if normal.returncode != 0:
            raise Mismatch(normal.stderr)
        return json.loads(done.stdout), list(read(self.file("normal")))

    def check(self, capture, frames, driver, direction, expression, mac, case):
        hook, options, model = case
        selecting = expression
        if direction == "receive":
            selecting = f"({expression}) and (ether dst {mac} or ether broadcast)"
        if (words := tcpdump(self.file("flat"), self.file("selected"), selecting)).returncode != 0:
            raise Mismatch(words.stderr)
        chosen = list(offered(frames, self.file("flat"), self.file("selected")))
        expected, counts = model(frames, chosen)
        summary, out = self.replay(capture, driver, direction,
                                   ["--mac", mac, "--hook", hook.format(expression), *options])
        for number, (want, got) in enumerate(zip(expected, out), 1):
            if want != got:
                raise Mismatch(f"frame {number} of the output: time {got.stamp} instead of "
                               f"{want.stamp}, {len(got.data)} bytes instead of {len(want.data)}")
        if len(expected) != len(out):
            raise Mismatch(f"{len(out)} frames came out instead of {len(expected)}")
        way = summary["adapters"][0]["sent" if direction == "send" else "received"]
        said = {**way, **{"refused": summary["hooks"][0]["refused"]}}
        for name, count in counts.items():
            if said[name] != count:
                raise Mismatch(f"the summary says {said[name]} {name} instead of {count}")
        return (self.scratch / "out").read_bytes()

    def compare(self, capture):
        words = tcpdump(capture, self.file("in"))
        if words.returncode != 0 or "link-type EN10MB" not in words.stderr:
            print(f"skipped {capture}: broken, or not Ethernet")
            return
        self.captures += 1
        subtract_capture.flatten(self.file("in"), self.file("flat"))
        frames = list(read(self.file("in")))
        vote = run(self.netsieve, "replay", capture, "--json")
        mac = json.loads(vote.stdout)["adapters"][0]["address"]
        half = len(frames) // 2 or 1
        cases = {
            "delay": (f"delay:{DELAY_MS}:{{}}", [], model_delay),
            "hold": ("hold:{}:failure:overflow=drop", [], model_hold),
            "pause": ("hold:{}:success:overflow=drop", ["--pause-at", str(half)],
                      lambda f, chosen: model_pause(f, chosen, half)),
        }
        for direction in ("send", "receive"):
            for expression in EXPRESSIONS:
                for name, case in cases.items():
                    outputs = set()
                    for driver in self.drivers:
                        self.compared += 1
                        try:
                            outputs.add(self.check(capture, frames, driver, direction, expression,
                                                   mac, case))
                        except Mismatch as what:
                            self.failed += 1
                            print(f"FAILED  {capture}, {driver}, {direction}, {name} of "
                                  f"'{expression}': {what}")
                    if len(outputs) > 1:
                        self.failed += 1
                        print(f"FAILED  {capture}, {direction}, {name} of '{expression}': the "
                              "drivers write different bytes")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0],
                                     epilog="Exit status 1 when a replay differs from the model.")
    here = pathlib.Path(__file__).resolve().parent
    parser.add_argument("-n", metavar="NETSIEVE", default=str(here.parent / "build/bin/netsieve"),
                        help="the program (default: build/bin/netsieve)")
    parser.add_argument("-d", metavar="DRIVER", action="append",
                        help="native, or the path of a driver image; may be repeated")
    parser.add_argument("places", metavar="DIRECTORY|CAPTURE", nargs="+")
    arguments = parser.parse_args()
    captures = []
    for place in map(pathlib.Path, arguments.places):
        captures += sorted(place.glob("*.pcap*")) if place.is_dir() else [place]
    with tempfile.TemporaryDirectory() as scratch:
        comparison = Comparison(arguments.n, arguments.d or ["native"], scratch)
        for capture in captures:
            comparison.compare(str(capture))
    if comparison.captures == 0:
        sys.exit("compare_pending: no capture to compare")
    print(f"{comparison.captures} captures, {comparison.compared} replays, "
          f"{comparison.failed} failed")
    sys.exit(comparison.failed != 0)


if __name__ == "__main__":
    main()
