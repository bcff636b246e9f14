"""The helper as a process: its clients, its refusals, its end and its return."""

import json
import os
import random
import signal
import socket
import threading

import helper
from cases import HelperCase
from helper import (CREATE, DELETE, HEALTH, LIST, MOUNT, UNMOUNT, VERSION, Client, Helper, despite_changes, request,
                    value_of, wait_until)

NO_VOLUME = "12345678-1234-1234-1234-123456789abc"


class Refusals(HelperCase):
    def test_each_refusal_has_its_code_and_its_sentence(self):
        name = self.client.create(self.volume, "there")
        volume = self.volume.uuid
        table = [
            (1001, "Volume UUID is malformed", LIST, ("not a uuid", False, False)),
            (1001, "Volume UUID is malformed", CREATE, (volume[:-1], "label")),
            (1001, "Volume UUID is malformed", DELETE, ("", volume + "0", False)),
            (1002, "Label must be 0-127 chars, no slashes, no control chars", CREATE, (volume, "a/b")),
            (1002, "Label must be 0-127 chars, no slashes, no control chars", CREATE, (volume, "x" * 128)),
            (1002, "Label must be 0-127 chars, no slashes, no control chars", CREATE, (volume, "a\nb")),
            (1003, "Snapshot name is malformed", DELETE, ("", volume, True)),
            (1003, "Snapshot name is malformed", DELETE, ("a/b", volume, True)),
            (1003, "Snapshot name is malformed", DELETE, ("n" * 241, volume, True)),
            (1003, "Snapshot name is malformed", MOUNT, ("tab\t", volume, 1)),
            (1004, "Path must resolve under /Volumes", UNMOUNT, ("/",)),
            (1004, "Path must resolve under /Volumes", UNMOUNT, ("/Volumes/Data",)),
            (1004, "Path must resolve under /Volumes", UNMOUNT, ("/Volumes/a/b@snap-1",)),
            (1004, "Refusing to unmount a path that is not a read-only APFS snapshot mount", UNMOUNT,
             ("/Volumes/data@snap-1",)),
            (1010, f"No mounted APFS volume with UUID {NO_VOLUME}", LIST, (NO_VOLUME, False, False)),
            (1010, f"No mounted APFS volume with UUID {NO_VOLUME.upper()}", CREATE, (NO_VOLUME.upper(), "x")),
            (1020, "Snapshot no longer exists", DELETE, ("com.harrowfern.Quillmark.manual.never", volume, True)),
            (1021, 'Refusing to delete OS-managed snapshot "com.apple.os.x"', DELETE, ("com.apple.os.x", volume, True)),
            (1021, 'Snapshot "com.apple.os.x" is a macOS system snapshot, so Quillmark will not mount it.', MOUNT,
             ("com.apple.os.x", volume, 7)),
        ]
        for code, text, selector, params in table:
            with self.subTest(selector=selector, params=params):
                self.assertRefused(code, text, self.client.call, selector, *params)
        self.assertEqual(self.names(), [name])

    def test_a_volume_answers_to_its_uuid_in_any_case(self):
        name = self.client.call(CREATE, self.volume.uuid.upper(), "loud")
        self.assertEqual([s["name"] for s in self.client.call(LIST, self.volume.uuid.lower(), False, False)], [name])

    def test_every_part_is_healthy(self):
        health = self.client.call(HEALTH)
        for part in ("history", "schedules", "settings", "protection", "audit", "scheduler"):
            self.assertEqual(health[part], {"state": "healthy"}, part)


