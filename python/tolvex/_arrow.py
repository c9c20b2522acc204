"""Streams of Arrow arrays, as PyCapsules that other packages take."""

from __future__ import annotations

import ctypes
from ctypes import byref, c_char_p, c_int32, c_void_p, py_object, pythonapi
from typing import TYPE_CHECKING, Any, Callable, List, Optional

from . import _library as c
from ._errors import MdfMemoryError, MdfValueError

if TYPE_CHECKING:
    from ._measurement import Group

_NAME = b"arrow_array_stream"
pythonapi.Py_IncRef(py_object(_NAME))  # capsules borrow it, whenever they go
_new_capsule = pythonapi.PyCapsule_New
_new_capsule.restype = py_object
_new_capsule.argtypes = (c_void_p, c_char_p, c_void_p)
_pointer_of = ctypes.cast(pythonapi.PyCapsule_GetPointer, c_void_p)
_destructor = ctypes.cast(c.lib.tolvex_capsule_free, c_void_p)


class Streamed:
    """Something that can be read as a stream of record batches, any number of times.

    For whatever takes `__arrow_c_stream__`: pyarrow.table(x), polars.DataFrame(x), DuckDB.
    """

    def __init__(self, begin: Callable[[Any], None]) -> None:
        self._begin = begin

    def __arrow_c_stream__(self, requested_schema: Any = None) -> Any:
        stream = c.lib.tolvex_capsule_stream(_pointer_of)
        if not stream:
            raise MdfMemoryError("no memory for a stream")
        capsule = _new_capsule(ctypes.cast(stream, c_void_p), _NAME, _destructor)
        self._begin(stream)
        return capsule


def group_stream(
    group: Group,
    channels: Optional[List[int]],
    time: str,
    raw: bool,
    batch_rows: int,
    stream: Any,
) -> None:
    """Begins the stream of channels of a group."""
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
    with group.measurement._pool.reader() as reader:
        reader.check(c.lib.tolvex_reader_stream(reader.value, group.index, byref(options), stream))
