"""Schedules, settings and the plan, as the client shows them of the real service."""

import json
import signal
import subprocess

from cases import HelperCase
from helper import PROGRAMS, quill


class QuillSchedule(HelperCase):
    def run_ok(self, *words, **options):
        done = quill(*words, **options)
        self.assertEqual(done.returncode, 0, f"{words}: {done.stdout}{done.stderr}")
        return done.stdout

    def test_a_schedule_is_stored_as_it_was_asked_for_and_outlives_the_service(self):
        self.assertEqual(self.run_ok("schedule", "-v", "photos"), "schedule none - -\n")
        stored = self.run_ok("schedule", "on", "--disable", "freq", "--keep", "hourly=12", "-v", "photos")
        self.assertIn("hourly on 12 -\n", stored)
        self.assertIn("freq off 4 ", stored)
        self.helper.kill()
        self.helper.start()
        self.assertEqual(self.run_ok("schedule", "-v", "photos"), stored)
        self.assertIn("schedule off - ", self.run_ok("schedule", "off", "-v", "photos"))

    def test_settings_change_one_by_one(self):
        before = json.loads(self.run_ok("settings", "--json"))
        self.run_ok("settings", "set", "automaticDeletionEnabled", "false")
        after = json.loads(self.run_ok("settings", "--json"))
        self.assertEqual(after, before | {"automaticDeletionEnabled": False})

    def test_the_plan_tells_the_end_of_each_snapshot(self):
        self.run_ok("create", "by hand", "-v", "photos")
        self.run_ok("safety", "risky", "-v", "photos")
        self.run_ok("schedule", "on", "-v", "photos")
        plan = json.loads(self.run_ok("plan", "--json", "-v", "photos"))
        ends = {each["kind"]: each["expiry"]["case"] for each in plan}
        self.assertEqual(ends["manual"], "whenSpaceLow")
        self.assertEqual(ends["safety"], "at")

    def test_watch_tells_of_a_snapshot_and_ends_at_an_interrupt(self):
        watching = subprocess.Popen([f"{PROGRAMS}/quill", "watch"], stdout=subprocess.PIPE, text=True)
        self.addCleanup(watching.stdout.close)
        self.addCleanup(watching.kill)
        line, number = "", 0
        while " snapshots " not in line:
            number += 1  # a label of its own: there may be many in one second
            self.run_ok("create", f"seen-{number}", "-v", "photos")
            line = watching.stdout.readline()
        self.assertIn(f" snapshots photos {self.volume.uuid} changed", line)
        watching.send_signal(signal.SIGINT)
        self.assertEqual(watching.wait(10), 0)
