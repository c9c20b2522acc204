"""Tables of one group or several, whole or in parts."""

from __future__ import annotations

import warnings
from typing import TYPE_CHECKING, Any, Dict, Iterator, List, Optional, Tuple

import numpy as np

from . import _times
from . import _library as c
from ._column import Array, Column, concatenated
from ._errors import MdfTypeError, MdfValueError, MdfWarning
from ._rows import Rows
from ._signal import Signal, sampled
from ._table import Choice, Table, chosen, named

if TYPE_CHECKING:
    from ._measurement import Group, Measurement


def tables(
    measurement: Measurement,
    channels: Choice,
    rows: Optional[int],
    raster: Optional[float],
    interpolate: bool,
    start: Any,
    stop: Any,
    raw: bool,
) -> Iterator[Table]:
    """The parts of a table, of about `rows` rows each; None: all in one, even if it is empty."""
    if interpolate and raster is None:
        raise MdfValueError("interpolate needs a raster")
    signals = named(chosen(measurement, channels))
    if not signals:
        raise MdfValueError("a table has at least one channel; none was named, or none has values")
    by_group: Dict[Any, Dict[str, Signal]] = {}
    for name, signal in signals.items():
        if _kind(signal, raw) == c.NONE:
            raise MdfTypeError(
                f"{signal.name} has no values: {signal.fault or 'it is a structure'}"
            )
        by_group.setdefault(signal.group, {})[name] = signal
    start_ns, local = measurement.start_ns, measurement.start_is_local
    window = (
        None if start is None else _times.to_ns(start, start_ns, local),
        None if stop is None else _times.to_ns(stop, start_ns, local),
    )
    if len(by_group) == 1 and raster is None:
        (group,) = by_group
        return _of_one_group(measurement, group, signals, rows, start, stop, raw)
    for group in by_group:
        if not group.has_time:
            raise MdfTypeError(f"{group.label} has no times, by which groups are joined")
    step = None if raster is None else _times.step_ns(raster)
    return _Joined(measurement, by_group, signals, rows, step, interpolate, window, raw).tables()


def _kind(signal: Signal, raw: bool) -> int:
    return signal._raw_type if raw else signal._type


def _read(rows: Rows, signals: Dict[str, Signal], raw: bool) -> Dict[str, Column]:
    channels = [(signal.index, _kind(signal, raw), signal.shape) for signal in signals.values()]
    return dict(zip(signals, rows.columns(channels, raw)))


def _of_one_group(
    measurement: Measurement,
    group: Group,
    signals: Dict[str, Signal],
    most: Optional[int],
    start: Any,
    stop: Any,
    raw: bool,
) -> Iterator[Table]:
    for first in range(0, max(1, group.rows), most or max(1, group.rows)):
        count = min(most or group.rows, group.rows - first)
        if start is not None or stop is not None:
            rows = Rows(group, first, count).between(start, stop)
            columns = _read(rows, signals, raw)
        elif group.has_time:  # both at once costs less
            rows, columns = _read_with_times(group, signals, first, count, raw)
        else:
            rows = Rows(group, first, count)
            columns = _read(rows, signals, raw)
        if len(rows) or most is None:
            timed = rows if group.has_time else None
            yield Table(measurement, timed, columns, signals, len(rows))


def _read_with_times(
    group: Group, signals: Dict[str, Signal], first: int, count: int, raw: bool
) -> Tuple[Rows, Dict[str, Column]]:
    seconds = np.empty(count, np.float64)
    channels = [(signal.index, _kind(signal, raw), signal.shape) for signal in signals.values()]
    columns, found = group.measurement._read(
        group.index, channels, first, count, raw=raw, seconds=seconds
    )
    return Rows(group, first, found, None, seconds[:found]), dict(zip(signals, columns))


