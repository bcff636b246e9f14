"""Comparisons of snapshots and of directories: what they tell, to whom, and the files that they come in. Those are read
with a reader of property lists of our own."""

import os
import plistlib
import stat
import subprocess

import test_peers
from cases import HelperCase
from helper import ACTIVITY, PATIENCE, quill, records, wait_until
from test_peers import INSTALLED, MEMBER, a_member

DIFF = "diffSnapshotsOnVolume:xidA:nameA:xidB:nameB:includeTree:ignoreExclusions:reply:"
SUBTREE = "compareSubtreeOnVolume:path:xidA:xidB:reply:"
LOCAL = "compareLocalPathsWithPathA:pathB:applyExclusions:subtreePath:reply:"
CACHE = "/var/lib/quillmark/diff-cache"
FORBIDDEN = 1040

setUpModule = test_peers.setUpModule


def contents(path):
    with open(path, "rb") as file:
        return plistlib.load(file, fmt=plistlib.FMT_BINARY)


def changes(result):
    """What happened to files and links, by path; directories that changed by it left out."""
    return {(row["kind"], row.get("oldPath"), row["path"]) for row in result["rows"]
            if row["type"] != "directory" or row["kind"] != "modified"}


FIVE = {("added", None, "/letters/new.txt"), ("deleted", None, "/letters/gone.txt"), ("modified", None, "/bread.txt"),
        ("replaced", None, "/thing"), ("moved", "/from.txt", "/letters/to.txt")}


