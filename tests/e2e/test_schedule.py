"""Automatic snapshots, from a client's policy to the disk."""

import json
import re

import helper
from cases import HelperCase

SET_SCHEDULE = "setScheduleForVolume:policyJSON:reply:"
GET_SCHEDULE = "getScheduleForVolume:reply:"
FREE_SPACE = "getFreeSpaceStatesWithReply:"
ACTIVITY = "/var/lib/quillmark/activity.log"

AUTOMATIC = r"^com\.harrowfern\.Quillmark\.auto\.(freq|hourly)\.\d{4}-\d\d-\d\dT\d\d-\d\d-\d\dZ$"
NEXT_TICK = 70.0  # the scheduler looks once a minute


def activity():
    with open(ACTIVITY) as file:
        return [json.loads(line) for line in file]


def pushes_until(client, selector, params):
    """The selectors of all that is pushed up to this one."""
    client.socket.settimeout(NEXT_TICK)
    selectors = []
    while True:
        push = json.loads(client.read_line())
        selectors.append(push["method"])
        if (push["method"], push["params"]) == (selector, params):
            return selectors


class Scheduling(HelperCase):
    # The one test that waits for the minute: all that a tick does is looked at here.
    def test_an_enabled_schedule_takes_its_snapshots_within_the_next_minute_and_says_so(self):
        listener = self.connect()
        policy = dict(self.client.call(GET_SCHEDULE, self.volume.uuid), enabledCadences=["freq", "hourly"])
        stored = self.client.call(SET_SCHEDULE, self.volume.uuid, policy)
        self.assertEqual(sorted(stored["enabledCadences"]), ["freq", "hourly"])

        pushed = pushes_until(listener, "snapshotsChangedWithVolumeUUID:", [self.volume.uuid.lower()])
        self.assertIn("freeSpaceUpdateWithJsonStates:", pushed)
        names = helper.wait_until(lambda: len(found := self.names()) >= 2 and found, "two snapshots")
        kinds = []
        for name in names:
            self.assertRegex(name, AUTOMATIC)
            kinds.append(re.match(AUTOMATIC, name)[1])
        self.assertEqual(sorted(kinds), ["freq", "hourly"])
        made = [(e["client"], e["snapshotName"], e["volumeUUID"].lower(), e["succeeded"])
                for e in activity() if e["kind"] == "createSnapshot"]
        self.assertEqual(sorted(made), sorted(("helper", name, self.volume.uuid.lower(), True) for name in names))

        space = [s for s in self.client.call(FREE_SPACE) if s["volumeUUID"].lower() == self.volume.uuid.lower()]
        self.assertEqual([s["lowSpaceBytesThreshold"] for s in space], [policy["lowSpaceBytes"]])
