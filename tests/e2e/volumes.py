"""Real btrfs volumes on loop devices, looked at by means of our own: ioctls and the btrfs program, never the service."""

import contextlib
import errno
import fcntl
import os
import struct
import time
import uuid

import sandbox

IMAGES = "/images"
APPARENT_SIZE = 64 << 30  # past the default low-space minimum of 30 GB; sparse

_SUBVOL_INFO = 0x81F8943C  # _IOR(0x94, 60, struct btrfs_ioctl_get_subvol_info_args), linux/btrfs.h
_INFO_FIELDS = struct.Struct("=Q256sQQQQ16s16s16sQQQQ" + "QI4x" * 4 + "64x")
REFERENCE_DATE = 978307200  # 2001-01-01 00:00:00 UTC


class Subvolume:
    """What the kernel knows of one."""

    def __init__(self, path):
        buffer = bytearray(_INFO_FIELDS.size)
        fd = os.open(path, os.O_RDONLY | os.O_DIRECTORY)
        try:
            fcntl.ioctl(fd, _SUBVOL_INFO, buffer)
        finally:
            os.close(fd)
        fields = _INFO_FIELDS.unpack(buffer)
        self.id, self.uuid = fields[0], str(uuid.UUID(bytes=fields[6]))
        self.parent_uuid = str(uuid.UUID(bytes=fields[7]))
        self.otransid = fields[10]
        seconds, nanoseconds = fields[15], fields[16]
        self.made = seconds - REFERENCE_DATE + nanoseconds / 1e9
        self.xid = self.otransid << 16 | self.id & 0xFFFF


_TREE_SEARCH = 0xD0009411  # _IOWR(0x94, 17, struct btrfs_ioctl_search_args)
_SEARCH = struct.Struct("=7Q3I4028x")  # tree; least and greatest object, offset, transaction; types; how many
_QUOTA_TREE, _ALL = 8, 2**64 - 1


def has_quotas(path):
    """Whether the file system keeps account of its subvolumes, at the cost of every commit."""
    buffer = bytearray(_SEARCH.pack(_QUOTA_TREE, 0, _ALL, 0, _ALL, 0, _ALL, 0, 255, 1))
    fd = os.open(path, os.O_RDONLY | os.O_DIRECTORY)
    try:
        fcntl.ioctl(fd, _TREE_SEARCH, buffer)
        return True
    except OSError as problem:
        if problem.errno != errno.ENOENT:  # there is no such tree
            raise
        return False
    finally:
        os.close(fd)


# linux/loop.h
_LOOP_CTL_GET_FREE, _LOOP_CONFIGURE, _AUTOCLEAR = 0x4C82, 0x4C0A, 4
_LOOP_CONFIG = struct.Struct("=II52xI176x64x")  # fd, block size, flags among much else


def attach(image):
    """A loop device for the image, gone with the last who has it open. Its path, and a descriptor that keeps it."""
    control, backing = os.open("/dev/loop-control", os.O_RDWR), os.open(image, os.O_RDWR)
    try:
        while True:
            number = fcntl.ioctl(control, _LOOP_CTL_GET_FREE)
            path = f"/dev/loop{number}"
            device = os.open(path, os.O_RDWR)
            try:
                fcntl.ioctl(device, _LOOP_CONFIGURE, _LOOP_CONFIG.pack(backing, 0, _AUTOCLEAR))
                return path, device
            except OSError as problem:
                os.close(device)
                if problem.errno != errno.EBUSY:  # somebody else was given the same one
                    raise
    finally:
        os.close(control)
        os.close(backing)


