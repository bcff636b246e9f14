"""The command line client, as a person uses it."""

import json
import os

from cases import HelperCase
from helper import quill


class Quill(HelperCase):
    def run_ok(self, *words, **options):
        done = quill(*words, **options)
        self.assertEqual(done.returncode, 0, f"{words}: {done.stdout}{done.stderr}")
        return done.stdout

    def test_the_whole_way_from_a_snapshot_to_its_end(self):
        self.volume.write("letter.txt", "Dear Ida")
        name = self.run_ok("create", "before the mishap", cwd=self.volume.path).strip()
        self.assertEqual(self.names(), [name])
        self.volume.write("letter.txt", "spoilt")
        path = self.run_ok("mount", "before-the-mishap", "-v", "photos").strip()
        with open(f"{path}/letter.txt") as letter:
            self.assertEqual(letter.read(), "Dear Ida")
        self.assertIn(name, self.run_ok("list", "-v", self.volume.path))
        [listed] = json.loads(self.run_ok("list", "--json", "-v", self.volume.uuid))
        self.assertEqual(listed, self.client.list(self.volume)[0])
        self.run_ok("unmount", "latest", "-v", "photos")
        self.assertFalse(os.path.exists(path))
        self.run_ok("delete", "latest", "-v", "photos")
        self.assertEqual(self.names(), [])

    def test_exit_codes_tell_what_kind_of_failure_it_was(self):
        self.volume.snapshot_at("foreign one")
        table = [
            (0, ["version"]), (0, ["health"]), (0, ["volumes"]),
            (0, ["call", "protocolVersionWithReply:"]),
            (2, ["no-such-command"]), (2, ["create", "a/b", "-v", "photos"]),
            (2, ["call", "listSnapshotsOnVolume:includeSizes:forceSizeRefresh:reply:", '"malformed"', "false", "false"]),
            (4, ["delete", ":foreign one", "-v", "photos"]),
            (0, ["delete", ":foreign one", "--force", "-v", "photos"]),
            (1, ["delete", "gone", "-v", "photos"]),
        ]
        for status, words in table:
            with self.subTest(words=words):
                done = quill(*words)
                self.assertEqual(done.returncode, status, done.stdout + done.stderr)
                self.assertTrue((done.stdout if status == 0 else done.stderr).strip())
        self.helper.kill()
        self.assertEqual(quill("health").returncode, 3)
