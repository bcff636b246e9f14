"""That the harness means what the tests take it for."""

import os
import subprocess
import sys
import unittest

import sandbox
import volumes
from test_mounts import hung_mount


class Harness(unittest.TestCase):
    def test_mount_points_of_any_bytes_are_read(self):
        path = os.fsdecode("/tmp/a b\tü\\".encode() + b"\xfe")
        os.mkdir(path)
        sandbox.mount("none", path, "tmpfs")
        self.assertTrue(volumes.is_mounted(path))
        sandbox.detach(path)
        self.assertFalse(volumes.is_mounted(path))

    def test_a_volume_goes_with_all_that_holds_it(self):
        volume = volumes.Volume("short-lived")
        with open(volume.write("file", "text")) as reader:
            volume.destroy()
            self.assertEqual(reader.read(), "text")
        self.assertFalse(os.path.exists(volume.path))

    def test_quotas_are_seen_and_a_full_volume_is_full(self):
        volume = volumes.Volume("full", size=256 << 20)
        self.addCleanup(volume.destroy)
        self.assertFalse(volume.has_quotas())
        sandbox.run("btrfs", "quota", "enable", volume.path)
        self.assertTrue(volume.has_quotas())
        sandbox.run("btrfs", "quota", "disable", volume.path)
        self.assertFalse(volume.has_quotas())
        volume.fill()
        volume.fill_with_names()
        self.assertEqual(volume.free_bytes(), 0)
        with self.assertRaises(OSError):
            volume.reserve("more", 4096)
        with self.assertRaises(OSError):
            for number in range(100):
                os.mknod(f"{volume.path}/{number:0250}")

    def test_the_hung_mount_really_hangs_whoever_asks_it(self):
        with hung_mount("/hung"):
            asking = subprocess.Popen([sys.executable, "-c", "import os; os.statvfs('/hung')"], stderr=subprocess.DEVNULL)
            with self.assertRaises(subprocess.TimeoutExpired):
                asking.wait(0.5)
            asking.kill()
            asking.wait()
