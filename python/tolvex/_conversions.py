"""How stored values become physical ones or texts, for recordings.

The values given to a recorder are the stored ones; whoever reads the file applies the conversion.
"""

from __future__ import annotations

import ctypes
import math
from contextlib import contextmanager
from dataclasses import dataclass
from numbers import Integral
from typing import Any, Iterable, Iterator, List, Mapping, Optional, Sequence, Tuple, Union

from ._errors import MdfMemoryError, MdfTypeError, MdfValueError
from ._library import lib, text_bytes

_LINEAR, _RATIONAL, _ALGEBRAIC, _INTERPOLATED, _TABLE, _RANGES, _TEXTS, _RANGE_TEXTS = range(1, 9)
_MOST = 65535  # numbers, and texts, of one conversion

#: Most texts of a conversion, beside its default.
MOST_TEXTS = _MOST - 1


@dataclass(frozen=True)
class Conversion:
    """Made by linear, rational, algebraic, table, ranges, texts and range_texts."""

    kind: int
    entries: Tuple[Tuple[Any, ...], ...] = ()
    default: Any = None

    def __post_init__(self) -> None:
        numbers = sum(not isinstance(one, str) for entry in self.entries for one in entry)
        if max(numbers, len(self.entries) + 1) > _MOST:
            raise MdfValueError(
                f"a conversion has at most {_MOST} numbers and {MOST_TEXTS} texts, "
                f"found {numbers} numbers in {len(self.entries)} entries"
            )

    @contextmanager
    def formula(self) -> Iterator[Any]:
        """As the library takes it, during the block."""
        handle = lib.allocFormula(self.kind)
        if not handle:
            raise MdfMemoryError("out of memory")
        try:
            if self._fill(handle) != 0:
                raise MdfMemoryError("out of memory")
            yield handle
        finally:
            lib.freeFormula(handle)

    def _fill(self, handle: Any) -> int:
        if self.kind == _ALGEBRAIC:
            return int(lib.setFormulaParam(handle, 0, _utf8(self.default)))
        if self.kind in (_LINEAR, _RATIONAL):
            numbers = (ctypes.c_double * len(self.entries[0]))(*self.entries[0])
            return int(lib.setFormulaParam(handle, ctypes.sizeof(numbers), numbers))
        add = {
            _INTERPOLATED: lib.addFormulaParamN2N,
            _TABLE: lib.addFormulaParamN2N,
            _RANGES: lib.addFormulaParamR2N,
            _TEXTS: lib.addFormulaParamN2T,
            _RANGE_TEXTS: lib.addFormulaParamR2T,
        }[self.kind]
        for entry in self.entries:
            given = [_utf8(one) if isinstance(one, str) else one for one in entry]
            if add(handle, *given) != 0:
                return -1
        if self.kind == _RANGES:
            return int(
                lib.setFormulaParamDefault(handle, 8, ctypes.byref(ctypes.c_double(self.default)))
            )
        if self.kind in (_TEXTS, _RANGE_TEXTS):
            return int(lib.setFormulaParamDefault(handle, 0, _utf8(self.default)))
        return 0


Convertible = Union[Conversion, Mapping[Any, str]]


def linear(factor: float, offset: float = 0.0) -> Conversion:
    """physical = factor * stored + offset"""
    return Conversion(_LINEAR, ((_number(offset), _number(factor)),))


def rational(p: Sequence[float]) -> Conversion:
    """physical = (p0 x^2 + p1 x + p2) / (p3 x^2 + p4 x + p5), of six numbers."""
    numbers = tuple(_number(one) for one in p)
    if len(numbers) != 6:
        raise MdfValueError(f"a rational conversion has 6 numbers, found {len(numbers)}")
    return Conversion(_RATIONAL, (numbers,))


def algebraic(formula: str) -> Conversion:
    """A formula of X, the stored value: "3 * sin(X) + 1"."""
    return Conversion(_ALGEBRAIC, (), _text(formula))


def table(
    keys: Iterable[float], values: Iterable[float], *, interpolate: bool = True
) -> Conversion:
    """Values by keys, which ascend: on the line between two keys, or that of the nearest key."""
    entries = tuple(zip(*_columns(keys, values)))
    if not entries:
        raise MdfValueError("a table has at least one key")
    for (key, _), (later, _) in zip(entries, entries[1:]):
        if not key < later:
            raise MdfValueError(f"the keys of a table ascend; found {later:g} after {key:g}")
    return Conversion(_INTERPOLATED if interpolate else _TABLE, entries)


def ranges(entries: Iterable[Tuple[float, float, float]], default: float = math.nan) -> Conversion:
    """The value of the first (low, high, value) with low <= stored <= high, else the default."""
    found = tuple((*_range(low, high), _number(value, True)) for low, high, value in entries)
    return Conversion(_RANGES, found, _number(default, True))


def texts(entries: Mapping[Any, str], default: str = "") -> Conversion:
    """Texts by stored values, as {0: "off", 1: "on"}.

    Other values have the default; they stay numbers where it is "".
    """
    found = tuple((_number(key), _text(text)) for key, text in entries.items())
    return Conversion(_TEXTS, found, _text(default))


def range_texts(entries: Iterable[Tuple[float, float, str]], default: str = "") -> Conversion:
    """The text of the first (low, high, text) that holds the stored value, else the default.

    Integers may be equal to `high`, floats are below it.
    """
    found = tuple((*_range(low, high), _text(text)) for low, high, text in entries)
    return Conversion(_RANGE_TEXTS, found, _text(default))


def converted(given: Optional[Convertible]) -> Optional[Conversion]:
    """The conversion that is meant: a dict stands for texts."""
    if given is None or isinstance(given, Conversion):
        return given
    if isinstance(given, Mapping):
        return texts(given)
    raise MdfTypeError(f"expected a conversion, as tolvex.linear(0.1), found {given!r}")


def _range(low: Any, high: Any) -> Tuple[float, float]:
    first, last = _number(low), _number(high)
    if first > last:
        raise MdfValueError(f"a range goes from low to high; found {low!r} to {high!r}")
    return first, last


def _columns(keys: Iterable[float], values: Iterable[float]) -> List[List[float]]:
    found = [[_number(one) for one in keys], [_number(one) for one in values]]
    if len(found[0]) != len(found[1]):
        raise MdfValueError(f"{len(found[0])} keys have {len(found[1])} values")
    return found


def _number(given: Any, nanable: bool = False) -> float:
    try:
        number = float(given)
    except (TypeError, ValueError, OverflowError) as error:
        raise MdfTypeError(f"expected a number in a conversion, found {given!r}") from error
    if (math.isnan(number) and not nanable) or (
        isinstance(given, Integral) and number != int(given)
    ):
        raise MdfValueError(f"a conversion cannot have {given!r}: its numbers are float64")
    return number


def _text(given: Any) -> str:
    _utf8(given)
    return given  # type: ignore[no-any-return]


def _utf8(given: Any) -> bytes:
    return text_bytes("a text of a conversion", given)
