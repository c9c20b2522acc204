"""Tables of other packages, arrays and signals as new files."""

from __future__ import annotations

import time as clock
import warnings
from collections.abc import Mapping
from dataclasses import dataclass, field
from typing import Any, Dict, List, Optional, Sequence, Tuple

import numpy as np

from . import _records
from ._arrow_taken import columns_of
from ._column import OBJECT, Array, Column
from ._conversions import MOST_TEXTS, Conversion, Convertible, converted, texts
from ._errors import MdfNameError, MdfTypeError, MdfValueError, MdfWarning
from ._frames import Frames
from ._library import NO_TIME, PathLike
from ._measurement import Group, Measurement
from ._recorder import Recorder, Start, started
from ._signal import Signal
from ._table import Table

# What objects may be side by side; bool is an int, too.
_FAMILIES: List[Tuple[Any, ...]] = [
    (str,),
    (bytes, bytearray),
    (int, float, np.integer, np.floating, np.bool_),
]
_NO_TIME = (
    "there is no time: give time=<the name of a column, or an array>, a column 'time', or an index "
    "of floats (seconds), dates or timedeltas"
)


def write(
    path: PathLike,
    data: Any,
    *,
    time: Any = None,
    start: Start = None,
    units: Optional[Mapping[str, str]] = None,
    comments: Optional[Mapping[str, str]] = None,
    conversions: Optional[Mapping[str, Convertible]] = None,
    name: str = "",
    split_size: int = 0,
    overwrite: bool = True,
) -> None:
    """Writes a file of a table; tolvex.open gives what was written.

    `data` is a pandas.DataFrame or Series, a dict of arrays (of NumPy, masked ones too, or lists),
    a structured array, a tolvex.Table, Group or Signal, a list of Signals, anything with
    `__arrow_c_stream__`; or a dict of several of these, each a group of its name. `name` is that of
    a single group.

    The time is the column `time`, or an array; without it the column "time", else the index of a
    DataFrame, if it has floats, dates or timedeltas. Numbers are seconds since the start of the
    recording, dates without a zone are UTC. `start` is a date, or nanoseconds since 1970 as int;
    without it it is the first of the dates or the start of the measurement that the data are of,
    else now; it is kept to the microsecond. Times are stored as seconds in float64: dates come back
    to the nanosecond up to 97 days behind the start.

    Numbers keep their types; bool becomes uint8, float16 float32. Missing ones are NaN, for which
    integers and bools become float64; one that float64 cannot hold is an MdfValueError. Texts that
    recur, that are missing in some rows, and categoricals become numbers with a conversion to text;
    other texts are stored in the width of the longest. Rows of arrays become signals of their
    elements: `x[0]`, `x[1]` .. `units` and `comments` go by column, as do `conversions` (see
    Recorder.group), with which the values given are the stored ones.

    Nothing is written when something cannot be: it is an MdfError that names the column and row.
    """
    groups = _groups(data, name, time)
    for what, given in (("units", units), ("comments", comments), ("conversions", conversions)):
        unknown = set(given or ()) - {column for group in groups for column in group.columns}
        if unknown:
            raise MdfNameError(f"{what}: there is no column {sorted(unknown)[0]!r}")
    start_ns = _start_of(groups, start)
    plans = [
        group.stored(start_ns, units or {}, comments or {}, conversions or {}) for group in groups
    ]
    with Recorder(path, start=start_ns, split_size=split_size, overwrite=overwrite) as recorder:
        for group, (columns, described) in zip(groups, plans):
            fields = [
                (key, np.float64 if key == "time" else one.dtype, one.shape[1:])
                for key, one in columns.items()
            ]
            recorder.group(group.name, fields, **described).extend(columns)


@dataclass
class _Given:
    """One column as it was given."""

    values: Any
    valid: Optional[Array] = None
    categories: Optional[List[Any]] = None
    unit: str = ""
    comment: str = ""


