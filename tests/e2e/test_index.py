"""Snapshots that are indexed by themselves: the database that comes of it, and what happens to it behind the helper's
back. The database is looked at with an SQLite of its own."""

import json
import os
import signal
import sqlite3
import subprocess
import unittest

from cases import HelperCase, OnBothLayouts
from helper import INDEXED, PROGRAMS, STATE, log, wait_until

PROGRESS = "indexProgressWithVolumeUUID:snapshotXID:phase:filesScanned:"
TABLES = {"volumes", "snapshots", "baseline_nodes", "head_nodes", "changes", "history_deletions", "history_meta"}
ENTRY = "type,inode,parent_inode,size,mtime_ns,meta_bits,generation"


def database():
    found = [f"{folder}/{name}" for folder, _, names in os.walk(STATE) for name in names if name.endswith((".sqlite", ".db", ".sqlite3"))]
    assert len(found) == 1, found
    return sqlite3.connect(f"file:{found[0]}?mode=ro", uri=True)


def rows(query, *values):
    connection = database()
    try:
        return connection.execute(query, values).fetchall()
    finally:
        connection.close()


class History:
    """What the database holds of one volume."""

    def __init__(self, volume):
        key = volume.uuid.lower()
        [(self.baseline, self.head, self.state)] = rows(
            "SELECT baseline_xid,head_xid,state FROM volumes WHERE uuid=?", key) or [(None, None, None)]
        self.ready = [xid for (xid,) in rows("SELECT xid FROM snapshots WHERE volume_uuid=? AND state='ready' ORDER BY xid", key)]
        self.pending = [xid for (xid,) in rows("SELECT xid FROM snapshots WHERE volume_uuid=? AND state!='ready' ORDER BY xid", key)]
        self.baseline_tree = self._tree("baseline_nodes", key)
        self.head_tree = self._tree("head_nodes", key)
        self.changes = rows(f"SELECT xid,path,{','.join('after_' + c for c in ENTRY.split(','))} FROM changes "
                            "WHERE volume_uuid=? ORDER BY xid,path", key)

    @staticmethod
    def _tree(table, key):
        return {row[0]: row[1:] for row in rows(f"SELECT path,{ENTRY} FROM {table} WHERE volume_uuid=?", key)}

    def check(self, test):
        """The baseline with all changes up to the head is the head's tree."""
        test.assertEqual((self.baseline, self.head), (self.ready[0], self.ready[-1]))
        tree = dict(self.baseline_tree)
        for xid, path, *after in self.changes:
            test.assertGreater(xid, self.baseline)
            test.assertLessEqual(xid, self.head)
            if after[0] is None:
                tree.pop(path, None)
            else:
                tree[path] = tuple(after)
        test.assertEqual(tree, self.head_tree)

    def changed_at(self, xid):
        return {path for at, path, *_ in self.changes if at == xid}