class Volume:
    """A file system of its own with one mounted, writable subvolume: the top level, or "@NAME"."""

    def __init__(self, name, top_level=False, size=APPARENT_SIZE):
        self.name, self.is_top_level = name, top_level
        self.path = f"/data/{name}"
        self.image = f"{IMAGES}/{name}.img"
        os.makedirs(IMAGES, exist_ok=True)
        os.makedirs(self.path)
        with open(self.image, "wb") as image:
            image.truncate(size)
        sandbox.run("mkfs.btrfs", "-q", "-L", name, self.image)
        self.device, self.kept = attach(self.image)
        self.subvolume = "/" if top_level else f"/@{name}"
        if not top_level:
            with self.mounted_top_level() as top:
                sandbox.run("btrfs", "subvolume", "create", f"{top}/@{name}")
        self.mount()
        self.uuid = Subvolume(self.path).uuid

    def mount(self, path=None):
        sandbox.run("mount", "-t", "btrfs", "-o", f"noatime,subvol={self.subvolume}", self.device, path or self.path)

    def unmount(self):
        release(self.path)

    @contextlib.contextmanager
    def mounted_top_level(self):
        """The top level for a moment, at a path that tells the service nothing: it's read-only to it in no way."""
        path = f"{IMAGES}/{self.name}.top"
        os.makedirs(path, exist_ok=True)
        sandbox.run("mount", "-t", "btrfs", "-o", "subvolid=5", self.device, path)
        try:
            yield path
        finally:
            release(path)

    def place(self, top):
        """Where the service keeps this volume's snapshots."""
        return f"{top}/.quillmark/{self.uuid}"

    def snapshot_at(self, path):
        """A read-only snapshot by the btrfs program, at a path (text or bytes) of the top level."""
        with self.mounted_top_level() as top:
            where = os.path.join(os.fsencode(top), os.fsencode(path))
            os.makedirs(os.path.dirname(where), exist_ok=True)
            sandbox.run(b"btrfs", b"subvolume", b"snapshot", b"-r", os.fsencode(self.path), where)
            return Subvolume(where)

    def write(self, name, text):
        path = f"{self.path}/{name}"
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w") as file:
            file.write(text)
        return path

    def free_bytes(self):
        blocks = os.statvfs(self.path)
        return blocks.f_bavail * blocks.f_frsize

    def reserve(self, name, size):
        """A file whose space is taken from the volume and never written, so that it costs the machine nothing."""
        fd = os.open(f"{self.path}/{name}", os.O_CREAT | os.O_WRONLY)
        try:
            os.posix_fallocate(fd, 0, size)
        finally:
            os.close(fd)

    def fill(self):
        """Takes all space for data, to the last block."""
        size, number = 16 << 30, 0
        while size >= 4096:
            number += 1
            try:
                self.reserve(f"filler-{number}", size)
            except OSError as problem:
                if problem.errno != errno.ENOSPC:
                    raise
                size //= 4
        sandbox.run("sync", "--file-system", self.path)

    def fill_with_names(self):
        """Takes the space for metadata too, as far as users are given it."""
        os.mkdir(f"{self.path}/names")
        try:
            for number in range(1 << 20):
                os.mknod(f"{self.path}/names/{number:0250}")
        except OSError as problem:
            if problem.errno != errno.ENOSPC:
                raise
        sandbox.run("sync", "--file-system", self.path)

    def has_quotas(self):
        with self.mounted_top_level() as top:
            return has_quotas(top)

    def destroy(self):
        """Gone, whatever still holds it."""
        for entry in mounts():
            if entry.source == self.device:
                sandbox.detach(entry.path)
        os.close(self.kept)
        os.unlink(self.image)
        os.rmdir(self.path)


class Neighbour(Volume):
    """One more subvolume of another volume's file system, mounted by itself."""

    def __init__(self, name, host):
        self.name, self.is_top_level = name, False
        self.path, self.subvolume = f"/data/{name}", f"/@{name}"
        self.device = host.device
        os.makedirs(self.path)
        with self.mounted_top_level() as top:
            sandbox.run("btrfs", "subvolume", "create", f"{top}/@{name}")
        self.mount()
        self.uuid = Subvolume(self.path).uuid

    def destroy(self):
        for entry in mounts():
            if entry.path == self.path:
                sandbox.detach(entry.path)
        os.rmdir(self.path)


def release(path, patience=5.0):
    """umount(8), again for a while: the service looks at what was mounted, and is in the way for that moment."""
    end = time.monotonic() + patience
    while True:
        try:
            return sandbox.run("umount", path)
        except RuntimeError as problem:
            if "busy" not in str(problem) or time.monotonic() > end:
                raise
        time.sleep(0.01)


class Mount:
    def __init__(self, line):
        before, after = (part.split(" ") for part in line.rstrip("\n").split(" - "))
        self.root, self.path, self.options = _unescaped(before[3]), _unescaped(before[4]), before[5].split(",")
        self.kind, self.source = after[0], _unescaped(after[1])


def _unescaped(text):
    return text.encode("utf-8", "surrogateescape").decode("unicode_escape").encode("latin-1").decode(
        "utf-8", "surrogateescape")


def mounts():
    with open("/proc/self/mountinfo", encoding="utf-8", errors="surrogateescape") as table:
        return [Mount(line) for line in table]


def is_mounted(path):
    return any(entry.path == path for entry in mounts())