@dataclass
class _GivenGroup:
    """One table as it was given."""

    name: str
    columns: Dict[str, _Given] = field(default_factory=dict)
    seconds: Optional[Array] = None
    ns: Optional[Array] = None  # since 1970; one of both
    start_ns: Optional[int] = None  # that the seconds count from

    def add(self, name: str, given: _Given) -> None:
        if name in self.columns:
            raise MdfNameError(f"two columns are called {name!r}")
        if name in ("", "time"):
            raise MdfNameError(f"a column beside the time cannot be called {name!r}")
        self.columns[name] = given

    def set_time(self, times: Any) -> None:
        kind, values = _time_of(times)
        if kind == "ns":
            self.ns = values
        else:
            self.seconds = values

    def stored(
        self,
        start_ns: int,
        units: Mapping[str, str],
        comments: Mapping[str, str],
        conversions: Mapping[str, Convertible],
    ) -> Tuple[Dict[str, Array], Dict[str, Any]]:
        """The fields as they are stored, and what is said of them."""
        if self.ns is not None:
            times = self.ns.view("datetime64[ns]")
        else:
            assert self.seconds is not None
            times = self.seconds
            if self.start_ns is not None and self.start_ns != start_ns:
                times = times + (self.start_ns - start_ns) / 1e9
        columns: Dict[str, Array] = {"time": times}
        said: Dict[str, Dict[str, Any]] = {"units": {}, "comments": {}, "conversions": {}}
        for name, given in self.columns.items():
            own = converted(conversions.get(name))
            values, made = _stored(name, given, own is not None)
            if len(values) != len(times):
                raise MdfValueError(f"{name}: {len(values)} rows, but there are {len(times)} times")
            columns[name] = values
            for what, one in (
                ("units", units.get(name, given.unit)),
                ("comments", comments.get(name, given.comment)),
                ("conversions", made if own is None else own),
            ):
                if one:
                    said[what][name] = one
        return columns, said


# ---------------------------------------------------------------------------------------------
# What is given


def _groups(data: Any, name: str, time: Any) -> List[_GivenGroup]:
    if isinstance(data, Mapping) and not isinstance(data, Table) and data:
        if all(_is_table(one) for one in data.values()):
            found = [group for key, one in data.items() for group in _one(one, str(key), time)]
            return found
    return _one(data, name, time)


def _is_table(data: Any) -> bool:
    if isinstance(data, (Mapping, Signal, Group)) or _is_frame(data):
        return True
    if _is_structured(data):
        return True
    if isinstance(data, (list, tuple)):
        return bool(data) and all(isinstance(one, Signal) for one in data)
    if not hasattr(data, "__arrow_c_stream__"):
        return False
    return hasattr(data, "schema") or hasattr(data, "columns") or not hasattr(data, "__array__")


def _is_series(data: Any) -> bool:
    return hasattr(data, "index") and hasattr(data, "to_frame")


def _is_structured(data: Any) -> bool:
    return isinstance(data, np.ndarray) and data.dtype.names is not None


def _is_frame(data: Any) -> bool:
    return hasattr(data, "columns") and hasattr(data, "index") and hasattr(data, "items")


def _one(data: Any, name: str, time: Any) -> List[_GivenGroup]:
    if isinstance(data, Frames):
        raise MdfTypeError("CAN frames are recorded by Recorder.frames")
    if isinstance(data, Measurement):
        raise MdfTypeError("give signals or a table of the measurement: m.table([...])")
    if isinstance(data, Group):
        return _of_signals(data.signals, name or data.label)
    if isinstance(data, Signal):
        return _of_signals([data], name)
    if isinstance(data, Table):
        return [_of_table(data, name)]
    if isinstance(data, (list, tuple)) and _is_table(data):
        return _of_signals(data, name)
    if isinstance(data, Mapping):
        return [_of_mapping(data, name, time)]
    if _is_frame(data):
        return [_of_frame(data, name, time)]
    if _is_structured(data):
        return [_of_mapping({key: data[key] for key in data.dtype.names}, name, time)]
    if _is_series(data):
        if data.name is None:
            raise MdfNameError("the Series has no name, which its signal would have")
        return [_of_frame(data.to_frame(), name, time)]
    if hasattr(data, "__arrow_c_stream__"):
        return [_of_arrow(data, name, time)]
    raise MdfTypeError(
        "expected a DataFrame or Series, a dict of arrays, a structured array, a Table or Signals "
        "of tolvex, or an Arrow table; "
        f"found {type(data).__name__}"
    )


