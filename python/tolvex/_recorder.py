"""Recording into measurement files: groups of signals, and CAN frames."""

from __future__ import annotations

import ctypes
import datetime
import os
import threading
import time as clock
import warnings
import weakref
from contextlib import nullcontext
from ctypes import byref, c_double, c_uint8, c_uint32, c_uint64
from itertools import islice
from typing import Any, Dict, Iterable, List, Mapping, Optional, Tuple, Union

import numpy as np

from . import _library as c
from . import _records, _times
from ._column import Array
from ._conversions import Conversion, Convertible, converted
from ._errors import (
    MdfError,
    MdfFileError,
    MdfMemoryError,
    MdfNameError,
    MdfTypeError,
    MdfValueError,
    MdfWarning,
)
from ._frames import BRS, DATA, ERROR, ESI, EXTENDED, FD, REMOTE, RTR, TRANSMITTED, Frame, Frames
from ._library import PathLike, lib
from ._saved_frames import DLCS, FrameColumns, FrameMemory

_PROGRAM, _SPLIT_SIZE = 0, 4  # of setParameter
_ARGUMENT = 2  # a status
_TYPE, _SYNC_TYPE, _NAME, _UNIT, _LIMIT_MIN, _LIMIT_MAX, _DATA_TYPE, _BYTE_COUNT, _COMMENT = range(
    9
)
_MASTER, _BY_TIME = 2, 1

_CHUNK = 256 * 1024  # bytes that are packed at once: they stay in the cache
_FRAMES = 4096  # that are given to the library at once, where somebody waits
_MOST_WAITING = 1000  # tasks of the queue, where somebody waits

Start = Union[None, int, str, datetime.datetime, np.datetime64, Any]


class MdfQueueFull(MdfError):
    """An asynchronous recorder's queue has no room; the first `taken` of `given` were taken."""

    def __init__(self, taken: int, given: int, what: str) -> None:
        super().__init__(
            f"the queue is full: {taken} of {given} {what} were taken; give wait=True, or fewer"
        )
        self.taken = taken
        self.given = given


class _Handle:
    """The library's recorder, freed when no call uses it any more."""

    def __init__(self, asynchronous: bool) -> None:
        self.value = lib.createRecorder(asynchronous)
        if not self.value:
            raise MdfMemoryError("out of memory")
        self.process = os.getpid()
        self._delete = lib.deleteRecorder  # modules may be gone when the interpreter ends

    def __del__(self) -> None:
        if getattr(self, "value", None):
            self._delete(self.value)

    def error(self) -> str:
        """The first failure of the recording."""
        buffer = ctypes.create_string_buffer(2048)
        lib.getRecorderError(self.value, buffer, len(buffer))
        return c.text(buffer.value)

    def stop(self, stop_us: int) -> str:
        """Completes the file. What went wrong in the recording, "" if nothing did."""
        lib.stopRecord(self.value, stop_us)
        lost, error = lib.getLostRecordCount(self.value), self.error()
        if not lost:
            return error
        records = f"{lost} record{'s were' if lost > 1 else ' was'} lost"
        return f"{records}: {error}" if error else records


# Split sizes of the recordings that are under way: the library has one for the process.
_split_sizes: Dict[int, int] = {}
_settings = threading.Lock()


