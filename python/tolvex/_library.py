"""The C functions of libtolvex, as ctypes sees them.

Every call releases the interpreter's lock while it runs.
"""

from __future__ import annotations

import ctypes
import os
import sys
from ctypes import (
    CFUNCTYPE,
    POINTER,
    c_bool,
    c_char,
    c_char_p,
    c_double,
    c_int,
    c_int32,
    c_int64,
    c_size_t,
    c_uint,
    c_uint8,
    c_uint16,
    c_uint32,
    c_uint64,
    c_void_p,
)
from pathlib import Path
from typing import Any, Dict, Iterable, List, Sequence, Tuple, Type, Union

from ._errors import (
    MdfCancelled,
    MdfError,
    MdfFileError,
    MdfMemoryError,
    MdfTypeError,
    MdfValueError,
)

PathLike = Union[str, bytes, "os.PathLike[str]", "os.PathLike[bytes]"]
PATHS = (str, bytes, os.PathLike)

NO_TIME = -(2**63)

(
    NONE,
    INT8,
    INT16,
    INT32,
    INT64,
    UINT8,
    UINT16,
    UINT32,
    UINT64,
    FLOAT32,
    FLOAT64,
    TEXT,
    BYTES,
    DICTIONARY,
) = range(14)

TIME_AS_CHANNEL, TIME_SECONDS, TIME_NANOSECONDS = range(3)


class Sized(ctypes.Structure):
    """A struct that begins with its own size."""

    def __init__(self, **members: Any) -> None:
        super().__init__(**members)
        self.size = ctypes.sizeof(self)


class Recording(Sized):
    _fields_ = [
        ("size", c_size_t),
        ("program", c_char_p),
        ("comment", c_char_p),
        ("start_time_ns", c_int64),
        ("version", c_uint32),
        ("group_count", c_uint32),
        ("start_is_local", c_int32),
        ("utc_offset_minutes", c_int32),
    ]


class GroupInfo(Sized):
    _fields_ = [
        ("size", c_size_t),
        ("name", c_char_p),
        ("comment", c_char_p),
        ("source_name", c_char_p),
        ("source_path", c_char_p),
        ("rows", c_uint64),
        ("channel_count", c_uint32),
        ("master", c_int32),
    ]


class ChannelInfo(Sized):
    _fields_ = [
        ("size", c_size_t),
        ("name", c_char_p),
        ("unit", c_char_p),
        ("comment", c_char_p),
        ("source_name", c_char_p),
        ("source_path", c_char_p),
        ("conversion_name", c_char_p),
        ("fault", c_char_p),
        ("shape", POINTER(c_uint64)),
        ("dimensions", c_uint64),
        ("elements", c_uint64),
        ("type", c_uint32),
        ("raw_type", c_uint32),
        ("parent", c_int32),
        ("bit_count", c_uint32),
        ("conversion", c_uint32),
        ("channel_type", c_uint32),
        ("sync_type", c_uint32),
        ("data_type", c_uint32),
        ("gives_numbers", c_int32),
        ("reserved", c_uint32),
    ]


class Place(ctypes.Structure):
    _fields_ = [("group", c_int32), ("channel", c_int32)]


class ReadOptions(Sized):
    _fields_ = [
        ("size", c_size_t),
        ("seconds", c_void_p),
        ("nanoseconds", c_void_p),
        ("raw", c_int32),
        ("threads", c_uint32),
    ]


class Target(Sized):
    _fields_ = [
        ("size", c_size_t),
        ("values", c_void_p),
        ("validity", c_void_p),
        ("channel", c_int32),
        ("doubles", c_int32),
    ]


class Values(Sized):
    _fields_ = [
        ("size", c_size_t),
        ("rows", c_uint64),
        ("elements", c_uint64),
        ("data", c_void_p),
        ("offsets", c_void_p),
        ("validity", c_void_p),
        ("texts", POINTER(c_char_p)),
        ("text_count", c_uint64),
        ("numbers", c_void_p),
        ("type", c_uint32),
        ("width", c_uint32),
    ]


