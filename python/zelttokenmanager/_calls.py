"""The requests and the answers to them, without any input or output."""

from __future__ import annotations

import json
import math
import re
from dataclasses import dataclass
from typing import Any, Callable, Dict, Generic, Iterable, List, NoReturn, Optional, TypeVar, Union

from ._errors import Interrupted, Invalid, Malformed, Refused

Answer = Dict[str, Any]
Result = TypeVar("Result")

MAX_REQUEST_BYTES = 128 << 10  # the daemon refuses longer ones
MAX_PAYLOADS = 256  # in one validate_many, as the daemon does
MAX_DIGITS = 20  # of an integer in an answer, enough for 64 bits: long ones take quadratic time
MAX_PID = 2**31 - 1


class TokenText:
    """A token and the service that it is for. Only `str` shows the token's text, so that it does
    not get into logs and tracebacks by accident."""

    def __init__(self, service: str, text: str) -> None:
        self.service = service
        self.is_owned = True  # until it is revoked or transferred
        self._text = text

    def __str__(self) -> str:
        return self._text

    def __repr__(self) -> str:
        return f"<{type(self).__name__} of service {self.service!r}>"


AnyToken = Union[str, TokenText]


@dataclass(frozen=True)
class Inspection:
    """What a token permits, and since when.

    `payload` is what the service granted, `age` the seconds since the token was issued, and
    `expires_in` the seconds until it expires, or None if it does not. `alive` says whether the
    process that owns the token is alive.
    """

    requester: str
    age: float
    alive: bool
    payload: Any
    expires_in: Optional[float] = None


@dataclass(frozen=True)
class Call(Generic[Result]):
    """A request, and the function that turns its answer into a result."""

    request: bytes
    judge: Callable[[Answer], Result]


def issue(service: str, payload: object) -> Call[str]:
    return Call(_compose("issue", service, payload=payload), _issued)


def validate(service: str, token: AnyToken, payload: object) -> Call[bool]:
    return Call(_compose("validate", service, token, payload=payload), _validated)


def validate_many(
    service: str, token: AnyToken, payloads: Iterable[object]
) -> Call[List[Optional[bool]]]:
    if isinstance(payloads, (str, bytes, dict)):
        raise Invalid("a list of payloads is expected")
    listed = list(payloads)
    if len(listed) > MAX_PAYLOADS:
        raise Invalid(f"at most {MAX_PAYLOADS} payloads can be validated at once")
    request = _compose("validate_many", service, token, payloads=listed)
    return Call(request, lambda answer: _validated_many(answer, len(listed)))


def revoke(service: str, token: AnyToken) -> Call[None]:
    return Call(_compose("revoke", service, token, payload=None), _require_success)


def transfer(service: str, token: AnyToken, new_owner: int) -> Call[None]:
    if type(new_owner) is not int or not 0 < new_owner <= MAX_PID:
        raise Invalid("the new owner is not a process id")
    return Call(_compose("transfer", service, token, payload=new_owner), _require_success)


def inspect(service: str, token: AnyToken) -> Call[Inspection]:
    return Call(_compose("inspect", service, token), _inspected)


def _compose(
    kind: str, service: str, token: Optional[AnyToken] = None, **members: object
) -> bytes:
    if not isinstance(service, str):
        raise Invalid("the service is not a string")
    request: Dict[str, object] = {"type": kind, "service": service, **members}
    if kind != "issue":
        request["token"] = _text_of(token)
    text = _to_json(request)
    if len(text) > MAX_REQUEST_BYTES:
        raise Invalid(f"the request is longer than {MAX_REQUEST_BYTES} bytes")
    return text + b"\n"


def _text_of(token: Optional[AnyToken]) -> str:
    if not isinstance(token, (str, TokenText)):
        raise Invalid("the token is not a string")
    return str(token)


_encoder = json.JSONEncoder(ensure_ascii=False, allow_nan=False, separators=(",", ":"))


def _to_json(value: Dict[str, object]) -> bytes:
    try:
        _check_names(value)
        return _encoder.encode(value).encode()
    except Invalid:
        raise
    except UnicodeEncodeError:  # its text would hold the whole request
        raise Invalid("a string holds a lone surrogate") from None
    except (TypeError, ValueError) as error:
        raise Invalid(f"the payload cannot be written as JSON: {error}") from error
    except RecursionError:
        raise Invalid("the payload is circular, or nested too deep") from None


def _check_names(value: Iterable[object]) -> None:
    """The encoder writes names that are numbers, True or None as strings."""
    if isinstance(value, dict):
        for name in value:
            if not isinstance(name, str):
                raise Invalid("a name in the payload is not a string")
        value = value.values()
    for each in value:
        if isinstance(each, (dict, list, tuple)):
            _check_names(each)


def parse(text: Union[bytes, bytearray]) -> Answer:
    """Reads an answer. Raises `ValueError` unless it is one JSON object, and no more."""
    try:
        answer = _decoder.decode(text.decode())
    except RecursionError:
        raise ValueError("nested too deep") from None
    if not isinstance(answer, dict):
        raise ValueError("not an object")
    return answer


def _unique(members: list[tuple[str, Any]]) -> Answer:
    result = dict(members)
    if len(result) != len(members):
        raise ValueError("duplicate names")
    return result


def _integer(digits: str) -> int:
    if len(digits) > MAX_DIGITS:
        raise ValueError("an integer of more than 64 bits")
    return int(digits)


def _finite(digits: str) -> float:
    number = float(digits)
    if not math.isfinite(number):
        raise ValueError("a number out of range")
    return number


def _refuse(constant: str) -> NoReturn:
    raise ValueError(f"{constant} is not JSON")


_decoder = json.JSONDecoder(
    object_pairs_hook=_unique, parse_int=_integer, parse_float=_finite, parse_constant=_refuse
)


def _require_success(answer: Answer) -> None:
    if answer.get("success") is not True:
        raise Refused("the daemon refused; its log says why")


def _require(shape: bool) -> None:
    if not shape:
        raise Interrupted("the daemon's answer has an unexpected shape")


def _issued(answer: Answer) -> str:
    _require_success(answer)
    text = answer.get("token")
    _require(isinstance(text, str) and re.fullmatch("[A-Za-z0-9_-]{32,64}", text) is not None)
    return str(text)


def _validated(answer: Answer) -> bool:
    if answer.get("success") is False and answer.get("permitted", False) is None:
        raise Malformed("the payload cannot be judged; the daemon's log says why")
    _require_success(answer)
    permitted = answer.get("permitted")
    _require(isinstance(permitted, bool))
    return permitted is True


def _validated_many(answer: Answer, count: int) -> List[Optional[bool]]:
    _require_success(answer)
    permitted = answer.get("permitted")
    _require(isinstance(permitted, list) and len(permitted) == count)
    results: List[Optional[bool]] = list(permitted or [])
    _require(all(each is None or isinstance(each, bool) for each in results))
    return results


def _is_number(value: object) -> bool:
    return isinstance(value, (int, float)) and not isinstance(value, bool)


def _inspected(answer: Answer) -> Inspection:
    _require_success(answer)
    expires_in = answer.get("expires_in")
    _require(
        isinstance(answer.get("requester"), str)
        and isinstance(answer.get("alive"), bool)
        and _is_number(answer.get("age"))
        and (expires_in is None or _is_number(expires_in))
        and "payload" in answer
    )
    return Inspection(
        answer["requester"], answer["age"], answer["alive"], answer["payload"], expires_in
    )
