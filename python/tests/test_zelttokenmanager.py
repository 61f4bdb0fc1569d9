"""Tests of zelttokenmanager. tests/python_test.cpp runs them on a private machine with a package
that runs as root and is granted to get "Demo.Item". Programs and modules are found through
descriptors, which processes that the tests start must inherit."""

import asyncio
import os
import pathlib
import socket
import subprocess
import sys
import threading
import unittest

import zelttokenmanager
from zelttokenmanager import _exchange, aio

TABLE = pathlib.Path(__file__).parents[2] / "tests" / "tables" / "answers.txt"
GRANTS = [{"api": "Demo.Item", "method": "get"}]
USE = {"api": "Demo.Item", "method": "get", "runner": "root"}
OTHER_USER = 4002


def call_aio(name, *arguments, **options):
    return asyncio.run(getattr(aio, name)(*arguments, **options))


def call_sync(name, *arguments, **options):
    return getattr(zelttokenmanager, name)(*arguments, **options)


def outcome(function, *arguments, **options):
    try:
        return str(function(*arguments, **options))
    except zelttokenmanager.Error as error:
        return type(error).__name__


def listen(path=_exchange.PATHS[0], backlog=16):
    pathlib.Path(path).parent.mkdir(exist_ok=True)
    pathlib.Path(path).unlink(missing_ok=True)
    listener = socket.socket(socket.AF_UNIX)
    listener.bind(path)
    listener.listen(backlog)
    listener.settimeout(30)
    return listener


def answer_one(listener, pieces, keep_open=False):
    """Answers one client, in pieces, and returns its request."""
    connection = listener.accept()[0]
    with connection, connection.makefile("rb") as stream:
        request = stream.read()  # to the end of the stream
        try:
            for piece in pieces:
                connection.sendall(piece)
            if keep_open:
                connection.recv(1)
        except OSError:
            pass
        return request


class HostileAnswers(unittest.TestCase):
    def check(self, name, pieces, expected, keep_open=False):
        arguments = {"issue": ("s", ["ä\n"]), "revoke": ("s", "t"), "inspect": ("s", "t"),
                     "validate": ("s", "t", 1), "validate_many": ("s", "t", [1, 2])}  # fmt: skip
        for call in call_sync, call_aio:
            with self.subTest(call=call.__name__, name=name, answer=b"".join(pieces)[:80]):
                server = threading.Thread(
                    target=answer_one, args=(self.listener, pieces, keep_open)
                )
                server.start()
                self.assertEqual(outcome(call, name, *arguments[name]), expected)
                server.join()

    def setUp(self):
        self.listener = listen()
        self.addCleanup(self.listener.close)

    def test_table(self):
        rows = [line.split(" | ") for line in TABLE.read_text().splitlines() if " | " in line]
        for name, answer, expected in (row for row in rows if not row[0].startswith("#")):
            self.check(name, [answer.encode()], expected)

    def test_texts_that_no_table_holds(self):
        self.check("validate", [b'{"success":true,"permitted":true,"x":"\xff"}\n'], "Interrupted")
        self.check("validate", [b"\xef\xbb\xbf{}"], "Interrupted")
        for opening in b"[", b'{"":':
            self.check("validate", [opening * 100000], "Interrupted")
        self.check("validate", [b'{"success":' + b"9" * 900000 + b"}"], "Interrupted")
        self.check("validate", [b" " * (1 << 20) + b"{}"], "Interrupted")

    def test_an_answer_is_whole_when_its_value_is(self):
        answer = b'\n{"permitted":true,\r\n"more":{"x":"}"},"success":true}'
        pieces = [answer[i : i + 1] for i in range(len(answer))]
        self.check("validate", pieces, "True", keep_open=True)
        self.check("validate", pieces, "True")

    def test_requests(self):
        expected = b'{"type":"issue","service":"s","payload":["\xc3\xa4\\n"]}\n'
        for call in call_sync, call_aio:
            client = threading.Thread(target=outcome, args=(call, "issue", "s", ["ä\n"]))
            client.start()
            self.assertEqual(answer_one(self.listener, [b"{}"]), expected)
            client.join()

    def test_what_json_cannot_say_is_not_sent(self):
        circular, deep = [], []
        circular.append(circular)
        for _ in range(5000):
            deep = [deep]
        for payload in (float("nan"), float("inf"), "\ud800", {"\ud800": 1}, {1: 1}, {"a": {None: 1}},
                        circular, deep, {1}, b"x", object(), 10**5000, "x" * (128 << 10)):  # fmt: skip
            self.assertEqual(outcome(call_sync, "issue", "s", payload), "Invalid")
            self.assertEqual(outcome(call_aio, "validate", "s", "t", payload), "Invalid")
        for name, arguments in (("transfer", (True,)), ("transfer", (0,)), ("transfer", (2**31,)),
                                ("validate_many", ([1] * 257,)), ("validate_many", ({},))):  # fmt: skip
            self.assertEqual(outcome(call_sync, name, "s", "t", *arguments), "Invalid")
        self.assertEqual(outcome(call_sync, "revoke", None, "t"), "Invalid")
        self.assertEqual(outcome(call_sync, "revoke", "s", None), "Invalid")
        self.assertEqual(outcome(call_sync, "revoke", "s", "t", timeout=float("nan")), "Invalid")

    def test_time_limits(self):
        for call in call_sync, call_aio:
            self.assertEqual(outcome(call, "revoke", "s", "t", timeout=0.05), "Interrupted")
        self.listener.close()
        for call in call_sync, call_aio:
            with listen(_exchange.PATHS[1], backlog=0) as full, socket.socket(socket.AF_UNIX) as first:
                first.connect(_exchange.PATHS[1])
                self.assertEqual(outcome(call, "revoke", "s", "t", timeout=0.05), "Unavailable")
                threading.Timer(0.05, lambda: [full.accept()[0].close() for _ in range(2)]).start()
                self.assertEqual(outcome(call, "revoke", "s", "t"), "Interrupted")


