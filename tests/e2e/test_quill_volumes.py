"""What no snapshot holds, and snapshots that lost their volume: as the service counts them."""

import json
import os
import subprocess

import sandbox
import volumes
from cases import HelperCase
from helper import quill
from volumes import Subvolume


def subvolume(path):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    sandbox.run("btrfs", "subvolume", "create", path)
    return path


class Unserved(HelperCase):
    def unserved(self):
        volumes = json.loads(quill("volumes", "--json").stdout)
        return {volume["name"]: volume.get("unservedSubvolumes") for volume in volumes}

    def mounted_beside(self, name):
        """Another volume on the file system of the first one; its UUID."""
        with self.volume.mounted_top_level() as top:
            subvolume(f"{top}/{name}")
        path = f"/data/{name}"
        os.makedirs(path)
        self.addCleanup(os.rmdir, path)
        sandbox.run("mount", "-t", "btrfs", "-o", f"subvol=/{name}", self.volume.device, path)
        self.addCleanup(subprocess.run, ["umount", path], capture_output=True)
        return Subvolume(path).uuid

    def test_nested_subvolumes_are_counted_and_named_unless_somebody_serves_them(self):
        for path in ("albums", "albums/deep/er", "a\nb"):
            subvolume(f"{self.volume.path}/{path}")
        # In a snapshot of ours or of somebody's is what is a snapshot itself.
        sandbox.run("btrfs", "subvolume", "snapshot", "-r", self.volume.path, f"{self.volume.path}/frozen")
        sandbox.run("btrfs", "subvolume", "snapshot", self.volume.path, f"{self.volume.path}/thawed")
        subvolume(f"{self.volume.path}/own")
        subvolume(f"{self.volume.path}/own/within")
        os.makedirs("/data/own")
        self.addCleanup(os.rmdir, "/data/own")
        sandbox.run("mount", "-t", "btrfs", "-o", "subvol=/@photos/own", self.volume.device, "/data/own")
        self.addCleanup(volumes.release, "/data/own")
        found = self.unserved()
        self.assertEqual(found["photos"]["nestedSubvolumes"], ["a\nb", "albums", "albums/deep/er", "thawed"])
        self.assertEqual(found["photos"]["nestedSubvolumeCount"], 4)
        self.assertEqual(found["own"]["nestedSubvolumes"], ["within"])
        for number in range(30):
            subvolume(f"{self.volume.path}/many/{number}")
        found = self.unserved()["photos"]
        self.assertEqual((found["nestedSubvolumeCount"], len(found["nestedSubvolumes"])), (34, 20))

    def test_snapshots_are_counted_whose_volume_is_gone_or_not_mounted(self):
        gone, away = self.mounted_beside("gone"), self.mounted_beside("away")
        for volume, count in ((gone, 2), (away, 1), (self.volume.uuid, 1)):
            for number in range(count):
                done = quill("create", f"s{number}", "-v", volume)
                self.assertEqual(done.returncode, 0, done.stderr)
        self.volume.snapshot_at("somebodys/snapshot")
        self.assertEqual(self.unserved()["photos"]["strandedSnapshots"], [])
        for name in ("gone", "away"):
            volumes.release(f"/data/{name}")
        with self.volume.mounted_top_level() as top:
            sandbox.run("btrfs", "subvolume", "delete", "--commit-after", f"{top}/gone")
        stranded = self.unserved()["photos"]["strandedSnapshots"]
        self.assertCountEqual(stranded, [
            {"volumeUUID": gone.upper(), "snapshotCount": 2},
            {"volumeUUID": away.upper(), "snapshotCount": 1, "volumePath": "/away"}])
        with self.volume.mounted_top_level() as top:
            self.assertEqual(len(os.listdir(f"{top}/.quillmark/{gone}")), 2, "as the client's advice says")
