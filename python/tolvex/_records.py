"""Records of a group: how their fields are stored, and packing values into them."""

from __future__ import annotations

import struct
import sys
from collections.abc import Mapping
from typing import Any, Callable, Dict, Iterable, List, NamedTuple, Sequence, Tuple

import numpy as np

from . import _times
from ._column import Array
from ._errors import MdfNameError, MdfTypeError, MdfValueError
from ._library import NO_TIME

_UNSIGNED, _SIGNED, _FLOAT, _UTF8, _BYTES = 0, 2, 4, 7, 10  # little-endian ones of cn_data_type
_LETTERS = {
    "b1": "B",
    "u1": "B",
    "u2": "H",
    "u4": "I",
    "u8": "Q",
    "i1": "b",
    "i2": "h",
    "i4": "i",
    "i8": "q",
    "f4": "f",
    "f8": "d",
}


class Channel(NamedTuple):
    """A signal of a group: a field, or an element of one."""

    name: str
    field: str
    data_type: int
    size: int  # bytes


class Plan:
    """What the records of a group are made of."""

    def __init__(self, fields: Any) -> None:
        given = _named(fields)
        if "time" not in [name for name, _ in given]:
            given.insert(0, ("time", np.dtype(np.float64)))
        stored = []
        #: The signals in the order of a record.
        self.channels: List[Channel] = []
        for name, dtype in given:
            dtype = _stored(name, dtype)
            stored.append((name, dtype))
            data_type = _data_type(dtype.base)
            for place in np.ndindex(*dtype.shape):
                at = "".join(f"[{i}]" for i in place)
                self.channels.append(Channel(name + at, name, data_type, dtype.base.itemsize))
        try:
            #: Of a record, without gaps.
            self.dtype: Any = np.dtype(stored)
        except ValueError as error:
            raise MdfValueError(f"no fields of a group: {error}") from error
        taken = set()
        for channel in self.channels:
            if channel.name in taken:
                raise MdfNameError(f"two signals of a group are called {channel.name!r}")
            taken.add(channel.name)
        self.names: Tuple[str, ...] = self.dtype.names
        self.time_position = self.names.index("time")
        self._dtypes = [self.dtype[name] for name in self.names]
        self._packer()

    def _packer(self) -> None:
        """Prepares for single records: structs of fields of one byte order."""
        runs: List[Tuple[str, List[str], int]] = []
        self._makers: List[Tuple[int, Callable[[Any], Any]]] = []
        self._isflat = True
        for position, dtype in enumerate(self._dtypes):
            base = dtype.base
            order = ">" if _is_big(base) else "<"
            if not runs or (order != runs[-1][0] and base.itemsize > 1 and base.kind not in "SV"):
                runs.append((order, [], 0))
            letter = _LETTERS.get(base.str[1:], f"{base.itemsize}s")
            count = int(np.prod(dtype.shape, dtype=int))
            runs[-1][1].append(letter * count)
            runs[-1] = (runs[-1][0], runs[-1][1], runs[-1][2] + count)
            if dtype.shape:
                self._isflat = False
                self._makers.append((position, _elements_of(dtype)))
            elif base.kind in "SV":
                self._makers.append((position, _bytes_of(base)))
        self._structs: List[Tuple[struct.Struct, int, int]] = []
        begin = 0
        for order, letters, count in runs:
            self._structs.append((struct.Struct(order + "".join(letters)), begin, begin + count))
            begin += count
        self._whole = self._structs[0][0].pack if len(self._structs) == 1 else None

    # One record ---------------------------------------------------------------------------

    def ordered(self, values: Sequence[Any], named: Dict[str, Any]) -> List[Any]:
        """Values by position, then by name."""
        found: Dict[str, Any] = dict(zip(self.names, values))
        for name, value in named.items():
            if name in found or name not in self.names:
                raise MdfNameError(f"the group has no field {name!r} that is still to be given")
            found[name] = value
        self._complete(found)
        return [found[name] for name in self.names]

    def pack(self, values: Sequence[Any]) -> bytes:
        """The record of these values."""
        if len(values) != len(self.names):
            names = ", ".join(self.names)
            raise MdfValueError(f"expected {len(self.names)} values ({names}), found {len(values)}")
        try:
            if self._makers:
                values = list(values)
                for position, make in self._makers:
                    values[position] = make(values[position])
                if not self._isflat:
                    values = [
                        one
                        for value, dtype in zip(values, self._dtypes)
                        for one in (value if dtype.shape else (value,))
                    ]
            if self._whole is not None:
                return self._whole(*values)
            return b"".join([one.pack(*values[begin:end]) for one, begin, end in self._structs])
        except (struct.error, OverflowError, TypeError, ValueError) as error:
            raise MdfValueError(f"{self._culprit(values)}: {error}") from error

    def _culprit(self, values: Sequence[Any]) -> str:
        """Which value does not fit."""
        for name, dtype, value in zip(self.names, self._dtypes, values):
            letter = _LETTERS.get(dtype.base.str[1:])
            try:
                if letter and not dtype.shape:
                    struct.pack("<" + letter, value)
            except (struct.error, OverflowError, TypeError):
                return f"{name} = {value!r} does not fit into {dtype}"
        return "the record does not fit"

    # Many records -------------------------------------------------------------------------

    def columns(self, data: Any, time: Any) -> Tuple[List[Tuple[str, Array]], int]:
        """The fields of many records as arrays that can be assigned to them, and their number.

        Dates of the field "time" are nanoseconds since 1970 instead, int64.
        """
        given: Dict[str, Any]
        if isinstance(data, np.ndarray) and data.dtype.names:
            given = {name: data[name] for name in data.dtype.names}
        elif isinstance(data, Mapping):
            given = dict(data)
        elif hasattr(data, "columns") and hasattr(data, "index"):  # of pandas
            given = {str(name): column for name, column in data.items()}
            if time is None and "time" not in given and data.index.dtype.kind in "fmM":
                time = data.index
        else:
            raise MdfTypeError(
                "expected a structured array, a mapping of arrays or a DataFrame, "
                f"found {type(data).__name__}"
            )
        if time is not None:
            if "time" in given:
                raise MdfValueError("the records have a field 'time', and `time` is given")
            given["time"] = time
        self._complete(given)
        found = [
            (name, times_of(given[name]) if name == "time" else fitting(name, given[name], dtype))
            for name, dtype in zip(self.names, self._dtypes)
        ]
        counts = {name: len(column) for name, column in found}
        if len(set(counts.values())) > 1:
            raise MdfValueError(f"the fields differ in length: {counts}")
        return found, len(found[0][1])

    def _complete(self, given: Iterable[str]) -> None:
        missing = [name for name in self.names if name not in given]
        if missing:
            raise MdfNameError(f"there is nothing for the field {missing[0]!r}")
        extra = [name for name in given if name not in self.names]
        if extra:
            raise MdfNameError(f"the group has no field {extra[0]!r}")