def _of_signals(signals: Sequence[Signal], name: str) -> List[_GivenGroup]:
    """A group for the signals of the same rows."""
    by_rows: Dict[int, List[Signal]] = {}
    rows = {id(signal): signal.rows for signal in signals}  # stay alive, and so do their ids
    for signal in signals:
        by_rows.setdefault(id(rows[id(signal)]), []).append(signal)
    found = []
    for together in by_rows.values():
        first = together[0]
        group = _GivenGroup(name or first.group.label)
        _take_times(group, first.measurement, rows[id(first)].seconds, rows[id(first)].ns)
        for signal in together:
            group.add(signal.name, _of_column(signal.column, signal.unit, signal.comment))
        found.append(group)
    return found


def _of_table(table: Table, name: str) -> _GivenGroup:
    group = _GivenGroup(name)
    _take_times(group, table._measurement, table.time, table.time_ns)
    for key, column in table.columns.items():
        signal = table.signals.get(key)
        comment = "" if signal is None else signal.comment
        group.add(key, _of_column(column, table.units.get(key, ""), comment))
    return group


def _take_times(group: _GivenGroup, measurement: Measurement, seconds: Array, ns: Array) -> None:
    """The times of a measurement: seconds to the bit if its start has whole microseconds."""
    _check_times(seconds)
    if measurement.start_is_local:
        warnings.warn(
            f"{measurement.label} is in local time, which is written as if it was UTC",
            MdfWarning,
            6,
        )
    if measurement.start_ns % 1000 == 0 and measurement.start_ns > 0:
        group.seconds, group.start_ns = seconds, measurement.start_ns
    elif (ns == NO_TIME).any():
        raise MdfValueError(f"time, row {int((ns == NO_TIME).argmax())}: the row has no time")
    else:
        group.ns = ns


def _of_column(column: Column, unit: str, comment: str) -> _Given:
    if column.categories is not None and column.numbers is not None:
        if not np.isnan(column.numbers).all():
            given = _Given(column.plain(), None, None, unit, comment)
            return given  # an error that names the row
    return _Given(column.values, column.valid, column.categories, unit, comment)


def _of_mapping(data: Mapping[Any, Any], name: str, time: Any) -> _GivenGroup:
    group = _GivenGroup(name)
    columns = {str(key): one for key, one in data.items()}
    if len(columns) != len(data):
        raise MdfNameError("two columns have the same name")
    group.set_time(_taken_time(columns, time, None))
    for key, one in columns.items():
        group.add(key, _of_values(one))
    return group


def _of_frame(data: Any, name: str, time: Any) -> _GivenGroup:
    group = _GivenGroup(name)
    columns: Dict[str, Any] = {}
    for key, series in data.items():
        label = ".".join(str(part) for part in key) if isinstance(key, tuple) else str(key)
        if label in columns:
            raise MdfNameError(f"two columns are called {label!r}")
        columns[label] = series
    group.set_time(_taken_time(columns, time, data.index))
    for key, series in columns.items():
        group.add(key, _of_values(series))
    return group


def _of_arrow(data: Any, name: str, time: Any) -> _GivenGroup:
    group = _GivenGroup(name)
    taken = columns_of(data)
    times: Dict[str, Any] = {
        key: one.column.masked() if one.times is None else one.times for key, one in taken.items()
    }
    group.set_time(_taken_time(times, time, None))
    for key in times:
        column, said = taken[key].column, taken[key].metadata
        values = column.values if taken[key].times is None else taken[key].times
        unit, comment = said.get("unit", ""), said.get("comment", "")
        group.add(key, _Given(values, column.valid, column.categories, unit, comment))
    return group


