"""Numbers beyond the everyday: an audit trail through many rotations, readers beside it."""

import json
import os
import subprocess
from concurrent.futures import ThreadPoolExecutor

import helper
from cases import HelperCase

DELETE_MANY = "deleteSnapshotsWithSpecsJSON:onVolume:reply:"
ACTIVITY = "/var/lib/quillmark"
ROTATION_BYTES = 4 << 20
KEPT_ARCHIVES = 8
THE_END = "there never was a snapshot of this name"


class Many(HelperCase):
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


def last_record_bytes():
    with open(f"{ACTIVITY}/activity.log", "rb") as log:
        return len(log.readlines()[-1])