def _named(fields: Any) -> List[Tuple[str, Any]]:
    if isinstance(fields, Mapping):
        fields = list(fields.items())
    try:
        dtype = np.dtype(fields)
    except (TypeError, ValueError) as error:
        raise MdfTypeError(
            f"fields: expected a structured dtype, or names and dtypes; {error}"
        ) from error
    if dtype.names is None:
        raise MdfTypeError(f"fields: expected a structured dtype, found {dtype}")
    return [(name, dtype[name]) for name in dtype.names]


def _stored(name: str, dtype: Any) -> Any:
    """As what the values of a field are stored."""
    base = dtype.base
    if name == "time":
        if base.kind not in "iuf" or dtype.shape:
            raise MdfTypeError(f"time: expected seconds as float64, found {dtype}")
        big = base == np.dtype(">f8") and _is_big(base)
        return base if big else np.dtype(np.float64)
    if base.kind == "U":
        base = np.dtype(f"S{base.itemsize}")
    elif base.kind == "f" and base.itemsize == 2:
        base = np.dtype(np.float32).newbyteorder(">" if _is_big(base) else "<")
    known = base.str[1:] in _LETTERS or (base.kind in "SV" and base.names is None)
    if not known or base.itemsize == 0:
        raise MdfTypeError(f"{name}: no signal can have the dtype {dtype}")
    if "\0" in name or not name:
        raise MdfValueError(f"no name of a signal: {name!r}")
    return np.dtype((base, dtype.shape)) if dtype.shape else base


