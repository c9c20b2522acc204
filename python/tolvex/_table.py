"""Signals side by side: arrays by name, and what other packages make of them."""

from __future__ import annotations

from collections.abc import Mapping
from typing import TYPE_CHECKING, Any, Dict, Iterable, Iterator, List, Optional, Tuple, Union

import numpy as np

from . import _optional, _show
from ._column import OBJECT, Array, Column
from ._errors import MdfNameError, MdfTypeError, MdfValueError
from ._rows import Rows
from ._signal import Signal

if TYPE_CHECKING:
    from ._measurement import Group, Measurement

_One = Union[str, Tuple[str, Any], Signal]
Choice = Union[None, _One, Iterable[_One]]


class Table(Mapping[str, Array]):
    """Columns by name, with the time in front where the rows have one.

    `t["EngineSpeed"]` is an array; where some values are not valid or not there, it is a
    numpy.ma.MaskedArray. `t.columns["EngineSpeed"]` has values, validity and texts apart.
    """

    def __init__(
        self,
        measurement: Measurement,
        rows: Optional[Rows],
        columns: Dict[str, Column],
        signals: Dict[str, Signal],
        count: int,
    ) -> None:
        self._measurement = measurement
        self._rows = rows
        #: What is in the columns, by name.
        self.columns = columns
        #: The channels that they are of.
        self.signals = signals
        #: How many rows there are.
        self.rows = count
        #: What the column of the times is called; None: the rows have no times.
        self.time_name: Optional[str] = None
        if rows is not None:
            self.time_name = distinct("time", columns)

    @property
    def time(self) -> Array:
        """Seconds since the recording's start."""
        return self._timed().seconds

    @property
    def time_ns(self) -> Array:
        """Nanoseconds since 1970-01-01 00:00."""
        return self._timed().ns

    def _timed(self) -> Rows:
        if self._rows is None:
            raise MdfTypeError("the rows have no times")
        return self._rows

    @property
    def units(self) -> Dict[str, str]:
        """Units by column; seconds for the time."""
        units = {} if self.time_name is None else {self.time_name: "s"}
        return {**units, **{name: signal.unit for name, signal in self.signals.items()}}

    def __getitem__(self, name: str) -> Array:
        if name == self.time_name:
            return self.time
        if name not in self.columns:
            raise MdfNameError(f"the table has no column {name!r}; it has {', '.join(self)}")
        column = self.columns[name]
        return column.plain() if column.valid is None else column.masked()

    def __iter__(self) -> Iterator[str]:
        return iter(([] if self.time_name is None else [self.time_name]) + list(self.columns))

    def __len__(self) -> int:
        return len(self.columns) + (self.time_name is not None)

    def to_pandas(self, time: str = "seconds", missing: str = "nan") -> Any:
        """A pandas.DataFrame over the time.

        `time`: "seconds" since the start (float64), "datetime" (datetime64[ns, UTC]; without a
        zone where the recording's start is local), "timedelta" since the start, or "none".
        `missing`: where values are not valid, "nan" (integers become float64 for it), or
        "nullable" (pandas' Int64, Float32, boolean and so on, of the same width, with NA).
        Texts that recur become categoricals. Numbers share memory with the table. Of arrays each element is a column: `map[1][2]`.
        """
        pandas = _optional.need("pandas")
        index = pandas_index(self._rows, self._measurement, time, self.time_name, self.rows)
        data: Dict[str, Any] = {}
        for name, column in self.columns.items():
            mixed = name in self.signals and self.signals[name]._gives_numbers
            for key, one in elements({name: column}).items():
                data[distinct(key, data)] = pandas_values(one, missing, mixed)
        return pandas.DataFrame(data, index=index, copy=False)

    def to_arrow(self, time: str = "seconds") -> Any:
        """A pyarrow.Table: times in front, nulls where values are not valid.

        `time`: "seconds" since the start, "datetime" (timestamps in nanoseconds), or "none".
        """
        arrow = _optional.need("pyarrow")
        if time not in ("seconds", "datetime", "none"):
            raise MdfValueError(f"time: expected 'seconds', 'datetime' or 'none', found {time!r}")
        arrays: List[Any] = []
        fields: List[Any] = []
        if self._rows is not None and time != "none":
            zone = None if self._measurement.start_is_local else "UTC"
            stamped = time == "datetime"
            arrays.append(
                arrow.array(self.time_ns, arrow.timestamp("ns", zone))
                if stamped
                else arrow.array(self.time)
            )
            fields.append((self.time_name, arrays[-1].type, {}))
        for name, column in elements(self.columns).items():
            missing = column.missing()
            if column.categories is not None and column.numbers is None:
                codes = arrow.array(column.values, mask=missing)
                array = arrow.DictionaryArray.from_arrays(codes, arrow.array(column.categories))
            elif column.categories is not None:
                array = arrow.array([None if v is None else str(v) for v in column.plain()])
            else:
                array = arrow.array(column.values, mask=missing)
            arrays.append(array)
            unit = self.units.get(name, "")
            fields.append((name, array.type, {"unit": unit} if unit else {}))
        schema = arrow.schema(
            [arrow.field(name, kind, metadata=metadata) for name, kind, metadata in fields]
        )
        return arrow.Table.from_arrays(arrays, schema=schema)

    def to_xarray(self, time: str = "seconds") -> Any:
        """An xarray.Dataset over the dimension "time", with units as attributes."""
        xarray = _optional.need("xarray")
        if self._rows is None or time == "none":
            dimension, coordinates = "row", {}
        else:
            dimension = str(self.time_name)
            seconds = {"units": "s"} if time == "seconds" else {}
            values = pandas_index(self._rows, self._measurement, time)
            if getattr(values, "tz", None) is not None:  # xarray has none
                values = values.tz_localize(None)
            coordinates = {dimension: (dimension, np.asarray(values), seconds)}
        variables = {}
        for name, column in self.columns.items():
            values = column.filled()
            extra = [f"{name}_{axis}" for axis in range(values.ndim - 1)]
            units = {"units": self.units[name]} if self.units.get(name) else {}
            variables[name] = ([dimension, *extra], values, units)
        return xarray.Dataset(variables, coordinates)

    def __repr__(self) -> str:
        return _show.table_text(self)

    def _repr_html_(self) -> str:
        return _show.table_html(self)


