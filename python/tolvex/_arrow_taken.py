"""Tables of whatever gives Arrow streams, taken as columns."""

from __future__ import annotations

import ctypes
import sys
from ctypes import (
    CFUNCTYPE,
    POINTER,
    c_char_p,
    c_int,
    c_int64,
    c_void_p,
    py_object,
    pythonapi,
)
from typing import Any, Dict, List, NamedTuple, Optional

import numpy as np

from . import _library as c
from ._column import OBJECT, Array, Column, concatenated, viewed
from ._errors import MdfError, MdfTypeError


class _Schema(ctypes.Structure):
    pass


_Schema._fields_ = [
    ("format", c_char_p),
    ("name", c_char_p),
    ("metadata", c_void_p),
    ("flags", c_int64),
    ("n_children", c_int64),
    ("children", POINTER(POINTER(_Schema))),
    ("dictionary", POINTER(_Schema)),
    ("release", CFUNCTYPE(None, c_void_p)),
    ("private_data", c_void_p),
]


class _Array(ctypes.Structure):
    pass


_Array._fields_ = [
    ("length", c_int64),
    ("null_count", c_int64),
    ("offset", c_int64),
    ("n_buffers", c_int64),
    ("n_children", c_int64),
    ("buffers", POINTER(c_void_p)),
    ("children", POINTER(POINTER(_Array))),
    ("dictionary", POINTER(_Array)),
    ("release", CFUNCTYPE(None, c_void_p)),
    ("private_data", c_void_p),
]

_Next = CFUNCTYPE(c_int, c_void_p, c_void_p)
_LastError = CFUNCTYPE(c_char_p, c_void_p)
_get_pointer = ctypes.PYFUNCTYPE(c_void_p, py_object, c_char_p)(("PyCapsule_GetPointer", pythonapi))

_NUMBERS = {
    "c": "i1",
    "C": "u1",
    "s": "i2",
    "S": "u2",
    "i": "i4",
    "I": "u4",
    "l": "i8",
    "L": "u8",
    "e": "f2",
    "f": "f4",
    "g": "f8",
}
_UNITS = {"s": "s", "m": "ms", "u": "us", "n": "ns"}


class Taken(NamedTuple):
    """A column, and where it has dates or spans of time these as NumPy's."""

    column: Column
    times: Optional[Array]
    #: Of the field's metadata: "unit", "comment".
    metadata: Dict[str, str] = {}


def columns_of(data: Any) -> Dict[str, Taken]:
    """The columns of a table that has `__arrow_c_stream__`, all rows of them, copied."""
    capsule = data.__arrow_c_stream__()
    address = _get_pointer(capsule, b"arrow_array_stream")
    stream = c.ArrowStream.from_address(address)

    def call(function: int, target: Any) -> None:
        if _Next(function)(address, ctypes.addressof(target)) != 0:
            text = _LastError(stream.get_last_error)(address) if stream.get_last_error else b""
            raise MdfError(f"the Arrow stream failed: {c.text(text)}")

    schema = _Schema()
    call(stream.get_schema, schema)
    try:
        if (schema.format or b"") != b"+s":
            raise MdfTypeError("expected an Arrow stream of record batches")
        fields = [schema.children[i].contents for i in range(schema.n_children)]
        names = [c.text(field.name) for field in fields]
        if len(set(names)) != len(names):
            raise MdfTypeError("two columns of the Arrow table have the same name")
        parts: List[List[Taken]] = [[_empty(name, one)] for name, one in zip(names, fields)]
        while True:
            array = _Array()
            call(stream.get_next, array)
            if not array.release:
                break
            try:
                for name, field, i, part in zip(names, fields, range(len(fields)), parts):
                    column = array.children[i].contents
                    part.append(_taken(name, field, column, array.offset, array.length))
            finally:
                array.release(ctypes.addressof(array))
        said = [_metadata(field.metadata) for field in fields]
        return {name: _joined(part, one) for name, part, one in zip(names, parts, said)}
    finally:
        if schema.release:
            schema.release(ctypes.addressof(schema))


def _joined(parts: List[Taken], metadata: Dict[str, str]) -> Taken:
    whole = parts[1:] or parts
    column = concatenated([part.column for part in whole])
    times = None
    if whole[0].times is not None:
        times = np.concatenate([part.times for part in whole if part.times is not None])
    return Taken(column, times, metadata)


def _metadata(address: Optional[int]) -> Dict[str, str]:
    """Of a field: a count, then each key and value behind their lengths."""
    if not address:
        return {}
    place = address

    def taken(size: int) -> bytes:
        nonlocal place
        place += size
        return ctypes.string_at(place - size, size)

    def number() -> int:
        return int.from_bytes(taken(4), sys.byteorder, signed=True)

    texts = [c.text(taken(number())) for _ in range(2 * number())]
    return dict(zip(texts[::2], texts[1::2]))