class StreamOptions(Sized):
    _fields_ = [
        ("size", c_size_t),
        ("channels", POINTER(c_int32)),
        ("channel_count", c_size_t),
        ("first_row", c_uint64),
        ("row_count", c_uint64),
        ("batch_rows", c_uint64),
        ("time", c_uint32),
        ("raw", c_int32),
        ("threads", c_uint32),
        ("reserved", c_uint32),
    ]


class ArrowStream(ctypes.Structure):
    _fields_ = [
        ("get_schema", c_void_p),
        ("get_next", c_void_p),
        ("get_last_error", c_void_p),
        ("release", c_void_p),
        ("private_data", c_void_p),
    ]


class FrameLog(Sized):
    _fields_ = [
        ("size", c_size_t),
        ("start_time_ns", c_int64),
        ("start_is_local", c_int32),
        ("utc_offset_minutes", c_int32),
        ("group_count", c_uint64),
    ]


class FrameGroup(Sized):
    _fields_ = [
        ("size", c_size_t),
        ("name", c_char_p),
        ("stated_rows", c_uint64),
        ("file", c_uint64),
        ("data_group", c_int32),
        ("channel_group", c_int32),
        ("is_read", c_uint32),
        ("reserved", c_uint32),
    ]


class FrameFilter(Sized):
    _fields_ = [
        ("size", c_size_t),
        ("ids", c_void_p),
        ("id_count", c_size_t),
        ("buses", c_void_p),
        ("bus_count", c_size_t),
        ("start_ns", c_int64),
        ("end_ns", c_int64),
        ("has_start", c_int32),
        ("has_end", c_int32),
    ]


class FrameBatch(Sized):
    _fields_ = [
        ("size", c_size_t),
        ("count", c_uint64),
        ("times", c_void_p),
        ("ids", c_void_p),
        ("buses", c_void_p),
        ("flags", c_void_p),
        ("directions", c_void_p),
        ("kinds", c_void_p),
        ("dlcs", c_void_p),
        ("rows", c_void_p),
        ("offsets", c_void_p),
        ("payloads", c_void_p),
        ("error_frames", c_void_p),
        ("errors", c_void_p),
        ("error_count", c_uint64),
        ("error_size", c_uint64),
    ]


class FrameArrays(Sized):
    _fields_ = [
        ("size", c_size_t),
        ("room", c_uint64),
        ("times", c_void_p),
        ("ids", c_void_p),
        ("buses", c_void_p),
        ("flags", c_void_p),
        ("dlcs", c_void_p),
        ("kinds", c_void_p),
        ("rows", c_void_p),
        ("offsets", c_void_p),
        ("lengths", c_void_p),
        ("payloads", c_void_p),
        ("payload_room", c_uint64),
        ("threads", c_uint32),
        ("reserved", c_uint32),
    ]


class Summary(Sized):
    _fields_ = [
        ("size", c_size_t),
        ("bytes", c_uint64),
        ("start_time_ns", c_int64),
        ("first_time_ns", c_int64),
        ("last_time_ns", c_int64),
        ("records", c_uint64),
        ("frames", c_uint64),
        ("problem_count", c_uint64),
        ("version", c_uint32),
        ("group_count", c_uint32),
        ("channel_count", c_uint32),
        ("start_is_local", c_int32),
        ("utc_offset_minutes", c_int32),
        ("is_finalized", c_uint32),
        ("program", c_char * 16),
    ]


class CheckSummary(Sized):
    _fields_ = [
        ("size", c_size_t),
        ("failure", c_char_p),
        ("errors", c_uint64),
        ("warnings", c_uint64),
        ("finding_count", c_uint64),
    ]


class Finding(Sized):
    _fields_ = [
        ("size", c_size_t),
        ("position", c_uint64),
        ("what", c_char_p),
        ("expected", c_char_p),
        ("found", c_char_p),
        ("is_error", c_uint32),
        ("reserved", c_uint32),
    ]


