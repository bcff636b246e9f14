"""Snapshots that are indexed by themselves: the database that comes of it, and what happens to it behind the helper's
back. The database is looked at with an SQLite of its own."""

import json
import os
import signal
import sqlite3
import subprocess
import time
import unittest

import sandbox
from cases import HelperCase, OnBothLayouts
from helper import HEALTH, PROGRAMS, STATE, Client, Refused, log, wait_until
from volumes import mounts

INDEXED = "indexedXIDsOnVolume:reply:"
REINDEX_VOLUME = "reindexVolumeWithVolumeUUID:reply:"
REINDEX_ALL = "reindexAllVolumesWithReply:"
REINDEX_SNAPSHOT = "reindexSnapshotOnVolume:xid:reply:"
PROGRESS = "indexProgressWithVolumeUUID:snapshotXID:phase:filesScanned:"
SETTINGS, SET_SETTINGS = "getHelperSettingsWithReply:", "setHelperSettings:reply:"
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

    def test_a_snapshot_of_nothing_new_adds_nothing(self):
        self.volume.write("a", "b")
        self.client.create(self.volume, "one")
        self.client.create(self.volume, "two")
        self.wait_for_index()
        self.assertEqual(History(self.volume).changes, [])

    def test_pushes_tell_how_it_goes_on_and_are_replayed_to_whoever_connects(self):
        self.many_files(20_000)
        self.client.create(self.volume, "big")
        # Under way, or over already on a fast machine: whoever asks meanwhile is told first.
        with Client() as late:
            replayed = late.pushed(PROGRESS)
        [snapshot] = self.wait_for_index()
        pushes = wait_until(lambda: [p for p in [self.client.pushed(PROGRESS)] if p and p[-1][2] == "done"], "the end")[0]
        volume = self.volume.uuid.lower()
        self.assertEqual(pushes[0], [volume, snapshot["xid"], "indexing", 0])
        self.assertEqual(pushes[-1], [volume, 0, "done", 0])
        counts = [files for _, _, phase, files in pushes if phase == "indexing"]
        self.assertTrue(all(0 <= files <= 20_100 for files in counts), counts)
        for push in replayed:
            self.assertEqual((push[0], push[2] in ("indexing", "done")), (volume, True))

    # Goal:   a helper killed in the midst of indexing leaves a database that the next one goes on with.
    # Method: kill -9 at moments spread over a run, again and again; no snapshot is forgotten, each next run takes in what
    #         the ones before left, and the chain is whole. (By itself the next helper begins after a minute.)
    def test_a_kill_in_mid_index_is_made_good_by_the_next_run(self):
        self.many_files(15_000)
        for turn in range(8):
            self.volume.write(f"turn{turn}/file", "x")
            self.client.create(self.volume, f"turn {turn}")
            wait_until(lambda: self.client.pushed(PROGRESS) or self.indexed(), "the begin of the run")
            time.sleep(turn * 0.01)
            self.helper.kill()
            self.restart()
            history = History(self.volume)
            self.assertEqual(len(history.ready + history.pending), turn + 1)
            if history.ready:
                history.check(self)
        self.client.create(self.volume, "the last")
        self.assertEqual(len(self.wait_for_index()), 9)
        history = History(self.volume)
        history.check(self)
        for turn in range(8):
            self.assertIn(f"/turn{turn}/file", history.head_tree)
        self.assertEqual(self.client.call(HEALTH)["history"]["state"], "healthy")
        self.assertEqual([entry.path for entry in mounts() if "/.index-" in entry.path], [])

    def restart(self):
        def started():
            try:
                self.helper.start()
                return True
            except AssertionError as failure:
                if "another instance" in str(failure):  # a child of the dead one holds the lock until its exec
                    return False
                raise

        wait_until(started, "a helper")
        self.client = self.connect()

    def test_what_is_deleted_behind_our_back_leaves_the_chain(self):
        for label in ("one", "two", "three"):
            self.volume.write(f"{label}.txt", label)
            self.client.create(self.volume, label)
        first, second, third = self.wait_for_index()
        with self.volume.mounted_top_level() as top:
            sandbox.run("btrfs", "subvolume", "delete", f"{self.volume.place(top)}/{second['name']}")
        self.volume.write("four.txt", "four")
        self.client.create(self.volume, "four")
        wait_until(lambda: len(History(self.volume).ready) == 3 and self.indexed(), "the reconciled chain")
        history = History(self.volume)
        history.check(self)
        self.assertNotIn(second["xid"], history.ready)
        self.assertIn("/two.txt", history.changed_at(third["xid"]), "the transitions were merged")
        self.client.delete(self.volume, first["name"])
        wait_until(lambda: History(self.volume).baseline == third["xid"], "a new baseline")
        History(self.volume).check(self)

    def test_a_foreign_snapshot_joins_behind_ours_and_by_a_rebuild_before_them(self):
        self.volume.snapshot_at("backups/first")
        self.client.create(self.volume, "ours")
        wait_until(lambda: len(History(self.volume).ready) == 1, "the baseline")
        self.volume.write("later.txt", "x")
        self.volume.snapshot_at("backups/second")
        self.client.create(self.volume, "ours too")
        wait_until(lambda: len(History(self.volume).ready) == 3, "the foreign one behind the baseline")
        stranded = [s["name"] for s in self.client.list(self.volume) if not s["isIndexed"]]
        self.assertEqual(stranded, [":backups:first"])
        self.client.call(REINDEX_VOLUME, self.volume.uuid)
        self.assertEqual(len(self.indexed()), 4)
        History(self.volume).check(self)

    def test_one_snapshot_is_indexed_anew_where_the_chain_allows_it(self):
        first_name, second_name = self.client.create(self.volume, "one"), self.client.create(self.volume, "two")
        first, second = self.wait_for_index()
        with self.assertRaises(Refused) as caught:
            self.client.call(REINDEX_SNAPSHOT, self.volume.uuid, first["xid"])
        self.assertEqual((caught.exception.domain, caught.exception.code), ("Quillmark.SnapshotHistory", 20))
        self.assertIn("Only the newest indexed snapshot can be re-indexed in place", caught.exception.text)
        self.client.call(REINDEX_SNAPSHOT, self.volume.uuid, second["xid"])
        self.wait_for_index()
        History(self.volume).check(self)
        with self.assertRaises(Refused) as caught:
            self.client.call(REINDEX_SNAPSHOT, self.volume.uuid, 1)
        self.assertEqual(caught.exception.text, "Snapshot no longer exists on this volume")
        for name in (first_name, second_name):
            self.client.delete(self.volume, name)

    def test_all_volumes_are_rebuilt_in_turn(self):
        other = self.make_volume("music")
        for volume in (self.volume, other):
            self.client.create(volume, "one")
            self.wait_for_index(volume)
        self.client.call(REINDEX_ALL)
        for volume in (self.volume, other):
            self.wait_for_index(volume)
            History(volume).check(self)
        self.assertRefused(1001, "Volume UUID is malformed", self.client.call, REINDEX_VOLUME, "nonsense")
        self.assertRefused(1001, "Volume UUID is malformed", self.client.call, INDEXED, "nonsense")

    def test_switched_off_it_waits_and_a_rebuild_does_not(self):
        settings = dict(self.client.call(SETTINGS), indexingMode="disabled")
        self.client.call(SET_SETTINGS, settings)
        self.client.create(self.volume, "one")
        wait_until(lambda: len(History(self.volume).pending) == 1, "the registered snapshot")
        self.assertFalse(self.client.list(self.volume)[0]["isIndexed"])
        self.client.call(REINDEX_VOLUME, self.volume.uuid)
        self.assertTrue(self.client.list(self.volume)[0]["isIndexed"])

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
