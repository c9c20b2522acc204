"""Lazy tables of many files, for Dask: each worker reads the files that it is given."""

from __future__ import annotations

import operator
import os
from dataclasses import dataclass, replace
from typing import Any, Dict, Iterable, List, Optional, Tuple, Union

import numpy as np

from . import _optional, _times
from . import _library as c
from ._column import OBJECT, Array, Column
from ._errors import MdfError, MdfFileError, MdfMemoryError, MdfNameError, MdfTypeError
from ._errors import MdfValueError
from ._fleet import Paths, fleet
from ._join import _Joined
from ._measurement import Group, Measurement
from ._rows import Rows
from ._signal import Signal
from ._table import chosen, distinct, elements, named, pandas_index, pandas_values

_Key = Union[str, Tuple[str, Any]]
Channels = Union[None, _Key, Iterable[_Key]]

_LOOKED_AT = 100  # files, for channels that the first ones don't have
_ERRORS = ["path", "kind", "text"]
_Error = Tuple[str, str, str]


@dataclass(frozen=True)
class _Plan:
    """What all partitions have in common. Holds nothing that is open, and can be pickled."""

    keys: Tuple[Tuple[str, _Key], ...]  # by column, or by what its elements' names begin with
    dtypes: Tuple[Tuple[str, Any], ...]  # of the columns: of pandas; "category": of any texts
    zone: Optional[str]
    folder: str  # that paths begin in
    raster: Optional[float]
    interpolate: bool
    start: Optional[_times.Time]
    stop: Optional[_times.Time]
    time: str
    missing: str
    index_name: str
    path_column: Optional[str]

    def frame(self, columns: Dict[str, Any], index: Any, path: str) -> Any:
        """A partition of these columns of pandas; nothing in those that are not there."""
        pandas = _optional.need("pandas")
        count = len(index)
        data = {
            name: columns[name] if name in columns else _nothing(dtype, count)
            for name, dtype in self.dtypes
        }
        if self.path_column is not None:
            codes = np.zeros(count, np.int8)
            data[self.path_column] = pandas.Categorical.from_codes(codes, [path])
        return pandas.DataFrame(data, index=index, copy=False)

    def empty(self, path: str = "") -> Any:
        pandas = _optional.need("pandas")
        index: Any = pandas.RangeIndex(0)
        if self.time == "seconds":
            index = pandas.Index(np.empty(0), name=self.index_name)
        elif self.time == "datetime":
            index = pandas.DatetimeIndex([], tz=self.zone, name=self.index_name)
        elif self.time == "timedelta":
            index = pandas.TimedeltaIndex([], name=self.index_name)
        return self.frame({}, index, path)


class _Quiet(Measurement):
    """A measurement whose problems are looked at, and no warnings."""

    def _hear(self, new: List[str], stacklevel: int) -> None:
        pass


class _Errors:
    """What is wrong with a file: rows of the table of errors."""

    def __init__(self, path: str) -> None:
        self._path = path
        self.rows: List[_Error] = []

    def add(self, kind: str, text: str) -> None:
        self.rows.append((self._path, kind, text))


def _errors_frame(read: Tuple[Any, List[_Error]]) -> Any:
    """The errors of what `_read` gave."""
    rows = read[1]
    return _optional.need("pandas").DataFrame(rows, columns=_ERRORS, dtype=object)


# Building it ----------------------------------------------------------------------------------


