"""Measurement files: opening them, what is in them, and their signals."""

from __future__ import annotations

import datetime
import os
import threading
import warnings
import weakref
from typing import Any, Dict, Iterable, Iterator, List, Optional, Sequence, Tuple, Union

from . import _arrow, _show, _times
from . import _library as c
from ._column import Array, Column
from ._errors import MdfError, MdfMemoryError, MdfNameError, MdfTypeError, MdfValueError, MdfWarning
from ._frames import Frames, FrameSource
from ._library import PathLike, lib
from ._reader import ReaderPool
from ._rows import Rows
from ._signal import Signal, Signals
from ._table import Choice, Table

_NAMES_KEPT = 1000  # that were asked for
_WARNED = 5  # problems of a file that are warnings of their own


def open(paths: Union[PathLike, Iterable[PathLike]], *, parts: bool = False) -> Measurement:
    """Opens a file, or several as one recording, in the order of their start times.

    With `parts`, a path is the first file of a recording that was split: with drive.mf4 also
    drive_1.mf4, drive_2.mf4 .. belong to it, as far as they are there. Unfinished and damaged
    files give what is there, with an MdfWarning. A file that cannot be opened is an MdfFileError.
    """
    return Measurement(paths, parts=parts)


class Measurement:
    """One recording of one file or several, open for reading.

    Closed by `close`, by `with`, and when nobody has it or anything of it any more. Any number of
    threads may use it at once; they read side by side. Of the files only what is asked for is
    read.
    """

    def __init__(self, paths: Union[PathLike, Iterable[PathLike]], *, parts: bool = False) -> None:
        named = c.path_list(paths)
        if not named:
            raise MdfValueError("there is no path")
        if parts and len(named) != 1:
            raise MdfValueError("parts: name the first file of the recording alone")
        #: As they were given.
        self.paths: Tuple[str, ...] = tuple(os.fsdecode(path) for path in named)
        self._parts = parts
        # The working directory may be another one when more readers are needed.
        self._pool = ReaderPool([os.path.abspath(c.path_bytes(path)) for path in named], parts)
        self._lock = threading.RLock()
        self._found: Dict[str, Dict[int, List[int]]] = {}  # channels by group of names asked for
        self._group_names: Optional[Dict[str, List[int]]] = None
        self._told: Dict[str, bool] = {}  # problems, and whether they are mere notices
        self._known: Dict[int, weakref.ref[Group]] = {}
        with self._pool.reader() as reader:
            info = reader.recording()
            #: The program that wrote it.
            self.program = c.text(info.program)
            self.comment = c.text(info.comment)
            #: Of the format, e.g. 410.
            self.version = int(info.version)
            #: When it started: nanoseconds since 1970-01-01 00:00 (UTC, or local time).
            self.start_ns = int(info.start_time_ns)
            #: Whether its times are those of a place that the file does not tell.
            self.start_is_local = bool(info.start_is_local)
            #: Of the clocks there, in minutes; 0 also where it is not told.
            self.utc_offset = int(info.utc_offset_minutes)
            self._group_count = int(info.group_count)
        self._hear(self._heard(reader), stacklevel=4)

    # Opening and closing ------------------------------------------------------------------

    def close(self) -> None:
        """Closes the files. What was read stays; more cannot be read."""
        self._pool.close()

    @property
    def closed(self) -> bool:
        return self._pool.closed

    def __enter__(self) -> Measurement:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def __reduce__(self) -> Any:
        return _opened, (tuple(os.fsdecode(path) for path in self._pool.paths), self._parts)

    # What is damaged ----------------------------------------------------------------------

    @property
    def problems(self) -> List[str]:
        """What of the files is damaged or was left out, as far as it has been read."""
        with self._lock:
            return [text for text, isnotice in self._told.items() if not isnotice]

    @property
    def notices(self) -> List[str]:
        """What unusual files were taken for; nothing is lost by that."""
        with self._lock:
            return [text for text, isnotice in self._told.items() if isnotice]

    def _heard(self, reader: Any) -> List[str]:
        """What a reader has found that nobody was told of yet."""
        found = reader.problems()
        if len(found) == reader.told:
            return []
        reader.told = len(found)
        notices = set(reader.notices())
        with self._lock:
            new = [text for text in dict.fromkeys(found) if text not in self._told]
            self._told.update((text, text in notices) for text in new)
        return new

    def _hear(self, new: List[str], stacklevel: int) -> None:
        """Warns of it; a handler of warnings may use the measurement."""
        before = len(self._told) - len(new)
        for text in new[: max(0, _WARNED - before)]:
            warnings.warn(f"{self.label}: {text}", MdfWarning, stacklevel)
        if before <= _WARNED < before + len(new):
            more = "there are more problems: see Measurement.problems"
            warnings.warn(f"{self.label}: {more}", MdfWarning, stacklevel)

    @property
    def label(self) -> str:
        """Its file's name, and how many more there are."""
        name = os.path.basename(self.paths[0])
        return name if len(self.paths) == 1 else f"{name} and {len(self.paths) - 1} more"

    # What is in it ------------------------------------------------------------------------

    @property
    def start(self) -> datetime.datetime:
        """When it started, to the microsecond: in UTC, or without a zone in local time."""
        return _times.to_datetime(self.start_ns, self.start_is_local)

    @property
    def duration(self) -> float:
        """Seconds from the start to the latest of the groups' last records; 0 without one."""
        latest = 0.0
        for group in self.groups:
            if group.rows and group.has_time:
                last = self._times(group.index, group.rows - 1, 1, False)
                latest = max([latest, *last[last == last].tolist()])
        return latest

    @property
    def groups(self) -> Groups:
        return Groups(self)

    @property
    def signals(self) -> Iterator[Signal]:
        """All channels that have values, group by group.

        But for those in which a recorder notes when a measurement began and ended.
        """
        return (
            signal
            for group in self.groups
            for signal in group.signals
            if signal.name not in ("MeasurementStartTime", "MeasurementStopTime")
        )

    def __contains__(self, name: object) -> bool:
        return isinstance(name, str) and "\0" not in name and bool(self._places(name))

    def __iter__(self) -> Iterator[str]:
        """The names of the signals, each once."""
        return iter(dict.fromkeys(signal.name for signal in self.signals))

    def __getitem__(self, key: Union[str, Tuple[str, Any]]) -> Signal:
        """The signal of that name; `m[name, group]` where several groups have one.

        A group is a Group, its number or its name. Where `name` alone is that of the masters of
        several groups, or of any other channels, the error lists them.
        """
        if isinstance(key, tuple):
            if len(key) != 2:
                raise MdfTypeError(f"a channel is a name, or a name and a group, not {key!r}")
            name, group = key
            of_group: Group = self.groups[group]
            return of_group[name]
        places = self._places(key)
        found = [(group, channel) for group, channels in places.items() for channel in channels]
        if len(found) == 1:
            return Signal(self._group(found[0][0]), found[0][1])
        if not found:
            raise MdfNameError(f"{self.label} has no channel {key!r}{self._alike(key)}")
        groups = [self._group(group) for group, _ in found[:10]]
        listed = ", ".join(f"[{key!r}, {group.index}] ({group.label})" for group in groups)
        more = f" and {len(found) - 10} more" if len(found) > 10 else ""
        raise MdfNameError(f"{len(found)} channels are called {key!r}: {listed}{more}")

    def find(self, pattern: str = "*", *, ignore_case: bool = False) -> Signals:
        """The channels whose names match, with the wildcards *, ?, [a-z] and [!a-z]."""
        name = _utf8(pattern)
        with self._pool.reader() as reader:
            places = reader.places(lib.tolvex_reader_match, name, int(ignore_case))
        groups = {group: self._group(group) for group, _ in places}
        return Signals(Signal(groups[group], channel) for group, channel in places)

    def _places(self, name: str) -> Dict[int, List[int]]:
        """The channels of that name by group."""
        with self._lock:
            known = self._found.get(name)
        if known is None:
            with self._pool.reader() as reader:
                places = reader.places(lib.tolvex_reader_find, _utf8(name))
            known = {}
            for group, channel in places:
                known.setdefault(group, []).append(channel)
            with self._lock:
                if len(self._found) >= _NAMES_KEPT:
                    self._found.clear()
                self._found[name] = known
        return known

    def _groups_named(self, name: str) -> List[int]:
        with self._lock:
            if self._group_names is None:
                self._group_names = {}
                with self._pool.reader() as reader:
                    for index in range(self._group_count):
                        own = _name_of(reader.group(index))
                        self._group_names.setdefault(own, []).append(index)
            return self._group_names.get(name, [])

    def _alike(self, name: str) -> str:
        """Names that may be meant."""
        safe = "".join(f"[{letter}]" if letter in "*?[" else letter for letter in name)
        found = list(dict.fromkeys(s.name for s in self.find(f"*{safe}*", ignore_case=True)[:5]))
        return f"; there are {', '.join(found)}" if found else ""

    def _group(self, index: int) -> Group:
        """The group of that number, which is one object as long as somebody has it."""
        with self._lock:
            known = self._known.get(index)
        group = None if known is None else known()
        if group is None:
            group = Group(self, index)
            with self._lock:
                self._known[index] = weakref.ref(group)
        return group

    # Reading ------------------------------------------------------------------------------

    def table(
        self,
        channels: Choice = None,
        *,
        raster: Optional[float] = None,
        interpolate: bool = False,
        start: Optional[_times.Time] = None,
        stop: Optional[_times.Time] = None,
        raw: bool = False,
    ) -> Table:
        """Signals side by side, over one time.

        `channels` are names, (name, group) or Signals; a name may have wildcards; None: all of
        `signals`. Of one group its rows are those of the table. Several groups are joined by
        time: a row for each time of a record, ascending, with nothing where a group has none
        then. With `raster` there is a row at each multiple of so many seconds since the start,
        with the last values before or then; with `interpolate` numbers are on the line to the
        next ones. `start` and `stop` (not included) are seconds since the start or dates. `raw`
        gives the values before their conversion.
        """
        from ._join import tables

        return next(tables(self, channels, None, raster, interpolate, start, stop, raw))

    def iter_tables(
        self,
        channels: Choice = None,
        *,
        rows: int = 1_000_000,
        raster: Optional[float] = None,
        interpolate: bool = False,
        start: Optional[_times.Time] = None,
        stop: Optional[_times.Time] = None,
        raw: bool = False,
    ) -> Iterator[Table]:
        """The table of `table`, in parts of about so many rows: for more than memory holds."""
        from ._join import tables

        if rows < 1:
            raise MdfValueError(f"a table has at least one row, not {rows}")
        return tables(self, channels, rows, raster, interpolate, start, stop, raw)

    def frames(
        self,
        ids: Union[None, int, Iterable[int]] = None,
        bus: Union[None, int, Iterable[int]] = None,
        start: Optional[_times.Time] = None,
        stop: Optional[_times.Time] = None,
    ) -> Frames:
        """The CAN frames, in order of time, over all buses: all, or those of ids and buses.

        `start` and `stop` (not included) are seconds since the start or dates.
        """
        return FrameSource(self, ids, bus, start, stop).all()

    def iter_frames(
        self,
        ids: Union[None, int, Iterable[int]] = None,
        bus: Union[None, int, Iterable[int]] = None,
        start: Optional[_times.Time] = None,
        stop: Optional[_times.Time] = None,
        *,
        rows: int = 65_536,
    ) -> Iterator[Frames]:
        """The frames of `frames`, in parts of at most so many."""
        if rows < 1:
            raise MdfValueError(f"a part has at least one frame, not {rows}")
        return FrameSource(self, ids, bus, start, stop).parts(rows)

    def frame_stream(
        self,
        ids: Union[None, int, Iterable[int]] = None,
        bus: Union[None, int, Iterable[int]] = None,
        start: Optional[_times.Time] = None,
        stop: Optional[_times.Time] = None,
    ) -> _arrow.Streamed:
        """The frames of `frames` for whatever takes Arrow streams (`__arrow_c_stream__`)."""
        return FrameSource(self, ids, bus, start, stop).stream()

    def _read(
        self, group: int, channels: Sequence[Any], first: int, count: int, **options: Any
    ) -> Tuple[List[Column], int]:
        try:
            with self._pool.reader() as reader:
                found = reader.read(group, channels, first, count, **options)
                heard = self._heard(reader)
        except MemoryError as error:
            raise _no_memory(count, error) from error
        self._hear(heard, stacklevel=5)
        return found

    def _times(self, group: int, first: int, count: int, exact: bool) -> Array:
        try:
            with self._pool.reader() as reader:
                times = reader.times(group, first, count, exact)
                heard = self._heard(reader)
        except MemoryError as error:
            raise _no_memory(count, error) from error
        self._hear(heard, stacklevel=5)
        return times

    # Showing itself -----------------------------------------------------------------------

    def __repr__(self) -> str:
        return _show.measurement_text(self)

    def _repr_html_(self) -> str:
        return _show.measurement_html(self)


