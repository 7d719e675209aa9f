"""Makes the volumes that are measured, once: a volume appears under its name only when it is whole."""
import ctypes
import os
import random
import shutil
import struct
import subprocess
import tempfile
import time
from array import array
from contextlib import contextmanager

KIB = 1 << 10
MIB = 1 << 20
GIB = 1 << 30
TIB = 1 << 40

BLOCK = 4096
MILLION_EXTENTS_FILE = 2 * 1_000_000 * BLOCK  # of which every other block is given back
COPY_BYTES = 320 * MIB  # of files in a volume that is copied
DIRECTORIES = 200
FILES = 10_000
LARGE_DIRECTORY = 4_000
DESCRIPTORS = 300


class Missing(Exception):
    """The machine has not what a volume needs."""


def call(*command, **options):
    done = subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, check=False, **options)
    if done.returncode != 0:
        raise RuntimeError(f"{' '.join(command)}: {done.stderr.decode(errors='replace').strip()[-300:]}")


def sparse(path, size):
    with open(path, "wb") as file:
        file.truncate(size)


def need_root():
    if os.geteuid() != 0:
        raise Missing("mounting needs root")


@contextmanager
def mounted(path, *options):
    """A volume of a file system that the kernel has."""
    need_root()
    with tempfile.TemporaryDirectory() as directory:
        try:
            call("mount", "-o", ",".join(["loop", *options]), path, directory)
        except RuntimeError as error:
            raise Missing(f"cannot be mounted here: {error}") from error
        try:
            yield directory
        finally:
            call("umount", directory)


@contextmanager
def mounted_ntfs(path):
    """An NTFS volume, by the driver in user space, which is done only when it has ended."""
    need_root()
    if not os.access("/dev/fuse", os.W_OK):
        raise Missing("there is no /dev/fuse here")
    with tempfile.TemporaryDirectory() as directory:
        driver = subprocess.Popen(["ntfs-3g", "-o", "no_detach,noatime,permissions,streams_interface=xattr", path,
                                   directory], stderr=subprocess.DEVNULL)
        while not os.path.ismount(directory):
            if driver.poll() is not None:
                raise Missing("ntfs-3g does not mount")
            time.sleep(0.01)
        try:
            yield directory
        finally:
            call("umount", directory)
            driver.wait()


# Empty volumes.

def empty_ntfs(path, size):
    sparse(path, size)
    call("mkfs.ntfs", "-F", "-Q", "-q", "-p", "0", "-H", "0", "-S", "0", "-s", "512", path)


def empty_ext4(path, size):
    sparse(path, size)
    call("mke2fs", "-q", "-F", "-t", "ext4", "-E", "lazy_itable_init=1,lazy_journal_init=1,nodiscard", path)


def empty_xfs(path, size):
    """With a journal of 64 MiB: the 2 GiB that mkfs chooses take room on the disk and change nothing else."""
    sparse(path, size)
    call("mkfs.xfs", "-q", "-f", "-K", "-l", "size=64m", path)


# Volumes with much in them.

