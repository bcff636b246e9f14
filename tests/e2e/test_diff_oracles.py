"""What changed between two snapshots, told by others: by rsync, by a walk of our own, and by each of the service's
roads to an answer."""

import collections
import fcntl
import itertools
import os
import re
import shutil
import stat
import struct

import sandbox
import volumes
from cases import RandomCase
from helper import GET_SETTINGS, SET_SETTINGS, wait_until
from test_diff import CACHE, DIFF, contents
from workload import LEFT_OUT, Tree, fallocate, name_text

REINDEX = "reindexVolumeWithVolumeUUID:reply:"
LONGER = 5 if os.environ.get("QUILLMARK_LONG") else 1
MOST_ENTRIES = 300
KEEP_SIZE, PUNCH_HOLE, CLONE_RANGE = 1, 2, 0x4020940D  # linux/falloc.h, linux/fs.h
TREE = b"/tree"  # where the work is done, below the volume


class DiffOracles(RandomCase):
    # Goal:   whatever `rsync --delete` would do to turn one snapshot into the other is told, and nothing else but what has
    #         another time, mode, owner, identity or witness of its content.
    # Method: random work on files of all kinds; rsync compares the contents themselves. Directories' times are nothing to
    #         either of us.
    def test_what_rsync_would_do(self):
        self.prepare()
        tree = Tree(self.root, self.chance)
        count = 60 * LONGER
        self.work(tree, count)
        for a, b, before, after in self.pairs(count):
            theirs = rsync_changes(self.places[a] + TREE, self.places[b] + TREE)
            for full in (False, True):
                told = self.told(a, b, before, after, full)
                self.assert_covers(set(told), theirs, before, after, (a, b, full))

    # Goal:   content that changes while size and time stay is told, also where nothing newer than the newest extent is
    #         written: holes and clones.
    def test_content_that_changes_without_a_trace(self):
        self.prepare()
        names = ("punched", "cut and grown", "cloned over", "filled", "overwritten", "other")
        files = {name: os.fsdecode(self.root) + "/" + name for name in names}
        for path in files.values():
            with open(path, "wb") as file:
                file.write(self.chance.randbytes(200_000))
        os.truncate(files["filled"], 0)
        os.truncate(files["filled"], 200_000)
        sandbox.run("sync", "--file-system", self.volume.path)
        with open(files["cloned over"], "r+b") as file:
            file.seek(100_000)
            file.write(b"newer")
        self.set_time_back(files)
        self.create()
        with open(files["punched"], "r+b") as file:
            fallocate(file.fileno(), KEEP_SIZE | PUNCH_HOLE, 40_960, 40_960)
        os.truncate(files["cut and grown"], 81_920)
        os.truncate(files["cut and grown"], 200_000)
        with open(files["cloned over"], "r+b") as file, open(files["other"], "rb") as other:
            fcntl.ioctl(file.fileno(), CLONE_RANGE, struct.pack("qQQQ", other.fileno(), 0, 4096, 0))
        for name in ("filled", "overwritten"):
            with open(files[name], "r+b") as file:
                file.write(b"new")
        self.set_time_back(files)
        self.create()
        self.wait_indexed()
        a, b = self.client.list(self.volume)
        rows = Answer(self.ask(a, b)).rows
        self.assertEqual({(row["kind"], row["path"]) for row in rows},
                         {("modified", below_root(name.encode())) for name in names if name != "other"})

    def set_time_back(self, files):
        for path in files.values():
            os.utime(path, ns=(0, 0))

    # Goal:   a comparison is the same by the history, with and without trees, as it grew, after deletions, and rebuilt; by
    #         what is read for this once, of both snapshots or of one; and by a full scan, but for what the rules leave out.
    # Method: random work on files of all kinds, part of it not indexed at first; each row is compared whole. Below excluded
    #         directories a full scan sees more: without those, and with moves as deletions and additions.
    def test_the_roads_agree(self):
        self.prepare(leave_out=[LEFT_OUT])
        tree = Tree(self.root, self.chance)
        for _ in range(10 * LONGER):
            self.work(tree, 4)
            self.delete_some(2)
            self.wait_indexed()
            known = self.indexed_xids()
            self.set_indexing("disabled")
            self.work(tree, 5)
            self.assertEqual(self.indexed_xids(), known)
            self.compare_roads()
            self.delete_some(len(self.names()) - 4)

    def compare_roads(self):
        pairs = self.pairs_of(self.client.list(self.volume))
        once, once_with_trees = self.answers(pairs), self.answers(pairs, trees=True)
        full = self.answers(pairs, full=True)
        self.set_indexing("fullScan")
        self.create()  # indexed behind those that waited
        self.wait_indexed()
        for pair, answer in full.items():
            self.assert_same("full", pair, included(as_deletions_and_additions(answer.rows)),
                             as_deletions_and_additions(once[pair].rows))
        for pair, answer in once_with_trees.items():
            self.assert_same("with trees", pair, answer.rows, once[pair].rows)
            self.assertTrue(answer.tree)
        for road in ("grown", "after deletions", "rebuilt"):
            for pair, answer in self.answers(pairs).items():
                self.assert_same(road, pair, answer, once[pair])
            for pair, answer in self.answers(pairs, trees=True).items():
                self.assert_same(f"{road}, with trees", pair, answer, once_with_trees[pair])
            if road == "grown":
                self.delete_some(2)
                pairs = self.pairs_of(self.client.list(self.volume), once)
            elif road == "after deletions":
                self.client.call(REINDEX, self.volume.uuid)
            self.wait_indexed()

    def pairs_of(self, snapshots, among=None):
        """Neighbours, and some that lie apart; or all of what was asked before."""
        near = 3  # they stay neighbours when two between them go
        pairs = itertools.combinations(snapshots, 2)
        if among is not None:
            return [(a, b) for a, b in pairs if (a["xid"], b["xid"]) in among]
        return [(a, b) for a, b in pairs
                if snapshots.index(b) <= snapshots.index(a) + near or self.chance.random() < 0.3]

    def work(self, tree, snapshots):
        for _ in range(snapshots):
            for _ in range(self.chance.choice([0, 1, 3, 10, 40])):
                tree.change()
            tree.thin(MOST_ENTRIES)
            self.create()

    def delete_some(self, count):
        for name in self.chance.sample(self.names(), count):
            self.client.delete(self.volume, name)

    def assert_same(self, road, pair, one, other):
        if one != other:
            self.fail(f"{road}, {pair}: {differing(one, other)}")

    # ---- the ground

    def prepare(self, leave_out=()):
        self.draw(leave_out)
        self.root = os.fsencode(self.volume.path) + TREE
        os.mkdir(self.root)

    def set_indexing(self, mode):
        self.client.call(SET_SETTINGS, dict(self.client.call(GET_SETTINGS), indexingMode=mode))

    def wait_indexed(self):
        wait_until(lambda: self.indexed_xids() == {snapshot["xid"] for snapshot in self.client.list(self.volume)},
                   "the index of all")

    def pairs(self, count):
        """Neighbours, and some that lie apart, each with what a walk finds in both."""
        self.wait_indexed()
        self.snapshots = self.client.list(self.volume)
        self.assertEqual(len(self.snapshots), count)
        with self.volume.mounted_top_level() as top:
            by_xid = {volumes.Subvolume(entry.path).xid: os.fsencode(entry.path)
                      for entry in os.scandir(self.volume.place(top))}
            self.places = [by_xid[snapshot["xid"]] for snapshot in self.snapshots]
            walked = [walk(place) for place in self.places]
            far = (sorted(self.chance.sample(range(count), 2)) for _ in range(count // 4))
            for a, b in [*itertools.pairwise(range(count)), *far]:
                yield a, b, walked[a], walked[b]

    # ---- what the service tells

    def ask(self, a, b, trees=False, full=False):
        answer = contents(self.client.call(DIFF, self.volume.uuid, a["xid"], a["name"], b["xid"], b["name"], trees, full))
        self.assertEqual((answer["truncated"], answer["totalRowCount"]), (False, len(answer["rows"])))
        return answer

    def answers(self, pairs, trees=False, full=False):
        """By pair of XIDs. More than what the service remembers, so that each is found anew."""
        shutil.rmtree(CACHE, ignore_errors=True)
        self.assertGreater(len(pairs), 3)
        return {(a["xid"], b["xid"]): Answer(self.ask(a, b, trees, full)) for a, b in pairs}

    def told(self, a, b, before, after, full):
        """path -> kind; a move is a deletion and an addition. Sizes and times are what the walk found."""
        rows = as_deletions_and_additions(Answer(self.ask(self.snapshots[a], self.snapshots[b], full=full)).rows)
        told = {row["path"]: row["kind"] for row in rows}
        self.assertEqual(len(told), len(rows), "each path is told once")
        for row in rows:
            path = row["path"]
            old, new = before.get(path), after.get(path)
            self.assertEqual(row["kind"], kind_of(old, new), row)
            self.assertEqual(row["type"], (new or old).kind, row)
            for facts, size, moment in ((old, "oldSize", "oldMTimeNS"), (new, "newSize", "newMTimeNS")):
                self.assertEqual((row.get(size), row.get(moment)), (facts.size, facts.mtime) if facts else (None, None), row)
        return told

    def assert_covers(self, ours, theirs, before, after, of):
        seen = {path for path in before.keys() | after.keys() if differ(before.get(path), after.get(path))}
        theirs = {path for path in theirs if not (is_stand_in(before.get(path)) and is_stand_in(after.get(path)))}
        untold = theirs - ours | {path for path in seen if not all_directories(path, before, after)} - ours
        surplus = ours - theirs - seen
        for what, paths in (("untold", untold), ("told without a difference", surplus)):
            if paths:
                path = min(paths)
                self.fail(f"{of}: {len(paths)} {what}, first {path!r}\n{before.get(path)}\n{after.get(path)}")


# ---- rows

class Answer:
    def __init__(self, contents):
        self.rows, self.tree = contents["rows"], contents["treeEntries"]

    def __eq__(self, other):
        return (self.rows, self.tree) == (other.rows, other.tree)


def as_deletions_and_additions(rows):
    parted = []
    for row in rows:
        if row["kind"] != "moved":
            parted.append(row)
            continue
        parted.append({"path": row["oldPath"], "kind": "deleted", "type": row["type"], "oldSize": row["oldSize"],
                       "oldMTimeNS": row["oldMTimeNS"]})
        parted.append({"path": row["path"], "kind": "added", "type": row["type"], "newSize": row["newSize"],
                       "newMTimeNS": row["newMTimeNS"]})
    return sorted(parted, key=lambda row: row["path"])


def included(rows):
    return [row for row in rows if os.fsdecode(LEFT_OUT) not in row["path"].split("/")[1:-1]]


def differing(one, other):
    if isinstance(one, Answer):
        return differing(one.rows, other.rows) or differing(one.tree, other.tree)
    return [row for row in one if row not in other][:5], [row for row in other if row not in one][:5]


def below_root(path):
    return name_text(TREE + b"/" + path)


# ---- a walk of our own

Facts = collections.namedtuple("Facts", "kind size mtime mode owner flags identity witness")
PLACEHOLDER = 2  # the inode number that a snapshot shows where a subvolume was nested
KINDS = {stat.S_IFREG: "file", stat.S_IFDIR: "directory", stat.S_IFLNK: "symlink"}
INODE_ITEM, EXTENT_DATA = 1, 108  # linux/btrfs_tree.h
FLAGS = 7 << 6  # immutable, append only, no dump


def walk(place):
    """path as text -> Facts, of all that lies at or below TREE in a snapshot."""
    generations, flags, extents = searched(place)
    found = {}

    def enter(path, parent):
        full = place + path
        status = os.lstat(full)
        kind = KINDS.get(stat.S_IFMT(status.st_mode), "other")
        is_file, is_directory = kind == "file", kind == "directory"
        size = status.st_size if is_file else 0
        number = status.st_ino
        if is_directory and number == PLACEHOLDER:
            found[name_text(path)] = Facts(kind, 0, 0, None, None, None, ("nested in", parent), None)
            return
        identity = number, generations[number]
        found[name_text(path)] = Facts(kind, size, status.st_mtime_ns, stat.S_IMODE(status.st_mode),
                                       (status.st_uid, status.st_gid), flags[number], identity,
                                       max((made for at, made in extents.get(number, {}).items() if at < size), default=None))
        if is_directory:
            for name in os.listdir(full):
                enter(path + b"/" + name, identity)

    enter(TREE, None)
    return found


_TREE_SEARCH_V2 = 0xC0709411  # _IOWR(0x94, 17, struct btrfs_ioctl_search_args_v2), linux/btrfs.h
_SEARCH = struct.Struct("=7Q3I36xQ")  # tree; least and greatest object, offset, transaction; types; how many; room
_HEADER = struct.Struct("=3Q2I")  # transaction, object, offset, type, length
_INODE = struct.Struct("=Q56xQ")  # of struct btrfs_inode_item
_ROOM, _ALL = 1 << 16, 2**64 - 1


def searched(place):
    """Of a subvolume, by inode number: generations, flags, and offset -> generation of extents."""
    generations, flags, extents = {}, {}, {}
    fd = os.open(place, os.O_RDONLY | os.O_DIRECTORY)
    try:
        number = kind = offset = 0
        while True:
            buffer = bytearray(_SEARCH.pack(0, number, _ALL, offset, _ALL, 0, _ALL, kind, 255, 1 << 20, _ROOM) + bytes(_ROOM))
            fcntl.ioctl(fd, _TREE_SEARCH_V2, buffer)
            count, at = _SEARCH.unpack_from(buffer)[9], _SEARCH.size
            if count == 0:
                return generations, flags, extents
            for _ in range(count):
                _, number, offset, kind, length = _HEADER.unpack_from(buffer, at)
                at += _HEADER.size
                if kind == INODE_ITEM:
                    generations[number], bits = _INODE.unpack_from(buffer, at)
                    flags[number] = bits & FLAGS
                elif kind == EXTENT_DATA:
                    [extents.setdefault(number, {})[offset]] = struct.unpack_from("=Q", buffer, at)
                at += length
            offset += 1
    finally:
        os.close(fd)


def kind_of(old, new):
    if old is None or new is None:
        return "added" if old is None else "deleted"
    return "modified" if old.kind == new.kind else "replaced"


def all_directories(path, before, after):
    return all(facts is None or facts.kind == "directory" for facts in (before.get(path), after.get(path)))


def is_stand_in(facts):
    """It borrows what is told of it from its directory."""
    return facts is not None and facts.mode is None


def differ(old, new):
    if old is None or new is None or old.kind != new.kind:
        return True
    if (old.mode, old.owner, old.flags, old.identity) != (new.mode, new.owner, new.flags, new.identity):
        return True
    if old.kind == "directory":
        return False
    is_rewritten = old.witness and new.witness and old.witness != new.witness
    return bool(is_rewritten) or (old.size, old.mtime) != (new.size, new.mtime)


# ---- rsync

ITEM = re.compile(rb"(?P<update>[<>ch.*])(?P<kind>[fdLDS])(?P<attributes>.{9}) (?P<name>.+)")
DELETING = b"*deleting   "


def rsync_changes(before, after):
    """The paths that it would touch in `before`, as text; not those of directories for their times alone."""
    told = sandbox.run(b"rsync", b"-anic", b"--delete", b"--out-format=%i %n", after + b"/", before + b"/",
                       env=dict(os.environ, LC_ALL="C"))
    found = set()
    for line in told.splitlines():
        name = line.removeprefix(DELETING)
        if name == line:
            item = ITEM.fullmatch(line)
            if item["kind"] == b"d" and item["update"] == b"." and not item["attributes"].strip(b".t"):
                continue
            name = item["name"]
        name = re.sub(rb"\\#([0-7]{3})", lambda code: bytes([int(code[1], 8)]), name.removesuffix(b"/"))
        found.add(below_root(name) if name != b"." else name_text(TREE))
    return found
