"""Who may talk to the helper: which users, through which programs, and for how long."""

import contextlib
import grp
import os
import shutil
import signal
import socket
import subprocess
import sys
import time
import unittest
from pathlib import Path

import fuse
import helper
import sandbox
from helper import PROGRAMS, TEST_CLIENT, VERSION, Client, quill, wait_until

PROJECT = Path(__file__).resolve().parent.parent.parent
INSTALLED = "/usr/local/lib/quillmark-test"
OUTSIDER, MEMBER = 1501, 1502
COPIES = "/srv/copies"
CONSENT = "Rejecting connection from pid={}: peer failed the designated requirement"


def setUpModule():
    sandbox.run(PROJECT / "tools/install-local", PROGRAMS, INSTALLED)


def a_member():
    return {"user": MEMBER, "group": MEMBER, "extra_groups": [grp.getgrnam("quillmark").gr_gid]}


def an_outsider():
    return {"user": OUTSIDER, "group": OUTSIDER, "extra_groups": []}


def copy_of(program, name, change=None, setgid=False):
    """A root-owned copy, changed in place by the function, installed as the genuine clients are if asked for."""
    os.makedirs(COPIES, exist_ok=True)
    path = f"{COPIES}/{name}"
    shutil.copyfile(program, path)
    if change:
        change(path)
    if setgid:
        os.chown(path, 0, grp.getgrnam("quillmark-client").gr_gid)
    os.chmod(path, 0o2755 if setgid else 0o755)
    return path


def signed_as(*options, key=None):
    return lambda path: helper.sign(path, *options, key=key)


def patched(old, new):
    def change(path):
        data = Path(path).read_bytes()
        assert data.count(old) >= 1 and len(old) == len(new)
        Path(path).write_bytes(data.replace(old, new))
    return change


