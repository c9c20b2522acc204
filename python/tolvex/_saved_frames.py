"""CAN frames as the library takes them for recording."""

from __future__ import annotations

import ctypes
import struct
import threading
from collections.abc import Mapping
from ctypes import CFUNCTYPE, c_int32, c_size_t, c_uint64, c_void_p
from typing import Any, Dict, List, Sequence

import numpy as np

from . import _library as c
from ._column import Array
from ._errors import MdfNameError, MdfTypeError, MdfValueError
from ._frames import BRS, ERROR, ESI, EXTENDED, FD, RTR, TRANSMITTED, Frame, Frames

LENGTHS = np.array([0, 1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 20, 24, 32, 48, 64], np.uint8)  # by code
DLCS = np.searchsorted(LENGTHS, np.arange(65)).astype(np.uint8)  # by bytes of payload

_BITS = {
    "transmitted": TRANSMITTED,
    "fd": FD,
    "brs": BRS,
    "esi": ESI,
    "remote": RTR,
    "extended": EXTENDED,
}
_DTYPES: Dict[str, Any] = {
    "times": np.int64,
    "ids": np.uint32,
    "buses": np.uint16,
    "flags": np.uint16,
    "kinds": np.uint8,
    "dlcs": np.uint8,
    "offsets": np.int64,
    "payloads": np.uint8,
}


_Save = CFUNCTYPE(c_int32, c_void_p, c_void_p, c_void_p, c_void_p, c_size_t)


class FrameMemory:
    """One frame; whoever fills it has its lock until the library has taken it."""

    _LAYOUT = struct.Struct("=qqqIHHBB64s")

    def __init__(self) -> None:
        self.lock = threading.Lock()
        self.saved = c_uint64()
        self.error = ctypes.create_string_buffer(512)
        self._memory = ctypes.create_string_buffer(self._LAYOUT.size)
        at = ctypes.addressof(self._memory)
        self._batch = c.FrameBatch(
            count=1,
            times=at,
            offsets=at + 8,
            ids=at + 24,
            buses=at + 28,
            flags=at + 30,
            kinds=at + 32,
            dlcs=at + 33,
            payloads=at + 34,
        )
        #: tolvex_save_frames, and what it takes behind the recorder: plain addresses take no time.
        self.save = _Save(("tolvex_save_frames", c.lib))
        self.arguments = (
            ctypes.addressof(self._batch),
            ctypes.addressof(self.saved),
            ctypes.addressof(self.error),
            ctypes.sizeof(self.error),
        )

    def fill(
        self, time_ns: int, id: int, bus: int, flags: int, kind: int, dlc: int, payload: bytes
    ) -> None:
        """Of a payload of at most 64 bytes."""
        try:
            self._LAYOUT.pack_into(
                self._memory, 0, time_ns, 0, len(payload), id, bus, flags, kind, dlc, payload
            )
        except struct.error as error:
            raise MdfValueError(
                f"no frame: identifier {id:#x}, bus {bus}, code {dlc}: {error}"
            ) from error


