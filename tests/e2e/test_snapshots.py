"""Snapshots made, listed and deleted by the service, compared with what btrfs itself tells."""

import errno
import os
import re
import unittest

from cases import HelperCase, OnBothLayouts
from volumes import Subvolume

PREFIX = "com.harrowfern.Quillmark.manual."


class Snapshots(HelperCase, OnBothLayouts):
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
                    name = ":" + path.replace("/", ":")
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