def _is_big(base: Any) -> bool:
    return bool(base.byteorder == ">" or (base.byteorder == "=" and sys.byteorder == "big"))


def _data_type(base: Any) -> int:
    big = int(_is_big(base))
    kinds = {"b": _UNSIGNED, "u": _UNSIGNED + big, "i": _SIGNED + big, "f": _FLOAT + big}
    kinds.update({"S": _UTF8, "V": _BYTES})
    return kinds[base.kind]


def _bytes_of(base: Any) -> Callable[[Any], bytes]:
    size, istext = base.itemsize, base.kind == "S"

    def encoded(value: Any) -> bytes:
        if isinstance(value, str) and istext:
            found = value.encode()
        elif isinstance(value, (bytes, bytearray, memoryview, np.void)):
            found = bytes(value)
        else:
            raise TypeError(f"expected {'a text' if istext else 'bytes'}, found {value!r}")
        if len(found) > size or (istext and b"\0" in found.rstrip(b"\0")):
            raise ValueError(f"{value!r} does not fit into {size} bytes")
        return found

    return encoded


def _elements_of(dtype: Any) -> Callable[[Any], List[Any]]:
    make = _bytes_of(dtype.base) if dtype.base.kind in "SV" else None

    def elements(value: Any) -> List[Any]:
        array = np.asarray(value, None if make is None else object)
        if array.shape != dtype.shape:
            raise ValueError(f"expected an array of shape {dtype.shape}, found {array.shape}")
        found: List[Any] = array.reshape(-1).tolist()
        return found if make is None else [make(one) for one in found]

    return elements


def times_of(times: Any) -> Array:
    """Times of records: seconds (float64), or of dates nanoseconds since 1970 (int64)."""
    if hasattr(times, "dtype") and getattr(times.dtype, "tz", None) is not None:  # of pandas
        times = np.asarray(times, "datetime64[ns]")  # in UTC
    array = np.asarray(times)
    if array.dtype.kind == "O" and len(array) and _times.is_date(array[0]):
        return _dates(array)
    if array.dtype.kind == "M":
        return _checked_ns(array, "datetime64[ns]")
    if array.dtype.kind == "m":
        return seconds_since(0, _checked_ns(array, "timedelta64[ns]"))
    return fitting("time", times, np.dtype(np.float64)).astype(np.float64, copy=False)


def seconds_since(start_ns: int, ns: Array) -> Array:
    """Times in nanoseconds since 1970 as seconds since the start.

    They become the same nanoseconds again up to 97 days behind the start: where the nearest float64
    times 1e9, which is rounded to a float64 first, is rounded to another integer, its neighbour is
    taken.
    """
    behind = ns - start_ns
    seconds: Array = behind / 1e9
    if len(behind) and max(-int(behind.min()), int(behind.max())) > 2**51:
        product = seconds * 1e9
        whole = np.trunc(product)
        half = np.abs(product - whole) >= 0.5
        off = whole + np.copysign(half, product) - behind
        beside = np.nextafter(seconds, np.copysign(np.inf, -off))
        seconds = np.where(off == 0, seconds, beside)
    return seconds


def _dates(times: Array) -> Array:
    ns = np.empty(len(times), np.int64)
    for row, date in enumerate(times.tolist()):
        if not _times.is_date(date) or date != date:
            raise MdfValueError(f"time, row {row}: expected a date, found {date!r}")
        ns[row] = _times.date_ns(date, False)
    return ns


def _checked_ns(times: Array, form: str) -> Array:
    ns = times.astype(form, copy=False)
    found = ns.view(np.int64)
    isexact = ns.dtype == times.dtype and (len(found) == 0 or found.min() != NO_TIME)
    if not isexact:
        lost = np.flatnonzero(np.isnat(times) | (ns.astype(times.dtype) != times))
        if len(lost):
            row = int(lost[0])
            raise MdfValueError(f"time, row {row}: no time that can be stored: {times[row]}")
    return found


