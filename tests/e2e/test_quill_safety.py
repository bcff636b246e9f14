"""Protection, tags and the audit trail, by the command line client against the real service."""

import json
import os
import pty
import signal
import subprocess
import threading
import time

import helper
from cases import HelperCase
from helper import quill, wait_until

ACTIVITY = "/var/lib/quillmark/activity.log"
PROTECTED = f"{helper.STATE}/protected.json"
REFUSAL = "Refusing to delete a protected snapshot. Use Force or unprotect it first."


class Following:
    """quill log --follow, its lines as they come."""

    def __init__(self, *words):
        # What a sanitized build has freed counts as freed.
        sanitizer = os.environ.get("ASAN_OPTIONS", "") + ":quarantine_size_mb=1:thread_local_quarantine_size_kb=64"
        self.process = subprocess.Popen([f"{helper.PROGRAMS}/quill", "log", "--follow", *words], stdin=subprocess.DEVNULL,
                                        stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                        env={**os.environ, "ASAN_OPTIONS": sanitizer})
        self.lines, self.thread = [], None

    def read(self):
        self.thread = threading.Thread(target=self._take, daemon=True)
        self.thread.start()
        return self

    def _take(self):
        for line in self.process.stdout:
            self.lines.append(line)

    def wait_for(self, count):
        wait_until(lambda: len(self.lines) >= count, f"{count} lines of the log, after {self.lines}")
        return self.lines

    def waits(self):
        """What it had to tell at once is told: from here on a signal doesn't end it by itself."""
        with open(f"/proc/{self.process.pid}/status") as status:
            blocked = next(int(line.split()[1], 16) for line in status if line.startswith("SigBlk:"))
        return blocked >> (signal.SIGINT - 1) & 1

    def end(self):
        wait_until(self.waits, "its waiting for more")
        self.process.send_signal(signal.SIGINT)
        status = self.process.wait(helper.PATIENCE)
        self.thread.join(helper.PATIENCE)
        errors = self.process.stderr.read()
        self.process.stdout.close()
        self.process.stderr.close()
        return status, errors


def record(detail):
    """A line of the activity log, as the service writes it."""
    return json.dumps({"id": "0F0E0D0C-0000-4000-8000-000000000001", "timestamp": "2026-03-01T09:00:00Z",
                       "kind": "setTag", "client": "cli", "user": "ida", "volumeName": "photos", "volumeUUID": "",
                       "detail": detail, "succeeded": True, "durationMs": 1}) + "\n"


