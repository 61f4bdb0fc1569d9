"""Tests of zelttokenmanager. tests/programs_test.cpp runs them on a private machine with a package
that runs as root and is granted to get "Demo.Item". Programs and modules are found through
descriptors, which processes that the tests start must inherit."""

import asyncio
import os
import pathlib
import select
import socket
import subprocess
import sys
import threading
import unittest
from unittest import mock

import zelttokenmanager
from zelttokenmanager import Token, _calls, _exchange, aio

FIRST, SECOND = _exchange.PATHS
TABLE = pathlib.Path(__file__).parents[2] / "tests/tables/answers.txt"
GRANTS = [{"api": "Demo.Item", "method": "get"}]
USE = {"api": "Demo.Item", "method": "get", "runner": "root"}


def call_sync(name, *arguments, **options):
    return getattr(zelttokenmanager, name)(*arguments, **options)


def call_aio(name, *arguments, **options):
    return asyncio.run(getattr(aio, name)(*arguments, **options))


def outcome(function, *arguments, **options):
    try:
        return str(function(*arguments, **options))
    except zelttokenmanager.Error as error:
        return type(error).__name__


def listen(path, backlog=16):
    pathlib.Path(path).parent.mkdir(exist_ok=True)
    pathlib.Path(path).unlink(missing_ok=True)
    listener = socket.socket(socket.AF_UNIX)
    listener.bind(path)
    listener.listen(backlog)
    listener.settimeout(30)
    return listener


class Server(threading.Thread):
    """Answers one client, in pieces."""

    def __init__(self, listener, pieces, keep_open=False):
        super().__init__()
        self.listener, self.pieces, self.keep_open = listener, pieces, keep_open
        self.start()

    def run(self):
        connection = self.listener.accept()[0]
        with connection, connection.makefile("rb") as stream:
            self.request = stream.read()  # to the end of the stream
            try:
                for piece in self.pieces:
                    connection.sendall(piece)
                if self.keep_open:
                    poll = select.poll()
                    poll.register(connection, 0)  # until the client closes
                    poll.poll(30000)
            except OSError:
                pass


class Answers(unittest.TestCase):
    def setUp(self):
        self.listener = listen(FIRST)
        self.addCleanup(self.listener.close)

    def check(self, name, pieces, expected, keep_open=False):
        arguments = {"issue": [["ä\n"]], "revoke": ["t"], "inspect": ["t"], "validate": ["t", 1],
                     "validate_many": ["t", [1, 2]]}[name]  # fmt: skip
        for call in call_sync, call_aio:
            with self.subTest(call=call.__name__, name=name, answer=b"".join(pieces)[:80]):
                server = Server(self.listener, pieces, keep_open)
                self.assertEqual(outcome(call, name, "s", *arguments), expected)
                server.join()
        return server.request

    def test_hostile_ones(self):
        for row in TABLE.read_text().splitlines():
            if row and row[0] not in "#=":
                name, answer, expected = row.split(" | ")
                self.check(name, [answer.encode()], expected)
        for answer in (
            b'{"success":true,"permitted":true,"x":"\xff"}', b"\xef\xbb\xbf{}", b"[" * 100000,
            b" " * (1 << 20) + b"{}",
        ):  # fmt: skip
            self.check("validate", [answer], "Interrupted")

    def test_an_answer_is_whole_when_its_value_is(self):
        answer = b'\n{"permitted":true,\r\n"more":{"x":"}"},"success":true}'
        pieces = [answer[i : i + 1] for i in range(len(answer))]
        self.check("validate", pieces, "True", keep_open=True)
        request = self.check("issue", [b"{}"], "Refused")
        self.assertEqual(request, b'{"type":"issue","service":"s","payload":["\xc3\xa4\\n"]}\n')

    def test_what_json_cannot_say_is_not_sent(self):
        circular, deep = [], []
        circular.append(circular)
        for _ in range(5000):
            deep = [deep]
        for payload in (
            float("nan"), float("inf"), "\ud800", {"\ud800": 1}, {1: 1}, {"a": {None: 1}},
            circular, deep, {1}, b"x", 10**5000, "x" * (128 << 10),
        ):  # fmt: skip
            self.assertEqual(outcome(call_sync, "issue", "s", payload), "Invalid")
        for name, *arguments in (
            ("transfer", "t", True), ("transfer", "t", 0), ("revoke", None),
            ("validate_many", "t", [1] * 257), ("validate_many", "t", {}),
        ):  # fmt: skip
            self.assertEqual(outcome(call_aio, name, "s", *arguments), "Invalid")
        self.assertEqual(outcome(call_sync, "revoke", "s", "t", timeout=float("nan")), "Invalid")

    def test_the_daemon_leaves_in_the_middle_of_a_request(self):
        def take_a_byte():
            with self.listener.accept()[0] as connection:
                connection.recv(1)

        threading.Thread(target=take_a_byte).start()
        with mock.patch.object(_calls, "MAX_REQUEST_BYTES", 1 << 21):  # the kernel holds less
            self.assertEqual(outcome(call_sync, "revoke", "s", "t" * (1 << 20)), "Interrupted")

    def test_time_limits(self):
        for call in call_sync, call_aio:
            self.assertEqual(outcome(call, "revoke", "s", "t", timeout=0.05), "Interrupted")
        self.listener.close()
        for call, path in (call_sync, FIRST), (call_aio, SECOND):
            with listen(path, backlog=0) as full, socket.socket(socket.AF_UNIX) as first:
                first.connect(path)
                self.assertEqual(outcome(call, "revoke", "s", "t", timeout=0.05), "Unavailable")
                answer_none = lambda: (full.accept()[0].close(), Server(full, []))
                threading.Timer(0.05, answer_none).start()
                self.assertEqual(outcome(call, "revoke", "s", "t", timeout=1e9), "Interrupted")