def dask_frame(
    paths: Paths,
    channels: Channels = None,
    *,
    raster: Optional[float] = None,
    interpolate: bool = False,
    start: Optional[_times.Time] = None,
    stop: Optional[_times.Time] = None,
    rows: int = 1_000_000,
    time: str = "datetime",
    missing: str = "nan",
    path_column: Optional[str] = None,
) -> Any:
    """A lazy dask.dataframe.DataFrame of signals of many files, over their time.

    `paths` are those of `fleet`, and have to be the same on all workers: only paths and results
    travel. `channels` are names, which may have wildcards, or (name, group); None: all that the
    first file has. `raster`, `interpolate`, `start` and `stop` are those of Measurement.table, of
    each file. A file is a partition, or several when it gives more than `rows` rows; for each, no
    more of the file is read than its own rows. `path_column` is the name of a column of paths.

    Here only headers are read: of all files, and of the first that has a channel its type. All
    partitions have the same columns and types. Numbers are float64, NaN where there is none; with
    `missing` "nullable" they are of pandas' Float64, or integers as narrow as the first file's.
    Status texts are categoricals with categories that dask does not know, numbers among them
    texts. `time` is "datetime" (UTC; without a zone when the first file's is local), "seconds" and
    "timedelta" since each file's start, or "none".

    What cannot be read is in the frame's `errors`, a lazy frame with the columns path, kind and
    text: `dask.compute(frame, frame.errors)` reads each file once. Kinds are "unreadable": the
    partition is empty; "missing": there is no such channel, or no values of it; "type": values do
    not fit the column, and are missing; "time": rows without a usable time were left out, or local
    times were taken for UTC; "damaged": what is there is given. A channel that none of the first
    files has is an MdfNameError.
    """
    dataframe, delayed = _optional.need("dask.dataframe"), _optional.need("dask.delayed")
    if rows < 1:
        raise MdfValueError(f"a partition has at least one row, not {rows}")
    if missing not in ("nan", "nullable"):
        raise MdfValueError(f"missing: expected 'nan' or 'nullable', found {missing!r}")
    forms = ("seconds", "datetime", "timedelta", "none")
    if time not in forms:
        raise MdfValueError(f"time: expected one of {', '.join(forms)}, found {time!r}")
    if interpolate and raster is None:
        raise MdfValueError("interpolate needs a raster")
    if raster is not None:
        _times.step_ns(raster)
    for limit in (start, stop):
        if limit is not None:
            _times.to_ns(limit, 0, False)
    here = os.getcwd()
    whole = _Plan((), (), None, here, raster, interpolate, start, stop, time, missing, "time", None)
    files = fleet(paths)
    plan = _planned(files, channels, whole, path_column)
    parts = []
    for path, islarge in zip(files.paths, _large(files, plan, rows).tolist()):
        split = _part_count(path, plan, rows) if islarge else 1
        parts += [(path, i, split) for i in range(split)]
    token = _optional.need("dask.base").tokenize(
        repr(plan), parts, [_stamp(p) for p in files.paths]
    )
    read, frames, errors = (f"tolvex-{what}-{token}" for what in ("read", "frame", "errors"))
    layers = {
        read: {(read, i): (_read, plan, *part) for i, part in enumerate(parts)},
        frames: {(frames, i): (operator.itemgetter(0), (read, i)) for i in range(len(parts))},
        errors: {(errors, i): (_errors_frame, (read, i)) for i in range(len(parts))},
    }
    graph = _optional.need("dask.highlevelgraph").HighLevelGraph(
        layers, {read: set(), frames: {read}, errors: {read}}
    )

    def collection(layer: str, meta: Any) -> Any:
        keys = [delayed.Delayed((layer, i), graph, layer=layer) for i in range(len(parts))]
        return dataframe.from_delayed(keys, meta=meta, prefix=layer, verify_meta=False)

    utils = _optional.need("dask.dataframe.utils")
    frame = collection(frames, utils.clear_known_categories(plan.empty()))
    object.__setattr__(frame, "errors", collection(errors, _errors_frame((None, []))))
    return frame


def dask_errors(frame: Any) -> Any:
    """The lazy table of errors that belongs to a frame of `dask_frame`: its `errors`.

    Frames that were made of it don't have them; of those the first one does.
    """
    found = getattr(frame, "__dict__", {}).get("errors")
    if found is None:
        raise MdfTypeError("there are errors of the frame that dask_frame gave, not of others")
    return found


def _stamp(path: str) -> Tuple[int, int]:
    try:
        found = os.stat(path)
        return found.st_mtime_ns, found.st_size
    except OSError:
        return 0, 0


def _planned(files: Any, channels: Channels, plan: _Plan, path_column: Optional[str]) -> _Plan:
    """The plan with its columns, which are those of the first file that has them."""
    asked = _asked(channels)
    found: Dict[Optional[_Key], Dict[_Key, Signal]] = {}
    zone, first, looked, why = None, None, 0, "there is none"
    for path, error in zip(files.paths, files["error"]):
        if len(found) == len(asked) or looked == _LOOKED_AT:
            break
        if error:
            why = error
            continue
        try:
            with _Quiet(path) as measurement:
                looked += 1
                if first is None:
                    zone, first = None if measurement.start_is_local else "UTC", measurement.label
                for one in asked:
                    if one not in found:
                        signals = _meant(measurement, one)
                        if signals:
                            found[one] = signals
        except MdfMemoryError:
            raise
        except MdfError as failure:
            why = str(failure)
    if first is None:
        raise MdfFileError(f"no file can be read that would tell the columns' types: {why}")
    lacking = [one for one in asked if one not in found]
    if lacking:
        where = first if looked == 1 else f"none of the first {looked} files"
        what = "with values" if lacking[0] is None else f"{lacking[0]!r}, or no values of it"
        raise MdfNameError(f"{where} has no channel {what}")
    signals = {key: signal for one in asked for key, signal in found[one].items()}
    columns = named(list(signals.values()))
    dtypes: Dict[str, Any] = {}
    for name, signal in columns.items():
        sample = Column(np.empty((0, *signal.shape), signal.dtype))
        dtypes.update(dict.fromkeys(elements({name: sample}), _dtype(signal, plan.missing)))
    if path_column in dtypes:
        raise MdfNameError(f"path_column: {path_column!r} is a channel")
    return replace(
        plan,
        keys=tuple(zip(columns, signals)),
        dtypes=tuple(dtypes.items()),
        zone=zone,
        index_name=distinct("time", dtypes),
        path_column=path_column,
    )


