"""Snapshots made, listed and deleted by the service, compared with what btrfs itself tells."""

import errno
import os
import re
import shutil
import unittest

import sandbox
from cases import HelperCase, OnBothLayouts
from volumes import Subvolume, listed_name, utc_second

PREFIX = "com.harrowfern.Quillmark.manual."
PROTECTED = "Refusing to delete a protected snapshot. Use Force or unprotect it first."
GONE = "Snapshot no longer exists"


class Creating(HelperCase, OnBothLayouts):
    def test_a_snapshot_holds_what_the_volume_held_and_stays_so(self):
        def test(volume):
            volume.write("diary.txt", "before")
            name = self.client.create(volume, "first one")
            volume.write("diary.txt", "after")
            self.assertRegex(name, "^" + re.escape(PREFIX) + r"\d{4}-\d\d-\d\dT\d\d-\d\d-\d\dZ\.first-one$")
            with volume.mounted_top_level() as top:
                path = f"{volume.place(top)}/{name}"
                with open(f"{path}/diary.txt") as diary:
                    self.assertEqual(diary.read(), "before")
                self.assertEqual(Subvolume(path).parent_uuid, volume.uuid)
                with self.assertRaises(OSError) as caught:
                    open(f"{path}/diary.txt", "w")
                self.assertEqual(caught.exception.errno, errno.EROFS)
                for directory in (f"{top}/.quillmark", volume.place(top)):
                    status = os.lstat(directory)
                    self.assertEqual((status.st_uid, status.st_mode & 0o7777), (0, 0o700), directory)

        self.on_both_layouts(test)

    # Goal:   a name that exists is tried again with "-2" to "-8" behind the label, and never a ninth time.
    # Method: occupy names of the seconds to come, behind the service's back; a directory's name is as taken as a snapshot's.
    def test_names_that_are_taken_get_a_number_up_to_eight(self):
        for label, tails, result in (
            ("x", [".x", ".x-2", ".x-3", ".x-4", ".x-5", ".x-6", ".x-7"], ".x-8"),
            ("", ["", ".-2", ".-3", ".-4", ".-5", ".-6", ".-7"], ".-8"),
            ("y", [".y"], ".y-2"),
        ):
            with self.subTest(label=label):
                self.occupy([PREFIX + utc_second(s) + tail for s in range(-1, 20) for tail in tails])
                name = self.client.create(self.volume, label)
                self.assertEqual(name[len(PREFIX) + 20:], result)
                self.assertIn(name, self.names())

    def test_a_ninth_name_is_never_tried(self):
        tails = [".z"] + [f".z-{n}" for n in range(2, 9)]
        self.occupy([PREFIX + utc_second(s) + tail for s in range(-1, 20) for tail in tails])
        self.assertRefused(1030, "fs_snapshot_create failed: File exists", self.client.create, self.volume, "z")
        self.assertEqual(self.names(), [])

    def occupy(self, names):
        self.client.delete(self.volume, self.client.create(self.volume, "makes the place"))
        with self.volume.mounted_top_level() as top:
            for name in names:
                os.mkdir(f"{self.volume.place(top)}/{name}")

    def test_nothing_is_made_in_a_place_that_is_not_ours(self):
        with self.volume.mounted_top_level() as top:
            os.makedirs(f"{top}/elsewhere")
            os.symlink("elsewhere", f"{top}/.quillmark")
        with self.assertRaises(Exception) as caught:
            self.client.create(self.volume, "led astray")
        self.assertEqual(caught.exception.code, 1030)
        with self.volume.mounted_top_level() as top:
            self.assertEqual(os.listdir(f"{top}/elsewhere"), [])
        self.assertEqual(self.names(), [])


