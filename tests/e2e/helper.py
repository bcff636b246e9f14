"""The helper as a process of the sandbox, and a client that speaks its protocol by hand."""

import collections
import errno
import json
import os
import shutil
import signal
import socket
import subprocess
import sys
import time

SOCKET = "/run/com.harrowfern.quillmark/helper.sock"
STATE = "/var/db/com.harrowfern.Quillmark"
LOG = "/var/log/com.harrowfern.quillmark.helper.log"
ACTIVITY, NOTICES = "/var/lib/quillmark/activity.log", "/var/lib/quillmark/notifications.log"
PATIENCE = 120.0  # seconds; long past what anything takes, under sanitizers too

LIST = "listSnapshotsOnVolume:includeSizes:forceSizeRefresh:reply:"
CREATE = "createSnapshotOnVolume:label:reply:"
DELETE = "deleteSnapshotWithName:onVolume:force:reply:"
MOUNT = "mountSnapshotWithName:onVolume:xid:reply:"
UNMOUNT = "unmountSnapshotAtPath:reply:"
VERSION = "helperVersionWithReply:"
HEALTH = "helperHealthWithReply:"
GET_SCHEDULE = "getScheduleForVolume:reply:"
SET_SCHEDULE = "setScheduleForVolume:policyJSON:reply:"
FREE_SPACE = "getFreeSpaceStatesWithReply:"
GET_SETTINGS, SET_SETTINGS = "getHelperSettingsWithReply:", "setHelperSettings:reply:"
INDEXED = "indexedXIDsOnVolume:reply:"

PROGRAMS = os.environ.get("QUILLMARK_PROGRAMS", "")
TEST_CLIENT = f"{PROGRAMS}/quillmark-test-client"


def wait_until(holds, what, patience=PATIENCE, pace=0.003):
    """For what sends no event. Returns the first true answer."""
    end = time.monotonic() + patience
    while True:
        answer = holds()
        if answer:
            return answer
        if time.monotonic() > end:
            raise AssertionError(f"never came: {what}")
        time.sleep(pace)


class Refused(Exception):
    """A failure that the service answered: domain, code and text."""

    def __init__(self, error):
        self.domain, self.code = error["domain"], error["code"]
        self.text = error["userInfo"]["NSLocalizedDescriptionKey"]
        super().__init__(f"{self.domain} {self.code}: {self.text}")


class Malformed(Exception):
    """JSON-RPC's own refusal of a call."""

    def __init__(self, error):
        self.code, self.text = error["code"], error["message"]
        super().__init__(f"{self.code}: {self.text}")


class Client:
    """One connection, made by a genuine client that carries the bytes. Pushes are kept aside. The words are the client's
    own, the options those of subprocess.Popen."""

    def __init__(self, *words, program=None, before=(), **options):
        self.socket, theirs = socket.socketpair()
        self.socket.settimeout(PATIENCE)
        self.received = b""
        self.next_id = 0
        self.pushes = collections.deque()
        with theirs:
            self.process = subprocess.Popen([program or TEST_CLIENT, *before, SOCKET, *words], stdin=theirs,
                                            stdout=subprocess.DEVNULL, **options)
        try:
            told = self.socket.recv(4, socket.MSG_WAITALL)
            if (number := int.from_bytes(told, sys.byteorder)) or len(told) < 4:
                raise OSError(number or errno.ECONNABORTED, "connect")
        except OSError:
            self.close()
            raise

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        self.socket.close()
        self.process.wait(PATIENCE)

    def send(self, data):
        self.socket.sendall(data)

    def post(self, selector, *params):
        """Sends a call and leaves its answer for later. The call's id."""
        self.next_id += 1
        self.send(request(self.next_id, selector, params))
        return self.next_id

    def read_line(self):
        """The next line; None at the end of the stream."""
        while b"\n" not in self.received:
            try:
                data = self.socket.recv(1 << 16)
            except ConnectionResetError:
                return None
            if not data:
                return None
            self.received += data
        line, _, self.received = self.received.partition(b"\n")
        return line

    def answer(self):
        """The next message that is no push."""
        while True:
            line = self.read_line()
            if line is None:
                raise ConnectionError("the helper ended the connection")
            message = json.loads(line)
            if "method" not in message:
                return message
            self.pushes.append((message["method"], message["params"]))

    def call(self, selector, *params):
        number = self.post(selector, *params)
        message = self.answer()
        assert message.get("id") == number, message
        return value_of(message)

    # The commands, as tests speak of them.
    def list(self, volume):
        return sorted(self.call(LIST, volume.uuid, False, False), key=lambda snapshot: snapshot["xid"])

    def create(self, volume, label=""):
        return self.call(CREATE, volume.uuid, label)

    def delete(self, volume, name, force=False):
        return self.call(DELETE, name, volume.uuid, force)

    def mount(self, volume, name, xid):
        return self.call(MOUNT, name, volume.uuid, xid)

    def unmount(self, path):
        return self.call(UNMOUNT, path)

    def schedule(self, volume, **changes):
        """Changes what is stored, or what a volume without a schedule begins with."""
        policy = dict(self.call(GET_SCHEDULE, volume.uuid), **changes)
        return self.call(SET_SCHEDULE, volume.uuid, policy)

    def pushed(self, selector):
        """The parameters of all pushes of this kind so far."""
        self.call(VERSION)
        return [params for method, params in self.pushes if method == selector]