def _asked(channels: Channels) -> List[Optional[_Key]]:
    if channels is None:
        return [None]
    several: List[Any] = [channels] if isinstance(channels, (str, tuple)) else list(channels)
    for one in several:
        name, group = one if isinstance(one, tuple) and len(one) == 2 else (one, "")
        if not isinstance(name, str) or not isinstance(group, (str, int)):
            raise MdfTypeError(f"a channel is a name or (name, group), not {one!r}")
    if not several:
        raise MdfNameError("there is no channel")
    return list(dict.fromkeys(several))


def _meant(measurement: Measurement, one: Optional[_Key]) -> Dict[_Key, Signal]:
    """The channels with values that are meant, by how to ask other files for them."""
    try:
        signals = chosen(measurement, None if one is None else [one])
    except LookupError:
        return {}
    isone = isinstance(one, tuple) or (one is not None and one in measurement)
    return {
        one if one is not None and isone else _key_of(signal): signal
        for signal in signals
        if signal.has_values
    }


def _key_of(signal: Signal) -> _Key:
    """How to ask other files for a channel as this one."""
    measurement, group = signal.measurement, signal.group
    if sum(map(len, measurement._places(signal.name).values())) == 1:
        return signal.name
    alike = [other for other in measurement.groups if other.name == group.name]
    return signal.name, group.name if group.name and len(alike) == 1 else group.index


def _dtype(signal: Signal, missing: str) -> Any:
    pandas = _optional.need("pandas")
    if signal.is_status:
        return "category"
    if signal.dtype == OBJECT or missing == "nan":
        return OBJECT if signal.dtype == OBJECT else np.dtype(np.float64)
    if signal.dtype.kind == "f":
        return pandas.Float64Dtype()
    name = str(signal.dtype)  # e.g. uint8, which is UInt8 there
    return pandas.api.types.pandas_dtype(name.replace("i", "I").replace("u", "U"))


# Reading a partition --------------------------------------------------------------------------


def _large(files: Any, plan: _Plan, rows: int) -> Array:
    """Whether files may give more than so many rows, as their headers tell."""
    untold = ~files["finalized"] & (files["size"] > 8 * rows)  # records may not be counted
    large: Array = (files["records"] > rows) | untold
    if plan.raster is not None:
        spans = (files["stop"] - files["start"]) / np.timedelta64(1, "s")
        large |= spans / plan.raster > rows  # not of NaN
    return large