ProgressFunction = CFUNCTYPE(c_int32, c_void_p, c_uint64, c_uint64)
CancelledFunction = CFUNCTYPE(c_int32, c_void_p)
DiagnosticFunction = CFUNCTYPE(None, c_void_p, c_char_p)


class RecoverOptions(Sized):
    _fields_ = [
        ("size", c_size_t),
        ("progress", ProgressFunction),
        ("cancelled", CancelledFunction),
        ("user", c_void_p),
        ("max_output", c_uint64),
        ("verify", c_uint32),
        ("reserved", c_uint32),
    ]


class RecoverySummary(Sized):
    _fields_ = [
        ("size", c_size_t),
        ("failure", c_char_p),
        ("losses", POINTER(c_char_p)),
        ("repairs", POINTER(c_char_p)),
        ("loss_count", c_uint64),
        ("repair_count", c_uint64),
        ("group_count", c_uint64),
        ("lossless", c_uint32),
        ("beyond_limit", c_uint32),
    ]


class RecoveredGroup(Sized):
    _fields_ = [
        ("size", c_size_t),
        ("name", c_char_p),
        ("losses", POINTER(c_char_p)),
        ("repairs", POINTER(c_char_p)),
        ("loss_count", c_uint64),
        ("repair_count", c_uint64),
        ("rows", c_uint64),
        ("found_blocks", c_uint64),
        ("lost_rows", c_uint64),
        ("data_group", c_int32),
        ("channel_group", c_int32),
    ]


TEXTS = POINTER(POINTER(c_char_p))