def _of_values(given: Any) -> _Given:
    """A column of pandas, or what NumPy makes an array of."""
    dtype = getattr(given, "dtype", None)
    if dtype is not None and not isinstance(dtype, np.dtype) and hasattr(given, "isna"):
        return _of_extension(given, dtype)
    if isinstance(given, Signal):
        return _of_column(given.column, given.unit, given.comment)
    if isinstance(given, np.ma.MaskedArray):
        mask: Any = given.mask
        values = np.asarray(given.data)
        return _Given(values, None if not np.any(mask) else ~(mask | np.zeros(values.shape, bool)))
    array = np.asarray(given)
    if dtype is None and isinstance(given, (list, tuple)) and array.dtype.kind in "SUO":
        array = np.empty(len(given), OBJECT)  # as they are: NumPy makes texts of 1 beside "a"
        array[:] = given
    return _Given(array)


def _of_extension(series: Any, dtype: Any) -> _Given:
    """A column of one of pandas' own types."""
    if hasattr(series, "cat"):
        codes = np.asarray(series.cat.codes)
        return _Given(codes, None, list(series.cat.categories))
    if hasattr(dtype, "categories") and hasattr(series, "codes"):  # a Categorical itself
        return _Given(np.asarray(series.codes), None, list(series.categories))
    plain = getattr(dtype, "numpy_dtype", None)  # Int64, boolean, Float32 ..
    missing = np.asarray(series.isna())
    if isinstance(plain, np.dtype) and plain.kind in "biuf":
        values = series.to_numpy(dtype=plain, na_value=plain.type(0))
        return _Given(values, ~missing if missing.any() else None)
    kind = getattr(dtype, "kind", "O")
    if kind in "mM":
        return _Given(np.asarray(series, f"{kind}8[ns]"))
    if kind in "biufc" and not missing.any():  # sparse ones
        return _Given(np.asarray(series))
    values = np.empty(len(series), OBJECT)
    values[:] = list(series)
    values[missing] = None
    return _Given(values)


# ---------------------------------------------------------------------------------------------
# Times


def _taken_time(columns: Dict[str, Any], time: Any, index: Any) -> Any:
    """The times, which are taken out of the columns."""
    if isinstance(time, str):
        if time not in columns:
            if index is not None and time == getattr(index, "name", None):
                return index
            raise MdfNameError(f"time: there is no column {time!r}")
        if time != "time" and "time" in columns:
            raise MdfNameError(f"a column is called 'time', but the time is {time!r}: rename it")
        return columns.pop(time)
    if time is not None:
        if "time" in columns:
            raise MdfNameError("a column is called 'time', but `time` is given, too")
        return time
    if "time" in columns:
        return columns.pop("time")
    if index is not None and getattr(index.dtype, "kind", "O") in "fmM":
        return index
    raise MdfValueError(_NO_TIME)


def _time_of(times: Any) -> Tuple[str, Array]:
    """("ns", since 1970) or ("s", since the start)."""
    given = _of_values(times)
    values, valid = given.values, given.valid
    if values.ndim != 1 or given.categories is not None:
        raise MdfTypeError("time: expected one number or date for each row")
    if valid is not None:
        raise MdfValueError(f"time, row {_first(~valid)}: the row has no time")
    found = _records.times_of(values)
    if found.dtype == np.int64:
        return "ns", found
    _check_times(found)
    return "s", found


def _check_times(seconds: Array) -> None:
    with np.errstate(over="ignore", invalid="ignore"):
        if np.isfinite(seconds.sum()):
            return
    if not np.isfinite(seconds).all():
        row = int((~np.isfinite(seconds)).argmax())
        raise MdfValueError(f"time, row {row}: the row has no time: {seconds[row]}")


