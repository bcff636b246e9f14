"""The ground that the tests stand on: volumes of their own, a helper, and a connection to it."""

import os
import random
import unittest

import helper
import sandbox
import volumes


class HelperCase(unittest.TestCase):
    """Each test gets fresh volumes and a helper on its first day; a failure shows the helper's log."""

    def setUp(self):
        self.made = []
        self.volume = self.make_volume("photos")
        self.helper = helper.Helper()
        self.addCleanup(self.take_down)
        self.helper.start()
        self.client = self.connect()

    def make_volume(self, name, *layout, **shape):
        volume = volumes.Volume(name, *layout, **shape)
        self.made.append(volume)
        return volume

    def connect(self):
        client = helper.Client()
        self.addCleanup(client.close)
        return client

    def take_down(self):
        self.helper.kill()
        for entry in volumes.mounts():
            if entry.path.startswith("/Volumes/"):
                sandbox.detach(entry.path)
                os.rmdir(entry.path)
        with_quotas = [volume.name for volume in self.made if volume.has_quotas()]
        for volume in self.made:
            volume.destroy()
        helper.forget()
        self.assertEqual(with_quotas, [], "nothing that the service does switches quotas on")

    def run(self, result=None):
        before = len(result.failures) + len(result.errors)
        super().run(result)
        if len(result.failures) + len(result.errors) > before:
            print(f"--- the helper's log during {self.id()}\n{self.last_log}\n---", flush=True)

    def doCleanups(self):
        self.last_log = helper.log()
        return super().doCleanups()

    def assertRefused(self, code, text, call, *arguments, **named):
        with self.assertRaises(helper.Refused) as caught:
            call(*arguments, **named)
        self.assertEqual((caught.exception.domain, caught.exception.code, caught.exception.text),
                         ("com.harrowfern.quillmark.Error", code, text))

    def run_ok(self, *words, **options):
        """What quill prints, which goes well."""
        done = helper.quill(*words, **options)
        self.assertEqual(done.returncode, 0, f"{words}: {done.stdout}{done.stderr}")
        return done.stdout

    def indexed(self, volume=None):
        """The listing, once it is indexed whole; else nothing."""
        listed = self.client.list(volume or self.volume)
        return listed if all(snapshot["isIndexed"] for snapshot in listed) else None

    def names(self, client=None, volume=None):
        return [snapshot["name"] for snapshot in (client or self.client).list(volume or self.volume)]


class RandomCase(HelperCase):
    """Work that a seed draws, on a volume of either layout. QUILLMARK_SEED brings it back."""

    def draw(self, leave_out=()):
        seed = int(os.environ.get("QUILLMARK_SEED", random.randrange(1 << 32)))
        print(f"QUILLMARK_SEED={seed}", flush=True)
        self.chance, self.made_snapshots = random.Random(seed), 0
        if self.chance.random() < 0.5:
            self.volume = self.make_volume("whole", top_level=True)
        settings = self.client.call(helper.GET_SETTINGS)
        settings.update(excludedPathRules=[], excludedDirectoryNames=[os.fsdecode(name) for name in leave_out])
        self.client.call(helper.SET_SETTINGS, settings)

    def create(self):
        self.made_snapshots += 1
        return self.client.create(self.volume, f"n{self.made_snapshots}")  # many in a second

    def indexed_xids(self):
        return set(self.client.call(helper.INDEXED, self.volume.uuid))


class OnBothLayouts:
    """The test runs on a volume that is a subvolume and on one that is its file system's top level."""

    def on_both_layouts(self, test):
        for volume in (self.volume, self.make_volume("archive", top_level=True)):
            with self.subTest(layout="top level" if volume.is_top_level else "subvolume"):
                test(volume)
