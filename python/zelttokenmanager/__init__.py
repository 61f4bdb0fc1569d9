"""Access tokens between local processes on one Linux machine.

    from zelttokenmanager import Token, validate

    with Token.issue("fastapi", [{"api": "Demo.Item", "method": "get"}]) as token:
        use_a_service(str(token))

A service that receives such a token asks whether it permits an operation:

    validate("fastapi", text, {"api": "Demo.Item", "method": "get", "runner": "alice"})

Each call makes one exchange with the daemon, zelttokenmgrd(8): it connects, sends one request,
reads one answer and closes. It takes `timeout` seconds at most. It tries /tmp/zelttokenmgr.sock
first and then /run/zelttokenmgr/socket, and sends nothing unless the process that listens runs as
root, as zelttokenmgr or as the caller's effective user.

A payload is what `json.dumps` accepts; what JSON cannot say is refused. Tokens are strings, or
`Token` objects. The calls share no state, and any number of threads may make them.
`zelttokenmanager.aio` has the same names for asyncio.

Every call raises a subclass of `Error`: `Invalid` and `Unavailable` if nothing was sent, `Refused`
if the daemon refused, `Interrupted` if no valid answer arrived and the request may have been
carried out. None of them means that an operation is permitted.
"""

from __future__ import annotations

import math
import select
import time
from types import TracebackType
from typing import Iterable, List, Optional, Type

from . import _calls
from ._calls import AnyToken, Inspection
from ._errors import Error, Interrupted, Invalid, Malformed, Refused, Unavailable
from ._exchange import Wait, exchange

__all__ = [
    "Error", "Inspection", "Interrupted", "Invalid", "Malformed", "Refused", "Token",
    "Unavailable", "inspect", "issue", "revoke", "transfer", "validate", "validate_many",
]  # fmt: skip


def _wait(wait: Wait) -> None:
    if wait.fd < 0:
        time.sleep(wait.seconds)
        return
    poll = select.poll()
    poll.register(wait.fd, wait.events)
    poll.poll(math.ceil(wait.seconds * 1000))


def _make(call: _calls.Call[_calls.Result], timeout: float) -> _calls.Result:
    steps = exchange(call, timeout)
    try:
        while True:
            _wait(next(steps))
    except StopIteration as end:
        result: _calls.Result = end.value
        return result
    finally:
        steps.close()


def issue(service: str, payload: object, *, timeout: float = 30.0) -> str:
    """Returns a new token of `service`, which this process owns. The service decides what `payload`
    holds. See `Token.issue` for a token that is revoked in the end."""
    return _make(_calls.issue(service, payload), timeout)


def validate(service: str, token: AnyToken, payload: object, *, timeout: float = 30.0) -> bool:
    """Returns whether `token` permits the operation in `payload`. Raises `Malformed` for a payload
    that cannot be judged, and `Refused` for a token that is unknown or for another service."""
    return _make(_calls.validate(service, token, payload), timeout)


def validate_many(
    service: str, token: AnyToken, payloads: Iterable[object], *, timeout: float = 30.0
) -> List[Optional[bool]]:
    """Validates up to 256 payloads in one exchange. Returns for each, in order, whether `token`
    permits it, or None if it cannot be judged."""
    return _make(_calls.validate_many(service, token, payloads), timeout)


def revoke(service: str, token: AnyToken, *, timeout: float = 30.0) -> None:
    """Deletes `token`, which this process must own."""
    return _make(_calls.revoke(service, token), timeout)


def transfer(service: str, token: AnyToken, new_owner: int, *, timeout: float = 30.0) -> None:
    """Transfers `token`, which this process must own, to the living process `new_owner`."""
    return _make(_calls.transfer(service, token, new_owner), timeout)


def inspect(service: str, token: AnyToken, *, timeout: float = 30.0) -> Inspection:
    """Returns what `token` permits. Raises `Refused` if it is unknown or for another service."""
    return _make(_calls.inspect(service, token), timeout)


class Token(_calls.TokenText):
    """A token that is revoked at the end of a `with` block.

    The end of the block does not revoke a token that was revoked or transferred before. It ignores
    a refusal: the token has expired, was dropped, or belongs to another process, such as the parent
    of this one. It raises `Unavailable` or `Interrupted` only if the block did not raise anything.
    """

    @classmethod
    def issue(cls, service: str, payload: object, *, timeout: float = 30.0) -> Token:
        return cls(service, issue(service, payload, timeout=timeout))

    def validate(self, payload: object, *, timeout: float = 30.0) -> bool:
        return validate(self.service, self, payload, timeout=timeout)

    def validate_many(
        self, payloads: Iterable[object], *, timeout: float = 30.0
    ) -> List[Optional[bool]]:
        return validate_many(self.service, self, payloads, timeout=timeout)

    def revoke(self, *, timeout: float = 30.0) -> None:
        revoke(self.service, self, timeout=timeout)
        self.is_owned = False

    def transfer(self, new_owner: int, *, timeout: float = 30.0) -> None:
        transfer(self.service, self, new_owner, timeout=timeout)
        self.is_owned = False

    def inspect(self, *, timeout: float = 30.0) -> Inspection:
        return inspect(self.service, self, timeout=timeout)

    def __enter__(self) -> Token:
        return self

    def __exit__(
        self,
        kind: Optional[Type[BaseException]],
        error: Optional[BaseException],
        traceback: Optional[TracebackType],
    ) -> None:
        try:
            if self.is_owned:
                self.revoke()
        except Refused:
            pass
        except Error:
            if error is None:
                raise
