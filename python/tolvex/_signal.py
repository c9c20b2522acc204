"""One channel: what it is called, and its values over time."""

from __future__ import annotations

from typing import TYPE_CHECKING, Any, List, Optional

import numpy as np

from . import _library as c
from . import _optional, _show, _times
from ._column import DTYPES, OBJECT, Array, Column
from ._errors import MdfTypeError
from ._rows import Rows

if TYPE_CHECKING:
    from ._measurement import Group, Measurement

_CONVERSIONS = (
    "none",
    "linear",
    "rational",
    "algebraic",
    "value to value, interpolated",
    "value to value",
    "range to value",
    "value to text",
    "range to text",
    "text to value",
    "text to text",
    "bit field to text",
)


class Signal:
    """A channel of a group, or some of its rows: `time` and `values` of equal length.

    Nothing is read before it is asked for; what was read is kept with the signal. Rows are
    records, in the order of the file. Slices take times: `s[10.0:20.0]` are the rows from 10 s
    after the recording's start on and before 20 s, dates work too. Signals may be used by several
    threads at once.
    """

    def __init__(self, group: Group, index: int, rows: Optional[Rows] = None) -> None:
        self.group = group
        #: Which channel of its group it is, from 0.
        self.index = index
        self._rows = rows
        self._kept: Optional[Rows] = None
        #: Whether it is what the rows of its group rise by.
        self.is_master: bool = index == group._master
        self._column: Optional[Column] = None
        self._raw: Optional[Column] = None
        with group.measurement._pool.reader() as reader:
            self._describe(reader.channel(group.index, index))

    def _describe(self, info: c.ChannelInfo) -> None:
        #: With the names of the structures around it: "CAN_DataFrame.ID".
        self.name = c.text(info.name)
        #: Of the physical values, "" without one.
        self.unit = c.text(info.unit)
        self.comment = c.text(info.comment)
        self.source_name = c.text(info.source_name)
        self.source_path = c.text(info.source_path)
        #: Why there are no values; "" when there are.
        self.fault = c.text(info.fault)
        #: Of a row: () for single values.
        self.shape = tuple(int(info.shape[i]) for i in range(info.dimensions))
        self.bit_count = int(info.bit_count)
        self._type: int = int(info.type)
        self._raw_type = int(info.raw_type)
        self._conversion = int(info.conversion)
        self._parent = int(info.parent)
        self._gives_numbers = bool(info.gives_numbers)

    # What it is ---------------------------------------------------------------------------

    @property
    def measurement(self) -> Measurement:
        return self.group.measurement

    @property
    def conversion(self) -> str:
        """The kind of its conversion, in words; "none" without one."""
        known = self._conversion < len(_CONVERSIONS)
        return _CONVERSIONS[self._conversion] if known else f"of kind {self._conversion}"

    @property
    def dtype(self) -> Any:
        """The narrowest type that holds all values exactly; object for texts and bytes."""
        return DTYPES.get(self._type, OBJECT)

    @property
    def has_values(self) -> bool:
        return self._type != c.NONE

    @property
    def is_text(self) -> bool:
        """Texts, or a status whose values have texts."""
        return self._type in (c.TEXT, c.DICTIONARY)

    @property
    def is_status(self) -> bool:
        """Its values are texts that recur: `codes` counts `categories`."""
        return self._type == c.DICTIONARY

    def __len__(self) -> int:
        return len(self.rows)

    @property
    def rows(self) -> Rows:
        if self._kept is None:  # so that its times are kept
            self._kept = self.group._rows if self._rows is None else self._rows
        return self._kept

    # Its values ---------------------------------------------------------------------------

    @property
    def time(self) -> Array:
        """Seconds since the recording's start, float64; NaN where a row has no time."""
        return self.rows.seconds

    @property
    def time_ns(self) -> Array:
        """Nanoseconds since 1970-01-01 00:00 (UTC, or local time), int64."""
        return self.rows.ns

    @property
    def datetime(self) -> Array:
        """datetime64[ns] in UTC, or in local time where the recording's start is local."""
        return self.time_ns.view("datetime64[ns]")  # NO_TIME is NaT

    @property
    def column(self) -> Column:
        """Values, validity and texts together."""
        if self._column is None:
            self._column = self._read(False)
        return self._column

    @property
    def values(self) -> Array:
        """The physical values, of the narrowest exact type.

        Texts are str, bytes are bytes; those of a status are the texts, numbers where it has no
        text for one. Where `valid` is False numbers are arbitrary, and objects None.
        """
        return self.column.plain()

    @property
    def valid(self) -> Array:
        """Where there is a valid value, bool."""
        valid = self.column.valid
        return np.ones(self.column.values.shape, bool) if valid is None else valid

    @property
    def text(self) -> Optional[Array]:
        """The values as texts (object), of a status or texts; None where they are numbers."""
        return self.values if self.is_text else None

    @property
    def codes(self) -> Array:
        """Of a status: which of `categories` each value is, int32, -1 without a text."""
        self.categories  # says what is wrong
        return self.column.values

    @property
    def categories(self) -> List[str]:
        """Of a status: its texts."""
        found = self.column.categories
        if found is None:
            raise MdfTypeError(f"{self.name} has no texts that recur")
        return found

    @property
    def raw(self) -> Array:
        """The values before their conversion."""
        if self._raw is None:
            self._raw = self._read(True)
        return self._raw.plain()

    def masked(self) -> Any:
        """The values as numpy.ma.MaskedArray, masked where they are not valid."""
        return self.column.masked()

    def filled(self) -> Array:
        """The values with NaN (None in texts) where they are not valid; float64 if need be."""
        return self.column.filled()

    def _read(self, raw: bool) -> Column:
        kind = self._raw_type if raw else self._type
        if kind == c.NONE:
            raise MdfTypeError(f"{self.name} has no values: {self.fault or 'it is a structure'}")
        return self.rows.columns([(self.index, kind, self.shape)], raw)[0]

    def __array__(self, dtype: Any = None, copy: Optional[bool] = None) -> Array:
        return np.asarray(self.values, dtype=dtype)

    # Parts of it --------------------------------------------------------------------------

    def __getitem__(self, times: slice) -> Signal:
        if not isinstance(times, slice) or times.step is not None:
            raise MdfTypeError(
                "a signal takes times: s[10.0:20.0]; s.at(10.0) is its value then, "
                "s.values[10] that of a row"
            )
        if times.start is None and times.stop is None:
            return self
        inside = self.rows.inside(times.start, times.stop)
        part = Signal(self.group, self.index, self.rows.picked(inside))
        if self._column is not None:
            part._column = self._column.take(inside)
        return part

    def at(self, time: _times.Time, interpolate: bool = False) -> Any:
        """The value at a time: the last one before or then, None before the first.

        With `interpolate`, numbers are on the line to the next value. Not valid ones are None.
        """
        ns = _times.to_ns(time, self.measurement.start_ns, self.measurement.start_is_local)
        own, order = self.rows.sorted
        before = int(np.searchsorted(own, ns, side="right")) - 1
        pair = np.arange(max(before, 0), min(before + 2, len(own)))
        rows = pair if isinstance(order, slice) else order[pair]
        column = self.column.take(rows)
        found: Array = sampled(column, own[pair], np.array([ns], np.int64), interpolate).masked()
        return found.tolist()[0]

    def resample(self, step: float, interpolate: bool = False) -> Signal:
        """The values at each multiple of `step` seconds since the start, from first to last row.

        Each is the last value before or then, or, with `interpolate`, numbers are on the line to
        the next one if that is valid. The result has no `raw` values.
        """
        start, size = self.measurement.start_ns, _times.step_ns(step)
        ns, order = self.rows.sorted
        steps: Array = np.empty(0, np.int64)
        if len(ns):
            first, last = int(ns[0]), int(ns[-1])
            ends = _times.steps_between(start, size, first, last + 1, _times.MOST_ROWS)
            steps = np.arange(*ends, dtype=np.int64)
        times = start + steps * size
        rows = Rows(self.group, 0, len(times), None, steps * size / 1e9, times, made=True)
        part = Signal(self.group, self.index, rows)
        part._column = sampled(self.column.take(order), ns, times, interpolate)
        return part

    # To others ----------------------------------------------------------------------------

    def to_pandas(self, time: str = "seconds", missing: str = "nan") -> Any:
        """A pandas.Series over its time; see Table.to_pandas for the arguments."""
        pandas = _optional.need("pandas")
        from ._table import pandas_index, pandas_values

        if self.shape:
            raise MdfTypeError(f"{self.name} has arrays in each row: table([...]).to_pandas()")
        rows = self.rows if self.group.has_time else None
        index = pandas_index(rows, self.measurement, time, "time", len(self))
        values = pandas_values(self.column, missing, self._gives_numbers)
        return pandas.Series(values, index=index, name=self.name)

    def plot(self, ax: Any = None, time: str = "seconds", **style: Any) -> Any:
        """Draws it with matplotlib, into `ax` or a new figure. Returns the axes.

        A status is a line of steps between its texts. `time` is "seconds" or "datetime"; `style`
        goes to matplotlib.
        """
        from ._plot import plot

        return plot(self, ax, time, style)

    def __repr__(self) -> str:
        return _show.signal_text(self)

    def _repr_html_(self) -> str:
        return _show.signal_html(self)


