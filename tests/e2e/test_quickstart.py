"""./quickstart, as somebody meets it on his own machine."""

import os
import random
import shutil
import signal
import subprocess
import unittest
from pathlib import Path

import helper
import sandbox
from volumes import mounts

PROJECT = Path(__file__).resolve().parent.parent.parent
HOME = Path("/srv/quillmark")
# What the machine had before; all that may be there afterwards.
INSTALLED = "/usr/local/lib/quillmark-quickstart"
WATCHED = ("/Volumes", "/var/db", "/var/lib/quillmark", "/run/com.harrowfern.quillmark", helper.LOG, INSTALLED,
           str(HOME / ".quickstart"))
VISITOR, GROUPS = "quillmark-demo", ("quillmark", "quillmark-client")


def is_known(database, name):
    return subprocess.run(["getent", database, name], capture_output=True).returncode == 0


def helpers():
    found = []
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            if os.readlink(f"/proc/{pid}/exe").startswith(helper.PROGRAMS + "/quillmark-helper"):
                found.append(int(pid))
        except OSError:
            pass
    return found


def traces():
    return ([path for path in WATCHED if os.path.exists(path)] + helpers() +
            [m.path for m in mounts() if m.kind == "btrfs"] +
            [name for name in GROUPS if is_known("group", name)] + [VISITOR] * is_known("passwd", VISITOR) +
            [line for line in sandbox.run("losetup", "--all").decode().splitlines() if str(HOME) in line])


class Quickstart(unittest.TestCase):
    def setUp(self):
        shutil.rmtree(HOME, ignore_errors=True)
        (HOME / "tools").mkdir(parents=True)
        for name in GROUPS:
            subprocess.run(["groupdel", name], capture_output=True)
        for name in ("quickstart", "tools/install-dependencies", "tools/install-local"):
            shutil.copy2(PROJECT / name, HOME / name)
        for path in ("/Volumes", "/var/db"):
            shutil.rmtree(path, ignore_errors=True)
        self.assertEqual(traces(), [])
        self.addCleanup(self.clean)

    def start(self, *options):
        return subprocess.Popen(["./quickstart", "--programs", helper.PROGRAMS, *options], cwd=HOME, stdin=subprocess.DEVNULL,
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, start_new_session=True)

    def clean(self):
        done = subprocess.run(["./quickstart", "--clean"], cwd=HOME, capture_output=True, text=True, timeout=90)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        return done.stdout

    def walk(self, *options):
        said, _ = (process := self.start(*options)).communicate(timeout=180)
        self.assertEqual(process.returncode, 0, said)
        return said

    def test_it_walks_through_leaves_a_helper_and_takes_everything_away_again(self):
        said = self.walk()
        self.assertIn("auto.hourly.", said)
        self.assertEqual(said.count("Dear Ida"), 2, said)
        self.assertRegex(said.replace(r"\x20", " "),
                         r"Quillmark pruned 1 snapshot on data \(1 manual\)\. Reason: low free space \(recovered 21\.\d+ GB")
        for told in ("added file /garden/seeds.txt", "deleted file /garden/weather.txt", "modified file /garden/beds.txt",
                     "replaced symlink /garden/plan.txt", "moved file /garden/tools.txt /garden/shed.txt",
                     "Refusing to delete a protected snapshot", "(exit code 4)", "with the letter", "you (quillmark-demo) are none",
                     f"{VISITOR} ", "(force)"):
            self.assertIn(told, said)
        self.assertFalse(is_known("passwd", VISITOR), "it leaves with the walk")
        [pid] = helpers()
        self.assertIn(f"(pid {pid})", said)
        again = self.walk("--brief")  # takes the first one away by itself
        self.assertIn("An earlier quickstart left something behind", again)
        self.assertEqual(len(helpers()), 1)
        self.clean()
        self.assertEqual(traces(), [])
        self.assertEqual(self.clean(), "There is nothing to take away.\n")

    # Goal:   killed at any moment it can be cleaned away without a trace.
    # Method: kill it, with what it runs but for the helper, behind its n-th line of output.
    def test_killed_anywhere_it_is_cleaned_away_without_a_trace(self):
        draw = random.Random(7)
        for line in [4, 5, 6, 7, *(draw.randrange(8, 150) for _ in range(6))]:
            with self.subTest(line=line):
                process = self.start("--brief")
                for _ in range(line):
                    process.stdout.readline()
                os.killpg(process.pid, signal.SIGKILL)
                process.wait()
                process.stdout.close()
                self.clean()
                self.assertEqual(traces(), [])

    def test_a_user_and_groups_that_were_there_before_stay(self):
        for name in GROUPS:
            sandbox.run("groupadd", "--system", name)
        sandbox.run("useradd", "--system", "-M", VISITOR)
        self.addCleanup(sandbox.run, "userdel", VISITOR)
        self.assertIn("left out: the user quillmark-demo", self.walk("--brief"))
        self.clean()
        self.assertTrue(is_known("passwd", VISITOR))
        for name in GROUPS:
            sandbox.run("groupdel", name)

    def test_what_was_there_before_stays(self):
        kept = ("/Volumes/own/file", "/var/db/other/file", "/var/lib/quillmark/notes.txt", f"{helper.STATE}/settings.json")
        for path in kept:
            os.makedirs(os.path.dirname(path), exist_ok=True)
            Path(path).write_text("{}\n")
        self.walk("--brief")
        self.clean()
        for path in kept:
            self.assertTrue(os.path.exists(path), path)
            shutil.rmtree(os.path.dirname(path))

    def test_it_refuses_politely_while_another_helper_serves(self):
        with helper.Helper() as other:
            process = self.start()
            said, _ = process.communicate(timeout=90)
            self.assertEqual(process.returncode, 1)
            self.assertIn("a helper already runs on this machine", said)
            self.assertFalse((HOME / ".quickstart").exists())
            self.assertIsNone(other.process.poll())
        helper.forget()
        shutil.rmtree("/var/db")