class Recorder:
    """Records a file: groups of signals by `group`, CAN frames by `frame` and `frames`.

        with tolvex.Recorder("drive.mf4") as r:
            engine = r.group("engine", {"speed": "f4", "gear": "u1"}, units={"speed": "1/min"})
            engine.append(0.5, 1200.0, 2)
            r.frame(0x123, b"\\x01\\x02", time=0.5)

    Only `close` completes the file; `with` closes it also where an exception leaves the block. A
    recorder that nobody has any more is closed with a ResourceWarning.

    `asynchronous`: records and frames are queued and written by a thread of the library's, so that
    nothing waits for the disk but `group` and error frames. What the queue cannot take is an
    MdfQueueFull, unless the call is told to wait. `start` is a date, or nanoseconds since 1970 as
    int; it is kept to the microsecond; None: now. With `split_size`, a file that grows beyond so
    many bytes is followed by the next: drive.mf4, drive_1.mf4 ..; all recordings of the process
    that are under way at once must have the same. `max_data_length`: of the payloads of frames, 8
    to 64. The first 8 letters of `program` are kept. Without `overwrite`, a file that exists and is
    not empty is an error. `flush_interval`: seconds after which what was written is on the disk.

    What cannot be written is an MdfFileError: of the call that writes, and, with the number of the
    lost records, of `close`. Any number of threads may use a recorder and its groups at once; those
    of an asynchronous one don't wait for each other.
    """

    def __init__(
        self,
        path: PathLike,
        *,
        asynchronous: bool = False,
        start: Start = None,
        split_size: int = 0,
        max_data_length: int = 64,
        program: str = "tolvex",
        overwrite: bool = True,
        flush_interval: Optional[float] = None,
    ) -> None:
        #: As it was given.
        self.path = c.path_text(path)
        self.asynchronous = asynchronous
        self.max_data_length = max_data_length
        #: Nanoseconds since 1970-01-01 00:00 UTC, a multiple of 1000.
        self.start_ns = started(start)
        self._replays = start is not None
        self._latest = 0.0  # time of a record
        self._define = threading.Lock()
        self._shared: Any = nullcontext() if asynchronous else threading.RLock()
        self._frame = FrameMemory()
        self._group_count = 0
        if not 8 <= max_data_length <= 64:
            raise MdfValueError(f"max_data_length: expected 8 to 64, found {max_data_length}")
        if split_size < 0:
            raise MdfValueError(f"split_size: expected no less than 0, found {split_size}")
        if split_size and "." not in os.path.basename(self.path):
            raise MdfValueError(f"a file that is split needs an extension: {self.path!r}")
        handle = _Handle(asynchronous)
        self._handle: Optional[_Handle] = handle
        name = program.encode()
        lib.setParameter(handle.value, _PROGRAM, len(name), name)
        lib.setOverwrite(handle.value, overwrite)
        if flush_interval is not None:
            if not 0.001 <= flush_interval <= 4e6:
                raise MdfValueError(f"flush_interval: expected 0.001 s .., found {flush_interval}")
            lib.setFlushInterval(handle.value, round(flush_interval * 1000))
        lib.createBusLogConfiguration(handle.value, 0, max_data_length)
        self._begin(handle, c.path_bytes(path), split_size)

    def _begin(self, handle: _Handle, path: bytes, split_size: int) -> None:
        with _settings:
            other = set(_split_sizes.values()) - {split_size}
            if other:
                raise MdfValueError(
                    f"split_size: recordings under way split at {other.pop()} bytes (0: never), "
                    "and all of a process must do so alike"
                )
            lib.setParameter(handle.value, _SPLIT_SIZE, 8, byref(c_uint64(split_size)))
            if lib.startRecord(handle.value, path, self.start_ns // 1000) != 0:
                raise MdfFileError(handle.error() or f"{self.path}: cannot be recorded into")
            _split_sizes[handle.value] = split_size
        self._finalizer = weakref.finalize(self, _abandoned, handle, self.path)

    # Opening and closing ------------------------------------------------------------------

    def close(self, stop_time: Start = None) -> None:
        """Writes what is queued and completes the file; what was lost is an MdfFileError.

        `stop_time` is like `start`; None: now, or with a start that was given the latest time of
        a record. Nothing happens to a recorder that is closed.
        """
        with self._define, self._shared:
            handle, self._handle = self._handle, None
            if handle is None:
                return
            self._finalizer.detach()
            failure = handle.stop(self._stop_us(stop_time))
            _split_sizes.pop(handle.value, None)
        if failure:
            raise MdfFileError(failure if self.path in failure else f"{self.path}: {failure}")

    stop = close

    def _stop_us(self, stop_time: Start) -> int:
        if stop_time is None and self._replays:
            return self.start_ns // 1000 + round(self._latest * 1e6)
        return started(stop_time) // 1000

    @property
    def closed(self) -> bool:
        return self._handle is None

    def __enter__(self) -> Recorder:
        return self

    def __exit__(self, kind: Any, error: Any, trace: Any) -> None:
        if error is None:
            self.close()
            return
        try:
            self.close()
        except MdfError as lost:  # what happened first is of more interest
            warnings.warn(str(lost), MdfWarning, 2)

    def _live(self) -> _Handle:
        handle = self._handle
        if handle is None:
            raise MdfValueError(f"{self.path}: the recording has ended")
        return handle

    def seconds(self, date: Optional[_times.Time] = None) -> float:
        """The time of a record at a date: seconds since the start; now without one."""
        ns = clock.time_ns() if date is None else _times.to_ns(date, self.start_ns, False)
        return (ns - self.start_ns) / 1e9

    @property
    def pending(self) -> int:
        """Records and frames of an asynchronous recorder that wait to be written.

        Those that came many at once count as one up to 512 records or 64 KiB.
        """
        handle = self._handle
        return 0 if handle is None else int(lib.getPendingTaskCount(handle.value))

    def _wait(self, handle: _Handle) -> None:
        while lib.getPendingTaskCount(handle.value) > _MOST_WAITING:
            clock.sleep(0.001)

    # Groups of signals --------------------------------------------------------------------

    def group(
        self,
        name: str,
        fields: Any,
        *,
        units: Optional[Mapping[str, str]] = None,
        comments: Optional[Mapping[str, str]] = None,
        conversions: Optional[Mapping[str, Convertible]] = None,
        limits: Optional[Mapping[str, Tuple[float, float]]] = None,
        comment: str = "",
    ) -> RecorderGroup:
        """A new group of signals, whose records have these fields.

        `fields` is a structured dtype of NumPy, or names and dtypes as dict or list of tuples. The
        field "time", seconds since the start as float64, is put in front if it is not among them.
        Fields are integers, floats, bool (stored as uint8), texts `S<n>` (UTF-8) or `U<n>` (stored
        in 4 n bytes), bytes `V<n>`, of either byte order; of sub-arrays each element is a signal:
        `map[0]`, `map[1]` ...

        Values are stored as they are given; `conversions` say what they mean: tolvex.linear(0.1),
        {0: "off", 1: "on"} ... `units`, `comments`, `limits` (of the physical values) and
        `conversions` go by field.
        """
        plan = _records.Plan(fields)
        described = {
            "units": units or {},
            "comments": comments or {},
            "conversions": conversions or {},
            "limits": limits or {},
        }
        for what, of in described.items():
            for field in of:
                if field not in plan.names:
                    raise MdfNameError(f"{what}: {name!r} has no field {field!r}")
        kinds = {field: converted(one) for field, one in (conversions or {}).items()}
        text = c.text_bytes("a group's comment", f"{name}\n{comment}" if comment else name)
        with self._define, self._shared:
            handle = self._live()
            index = lib.addDataGroup(handle.value, text)
            if index < 0:
                raise MdfFileError(handle.error() or f"the group {name!r} cannot be added")
            for channel in plan.channels:
                field = channel.field
                unit = (units or {}).get(field, "s" if field == "time" else "")
                remark = (comments or {}).get(field, "")
                limit = (limits or {}).get(field)
                _add_channel(handle, index, channel, unit, remark, kinds.get(field), limit)
            self._group_count += 1
        return RecorderGroup(self, name, index, plan)

    def _insert(self, group: int, size: int, count: int, address: Any, wait: bool) -> None:
        """Records at an address."""
        handle = self._live()
        taken = 0
        while True:
            if wait:
                self._wait(handle)
            with self._shared:
                rest = count - taken
                place = address if not taken else address + taken * size
                more = lib.insertRecordsToDG(handle.value, group, rest, size, place)
            taken += max(more, 0)
            if taken == count:
                return
            self._refused(handle, taken, count, "records", more >= 0, wait)

    def _refused(
        self, handle: _Handle, taken: int, count: int, what: str, isfull: bool, wait: bool
    ) -> None:
        """Raises why not all were taken, unless the queue is full and that is to be waited for."""
        if self.asynchronous and isfull and not wait:
            raise MdfQueueFull(taken, count, what)
        failure = handle.error()  # may wait for the disk
        if self._handle is not handle and not failure:
            failure = "the recording has ended"
        if failure or not (self.asynchronous and isfull):
            failure = failure or f"{self.path}: they cannot be written"
            raise MdfFileError(f"{taken} of {count} {what} were taken: {failure}")

    # CAN frames ---------------------------------------------------------------------------

    def frame(
        self,
        id: int,
        data: Any = b"",
        *,
        time: Optional[_times.Time] = None,
        time_ns: Optional[int] = None,
        bus: int = 1,
        extended: Optional[bool] = None,
        fd: Optional[bool] = None,
        brs: bool = False,
        esi: bool = False,
        remote: bool = False,
        error: bool = False,
        transmitted: bool = False,
        dlc: Optional[int] = None,
    ) -> None:
        """Records one CAN frame.

        `time` is seconds since the start or a date, `time_ns` nanoseconds since 1970; without both
        it is now. `extended`: an identifier of 29 bits; None: if it is above 0x7FF. `fd`: None: if
        there are more than 8 bytes, or `brs` or `esi` is set. `dlc`: by default the code of the
        payload's length. Times before the start are refused.
        """
        if time_ns is None:
            now = time is None
            time_ns = clock.time_ns() if now else _times.to_ns(time, self.start_ns, False)
        elif time is not None:
            raise MdfValueError("a frame has either `time` or `time_ns`")
        payload = bytes(data)
        if extended is None:
            extended = id > 0x7FF
        elif not extended and id > 0x7FF:
            raise MdfValueError(f"no identifier of 11 bits: {id:#x}")
        if fd is None:
            fd = len(payload) > 8 or brs or esi
        if len(payload) > (64 if fd else 8):
            raise MdfValueError(f"a frame has at most {64 if fd else 8} bytes here: {payload!r}")
        if dlc is None:
            dlc = int(DLCS[len(payload)])
        flags = (
            (TRANSMITTED if transmitted else 0)
            | (FD if fd else 0)
            | (BRS if brs else 0)
            | (ESI if esi else 0)
            | (RTR if remote else 0)
            | (EXTENDED if extended else 0)
        )
        kind = (ERROR + fd) if error else REMOTE if remote else DATA
        self._save_frame(time_ns, id, bus, flags, kind, dlc, payload)

    def _save_frame(
        self, time_ns: int, id: int, bus: int, flags: int, kind: int, dlc: int, payload: bytes
    ) -> None:
        handle = self._live()
        memory = self._frame
        said, saved = b"", 1
        with memory.lock, self._shared:
            memory.fill(time_ns, id, bus, flags, kind, dlc, payload)
            status = memory.save(handle.value, *memory.arguments)
            if status:
                said, saved = memory.error.value, memory.saved.value
        seconds = (time_ns - self.start_ns) * 1e-9
        if seconds > self._latest:
            self._latest = seconds
        if status:
            self._unsaved(status, said, saved, 1, 0, False)

    def _unsaved(
        self, status: int, said: bytes, saved: int, count: int, first: int, wait: bool
    ) -> None:
        """Raises why frames were not taken, unless the queue is full and that is waited for."""
        text = c.text(said)
        if status == _ARGUMENT:
            behind = f"of those from frame {first} on, " if first else ""
            raise MdfValueError(behind + text)
        if "queue is full" not in text:
            raise MdfFileError(f"{saved} of {count} frames were taken: {text}")
        if not wait:
            raise MdfQueueFull(saved, count, "frames")

    def frames(
        self, frames: Union[Frames, Mapping[str, Any], Iterable[Frame]], *, wait: bool = False
    ) -> None:
        """Records many CAN frames: those of a measurement, arrays, or Frames one by one.

        Arrays go by name: `time_ns` (since 1970) or `time` (seconds since the start), `id`, `data`
        (bytes of each, or rows of uint8), and as they are needed `bus`, `flags`, `kind`, `dlc` as
        in Frame, or `extended`, `fd`, `brs`, `esi`, `remote`, `transmitted` as bools. With `wait`,
        an asynchronous recorder's caller waits for room in the queue.
        """
        if isinstance(frames, Frames):
            self._save(FrameColumns.of(frames), wait)
        elif isinstance(frames, Mapping):
            self._save(FrameColumns.by_name(frames, self.start_ns), wait)
        else:
            source = iter(frames)
            part = list(islice(source, _FRAMES))
            while part:
                self._save(FrameColumns.one_by_one(part), wait)
                part = list(islice(source, _FRAMES))

    def _save(self, columns: FrameColumns, wait: bool) -> None:
        handle = self._live()
        count = len(columns.times)
        if count == 0:
            return
        self._latest = max(self._latest, (int(columns.times.max()) - self.start_ns) * 1e-9)
        saved, first = c_uint64(), 0
        error = ctypes.create_string_buffer(512)
        while first < count:
            if wait:
                self._wait(handle)
            end = min(count, first + _FRAMES) if wait else count
            batch = columns.batch(first, end)
            with self._shared:
                status = lib.tolvex_save_frames(
                    handle.value, byref(batch), byref(saved), error, len(error)
                )
            begin, first = first, first + saved.value
            if status:
                self._unsaved(status, error.value, first, count, begin, wait)

    def __repr__(self) -> str:
        state = "closed" if self.closed else "recording"
        return f"<tolvex.Recorder {self.path!r}: {state}, {self._group_count} groups>"


class RecorderGroup:
    """A group of signals that a recorder records. Made by Recorder.group."""

    def __init__(self, recorder: Recorder, name: str, index: int, plan: _records.Plan) -> None:
        self.recorder = recorder
        self.name = name
        self._index = index
        self._plan = plan
        self._size = plan.dtype.itemsize

    @property
    def names(self) -> Tuple[str, ...]:
        """Its fields, in the order of `append`."""
        return self._plan.names

    @property
    def dtype(self) -> Any:
        """Of its records as they are stored; arrays of it are recorded without a copy."""
        return self._plan.dtype

    def append(self, *values: Any, **named: Any) -> None:
        """Records one record: its fields in order, the time mostly in front, or by name."""
        plan = self._plan
        if named:
            values = tuple(plan.ordered(values, named))
        record = plan.pack(values)
        self.recorder._insert(self._index, self._size, 1, record, False)
        seconds = values[plan.time_position]
        if seconds > self.recorder._latest:
            self.recorder._latest = float(seconds)

    def extend(self, records: Any, *, time: Any = None, wait: bool = False) -> None:
        """Records many records at once.

        `records` is a structured array, a mapping of arrays, a tolvex.Table or pandas.DataFrame
        with exactly the fields of the group. Times are seconds since the start, or dates: those of
        `time`, or the field "time", or a DataFrame's index. Values must fit into their fields
        exactly, but for rounding to float32. With `wait`, an asynchronous recorder's caller waits
        for room in the queue; else what it does not take is an MdfQueueFull that counts it.
        """
        plan = self._plan
        if isinstance(records, np.ndarray) and records.dtype == plan.dtype and time is None:
            self._extend(np.ascontiguousarray(records).reshape(-1), wait)
            return
        columns, count = plan.columns(records, time)
        start_ns = self.recorder.start_ns
        step = max(1, min(count, _CHUNK // self._size))
        buffer = np.zeros(step, plan.dtype)
        for first in range(0, count, step):
            part = buffer[: min(step, count - first)]
            for name, column in columns:
                rows = column[first : first + len(part)]
                isdate = name == "time" and rows.dtype == np.int64
                part[name] = _records.seconds_since(start_ns, rows) if isdate else rows
            try:
                self._extend(part, wait)
            except MdfQueueFull as full:
                raise MdfQueueFull(first + full.taken, count, "records") from None

    def _extend(self, records: Array, wait: bool) -> None:
        count = len(records)
        if count == 0:
            return
        step = max(1, _CHUNK // self._size) if wait else count
        address = records.ctypes.data
        for first in range(0, count, step):
            rows = min(step, count - first)
            place = address + first * self._size
            self.recorder._insert(self._index, self._size, rows, place, wait)
        latest = float(np.fmax.reduce(records["time"]))
        if latest > self.recorder._latest:
            self.recorder._latest = latest

    def __repr__(self) -> str:
        return f"<tolvex.RecorderGroup {self.name!r}: {', '.join(self.names)}>"


def started(start: Start) -> int:
    """Nanoseconds since 1970 of a date, or of such a number; now for None. Whole microseconds."""
    if start is None:
        ns = clock.time_ns()
    elif isinstance(start, (int, np.integer)) and not isinstance(start, bool):
        ns = int(start)
    elif _times.is_date(start):
        ns = _times.date_ns(start, False)
    else:
        raise MdfTypeError(f"expected a date or nanoseconds since 1970 as int, found {start!r}")
    if not 1000 <= ns <= _times.LIMIT:
        raise MdfValueError(f"a recording starts after 1970-01-01; found {start!r}")
    return ns // 1000 * 1000


def _add_channel(
    handle: _Handle,
    group: int,
    channel: _records.Channel,
    unit: str,
    comment: str,
    conversion: Optional[Conversion],
    limits: Optional[Tuple[float, float]],
) -> None:
    made = lib.allocChannel()
    if not made:
        raise MdfMemoryError("out of memory")
    try:
        parameters: List[Tuple[int, Any]] = [
            (_NAME, c.text_bytes("a name", channel.name)),
            (_UNIT, c.text_bytes("a unit", unit)),
            (_COMMENT, c.text_bytes("a comment", comment)),
            (_DATA_TYPE, byref(c_uint8(channel.data_type))),
            (_BYTE_COUNT, byref(c_uint32(channel.size))),
        ]
        if channel.field == "time":
            parameters.append((_TYPE, byref(c_uint8(_MASTER))))
            parameters.append((_SYNC_TYPE, byref(c_uint8(_BY_TIME))))
        if limits is not None:
            parameters.append((_LIMIT_MIN, byref(c_double(limits[0]))))
            parameters.append((_LIMIT_MAX, byref(c_double(limits[1]))))
        for parameter, value in parameters:
            if lib.setChannelParameter(made, parameter, 0, value) != 0:
                raise MdfMemoryError("out of memory")
        if conversion is not None:
            with conversion.formula() as formula:
                if lib.setChannelFormula(made, formula) != 0:
                    raise MdfMemoryError("out of memory")
        if lib.addChannelToDG(handle.value, group, made) != 0:
            raise MdfFileError(handle.error() or f"{channel.name} cannot be recorded")
    finally:
        lib.freeChannel(made)


def _abandoned(handle: _Handle, path: str) -> None:
    """Completes a recording whose recorder nobody has any more."""
    if handle.process != os.getpid():
        return
    warnings.warn(f"{path}: a recorder was not closed", ResourceWarning, 2)
    failure = handle.stop(clock.time_ns() // 1000)
    _split_sizes.pop(handle.value, None)
    if failure:
        warnings.warn(f"{path}: {failure}", MdfWarning, 2)
