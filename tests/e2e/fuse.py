"""A FUSE file system of one file, served by a process of its own, that stops answering when it is told to.

What a running program needs (the content of its file) is answered all the time; whoever asks for anything else, once it
hangs, waits until it goes on. The kernel remembers the file, not that another name is missing. Messages: linux/fuse.h, protocol 7.
"""

import contextlib
import os
import signal
import struct

import sandbox

LOOKUP, FORGET, GETATTR, OPEN, READ, STATFS, RELEASE, INIT, INTERRUPT, BATCH_FORGET = 1, 2, 3, 14, 15, 17, 18, 26, 36, 42
ROOT, FILE = 1, 2
NAME = "client"


def attributes(number, size):
    mode = 0o40755 if number == ROOT else 0o100755
    return struct.pack("<6Q10I", number, size, 8, 1, 1, 1, 0, 0, 0, mode, 1, 0, 0, 0, 4096, 0)


def answer(code, number, body, content):
    """The answer's payload, or an errno."""
    size = 0 if number == ROOT else len(content)
    if code == INIT:
        return struct.pack("<4I2H2I2H8I", 7, 31, 65536, 0, 16, 12, 65536, 1, 0, 0, *[0] * 8)
    if code == LOOKUP:
        if body.rstrip(b"\0") != NAME.encode():
            return -2
        return struct.pack("<4Q2I", FILE, 1, 3600, 0, 0, 0) + attributes(FILE, len(content))
    if code == GETATTR:
        return struct.pack("<Q2I", 0, 0, 0) + attributes(number, size)
    if code == OPEN:
        return struct.pack("<Q2I", 7, 0, 0)
    if code == READ:
        _, offset, count = struct.unpack_from("<2QI", body)
        return content[offset:offset + count]
    if code == STATFS:
        return struct.pack("<5Q10I", 1, 0, 0, 1, 0, 4096, 255, 4096, *[0] * 7)
    return b"" if code == RELEASE else -38


def serve(device, content):
    hangs, waiting = [], []

    def reply(message):
        _, code, unique, number = struct.unpack_from("<2I2Q", message)
        given = answer(code, number, message[40:], content)
        error, payload = (given, b"") if isinstance(given, int) else (0, given)
        with contextlib.suppress(FileNotFoundError):  # whoever asked is gone
            os.write(device, struct.pack("<IiQ", 16 + len(payload), error, unique) + payload)

    def go_on(*_):
        hangs.clear()
        while waiting:
            reply(waiting.pop())

    signal.signal(signal.SIGUSR1, lambda *_: hangs.append(True))
    signal.signal(signal.SIGUSR2, go_on)
    while True:
        message = os.read(device, 1 << 17)
        code = struct.unpack_from("<2I", message)[1]
        if code in (FORGET, BATCH_FORGET, INTERRUPT):
            continue
        if hangs and code not in (READ, RELEASE):
            waiting.append(message)
        else:
            reply(message)


class HangingFile:
    """Its path, and what its server is told."""

    def __init__(self, path, server):
        self.path, self.server = path, server

    def hang(self):
        os.kill(self.server, signal.SIGUSR1)

    def go_on(self):
        os.kill(self.server, signal.SIGUSR2)


def hanging_copy(program, point):
    with open(program, "rb") as file:
        return mounted(point, file.read())


@contextlib.contextmanager
def mounted(point, content=b""):
    os.makedirs(point, exist_ok=True)
    device = os.open("/dev/fuse", os.O_RDWR | os.O_CLOEXEC)
    sandbox.mount("hanging", point, "fuse", options=f"fd={device},rootmode=40000,user_id=0,group_id=0,allow_other")
    server = os.fork()
    if server == 0:
        try:
            serve(device, content)
        finally:
            os._exit(1)
    os.close(device)
    try:
        yield HangingFile(f"{point}/{NAME}", server)
    finally:
        os.kill(server, signal.SIGKILL)
        os.waitpid(server, 0)
        sandbox.detach(point)