class Groups(Sequence["Group"]):
    """The groups of a measurement, by number or name."""

    def __init__(self, measurement: Measurement) -> None:
        self._measurement = measurement

    def __len__(self) -> int:
        return self._measurement._group_count

    def __getitem__(self, key: Any) -> Any:
        """The group of that number or name; those of a slice."""
        measurement = self._measurement
        if isinstance(key, Group):
            return key
        if isinstance(key, slice):
            return [measurement._group(i) for i in range(*key.indices(len(self)))]
        if isinstance(key, str):
            named = measurement._groups_named(key)
            if len(named) == 1:
                return measurement._group(named[0])
            count = "no group is" if not named else f"{len(named)} groups are"
            places = ", ".join(map(str, named[:10]))
            raise MdfNameError(f"{count} called {key!r}" + (f": {places}" if places else ""))
        index = key + len(self) if key < 0 else key
        if not 0 <= index < len(self):  # ends loops, too
            raise GroupIndexError(f"there is no group {key}; expected 0 to {len(self) - 1}")
        return measurement._group(index)

    def __repr__(self) -> str:
        return _show.groups_text(self._measurement)

    def _repr_html_(self) -> str:
        return _show.measurement_html(self._measurement)


class GroupIndexError(MdfError, IndexError):
    """A group that the measurement does not have."""