class Listing(HelperCase, OnBothLayouts):
    # Goal:   each field is what btrfs says, for snapshots of ours and for those of others, in the order of creation.
    def test_every_field_of_ours_and_of_strangers(self):
        def test(volume):
            made = [(None, "before"), ("backups/Täglich gesichert", None), (None, ""), (".snapshots/7/snapshot", None)]
            wanted = []
            for path, label in made:
                if path is None:
                    name = self.client.create(volume, label)
                    with volume.mounted_top_level() as top:
                        facts = Subvolume(f"{volume.place(top)}/{name}")
                else:
                    name = listed_name(path.encode())
                    facts = volume.snapshot_at(path)
                wanted.append((label, {"name": name, "xid": facts.xid, "createdAt": facts.made, "sizeGeneration": 0,
                                       "isProtected": path is not None, "isAutoProtected": path is not None,
                                       "isIndexed": False}))
            listed = self.client.list(volume)
            self.assertEqual(len(listed), len(wanted))
            for record, (label, expected) in zip(listed, wanted):
                record["isIndexed"] = False  # that comes when it comes
                self.assertIn(record.pop("displayName", None), (None, label))
                self.assertAlmostEqual(record.pop("createdAt"), expected.pop("createdAt"), delta=1e-6)
                self.assertEqual(record, expected)

        self.on_both_layouts(test)

    def test_only_read_only_snapshots_of_this_very_volume_are_listed(self):
        name = self.client.create(self.volume, "mine")
        other = self.make_volume("music")
        self.client.create(other, "another volume's")
        with self.volume.mounted_top_level() as top:
            for words in (("snapshot", self.volume.path, f"{top}/writable"), ("create", f"{top}/no-snapshot"),
                          ("snapshot", "-r", f"{self.volume.place(top)}/{name}", f"{top}/of-a-snapshot")):
                sandbox.run("btrfs", "subvolume", *words)
        self.assertEqual(self.names(), [name])

    # Goal:   whatever bytes a path has, its snapshot is told by a name that is one-to-one, and deleted by it.
    def test_foreign_names_of_any_bytes_are_listed_protected_and_deleted_with_force(self):
        paths = [b"with space", b"a:b", b"100%", "Ünïcødé ✓".encode(), b"tab\tand\nnewline", b"\xff\xfe not UTF-8",
                 "nested/déeper/:still".encode(), "\U0010ef41".encode(), b"com.apple.os.update-1",
                 PREFIX.encode() + b"2026-01-01T00-00-00Z"]
        for path in paths:
            self.volume.snapshot_at(path)
        wanted = [listed_name(path) for path in paths]
        self.assertEqual(self.names(), wanted)
        self.assertEqual(len(set(wanted)), len(paths))
        for name in wanted:
            with self.subTest(name=name):
                self.assertRefused(1035, PROTECTED, self.client.delete, self.volume, name)
                self.assertIn(name, self.names())
                self.client.delete(self.volume, name, force=True)
                self.assertNotIn(name, self.names())

    def test_a_name_longer_than_a_client_may_send_is_cut_in_front_and_still_deletes(self):
        facts = self.volume.snapshot_at(b"/".join([b"d" * 120, b"e" * 120, b"the end"]))
        [name] = self.names()
        self.assertLessEqual(len(name.encode()), 240)
        self.assertTrue(name.startswith("::" + facts.uuid.replace("-", "")[:16] + ":"), name)
        self.assertTrue(name.endswith(":the end"), name)
        self.client.delete(self.volume, name, force=True)
        self.assertEqual(self.names(), [])


class BehindOurBack(HelperCase, OnBothLayouts):
    def test_a_snapshot_that_btrfs_deleted_is_gone_for_us_too(self):
        def test(volume):
            kept, lost = self.client.create(volume, "kept"), self.client.create(volume, "lost")
            xid = self.client.list(volume)[-1]["xid"]
            with volume.mounted_top_level() as top:
                sandbox.run("btrfs", "subvolume", "delete", f"{volume.place(top)}/{lost}")
            self.assertEqual(self.names(volume=volume), [kept])
            self.assertRefused(1020, GONE, self.client.delete, volume, lost)
            with self.assertRaises(Exception) as caught:
                self.client.mount(volume, lost, xid)
            self.assertEqual(caught.exception.code, 1020)
            self.assertEqual(os.listdir("/Volumes") if os.path.isdir("/Volumes") else [], [])

        self.on_both_layouts(test)

    def test_a_snapshot_that_was_moved_is_found_at_its_new_place(self):
        name = self.client.create(self.volume, "wanders")
        [before] = self.client.list(self.volume)
        with self.volume.mounted_top_level() as top:
            os.rename(f"{top}/.quillmark", f"{top}/put aside")
        [after] = self.client.list(self.volume)
        self.assertEqual((after["name"], after["xid"]), (f":put aside:{self.volume.uuid}:{name}", before["xid"]))

    def test_a_place_that_somebody_took_away_is_made_anew(self):
        self.client.delete(self.volume, self.client.create(self.volume, "one"))
        with self.volume.mounted_top_level() as top:
            shutil.rmtree(f"{top}/.quillmark")
        name = self.client.create(self.volume, "two")
        self.assertEqual(self.names(), [name])


class Deleting(HelperCase, OnBothLayouts):
    def test_a_deleted_snapshot_is_gone_and_its_neighbours_stay(self):
        def test(volume):
            names = [self.client.create(volume, label) for label in ("a", "b", "c")]
            self.client.delete(volume, names[1])
            self.assertEqual(self.names(volume=volume), [names[0], names[2]])
            self.assertRefused(1020, GONE, self.client.delete, volume, names[1])
            self.assertRefused(1020, GONE, self.client.delete, volume, names[1], force=True)

        self.on_both_layouts(test)

    def test_the_volume_itself_can_not_be_named_away(self):
        volume = self.make_volume("archive", top_level=True)
        for name in ("..", ".", ":", ":@photos", "@photos"):
            for target in (self.volume, volume):
                with self.subTest(name=name, volume=target.name):
                    with self.assertRaises(Exception) as caught:
                        self.client.delete(target, name, force=True)
                    self.assertIn(caught.exception.code, (1003, 1020))
        for target in (self.volume, volume):
            target.write("still here", "yes")


if __name__ == "__main__":
    unittest.main()
