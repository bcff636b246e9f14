"""The helper as a process: its clients, its refusals, its end and its return."""

import os
import socket
import threading

import helper
from cases import HelperCase
from helper import CREATE, LIST, VERSION, Client, Helper, request, value_of, wait_until


class Clients(HelperCase):
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


class EndAndReturn(HelperCase):
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
