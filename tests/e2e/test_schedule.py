"""Automatic snapshots through two minutes of a real machine, from the command line to the disk."""

import datetime
import os
import time

from cases import HelperCase
from helper import ACTIVITY, FREE_SPACE, log, quill, records, wait_until
from volumes import REFERENCE_DATE

OWN = "com.harrowfern.Quillmark.auto."
CHANGED = "snapshotsChangedWithVolumeUUID:"
SPACE = "freeSpaceUpdateWithJsonStates:"
NEXT_TICK = 70.0  # the scheduler looks once a minute
PERIOD = {"freq": 900, "hourly": 3600}
TOLERANCE = 300  # of a slot, within which a snapshot bears the slot's time


def zone_of_another_date():
    """A zone in which it isn't the day that it is in UTC, nor within minutes of being so, and how far east it lies."""
    now = datetime.datetime.now(datetime.timezone.utc)
    return ("Pacific/Kiritimati", 14) if (now.hour, now.minute) >= (10, 10) else ("Pacific/Pago_Pago", -11)


def set_zone(name):
    os.symlink(f"/usr/share/zoneinfo/{name}", "/etc/localtime.new")
    os.rename("/etc/localtime.new", "/etc/localtime")


def utc(seconds):
    return datetime.datetime.fromtimestamp(seconds, datetime.timezone.utc)