# What each function takes and gives; a status unless another result stands in front.
_READING: Dict[str, Tuple[Any, ...]] = {
    "tolvex_reader_new": (POINTER(c_void_p),),
    "tolvex_reader_open": (c_void_p, POINTER(c_char_p), c_size_t),
    "tolvex_reader_open_parts": (c_void_p, c_char_p),
    "tolvex_reader_problems": (c_void_p, TEXTS, POINTER(c_size_t)),
    "tolvex_reader_notices": (c_void_p, TEXTS, POINTER(c_size_t)),
    "tolvex_reader_recording": (c_void_p, POINTER(Recording)),
    "tolvex_reader_group": (c_void_p, c_int32, POINTER(GroupInfo)),
    "tolvex_reader_channel": (c_void_p, c_int32, c_int32, POINTER(ChannelInfo)),
    "tolvex_reader_find": (c_void_p, c_char_p, POINTER(Place), c_size_t, POINTER(c_size_t)),
    "tolvex_reader_match": (
        c_void_p,
        c_char_p,
        c_int32,
        POINTER(Place),
        c_size_t,
        POINTER(c_size_t),
    ),
    "tolvex_reader_read": (
        c_void_p,
        c_int32,
        POINTER(Target),
        c_size_t,
        c_uint64,
        c_uint64,
        POINTER(ReadOptions),
        POINTER(c_uint64),
    ),
    "tolvex_reader_seconds": (c_void_p, c_int32, c_uint64, c_uint64, c_void_p, POINTER(c_uint64)),
    "tolvex_reader_nanoseconds": (
        c_void_p,
        c_int32,
        c_uint64,
        c_uint64,
        c_void_p,
        POINTER(c_uint64),
    ),
    "tolvex_reader_columns": (
        c_void_p,
        c_int32,
        POINTER(c_int32),
        c_size_t,
        c_uint64,
        c_uint64,
        POINTER(ReadOptions),
        POINTER(c_void_p),
    ),
    "tolvex_column_values": (c_void_p, POINTER(Values)),
    "tolvex_reader_stream": (c_void_p, c_int32, POINTER(StreamOptions), POINTER(ArrowStream)),
    "tolvex_frames_new": (POINTER(c_void_p),),
    "tolvex_frames_open": (c_void_p, POINTER(c_char_p), c_size_t),
    "tolvex_frames_open_parts": (c_void_p, c_char_p),
    "tolvex_frames_notices": (c_void_p, TEXTS, POINTER(c_size_t)),
    "tolvex_frames_problems": (c_void_p, TEXTS, POINTER(c_size_t)),
    "tolvex_frames_log": (c_void_p, POINTER(FrameLog)),
    "tolvex_frames_group": (c_void_p, c_uint64, POINTER(FrameGroup)),
    "tolvex_frames_time_range": (c_void_p, POINTER(c_int64), POINTER(c_int64)),
    "tolvex_frames_select": (c_void_p, POINTER(FrameFilter)),
    "tolvex_frames_read": (c_void_p, POINTER(FrameArrays), POINTER(c_uint64)),
    "tolvex_frames_stream": (c_void_p, POINTER(FrameFilter), c_uint64, POINTER(ArrowStream)),
    "tolvex_save_frames": (c_void_p, POINTER(FrameBatch), POINTER(c_uint64), c_char_p, c_size_t),
    "tolvex_summarize_file": (c_char_p, POINTER(Summary), c_char_p, c_size_t),
    "tolvex_check_file": (c_char_p, ProgressFunction, c_void_p, POINTER(c_void_p)),
    "tolvex_check_get_summary": (c_void_p, POINTER(CheckSummary)),
    "tolvex_check_get_finding": (c_void_p, c_uint64, POINTER(Finding)),
    "tolvex_recover_file": (c_char_p, c_char_p, POINTER(RecoverOptions), POINTER(c_void_p)),
    "tolvex_recovery_get_summary": (c_void_p, POINTER(RecoverySummary)),
    "tolvex_recovery_get_group": (c_void_p, c_uint64, POINTER(RecoveredGroup)),
}
_OTHERS: Dict[str, Tuple[Any, ...]] = {
    "tolvex_version": (c_char_p,),
    "tolvex_reader_free": (None, c_void_p),
    "tolvex_reader_error": (c_char_p, c_void_p),
    "tolvex_column_free": (None, c_void_p),
    "tolvex_capsule_stream": (POINTER(ArrowStream), c_void_p),
    "tolvex_capsule_free": (None, c_void_p),
    "tolvex_frames_free": (None, c_void_p),
    "tolvex_frames_error": (c_char_p, c_void_p),
    "tolvex_check_free": (None, c_void_p),
    "tolvex_recovery_free": (None, c_void_p),
    "setDiagnosticHandler": (None, c_void_p, c_void_p),
    "createRecorder": (c_void_p, c_bool),
    "deleteRecorder": (None, c_void_p),
    "setParameter": (c_int, c_void_p, c_int, c_int, c_void_p),
    "setFlushInterval": (c_int, c_void_p, c_uint32),
    "setOverwrite": (c_int, c_void_p, c_bool),
    "startRecord": (c_int, c_void_p, c_char_p, c_uint64),
    "stopRecord": (None, c_void_p, c_uint64),
    "createBusLogConfiguration": (c_int, c_void_p, c_int, c_int),
    "getPendingTaskCount": (c_uint64, c_void_p),
    "getMaxPendingTasks": (c_uint32, c_void_p),
    "getLostRecordCount": (c_uint64, c_void_p),
    "getRecorderError": (c_int, c_void_p, c_void_p, c_int),
    "addDataGroup": (c_int, c_void_p, c_char_p),
    "addChannelToDG": (c_int, c_void_p, c_int, c_void_p),
    "insertRecordsToDG": (c_int64, c_void_p, c_uint, c_uint64, c_int, c_void_p),
    "allocChannel": (c_void_p,),
    "freeChannel": (None, c_void_p),
    "setChannelParameter": (c_int, c_void_p, c_int, c_int, c_void_p),
    "setChannelFormula": (c_int, c_void_p, c_void_p),
    "allocFormula": (c_void_p, c_uint8),
    "freeFormula": (None, c_void_p),
    "setFormulaParam": (c_int, c_void_p, c_int, c_void_p),
    "addFormulaParamN2N": (c_int, c_void_p, c_double, c_double),
    "addFormulaParamN2T": (c_int, c_void_p, c_double, c_char_p),
    "addFormulaParamR2N": (c_int, c_void_p, c_double, c_double, c_double),
    "addFormulaParamR2T": (c_int, c_void_p, c_double, c_double, c_char_p),
    "setFormulaParamDefault": (c_int, c_void_p, c_int, c_void_p),
}


