"""What two minutes without a command may bring, and what not: a service in trouble, among mounts that are no disks."""

import os
import time

import sandbox
from cases import HelperCase
from helper import HEALTH, NOTICES, STATE, log, quill, records, wait_until

SPACE = "freeSpaceUpdateWithJsonStates:"
RUBBISH = b'{"photos": rubbish\n'
MS_BIND = 4096
PATIENCE_WITH_TROUBLE = 120.0
BETWEEN_TICKS = 60.0
MOUNTS = 1000
PACE = 0.02  # seconds between two
MOST_OF_A_PROCESSOR = 0.1


class InTrouble(HelperCase):
    # Goal:   with schedules that can't be read nothing happens by itself, and people hear of it after 120 seconds; mounts
    #         of containers are no reason to look at the disks, and cost next to nothing.
    # Method: the two minutes of the one leave time for the other. Mounts come and go, at the rate of a thousand a minute
    #         and more, while a tick is possible; then a real volume brings it about.
    def test_trouble_is_told_in_time_and_containers_are_no_disks(self):
        self.make_snapshots()
        self.helper.kill()
        with open(f"{STATE}/schedules.json", "wb") as file:
            file.write(RUBBISH)
        self.helper.start()
        self.client = self.connect()
        began = time.monotonic()
        before = self.names()
        self.check_trouble()
        wait_until(self.ticks, "the first tick", pace=0.1)

        time.sleep(max(0.0, began + 5 + BETWEEN_TICKS + 1 - time.monotonic()))
        self.check_containers()
        wait_until(lambda: records(NOTICES), "the notice", 1.5 * PATIENCE_WITH_TROUBLE, 0.1)
        self.assertGreaterEqual(time.monotonic() - began, PATIENCE_WITH_TROUBLE)
        self.check_notice()
        self.check_trouble()
        self.assertEqual(self.names(), before)

    def check_containers(self):
        ticks, told = self.ticks(), self.disk_lines()
        cpu, since = self.helper.cpu_seconds(), time.monotonic()
        self.mount_and_unmount(MOUNTS)
        time.sleep(1)
        share = (self.helper.cpu_seconds() - cpu) / (time.monotonic() - since)
        with self.subTest("containers"):
            self.assertEqual((self.ticks(), self.disk_lines()), (ticks, told))
            self.assertLess(share, MOST_OF_A_PROCESSOR)
        with self.subTest("a disk"):
            self.make_volume("archive")
            wait_until(lambda: self.ticks() > ticks, "a tick")
            self.assertGreater(self.disk_lines(), told)

    def check_notice(self):
        [notice] = records(NOTICES)
        self.assertEqual((notice["title"], notice["importance"], notice["dedupeKey"]),
                         ("Quillmark helper is degraded", "critical", "helperHealthDegraded"))
        self.assertRegex(notice["message"], r"^schedules: decode failed: .*\. Automatic snapshot deletion is paused until "
                                            r"helper health recovers\. Reference: [0-9A-F]{8}\.$")

    # More than the usual schedule keeps.
    def make_snapshots(self):
        self.client.create(self.volume, "by hand")
        for number in range(6):
            self.volume.snapshot_at(f".quillmark/{self.volume.uuid}/"
                                    f"com.harrowfern.Quillmark.auto.freq.2026-03-01T09-15-{number:02}Z")

    def check_trouble(self):
        health = self.client.call(HEALTH)
        self.assertEqual(health["schedules"]["state"], "unavailable")
        self.assertEqual({health[part]["state"] for part in ("settings", "protection", "audit", "scheduler")}, {"healthy"})
        self.assertNotEqual(quill("schedule", "on", "-v", "photos").returncode, 0)
        with open(f"{STATE}/schedules.json", "rb") as file:
            self.assertEqual(file.read(), RUBBISH)

    def ticks(self):
        return len(self.client.pushed(SPACE))

    @staticmethod
    def disk_lines():
        return sum(" disk-" in line for line in log().splitlines())

    def mount_and_unmount(self, count):
        """As containers do: a file system of layers, one in memory, a folder and a file of the machine's."""
        self.volume.write("folder/file", "text")
        os.makedirs("/run/layers")
        sandbox.mount("layers", "/run/layers", "tmpfs")
        kinds = [("overlay", "overlay", 0, "lowerdir=/usr,upperdir={0}/upper,workdir={0}/work"), ("tmpfs", "tmpfs", 0, ""),
                 (f"{self.volume.path}/folder", "none", MS_BIND, ""), ("/etc/hostname", "none", MS_BIND, "")]
        mounted = []
        for number in range(count):
            source, kind, flags, options = kinds[number % len(kinds)]
            place = f"/run/layers/{number}"
            for folder in ("", "/upper", "/work", "/root"):
                os.mkdir(place + folder)
            target = f"{place}/root"
            if source == "/etc/hostname":
                target = f"{place}/file"
                open(target, "w").close()
            sandbox.mount(source, target, kind, flags, options.format(place))
            mounted.append(target)
            time.sleep(PACE)
        for target in mounted:
            self.assertEqual(sandbox.unmount(target), 0)
            time.sleep(PACE / 4)
        sandbox.detach("/run/layers")