class Listeners(unittest.TestCase):
    def test_nothing_is_sent_to_strangers(self):
        with open("/etc/passwd", "a", encoding="ascii") as passwd:
            passwd.write("zelttokenmgr:x:4005:4100::/:/bin/sh\n")
        pathlib.Path("/tmp").chmod(0o777)
        # Who listens at the first address, and who owns the socket there.
        for listening, owner, trusted in (
            (0, 0, True), (4005, 4005, True), (4002, 4002, False), (4002, 0, False), (0, 4002, False),
        ):  # fmt: skip
            try:
                os.seteuid(listening)
            except OSError:
                self.skipTest("no other users")
            first = listen(FIRST)
            os.seteuid(0)
            os.chown(FIRST, owner, 0)
            with first, listen(SECOND) as second:
                server = Server(first if trusted else second, [b'{"success":true}'])
                self.assertEqual(outcome(call_sync, "revoke", "s", "t"), "None", (listening, owner))
                server.join()

    def test_user_ids_that_are_not_mapped_prove_nothing(self):
        script = "import zelttokenmanager; zelttokenmanager.revoke('s', 't')"
        command = ["unshare", "--user", sys.executable, "-c", script]
        with listen(FIRST):
            client = subprocess.run(command, capture_output=True, text=True, close_fds=False)
        if "unshare:" in client.stderr:
            self.skipTest(client.stderr)
        self.assertRegex(client.stderr, "Unavailable.*not mapped")


class RealDaemon(unittest.TestCase):
    def setUp(self):
        command = ["zelttokenmgrd", "--stderr", "--workers", "2"]
        self.daemon = subprocess.Popen(command, stderr=subprocess.PIPE, text=True, close_fds=False)
        self.addCleanup(self.stop)
        while "ready" not in (line := self.daemon.stderr.readline()):
            self.assertTrue(line, "the daemon ended")

    def stop(self):
        self.daemon.terminate()
        self.daemon.wait()
        self.daemon.stderr.close()

    def test_tokens_are_revoked(self):
        with Token.issue("fastapi", GRANTS) as revoked:
            self.assertNotIn(str(revoked), repr(revoked))
            self.assertEqual(revoked.validate_many([USE]), [True])
            self.assertEqual(revoked.inspect().requester, "root")
        with self.assertRaises(KeyError), Token.issue("fastapi", GRANTS) as revoked_too:
            raise KeyError
        with Token.issue("fastapi", GRANTS) as transferred:
            transferred.transfer(os.getpid())
        with Token.issue("fastapi", GRANTS) as dropped:
            zelttokenmanager.revoke("fastapi", dropped)
        outcomes = [outcome(each.validate, USE) for each in (revoked, revoked_too, transferred)]
        self.assertEqual(outcomes, ["Refused", "Refused", "True"])
        with self.assertRaises(zelttokenmanager.Unavailable), Token.issue("fastapi", GRANTS):
            with self.assertRaises(KeyError), Token.issue("fastapi", GRANTS):
                self.stop()
                raise KeyError

    def test_tokens_are_revoked_by_event_loops(self):
        async def use():
            async with await aio.Token.issue("fastapi", GRANTS) as token:
                checks = (token.validate(USE) for _ in range(50))
                self.assertEqual(await asyncio.gather(*checks), [True] * 50)
                self.assertEqual(await token.validate_many([USE]), [True])
                self.assertEqual((await token.inspect()).requester, "root")
            async with await aio.Token.issue("fastapi", GRANTS) as dropped:
                await aio.revoke("fastapi", dropped)
            async with await aio.Token.issue("fastapi", GRANTS) as kept:
                await kept.transfer(os.getpid())
            return token, kept

        outcomes = [outcome(call_sync, "validate", "fastapi", each, USE) for each in asyncio.run(use())]
        self.assertEqual(outcomes, ["Refused", "True"])


if __name__ == "__main__":
    unittest.main()
