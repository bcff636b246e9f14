"""The change history against a second telling: random work on real volumes, each snapshot's tree read again by another road."""

import contextlib
import json
import os
import signal
import sqlite3
import subprocess
import tempfile
import time

import sandbox
import volumes
from cases import RandomCase
from helper import PROGRAMS, STATE, despite_changes, wait_until
from workload import LEFT_OUT, Tree, name_text

# 0: without end.
ROUNDS = int(os.environ.get("QUILLMARK_ROUNDS", "3000" if os.environ.get("QUILLMARK_LONG") else "300"))
MOST_SNAPSHOTS = 8
MOST_ENTRIES = 350


class State:
    """What a snapshot holds by the book: visible path as text -> (token, kind)."""

    def __init__(self, tree, folder):
        self.entries = {"/" + folder + name_text(path): (token, tree.kinds[token])
                        for path, token in tree.visible().items()}


class HistoryOracle(RandomCase):
    # Goal:   after every commit, deletion, compaction, kill and restart each indexed snapshot's tree is exactly what the
    #         snapshot holds, and every move that two neighbours tell has happened.
    # Method: a book of which object lies where is kept beside random changes; snapshots are made and deleted through the
    #         service and behind its back. A program of ours reads the history and each snapshot directory by directory.
    def test_the_history_tells_what_the_snapshots_hold(self):
        self.draw(leave_out=[LEFT_OUT])
        self.states, self.round = {}, 0
        os.mkdir(f"{self.volume.path}/tree")
        self.tree = Tree(f"{self.volume.path}/tree", self.chance)
        self.create()  # without a first one of ours there is nothing that another tool's could join
        self.wait_indexed()
        begun = time.monotonic()
        while ROUNDS == 0 or self.round < ROUNDS:
            self.round += 1
            self.one_round()
        print(f"{self.round} rounds in {time.monotonic() - begun:.0f} s, {self.tree.count} objects made", flush=True)

    def one_round(self):
        chance = self.chance
        for _ in range(chance.choice([0, 1, 3, 10, 40])):
            self.tree.change()
        self.tree.thin(MOST_ENTRIES)
        if chance.random() < 0.06:
            self.remount()
        fate = chance.random()
        if fate < 0.10:
            self.create_and_kill(chance.uniform(0, 0.06))
        elif fate < 0.25:
            self.foreign_snapshot()
            for _ in range(chance.randrange(5)):
                self.tree.change()
        self.create()
        self.wait_indexed()
        if len(self.states) > chance.randrange(2, MOST_SNAPSHOTS):
            self.delete_some()
        self.compare()

    # ---- what happens to the volume

    def create(self):
        state, name = State(self.tree, "tree"), super().create()
        self.states[next(one["xid"] for one in self.client.list(self.volume) if one["name"] == name)] = state

    def create_and_kill(self, delay):
        """The service dies while it indexes, or before."""
        self.create()
        time.sleep(delay)
        os.kill(self.helper.pid, signal.SIGKILL)
        self.helper.kill()
        self.client.close()
        self.helper.start()
        self.client = self.connect()

    def foreign_snapshot(self):
        """Another tool's: the service learns of it when it looks."""
        with self.volume.mounted_top_level() as top:
            path = f"{top}/foreign-{self.round}"
            sandbox.run("btrfs", "subvolume", "snapshot", "-r", self.volume.path, path)
            self.states[volumes.Subvolume(path).xid] = State(self.tree, "tree")

    def delete_some(self):
        """Through the service, one or several, or behind its back."""
        chosen = self.chance.sample(sorted(self.states), self.chance.randrange(1, min(4, len(self.states))))
        behind = self.chance.random() < 0.4
        names = {snapshot["xid"]: snapshot["name"] for snapshot in self.client.list(self.volume)}
        with contextlib.ExitStack() as stack:
            top = stack.enter_context(self.volume.mounted_top_level())
            places = {volumes.Subvolume(path).xid: path for path in self.places(top)}
            for xid in chosen:
                if behind:
                    sandbox.run("btrfs", "subvolume", "delete", places[xid])
                else:
                    despite_changes(self.client.delete, self.volume, names[xid], True)  # foreign ones are protected
                del self.states[xid]
        if behind:  # it looks when the next one is made
            for _ in range(self.chance.randrange(4)):
                self.tree.change()
            self.create()
        self.wait_indexed()

    def remount(self):
        """The numbers of the newest files are given again afterwards."""
        self.tree.remove_newest()
        sandbox.run("btrfs", "filesystem", "sync", self.volume.path)
        self.volume.unmount()
        wait_until(lambda: not self.is_held(), "the file system's end after its last mount", patience=3.0)
        self.volume.mount()

    def is_held(self):
        return any(entry.source == self.volume.device for entry in volumes.mounts())

    # ---- what the service tells

    def wait_indexed(self):
        expected = set(self.states)
        wait_until(lambda: self.indexed_xids() == expected, f"round {self.round}: the index of {sorted(expected)}",
                   patience=60.0)

    def places(self, top):
        own = f"{top}/.quillmark/{self.volume.uuid}"
        foreign = [entry.path for entry in os.scandir(top) if entry.name.startswith("foreign-")]
        return [entry.path for entry in os.scandir(own)] + foreign

    def compare(self):
        with tempfile.TemporaryDirectory() as copy, self.volume.mounted_top_level() as top:
            original = sqlite3.connect(f"file:{STATE}/history.sqlite3?mode=ro", uri=True)
            with contextlib.closing(original), contextlib.closing(sqlite3.connect(f"{copy}/history.sqlite3")) as kept:
                original.backup(kept)
            places = {volumes.Subvolume(path).xid: path for path in self.places(top)}
            words = [f"{xid}={places[xid]}" for xid in sorted(self.states)]
            done = subprocess.run([f"{PROGRAMS}/quillmark-history-oracle", copy, self.volume.uuid, os.fsdecode(LEFT_OUT),
                                   *words], capture_output=True, text=True)
            self.assertEqual(done.returncode, 0, f"round {self.round}: {done.stdout[-4000:]}{done.stderr}")
            told = json.loads(done.stdout)
        self.assertEqual(told["ready"], sorted(self.states), f"round {self.round}")
        for xid, paths in told["paths"].items():
            kept = {path for path in paths if path == "/tree" or path.startswith("/tree/")} - {"/tree"}
            self.assertEqual(kept, set(self.states[int(xid)].entries), f"round {self.round}, xid {xid}")
        self.check_moves(told["moves"])

    def check_moves(self, moves):
        """Each move is one object's, and each object that went from one lone path to another has moved."""
        for before, after, pairs in moves:
            old, new = self.states[before].entries, self.states[after].entries
            told = {(a, b) for a, b in pairs}
            for a, b in told:
                self.assertEqual(old[a][0], new[b][0], f"round {self.round}: {a} never became {b}")
            lone_old, lone_new = lone(old), lone(new)
            due = {(path, lone_new[token]) for token, path in lone_old.items()
                   if token in lone_new and lone_new[token] not in old and path not in new
                   and old[path][1] != "subvolume"}
            self.assertEqual(due - told, set(), f"round {self.round}: moves between {before} and {after}")


def lone(entries):
    """token -> path of the objects that have one path."""
    paths = {}
    for path, (token, _) in entries.items():
        paths.setdefault(token, []).append(path)
    return {token: found[0] for token, found in paths.items() if len(found) == 1}