class Group:
    """A channel group: signals that have their rows, and so their times, in common."""

    def __init__(self, measurement: Measurement, index: int) -> None:
        self.measurement = measurement
        #: Which of the measurement's groups it is, from 0.
        self.index = index
        with measurement._pool.reader() as reader:
            info = reader.group(index)
            self.comment = c.text(info.comment)
            #: The acquisition name, else the first line of the comment, else "".
            self.name = _name_of(info)
            self.source_name = c.text(info.source_name)
            self.source_path = c.text(info.source_path)
            #: Records that are there, whatever the file states.
            self.rows = int(info.rows)
            self._channel_count = int(info.channel_count)
            self._master = int(info.master)
            try:
                reader.times(index, 0, 0, False)
                #: Whether its rows have times.
                self.has_time = True
            except MdfTypeError:
                self.has_time = False
        self._kept: Optional[weakref.ref[Rows]] = None

    @property
    def label(self) -> str:
        """What to call it: its name, else its number."""
        return self.name or f"group {self.index}"

    @property
    def _rows(self) -> Rows:
        """All rows, whose times its signals share."""
        kept = None if self._kept is None else self._kept()
        if kept is None:
            kept = Rows(self, 0, self.rows)
            self._kept = weakref.ref(kept)
        return kept

    @property
    def channels(self) -> Signals:
        """All channels, the master and structures included."""
        return Signals(self._channel(i) for i in range(self._channel_count))

    def _channel(self, index: int) -> Signal:
        return Signal(self, index)

    @property
    def signals(self) -> Signals:
        """The channels that have values, but for structures with members and the time."""
        channels = self.channels
        structures = {signal._parent for signal in channels}
        return Signals(
            signal
            for signal in channels
            if signal.has_values
            and not (signal.is_master and self.has_time)
            and signal.index not in structures
        )

    @property
    def master(self) -> Optional[Signal]:
        """The channel that the rows rise by: mostly time, sometimes an angle or a distance."""
        return Signal(self, self._master) if self._master >= 0 else None

    @property
    def time(self) -> Array:
        """Seconds since the recording's start, float64."""
        return self._rows.seconds

    @property
    def time_ns(self) -> Array:
        """Nanoseconds since 1970-01-01 00:00, int64."""
        return self._rows.ns

    def __len__(self) -> int:
        return self.rows

    def __contains__(self, name: object) -> bool:
        return isinstance(name, str) and "\0" not in name and bool(self._named(name))

    def __iter__(self) -> Iterator[str]:
        """The names of the signals."""
        return (signal.name for signal in self.signals)

    def __getitem__(self, name: str) -> Signal:
        found = self._named(name)
        if not found:
            raise MdfNameError(f"{self.label} has no channel {name!r}")
        if len(found) > 1:
            which = ", ".join(map(str, found[:10]))
            raise MdfNameError(f"{len(found)} channels are called {name!r}: `channels` {which}")
        return self._channel(found[0])

    def _named(self, name: str) -> List[int]:
        return self.measurement._places(name).get(self.index, [])

    def table(self, channels: Choice = None, **options: Any) -> Table:
        """Its signals, or those of these names, as Measurement.table gives them."""
        return self.measurement.table(self._chosen(channels), **options)

    def iter_tables(self, channels: Choice = None, **options: Any) -> Iterator[Table]:
        """Likewise, as Measurement.iter_tables does."""
        return self.measurement.iter_tables(self._chosen(channels), **options)

    def _chosen(self, channels: Choice) -> List[Signal]:
        from ._table import chosen

        return self.signals if channels is None else chosen(self.measurement, channels, self)

    def to_pandas(self, **options: Any) -> Any:
        """A pandas.DataFrame of its signals; `options` are those of Table.to_pandas."""
        return self.table().to_pandas(**options)

    def stream(
        self,
        channels: Choice = None,
        *,
        time: str = "datetime",
        raw: bool = False,
        batch_rows: int = 0,
    ) -> _arrow.Streamed:
        """Its rows as a stream of Arrow record batches, read as they are taken.

        `time` is "datetime" (timestamps in nanoseconds) or "seconds".
        """
        signals = [] if channels is None else self._chosen(channels)
        for signal in signals:
            if signal.group.index != self.index:
                raise MdfValueError(f"{signal.name} is a channel of another group")
        if not 0 <= batch_rows < 2**63:
            raise MdfValueError(f"batch_rows: expected at least 0, found {batch_rows}")
        numbers = None if channels is None else [signal.index for signal in signals]
        return _arrow.Streamed(
            lambda stream: _arrow.group_stream(self, numbers, time, raw, batch_rows, stream)
        )

    def __arrow_c_stream__(self, requested_schema: Any = None) -> Any:
        return self.stream().__arrow_c_stream__(requested_schema)

    def __reduce__(self) -> Any:
        return _group_of, (self.measurement, self.index)

    def __repr__(self) -> str:
        return _show.group_text(self)

    def _repr_html_(self) -> str:
        return _show.group_html(self)


def _name_of(info: c.GroupInfo) -> str:
    return c.text(info.name) or c.text(info.comment).strip().partition("\n")[0]


def _opened(paths: Tuple[str, ...], parts: bool) -> Measurement:
    return Measurement(paths, parts=parts)


def _group_of(measurement: Measurement, index: int) -> Group:
    return measurement._group(index)


def _utf8(name: str) -> bytes:
    if not isinstance(name, str):
        raise MdfTypeError(f"a name is a text, not {name!r}")
    if "\0" in name:
        raise MdfNameError(f"a name cannot have a NUL: {name!r}")
    return name.encode("utf-8", "surrogatepass")


def _no_memory(count: int, error: MemoryError) -> MdfError:
    return MdfMemoryError(f"no memory for {count} rows: {error}")