def distinct(name: str, taken: Any) -> str:
    """The name, with a number behind it where another one has it."""
    found, number = name, 2
    while found in taken:
        found, number = f"{name}_{number}", number + 1
    return found


def chosen(measurement: Measurement, channels: Choice, group: Optional[Group] = None) -> List[Any]:
    """The signals that are meant; of one group alone, if it is given."""
    if channels is None:
        return list(measurement.signals)
    if isinstance(channels, (str, tuple, Signal)):
        channels = [channels]  # type: ignore[list-item]
    found = [signal for one in channels for signal in _signals(measurement, one, group)]
    return list({(signal.group.index, signal.index): signal for signal in found}.values())


def _signals(measurement: Measurement, one: _One, group: Optional[Group]) -> List[Signal]:
    if isinstance(one, Signal):
        if one.measurement is not measurement:
            raise MdfValueError(f"{one.name} is a signal of another measurement")
        if one._rows is not None:
            raise MdfValueError(f"{one.name} is a part of a signal: give the table start and end")
        return [one]
    if not isinstance(one, str):
        return [measurement[one]]
    there: Any = measurement if group is None else group
    if one in there or not any(letter in one for letter in "*?["):
        return [there[one]]
    found = [
        signal
        for signal in measurement.find(one)
        if signal.has_values and not signal.is_master and group in (None, signal.group)
    ]
    if not found:
        raise MdfNameError(f"{measurement.label} has no channel {one!r}")
    return found


def named(signals: List[Any]) -> Dict[str, Signal]:
    """Signals by the names of their columns: with their group's where several have one name."""
    counts: Dict[str, int] = {}
    for signal in signals:
        counts[signal.name] = counts.get(signal.name, 0) + 1
    found: Dict[str, Signal] = {}
    for signal in signals:
        alone = counts[signal.name] == 1
        name = signal.name if alone else f"{signal.group.label}.{signal.name}"
        found[distinct(name, found)] = signal
    return found


def elements(columns: Dict[str, Column]) -> Dict[str, Column]:
    """The columns, each element of arrays as one of its own."""
    found: Dict[str, Column] = {}
    for name, column in columns.items():
        if column.values.ndim == 1:
            found[distinct(name, found)] = column
            continue
        for place in np.ndindex(*column.values.shape[1:]):
            at = (slice(None), *place)
            element = Column(
                column.values[at],
                None if column.valid is None else column.valid[at],
                column.categories,
                None if column.numbers is None else column.numbers[at],
            )
            found[distinct(name + "".join(f"[{i}]" for i in place), found)] = element
    return found


def pandas_index(
    rows: Optional[Rows],
    measurement: Measurement,
    time: str,
    name: Optional[str] = "time",
    count: int = 0,
) -> Any:
    """The times of rows as an index of pandas."""
    pandas = _optional.need("pandas")
    forms = ("seconds", "datetime", "timedelta", "none")
    if time not in forms:
        raise MdfValueError(f"time: expected one of {', '.join(forms)}, found {time!r}")
    if rows is None or time == "none":
        return pandas.RangeIndex(count if rows is None else len(rows))
    if time == "seconds":
        return pandas.Index(rows.seconds, name=name, copy=False)
    if time == "timedelta":
        spans = np.where(rows.ns == np.iinfo(np.int64).min, rows.ns, rows.ns - measurement.start_ns)
        return pandas.TimedeltaIndex(spans.view("timedelta64[ns]"), name=name)
    zone = None if measurement.start_is_local else "UTC"
    return pandas.DatetimeIndex(rows.ns.view("datetime64[ns]"), tz=zone, name=name)


def pandas_values(column: Column, missing: str, mixed: bool = False) -> Any:
    """A column as pandas takes it; `mixed` are numbers among texts, though there may be none."""
    pandas = _optional.need("pandas")
    if missing not in ("nan", "nullable"):
        raise MdfValueError(f"missing: expected 'nan' or 'nullable', found {missing!r}")
    if column.categories is not None and column.numbers is None and not mixed:
        codes = column.values if column.valid is None else np.where(column.valid, column.values, -1)
        return pandas.Categorical.from_codes(codes, _unique(column.categories))
    values = column.plain()
    if missing == "nan" or values.dtype == OBJECT:
        return column.filled()
    invalid = np.zeros(len(values), bool) if column.valid is None else ~column.valid
    if values.dtype.kind == "f":
        return pandas.arrays.FloatingArray(values, invalid)
    return pandas.arrays.IntegerArray(values, invalid)


def _unique(texts: List[str]) -> List[str]:
    found: List[str] = []
    for text in texts if len(set(texts)) < len(texts) else ():
        found.append(distinct(text, found))
    return found or texts