def sampled(column: Column, own: Array, ns: Array, interpolate: bool) -> Column:
    """The values of a column, whose rows are at `own` in order, at other times."""
    held: Array = np.searchsorted(own, ns, side="right") - 1
    there = np.flatnonzero(held >= 0)
    result = column.place(len(ns), there, held[there])
    isnumber = column.categories is None and column.values.dtype.kind in "iuf"
    if not interpolate or not isnumber:
        return result
    if len(own) == 0:
        result.values = result.values.astype(np.float64)
        return result
    before: Array = np.maximum(held, 0)
    after: Array = np.minimum(held + 1, len(own) - 1)
    span = _distance(own[before], own[after])
    way = np.divide(_distance(own[before], ns), span, out=np.zeros(len(ns)), where=span > 0)
    values: Array = column.values.astype(np.float64)
    shape = (len(ns),) + (1,) * (values.ndim - 1)
    between = (held >= 0) & (after > before) & (way > 0)
    usable = np.broadcast_to(between.reshape(shape), result.values.shape)
    if column.valid is not None:
        usable = usable & column.valid[before] & column.valid[after]
    way = way.reshape(shape)
    with np.errstate(all="ignore"):  # infinite values
        line = values[before] * (1.0 - way) + values[after] * way
    result.values = np.where(usable, line, result.values.astype(np.float64))
    return result


def _distance(begin: Array, end: Array) -> Array:
    """From the earlier times to the later ones, which may be further apart than int64 holds."""
    return (end.view(np.uint64) - begin.view(np.uint64)).astype(np.float64)


class Signals(List[Signal]):
    """A list that shows itself with a line for each signal."""

    def __repr__(self) -> str:
        return _show.signals_text(self)

    def _repr_html_(self) -> str:
        return _show.signals_html(self)
