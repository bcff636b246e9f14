"""Mounted snapshots, and mounts of all kinds around the service."""

import contextlib
import errno
import json
import os

import sandbox
import volumes
from cases import HelperCase, OnBothLayouts
from helper import HEALTH, quill, wait_until
from volumes import is_mounted, mounts


class Mounting(HelperCase, OnBothLayouts):
    def mounted(self, volume, label="x"):
        name = self.client.create(volume, label)
        xid = self.client.list(volume)[-1]["xid"]
        return name, xid, self.client.mount(volume, name, xid)

    def test_a_mounted_snapshot_reads_and_refuses_to_be_written(self):
        def test(volume):
            volume.write("a/b.txt", "old")
            name, xid, path = self.mounted(volume)
            volume.write("a/b.txt", "new")
            stem = volume.name if not volume.is_top_level else "archive"
            self.assertEqual(path, f"/Volumes/{stem}-{volume.uuid}@snap-{xid}")
            with open(f"{path}/a/b.txt") as file:
                self.assertEqual(file.read(), "old")
            with self.assertRaises(OSError) as caught:
                open(f"{path}/more", "w")
            self.assertEqual(caught.exception.errno, errno.EROFS)
            [entry] = [m for m in mounts() if m.path == path]
            self.assertLessEqual({"ro", "nosuid", "nodev"}, set(entry.options))
            self.assertEqual(self.client.mount(volume, name, xid), path)
            self.assertEqual(len([m for m in mounts() if m.path == path]), 1)
            with self.assertRaises(Exception) as caught:
                self.client.delete(volume, name)
            self.assertEqual((caught.exception.code, caught.exception.text),
                             (1031, "fs_snapshot_delete failed: Device or resource busy"))
            self.client.unmount(path)
            self.assertFalse(is_mounted(path) or os.path.exists(path))
            self.client.delete(volume, name)

        self.on_both_layouts(test)


class Around(HelperCase, OnBothLayouts):
    # Goal:   between two commands the service holds nothing of a volume: its owner unmounts it and may do as he likes.
    # Method: an exclusive open of the device fails while any mount of it is left, a hidden one too.
    def test_a_volume_can_be_unmounted_and_checked_at_once(self):
        def test(volume):
            names = [self.client.create(volume, label) for label in ("a", "b")]
            listed = wait_until(lambda: self.indexed(volume), "the index of both")
            self.client.unmount(self.client.mount(volume, names[0], listed[0]["xid"]))
            volume.unmount()
            os.close(os.open(volume.device, os.O_RDWR | os.O_EXCL))
            sandbox.run("btrfs", "check", "--readonly", volume.device)
            with self.assertRaises(Exception) as caught:
                self.client.list(volume)
            self.assertEqual(caught.exception.code, 1010)
            volume.mount()
            self.assertEqual(self.client.list(volume), listed)
            self.client.delete(volume, names[0])  # gives its space back behind the answer, and lets go then too
            volume.unmount()
            wait_until(lambda: self.is_free(volume.device), "the end of the space's return", patience=5)
            sandbox.run("btrfs", "check", "--readonly", volume.device)
            volume.mount()
            self.assertEqual(self.names(volume=volume), [names[1]])

        self.on_both_layouts(test)

    @staticmethod
    def is_free(device):
        try:
            os.close(os.open(device, os.O_RDWR | os.O_EXCL))
            return True
        except OSError:
            return False

    # Goal:   a file system that answers nothing hangs nobody.
    # Method: a FUSE mount whose daemon never reads; whoever asks it anything waits for ever.
    def test_a_dead_file_system_in_the_mount_table_stops_no_command(self):
        with hung_mount("/hung"):
            name = self.client.create(self.volume, "x")
            [snapshot] = self.client.list(self.volume)
            path = self.client.mount(self.volume, name, snapshot["xid"])
            self.client.unmount(path)
            self.assertEqual(self.client.call(HEALTH)["audit"]["state"], "healthy")
            self.assertEqual([v["id"] for v in inventory()], [self.volume.uuid.upper()])
            self.client.delete(self.volume, name)

    # Goal:   the inventory tells a loop volume with all its facts, to root and to an ordinary user.
    def test_the_inventory_tells_each_volume_once_with_its_facts(self):
        whole = self.make_volume("archive", top_level=True)
        wait_until(lambda: self.client.list(whole) == [] and named(), "names for both volumes")
        for user in (None, 65534):
            with self.subTest(user=user):
                volumes = {v["id"]: v for v in inventory(user=user)}
                self.assertEqual(set(volumes), {self.volume.uuid.upper(), whole.uuid.upper()})
                for volume in (self.volume, whole):
                    told, facts = volumes[volume.uuid.upper()], os.statvfs(volume.path)
                    self.assertEqual((told["name"], told["mountPath"], told["connectionBus"], told["isInternal"]),
                                     (volume.name, volume.path, "Loop", told["isInternal"]))
                    self.assertEqual(told["totalBytes"], facts.f_blocks * facts.f_frsize)
                    self.assertAlmostEqual(told["availableBytes"], facts.f_bavail * facts.f_frsize, delta=64 << 20)
                    self.assertRegex(told["bsdName"], r"^disk\d+s\d+$")


def named():
    return all(v["bsdName"] for v in inventory())


def inventory(user=None):
    shown = quill("volumes", "--json", user=user)
    assert shown.returncode == 0, shown.stderr
    return json.loads(shown.stdout)


@contextlib.contextmanager
def hung_mount(path):
    os.makedirs(path, exist_ok=True)
    daemon = os.open("/dev/fuse", os.O_RDWR)
    try:
        sandbox.mount("hung", path, "fuse", options=f"fd={daemon},rootmode=40000,user_id=0,group_id=0,allow_other")
        try:
            yield
        finally:
            sandbox.detach(path)
    finally:
        os.close(daemon)
