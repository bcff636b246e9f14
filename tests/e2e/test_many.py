"""Numbers beyond the everyday: thousands of snapshots, an audit trail through many rotations, readers beside it."""

import fcntl
import json
import os
import struct
import subprocess
from concurrent.futures import ThreadPoolExecutor

import helper
from cases import HelperCase
from volumes import Subvolume

DELETE_MANY = "deleteSnapshotsWithSpecsJSON:onVolume:reply:"
ACTIVITY = "/var/lib/quillmark"
ROTATION_BYTES = 4 << 20
KEPT_ARCHIVES = 8
SNAPSHOTS = 5000
THE_END = "there never was a snapshot of this name"

# linux/btrfs.h: struct btrfs_ioctl_vol_args_v2 with a descriptor, flags and a name.
_SNAP_CREATE_V2, _READ_ONLY = 0x50009417, 2
_VOL_ARGS = struct.Struct("=qQQ32x4040s")


class Many(HelperCase):
    def test_thousands_of_snapshots_are_listed_and_each_of_many_deletions_is_recorded(self):
        # Without it each of them would be read for the index meanwhile.
        settings = self.client.call("getHelperSettingsWithReply:")
        self.client.call("setHelperSettings:reply:", settings | {"indexingMode": "disabled"})
        made = self.make_snapshots(SNAPSHOTS)
        self.assertEqual({s["name"]: s["xid"] for s in self.client.list(self.volume)}, made)
        names = sorted(made)
        gone = []
        for batch in (names[:300], names[2500:2700], names[-100:]):
            specs = [{"name": name, "force": False} for name in batch]
            outcomes = self.client.call(DELETE_MANY, specs, self.volume.uuid)
            self.assertEqual(outcomes, [{"name": name} for name in batch])
            gone += batch
            self.assertEqual({s["name"]: s["xid"] for s in self.client.list(self.volume)},
                             {name: xid for name, xid in made.items() if name not in set(gone)})
        deleted = [event["snapshotName"] for event in events() if event["kind"] == "deleteSnapshot"]
        self.assertEqual(deleted[1:], gone)

    # Goal:   who follows the log by cursor sees every record once and in order, however often the log rotates meanwhile.
    # Method: deletions of impossible names are refused and recorded, each with more than a KB; two readers follow.
    def test_two_readers_follow_through_ten_rotations(self):
        readers = [subprocess.Popen([f"{helper.PROGRAMS}/quill", "log", "--follow", "--json", "-n", "100000"],
                                    stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True) for _ in range(2)]
        self.addCleanup(lambda: [(reader.kill(), reader.communicate()) for reader in readers])
        with ThreadPoolExecutor() as pool:
            seen = [pool.submit(self.follow, reader) for reader in readers]
            sent = written = 0
            while written <= 10 * ROTATION_BYTES:
                specs = [{"name": f"{sent + n:08}" + "x" * 592, "force": True} for n in range(2000)]
                for outcome in self.client.call(DELETE_MANY, specs, self.volume.uuid):
                    self.assertEqual(outcome["error"], "Snapshot name is malformed")
                sent += len(specs)
                written = sent * last_record_bytes()
            self.client.call(DELETE_MANY, [{"name": THE_END, "force": True}], self.volume.uuid)
            for reader in seen:
                self.assertEqual(reader.result(helper.PATIENCE), list(range(sent)))
        archives = [name for name in os.listdir(ACTIVITY) if name.startswith("activity-")]
        self.assertEqual(len(archives), KEPT_ARCHIVES)

    @staticmethod
    def follow(reader):
        """The numbers of the records, in the order in which they came, up to the last one."""
        numbers = []
        for line in reader.stdout:
            detail = json.loads(line)["detail"]
            if detail == THE_END:
                return numbers
            numbers.append(int(detail[:8]))
        raise AssertionError(f"the reader ended: {reader.stderr.read()}")

    def make_snapshots(self, count):
        """Of the form and at the place of the service's own, by the kernel alone: name to XID."""
        self.client.delete(self.volume, self.client.create(self.volume, "makes the place"))
        names = [f"com.harrowfern.Quillmark.manual.2026-01-01T00-00-00Z.number-{n:05}" for n in range(count)]
        with self.volume.mounted_top_level() as top:
            place = self.volume.place(top)
            source, target = os.open(f"{top}{self.volume.subvolume}", os.O_RDONLY), os.open(place, os.O_RDONLY)
            try:
                with ThreadPoolExecutor(16) as pool:
                    list(pool.map(lambda name: fcntl.ioctl(target, _SNAP_CREATE_V2, bytearray(_VOL_ARGS.pack(
                        source, 0, _READ_ONLY, name.encode()))), names))
            finally:
                os.close(source)
                os.close(target)
            return {name: Subvolume(f"{place}/{name}").xid for name in names}


def last_record_bytes():
    with open(f"{ACTIVITY}/activity.log", "rb") as log:
        return len(log.readlines()[-1])


def events():
    with open(f"{ACTIVITY}/activity.log") as log:
        return [json.loads(line) for line in log]
