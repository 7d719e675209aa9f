"""What is measured, and against what."""
import os
import re
import shlex
import subprocess
from dataclasses import dataclass, field
from typing import Callable, Optional

from driver import volumes

OURS = "fsparser info"
FLOOR = "floor"


@dataclass
class Contender:
    """A command. {volume}, {ranges}, {paths} and {output} stand for paths."""

    name: str
    command: str
    program: Optional[str] = None  # what must be installed; the first word if it is not given
    reports_itself: bool = False  # prints "paths rounds cpu-microseconds checksum"; the process's start is not counted
    makes_copy: bool = False
    needs_target: bool = False  # writes into a file that has the volume's size already

    def arguments(self, places):
        return [word.format(**places) for word in shlex.split(self.command)]


@dataclass
class Target:
    """A bound on a number that is made of medians."""

    text: str
    limit: float
    value: Callable  # of the medians by contender
    at_most: bool = True
    needs: tuple = ()  # contenders

    def judge(self, by_name):
        missing = [name for name in self.needs if name not in by_name]
        if missing:
            return {"target": self.text, "value": None, "verdict": "not measured", "reason": ", ".join(missing)}
        value = self.value(by_name)
        met = value <= self.limit if self.at_most else value >= self.limit
        return {"target": self.text, "value": value, "limit": self.limit, "at_most": self.at_most,
                "verdict": "met" if met else "missed"}


@dataclass
class Case:
    """Contenders that take turns on one volume."""

    name: str
    title: str
    volume: str
    contenders: list
    targets: list = field(default_factory=list)
    paths: Optional[Callable] = None  # the list of paths that are looked up


def ratio(left, right, what="cpu"):
    return lambda by_name: getattr(by_name[left], what) / max(getattr(by_name[right], what), 1e-6)


def at_most(times, other, ours=OURS):
    return Target(f"{ours}: at most {times:g} times the processor time of {other}", times, ratio(ours, other),
                  needs=(ours, other))


def times_less(times, other, ours=OURS):
    return Target(f"{ours}: at least {times:g} times less processor time than {other}", times, ratio(other, ours),
                  at_most=False, needs=(ours, other))


def less_memory(other, ours=OURS):
    return Target(f"{ours}: less memory than {other}", 1, ratio(ours, other, "resident"), needs=(ours, other))


def own(verb):
    return Contender("fsparser " + verb, "{fsparser} " + verb + " {volume}", program="{fsparser}")


def floor():
    return Contender(FLOOR, "{floor} {volume} {ranges}", program="{floor}")


def domain(kind):
    """partclone's list of used and free stretches, which is all that it can give short of a copy."""
    return Contender(f"partclone.{kind}", f"partclone.{kind} -D --offset_domain=0 -q -s {{volume}} -o {{output}} "
                                          "-L {output}.log")


def bitmap_cases():
    memory = "a map's passes in memory"
    start = "fsparser --version"
    map_bytes = 4 * volumes.TIB // volumes.BLOCK // 8
    passes = Contender(memory, f"{{floor}} --map {map_bytes}", program="{floor}")
    bare = Contender(start, "{fsparser} --version", program="{fsparser}")
    return [
        Case("bitmap-ntfs", "empty NTFS of 4 TiB", "ntfs-4096g",
             [own("info"), own("bitmap"), floor(), domain("ntfs"), Contender("ntfsinfo -m", "ntfsinfo -m {volume}")],
             [at_most(3, FLOOR), times_less(100, "partclone.ntfs")]),
        Case("bitmap-ext4", "empty ext4 of 4 TiB", "ext4-4096g",
             [own("info"), own("bitmap"), floor(), domain("extfs"), Contender("dumpe2fs", "dumpe2fs {volume}")],
             [at_most(3, FLOOR), times_less(50, "partclone.extfs"), times_less(10, "dumpe2fs")]),
        Case("bitmap-xfs", "empty XFS of 4 TiB", "xfs-4096g",
             [own("info"), own("ranges"), own("bitmap"), bare, passes, domain("xfs"),
              Contender("xfs_db freesp -d", "xfs_db -r -c 'freesp -d' {volume}")],
             [times_less(100, "partclone.xfs"),
              Target("fsparser ranges, without its start: no dearer than a map's passes in memory", 1,
                     lambda costs: (costs["fsparser ranges"].cpu - costs[start].cpu) / costs[memory].cpu,
                     needs=("fsparser ranges", start, memory))]),
        Case("bitmap-fat32", "FAT32 of 250 GB with clusters of 32 KiB", "fat32-250gb",
             [own("info"), own("bitmap"), floor(), domain("fat32")],
             [times_less(20, "partclone.fat32"), less_memory("partclone.fat32")]),
        Case("bitmap-hfs", "fragmented HFS+ of 1 TiB", "hfs-1t",
             [own("info"), own("bitmap"), floor(), domain("hfsplus")]),
        Case("bitmap-hfs-tree", "the same, its allocation file in more extents than the header holds", "hfs-1t-tree",
             [own("info"), own("bitmap"), floor(), domain("hfsplus")]),
        Case("extents-xfs", "XFS with a million free extents", "xfs-million",
             [own("info"), own("ranges"), floor(), domain("xfs"),
              Contender("xfs_db freesp -d", "xfs_db -r -c 'freesp -d' {volume}")],
             [at_most(1, "xfs_db freesp -d"), times_less(5, "partclone.xfs")]),
        Case("extents-ext4", "ext4 with a million free extents", "ext4-million",
             [own("info"), own("ranges"), floor(), domain("extfs"), Contender("dumpe2fs", "dumpe2fs {volume}")]),
    ]


