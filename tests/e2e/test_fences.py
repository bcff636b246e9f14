"""Whose rights count, and what becomes of volumes that don't answer: two FUSE file systems under one parent, of which one hangs,
and members who try to read what isn't theirs by way of a comparison."""

import contextlib
import os
import subprocess
import sys
import time

import fuse
import helper
import sandbox
import test_peers
from cases import HelperCase
from helper import TEST_CLIENT, Client, Refused, value_of, wait_until
from test_diff import FORBIDDEN, LOCAL, SUBTREE
from test_peers import COPIES, MEMBER, a_member, copy_of

OPENAT2 = 437


def setUpModule():
    test_peers.setUpModule()
    copy_of(TEST_CLIENT, "members", setgid=True)


class Member(HelperCase):
    def connect(self):
        client = Client(program=f"{COPIES}/members", **a_member())
        self.addCleanup(client.close)
        return client

    def local(self, a, b, client=None):
        return {row["path"] for row in (client or self.client).call(LOCAL, a, b, False, None)["rows"]}

    def assertDenied(self, a, b):
        with self.assertRaises(Refused) as caught:
            self.local(a, b)
        self.assertEqual(caught.exception.code, FORBIDDEN, caught.exception.text)


class Fences(Member):
    def setUp(self):
        super().setUp()
        self.root = helper.Client()
        self.addCleanup(self.root.close)
        for number in range(2):
            self.volume.write("letters/one.txt", f"text {number}")
            self.root.create(self.volume, f"n{number}")
        self.one, self.two = [snapshot["xid"] for snapshot in self.root.list(self.volume)]

    def ask(self, path, client=None):
        """What the service answers on the history of a path, and how long it took."""
        begun = time.monotonic()
        try:
            (client or self.client).call(SUBTREE, self.volume.uuid, path, self.one, self.two)
            told = None
        except Refused as refused:
            told = refused.text
        return told, time.monotonic() - begun

    def assertAnswersAtOnce(self, *paths):
        for path in paths:
            told, took = self.ask(path)
            self.assertEqual((told, took < 2), (None, True), (path, took))

    def hanging(self):
        """How many of the helper's threads wait in a look-up."""
        tasks = f"/proc/{self.helper.pid}/task"
        return sum(self.is_in_a_look_up(f"{tasks}/{task}/syscall") for task in os.listdir(tasks))

    def is_in_a_look_up(self, call):
        with contextlib.suppress(OSError), open(call) as file:
            return file.read().startswith(f"{OPENAT2} ")
        return False

    # Goal:   of two file systems under one parent the one that hangs is fenced and nothing else: neither its neighbour nor the
    #         volume that holds both, nor one that a link leads from. Its slots come back when it answers.
    # Method: FUSE; four questions at once, one of them by way of a link elsewhere; names that the kernel has never heard of.
    def test_exactly_the_volume_that_hangs_is_fenced(self):
        shared = f"{self.volume.path}/shared"
        os.symlink(f"{shared}/one", f"{self.volume.path}/link")
        with contextlib.ExitStack() as mounts:
            one, two = (mounts.enter_context(fuse.mounted(f"{shared}/{name}")) for name in ("one", "two"))
            self.assertAnswersAtOnce("/shared/one/a", "/shared/two/a", "/link/a", "/letters")
            one.hang()
            asking = self.connect()
            for path in ("/shared/one/b", "/link/c", "/shared/one/d/e", "/shared/one/f"):
                asking.post(SUBTREE, self.volume.uuid, path, self.one, self.two)
            wait_until(lambda: self.hanging() == 4, "four questions")
            for number in range(5):
                self.assertAnswersAtOnce(f"/shared/two/{number}", "/letters", "/")
            for _ in range(4):
                with self.assertRaises(Refused) as caught:
                    value_of(asking.answer())
                self.assertIn(" stopped responding, so Quillmark could not confirm", caught.exception.text)
            fenced = [line for line in helper.log().splitlines() if "treating that volume as unresponsive" in line]
            self.assertEqual(len(fenced), 1)
            self.assertIn(f"permission check on {shared}/one did not answer within 10s", fenced[0])
            for path in ("/shared/one/g", "/link/g"):
                told, took = self.ask(path)
                self.assertTrue(told and took < 2, (told, took))
            self.assertAnswersAtOnce("/shared/two/g", "/letters", "/")
            self.assertEqual(self.hanging(), 4, "a fenced volume costs no thread")

            # Something else is mounted in its place: the fence goes, the slots that still hang stay taken.
            sandbox.detach(f"{shared}/one")
            mounts.enter_context(fuse.mounted(f"{shared}/one"))
            wait_until(lambda: f"permission checks on {shared}/one un-fenced" in helper.log(), "the fence's end", 10)
            self.assertIn("(volume remounted); 2 request(s) were refused", helper.log())
            told, took = self.ask("/shared/one/h")
            self.assertTrue(told and 1.5 < took < 6, (told, took))
            self.assertIn(f"permission checks on {shared}/one are saturated", helper.log())
            one.go_on()
            wait_until(lambda: self.hanging() == 0, "the threads back")
            self.assertAnswersAtOnce("/shared/one/i", "/shared/two/i", "/link/i")


