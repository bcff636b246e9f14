"""The helper killed by force in the midst of its work, again and again: what it acknowledged is there afterwards."""

import json
import os
import random
import signal
import threading

from cases import HelperCase
from helper import CREATE, DELETE, HEALTH, LIST, Client, Refused

PROTECT = "setProtectedWithName:onVolume:isProtected:reply:"
TAG = "setSnapshotTagWithName:onVolume:tag:reply:"
ACTIVITY = "/var/lib/quillmark"
TIMES = int(os.environ.get("QUILLMARK_KILLS", "50"))
MOST_SNAPSHOTS = 12


class Known:
    """What the answers told so far. A call without an answer leaves its snapshot either way."""

    def __init__(self):
        self.snapshots = {}  # name -> {"protected": .., "tag": ..}
        self.acknowledged = []  # (kind, name, detail) of the records that must be in the log
        self.unsure = None  # (operation, name, value) that was under way

    def settle(self, listed):
        """Takes over what the call under way turned out to have done."""
        if self.unsure is None:
            return
        operation, name, value = self.unsure
        self.unsure = None
        if operation == "create":
            new = sorted(set(listed) - set(self.snapshots))
            assert len(new) <= 1, new
            self.snapshots.update((one, {"protected": False, "tag": None}) for one in new)
        elif operation == "delete":
            if name not in listed:
                del self.snapshots[name]
        elif name in listed:
            self.snapshots[name][operation] = listed[name][operation]


class Killed(HelperCase):
    # Goal:   a kill -9 at any moment of a stream of creates, deletes, protects and tags loses nothing that was answered:
    #         stores load, changes are there, audit records are in the log.
    # Method: a thread kills at a random moment while calls go on; after each restart the listing and the log are compared
    #         with what was answered. One call may have been under way: it is there or not, nothing between.
    def test_what_was_answered_is_there_after_every_kill(self):
        seed = int(os.environ.get("QUILLMARK_SEED", random.randrange(1 << 32)))
        chance, known = random.Random(seed), Known()
        for turn in range(TIMES):
            self.work_until_killed(known, chance, chance.uniform(0.0, 0.2))
            self.helper.start()
            with Client() as client:
                self.compare(client, known, f"QUILLMARK_SEED={seed}, kill {turn}")
        # Else the kills all came before the first answers.
        self.assertGreater(len(known.acknowledged), 2 * TIMES, f"QUILLMARK_SEED={seed}")

    def work_until_killed(self, known, chance, delay):
        with Client() as client:
            killer = threading.Timer(delay, os.kill, (self.helper.pid, signal.SIGKILL))
            killer.start()
            try:
                while True:
                    self.one_change(client, known, chance)
            except ConnectionError:
                pass
            finally:
                killer.join()
                self.helper.kill()

    def one_change(self, client, known, chance):
        names = sorted(known.snapshots)
        operation = chance.choice(["create", "delete", "protected", "tag"]) if names else "create"
        if len(names) >= MOST_SNAPSHOTS:
            operation = "delete"
        uuid, name = self.volume.uuid, chance.choice(names) if names else None
        if operation == "create":
            label = f"l{chance.randrange(1000)}"
            known.unsure = ("create", None, None)
            name = client.call(CREATE, uuid, label)
            known.snapshots[name] = {"protected": False, "tag": None}
            known.acknowledged.append(("createSnapshot", name, label))
        elif operation == "delete":
            self.delete(client, known, name, chance.random() < 0.5)
        elif operation == "protected":
            wanted = chance.random() < 0.6
            known.unsure = ("protected", name, wanted)
            client.call(PROTECT, name, uuid, wanted)
            known.snapshots[name]["protected"] = wanted
            known.acknowledged.append(("setProtection", name, "protected" if wanted else "unprotected"))
        else:
            tag = chance.choice(["", "keep", "ümlaut " * chance.randrange(1, 90)])
            known.unsure = ("tag", name, tag)
            client.call(TAG, name, uuid, tag)
            known.snapshots[name]["tag"] = tag or None
            length = len(tag.encode())
            known.acknowledged.append(("setTag", name, f"tag set ({length} bytes)" if tag else "tag cleared"))
        known.unsure = None

    def delete(self, client, known, name, force):
        known.unsure = ("delete", name, force)
        try:
            client.call(DELETE, name, self.volume.uuid, force)
        except Refused as refused:
            self.assertEqual(refused.code, 1035, refused)
            self.assertTrue(known.snapshots[name]["protected"] and not force, (name, refused))
            return
        self.assertTrue(force or not known.snapshots[name]["protected"], f"{name} was protected")
        del known.snapshots[name]
        known.acknowledged.append(("deleteSnapshot", name, name + " (force)" if force else name))

    def compare(self, client, known, when):
        health = client.call(HEALTH)
        for part in ("protection", "audit"):
            self.assertEqual(health[part]["state"], "healthy", (when, health))
        listed = {s["name"]: {"protected": s["isProtected"], "tag": s.get("tag")}
                  for s in client.call(LIST, self.volume.uuid, False, False)}
        known.settle(listed)
        self.assertEqual(listed, known.snapshots, when)
        written = {(event["kind"], event.get("snapshotName"), event["detail"]) for event in events() if event["succeeded"]}
        missing = [record for record in known.acknowledged if record not in written]
        self.assertEqual(missing, [], when)


def events():
    """The records of all files of the log, the oldest first; a torn line is none."""
    names = sorted(n for n in os.listdir(ACTIVITY) if n.startswith("activity-")) + ["activity.log"]
    for name in names:
        with open(f"{ACTIVITY}/{name}", "rb") as file:
            for line in file:
                try:
                    yield json.loads(line)
                except ValueError:
                    continue