def _empty(name: str, field: _Schema) -> Taken:
    """A column of no rows; says of which type none can be taken."""
    nothing = _Array(length=0, offset=0, null_count=0)
    inner = _Array(length=0, offset=0, null_count=0)
    nothing.dictionary = ctypes.pointer(inner)
    return _taken(name, field, nothing, 0, 0)


def _taken(name: str, field: _Schema, array: _Array, offset: int, length: int) -> Taken:
    """Rows of one column, behind the `offset` of the batch."""
    first = array.offset + offset
    kind = c.text(field.format)
    valid = None if kind == "n" else _valid(array, first, length)
    if field.dictionary:
        texts = _taken(name, field.dictionary.contents, array.dictionary.contents, 0, _size(array))
        if kind not in _NUMBERS:
            raise MdfTypeError(f"{name}: no codes of an Arrow dictionary: {kind}")
        codes = _data(array, 1, first, length, _NUMBERS[kind]).astype(np.int64)
        if valid is not None:
            codes[~valid] = -1
        values = texts.column.values
        if values.dtype == OBJECT and texts.column.valid is None and texts.times is None:
            return Taken(Column(codes.astype(np.int32), valid, values.tolist()), None)
        objects = np.empty(len(values) + 1, OBJECT)  # code -1 is the last one: None
        objects[:-1] = values if texts.times is None else texts.times
        if texts.column.valid is not None:
            objects[:-1][~texts.column.valid] = None
        return Taken(Column(objects[codes]), None)
    if kind in _NUMBERS:
        return Taken(Column(_data(array, 1, first, length, _NUMBERS[kind]).copy(), valid), None)
    if kind == "b":
        bits = _bits(array, 1, first, length)
        return Taken(Column(bits, valid), None)
    if kind[:2] in ("ts", "tD") and kind[2:3] in _UNITS:
        form = f"{'M8' if kind[1] == 's' else 'm8'}[{_UNITS[kind[2]]}]"
        times = _data(array, 1, first, length, "i8").view(form).copy()
        if valid is not None:
            times[~valid] = "NaT"
        return Taken(Column(times.view(np.int64), valid), times)
    if kind == "n":
        return Taken(Column(np.full(length, None, OBJECT)), None)
    found = _objects(kind, array, first, length)
    if found is None:
        raise MdfTypeError(f"{name}: Arrow's type {kind!r} cannot be stored")
    if valid is not None:
        found[~valid] = None
    return Taken(Column(found, valid), None)


def _size(array: _Array) -> int:
    return int(array.dictionary.contents.length)


def _objects(kind: str, array: _Array, first: int, length: int) -> Optional[Array]:
    """Texts or bytes; None for other types."""
    found = np.empty(length, OBJECT)
    if kind in ("u", "U", "z", "Z"):
        form = "i4" if kind in "uz" else "i8"
        ends = _data(array, 1, first, length + 1, form).tolist() if length else [0]
        data = ctypes.string_at(array.buffers[2], ends[-1]) if ends[-1] else b""
        parts = [data[begin:end] for begin, end in zip(ends, ends[1:])]
    elif kind.startswith("w:"):
        size = int(kind[2:])
        data = _data(array, 1, first * size, length * size, "u1").tobytes()
        parts = [data[i * size : (i + 1) * size] for i in range(length)]
    elif kind in ("vu", "vz"):
        parts = _viewed(array, first, length)
    else:
        return None
    if kind in ("u", "U", "vu"):
        found[:] = [c.text(part) for part in parts]
    else:
        found[:] = parts
    return found


def _viewed(array: _Array, first: int, length: int) -> List[bytes]:
    """Of views, 16 bytes each: short ones inside, others in the buffers behind them."""
    views = _data(array, 1, 16 * first, 16 * length, "u1").tobytes()
    valid = _valid(array, first, length)
    parts = []
    for row in range(length):
        view = views[16 * row : 16 * row + 16]
        size, _, buffer, begin = np.frombuffer(view, np.int32).tolist()
        if valid is not None and not valid[row]:
            parts.append(b"")
        elif size <= 12:
            parts.append(view[4 : 4 + size])
        else:
            parts.append(ctypes.string_at(array.buffers[2 + buffer] + begin, size))
    return parts


def _data(array: _Array, buffer: int, first: int, count: int, form: str) -> Array:
    dtype = np.dtype(form)
    if count == 0:
        return np.empty(0, dtype)
    return viewed(array.buffers[buffer] + first * dtype.itemsize, count, dtype)


def _bits(array: _Array, buffer: int, first: int, count: int) -> Array:
    skipped, rest = divmod(first, 8)
    packed = _data(array, buffer, skipped, (rest + count + 7) // 8, "u1")
    return np.unpackbits(packed, bitorder="little")[rest : rest + count].astype(bool)


def _valid(array: _Array, first: int, count: int) -> Optional[Array]:
    """Where there are values; None: everywhere."""
    if array.null_count == 0 or count == 0 or not array.buffers[0]:
        return None
    found = _bits(array, 0, first, count)
    return None if found.all() else found
