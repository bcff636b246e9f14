"""What an index leaves out: what the service itself writes, and what programs keep in homes only for themselves."""

import os

import helper
from cases import HelperCase
from helper import wait_until
from test_index import History


class OwnChanges(HelperCase):
    # The service's state, its logs and the homes lie on volumes that it snapshots, as they do on most machines.
    def setUp(self):
        self.made = []
        self.volume, self.people = self.make_volume("machine"), self.make_volume("people")
        for volume, path in ((self.volume, "/var"), (self.people, "/home")):
            volume.unmount()
            volume.mount(path)
        for folder in ("db", "lib", "log"):
            os.makedirs(f"/var/{folder}")
        self.helper = helper.Helper()
        self.addCleanup(self.take_down)
        self.helper.start()
        self.client = self.connect()

    def snapshot(self, volume, label):
        self.client.create(volume, label)
        return wait_until(lambda: self.indexed(volume), "the index of every snapshot")[-1]["xid"]

    def test_an_idle_machine_shows_no_change_of_our_own_making(self):
        os.makedirs("/var/spool")
        with open("/var/spool/letter", "w") as letter:
            letter.write("Dear Ida")
        # The first one makes the files of the shared folder.
        first, *others = [self.snapshot(self.volume, label) for label in ("one", "two", "three", "four")]
        history = History(self.volume)
        history.check(self)
        self.assertEqual(first, history.baseline)
        self.assertIn("/spool/letter", history.head_tree)
        self.assertLessEqual(history.changed_at(others[0]), {"/lib/quillmark"})
        self.assertEqual([history.changed_at(xid) for xid in others[1:]], [set(), set()])
        ours = {path for path in history.head_tree if "quillmark" in path.lower()}
        self.assertEqual(ours, {"/lib/quillmark"}, "neither state nor logs")

    def test_homes_on_a_volume_of_their_own_lose_their_caches(self):
        kept, cache = "/home/ida/letters", "/home/ida/.cache/browser"
        for folder in (kept, cache, "/home/.cache"):
            os.makedirs(folder)
            with open(f"{folder}/file", "w") as file:
                file.write("1")
        self.snapshot(self.people, "one")
        for folder in (kept, cache):
            with open(f"{folder}/file", "a") as file:
                file.write("2")
        self.snapshot(self.people, "two")
        history = History(self.people)
        self.assertEqual(set(history.baseline_tree), {"/", "/.cache", "/.cache/file", "/ida", "/ida/letters",
                                                      "/ida/letters/file", "/ida/.cache"})
        self.assertEqual({path for _, path, *_ in history.changes}, {"/ida/letters/file"})