def _start_of(groups: List[_GivenGroup], start: Start) -> int:
    if start is not None:
        return started(start)
    known = [group.start_ns for group in groups if group.start_ns is not None]
    known += [int(group.ns.min()) for group in groups if group.ns is not None and len(group.ns)]
    return started(min(known) if known else clock.time_ns())


# ---------------------------------------------------------------------------------------------
# How values are stored


def _stored(name: str, given: _Given, israw: bool) -> Tuple[Array, Optional[Conversion]]:
    """The values of a field, and the conversion that they need."""
    values, valid = given.values, given.valid
    if given.categories is not None:
        return _categorical(name, values, valid, given.categories, israw)
    if values.dtype == OBJECT:
        values, valid, istext = _of_objects(name, values, valid)
        if istext:
            return _texts(name, values, valid)
    kind = values.dtype.kind
    if kind in "US":
        if valid is not None:
            decoded = np.char.decode(values, "utf-8", "replace") if kind == "S" else values
            return _texts(name, decoded.astype(OBJECT), valid)
        return _plain_texts(name, values)
    if kind in "mM":
        what = "dates" if kind == "M" else "timedeltas"
        raise MdfTypeError(
            f"{name}: {what} other than the time cannot be stored; give seconds, or texts"
        )
    if kind == "V" and values.dtype.names is None:
        if valid is not None:
            raise MdfValueError(f"{name}, row {_first(~valid)}: missing bytes cannot be stored")
        return values, None
    if kind not in "biuf" or values.dtype.itemsize > 8:
        raise MdfTypeError(f"{name}: values of type {values.dtype} cannot be stored")
    return (values if valid is None else _with_nan(name, values, valid)), None


def _with_nan(name: str, values: Array, valid: Array) -> Array:
    """Numbers with NaN where they are missing."""
    if values.dtype.kind == "f":
        return np.where(valid, values, values.dtype.type(np.nan))
    wide = values.astype(np.float64)
    inexact = valid & (np.abs(wide) >= 2.0**53)
    for place in np.argwhere(inexact).tolist():
        if int(wide[tuple(place)]) != int(values[tuple(place)]):
            raise MdfValueError(
                f"{name}, row {place[0]}: {values[tuple(place)]} cannot be stored exactly among "
                "missing values, which make float64 of integers"
            )
    wide[~valid] = np.nan
    return wide


def _of_objects(
    name: str, values: Array, valid: Optional[Array]
) -> Tuple[Array, Optional[Array], bool]:
    """Objects as numbers or bytes, or as texts; missing ones are not valid."""
    if values.ndim != 1:
        raise MdfTypeError(f"{name}: expected numbers, texts or bytes, found rows of objects")
    listed = values.tolist()
    missing = np.fromiter((one is None or _is_nan(one) for one in listed), bool, len(listed))
    if valid is not None:
        missing |= ~valid
    found = None if not missing.any() else ~missing
    first = "" if missing.all() else listed[int(missing.argmin())]
    family: Any = next((one for one in _FAMILIES if isinstance(first, one)), ())
    for row, one in enumerate(listed):
        if not isinstance(one, family) and not missing[row]:
            what = f"{type(one).__name__} {one!r} cannot be stored"
            beside = f" beside {type(first).__name__} {first!r}" if family else ""
            raise MdfTypeError(f"{name}, row {row}: {what}{beside}")
    if family is _FAMILIES[0]:
        return values, found, True
    if family is _FAMILIES[1]:
        return _bytes(name, listed, missing), None, False
    filled = [0 if isnone else one for one, isnone in zip(listed, missing.tolist())]
    return _numbers(name, filled), found, False


def _is_nan(one: Any) -> bool:
    try:
        return bool(one != one)
    except (TypeError, ValueError):
        return type(one).__name__ in ("NAType", "NaTType")