class _Part:
    """Rows of one group that no table has yet, in order of time, and where to read on."""

    def __init__(self, group: Group, signals: Dict[str, Signal], raw: bool) -> None:
        self.group = group
        self.signals = signals
        self.raw = raw
        self.done = 0
        self.without_time = 0
        self.given_ns = -_times.LIMIT  # tables have what is before it
        self.goes_back = False
        self.ns = np.empty(0, np.int64)
        self.seconds = np.empty(0, np.float64)
        self.columns: Dict[str, Column] = {}
        self.held: Optional[Dict[str, Column]] = None  # one row, before those of a raster
        self.held_ns = 0
        self.read(0)  # for columns without rows

    @property
    def ended(self) -> bool:
        return self.done >= self.group.rows

    def read(self, count: int) -> None:
        """Reads so many rows more."""
        rows = Rows(self.group, self.done, min(count, self.group.rows - self.done))
        self.done += rows.count
        ns, order = _times.sorted_times(rows.ns)
        self.without_time += rows.count - len(ns)
        seconds = rows.seconds[order]
        if len(ns) and ns[0] < self.given_ns:
            self.goes_back = True
            if self.held is not None:  # of a raster, whose times are later
                later = int(np.searchsorted(ns, self.held_ns, side="left"))
                ns, seconds = ns[later:], seconds[later:]
                order = np.arange(rows.count)[order][later:]
        columns = {
            name: column.take(order) for name, column in _read(rows, self.signals, self.raw).items()
        }
        if len(self.ns):
            ns = np.concatenate([self.ns, ns])
            seconds = np.concatenate([self.seconds, seconds])
            columns = {
                name: concatenated([self.columns[name], column]) for name, column in columns.items()
            }
            if (ns[1:] < ns[:-1]).any():
                again = np.argsort(ns, kind="stable")
                ns, seconds = ns[again], seconds[again]
                columns = {name: column.take(again) for name, column in columns.items()}
        self.ns, self.seconds, self.columns = ns, seconds, columns

    def cut(self, rows: int) -> Tuple[Array, Array, Dict[str, Column]]:
        """Takes so many rows away: their times and columns."""
        taken, kept = slice(None, rows), slice(rows, None)
        result = (
            self.ns[taken],
            self.seconds[taken],
            {name: column.take(taken) for name, column in self.columns.items()},
        )
        self.ns, self.seconds = self.ns[kept], self.seconds[kept]
        self.columns = {name: column.take(kept) for name, column in self.columns.items()}
        return result


