"""The calls of `zelttokenmanager` for asyncio.

    from zelttokenmanager import aio

    async with await aio.Token.issue("fastapi", [{"api": "Demo.Item", "method": "get"}]) as token:
        await use_a_service(str(token))

Names, arguments, results and errors are the same. A call that is cancelled closes its connection;
its request may have been carried out. The calls block the event loop only while they look up the
user zelttokenmgr (getpwnam(3)), if the daemon runs as this user without systemd's socket.
"""

from __future__ import annotations

import asyncio
import select
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


async def _wait(wait: Wait) -> None:
    if wait.fd < 0:
        return await asyncio.sleep(wait.seconds)
    loop = asyncio.get_running_loop()
    woken = asyncio.Event()
    is_read = wait.events == select.POLLIN
    (loop.add_reader if is_read else loop.add_writer)(wait.fd, woken.set)
    timer = loop.call_later(wait.seconds, woken.set)
    try:
        await woken.wait()
    finally:
        timer.cancel()
        (loop.remove_reader if is_read else loop.remove_writer)(wait.fd)


async def _make(call: _calls.Call[_calls.Result], timeout: float) -> _calls.Result:
    steps = exchange(call, timeout)
    try:
        while True:
            await _wait(next(steps))
    except StopIteration as end:
        result: _calls.Result = end.value
        return result
    finally:
        steps.close()


async def issue(service: str, payload: object, *, timeout: float = 30.0) -> str:
    """See `zelttokenmanager.issue`."""
    return await _make(_calls.issue(service, payload), timeout)


async def validate(
    service: str, token: AnyToken, payload: object, *, timeout: float = 30.0
) -> bool:
    """See `zelttokenmanager.validate`."""
    return await _make(_calls.validate(service, token, payload), timeout)


async def validate_many(
    service: str, token: AnyToken, payloads: Iterable[object], *, timeout: float = 30.0
) -> List[Optional[bool]]:
    """See `zelttokenmanager.validate_many`."""
    return await _make(_calls.validate_many(service, token, payloads), timeout)


async def revoke(service: str, token: AnyToken, *, timeout: float = 30.0) -> None:
    """See `zelttokenmanager.revoke`."""
    return await _make(_calls.revoke(service, token), timeout)


async def transfer(
    service: str, token: AnyToken, new_owner: int, *, timeout: float = 30.0
) -> None:
    """See `zelttokenmanager.transfer`."""
    return await _make(_calls.transfer(service, token, new_owner), timeout)


async def inspect(service: str, token: AnyToken, *, timeout: float = 30.0) -> Inspection:
    """See `zelttokenmanager.inspect`."""
    return await _make(_calls.inspect(service, token), timeout)


class Token(_calls.TokenText):
    """See `zelttokenmanager.Token`; for `async with`."""

    @classmethod
    async def issue(cls, service: str, payload: object, *, timeout: float = 30.0) -> Token:
        return cls(service, await issue(service, payload, timeout=timeout))

    async def validate(self, payload: object, *, timeout: float = 30.0) -> bool:
        return await validate(self.service, self, payload, timeout=timeout)

    async def validate_many(
        self, payloads: Iterable[object], *, timeout: float = 30.0
    ) -> List[Optional[bool]]:
        return await validate_many(self.service, self, payloads, timeout=timeout)

    async def revoke(self, *, timeout: float = 30.0) -> None:
        await revoke(self.service, self, timeout=timeout)
        self.is_owned = False

    async def transfer(self, new_owner: int, *, timeout: float = 30.0) -> None:
        await transfer(self.service, self, new_owner, timeout=timeout)
        self.is_owned = False

    async def inspect(self, *, timeout: float = 30.0) -> Inspection:
        return await inspect(self.service, self, timeout=timeout)

    async def __aenter__(self) -> Token:
        return self

    async def __aexit__(
        self,
        kind: Optional[Type[BaseException]],
        error: Optional[BaseException],
        traceback: Optional[TracebackType],
    ) -> None:
        try:
            if self.is_owned:
                await self.revoke()
        except Refused:
            pass
        except Error:
            if error is None:
                raise