def _numbers(name: str, listed: List[Any]) -> Array:
    """Python's numbers: of one type if they have one, else float64 if it holds them."""
    found = np.array(listed)
    if found.dtype.kind in "biu":
        return found
    whole = [row for row, one in enumerate(listed) if isinstance(one, (int, np.integer))]
    for row in whole:
        if abs(int(listed[row])) > 2**53 and int(float(listed[row])) != int(listed[row]):
            raise MdfValueError(f"{name}, row {row}: {listed[row]} cannot be stored exactly")
    return np.array([float(one) for one in listed])


def _bytes(name: str, listed: List[Any], missing: Array) -> Array:
    """Bytes of equal lengths."""
    if missing.any():
        raise MdfValueError(f"{name}, row {_first(missing)}: missing bytes cannot be stored")
    size = len(listed[0])
    for row, one in enumerate(listed):
        if len(one) != size or size == 0:
            raise MdfValueError(
                f"{name}, row {row}: bytes of {len(one)} cannot be stored; all rows need the same "
                f"length, the first has {size}"
            )
    return np.frombuffer(b"".join(listed), f"V{size}")


def _categorical(
    name: str, codes: Array, valid: Optional[Array], categories: List[Any], israw: bool
) -> Tuple[Array, Optional[Conversion]]:
    missing = codes < 0
    if valid is not None:
        missing = missing | ~valid
    if israw or not all(isinstance(one, str) for one in categories):
        values = np.empty(len(categories) + 1, OBJECT)
        values[:-1] = categories
        taken = values[np.where(missing, -1, codes)]
        return _stored(name, _Given(taken), israw)
    return _coded(name, codes, missing, categories)


def _texts(name: str, values: Array, valid: Optional[Array]) -> Tuple[Array, Optional[Conversion]]:
    """Texts as codes if they recur or some are missing, else as they are."""
    known: Dict[Any, int] = {}
    listed = values.tolist()
    if valid is None:
        codes = np.array([known.setdefault(one, len(known)) for one in listed], np.int64)
    else:
        codes = np.full(len(listed), -1, np.int64)
        rows = np.flatnonzero(valid)
        codes[rows] = [known.setdefault(listed[row], len(known)) for row in rows.tolist()]
    recurs = 2 * len(known) <= len(listed)
    if len(known) <= MOST_TEXTS and (recurs or valid is not None):
        return _coded(name, codes, codes < 0, list(known))
    if valid is not None:
        raise MdfValueError(
            f"{name}, row {_first(~valid)}: missing texts cannot be stored among more than "
            f"{MOST_TEXTS} different ones"
        )
    for row, one in enumerate(listed):
        if "\0" in one:
            raise MdfValueError(f"{name}, row {row}: a text cannot have a NUL: {one!r}")
    return _plain_texts(name, np.array(listed, str))


def _plain_texts(name: str, values: Array) -> Tuple[Array, None]:
    try:
        found = _records.utf8(values) if values.dtype.kind == "U" else values
    except MdfValueError as error:
        raise MdfValueError(f"{name}: {error}") from error
    return (found if found.dtype.itemsize else np.zeros(found.shape, "S1")), None


def _coded(
    name: str, codes: Array, missing: Array, categories: List[str]
) -> Tuple[Array, Optional[Conversion]]:
    """Codes with their texts; NaN, which has none, where there is no value."""
    if len(categories) > MOST_TEXTS:
        used, codes = np.unique(np.where(missing, 0, codes), return_inverse=True)
        categories = [categories[code] for code in used]
        if len(categories) > MOST_TEXTS:
            raise MdfValueError(
                f"{name}: {len(categories)} categories cannot be stored, at most {MOST_TEXTS}"
            )
    try:
        conversion = texts(dict(enumerate(categories)))
    except MdfValueError as error:
        raise MdfValueError(f"{name}: {error}") from error
    if missing.any():
        found = codes.astype(np.float32)
        found[missing] = np.nan
        return found, conversion
    return codes.astype(np.uint8 if len(categories) <= 256 else np.uint16), conversion


def _first(mask: Array) -> int:
    return int(np.argwhere(mask)[0][0])