class Readers(Member):
    def setUp(self):
        super().setUp()
        self.home = f"{self.volume.path}/home"
        self.volume.write("home/own/mine.txt", "mine")
        self.volume.write("home/empty/nothing", "")
        os.remove(f"{self.home}/empty/nothing")
        self.volume.write("vault/secret.txt", "not for members")
        self.volume.write("vault/open/inner.txt", "behind a locked door")
        os.chmod(f"{self.volume.path}/vault", 0o700)
        for path in (self.home, f"{self.home}/own", f"{self.home}/empty"):
            os.chown(path, MEMBER, MEMBER)
        self.empty = f"{self.home}/empty"

    def test_what_lies_below_is_read_with_the_askers_rights(self):
        locked = f"{self.home}/own/locked"
        self.volume.write("home/own/locked/hidden.txt", "x")
        self.volume.write("home/own/named/name.txt", "x")
        os.chmod(locked, 0o700)
        os.chmod(f"{self.home}/own/named", 0o744)
        own = f"{self.home}/own"
        self.assertEqual(self.local(self.empty, own) - {"/"}, {"/mine.txt", "/locked", "/named"})
        os.chown(locked, 0, a_member()["extra_groups"][0])
        os.chmod(locked, 0o750)
        self.assertIn("/locked/hidden.txt", self.local(self.empty, own), "by a group of his connection")
        with helper.Client() as root:
            self.assertIn("/named/name.txt", self.local(self.empty, own, root))

    # Goal:   the item that the check allowed is the one that is read, whatever its path leads to meanwhile.
    # Method: a process of the member's exchanges a directory of his with a link into a locked one, as fast as it can.
    def test_a_path_that_is_swapped_for_a_link_shows_nothing_that_is_not_the_askers(self):
        link, own = f"{self.home}/swapped", f"{self.home}/own"
        self.volume.write("home/own/open/mine.txt", "mine")
        os.symlink(f"{self.volume.path}/vault", link)
        swap = ("import ctypes, sys\nlibc = ctypes.CDLL(None)\n"
                "while True: libc.renameat2(-100, sys.argv[1].encode(), -100, sys.argv[2].encode(), 2)")
        swapping = subprocess.Popen([sys.executable, "-c", swap, own, link], user=MEMBER, group=MEMBER, extra_groups=[])
        seen, denied = set(), 0
        try:
            for _ in range(300):
                try:
                    seen |= self.local(self.empty, f"{own}/open")
                except Refused:
                    denied += 1
        finally:
            swapping.kill()
            swapping.wait()
        self.assertEqual(seen - {"/"}, {"/mine.txt"})
        self.assertGreater(denied, 0, "it was swapped all the while")

    def test_no_way_leads_past_a_directory_that_is_closed(self):
        vault = f"{self.volume.path}/vault"
        os.symlink(f"{vault}/open", f"{self.home}/link")
        self.assertDenied(self.empty, f"{vault}/open")
        self.assertDenied(self.empty, f"{self.home}/link/inner.txt")
        # The service's own descriptors and memory, and a way out of a process's root.
        for path in ("/proc/self/fd", "/proc/self/map_files", "/proc/self/cwd", f"/proc/{self.helper.pid}/root/etc",
                     f"/proc/{self.helper.pid}/task", "/dev/fd"):
            with self.subTest(path):
                self.assertDenied(self.empty, path)

    # Goal:   a member can't make the service ask a file system that he serves himself in a namespace of his own.
    def test_a_members_own_namespace_is_no_volume(self):
        sleeper = subprocess.Popen(["unshare", "--user", "--map-root-user", "--mount", "sleep", "600"], user=MEMBER,
                                   group=MEMBER, extra_groups=[])
        self.addCleanup(sleeper.wait)
        self.addCleanup(sleeper.kill)
        os.symlink(f"/proc/{sleeper.pid}/root", f"{self.home}/there")
        for path in (f"/proc/{sleeper.pid}/root/etc", f"{self.home}/there/etc"):
            self.assertDenied(self.empty, path)
