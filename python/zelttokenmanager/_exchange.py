"""One exchange with the daemon, as a generator that never waits: it yields what to wait for, so
that threads and event loops share it."""

from __future__ import annotations

import errno
import os
import pathlib
import pwd
import select
import socket
import struct
import time
from contextlib import closing
from typing import Generator, NamedTuple

from ._calls import Answer, Call, Result, parse
from ._errors import Interrupted, Invalid, Unavailable

# Programs with a private /tmp reach only the second.
PATHS = ("/tmp/zelttokenmgr.sock", "/run/zelttokenmgr/socket")
DAEMON_USER = "zelttokenmgr"  # the packages run the daemon as this user

ALL_USERS = 2**32 - 1  # ids in the initial user namespace

MAX_ANSWER_BYTES = 1 << 20
CHUNK_BYTES = 64 << 10
FIRST_PAUSE = 0.001  # seconds until a full backlog is tried again, doubled each time
LONGEST_PAUSE = 0.05
LONGEST_TIMEOUT = 1e6  # seconds; poll(2) takes at most 24 days

_CREDENTIAL = struct.Struct("iII")  # ucred: process, user, group


class Wait(NamedTuple):
    """What the caller waits for: `events` of poll(2) on `fd`, or until `seconds` have passed. A
    negative `fd` never has any."""

    fd: int
    events: int
    seconds: float


Waits = Generator[Wait, None, None]


class Deadline:
    def __init__(self, timeout: float) -> None:
        if not timeout >= 0:  # also refuses NaN
            raise Invalid("a timeout is a number of seconds, at least 0")
        self.end = time.monotonic() + min(timeout, LONGEST_TIMEOUT)

    def left(self) -> float:
        return max(0.0, self.end - time.monotonic())


def exchange(call: Call[Result], timeout: float) -> Generator[Wait, None, Result]:
    """Sends a request and returns the result. Raises `Unavailable` as long as nothing was sent, and
    `Interrupted` afterwards. Closing the generator ends the exchange."""
    deadline = Deadline(timeout)
    connection = yield from _connect(deadline)
    with closing(connection):
        yield from _send(connection, call.request, deadline)
        answer = yield from _receive(connection, deadline)
    return call.judge(answer)


def _connect(deadline: Deadline) -> Generator[Wait, None, socket.socket]:
    pause = FIRST_PAUSE
    while True:
        problems: list[str] = []
        is_busy = False
        for path in PATHS:
            try:
                return _connect_to(path)
            except OSError as error:
                # A full backlog of a local socket cannot be waited for (connect(2)).
                is_busy |= isinstance(error, BlockingIOError)
                problems.append(f"{path}: {error.strerror}")
        if not is_busy or deadline.left() == 0:
            raise Unavailable("the daemon cannot be reached: " + "; ".join(problems))
        yield Wait(-1, 0, min(pause, deadline.left()))
        pause = min(2 * pause, LONGEST_PAUSE)


def _connect_to(path: str) -> socket.socket:
    _check(os.lstat(path).st_uid, "the socket belongs to")
    connection = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM | socket.SOCK_NONBLOCK)
    try:
        connection.connect(path)
        credential = connection.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, _CREDENTIAL.size)
        _check(_CREDENTIAL.unpack(credential)[1], "the listening process belongs to")
    except BaseException:
        connection.close()
        raise
    return connection


def _check(user: int, what: str) -> None:
    """Raises PermissionError unless a process of `user` is accepted as the daemon: of root, of this
    process's effective user, or of the packages' user."""
    if user == 0 or (user == os.geteuid() and not _is_unmapped(user)) or _is_packaged(user):
        return
    problem = f"{what} the user {user}, not to the daemon"
    if _is_unmapped(user):
        problem = (
            f"{what} a user who is not mapped in this user namespace, so nothing tells the daemon "
            "from others: run this outside, or map root's id and the daemon's"
        )
    raise PermissionError(errno.EPERM, problem)


def _is_packaged(user: int) -> bool:
    try:
        return pwd.getpwnam(DAEMON_USER).pw_uid == user
    except KeyError:
        return False


def _is_unmapped(user: int) -> bool:
    """Whether `user` stands for all users who are not mapped in this user namespace
    (user_namespaces(7)): any of them may have it, this process's user included."""
    try:
        overflow = int(pathlib.Path("/proc/sys/kernel/overflowuid").read_text())
        count = int(pathlib.Path("/proc/self/uid_map").read_text().split()[2])
    except (OSError, ValueError, IndexError):  # no /proc, or no id is mapped
        return user == 65534
    return user == overflow and count != ALL_USERS


def _send(connection: socket.socket, request: bytes, deadline: Deadline) -> Waits:
    rest = memoryview(request)
    while rest:
        try:
            rest = rest[connection.send(rest, socket.MSG_NOSIGNAL) :]
        except BlockingIOError:
            yield Wait(connection.fileno(), select.POLLOUT, _time_left(deadline))
        except OSError as error:
            kind = Unavailable if len(rest) == len(request) else Interrupted
            raise kind(f"the daemon closed the connection: {error.strerror}") from error
    try:
        connection.shutdown(socket.SHUT_WR)
    except OSError:  # the daemon may have answered and left
        pass


def _receive(connection: socket.socket, deadline: Deadline) -> Generator[Wait, None, Answer]:
    text = bytearray()
    while True:
        yield Wait(connection.fileno(), select.POLLIN, _time_left(deadline))
        try:
            chunk = connection.recv(CHUNK_BYTES)
        except BlockingIOError:
            continue
        except OSError as error:
            raise Interrupted(f"the connection failed: {error.strerror}") from error
        text += chunk
        if len(text) > MAX_ANSWER_BYTES:
            raise Interrupted(f"the answer is longer than {MAX_ANSWER_BYTES} bytes")
        if not chunk or chunk.rstrip().endswith(b"}"):
            try:
                return parse(text)
            except ValueError as error:
                if not chunk:
                    raise Interrupted(f"the answer is not a JSON object: {error}") from None


def _time_left(deadline: Deadline) -> float:
    left = deadline.left()
    if left == 0:
        raise Interrupted("no answer arrived in time")
    return left