class Safety(HelperCase):
    def on_photos(self, *words):
        return self.run_ok(*words, "-v", "photos")

    def test_what_is_protected_goes_by_force_alone_and_all_of_it_is_on_record(self):
        name = self.on_photos("create", "precious").strip()
        self.assertEqual(self.on_photos("protect", "precious"), name + "\n")
        self.assertIn(" protected", self.on_photos("list"))
        refused = quill("delete", "precious", "-v", "photos")
        self.assertEqual(refused.returncode, 4)
        self.assertIn(REFUSAL, refused.stderr)
        self.assertIn("quill unprotect precious", refused.stderr)
        self.assertRefused(1035, REFUSAL, self.client.delete, self.volume, name)
        self.assertEqual(self.names(), [name])

        self.on_photos("unprotect", "precious")
        self.on_photos("protect", "precious")
        self.on_photos("delete", "--force", "precious")
        self.assertEqual(self.names(), [])
        again = self.on_photos("create", "precious").strip()
        self.on_photos("delete", "precious")
        self.assertEqual(self.names(), [], "protection didn't outlive what it protected")

        told = [(line.split()[1], line.split()[2], line.split()[7]) for line in self.run_ok("log").splitlines()]
        told = [one for one in told if one[0] != "indexSnapshot"]  # comes when it comes, or not at all
        self.assertEqual(told, [("createSnapshot", "ok", name), ("setProtection", "ok", name),
                                ("deleteSnapshot", "failed", name), ("deleteSnapshot", "failed", name),
                                ("setProtection", "ok", name), ("setProtection", "ok", name),
                                ("deleteSnapshot", "ok", name), ("createSnapshot", "ok", again),
                                ("deleteSnapshot", "ok", again)])
        events = [json.loads(line) for line in self.run_ok("log", "--json", "--kind", "delete").splitlines()]
        self.assertEqual([event["detail"] for event in events], [name, name, f"{name} (force)", again])
        self.assertEqual(events[0]["errorMessage"], REFUSAL)
        self.assertEqual({event["client"] for event in events}, {"cli"})
        self.assertEqual({event["user"] for event in events}, {"root"})
        self.assertEqual(len(self.run_ok("log", "--failed", "-v", self.volume.path).splitlines()), 2)

    # Goal:   what can't be known is never taken for "nothing is protected".
    def test_a_store_of_rubbish_stops_every_deletion_and_stays_as_it_is(self):
        name = self.on_photos("create", "precious").strip()
        self.helper.kill()
        with open(PROTECTED, "w") as store:
            store.write("{rubbish")
        self.helper.start()
        for words in (["delete", "precious"], ["delete", "--force", "precious"], ["protect", "precious"]):
            done = quill(*words, "-v", "photos")
            self.assertEqual(done.returncode, 1, words)
            self.assertIn("Protection store exists but is unreadable", done.stderr)
        health = self.run_ok("health")
        [row] = [line for line in health.splitlines() if line.startswith("protection ")]
        self.assertTrue(row.startswith("protection unavailable Protection\\x20store\\x20exists"), health)
        with open(PROTECTED) as store:
            self.assertEqual(store.read(), "{rubbish")
        with self.assertRaisesRegex(helper.Refused, "Protection store exists but is unreadable"):
            self.connect().delete(self.volume, name, force=True)
        with self.volume.mounted_top_level() as top:
            self.assertEqual(os.listdir(self.volume.place(top)), [name])

    def test_quitting_is_asked_for_and_happens(self):
        self.assertIn("quits", self.run_ok("quit"))
        self.assertEqual(self.helper.wait(), 0)

    def test_a_person_is_asked_before_anything_is_deleted(self):
        self.on_photos("create", "precious")
        for answer, left in (("n\n", 1), ("\n", 1), ("y\n", 0)):
            ours, theirs = pty.openpty()
            process = subprocess.Popen([f"{helper.PROGRAMS}/quill", "delete", "precious", "-v", "photos"], stdin=theirs,
                                       stdout=subprocess.PIPE, stderr=theirs, text=True)
            os.close(theirs)
            said = b""
            while b"[y/N] " not in said:
                said += os.read(ours, 4096)
            self.assertEqual(len(self.names()), 1)
            os.write(ours, answer.encode())
            self.assertEqual(process.wait(helper.PATIENCE), left)
            process.stdout.close()
            os.close(ours)
            self.assertEqual(len(self.names()), left, said)


class LogFiles(HelperCase):
    def append(self, text, file=ACTIVITY):
        os.makedirs(os.path.dirname(file), exist_ok=True)
        with open(file, "a") as log:
            log.write(text)

    def rotate(self, number):
        os.rename(ACTIVITY, f"{os.path.dirname(ACTIVITY)}/activity-20260301-09000{number}.000-000{number}.log")

    def test_following_ends_when_nobody_reads_on(self):
        self.append(record("one"))
        following = Following()
        self.assertIn(" one ", following.process.stdout.readline())
        following.process.stdout.close()
        self.assertEqual(following.process.wait(helper.PATIENCE), 0)
        self.assertEqual(following.process.stderr.read(), "")
        following.process.stderr.close()

    # Goal:   a log as long as it gets is printed at once, and its end is found without holding the rest.
    # Method: nine files of 4 MiB; the first line's time is taken, and what a process holds that read all of them from a
    #         cursor on for the last ten records, against one that had a short log.
    def test_a_long_log_starts_at_once_and_its_end_takes_little_memory(self):
        self.append(record("short"))
        before = self.held_after(1)
        quill("log", "--cursor", "/tmp/seen")
        self.addCleanup(os.unlink, "/tmp/seen")
        for number in range(9):
            self.append("".join(record(f"{number}.{i}: {'x' * 60}") for i in range(15_000)))
            if number < 8:
                self.rotate(number)
        begun = time.monotonic()
        process = subprocess.Popen([f"{helper.PROGRAMS}/quill", "log"], stdout=subprocess.PIPE, text=True)
        process.stdout.readline()
        self.assertIn("0.0:", process.stdout.readline())
        self.assertLess(time.monotonic() - begun, 2, "the first lines")
        process.stdout.close()
        self.assertEqual(process.wait(helper.PATIENCE), 0)
        self.assertLess(self.held_after(10, "--cursor", "/tmp/seen"), before + (24 << 20))

    def held_after(self, count, *words):
        """The most memory of a process that has printed the last records."""
        following = Following("-n", str(count), *words).read()
        following.wait_for(count)
        with open(f"/proc/{following.process.pid}/status") as status:
            peak = next(int(line.split()[1]) << 10 for line in status if line.startswith("VmHWM:"))
        self.assertEqual(following.end(), (0, ""))
        return peak