class TwoMinutes(HelperCase):
    def setUp(self):
        set_zone("Etc/UTC")
        self.began = time.time()
        super().setUp()

    # Goal:   what was asked for is taken within the next minute and not again, told, recorded, kept in number.
    # Method: one helper through two minutes, since waiting is what this takes. One volume has just its first schedule. The
    #         other has more snapshots than its schedule keeps, and deletion is off for the first minute. The machine has
    #         come into another zone before that, where another day has begun.
    def test_schedules_are_kept_minute_by_minute(self):
        self.archive = self.make_volume("archive")
        old = [self.client.create(self.archive, "by hand"), *map(self.automatic, range(3))]
        self.enter_another_zone()
        listener = self.connect()
        self.wait_until_early_in_a_minute()
        asked = time.time()
        self.quill("schedule", "set", "--enable", "freq,hourly", "--disable", "daily", "-v", "photos")
        self.quill("settings", "set", "automaticDeletionEnabled", "false")
        self.quill("schedule", "set", "--keep", "hourly=1", "-v", "archive")

        first = wait_until(lambda: len(found := self.snapshots(self.volume)) == 2 and found, "two snapshots", NEXT_TICK, 0.1)
        archived = wait_until(lambda: self.kinds(self.archive) >= {"freq", "daily"} and self.names(volume=self.archive),
                              "those of the archive", pace=0.1)
        wait_until(lambda: len(self.taken(self.volume)) == 2 and {*archived} - {*old} <= {*self.taken(self.archive)},
                   "their records")
        with self.subTest("the first minute"):
            self.check_first(first, asked, listener)
        with self.subTest("deletion is off"):
            self.assertLessEqual(set(old), set(archived))
        with self.subTest("another zone"):
            self.check_zone()

        self.quill("settings", "set", "automaticDeletionEnabled", "true")
        self.quill("schedule", "set", "--tracked", "on", "-v", "archive")
        wait_until(lambda: not set(old[1:3]) & set(self.names(volume=self.archive)), "the rotation", NEXT_TICK, 0.1)
        time.sleep(2)  # for what isn't to come
        with self.subTest("the second minute"):
            self.check_second(first)
        with self.subTest("rotation"):
            self.check_rotation(archived)

    # All that is asked for comes well before the same tick, and that one comes well before its time is over.
    @staticmethod
    def wait_until_early_in_a_minute():
        if not 5 <= (second := time.time() % 60) <= 40:
            time.sleep((65 - second) % 60)

    def quill(self, *words):
        done = quill(*words)
        self.assertEqual(done.returncode, 0, f"{words}: {done.stdout}{done.stderr}")

    def automatic(self, number):
        name = f"{OWN}hourly.2026-03-01T09-15-{number:02}Z"
        self.archive.snapshot_at(f".quillmark/{self.archive.uuid}/{name}")
        return name

    def snapshots(self, volume):
        """Name and time of creation, the older one first."""
        return [(s["name"], s["createdAt"] + REFERENCE_DATE) for s in self.client.list(volume)]

    def kinds(self, volume):
        return {name.removeprefix(OWN).split(".")[0] for name in self.names(volume=volume)}

    @staticmethod
    def taken(volume):
        return {e["snapshotName"]: e["detail"] for e in records(ACTIVITY)
                if (e["kind"], e["client"], e["volumeUUID"].lower(), e["succeeded"]) ==
                ("createSnapshot", "helper", volume.uuid, True)}

    def enter_another_zone(self):
        zone, self.hours_east = zone_of_another_date()
        set_zone(zone)

    def check_first(self, first, asked, listener):
        details = self.taken(self.volume)
        self.assertEqual(sorted(details), sorted(name for name, _ in first))
        self.assertEqual({name.removeprefix(OWN).split(".")[0] for name, _ in first}, {"freq", "hourly"})
        for name, made in first:
            self.assertLessEqual(made, asked + 61)
            cadence, stamp = name.removeprefix(OWN).split(".")
            slot = made - made % PERIOD[cadence]
            self.assertIn(stamp, [utc(at).strftime("%Y-%m-%dT%H-%M-%SZ")
                                  for at in ([slot] if made - slot <= TOLERANCE else [made, made - 1])])
            late = "" if made - slot <= TOLERANCE else f" (catch-up for missed {self.shown(slot)} occurrence)"
            self.assertEqual(details[name], f"scheduled {cadence}{late}")
        wait_until(lambda: [self.volume.uuid] in listener.pushed(CHANGED), "the notice of the change")
        wait_until(lambda: listener.pushed(SPACE), "the space of the volumes")
        thresholds = {s["volumeUUID"].lower(): s["lowSpaceBytesThreshold"] for s in self.client.call(FREE_SPACE)}
        self.assertEqual(thresholds[self.volume.uuid], 30_000_000_000)

    def shown(self, seconds):
        local = utc(seconds) + datetime.timedelta(hours=self.hours_east)
        return local.strftime("%b %-d, %Y, %-I:%M %p")

    # The calendar's day began at another moment, and on another date; the log tells the time of the new place.
    def check_zone(self):
        [detail] = [detail for name, detail in self.taken(self.archive).items() if f"{OWN}daily." in name]
        now = time.time()
        midnight = now - (now + self.hours_east * 3600) % 86400
        self.assertEqual(detail, f"scheduled daily (catch-up for missed {self.shown(midnight)} occurrence)")
        self.assertNotEqual(utc(now).date(), (utc(midnight) + datetime.timedelta(hours=self.hours_east)).date())
        [started, *_, last] = [line[1:17] for line in log().splitlines()]
        self.assertIn(started[:10], [utc(at).strftime("%Y-%m-%d") for at in (self.began, now)])
        self.assertIn(last, [(utc(at) + datetime.timedelta(hours=self.hours_east)).strftime("%Y-%m-%d %H:%M")
                             for at in (now, now - 60)])

    # What isn't hourly stays. A slot of 15 minutes may have begun meanwhile.
    def check_rotation(self, before):
        after = self.names(volume=self.archive)
        self.assertEqual(sum(name.startswith(f"{OWN}hourly.") for name in after), 1)
        others = [name for name in before if ".hourly." not in name]
        self.assertEqual([name for name in after if name in others], others)
        more = [name for name in after if ".hourly." not in name and name not in others]
        self.assertLessEqual(len(more), 1)
        self.assertTrue(all(name.startswith(f"{OWN}freq.") for name in more), more)

    # One for each slot that began meanwhile, which mostly is none.
    def check_second(self, first):
        more = sum(time.time() // period > first[0][1] // period for period in PERIOD.values())
        wait_until(lambda: len(self.taken(self.volume)) >= 2 + more, "those of new slots")
        snapshots = self.snapshots(self.volume)
        self.assertEqual(snapshots[:2], first)
        self.assertEqual(len(snapshots), 2 + more)
        self.assertEqual(len(self.taken(self.volume)), 2 + more)