class FrameColumns:
    """Frames by column, of the dtypes that the library reads."""

    def __init__(self, columns: Dict[str, Array]) -> None:
        self._columns = {
            name: np.ascontiguousarray(columns[name], dtype) for name, dtype in _DTYPES.items()
        }
        self.times = self._columns["times"]

    def __len__(self) -> int:
        return len(self.times)

    @classmethod
    def of(cls, frames: Frames) -> FrameColumns:
        """Those of a measurement; nothing is copied."""
        return cls(
            {
                "times": frames.time_ns,
                "ids": frames.id,
                "buses": frames.bus,
                "flags": frames.flags,
                "kinds": frames.kind,
                "dlcs": frames.dlc,
                "offsets": frames.offsets,
                "payloads": frames.data,
            }
        )

    @classmethod
    def one_by_one(cls, frames: Sequence[Frame]) -> FrameColumns:
        """Of Frames, or tuples like them."""
        try:
            times, ids, buses, dlcs, flags, kinds, payloads = zip(*frames)
        except (TypeError, ValueError) as error:
            raise MdfTypeError(f"expected tolvex.Frame, found {frames[0]!r}: {error}") from error
        return cls(
            {
                "times": _integers("time_ns", times, np.int64),
                "ids": _integers("id", ids, np.uint32),
                "buses": _integers("bus", buses, np.uint16),
                "dlcs": _integers("dlc", dlcs, np.uint8),
                "flags": _integers("flags", flags, np.uint16),
                "kinds": _integers("kind", kinds, np.uint8),
                **_payloads(payloads),
            }
        )

    @classmethod
    def by_name(cls, given: Mapping[str, Any], start_ns: int) -> FrameColumns:
        """Of arrays, most of which may be left out."""
        rest = dict(given)
        if "id" not in rest or ("time" in rest) == ("time_ns" in rest):
            raise MdfNameError("frames have an `id`, and either `time` or `time_ns`")
        ids = _integers("id", rest.pop("id"), np.uint32)
        count = len(ids)
        if "time_ns" in rest:
            times = _integers("time_ns", rest.pop("time_ns"), np.int64)
        else:
            seconds = np.asarray(rest.pop("time"), np.float64)
            if not (np.abs(seconds) < 9e9).all():
                raise MdfValueError("time: expected seconds since the recording's start")
            times = start_ns + np.rint(seconds * 1e9).astype(np.int64)
        columns = _payloads(rest.pop("data", [b""] * count))
        sizes = np.diff(columns["offsets"])
        buses = _integers("bus", rest.pop("bus", np.ones(count, np.uint16)), np.uint16)
        kinds = _integers("kind", rest.pop("kind", np.zeros(count, np.uint8)), np.uint8)
        given_flags = rest.pop("flags", None)
        if given_flags is None:
            flags: Array = np.where(ids > 0x7FF, 0 if "extended" in rest else EXTENDED, 0)
            if "fd" not in rest:
                flags = flags | np.where((sizes > 8) | (kinds == ERROR + 1), FD, 0)
                for name in ("brs", "esi"):
                    flags = flags | np.where(np.asarray(rest.get(name, False), bool), FD, 0)
            for name, bit in _BITS.items():
                if name in rest:
                    flags = flags | np.where(np.asarray(rest.pop(name), bool), bit, 0)
        else:
            flags = _integers("flags", given_flags, np.uint16)
        dlcs = rest.pop("dlc", None)
        if dlcs is None:
            dlcs = DLCS[np.minimum(sizes, 64)]
        if rest:
            raise MdfNameError(f"frames have no {next(iter(rest))!r}")
        columns.update(
            times=times,
            ids=ids,
            buses=buses,
            flags=flags,
            kinds=kinds,
            dlcs=_integers("dlc", dlcs, np.uint8),
        )
        lengths = {name: len(columns[name]) for name in columns if name != "payloads"}
        lengths["offsets"] -= 1
        if set(lengths.values()) != {count}:
            raise MdfValueError(f"the arrays of frames differ in length: {lengths}")
        return cls(columns)

    def batch(self, first: int, end: int) -> c.FrameBatch:
        """Some of them for tolvex_save_frames; valid as long as this object is."""
        found = c.FrameBatch(count=end - first)
        for name, column in self._columns.items():
            skipped = 0 if name == "payloads" else first * column.itemsize
            setattr(found, name, column.ctypes.data + skipped)
        return found


def _integers(name: str, given: Any, dtype: Any) -> Array:
    array = np.asarray(given)
    if array.dtype == dtype:
        return array
    if array.dtype.kind not in "biu" and array.size:
        raise MdfTypeError(f"{name}: expected integers, found {array.dtype}")
    limits = np.iinfo(dtype)
    if array.size and not (limits.min <= int(array.min()) and int(array.max()) <= limits.max):
        raise MdfValueError(f"{name}: expected {limits.min} to {limits.max}")
    return array.astype(dtype)


def _payloads(given: Any) -> Dict[str, Array]:
    """Payloads back to back, and where they begin."""
    if isinstance(given, np.ndarray) and given.dtype != object:
        if given.ndim != 2 or given.dtype != np.uint8:
            raise MdfTypeError("data: expected bytes for each frame, or rows of uint8")
        count, size = given.shape
        return {"offsets": np.arange(count + 1) * size, "payloads": given.reshape(-1)}
    parts: List[bytes] = [bytes(one) for one in given]
    offsets = np.zeros(len(parts) + 1, np.int64)
    np.cumsum([len(one) for one in parts], out=offsets[1:])
    return {"offsets": offsets, "payloads": np.frombuffer(b"".join(parts), np.uint8)}
