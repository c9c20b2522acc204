"""CAN frames as arrays, and one by one."""

from __future__ import annotations

import os
from ctypes import byref, c_uint64
from functools import partial
from typing import (
    TYPE_CHECKING,
    Any,
    Dict,
    Iterable,
    Iterator,
    List,
    NamedTuple,
    Optional,
    Sequence,
    Union,
)

import numpy as np

from . import _arrow, _optional, _show, _times
from . import _library as c
from ._column import Array
from ._errors import MdfMemoryError, MdfTypeError, MdfValueError
from ._library import lib
from ._reader import Opened, usual_threads

if TYPE_CHECKING:
    from ._measurement import Measurement

# Bits of a frame's flags.
TRANSMITTED, SRR, FD, BRS, ESI, WAKE_UP, SINGLE_WIRE, RTR = (1 << bit for bit in range(8))
EXTENDED, PAYLOAD_MISSING = 0x100, 0x200

DATA, REMOTE, ERROR, FD_ERROR = range(4)  # kinds

_AT_ONCE = 4096  # frames made into objects
_MOST_PAYLOAD = 64


class Frame(NamedTuple):
    """One CAN frame."""

    #: Nanoseconds since 1970-01-01 00:00 (UTC, or local time as the recording's start).
    time_ns: int
    #: The identifier, without the mark of an extended one.
    id: int
    #: As the file numbers it, mostly from 1.
    bus: int
    #: The data length code.
    dlc: int
    #: Bits: 1 transmitted, 4 FD, 8 bit rate switch, 16 error state indicator, 128 remote,
    #: 256 extended, 512 the file has lost the payload.
    flags: int
    #: 0 data, 1 remote, 2 error, 3 error on CAN FD.
    kind: int
    data: bytes

    @property
    def is_extended(self) -> bool:
        return bool(self.flags & EXTENDED)

    @property
    def is_fd(self) -> bool:
        return bool(self.flags & FD)

    @property
    def is_remote(self) -> bool:
        return self.kind == REMOTE

    @property
    def is_error(self) -> bool:
        return self.kind >= ERROR

    @property
    def is_transmitted(self) -> bool:
        return bool(self.flags & TRANSMITTED)


_frame = partial(tuple.__new__, Frame)

_DTYPES: Dict[str, Any] = {
    "time_ns": np.int64,
    "id": np.uint32,
    "bus": np.uint16,
    "flags": np.uint16,
    "dlc": np.uint8,
    "kind": np.uint8,
    "length": np.uint8,
}
_MEMBERS = {
    "time_ns": "times",
    "id": "ids",
    "bus": "buses",
    "flags": "flags",
    "dlc": "dlcs",
    "kind": "kinds",
    "length": "lengths",
}