def _part_count(path: str, plan: _Plan, rows: int) -> int:
    """Of how many partitions a large file is one."""
    try:
        with _Quiet(path) as measurement:
            signals = _signals(measurement, plan, _Errors(path))
            groups = {signal.group for signal in signals.values()}
            count = float(max([group.rows for group in groups], default=0))
            if plan.raster is not None:
                first, last = _range(groups)
                count = max(count, (last - first) / 1e9 / plan.raster)
            return max(1, -(-int(count) // rows))
    except MdfMemoryError:
        raise
    except MdfError:
        return 1  # says what is wrong


def _read(plan: _Plan, path: str, part: int, parts: int) -> Tuple[Any, List[_Error]]:
    """A partition, and its rows of the table of errors."""
    errors = _Errors(path)
    try:
        with _Quiet(os.path.join(plan.folder, path)) as measurement:
            silent = _Errors(path) if part else errors  # what all parts see, the first one says
            signals = _signals(measurement, plan, silent)
            known = set(measurement.problems) if part else set()
            frame = _frame(measurement, signals, plan, path, part, parts, errors)
            for text in measurement.problems:
                if text not in known:
                    errors.add("damaged", text)
    except MdfMemoryError:
        raise
    except MdfError as error:
        errors.add("unreadable", str(error))
        frame = plan.empty(path)
    return frame, errors.rows


def _signals(measurement: Measurement, plan: _Plan, errors: _Errors) -> Dict[str, Signal]:
    """The signals that are there, by column."""
    found: Dict[str, Signal] = {}
    for name, key in plan.keys:
        try:
            signal = measurement[key]
        except LookupError as error:
            errors.add("missing", str(error))
            continue
        if signal.has_values:
            found[name] = signal
        else:
            errors.add("missing", f"{signal.name} has no values: {signal.fault or 'a structure'}")
    return found


def _frame(
    measurement: Measurement,
    signals: Dict[str, Signal],
    plan: _Plan,
    path: str,
    part: int,
    parts: int,
    errors: _Errors,
) -> Any:
    if not signals:
        return plan.empty(path)
    groups = list(dict.fromkeys(signal.group for signal in signals.values()))
    timeless = [group.label for group in groups if not group.has_time]
    if timeless and (plan.time != "none" or len(groups) > 1 or plan.raster is not None):
        raise MdfTypeError(f"{timeless[0]} has no times")
    if len(groups) == 1 and plan.raster is None:
        rows, read = _rows_of_one(groups[0], signals, plan, part, parts)
    else:
        rows, read = _joined(measurement, groups, signals, plan, part, parts, errors)
    zone = None if measurement.start_is_local else "UTC"
    index = pandas_index(rows, measurement, plan.time, plan.index_name)
    if plan.time == "datetime" and zone != plan.zone:
        errors.add("time", f"its times are {zone or 'local'}, taken for {plan.zone or 'local'}")
        index = index.tz_localize(None).tz_localize(plan.zone)
    dtypes = dict(plan.dtypes)
    columns: Dict[str, Any] = {}
    for name, column in elements(read).items():
        if name not in dtypes:
            errors.add("type", f"{name}: the first file has no such element")
            continue
        columns[name], fault = _fitted(column, dtypes[name])
        if fault:
            errors.add("type", f"{name}: {fault}")
    return plan.frame(columns, index, path)


_Read = Tuple[Rows, Dict[str, Column]]


def _rows_of_one(
    group: Group, signals: Dict[str, Signal], plan: _Plan, part: int, parts: int
) -> _Read:
    """Rows of a group, which parts share by number."""
    first = group.rows * part // parts
    count = group.rows * (part + 1) // parts - first
    channels = [(signal.index, signal._type, signal.shape) for signal in signals.values()]
    if plan.time not in ("datetime", "seconds") or (plan.start, plan.stop) != (None, None):
        rows = Rows(group, first, count).between(plan.start, plan.stop)
        return rows, dict(zip(signals, rows.columns(channels, False)))
    exact = plan.time == "datetime"
    times = np.empty(count, np.int64 if exact else np.float64)
    along = {"nanoseconds" if exact else "seconds": times}
    columns, found = group.measurement._read(group.index, channels, first, count, **along)
    times = times[:found]
    rows = Rows(group, first, found, None, None if exact else times, times if exact else None)
    return rows, dict(zip(signals, columns))


def _joined(
    measurement: Measurement,
    groups: List[Group],
    signals: Dict[str, Signal],
    plan: _Plan,
    part: int,
    parts: int,
    errors: _Errors,
) -> _Read:
    """Rows of several groups, or of a raster, which parts share by time."""
    if parts == 1:
        table = measurement.table(
            list(signals.values()),
            raster=plan.raster,
            interpolate=plan.interpolate,
            start=plan.start,
            stop=plan.stop,
        )
        return table._timed(), dict(zip(signals, table.columns.values()))
    step = None if plan.raster is None else _times.step_ns(plan.raster)
    window = _window(measurement, groups, plan, part, parts)
    by_group: Dict[Any, Dict[str, Signal]] = {}
    firsts: List[int] = []
    around: List[int] = []  # rows that are read for the values of a raster between them
    for group in groups:
        begin, end = (_first_row(group, at) for at in window)
        before, after = int(begin > 0), int(end < group.rows)
        if step is None or begin > end:
            before = after = 0
        bounded = Group(measurement, group.index)
        bounded.rows = max(begin, end) + after
        by_group[bounded] = {name: one for name, one in signals.items() if one.group is group}
        firsts.append(begin - before)
        ends = [begin - 1] * before + [end] * after
        around.append(sum(_time(group, row) != c.NO_TIME for row in ends))
    joined = _Joined(measurement, by_group, signals, None, step, plan.interpolate, window, False)
    for one, first, extra in zip(joined.parts, firsts, around):
        one.done = first
        one.read(one.group.rows - first)
        outside = int(((one.ns < window[0]) | (one.ns >= window[1])).sum()) - extra
        lost = max(outside, 0) + one.without_time
        if lost:
            errors.add("time", f"{one.group.label}: {lost} rows without a time in order left out")
        one.without_time = 0
    table = next(joined.tables())
    return table._timed(), table.columns


def _window(
    measurement: Measurement, groups: List[Group], plan: _Plan, part: int, parts: int
) -> Tuple[int, int]:
    """The times that a part has: from, and before."""
    start_ns, local = measurement.start_ns, measurement.start_is_local
    begin = -_times.LIMIT if plan.start is None else _times.to_ns(plan.start, start_ns, local)
    end = _times.LIMIT if plan.stop is None else _times.to_ns(plan.stop, start_ns, local)
    if plan.raster is None:
        largest = max(groups, key=len)
        rows = (len(largest) * i // parts for i in range(1, parts))
        limits = [_time(largest, row) for row in rows]
    else:
        first, last = _range(groups)
        limits = [first + (last - first) * i // parts for i in range(1, parts)]
    ascending = np.maximum.accumulate([-_times.LIMIT, *limits, _times.LIMIT]).tolist()
    return max(begin, ascending[part]), min(end, ascending[part + 1])


def _range(groups: Iterable[Group]) -> Tuple[int, int]:
    """The first and the last time of groups that have any."""
    there = [group for group in groups if group.rows and group.has_time]
    firsts = [_time(group, 0) for group in there]
    lasts = [_time(group, group.rows - 1) for group in there]
    if not there or c.NO_TIME in firsts or max(lasts) < min(firsts):
        return 0, 0
    return min(firsts), max(lasts)


def _time(group: Group, row: int) -> int:
    found = group.measurement._times(group.index, row, 1, True)
    return int(found[0]) if len(found) else c.NO_TIME


def _first_row(group: Group, ns: int) -> int:
    """The first row from that time on, as times ascend in a group; few rows are looked at."""
    low, high = 0, group.rows
    if ns <= -_times.LIMIT:
        return low
    if ns >= _times.LIMIT:
        return high
    while low < high:
        middle = (low + high) // 2
        if _time(group, middle) < ns:
            low = middle + 1
        else:
            high = middle
    return low


# Columns of fixed types -----------------------------------------------------------------------


def _nothing(dtype: Any, count: int) -> Any:
    """A column without values."""
    pandas = _optional.need("pandas")
    if dtype == "category":
        return pandas.Categorical.from_codes(np.full(count, -1, np.int8), [])
    if dtype == OBJECT:
        return np.full(count, None, OBJECT)
    if dtype == np.float64:
        return np.full(count, np.nan)
    return pandas.array(np.full(count, None, OBJECT), dtype=dtype)


def _fitted(column: Column, dtype: Any) -> Tuple[Any, str]:
    """The column as one of pandas of that type, and what is wrong with it."""
    pandas = _optional.need("pandas")
    isnumber = column.values.dtype != OBJECT and column.categories is None
    if dtype == "category":
        if isnumber:
            return _nothing(dtype, len(column)), "expected texts, found numbers"
        return _categorical(column), ""
    if dtype == OBJECT:
        if isnumber:
            return _nothing(dtype, len(column)), "expected texts or bytes, found numbers"
        return column.filled(), ""
    if not isnumber:
        return _nothing(dtype, len(column)), "expected numbers, found texts or bytes"
    if dtype == np.float64:
        return column.filled().astype(np.float64, copy=False), ""
    values = column.values
    with np.errstate(invalid="ignore", over="ignore"):
        narrow = values.astype(dtype.numpy_dtype)
        same = (narrow.astype(values.dtype) == values) & ((narrow < 0) == (values < 0))
    same |= values != values
    there = np.ones(len(column), bool) if column.valid is None else column.valid
    lost = int((there & ~same).sum())
    isfloat = narrow.dtype.kind == "f"
    masked = pandas.arrays.FloatingArray if isfloat else pandas.arrays.IntegerArray
    fault = f"{lost} values do not fit {dtype}" if lost else ""
    return masked(narrow, ~(there & same)), fault


def _categorical(column: Column) -> Any:
    """Texts as categories; numbers among them become texts."""
    pandas = _optional.need("pandas")
    if column.categories is None:
        return pandas.Categorical(column.filled())
    if column.numbers is None:
        return pandas_values(column, "nan")
    texts = column.objects()
    numbers = np.flatnonzero(~np.isnan(column.numbers))
    texts[numbers] = [
        repr(int(v) if v.is_integer() else v) for v in column.numbers[numbers].tolist()
    ]
    return pandas.Categorical(texts)
