"""Streams of Arrow arrays, as PyCapsules that other packages take."""

from __future__ import annotations

import ctypes
from ctypes import CFUNCTYPE, byref, c_char_p, c_int32, c_void_p, py_object, pythonapi
from typing import TYPE_CHECKING, Any, Callable, Dict, List, Optional

from . import _library as c
from ._errors import MdfValueError

if TYPE_CHECKING:
    from ._measurement import Group

_NAME = b"arrow_array_stream"
_Release = CFUNCTYPE(None, c_void_p)
_Destructor = CFUNCTYPE(None, c_void_p)

_new_capsule = pythonapi.PyCapsule_New
_new_capsule.restype = py_object
_new_capsule.argtypes = (c_void_p, c_char_p, c_void_p)
_get_pointer = ctypes.PYFUNCTYPE(c_void_p, c_void_p, c_char_p)(("PyCapsule_GetPointer", pythonapi))

_held: Dict[int, c.ArrowStream] = {}  # by address, until their capsule goes


def _free(capsule: int) -> None:
    address = _get_pointer(capsule, _NAME)
    stream = _held.pop(address)
    if stream.release:  # whoever took the stream has emptied it
        _Release(stream.release)(address)


_destructor = _Destructor(_free)


class Streamed:
    """Something that can be read as a stream of record batches, any number of times.

    For whatever takes `__arrow_c_stream__`: pyarrow.table(x), polars.DataFrame(x), DuckDB.
    """

    def __init__(self, begin: Callable[[], c.ArrowStream]) -> None:
        self._begin = begin

    def __arrow_c_stream__(self, requested_schema: Any = None) -> Any:
        stream = self._begin()
        address = ctypes.addressof(stream)
        _held[address] = stream
        return _new_capsule(address, _NAME, ctypes.cast(_destructor, c_void_p))


def group_stream(
    group: Group, channels: Optional[List[int]], time: str, raw: bool, batch_rows: int
) -> c.ArrowStream:
    """Channels of a group."""
    forms = {"datetime": c.TIME_NANOSECONDS, "seconds": c.TIME_SECONDS}
    if time not in forms:
        raise MdfValueError(f"time: expected 'datetime' or 'seconds', found {time!r}")
    options = c.StreamOptions(
        batch_rows=batch_rows,
        time=forms[time] if group.has_time else c.TIME_AS_CHANNEL,
        raw=int(raw),
        threads=1,
    )
    if channels is not None:
        options.channels = (c_int32 * len(channels))(*channels)
        options.channel_count = len(channels)
    stream = c.ArrowStream()
    with group.measurement._pool.reader() as reader:
        reader.check(
            c.lib.tolvex_reader_stream(reader.value, group.index, byref(options), byref(stream))
        )
    return stream
