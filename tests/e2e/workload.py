"""A tree of files under random change that knows which object lies at which path.

The names are bytes. Every object (an inode, or a nested subvolume) has a token of its own; hard links share one.
"""

import ctypes
import fcntl
import os
import shutil
import stat
import struct

import sandbox

_LIBC = ctypes.CDLL(None, use_errno=True)
_AT_FDCWD, _RENAME_EXCHANGE = -100, 2  # fcntl.h, linux/fs.h
_KEEP_SIZE, _PUNCH_HOLE = 1, 2  # linux/falloc.h
_GETFLAGS, _SETFLAGS, _NODUMP = 0x80086601, 0x40086602, 0x40  # linux/fs.h

LEFT_OUT = b"leftout"  # directories of this name are excluded from the index


def _checked(result):
    if result != 0:
        number = ctypes.get_errno()
        raise OSError(number, os.strerror(number))


def fallocate(fd, mode, offset, length):
    _checked(_LIBC.fallocate(fd, mode, ctypes.c_int64(offset), ctypes.c_int64(length)))


def exchange(first, second):
    _checked(_LIBC.renameat2(_AT_FDCWD, first, _AT_FDCWD, second, _RENAME_EXCHANGE))


class Tree:
    def __init__(self, root, chance):
        self.root, self.chance = os.fsencode(root), chance
        self.objects = {}  # path below the root, b"/a/b" -> token
        self.kinds = {}  # token -> "file", "directory", "subvolume", "symlink", "other"
        self.newest = []  # paths in the order of making
        self.count = 0
        self.changes = [
            (12, self.create), (8, self.overwrite), (5, self.append), (5, self.truncate), (3, self.preallocate),
            (3, self.punch), (8, self.rename), (4, self.move_directory), (3, self.swap), (4, self.link), (3, self.symlink),
            (2, self.special), (8, self.remove), (2, self.remove_tree), (6, self.make_directory), (4, self.mode),
            (3, self.owner), (3, self.time), (3, self.attribute), (2, self.flag), (1, self.subvolume),
            (1, self.deep), (1, self.wide), (1, self.many_links), (1, self.left_out), (2, self.replace_kind),
        ]

    # ---- what is there

    def absolute(self, path):
        return self.root + path

    def of_kind(self, *kinds):
        return [path for path, token in self.objects.items() if self.kinds[token] in kinds]

    def pick(self, *kinds):
        found = self.of_kind(*kinds)
        return self.chance.choice(found) if found else None

    def folder(self):
        """A directory to make something in; the root is b""."""
        return self.chance.choice([b"", *self.of_kind("directory")])

    def below(self, path):
        return [other for other in self.objects if other == path or other.startswith(path + b"/")]

    def visible(self):
        """path -> token of what an index holds: nothing below excluded directories."""
        return {path: token for path, token in self.objects.items() if LEFT_OUT not in path.split(b"/")[1:-1]}

    # ---- keeping the book

    def note(self, path, kind, token=None):
        if token is None:
            self.count += 1
            token = self.count
            self.kinds[token] = kind
        self.objects[path] = token
        self.newest.append(path)

    def forget(self, path):
        for gone in self.below(path):
            del self.objects[gone]

    def moved(self, old, new):
        for path in sorted(self.below(old)):
            self.objects[new + path[len(old):]] = self.objects.pop(path)

    # ---- names

    def name(self):
        chance = self.chance
        style = chance.randrange(10)
        self.count += 1
        if style < 5:
            return b"n%d" % self.count
        if style == 5:
            return "größe é ☃ ".encode() + b"%d" % self.count
        if style == 6:  # scalars that stand for escapes in text
            return chr(0x10EF00 + chance.randrange(256)).encode() + b"%d" % self.count
        if style == 7:
            return b"long-" * chance.randrange(1, 45) + b"%d" % self.count
        raw = bytes(chance.choice([b for b in range(1, 256) if b != 0x2F]) for _ in range(chance.randrange(1, 30)))
        return raw + b"%d" % self.count

    def new_path(self):
        while True:
            path = self.folder() + b"/" + self.name()
            if path not in self.objects and len(path) < 3000:
                return path

    def bytes(self, most=None):
        size = self.chance.choice([0, 1, 100, 1900, 2500, 4096, 9000, 70000])
        return self.chance.randbytes(min(size, most) if most else size)

    # ---- changes; each leaves book and disk alike

    def change(self):
        weights = [weight for weight, _ in self.changes]
        self.chance.choices([change for _, change in self.changes], weights)[0]()

    def create(self):
        path = self.new_path()
        with open(self.absolute(path), "wb") as file:
            file.write(self.bytes())
        self.note(path, "file")

    def make_directory(self):
        path = self.new_path()
        os.mkdir(self.absolute(path))
        self.note(path, "directory")

    def overwrite(self):
        """The same size, and half of the time the same moment of change: only the content tells."""
        path = self.pick("file")
        if path is None:
            return
        full = self.absolute(path)
        before = os.stat(full)
        with open(full, "r+b") as file:
            file.write(self.chance.randbytes(min(before.st_size, 5000)))
        if self.chance.random() < 0.5:
            os.utime(full, ns=(before.st_atime_ns, before.st_mtime_ns))

    def append(self):
        path = self.pick("file")
        if path is not None:
            with open(self.absolute(path), "ab") as file:
                file.write(self.bytes())

    def truncate(self):
        path = self.pick("file")
        if path is not None:
            os.truncate(self.absolute(path), self.chance.choice([0, 10, 3000, 200_000]))

    def _allocate(self, mode):
        path = self.pick("file")
        if path is None:
            return
        with open(self.absolute(path), "r+b") as file:
            fallocate(file.fileno(), mode, self.chance.randrange(4) * 4096, self.chance.randrange(1, 9) * 4096)

    def preallocate(self):
        self._allocate(self.chance.choice([0, _KEEP_SIZE]))

    def punch(self):
        self._allocate(_KEEP_SIZE | _PUNCH_HOLE)

    def rename(self):
        old = self.pick("file", "symlink", "other")
        if old is None:
            return
        new = self.new_path()
        victim = self.pick("file")
        if victim is not None and self.chance.random() < 0.3 and self.objects[victim] != self.objects[old]:
            new = victim
        os.rename(self.absolute(old), self.absolute(new))
        self.forget(new)
        self.moved(old, new)

    def move_directory(self):
        old = self.pick("directory", "subvolume")
        if old is None:
            return
        new = self.new_path()
        if (new + b"/").startswith(old + b"/"):
            return
        os.rename(self.absolute(old), self.absolute(new))
        self.moved(old, new)

    def swap(self):
        one, other = self.pick("file", "symlink"), self.pick("file", "symlink")
        if one is None or self.objects[one] == self.objects[other]:
            return
        exchange(self.absolute(one), self.absolute(other))
        self.objects[one], self.objects[other] = self.objects[other], self.objects[one]

    def link(self):
        path = self.pick("file")
        if path is not None:
            new = self.new_path()
            os.link(self.absolute(path), self.absolute(new))
            self.note(new, "file", self.objects[path])

    def symlink(self):
        path = self.new_path()
        os.symlink(self.name(), self.absolute(path))
        self.note(path, "symlink")

    def special(self):
        path = self.new_path()
        if self.chance.random() < 0.7:
            os.mkfifo(self.absolute(path))
        else:
            os.mknod(self.absolute(path), stat.S_IFCHR | 0o600, os.makedev(1, 3))
        self.note(path, "other")

    def remove(self):
        path = self.pick("file", "symlink", "other")
        if path is not None:
            os.unlink(self.absolute(path))
            self.forget(path)

    def _holds_subvolume(self, path):
        return any(self.kinds[self.objects[inner]] == "subvolume" for inner in self.below(path))

    def remove_tree(self):
        path = self.pick("directory")
        if path is not None and len(self.objects) > 40 and not self._holds_subvolume(path):
            shutil.rmtree(self.absolute(path))
            self.forget(path)

    def replace_kind(self):
        path = self.pick("file", "symlink", "other")
        if path is None:
            return
        os.unlink(self.absolute(path))
        self.forget(path)
        if self.chance.random() < 0.5:
            os.symlink(b"elsewhere", self.absolute(path))
            self.note(path, "symlink")
        else:
            os.mkdir(self.absolute(path))
            self.note(path, "directory")

    def mode(self):
        path = self.pick("file", "directory")
        os.chmod(self.absolute(path or b""), self.chance.choice([0o600, 0o644, 0o755, 0o4755, 0o1777]))

    def owner(self):
        path = self.pick("file", "directory", "symlink")
        if path is not None:
            os.lchown(self.absolute(path), self.chance.randrange(3), self.chance.randrange(3))

    def time(self):
        path = self.pick("file", "directory", "symlink")
        moment = self.chance.choice([0, 1, -1_500_000_000, self.chance.randrange(1 << 60)])
        if path is not None:
            os.utime(self.absolute(path), ns=(moment, moment), follow_symlinks=False)

    def attribute(self):
        path = self.pick("file", "directory")
        if path is not None:
            os.setxattr(self.absolute(path), b"user.colour", self.chance.randbytes(8))

    def flag(self):
        path = self.pick("file", "directory")
        if path is None:
            return
        fd = os.open(self.absolute(path), os.O_RDONLY)
        try:
            flags = struct.unpack("q", fcntl.ioctl(fd, _GETFLAGS, bytes(8)))[0] & 0xFFFFFFFF
            fcntl.ioctl(fd, _SETFLAGS, struct.pack("q", flags ^ _NODUMP))
        finally:
            os.close(fd)

    def subvolume(self):
        """Makes a nested subvolume, or takes one away."""
        path = self.pick("subvolume")
        if path is not None and self.chance.random() < 0.5:
            sandbox.run("btrfs", "subvolume", "delete", self.absolute(path))
            self.forget(path)
            return
        path = self.folder() + b"/" + b"sub%d" % self.count
        if path in self.objects or len(path) > 2000:
            return
        sandbox.run("btrfs", "subvolume", "create", self.absolute(path))
        with open(self.absolute(path) + b"/not in a snapshot", "wb"):
            pass
        self.note(path, "subvolume")

    def deep(self):
        path = self.new_path()
        for _ in range(self.chance.randrange(2, 25)):
            os.mkdir(self.absolute(path))
            self.note(path, "directory")
            path += b"/" + b"d%d" % self.chance.randrange(10)

    def wide(self):
        folder = self.new_path()
        os.mkdir(self.absolute(folder))
        self.note(folder, "directory")
        for number in range(self.chance.randrange(20, 150)):
            path = folder + b"/%d" % number
            with open(self.absolute(path), "wb") as file:
                file.write(b"x" * (number % 3 * 1500))
            self.note(path, "file")

    def many_links(self):
        """More names in one directory than one reference item holds."""
        path = self.pick("file")
        if path is None:
            return
        folder = self.new_path()
        os.mkdir(self.absolute(folder))
        self.note(folder, "directory")
        for number in range(self.chance.randrange(2, 120)):
            new = folder + b"/" + b"link-" * 40 + b"%d" % number
            os.link(self.absolute(path), self.absolute(new))
            self.note(new, "file", self.objects[path])

    def left_out(self):
        path = self.folder() + b"/" + LEFT_OUT
        if path in self.objects:
            return
        os.mkdir(self.absolute(path))
        self.note(path, "directory")
        with open(self.absolute(path) + b"/inside", "wb"):
            pass
        self.note(path + b"/inside", "file")

    def remove_newest(self):
        """What was made last goes: after the next mount the kernel gives its inode numbers anew."""
        for path in reversed(self.newest[-30:]):
            if path not in self.objects or self.kinds[self.objects[path]] in ("directory", "subvolume"):
                continue
            os.unlink(self.absolute(path))
            self.forget(path)
        self.newest.clear()

    def thin(self, most):
        """Keeps the tree small enough for many rounds."""
        while len(self.objects) > most:
            path = self.pick("directory")
            if path is not None and not self._holds_subvolume(path) and self.chance.random() < 0.5:
                shutil.rmtree(self.absolute(path))
                self.forget(path)
            else:
                self.remove()


def name_text(path):
    """Bytes of a path as the service tells them: each byte that is no part of a well-formed scalar, and each byte of a
    scalar that stands for one, becomes the scalar U+10EF00 + byte."""
    def escaped(data):
        return "".join(chr(0x10EF00 + byte) for byte in data)

    text = path.decode("utf-8", "surrogateescape")
    return "".join(escaped(bytes([ord(one) - 0xDC00])) if 0xDC80 <= ord(one) <= 0xDCFF
                   else escaped(one.encode()) if 0x10EF00 <= ord(one) <= 0x10EFFF else one for one in text)