def despite_changes(call, *arguments):
    """Again, as long as the service says that others changed the inventory under it."""
    while True:
        try:
            return call(*arguments)
        except Refused as refused:
            if not refused.text.startswith("Snapshot inventory changed while resolving"):
                raise


def request(number, selector, params):
    return json.dumps({"jsonrpc": "2.0", "id": number, "method": selector, "params": params}).encode() + b"\n"


def value_of(message):
    if "error" in message:
        raise Malformed(message["error"])
    result = message["result"]
    if "error" in result:
        raise Refused(result["error"])
    return result["value"]


class Helper:
    """The service. As a context it is stopped by force at the end; its state stays until forget()."""

    def __init__(self):
        self.process = None

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *_):
        self.kill()

    @staticmethod
    def launch(**options):
        return subprocess.Popen([f"{PROGRAMS}/quillmark-helper"], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, **options)

    def start(self):
        self.process = self.launch()
        wait_until(self._answers, "an answer of the helper")

    def _answers(self):
        if self.process.poll() is not None:
            raise AssertionError(f"the helper ended: {self.process.communicate()}\n{log()}")
        try:
            with Client() as client:
                return client.call(VERSION)
        except OSError:
            return None

    @property
    def pid(self):
        return self.process.pid

    def ask_to_end(self):
        self.process.send_signal(signal.SIGTERM)

    def wait(self):
        status = self.process.wait(PATIENCE)
        self._close_pipes()
        return status

    def kill(self):
        if self.process is not None:
            self.process.kill()
            self.process.wait()
            self._close_pipes()

    def _close_pipes(self):
        self.process.stdout.close()
        self.process.stderr.close()

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def cpu_seconds(self):
        """Of a processor, used so far."""
        with open(f"/proc/{self.pid}/stat") as status:
            fields = status.read().rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def resident_bytes(self):
        with open(f"/proc/{self.pid}/status") as status:
            return next(int(line.split()[1]) << 10 for line in status if line.startswith("VmRSS:"))


def log():
    try:
        with open(LOG, errors="replace") as file:
            return file.read()
    except FileNotFoundError:
        return ""


def records(path):
    """Of a log of JSON lines, the oldest first."""
    try:
        with open(path) as file:
            return [json.loads(line) for line in file]
    except FileNotFoundError:
        return []


def forget():
    """The next helper starts as on its first day."""
    for path in (STATE, "/var/lib/quillmark", "/run/com.harrowfern.quillmark"):
        shutil.rmtree(path, ignore_errors=True)
    if os.path.exists(LOG):
        os.unlink(LOG)


def sign(path, *options, key=None):
    """Signs a client program in place, as the build does when nothing else is said."""
    key = key or os.path.join(os.path.dirname(PROGRAMS), "signing/local-key.pem")
    subprocess.run([f"{PROGRAMS}/codesign", "--key", key, *options, path], check=True, capture_output=True)


def quill(*words, program=None, **options):
    """Runs the command line client; the finished process with its output as text."""
    return subprocess.run([program or f"{PROGRAMS}/quill", *words], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          timeout=PATIENCE, **options)