class _Joined:
    """Groups joined by time, or taken at the times of a raster."""

    def __init__(
        self,
        measurement: Measurement,
        by_group: Dict[Any, Dict[str, Signal]],
        signals: Dict[str, Signal],
        rows: Optional[int],
        step: Optional[int],
        interpolate: bool,
        window: Tuple[Optional[int], Optional[int]],
        raw: bool,
    ) -> None:
        self.measurement = measurement
        self.parts = [_Part(group, own, raw) for group, own in by_group.items()]
        self.signals = signals
        self.rows = rows
        self.step = step
        self.interpolate = interpolate
        self.begin = -_times.LIMIT if window[0] is None else window[0]
        self.end = _times.LIMIT if window[1] is None else window[1]
        self.next_ns: Optional[int] = None  # of a raster

    def tables(self) -> Iterator[Table]:
        given = False
        while True:
            for part in self.parts:
                if not part.ended and len(part.ns) < (self.rows or 1):
                    part.read(self.rows or part.group.rows)
            # Until then, all records are known.
            open_ends = [part.ns[-1] for part in self.parts if not part.ended and len(part.ns)]
            blind = any(not part.ended and not len(part.ns) for part in self.parts)
            horizon = int(min(open_ends)) if open_ends else None
            if blind:
                continue
            if horizon is not None and all(
                part.ns[0] >= horizon for part in self.parts if len(part.ns)
            ):
                for part in self.parts:  # one time fills what was read: more of it
                    if not part.ended and part.ns[-1] == horizon:
                        part.read(self.rows or part.group.rows)
                continue
            for table in self._until(horizon):
                if table.rows or (self.rows is None and not given):
                    given = True
                    yield table
            if horizon is None or horizon >= self.end:
                break
            for part in self.parts:
                part.given_ns = horizon
        self._warn()

    def _until(self, horizon: Optional[int]) -> Iterator[Table]:
        if self.step is None:
            yield self._union(horizon)
        else:
            yield from self._raster(horizon)

    def _table(self, ns: Array, seconds: Array, columns: Dict[str, Column]) -> Table:
        rows = Rows(self.parts[0].group, 0, len(ns), None, seconds, ns)
        ordered = {name: columns[name] for name in self.signals}
        return Table(self.measurement, rows, ordered, self.signals, len(ns))

    def _union(self, horizon: Optional[int]) -> Table:
        cuts = []
        for part in self.parts:
            count = len(part.ns)
            if horizon is not None:
                count = int(np.searchsorted(part.ns, horizon, side="left"))
            ns, seconds, columns = part.cut(count)
            inside = slice(*np.searchsorted(ns, [self.begin, self.end], side="left"))
            ns, seconds = ns[inside], seconds[inside]
            cuts.append((ns, seconds, {n: column.take(inside) for n, column in columns.items()}))
        table, places = _rows_of_times([ns for ns, _, _ in cuts])
        times = np.empty(len(table), np.float64)
        found: Dict[str, Column] = {}
        at = 0
        for ns, seconds, columns in cuts:
            rows = places[at : at + len(ns)]
            at += len(ns)
            times[rows] = seconds
            for name, column in columns.items():
                found[name] = column.place(len(table), rows, slice(None))
        return self._table(table, times, found)

    def _raster(self, horizon: Optional[int]) -> Iterator[Table]:
        assert self.step is not None
        start = self.measurement.start_ns
        there = [part.ns for part in self.parts if len(part.ns)]
        held = [part.held_ns for part in self.parts if part.held is not None]
        if not there and not held:
            yield self._table(np.empty(0, np.int64), np.empty(0), self._nothing())
            return
        if self.next_ns is None:
            self.next_ns = max(min(int(ns[0]) for ns in there), self.begin)
        last = horizon
        if last is None:
            last = max([int(ns[-1]) for ns in there] + held) + 1
        most = _times.MOST_ROWS if self.rows is None else _times.MOST_ROWS_IN_PARTS
        begin, end = _times.steps_between(start, self.step, self.next_ns, min(last, self.end), most)
        self.next_ns = max(self.next_ns, start + end * self.step)
        size = self.rows or max(1, end - begin)
        for first in range(begin, max(end, begin + 1), size):
            some = np.arange(first, min(first + size, end), dtype=np.int64)
            ns = start + some * self.step
            found: Dict[str, Column] = {}
            for part in self.parts:
                found.update(self._sampled(part, ns))
            yield self._table(ns, some * self.step / 1e9, found)
        for part in self.parts:
            self._hold(part, last)

    def _sampled(self, part: _Part, ns: Array) -> Dict[str, Column]:
        if part.held is None:
            own, columns = part.ns, part.columns
        else:
            own = np.concatenate([[part.held_ns], part.ns])
            columns = {
                name: concatenated([part.held[name], column])
                for name, column in part.columns.items()
            }
        return {
            name: sampled(column, own, ns, self.interpolate) for name, column in columns.items()
        }

    def _hold(self, part: _Part, before_ns: int) -> None:
        """Keeps the last row before that time alone."""
        count = int(np.searchsorted(part.ns, before_ns, side="left"))
        if count:
            ns, _, columns = part.cut(count)
            part.held_ns = int(ns[-1])
            part.held = {name: column.take(slice(-1, None)) for name, column in columns.items()}

    def _nothing(self) -> Dict[str, Column]:
        found: Dict[str, Column] = {}
        for part in self.parts:
            found.update(part.columns)
        return found

    def _warn(self) -> None:
        for part in self.parts:
            if part.goes_back:
                text = f"{part.group.label}: times go back, so parts of the table overlap"
                warnings.warn(text, MdfWarning, stacklevel=4)
            if part.without_time:
                text = f"{part.group.label}: {part.without_time} records without a time left out"
                warnings.warn(text, MdfWarning, stacklevel=4)


def _rows_of_times(groups: List[Array]) -> Tuple[Array, Array]:
    """The times of the rows of a table, and in which row each record of the groups is.

    The n-th record of a group at a time is in the n-th row of that time.
    """
    times = np.concatenate(groups)
    occurrences = [_occurrence(ns) for ns in groups]
    if not any(occurrence.any() for occurrence in occurrences):
        table, places = np.unique(times, return_inverse=True)
        return table, places.reshape(-1)
    occurrence = np.concatenate(occurrences)
    order = np.lexsort((occurrence, times))
    times, occurrence = times[order], occurrence[order]
    begins = np.ones(len(times), bool)
    begins[1:] = (times[1:] != times[:-1]) | (occurrence[1:] != occurrence[:-1])
    places = np.empty(len(times), np.int64)
    places[order] = np.cumsum(begins) - 1
    return times[begins], places


def _occurrence(ns: Array) -> Array:
    """How many of the times before each one are the same; they are in order."""
    if len(ns) == 0:
        return np.empty(0, np.int64)
    begins = np.concatenate([[True], ns[1:] != ns[:-1]])
    firsts = np.flatnonzero(begins)
    return np.arange(len(ns)) - firsts[np.cumsum(begins) - 1]