class Clients(HelperCase):
    def test_rubbish_is_refused_by_its_kind_and_the_connection_goes_on(self):
        table = [
            (-32700, b"this is no JSON"), (-32700, b'{"jsonrpc":"2.0","id":1'), (-32700, b"\xff\xfe\x00"),
            (-32700, b"[" * 100), (-32600, b"[]"), (-32600, b"17"), (-32600, b'{"jsonrpc":"1.0","id":1,"method":"x"}'),
            (-32600, b'{"jsonrpc":"2.0","id":{},"method":"x"}'), (-32600, b'{"jsonrpc":"2.0","id":1,"method":7}'),
            (-32601, request(1, "deleteEverything:", [])[:-1]), (-32601, request(1, "", [])[:-1]),
            (-32602, request(1, LIST, [])[:-1]), (-32602, request(1, LIST, [self.volume.uuid, 1, 2])[:-1]),
            (-32602, request(1, MOUNT, ["n", self.volume.uuid, -1])[:-1]),
            (-32602, b'{"jsonrpc":"2.0","id":1,"method":"%s","params":{}}' % VERSION.encode()),
        ]
        for code, line in table:
            with self.subTest(line=line[:60]):
                self.client.send(line + b"\n")
                self.assertEqual(self.client.answer()["error"]["code"], code)
        self.assertEqual(self.client.call(VERSION), "0.1.0")

    def test_a_stream_without_end_of_line_is_ended_and_nobody_else_minds(self):
        with Client() as endless:
            with self.assertRaises(OSError):
                for _ in range(64):
                    endless.send(b"x" * (1 << 20))
                endless.answer()
        self.assertEqual(self.client.call(VERSION), "0.1.0")

    # Goal:   a client that asks faster than it reads gets each answer once, and the others don't wait for it.
    def test_ten_thousand_calls_at_once_are_all_answered(self):
        calls = b"".join(request(number, VERSION, []) for number in range(10_000))
        with Client() as eager:
            sender = threading.Thread(target=eager.send, args=(calls,))
            sender.start()
            answered = [eager.answer() for _ in range(10_000)]
            sender.join()
        self.assertEqual(sorted(message["id"] for message in answered), list(range(10_000)))
        self.assertEqual({value_of(message) for message in answered}, {"0.1.0"})

    # Goal:   a client that never reads holds neither the others nor the helper's memory.
    def test_a_client_that_never_reads_is_left_waiting_alone(self):
        for number in range(50):
            self.client.create(self.volume, f"{number}" + "n" * 90)
        before = self.helper.resident_bytes()
        calls = b"".join(request(number, LIST, [self.volume.uuid, False, False]) for number in range(2000))
        with Client() as deaf:
            deaf.socket.setblocking(False)
            sent = 0
            for _ in range(100):
                try:
                    sent += deaf.socket.send(calls[sent:])
                except BlockingIOError:
                    pass
                self.assertEqual(self.client.call(VERSION), "0.1.0")
            self.assertEqual(len(self.names()), 50)
            self.assertLess(self.helper.resident_bytes() - before, 200 << 20)

    def test_clients_that_vanish_in_mid_call_leave_nothing_behind(self):
        self.client.call(VERSION)  # let in, with all that it holds
        open_before = self.helper.descriptors()
        for round_ in range(40):
            wait_until(lambda: self.helper.descriptors() < open_before + 10, "room for one more connection")
            gone = Client()
            gone.post(LIST, self.volume.uuid, False, False)
            gone.send(request(1, CREATE, [self.volume.uuid, "unfinished"])[: 10 + 3 * round_])
            if round_ % 2:  # with a reset instead of an end
                gone.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\1\0\0\0\0\0\0\0")
            gone.close()
        wait_until(lambda: self.helper.descriptors() <= open_before, "the end of the connections")
        self.assertEqual(self.names(), [])

    def test_a_user_has_so_many_connections_and_then_no_more(self):
        kept = [self.connect() for _ in range(15)]
        self.assertEqual({client.call(VERSION) for client in kept}, {"0.1.0"})
        with Client() as one_more, self.assertRaises(OSError):
            one_more.call(VERSION)
        kept.pop().close()
        wait_until(self.can_connect, "room for another connection")

    @staticmethod
    def can_connect():
        try:
            with Client() as client:
                return client.call(VERSION)
        except OSError:
            return None

    def test_two_clients_at_once_lose_and_double_nothing(self):
        made = {}

        def make(which):
            with Client() as client:
                made[which] = [client.create(self.volume, f"{which} {number}") for number in range(12)]
                despite_changes(client.delete, self.volume, made[which].pop())

        threads = [threading.Thread(target=make, args=(which,)) for which in ("left", "right")]
        for thread in threads:
            thread.start()
        while any(thread.is_alive() for thread in threads):
            xids = [snapshot["xid"] for snapshot in despite_changes(self.client.list, self.volume)]
            self.assertEqual(len(set(xids)), len(xids))
        for thread in threads:
            thread.join()
        self.assertEqual(sorted(self.names()), sorted(made["left"] + made["right"]))

    def test_others_hear_of_a_change_once(self):
        with Client() as listener:
            listener.call(VERSION)
            for number in range(3):
                self.client.create(self.volume, f"{number}")
            pushes = []
            while not pushes or pushes[-1][0] != "snapshotsChangedWithVolumeUUID:":
                push = json.loads(listener.read_line())
                pushes.append((push["method"], push["params"]))
            self.assertEqual(pushes[-1][1], [self.volume.uuid.lower()])
            listener.call(VERSION)
            self.assertNotIn("snapshotsChangedWithVolumeUUID:", [method for method, _ in listener.pushes])

    def test_a_stranger_is_turned_away(self):
        inner, outer = socket.socketpair()
        pid = os.fork()
        if pid == 0:
            os.setgroups([])
            os.setresgid(65534, 65534, 65534)
            os.setresuid(65534, 65534, 65534)
            with Client() as client:
                try:
                    client.post(VERSION)
                    line = client.read_line()
                except OSError:
                    line = None
            outer.send(b"told" if line else b"nothing")
            os._exit(0)
        os.waitpid(pid, 0)
        self.assertEqual(inner.recv(16), b"nothing")
        inner.close()
        outer.close()


