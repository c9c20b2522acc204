"""Values of one channel as NumPy arrays, and what is missing of them."""

from __future__ import annotations

import ctypes
from dataclasses import dataclass
from typing import Any, Dict, List, Optional, Sequence, Tuple

import numpy as np

from . import _library as c

Array = Any  # of NumPy: its type parameters say nothing here

DTYPES: Dict[int, Any] = {
    c.INT8: np.dtype(np.int8),
    c.INT16: np.dtype(np.int16),
    c.INT32: np.dtype(np.int32),
    c.INT64: np.dtype(np.int64),
    c.UINT8: np.dtype(np.uint8),
    c.UINT16: np.dtype(np.uint16),
    c.UINT32: np.dtype(np.uint32),
    c.UINT64: np.dtype(np.uint64),
    c.FLOAT32: np.dtype(np.float32),
    c.FLOAT64: np.dtype(np.float64),
}
OBJECT = np.dtype(object)


@dataclass
class Column:
    """Rows of one channel.

    `values` has a row for each record, and of arrays their shape behind that: numbers, objects
    (str, bytes, None where there is none), or with `categories` the codes of texts, int32 and -1
    where there is none. `valid` is None where all of the rows' values are valid, else bool.
    `numbers` are float64, for values that are numbers among texts; None when none is one.
    """

    values: Array
    valid: Optional[Array] = None
    categories: Optional[List[str]] = None
    numbers: Optional[Array] = None

    def __len__(self) -> int:
        return len(self.values)

    def take(self, rows: Any) -> Column:
        """Those rows, by number, mask or slice."""
        return Column(
            self.values[rows],
            None if self.valid is None else self.valid[rows],
            self.categories,
            None if self.numbers is None else self.numbers[rows],
        )

    def place(self, count: int, rows: Any, source: Any) -> Column:
        """A column of `count` rows: those of `source` at `rows`, none elsewhere."""
        values = np.zeros((count,) + self.values.shape[1:], self.values.dtype)
        if self.categories is not None:
            values.fill(-1)
        elif self.values.dtype == OBJECT:
            values.fill(None)
        elif self.values.dtype.kind == "f":
            values.fill(np.nan)
        values[rows] = self.values[source]
        valid = np.zeros(values.shape, bool)
        valid[rows] = True if self.valid is None else self.valid[source]
        numbers = None
        if self.numbers is not None:
            numbers = np.full(values.shape, np.nan)
            numbers[rows] = self.numbers[source]
        return Column(values, None if valid.all() else valid, self.categories, numbers)

    def objects(self) -> Array:
        """Of texts by code: the texts, numbers as float, None where there is neither."""
        texts = np.empty(len(self.categories or ()) + 1, OBJECT)
        texts[:-1] = self.categories or ()
        found = texts[self.values]  # code -1 is the last one: None
        if self.numbers is not None:
            isnumber = ~np.isnan(self.numbers)
            found[isnumber] = self.numbers[isnumber].astype(OBJECT)
        return found

    def plain(self) -> Array:
        """Numbers, texts or bytes, whatever is valid."""
        return self.values if self.categories is None else self.objects()

    def missing(self) -> Optional[Array]:
        """True where there is no valid value; None when all are."""
        return None if self.valid is None else ~self.valid

    def masked(self) -> Any:
        """As an array whose invalid values are masked."""
        mask = np.ma.nomask if self.valid is None else ~self.valid
        return np.ma.MaskedArray(self.plain(), mask)  # type: ignore[no-untyped-call]

    def filled(self) -> Array:
        """NaN, or None in texts, where there is no valid value.

        Integers become float64 for that when some are invalid.
        """
        values = self.plain()
        if self.valid is None:
            return values
        if values.dtype == OBJECT:
            result = values.copy()
            result[~self.valid] = None
            return result
        wide = values.dtype if values.dtype.kind == "f" else np.dtype(np.float64)
        result = values.astype(wide)
        result[~self.valid] = np.nan
        return result


def concatenated(columns: Sequence[Column]) -> Column:
    """Columns of one channel behind each other."""
    if len(columns) == 1:
        return columns[0]
    valid = None
    if any(column.valid is not None for column in columns):
        valid = np.concatenate(
            [
                np.ones(column.values.shape, bool) if column.valid is None else column.valid
                for column in columns
            ]
        )
    numbers = None
    if any(column.numbers is not None for column in columns):
        numbers = np.concatenate(
            [
                np.full(column.values.shape, np.nan) if column.numbers is None else column.numbers
                for column in columns
            ]
        )
    if columns[0].categories is None:
        return Column(np.concatenate([column.values for column in columns]), valid, None, numbers)
    codes: Dict[str, int] = {}
    parts = []
    for column in columns:
        names = column.categories or []
        new = [codes.setdefault(name, len(codes)) for name in names]
        parts.append(np.array(new + [-1], np.int32)[column.values])
    return Column(np.concatenate(parts), valid, list(codes), numbers)


def bits_to_bool(bits: Array, count: int) -> Optional[Array]:
    """The validity of `count` values from a bit each; None when all are valid."""
    full, rest = divmod(count, 8)
    tail = (1 << rest) - 1
    if (bits[:full] == 0xFF).all() and (rest == 0 or bits[full] & tail == tail):
        return None
    return np.unpackbits(bits, count=count, bitorder="little").view(bool)


def viewed(address: Optional[int], count: int, dtype: Any) -> Array:
    """The library's memory as an array, which borrows it."""
    dtype = np.dtype(dtype)
    if not address or count == 0:
        return np.empty(0, dtype)
    memory = (ctypes.c_char * (count * dtype.itemsize)).from_address(address)
    return np.frombuffer(memory, dtype)


def column_of(values: c.Values, shape: Tuple[int, ...]) -> Column:
    """What a column of the library's holds, copied."""
    rows, count = int(values.rows), int(values.rows * values.elements)
    whole = (rows,) + shape
    valid = None
    if values.validity:
        valid = bits_to_bool(viewed(values.validity, (count + 7) // 8, np.uint8), count)
    if valid is not None:
        valid = valid.reshape(whole)
    if values.type == c.DICTIONARY:
        codes = viewed(values.data, count, np.int32).copy().reshape(whole)
        numbers = None
        if values.numbers:
            numbers = viewed(values.numbers, count, np.float64).copy().reshape(whole)
        return Column(codes, valid, c.texts_of(values.texts, values.text_count), numbers)
    if values.type in (c.TEXT, c.BYTES):
        return Column(_objects(values, count, valid).reshape(whole), valid)
    data = viewed(values.data, count, DTYPES[values.type])
    return Column(data.copy().reshape(whole), valid)


def _objects(values: c.Values, count: int, valid: Optional[Array]) -> Array:
    """Texts or bytes as objects; None where they are not valid."""
    offsets = viewed(values.offsets, count + 1, np.int64).tolist()
    data = ctypes.string_at(values.data, offsets[-1]) if count and offsets[-1] else b""
    found = np.empty(count, OBJECT)
    if values.type == c.BYTES:
        found[:] = [data[begin:end] for begin, end in zip(offsets, offsets[1:])]
    elif data.isascii():  # characters are bytes
        whole = data.decode("ascii")
        found[:] = [whole[begin:end] for begin, end in zip(offsets, offsets[1:])]
    else:
        found[:] = [c.text(data[begin:end]) for begin, end in zip(offsets, offsets[1:])]
    if valid is not None:
        found[~valid.reshape(-1)] = None
    return found