def _load() -> ctypes.CDLL:
    own = Path(__file__).resolve().parent
    named = os.environ.get("TOLVEX_LIBRARY")
    if sys.platform == "win32":
        inside, elsewhere = own / "libtolvex.dll", "libtolvex.dll"
    else:
        inside, elsewhere = own / "libtolvex.so", "libtolvex.so.0"
    path = named if named else str(inside) if inside.exists() else elsewhere
    if sys.platform == "win32" and os.path.isabs(path):
        os.add_dll_directory(os.path.dirname(path))
    try:
        library = ctypes.CDLL(path)
    except OSError as error:
        raise ImportError(
            f"tolvex: its library cannot be loaded: {error}; expected it beside the package, "
            "on the system, or where TOLVEX_LIBRARY says"
        ) from error
    for name, arguments in _READING.items():
        _declare(library, name, c_int32, arguments)
    for name, types in _OTHERS.items():
        _declare(library, name, types[0], types[1:])
    library.setDiagnosticHandler(None, None)  # errors say what the diagnostics would
    return library


def _declare(library: ctypes.CDLL, name: str, result: Any, arguments: Sequence[Any]) -> None:
    function = getattr(library, name, None)
    if function is None:
        return
    function.restype = result
    function.argtypes = tuple(arguments)


lib: Any = _load()


def text(value: Any) -> str:
    """A text of the library's; bytes that are no UTF-8 stay visible."""
    return str((value or b"").decode("utf-8", "backslashreplace"))


def text_bytes(what: str, given: Any) -> bytes:
    """A text as the library takes it; errors call it `what`."""
    if not isinstance(given, str):
        raise MdfTypeError(f"{what}: expected a text, found {given!r}")
    if "\0" in given:
        raise MdfValueError(f"{what} cannot have a NUL: {given!r}")
    try:
        return given.encode()
    except UnicodeEncodeError as error:
        raise MdfValueError(f"{what} is no text: {error}") from error


def path_list(paths: Union[PathLike, Iterable[PathLike]]) -> List[PathLike]:
    """A path, or each of several."""
    if isinstance(paths, PATHS):
        return [paths]
    several: Any = paths
    if isinstance(paths, Iterable) and not hasattr(paths, "read"):
        several = list(paths)
        if all(isinstance(path, PATHS) for path in several):
            return several  # type: ignore[no-any-return]
    raise MdfTypeError(f"expected a path, or several; found {type(paths).__name__} {several!r:.80}")


def path_text(path: PathLike) -> str:
    """A path as a text."""
    if not isinstance(path, PATHS):
        raise MdfTypeError(f"expected a path; found {type(path).__name__} {path!r:.80}")
    return os.fsdecode(path)


def path_bytes(path: PathLike) -> bytes:
    """A path as the library takes it: UTF-8 on Windows, else the system's own bytes."""
    name = os.fspath(path)
    try:
        if sys.platform == "win32":
            encoded = name if isinstance(name, bytes) else name.encode("utf-8", "surrogatepass")
        else:
            encoded = os.fsencode(name)
    except UnicodeEncodeError as error:
        raise MdfValueError(f"{name!r} cannot be a path: {error}") from error
    if b"\0" in encoded:
        raise MdfValueError(f"a path cannot have a NUL: {name!r}")
    return encoded


_KINDS: Dict[int, Type[MdfError]] = {
    1: MdfMemoryError,
    2: MdfValueError,
    3: MdfFileError,
    4: MdfTypeError,
    5: MdfCancelled,
}


def error_of(status: int, message: str) -> MdfError:
    """The exception for a status, which is not 0."""
    return _KINDS.get(status, MdfError)(message or f"the library gave status {status}")


def texts_of(pointer: Any, count: int) -> List[str]:
    return [text(pointer[i]) for i in range(count)]
