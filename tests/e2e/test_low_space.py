"""Volumes without a free byte: what goes, what stays, and what is told of it."""

import os

import volumes
from cases import HelperCase
from helper import ACTIVITY, FREE_SPACE, HEALTH, NOTICES, records, wait_until

GIB = 1 << 30
OWN = "com.harrowfern.Quillmark."
EVENT = "scheduleEventWithVolumeUUID:cadenceRaw:eventRaw:message:"
PRUNED = ("Pruned because volume free space ({}) is below the configured minimum ({}). Oldest non-held snapshot first; the "
          "newest snapshot of each cadence is kept.")
NOTHING_TO_PRUNE = ("On {}, free space is below 10 GB but no snapshots can be pruned. The rest are protected, in use, or the "
                    "newest of their kind. Consider unprotecting older snapshots or freeing space manually.")
ONE_PASS = 90.0  # four deletions with twelve seconds for each; a minute's start comes earlier


class LowSpace(HelperCase):
    # Goal:   on a full volume goes what is needed and no more, oldest first; what must stay stays; all of it is told.
    # Method: one helper watches volumes that are full to the last block, each in its own way. The schedules and snapshots
    #         are there before it starts; then its own ticks, five seconds after each start and each minute, do the rest.
    def test_full_volumes_lose_what_is_needed_and_keep_what_must_stay(self):
        self.make_volumes()
        self.make_snapshots()
        self.before = {volume.name: [s["name"] for s in self.client.list(volume)] for volume in self.made}
        self.helper.kill()
        for volume in self.made:
            volume.fill()
        self.tight.fill_with_names()
        self.assertEqual([volume.free_bytes() for volume in self.made], [0] * len(self.made))

        self.restart()
        for volume in (self.held, self.generous):
            self.client.schedule(volume, enabledCadences=["freq"])
        wait_until(lambda: self.events(self.tight, "prune_completed") and self.events(self.held, "skipped_low_space") and
                   len(self.names(volume=self.generous)) > 1, "the first pass and the first minute", ONE_PASS, 0.1)
        for check in (self.check_enough, self.check_tight, self.check_held, self.check_single, self.check_generous,
                      self.check_neighbours, self.check_health):
            with self.subTest(check.__name__):
                check()

        self.restart()
        newest = self.before["tight"][5:]
        wait_until(lambda: self.names(volume=self.tight) == newest, "the second pass", pace=0.1)
        self.restart()
        wait_until(lambda: self.events(self.tight, "no_prune_candidates"), "the third pass", pace=0.1)
        self.assertEqual(self.names(volume=self.tight), newest)

    def make_volumes(self):
        self.enough = self.volume                               # two deletions bring it above its minimum
        self.tight = self.make_volume("tight", size=256 << 20)  # can't reach its minimum, and has no room for metadata
        self.held = self.make_volume("held")                    # nothing on it may go
        self.single = self.make_volume("single", size=256 << 20)
        self.generous = self.make_volume("generous")            # loses nothing for want of space
        self.left = self.make_volume("left")                    # two share a file system
        self.right = volumes.Neighbour("right", self.left)
        self.made.insert(0, self.right)
        self.run_ok("settings", "set", "indexingMode", "disabled")  # a snapshot that is being read is in use
        for volume in self.made:
            self.client.schedule(volume, enabledCadences=[], lowSpaceBytes=10_000_000_000)
        self.client.schedule(self.generous, pruneOnLowSpace=False)

    def make_snapshots(self):
        ballast = 6 * GIB
        self.holding(ballast, self.protected, self.enough)
        self.holding(ballast, self.foreign, self.enough)
        self.holding(ballast, self.client.create, self.enough, "first")
        self.holding(ballast, self.automatic, self.enough, "daily", 1)
        self.holding(ballast, self.automatic, self.enough, "daily", 2)
        self.holding(ballast, self.client.create, self.enough, "last")
        for number in range(5):
            self.client.create(self.tight, f"{number}")
        self.automatic(self.tight, "hourly", 1)
        self.protected(self.held)
        self.foreign(self.held)
        mounted = self.client.create(self.held, "mounted")
        self.client.mount(self.held, mounted, self.client.list(self.held)[-1]["xid"])
        self.automatic(self.held, "hourly", 1)
        self.client.create(self.single, "the only one")
        self.client.create(self.generous, "old")

        for number in range(2):
            for volume in (self.left, self.right):
                self.holding(2 * ballast, self.client.create, volume, f"{number}")

    @staticmethod
    def holding(size, take, volume, *arguments):
        """A snapshot whose deletion gives so much back."""
        volume.reserve("ballast", size)
        take(volume, *arguments)
        os.unlink(f"{volume.path}/ballast")

    def protected(self, volume):
        self.run_ok("protect", self.client.create(volume, "protected"), "-v", volume.name)

    @staticmethod
    def foreign(volume):
        volume.snapshot_at("backups/nightly")

    @staticmethod
    def automatic(volume, cadence, number):
        volume.snapshot_at(f"{volume.place('')}/{OWN}auto.{cadence}.2026-03-01T09-15-{number:02}Z".lstrip("/"))

    def restart(self):
        self.helper.kill()
        self.helper.start()
        self.client = self.connect()

    def events(self, volume, kind):
        """What was broadcast of a volume, as cadence and message, since the helper started."""
        return [(cadence, message) for uuid, cadence, event, message in self.client.pushed(EVENT)
                if (uuid.lower(), event) == (volume.uuid, kind)]

    @staticmethod
    def deleted(volume):
        return [(e["snapshotName"], e["detail"]) for e in records(ACTIVITY)
                if (e["kind"], e["volumeUUID"].lower()) == ("deleteSnapshot", volume.uuid)]

    @staticmethod
    def notices(volume, category):
        return [notice for notice in records(NOTICES)
                if (notice["category"], notice["volumeUUID"].lower()) == (category, volume.uuid)]

    def check_enough(self):
        before = self.before["photos"]
        gone, kept = before[2:4], before[:2] + before[4:]
        self.assertEqual(self.names(volume=self.enough), kept)
        self.assertEqual(self.enough.free_bytes(), 12 * GIB)
        self.assertEqual(self.deleted(self.enough),
                         [(gone[0], PRUNED.format("Zero KB", "10 GB")), (gone[1], PRUNED.format("6.44 GB", "10 GB"))])
        told = ("Quillmark pruned 2 snapshots on photos (1 automatic, 1 manual). Reason: low free space (recovered 12.88 GB "
                "so far; APFS may release more shortly). Snapshots can't be recovered.")
        self.assertEqual(self.events(self.enough, "prune_completed"), [("", told)])
        self.assertEqual([n["message"] for n in self.notices(self.enough, "prune")], [told])

    # A second pass may stand in the queue behind the first: mounts that go bring about ticks too.
    def check_tight(self):
        first, *_ = self.events(self.tight, "prune_completed")
        self.assertIn("pruned 4 snapshots on tight (4 manual)", first[1])
        before, now = self.before["tight"], self.names(volume=self.tight)
        self.assertEqual([name for name, _ in self.deleted(self.tight)], before[:len(before) - len(now)])
        self.assertEqual(now, before[len(before) - len(now):])

    def check_held(self):
        self.assertEqual(self.names(volume=self.held), self.before["held"])
        self.check_nothing_went(self.held)
        [(cadence, message)] = self.events(self.held, "skipped_low_space")
        self.assertEqual((cadence, message), ("freq", "Skipped freq snapshot on held: free Zero KB is below minimum 10 GB"))
        tried = [(e["detail"], e["succeeded"], e["errorMessage"]) for e in records(ACTIVITY)
                 if (e["kind"], e["client"], e["volumeUUID"].lower()) == ("createSnapshot", "helper", self.held.uuid)]
        self.assertEqual(tried, [("scheduled freq skipped (low space)", False, message)])

    def check_single(self):
        self.assertEqual(self.names(volume=self.single), self.before["single"], "the last one")
        self.check_nothing_went(self.single)

    def check_nothing_went(self, volume):
        told = NOTHING_TO_PRUNE.format(volume.name)
        self.assertEqual(self.events(volume, "no_prune_candidates"), [("", told)])
        [notice] = self.notices(volume, "lowSpace")
        self.assertEqual((notice["title"], notice["message"], notice["importance"], notice["dedupeKey"]),
                         ("Quillmark can't free more space", told, "critical", "noPruneCandidates:" + volume.uuid))

    def check_generous(self):
        [old, new] = self.names(volume=self.generous)
        self.assertEqual([old], self.before["generous"])
        self.assertIn(".auto.freq.", new)
        [space] = [s for s in self.client.call(FREE_SPACE) if s["volumeUUID"].lower() == self.generous.uuid]
        self.assertEqual((space["freeBytes"], space.get("nextPruneCheckAt")), (0, None))

    # What one gives back, the other needn't.
    def check_neighbours(self):
        self.assertEqual(self.left.free_bytes(), 12 * GIB)
        [(gone, _)] = self.deleted(self.left) + self.deleted(self.right)
        self.assertIn(gone, [self.before[side][0] for side in ("left", "right")])

    # Its own files lie elsewhere.
    def check_health(self):
        health = self.client.call(HEALTH)
        for part in ("schedules", "settings", "protection", "audit", "scheduler"):
            self.assertEqual(health[part], {"state": "healthy"}, part)