class Indexing(HelperCase, OnBothLayouts):
    def wait_for_index(self, volume=None):
        return wait_until(lambda: self.indexed(volume), "the index of every snapshot")

    def many_files(self, count, folder="many"):
        path = f"{self.volume.path}/{folder}"
        for part in range(0, count, 500):
            os.makedirs(f"{path}/{part}")
            for number in range(part, min(part + 500, count)):
                with open(f"{path}/{part}/{number}", "w"):
                    pass

    # Goal:   two snapshots become a baseline and one transition, with what changed between them and nothing else.
    def test_snapshots_are_indexed_by_themselves(self):
        def test(volume):
            volume.write("letters/ida.txt", "Dear Ida")
            volume.write("bread.txt", "10 g")
            os.symlink("bread.txt", f"{volume.path}/recipe")
            self.client.create(volume, "one")
            volume.write("bread.txt", "100 g")
            os.remove(f"{volume.path}/letters/ida.txt")
            volume.write("new.txt", "x" * 5000)
            self.client.create(volume, "two")
            first, second = self.wait_for_index(volume)
            self.assertEqual(sorted(self.client.call(INDEXED, volume.uuid.lower())), [first["xid"], second["xid"]])
            history = History(volume)
            history.check(self)
            self.assertEqual((history.state, history.pending), ("healthy", []))
            self.assertEqual(set(history.baseline_tree), {"/", "/letters", "/letters/ida.txt", "/bread.txt", "/recipe"})
            self.assertEqual(set(history.head_tree), {"/", "/letters", "/bread.txt", "/recipe", "/new.txt"})
            self.assertEqual({path: history.head_tree[path][0] for path in ("/", "/bread.txt", "/recipe")},
                             {"/": 2, "/bread.txt": 1, "/recipe": 3})
            self.assertEqual(history.head_tree["/new.txt"][3], 5000)
            self.assertEqual(history.changed_at(second["xid"]), {"/", "/letters", "/letters/ida.txt", "/bread.txt", "/new.txt"})

        self.on_both_layouts(test)
        names = {name for (name,) in rows("SELECT name FROM sqlite_master WHERE type='table'")}
        self.assertLessEqual(TABLES, names)
        self.assertEqual(rows("PRAGMA user_version"), [(8,)])
        self.assertEqual(rows("PRAGMA integrity_check"), [("ok",)])
        self.assertEqual(os.stat(STATE).st_mode & 0o7777, 0o700)

    # Goal:   whoever wants a snapshot for himself has it, though it is being read.
    def test_a_snapshot_that_is_being_indexed_is_deleted_mounted_and_unmounted_at_once(self):
        self.many_files(30_000)
        for turn in range(8):
            name = self.client.create(self.volume, f"turn {turn}")
            if turn % 2:
                xid = self.client.list(self.volume)[-1]["xid"]
                self.client.unmount(self.client.mount(self.volume, name, xid))
            self.client.delete(self.volume, name)
        name = self.client.create(self.volume, "stays")
        self.assertEqual([s["name"] for s in self.wait_for_index()], [name])
        History(self.volume).check(self)

    # Goal:   the helper's own doing never shows up as a change of the volume that holds its state.
    def test_excluded_places_keep_their_entry_and_nothing_below(self):
        for path in ("node_modules/x/y", "lost+found/z", ".Trash-0/files/old", "kept/x"):
            self.volume.write(path, "x")
        self.client.create(self.volume, "one")
        self.wait_for_index()
        self.assertEqual(set(History(self.volume).head_tree),
                         {"/", "/node_modules", "/lost+found", "/.Trash-0", "/kept", "/kept/x"})


class ByQuill(HelperCase):
    def quill(self, *words, code=0):
        done = subprocess.run([f"{PROGRAMS}/quill", *words], cwd=self.volume.path, capture_output=True, text=True, timeout=60)
        self.assertEqual(done.returncode, code, done.stderr)
        return done.stdout, done.stderr

    def test_creation_waits_for_its_index_when_it_is_asked_to(self):
        self.volume.write("a", "b")
        name, told = self.quill("create", "--wait-index", "one")
        [snapshot] = self.client.list(self.volume)
        self.assertEqual((snapshot["name"], snapshot["isIndexed"]), (name.strip(), True))
        self.assertRegex(self.quill("index")[0], r"^photos current 1 1 0 ")

    def test_status_snapshot_and_rebuild(self):
        self.assertRegex(self.quill("index", "status")[0], r"^photos empty 0 0 0 ")
        for label in ("one", "two"):
            self.quill("create", "--wait-index", label)
        self.assertEqual(self.quill("index", "snapshot", "latest")[0].strip(), self.client.list(self.volume)[-1]["name"])
        self.assertIn("Only the newest indexed", self.quill("index", "snapshot", "latest~1", code=1)[1])
        self.assertRegex(self.quill("index", "rebuild")[0], r"^photos current 2 2 0 ")
        self.assertRegex(self.quill("index", "rebuild", "--all")[0], r"^photos current 2 2 0 ")
        [state] = json.loads(self.quill("index", "--json")[0])
        self.assertEqual((state["state"], state["indexed"], state["outside"]), ("current", 2, 0))

    def test_an_interrupt_leaves_the_run_going_and_says_so(self):
        for number in range(40):
            os.makedirs(f"{self.volume.path}/{number}")
            for file in range(1000):
                with open(f"{self.volume.path}/{number}/{file}", "w"):
                    pass
        self.quill("create", "--wait-index", "one")
        before = log().count("BASELINE built")
        running = subprocess.Popen([f"{PROGRAMS}/quill", "index", "rebuild"], cwd=self.volume.path, stderr=subprocess.PIPE,
                                   stdout=subprocess.DEVNULL, text=True)
        wait_until(lambda: self.client.pushed(PROGRESS)[-1][2] != "done", "the begin of the rebuild")
        running.send_signal(signal.SIGINT)
        told = running.communicate(timeout=30)[1]
        self.assertIn(running.returncode, (0, 130))
        if running.returncode == 130:
            self.assertIn("The helper goes on indexing.", told)
        wait_until(lambda: log().count("BASELINE built") > before and self.indexed(), "the rebuilt index")


if __name__ == "__main__":
    unittest.main()