LAYERS = {"library": "library", "cached": "library, pages kept", "imaging": "imaging layer"}
PEER_LOOKUP = "libntfs-3g"


def lookup_case(name, title, what, paths, rounds):
    tail = f"{{volume}} {{paths}} {what} {rounds}"
    ours = [Contender(label, f"{{lookup}} {tail} {layer}", program="{lookup}", reports_itself=True)
            for layer, label in LAYERS.items()]
    peer = Contender(PEER_LOOKUP, f"{{ntfs3g_lookup}} {tail}", program="{ntfs3g_lookup}", reports_itself=True)
    targets = [at_most(0.5, PEER_LOOKUP, label) for label in LAYERS.values()]
    return Case(name, title, "ntfs-files", [*ours, peer], targets, paths)


def lookup_cases():
    spread, large = volumes.ntfs_paths()
    return [
        lookup_case("lookup-record", "record of 10,000 paths in 200 directories", "record", lambda: spread, 3),
        lookup_case("lookup-acl", "access lists of 10,000 paths in 200 directories", "acl", lambda: spread, 3),
        lookup_case("lookup-record-large", "record of 4,000 paths in one directory", "record", lambda: large, 5),
        lookup_case("lookup-acl-large", "access lists of 4,000 paths in one directory", "acl", lambda: large, 5),
    ]


def copy_case(kind, *peers):
    ours = Contender("fsparser copy", "{fsparser} copy -q {volume} {output}", program="{fsparser}", makes_copy=True)
    every = [*peers, Contender("cp --sparse=always", "cp --sparse=always {volume} {output}", makes_copy=True)]
    names = [peer.name for peer in every]

    def fastest(what):
        return lambda costs: getattr(costs[ours.name], what) / min(getattr(costs[name], what) for name in names
                                                                   if name in costs)
    targets = [Target(f"fsparser copy: at most the {word} of the fastest peer", 1, fastest(what), needs=(ours.name,))
               for what, word in (("wall", "time"), ("cpu", "processor time"))]
    return Case(f"copy-{kind}", f"used-only copy of {kind}, 320 MiB of files in 4 GiB", f"{kind}-copy", [ours, *every],
                targets)


def raw_copy(kind):
    return Contender(f"partclone.{kind} -b", f"partclone.{kind} -b -q -s {{volume}} -O {{output}} "
                                             "-L {output}.log", makes_copy=True, needs_target=True)


def copy_cases():
    return [
        copy_case("ntfs", raw_copy("ntfs")),
        copy_case("ext4", raw_copy("extfs"),
                  Contender("e2image -ra", "e2image -ra {volume} {output}", makes_copy=True)),
        copy_case("xfs", raw_copy("xfs"),
                  Contender("xfs_copy -d", "xfs_copy -d -L {output}.log {volume} {output}", makes_copy=True)),
        copy_case("fat32", raw_copy("fat32")),
    ]


def cases():
    return [*bitmap_cases(), *lookup_cases(), *copy_cases()]


def read_ranges(trace, volume):
    """The byte ranges of a volume that a traced run read: each byte once, in order; and how many bytes it read."""
    opened, position, stretches, total = set(), {}, [], 0
    with open(trace, encoding="utf-8", errors="replace") as file:
        for line in file:
            call = re.sub(r"^\d+ +", "", line)
            if found := re.match(r'openat\(\S+ "([^"]*)", .*\) = (\d+)', call):
                if found[1] == volume:
                    opened.add(found[2])
                    position[found[2]] = 0
            elif found := re.match(r"close\((\d+)", call):
                opened.discard(found[1])
            elif (found := re.match(r"lseek\((\d+), .*\) += (\d+)", call)) and found[1] in opened:
                position[found[1]] = int(found[2])
            elif (found := re.match(r"p?read(?:64)?\((\d+), .*\) += (\d+)", call)) and found[1] in opened:
                given = re.match(r"pread64\(\d+, .*, (\d+)\) += \d+", call)
                start = int(given[1]) if given else position[found[1]]
                stretches.append((start, start + int(found[2])))
                total += int(found[2])
                if not given:
                    position[found[1]] += int(found[2])
    return merged(stretches), total


def merged(stretches):
    result = []
    for begin, end in sorted(stretches):
        if result and begin <= result[-1][1]:
            result[-1][1] = max(result[-1][1], end)
        else:
            result.append([begin, end])
    return result


def write_ranges(fsparser, volume, ranges, scratch):
    """What the floor reads: all that `fsparser info` reads, each byte once. Tells how many bytes both read."""
    trace = os.path.join(scratch, "trace")
    subprocess.run(["strace", "-f", "-s", "0", "-e", "trace=openat,close,lseek,read,pread64", "-o", trace, fsparser,
                    "info", volume], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=True)
    stretches, total = read_ranges(trace, volume)
    with open(ranges, "w", encoding="ascii") as file:
        for begin, end in stretches:
            file.write(f"{begin} {end - begin}\n")
    os.remove(trace)
    return total, sum(end - begin for begin, end in stretches)
