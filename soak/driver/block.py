"""File systems in image files, and the disk that loses what was not flushed."""

import collections
import contextlib
import os
import pathlib
import selectors
import shutil
import subprocess
import time

from clients import LEASH

LIMIT = 60           # seconds for a command, and for an answer of the disk
SECTOR = "4096"      # soak/disk/Disk.h
IMAGE_BYTES = 512 << 20


class Failed(Exception):
    """A command failed, or took too long."""


def command(*words):
    """Runs a command. Does not wait for one that hangs in the kernel."""
    # The end of a "with" would wait for the process.
    process = subprocess.Popen([*LEASH, *words], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                               stderr=subprocess.STDOUT, text=True)
    try:
        output, _ = process.communicate(timeout=LIMIT)
    except subprocess.TimeoutExpired:
        process.kill()
        raise Failed("%s takes longer than %d s" % (words[0], LIMIT)) from None
    if process.returncode:
        raise Failed("%s ends with %d: %s" % (" ".join(map(str, words)), process.returncode,
                                              output.strip()[-2000:]))
    return output.strip()


FileSystem = collections.namedtuple("FileSystem", "name make check package")

FILE_SYSTEMS = {each.name: each for each in (
    # Without the lazy options the kernel would still write tables after the mount.
    FileSystem("ext4", ("mkfs.ext4", "-q", "-E", "lazy_itable_init=0,lazy_journal_init=0"),
               ("e2fsck", "-f", "-n"), "e2fsprogs"),
    FileSystem("xfs", ("mkfs.xfs", "-q", "-s", "size=" + SECTOR), ("xfs_repair", "-f", "-n"),
               "xfsprogs"),
    FileSystem("btrfs", ("mkfs.btrfs", "-q"), ("btrfs", "check", "--readonly"), "btrfs-progs"),
)}


def lacks(file_system):
    """Why a file system cannot be played on here, or None."""
    for program in (file_system.make[0], file_system.check[0]):
        if not shutil.which(program):
            return "%s is missing: install %s" % (program, file_system.package)
    known = pathlib.Path("/proc/filesystems").read_text(encoding="ascii").split()
    return None if file_system.name in known else "the kernel has no %s" % file_system.name


def why_not(programs):
    """Why no power cut can be played here, or None."""
    if os.geteuid() != 0:
        return "only root can mount"
    for device in ("/dev/fuse", "/dev/loop-control"):
        if not os.access(device, os.R_OK | os.W_OK):
            return "there is no %s" % device
    if not os.access(programs / "soak_disk", os.X_OK):
        return "soak_disk is not built: install libfuse3-dev"
    return None


def make_image(file_system, path):
    with open(path, "xb") as file:
        file.truncate(IMAGE_BYTES)
    command(*file_system.make, path)


def check_image(file_system, path):
    """Checks an unmounted file system. Changes nothing."""
    command(*file_system.check, path)


@contextlib.contextmanager
def mounted(file_system, path, place):
    """Mounts the file system in a file. The loop device ends with the mount."""
    device = command("losetup", "--find", "--show", "--sector-size", SECTOR, path)
    try:
        command("mount", "-t", file_system.name, device, place)
    finally:
        command("losetup", "--detach", device)  # at once, or at the end of the mount
    try:
        yield
    finally:
        unmount(place)


def unmount(place):
    """Tries again while something still uses the mount."""
    deadline = time.monotonic() + LIMIT
    while True:
        try:
            command("umount", place)
            return
        except Failed:
            if time.monotonic() > deadline:
                command("umount", "--lazy", place)
                raise
        time.sleep(0.05)


class CutDisk:
    """Runs soak_disk, which soak/disk/DiskMain.cpp describes. Its file is `path`."""

    def __init__(self, programs, safe, current, mount):
        self._mount = mount
        self.path = mount / "disk"
        self._process = subprocess.Popen([*LEASH, programs / "soak_disk", mount, safe, current],
                                         stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self._selector = selectors.DefaultSelector()
        self._selector.register(self._process.stdout, selectors.EVENT_READ)
        self._answer("mounted")

    def _answer(self, word):
        """The numbers in an answer, which is one line."""
        line = b""
        deadline = time.monotonic() + LIMIT
        while not line.endswith(b"\n"):
            if not self._selector.select(max(0, deadline - time.monotonic())):
                raise Failed("soak_disk does not answer within %d s" % LIMIT)
            part = os.read(self._process.stdout.fileno(), 4096)
            if not part:
                raise Failed("soak_disk ended")
            line += part
        words = line.decode().split()
        if words[0] != word:
            raise Failed("soak_disk answers: %s" % line.decode().strip())
        return [int(each) for each in words[1:]]

    def _order(self, word, *arguments):
        self._process.stdin.write((" ".join([word, *map(str, arguments)]) + "\n").encode())
        self._process.stdin.flush()

    def cut(self, requests, writes, seconds):
        """Lets some requests pass, and then stops the disk as soon as so many writes are unflushed. The
        disk stops after the seconds in any case. Returns how many writes and sectors are unflushed."""
        self._order("cut", requests, writes, seconds)
        return self._answer("cut")

    def image(self, kept, seed, path):
        """Returns how many of the unflushed sectors the image keeps."""
        self._order("image", kept, seed, path)
        return self._answer("image")[0]

    def thaw(self):
        self._order("thaw")
        self._answer("thawed")

    def end(self):
        """Ends the disk. Nobody may use its file."""
        try:
            unmount(self._mount)
            self._process.wait(LIMIT)
        except (Failed, subprocess.TimeoutExpired):
            self.kill()
            raise
        finally:
            self._selector.close()
            self._process.stdin.close()
            self._process.stdout.close()

    def kill(self):
        """Every request fails after this, and nobody waits for the disk any more."""
        self._process.kill()
        self._process.wait(LIMIT)
