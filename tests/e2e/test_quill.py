"""The command line client, as a person uses it."""

import json
import os

from cases import HelperCase


class Quill(HelperCase):
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