class Listeners(unittest.TestCase):
    def test_nothing_is_sent_to_strangers(self):
        with open("/etc/passwd", "a", encoding="ascii") as passwd:
            passwd.write("zelttokenmgr:x:4005:4100::/:/bin/sh\n")
        pathlib.Path("/tmp").chmod(0o777)
        # Who listens at the first address, and who owns the socket there.
        for listening, owner, trusted in (
            (0, 0, True), (4005, 4005, True), (OTHER_USER, OTHER_USER, False),
            (OTHER_USER, 0, False), (0, OTHER_USER, False), (0, 65534, True), (65534, 0, False),
        ):  # fmt: skip
            try:
                os.seteuid(listening)
            except OSError:
                self.skipTest("no other users")
            first = listen()
            os.seteuid(0)
            os.chown(_exchange.PATHS[0], owner, 0)
            with first, listen(_exchange.PATHS[1]) as second:
                server = threading.Thread(
                    target=answer_one, args=(first if trusted else second, [b'{"success":true}'])
                )
                server.start()
                self.assertEqual(outcome(call_sync, "revoke", "s", "t"), "None", (listening, owner))
                server.join()

    def test_user_ids_that_are_not_mapped_prove_nothing(self):
        script = "import zelttokenmanager; zelttokenmanager.revoke('s', 't')"
        with listen():
            client = subprocess.run(
                ["unshare", "--user", sys.executable, "-c", script],
                capture_output=True, text=True, close_fds=False,
            )  # fmt: skip
        if "unshare:" in client.stderr:
            self.skipTest(client.stderr)
        self.assertIn("Unavailable", client.stderr)
        self.assertIn("not mapped", client.stderr)


class RealDaemon(unittest.TestCase):
    def setUp(self):
        command = ["zelttokenmgrd", "--stderr", "--workers", "2"]
        self.daemon = subprocess.Popen(
            command, stderr=subprocess.PIPE, text=True, close_fds=False
        )
        self.addCleanup(self.stop)
        while "ready" not in (line := self.daemon.stderr.readline()):
            self.assertTrue(line, "the daemon ended")

    def stop(self):
        self.daemon.terminate()
        self.daemon.wait()
        self.daemon.stderr.close()

    def test_life_of_a_token(self):
        for call in call_sync, call_aio:
            text = call("issue", "fastapi", GRANTS)
            self.assertIs(call("validate", "fastapi", text, USE), True)
            self.assertIs(call("validate", "fastapi", text, {**USE, "method": "put"}), False)
            self.assertEqual(outcome(call, "validate", "taskmanager", text, 1), "Refused")
            self.assertEqual(outcome(call, "issue", "fastapi", [{"api": "x", "method": "y"}]), "Refused")
            self.assertIsNone(call("transfer", "fastapi", text, self.daemon.pid))
            self.assertEqual(outcome(call, "revoke", "fastapi", text), "Refused")

    def test_tokens_are_revoked(self):
        with zelttokenmanager.Token.issue("fastapi", GRANTS) as token:
            self.assertTrue(token.validate(USE))
            self.assertNotIn(str(token), repr(token))
        self.assertEqual(outcome(token.validate, USE), "Refused")
        with self.assertRaises(KeyError), zelttokenmanager.Token.issue("fastapi", GRANTS) as token:
            raise KeyError
        self.assertEqual(outcome(token.validate, USE), "Refused")
        with zelttokenmanager.Token.issue("fastapi", GRANTS) as token:
            token.transfer(self.daemon.pid)
        self.assertTrue(token.validate(USE))
        with zelttokenmanager.Token.issue("fastapi", GRANTS) as token:
            zelttokenmanager.revoke("fastapi", token)
        with self.assertRaises(zelttokenmanager.Unavailable):
            with zelttokenmanager.Token.issue("fastapi", GRANTS):
                self.stop()
        self.assertEqual(outcome(call_aio, "revoke", "fastapi", "t"), "Unavailable")

    def test_tokens_are_revoked_by_event_loops(self):
        async def use():
            async with await aio.Token.issue("fastapi", GRANTS) as token:
                checks = (token.validate(USE) for _ in range(50))
                self.assertEqual(await asyncio.gather(*checks), [True] * 50)
            return token

        token = asyncio.run(use())
        self.assertEqual(outcome(zelttokenmanager.validate, "fastapi", str(token), USE), "Refused")


if __name__ == "__main__":
    unittest.main()