def one_byte_changed(path):
    data = bytearray(Path(path).read_bytes())
    data[len(data) // 2] ^= 1
    Path(path).write_bytes(data)


def one_byte_longer(path):
    with open(path, "ab") as file:
        file.write(b"\0")


def stripped(path):
    sandbox.run("strip", path)


def other_key():
    path = "/srv/other-key.pem"
    if not os.path.exists(path):
        sandbox.run("openssl", "genpkey", "-algorithm", "ed25519", "-out", path)
    return path


class PeerCase(unittest.TestCase):
    def setUp(self):
        self.helper = helper.Helper()
        self.addCleanup(helper.forget)
        self.addCleanup(self.helper.kill)
        self.helper.start()

    def assertServed(self, **how):
        with Client(**how) as client:
            self.assertEqual(client.call(VERSION), "0.1.0", helper.log())
            return client.process.pid

    def assertRefused(self, line, **how):
        with Client(**how) as client:
            with self.assertRaises(OSError):
                client.call(VERSION)
            pid = client.process.pid
        wait_until(lambda: line.format(pid) in helper.log(), line.format(pid), 5)
        self.assertNotIn(f"Accepted XPC connection from pid={pid} ", helper.log())
        return pid


class Programs(PeerCase):
    def test_genuine_clients_are_served(self):
        table = [
            ("the build's own, root's", {}),
            ("an identical copy, root's", {"program": copy_of(TEST_CLIENT, "identical")}),
            ("an installed copy, a member's",
             {"program": copy_of(TEST_CLIENT, "installed", setgid=True), **a_member()}),
            ("the gui", {"program": copy_of(TEST_CLIENT, "gui", signed_as("--identifier", "com.harrowfern.quillmark"))}),
        ]
        for what, how in table:
            with self.subTest(what):
                pid = self.assertServed(**how)
                kind = "gui" if what == "the gui" else "cli"
                user = "<unknown>" if "user" in how else "root"
                self.assertIn(f"Peer pid={pid} classified as client={kind} user={user}", helper.log())
        with self.subTest("the installed quill, a member's"):
            shown = quill("version", program=f"{INSTALLED}/quill", **a_member())
            self.assertEqual(shown.returncode, 0, shown.stderr)
            self.assertIn("0.1.0", shown.stdout)

    def test_anything_else_of_roots_is_turned_away(self):
        table = [
            ("one byte changed", one_byte_changed, CONSENT), ("one byte longer", one_byte_longer, CONSENT),
            ("stripped", stripped, CONSENT), ("another key", signed_as(key=other_key()), CONSENT),
            ("no note", patched(b"Quillmark\0", b"Guillmark\0"), CONSENT),
            ("another identifier", signed_as("--identifier", "com.example.other"), CONSENT),
            ("another team", signed_as("--team", "ELSEWHERE1"), CONSENT),
            ("its note says another", patched(b"com.harrowfern.quillmark.cli", b"com.harrowfern.quillmark\0\0\0\0"), CONSENT),
            ("its group may write it", None, CONSENT), ("somebody's own", None, CONSENT),
        ]
        for what, change, line in table:
            with self.subTest(what):
                path = copy_of(TEST_CLIENT, what.replace(" ", "-"), change)
                if what == "its group may write it":
                    os.chmod(path, 0o775)
                if what == "somebody's own":
                    os.chown(path, MEMBER, MEMBER)
                self.assertRefused(line, program=path)
        with self.subTest("through another loader"):
            loader = next(map(str, Path("/lib64").glob("ld-linux-*")))
            self.assertRefused(CONSENT, program=loader, before=[TEST_CLIENT])
        self.assertServed()

    def test_a_python_that_knocks_is_no_client(self):
        with socket.socket(socket.AF_UNIX) as knocking:
            knocking.settimeout(helper.PATIENCE)
            knocking.connect(helper.SOCKET)
            self.assertEqual(knocking.recv(1), b"")
        self.assertIn(CONSENT.format(os.getpid()), helper.log())

    def test_it_is_told_that_the_key_is_no_releases(self):
        note = "Clients are told by the key that this build made for itself"
        with Client() as client:
            self.assertTrue([said for said in client.call(helper.HEALTH)["notes"] if said.startswith(note)])
        self.assertEqual(helper.log().count(note), 1)

    # Goal:   a program is read once, not for each of its processes.
    # Method: a large genuine client; what the helper reads in all while nine more of its processes are let in.
    def test_a_program_that_was_verified_is_not_read_again(self):
        def grown(path):
            with open(path, "ab") as file:
                file.write(bytes(32 << 20))
            helper.sign(path)

        def read_so_far():
            with open(f"/proc/{self.helper.pid}/io") as counts:
                return int(counts.readline().split()[1])

        large = copy_of(TEST_CLIENT, "large", grown)
        before = read_so_far()
        self.assertServed(program=large)
        first = read_so_far() - before
        self.assertGreater(first, 32 << 20)
        for _ in range(9):
            self.assertServed(program=large)
        self.assertLess(read_so_far() - before - first, 4 << 20)


class Users(PeerCase):
    def test_a_user_outside_the_group_is_told_so(self):
        shown = quill("version", program=f"{INSTALLED}/quill", **an_outsider())
        self.assertEqual(shown.returncode, 3)
        self.assertIn("members of the group quillmark", shown.stderr)
        self.assertRefused(CONSENT, program=copy_of(TEST_CLIENT, "installed", setgid=True), **an_outsider())

    def test_a_member_without_the_installed_client_is_turned_away(self):
        self.assertRefused(CONSENT, **a_member())
        shown = quill("version", **a_member())
        self.assertEqual(shown.returncode, 3)
        self.assertIn("through an installed quill", shown.stderr)

    def test_a_new_group_counts_at_once(self):
        sandbox.run("groupdel", "quillmark")
        self.addCleanup(sandbox.run, PROJECT / "tools/install-local", "--groups")
        installed = copy_of(TEST_CLIENT, "installed", setgid=True)
        self.assertRefused(CONSENT, program=installed, user=MEMBER, group=MEMBER, extra_groups=[7777])
        sandbox.run("groupadd", "--gid", "7777", "quillmark")
        self.addCleanup(sandbox.run, "groupdel", "quillmark")
        self.assertServed(program=installed, user=MEMBER, group=MEMBER, extra_groups=[7777])

    def test_nothing_is_loaded_into_the_installed_client(self):
        environment = {"LD_PRELOAD": f"{PROGRAMS}/quillmark-test-preload.so", "TZ": "/etc/passwd", "PATH": "/nowhere"}
        trace = Path("/tmp/preloaded")
        trace.unlink(missing_ok=True)
        self.assertServed(env=environment)
        self.assertTrue(trace.exists(), "the library leaves a trace where it is loaded")
        trace.unlink()
        shown = quill("version", program=f"{INSTALLED}/quill", env=environment, **a_member())
        self.assertEqual(shown.returncode, 0, shown.stderr)
        self.assertServed(program=copy_of(TEST_CLIENT, "installed", setgid=True), env=environment, **a_member())
        self.assertFalse(trace.exists())

    # Goal:   what the installed client starts can't pass as it.
    # Method: put a script in the place of the program that it starts; it looks at itself and runs a genuine client.
    def test_what_the_client_starts_has_neither_its_group_nor_its_connection(self):
        place = "/usr/local/lib/quillmark-hostile"
        sandbox.run(PROJECT / "tools/install-local", PROGRAMS, place)
        told = "/tmp/told-by-child"
        Path(f"{place}/diskutil").write_text(
            f"#!/bin/sh -p\nexec >{told} 2>&1\nid -g\nls -l /proc/self/fd | grep -c socket:\n{PROGRAMS}/quill version\n"
            "echo status $?\n")
        quill("volumes", program=f"{place}/quill", **a_member())
        group, sockets, *_, status = Path(told).read_text().splitlines()
        self.assertEqual((group, sockets, status), (str(MEMBER), "0", "status 3"))

    def test_a_client_that_gave_its_group_up_cannot_get_in_anew(self):
        installed = copy_of(TEST_CLIENT, "installed", setgid=True)
        with Client(TEST_CLIENT, helper.SOCKET, program=installed, before=["--drop-group"], **a_member()) as client:
            self.assertEqual(client.call(VERSION), "0.1.0")
            client.process.send_signal(signal.SIGUSR1)
            self.assertEqual(client.socket.recv(4, socket.MSG_WAITALL), bytes(4))  # it connected anew
            with self.assertRaises(OSError):
                client.call(VERSION)
            self.assertIn(CONSENT.format(client.process.pid), helper.log())


class Connections(PeerCase):
    def assertEnded(self, client):
        with self.assertRaises(OSError):
            client.call(VERSION)
        wait_until(lambda: f"Ending the connection from pid={client.process.pid}: " in helper.log(), "the reason", 5)

    def test_a_process_that_becomes_another_program_is_cut_off(self):
        other = copy_of(TEST_CLIENT, "other", one_byte_changed)
        with Client(other, "--carry") as client:
            self.assertEqual(client.call(VERSION), "0.1.0")
            client.process.send_signal(signal.SIGUSR1)
            wait_until(lambda: os.readlink(f"/proc/{client.process.pid}/exe") == other, "the other program")
            self.assertEnded(client)

    # Goal:   what was found out about a process doesn't serve the next program that it runs.
    def test_a_process_that_was_let_in_is_judged_anew_as_another_program(self):
        other = copy_of(TEST_CLIENT, "other", one_byte_changed)
        with Client(other, helper.SOCKET) as client:
            self.assertEqual(client.call(VERSION), "0.1.0")
            client.process.send_signal(signal.SIGUSR1)
            self.assertEqual(client.socket.recv(4, socket.MSG_WAITALL), bytes(4))
            with self.assertRaises(OSError):
                client.call(VERSION)
            self.assertIn(CONSENT.format(client.process.pid), helper.log())

    # Goal:   a program on a file system that has stopped answering is refused and delays nobody.
    # Method: a dozen genuine clients that were started from it knock at once, while others are served.
    def test_a_program_on_a_dead_file_system_delays_nobody(self):
        self.assertServed()
        threads = len(os.listdir(f"/proc/{self.helper.pid}/task"))
        with fuse.hanging_copy(TEST_CLIENT, "/hanging") as file, contextlib.ExitStack() as knocking:
            knocks = [knocking.enter_context(Knock(file.path)) for _ in range(12)]
            file.hang()
            asking = subprocess.Popen([sys.executable, "-c", f"open({file.path!r})"], stderr=subprocess.DEVNULL)
            with self.assertRaises(subprocess.TimeoutExpired):
                asking.wait(0.3)
            for knock in knocks:
                knock.go()
            begun = time.monotonic()
            for _ in range(10):
                self.assertServed()
            self.assertLess(time.monotonic() - begun, 5)
            for knock in knocks:
                self.assertTrue(knock.was_refused(), helper.log())
            self.assertLess(len(os.listdir(f"/proc/{self.helper.pid}/task")), threads + 40)
            asking.kill()
        asking.wait()


class Knock:
    """A client that has been started and connects when it is told to."""

    def __init__(self, program):
        self.socket, theirs = socket.socketpair()
        self.socket.settimeout(helper.PATIENCE)
        with theirs:
            self.process = subprocess.Popen([program, "--wait", helper.SOCKET], stdin=theirs)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()
        self.process.kill()
        self.process.wait()

    def go(self):
        self.socket.send(b"!")

    def was_refused(self):
        return self.socket.recv(4, socket.MSG_WAITALL) == bytes(4) and self.socket.recv(1) == b""