class Frames:
    """Frames by column: arrays of equal length, in order of time.

    `time_ns` (int64, since 1970), `id`, `bus`, `dlc`, `flags`, `kind` as in Frame, `length` (bytes of
    the payload). A payload is `data[offsets[i]:offsets[i + 1]]`; `payload` has them all in a row
    each. Indexed with a number it gives a Frame, with a slice, a mask or numbers the Frames there;
    as an iterable it gives Frames one by one.
    """

    time_ns: Array
    id: Array
    bus: Array
    flags: Array
    dlc: Array
    kind: Array
    length: Array

    def __init__(self, columns: Dict[str, Array], data: Array, start_ns: int, local: bool) -> None:
        for name in _DTYPES:
            setattr(self, name, columns[name])
        #: All payloads, back to back.
        self.data = data
        self._start_ns = start_ns
        self._local = local
        self._offsets: Optional[Array] = None
        self._payload: Optional[Array] = None

    @property
    def offsets(self) -> Array:
        """Where in `data` each payload begins, from 0, int64; one more than there are frames."""
        if self._offsets is None:
            self._offsets = np.zeros(len(self) + 1, np.int64)
            np.cumsum(self.length, out=self._offsets[1:])
        return self._offsets

    def __len__(self) -> int:
        return len(self.time_ns)

    @property
    def time(self) -> Array:
        """Seconds since the recording's start, float64."""
        return (self.time_ns - self._start_ns) / 1e9

    @property
    def datetime(self) -> Array:
        """datetime64[ns] in UTC, or in local time where the recording's start is local."""
        return self.time_ns.view("datetime64[ns]")

    @property
    def payload(self) -> Array:
        """A row of bytes for each frame, as wide as the longest, zeros behind shorter ones."""
        if self._payload is None:
            width = int(self.length.max()) if len(self) else 0
            if (self.length == width).all():
                self._payload = self.data.reshape(len(self), width)
            else:
                self._payload = np.zeros((len(self), width), np.uint8)
                self._payload[np.arange(width) < self.length[:, None]] = self.data
        return self._payload

    def __getitem__(self, which: Any) -> Any:
        if isinstance(which, (int, np.integer)):
            i = range(len(self))[int(which)]
            begin, end = self.offsets[i], self.offsets[i + 1]
            numbers = [int(getattr(self, name)[i]) for name in Frame._fields[:-1]]
            return _frame((*numbers, self.data[begin:end].tobytes()))
        columns = {name: getattr(self, name)[which] for name in _DTYPES}
        if isinstance(which, slice) and which.step in (None, 1):
            first, end, _ = which.indices(len(self))
            data = self.data[self.offsets[first] : self.offsets[max(first, end)]]
        else:
            lengths = columns["length"].astype(np.int64)
            ends = np.cumsum(lengths)
            begins = self.offsets[:-1][which]
            data = self.data[np.arange(lengths.sum()) + np.repeat(begins - ends + lengths, lengths)]
        return Frames(columns, data, self._start_ns, self._local)

    def __iter__(self) -> Iterator[Frame]:
        for first in range(0, len(self), _AT_ONCE):
            part = slice(first, first + _AT_ONCE)
            payloads = self._payloads(first, min(first + _AT_ONCE, len(self)))
            numbers = [getattr(self, name)[part].tolist() for name in Frame._fields[:-1]]
            yield from map(_frame, zip(*numbers, payloads))

    def _payloads(self, first: int, end: int) -> List[bytes]:
        """Those of some frames."""
        offsets = self.offsets[first : end + 1]
        data = self.data[offsets[0] : offsets[-1]]
        size = int(self.length[first])
        if size and (self.length[first:end] == size).all():  # in one go
            return data.view(f"V{size}").tolist()  # type: ignore[no-any-return]
        whole, places = data.tobytes(), (offsets - offsets[0]).tolist()
        return [whole[begin:end] for begin, end in zip(places, places[1:])]

    def to_pandas(self, time: str = "seconds") -> Any:
        """A pandas.DataFrame over the time, with the payloads as bytes.

        `time`: "seconds" since the start, or "datetime" (UTC, or without a zone in local time).
        """
        pandas = _optional.need("pandas")
        if time not in ("seconds", "datetime"):
            raise MdfValueError(f"time: expected 'seconds' or 'datetime', found {time!r}")
        zone = None if self._local else "UTC"
        index = (
            pandas.Index(self.time, name="time")
            if time == "seconds"
            else pandas.DatetimeIndex(self.datetime, tz=zone, name="time")
        )
        columns = {name: getattr(self, name) for name in ("id", "bus", "dlc", "flags", "kind")}
        columns["data"] = np.empty(len(self), object)
        if len(self):
            columns["data"][:] = self._payloads(0, len(self))
        return pandas.DataFrame(columns, index=index, copy=False)

    def __repr__(self) -> str:
        return _show.frames_text(self)

    def _repr_html_(self) -> str:
        return _show.frames_html(self)


class _OpenFrames(Opened):
    """Bus logs that are open in the library. One thread at a time."""

    def __init__(self, paths: Sequence[bytes], parts: bool) -> None:
        super().__init__("frames")
        self.open(paths, parts)