class Diff(HelperCase):
    def setUp(self):
        super().setUp()
        for name in ("letters/gone.txt", "bread.txt", "thing", "from.txt", "letters2/else.txt"):
            self.volume.write(name, name)
        self.client.create(self.volume, "one")
        self.volume.write("letters/new.txt", "new")
        self.volume.write("bread.txt", "another text")
        path = self.volume.path
        os.remove(f"{path}/letters/gone.txt")
        os.remove(f"{path}/thing")
        os.symlink("bread.txt", f"{path}/thing")
        os.rename(f"{path}/from.txt", f"{path}/letters/to.txt")
        self.client.create(self.volume, "two")
        self.one, self.two = self.client.list(self.volume)

    def diff(self, include_tree=False, full=False, client=None):
        return (client or self.client).call(DIFF, self.volume.uuid, self.one["xid"], self.one["name"], self.two["xid"],
                                            self.two["name"], include_tree, full)

    def quill(self, *words, status=0, **who):
        done = quill(*words, program=f"{INSTALLED}/quill" if who else None, **who)
        self.assertEqual(done.returncode, status, f"{words}: {done.stdout}{done.stderr}")
        return done.stderr if status else done.stdout

    def records_of_comparisons(self):
        return [event for event in records(ACTIVITY) if event["kind"] == "diffSnapshots"]

    def test_the_five_kinds_come_in_a_file_of_the_askers_own(self):
        path = self.diff()
        self.assertEqual(path, f"{CACHE}/uid-0/{self.volume.uuid.lower()}/{self.one['xid']}-{self.two['xid']}-rows.qmdiff")
        result = contents(path)
        self.assertEqual(changes(result), FIVE)
        self.assertEqual((result["truncated"], result["totalRowCount"], result["treeEntries"]),
                         (False, len(result["rows"]), []))
        self.assertEqual([row["path"] for row in result["rows"]], sorted(row["path"] for row in result["rows"]))
        status = os.stat(path)
        self.assertEqual((stat.S_IMODE(status.st_mode), status.st_uid), (0o400, 0))
        for folder in (CACHE, f"{CACHE}/uid-0", os.path.dirname(path)):
            status = os.stat(folder)
            self.assertEqual((stat.S_IMODE(status.st_mode), status.st_uid, status.st_gid), (0o711, 0, 0))

        self.assertEqual((self.diff(), os.stat(path).st_mtime_ns), (path, os.stat(path).st_mtime_ns))
        [record] = self.records_of_comparisons()
        self.assertEqual(record["detail"], f"{len(result['rows'])} change(s): +1 -1 ~{len(result['rows']) - 4} ↻1")
        os.utime(path, (0, 0))
        self.assertEqual(self.diff(), path)
        self.assertEqual(len(self.records_of_comparisons()), 2, "an old file counts no more")
        self.assertLess(0, os.stat(path).st_mtime)

        tree = contents(self.diff(include_tree=True))
        self.assertEqual(changes(tree), FIVE)
        paths = [entry["path"] for entry in tree["treeEntries"]]
        self.assertLessEqual({"/", "/letters/gone.txt", "/letters/new.txt", "/letters2/else.txt"}, set(paths))
        self.assertEqual(paths, sorted(paths))

        self.client.delete(self.volume, self.one["name"])
        self.assertFalse(os.path.exists(path), "it goes with its snapshot")

    def test_a_member_gets_a_file_that_is_his_alone(self):
        shown = self.quill("diff", "latest~1", "latest", "-v", "photos", **a_member())
        self.assertIn("added file /letters/new.txt - - 3 - ", shown)
        self.assertIn("moved file /letters/to.txt /from.txt ", shown)
        [path] = [os.path.join(folder, name) for folder, _, names in os.walk(f"{CACHE}/uid-{MEMBER}") for name in names]
        status = os.stat(path)
        self.assertEqual((stat.S_IMODE(status.st_mode), status.st_uid), (0o400, MEMBER))

    # Goal:   the pager, a program of the asker's choice, can't pass as the client that starts it.
    def test_the_pager_has_neither_the_clients_group_nor_its_connection(self):
        told = "/tmp/told-by-pager"
        pager = f"exec >{told} 2>&1; id -g; ls -l /proc/self/fd | grep -c socket:; cat"
        terminal, side = os.openpty()
        try:
            words = ["diff", "latest~1", "latest", "-v", "photos", "--no-color"]
            done = subprocess.run([f"{INSTALLED}/quill", *words], stdin=subprocess.DEVNULL, stdout=side, stderr=side,
                                  env={"TERM": "xterm", "PAGER": pager}, timeout=PATIENCE, **a_member())
        finally:
            os.close(side)
            os.close(terminal)
        self.assertEqual(done.returncode, 0)
        with open(told) as file:
            group, sockets, *lines = file.read().splitlines()
        self.assertEqual((group, sockets), (str(MEMBER), "0"))
        self.assertIn("> /from.txt → /letters/to.txt  (8 B)", lines)

    def test_a_folders_history_is_for_those_who_may_read_it(self):
        one, two = self.one["xid"], self.two["xid"]
        wait_until(self.indexed, "the index of both")
        inside = self.client.call(SUBTREE, self.volume.uuid, "/letters", one, two)
        self.assertEqual(changes(inside), {("added", None, "/letters/new.txt"), ("deleted", None, "/letters/gone.txt"),
                                           ("added", None, "/letters/to.txt")})
        self.assertEqual(changes(self.client.call(SUBTREE, self.volume.uuid, "/", two, one)), FIVE)
        letters = f"{self.volume.path}/letters"
        words = ["diff", "latest~1", "latest", "-v", "photos", "--subtree", letters, "--name-only", "--kind", "deleted"]
        self.assertEqual(self.quill(*words, **a_member()), "/letters/gone.txt\n")
        os.chmod(letters, 0o700)
        told = self.quill(*words, status=4, **a_member())
        self.assertIn(f"You do not have permission to compare this folder's history at {letters}.", told)
        gone = self.quill(*words[:-4], f"{letters}/gone.txt", status=4, **a_member())
        self.assertIn(f"at {letters}/gone.txt.", gone)
        # What a group of the asker's may read; the one who asks is of it as of his connect.
        os.chown(letters, 0, a_member()["extra_groups"][0])
        os.chmod(letters, 0o750)
        self.assertEqual(self.quill(*words, **a_member()), "/letters/gone.txt\n")