def large_fat(path, size=250 * 10**9, cluster=32 * KIB):
    """Files of 1 to 64 clusters with gaps as long between them; as chains that no directory names."""
    sparse(path, size)
    call("mkfs.fat", "-F", "32", "-s", str(cluster // 512), path)
    with open(path, "r+b") as file:
        boot = file.read(512)
        reserved, tables = struct.unpack_from("<H", boot, 14)[0], boot[16]
        sectors, table_sectors = struct.unpack_from("<I", boot, 32)[0], struct.unpack_from("<I", boot, 36)[0]
        clusters = (sectors - reserved - tables * table_sectors) // (cluster // 512)
        entries = array("I", bytes(4 * (clusters + 2)))
        file.seek(reserved * 512)
        entries[0:3] = array("I", file.read(12))
        place, chance = 3, random.Random(1)
        while True:
            used = chance.randint(1, 64)
            if place + used > len(entries):
                break
            entries[place:place + used] = array("I", [*range(place + 1, place + used), 0x0FFFFFFF])
            place += used + chance.randint(1, 64)
        for table in range(tables):
            file.seek((reserved + table * table_sectors) * 512)
            file.write(entries.tobytes())


def punch_every_other_block(path):
    """One file in one extent, then a hole in every other block of it."""
    libc = ctypes.CDLL(None, use_errno=True)
    libc.fallocate.argtypes = [ctypes.c_int, ctypes.c_int, ctypes.c_int64, ctypes.c_int64]
    keep_size_and_punch = 3
    file = os.open(path, os.O_RDWR | os.O_CREAT)
    try:
        os.posix_fallocate(file, 0, MILLION_EXTENTS_FILE)
        for offset in range(0, MILLION_EXTENTS_FILE, 2 * BLOCK):
            if libc.fallocate(file, keep_size_and_punch, offset, BLOCK) != 0:
                raise OSError(ctypes.get_errno(), path)
    finally:
        os.close(file)


def million_extents(make_empty, path):
    make_empty(path, 16 * GIB)
    with mounted(path) as directory:
        punch_every_other_block(os.path.join(directory, "file"))


def make_descriptor(number):
    """A self-relative security descriptor of two to nine entries, a different one for each number."""
    def sid(*parts):
        return struct.pack(">BBHI", 1, len(parts), 0, 5) + struct.pack(f"<{len(parts)}I", *parts)

    def entry(mask, trustee):
        return struct.pack("<BBHI", 0, 0, 8 + len(trustee), mask) + trustee

    user = sid(21, 1004336348, 1177238915, 682003330, 1000 + number)
    entries = [entry(0x1F01FF, sid(18)), *(entry(0x120089 + (i << 4), user) for i in range(1 + number % 8))]
    content = b"".join(entries)
    acl = struct.pack("<BBHHH", 2, 0, 8 + len(content), len(entries), 0) + content
    owner = sid(32, 544)
    return struct.pack("<BBHIIII", 1, 0, 0x8004, 20, 20 + len(owner), 0, 20 + 2 * len(owner)) + owner + owner + acl


def ntfs_paths():
    """The files of the volume below: spread over directories, and in one large directory.

    The large directory's names are short: what the library finds lies in the first 256 blocks of an index.
    """
    spread = [f"/directory-{i % DIRECTORIES:03}/file number {i:05}.document" for i in range(FILES)]
    return spread, [f"/large/n{i:04}" for i in range(LARGE_DIRECTORY)]


def ntfs_with_files(path):
    empty_ntfs(path, 1 * GIB)
    descriptors = [make_descriptor(number) for number in range(DESCRIPTORS)]
    with mounted_ntfs(path) as directory:
        for i, name in enumerate(sum(ntfs_paths(), [])):
            place = directory + name
            os.makedirs(os.path.dirname(place), exist_ok=True)
            with open(place, "wb") as file:
                file.write(b"x" * (i % 2000))
            os.setxattr(place, "system.ntfs_acl", descriptors[i % DESCRIPTORS])


def fill_for_copy(directory, goes_again=True):
    """Files of 4 KiB to 1 MiB of bytes that cannot be left out; every third one goes again, which leaves gaps."""
    chance = random.Random(1)
    written, names = 0, []
    while written < COPY_BYTES * (3 if goes_again else 2) // 2:
        place = os.path.join(directory, f"directory-{len(names) % 50}")
        os.makedirs(place, exist_ok=True)
        size = 4 * KIB << chance.randrange(9)
        names.append(os.path.join(place, f"file-{len(names)}"))
        with open(names[-1], "wb") as file:
            file.write(chance.randbytes(size))
        written += size
    if goes_again:
        os.sync()
        for name in names[::3]:
            os.remove(name)


def copy_mounted(make_empty, mount, path):
    make_empty(path, 4 * GIB)
    with mount(path) as directory:
        fill_for_copy(directory)


def copy_fat(path):
    sparse(path, 4 * GIB)
    call("mkfs.fat", "-F", "32", "-s", "8", path)
    with tempfile.TemporaryDirectory(dir=os.path.dirname(path)) as directory:
        fill_for_copy(directory, goes_again=False)
        content = [os.path.join(directory, name) for name in sorted(os.listdir(directory))]
        call("mcopy", "-Q", "-s", "-i", path, *content, "::/", env={**os.environ, "MTOOLS_SKIP_CHECK": "1"})


SERIES_GIB = [256, 512, 1024, 2048, 4096]
EMPTY = {"ntfs": empty_ntfs, "ext4": empty_ext4, "xfs": empty_xfs}


def recipes(programs):
    """What makes each volume, by its name."""
    made = {
        f"{name}-{size}g": lambda path, make=make, size=size: make(path, size * GIB)
        for name, make in EMPTY.items() for size in SERIES_GIB
    }
    made["fat32-250gb"] = large_fat
    for name, extents in (("hfs-1t", 7), ("hfs-1t-tree", 61)):
        made[name] = lambda path, extents=extents: call(os.path.join(programs, "bench_hfs_volume"), path, str(extents))
    made["ext4-million"] = lambda path: million_extents(empty_ext4, path)
    made["xfs-million"] = lambda path: million_extents(empty_xfs, path)
    made["ntfs-files"] = ntfs_with_files
    made["ntfs-copy"] = lambda path: copy_mounted(empty_ntfs, mounted_ntfs, path)
    made["ext4-copy"] = lambda path: copy_mounted(empty_ext4, mounted, path)
    made["xfs-copy"] = lambda path: copy_mounted(empty_xfs, mounted, path)
    made["fat32-copy"] = copy_fat
    return made


def make(directory, programs, name, say):
    """The volume's path; made if it is not there."""
    path = os.path.join(directory, name + ".img")
    if not os.path.exists(path):
        say(f"making the volume {name}")
        part = path + ".part"
        try:
            recipes(programs)[name](part)
            os.rename(part, path)
        finally:
            if os.path.exists(part):
                os.remove(part)
    return path


def stage(path, directory):
    """A copy of a volume in a directory in memory, or the volume itself where that has too little room."""
    allocated = os.stat(path).st_blocks * 512
    if directory is None or shutil.disk_usage(directory).free < 3 * allocated + GIB:
        with open(path, "rb") as file:  # into the page cache
            os.posix_fadvise(file.fileno(), 0, 0, os.POSIX_FADV_WILLNEED)
        return path, False
    staged = os.path.join(directory, os.path.basename(path))
    call("cp", "--sparse=auto", path, staged)
    return staged, True