class FrameSource:
    """Which frames of a measurement are wanted."""

    def __init__(self, measurement: Measurement, ids: Any, bus: Any, start: Any, stop: Any) -> None:
        self.measurement = measurement
        self._ids = _numbers("ids", ids, np.uint32, 0x1FFFFFFF)
        self._buses = _numbers("bus", bus, np.uint16, 0xFFFF)
        start_ns, local = measurement.start_ns, measurement.start_is_local
        self._filter = c.FrameFilter()
        if self._ids is not None:
            self._filter.ids, self._filter.id_count = self._ids.ctypes.data, len(self._ids)
        if self._buses is not None:
            self._filter.buses, self._filter.bus_count = self._buses.ctypes.data, len(self._buses)
        if start is not None:
            self._filter.start_ns = _times.to_ns(start, start_ns, local)
            self._filter.has_start = 1
        if stop is not None:
            self._filter.end_ns = _times.to_ns(stop, start_ns, local)
            self._filter.has_end = 1
        self._isnone = any(
            found is not None and len(found) == 0 for found in (self._ids, self._buses)
        )
        self._isall = self._ids is None and self._buses is None and start is None and stop is None

    def all(self) -> Frames:
        handle = self._open()
        return self._joined(list(self._read(handle, self._estimate(handle), None)))

    def parts(self, rows: int) -> Iterator[Frames]:
        handle = self._open()
        for part in self._read(handle, rows, rows):
            yield self._joined([part])

    def stream(self) -> _arrow.Streamed:
        if self._isnone:
            raise MdfTypeError("a stream of no identifiers or buses has no frames")
        return _arrow.Streamed(self._begin)

    def _begin(self, stream: Any) -> None:
        handle = self._open()
        handle.check(lib.tolvex_frames_stream(handle.value, byref(self._filter), 0, stream))

    def _open(self) -> _OpenFrames:
        pool = self.measurement._pool
        if pool.closed:
            raise MdfValueError("the measurement is closed")
        pool.check_files()
        return _OpenFrames(pool.paths, pool.parts)

    def _estimate(self, handle: _OpenFrames) -> int:
        """About how many frames there are."""
        if not self._isall:
            return 1 << 16
        log, stated = c.FrameLog(), 0
        handle.check(lib.tolvex_frames_log(handle.value, byref(log)))
        for index in range(log.group_count):
            group = c.FrameGroup()
            handle.check(lib.tolvex_frames_group(handle.value, index, byref(group)))
            stated += group.stated_rows if group.is_read else 0
        # What a file states is a claim: an uncompressed frame takes at least 8 bytes.
        size = sum(os.path.getsize(path) for path in self.measurement.paths if os.path.exists(path))
        return max(1024, min(stated, size // 8) + 1)  # room for one more shows the end

    def _read(self, handle: _OpenFrames, first: int, later: Optional[int]) -> Iterator[Any]:
        """Columns and payloads: up to `first` frames, then up to `later` each.

        Without `later` each time as many as before in all.
        """
        if self._isnone:
            return
        handle.check(lib.tolvex_frames_select(handle.value, byref(self._filter)))
        room, width, total = first, 8.0, 0
        while True:
            try:
                columns = {name: np.empty(room, dtype) for name, dtype in _DTYPES.items()}
                data = np.empty(max(_MOST_PAYLOAD, int(room * width) + 1), np.uint8)
            except (MemoryError, ValueError) as error:
                raise MdfMemoryError(f"no memory for {room} frames: {error}") from error
            arrays = c.FrameArrays(
                room=room,
                payloads=data.ctypes.data,
                payload_room=len(data),
                threads=usual_threads(),
                **{_MEMBERS[name]: column.ctypes.data for name, column in columns.items()},
            )
            count = c_uint64()
            handle.check(lib.tolvex_frames_read(handle.value, byref(arrays), byref(count)))
            self.measurement._hear(self.measurement._heard(handle), stacklevel=6)
            found = count.value
            if found == 0:
                return
            columns = {name: column[:found] for name, column in columns.items()}
            used = int(columns["length"].sum(dtype=np.int64))
            yield columns, data[:used]
            if found < room and len(data) - used >= _MOST_PAYLOAD:
                return
            total += found
            room = later or max(total, 1 << 16)
            width = max(width, min(_MOST_PAYLOAD, 1.5 * used / found))

    def _joined(self, parts: List[Any]) -> Frames:
        start_ns, local = self.measurement.start_ns, self.measurement.start_is_local
        if len(parts) == 1:
            ((columns, data),) = parts
        elif parts:
            columns = {name: np.concatenate([part[0][name] for part in parts]) for name in _DTYPES}
            data = np.concatenate([part[1] for part in parts])
        else:
            columns = {name: np.empty(0, dtype) for name, dtype in _DTYPES.items()}
            data = np.empty(0, np.uint8)
        return Frames(columns, data, start_ns, local)


def _numbers(
    name: str, wanted: Union[None, int, Iterable[int]], dtype: Any, most: int
) -> Optional[Array]:
    if wanted is None:
        return None
    given = [wanted] if isinstance(wanted, (int, np.integer)) else list(wanted)
    for number in given:
        if not isinstance(number, (int, np.integer)):
            raise MdfTypeError(f"{name}: expected numbers, found {number!r}")
        if not 0 <= number <= most:
            raise MdfValueError(f"{name}: expected 0 to {most:#x}, found {number:#x}")
    return np.array(given, dtype)