def fitting(name: str, values: Any, dtype: Any) -> Array:
    """The values as an array that is assigned to such a field without loss.

    Floats may be rounded. What does not fit is an error that names its row.
    """
    if dtype.base.kind in "SV":
        return _fitting_bytes(name, values, dtype)
    mask: Any = getattr(values, "mask", None) if isinstance(values, np.ma.MaskedArray) else None
    if mask is not None and np.any(mask):
        if dtype.base.kind != "f":
            raise MdfValueError(f"{name}, row {_first(mask)}: the value is missing")
        values = values.astype(np.result_type(values.dtype, np.float32)).filled(np.nan)
    plain = np.asarray(values)
    shape = (len(plain),) + dtype.shape if plain.ndim else None
    if plain.shape != shape:
        raise MdfValueError(f"{name}: expected the shape {shape}, found {plain.shape}")
    if plain.dtype.kind not in "biuf":
        plain = _numbers(name, plain)
    base = dtype.base
    if np.can_cast(plain.dtype, base, "safe" if base.kind != "f" else "same_kind"):
        if base.kind == "f" and plain.dtype.kind in "iu" and plain.dtype.itemsize * 8 > 16:
            _check_exact(name, plain, plain.astype(base))
        return plain
    with np.errstate(invalid="ignore"):
        cast = plain.astype(base)
    _check_exact(name, plain, cast)
    return cast


def _check_exact(name: str, values: Array, cast: Array) -> None:
    """Raises for the first value that became another one."""
    with np.errstate(invalid="ignore"):
        back = cast.astype(values.dtype)
    lost = back != values
    if cast.dtype.kind == "f" and values.dtype.kind in "iu":
        # 2^63 and 2^64 have wrapped around on their way back
        limit = 2.0 ** (8 * values.dtype.itemsize - (values.dtype.kind == "i"))
        lost |= cast >= limit
    elif (cast.dtype.kind, values.dtype.kind) in (("u", "i"), ("i", "u")):
        lost |= (values < 0) if values.dtype.kind == "i" else (cast < 0)
    if lost.any():
        row = np.unravel_index(int(lost.reshape(-1).argmax()), lost.shape)
        raise MdfValueError(
            f"{name}, row {row[0]}: {values[row]!r} cannot be stored as {cast.dtype} exactly"
        )


def _first(mask: Array) -> int:
    return int(np.unravel_index(int(mask.reshape(-1).argmax()), mask.shape)[0])


def _numbers(name: str, values: Array) -> Array:
    """Objects that are numbers."""
    if values.dtype.kind == "O":
        try:
            return np.array(values.tolist())
        except (TypeError, ValueError):
            pass
    raise MdfTypeError(f"{name}: expected numbers, found {values.dtype}")


def _fitting_bytes(name: str, values: Any, dtype: Any) -> Array:
    base = dtype.base
    array = np.asarray(values)
    if array.shape[1:] != dtype.shape:
        raise MdfValueError(f"{name}: expected rows of shape {dtype.shape}, found {array.shape}")
    stored = utf8(array) if array.dtype.kind == "U" and base.kind == "S" else array
    if stored.dtype.kind == base.kind and stored.dtype.itemsize <= base.itemsize:
        return stored
    make = _bytes_of(base)
    found = np.zeros(array.shape, base)
    for place in np.ndindex(*array.shape):
        try:
            found[place] = np.frombuffer(make(array[place]).ljust(base.itemsize, b"\0"), base)[0]
        except (TypeError, ValueError) as error:
            raise MdfValueError(f"{name}, row {place[0]}: {error}") from error
    return found


def utf8(texts: Array) -> Array:
    """An array of dtype U as one of dtype S."""
    width = texts.dtype.itemsize // 4
    codes = np.ascontiguousarray(texts).astype(f"=U{width}", copy=False).view(np.uint32)
    if codes.size and codes.max() < 0x80:
        return codes.astype(np.uint8).view(f"S{width}").reshape(texts.shape)
    try:
        return np.char.encode(texts, "utf-8")
    except UnicodeEncodeError as error:
        raise MdfValueError(f"no text: {error}") from error