class EndAndReturn(HelperCase):
    # Goal:   killed at any moment, the helper comes back, and every snapshot that it acknowledged is there.
    # Method: have it make and delete snapshots one behind the other; kill it after a drawn number of answers.
    def test_killed_in_mid_command_it_returns_and_nothing_acknowledged_is_lost(self):
        draw = random.Random(20260301)
        kept, deleted = set(), set()
        for round_ in range(8):
            client, answers = self.connect(), draw.randrange(1, 6)
            for number in range(8):
                client.post(CREATE, self.volume.uuid, f"r{round_} n{number}")
            for _ in range(answers):
                kept.add(value_of(client.answer()))
            os.kill(self.helper.pid, signal.SIGKILL)
            self.helper.kill()
            self.helper.start()
            self.client = self.connect()
            names = set(self.names())
            self.assertLessEqual(kept, names)
            self.assertFalse(deleted & names)
            victim = draw.choice(sorted(kept))
            self.client.delete(self.volume, victim)
            kept.remove(victim)
            deleted.add(victim)
            kept |= names - deleted  # finished, though nobody heard of it

    def test_killed_with_a_snapshot_mounted_it_finds_the_mount_again(self):
        self.volume.write("file", "content")
        name = self.client.create(self.volume, "x")
        [snapshot] = self.client.list(self.volume)
        path = self.client.mount(self.volume, name, snapshot["xid"])
        self.helper.kill()
        self.helper.start()
        client = self.connect()
        [found] = client.list(self.volume)
        self.assertEqual(found | {"isIndexed": None}, snapshot | {"isIndexed": None})  # it may be indexed by now
        self.assertEqual(client.mount(self.volume, name, snapshot["xid"]), path)
        client.unmount(path)
        self.assertFalse(os.path.exists(path))

    def test_a_second_instance_ends_with_a_clear_line_and_the_first_goes_on(self):
        second = Helper.launch()
        _, problem = second.communicate(timeout=helper.PATIENCE)
        self.assertEqual((second.returncode, problem), (75, b"quillmark-helper: another instance is running\n"))
        self.assertEqual(self.client.call(VERSION), "0.1.0")

    def test_asked_to_end_it_finishes_what_it_took_on(self):
        numbers = [self.client.post(CREATE, self.volume.uuid, f"{n}") for n in range(6)]
        first = self.client.answer()  # the others are under way
        self.helper.ask_to_end()
        messages = [first]
        try:
            while len(messages) < len(numbers):
                messages.append(self.client.answer())
        except ConnectionError:
            pass
        self.assertEqual(self.helper.wait(), 0)
        made = []
        for message in messages:
            try:
                made.append(value_of(message))
            except helper.Refused as refused:
                self.assertEqual((refused.code, refused.text),
                                 (1060, "Quillmark helper is restarting; try again in a moment."))
        self.assertIn("quit: drain complete; exiting", helper.log())
        self.helper.start()
        self.client = self.connect()
        self.assertLessEqual(set(made), set(self.names()))

    def test_its_state_is_its_own_alone_and_survives_it(self):
        self.helper.ask_to_end()
        self.assertEqual(self.helper.wait(), 0)
        for folder, _, files in os.walk(helper.STATE):
            self.assertEqual(os.stat(folder).st_mode & 0o7777, 0o700, folder)
            for name in files:
                self.assertEqual(os.stat(f"{folder}/{name}").st_mode & 0o7777, 0o600, name)
        self.assertEqual(os.stat(helper.LOG).st_mode & 0o7777, 0o640)
        self.helper.start()
