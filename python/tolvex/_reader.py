"""Open files: handles of the library, and a pool of them for threads."""

from __future__ import annotations

import os
import threading
import weakref
from contextlib import contextmanager
from ctypes import POINTER, byref, c_char_p, c_int32, c_size_t, c_uint64, c_void_p, sizeof
from typing import Any, Iterator, List, Optional, Sequence, Tuple

import numpy as np

from . import _library as c
from ._column import DTYPES, Array, Column, bits_to_bool, column_of
from ._errors import MdfFileError, MdfMemoryError, MdfValueError

lib = c.lib

_pools: weakref.WeakSet[ReaderPool] = weakref.WeakSet()


def _after_fork() -> None:
    for pool in list(_pools):
        pool.after_fork()


if hasattr(os, "register_at_fork"):
    os.register_at_fork(after_in_child=_after_fork)


def usual_threads() -> int:
    """How many threads share the work of one call."""
    return min(8, os.cpu_count() or 1)


class Handle:
    """Memory of the library's, freed by close, or when nobody has it any more."""

    def __init__(self, make: Any, free: Any) -> None:
        handle = c_void_p()
        if make(byref(handle)) != 0 or not handle.value:
            raise MdfMemoryError("out of memory")
        self.value = handle
        self._finalizer = weakref.finalize(self, free, handle)
        self._finalizer.atexit = False  # threads may be inside of it then

    def close(self) -> None:
        self._finalizer()

    @property
    def closed(self) -> bool:
        return not self._finalizer.alive


class Opened(Handle):
    """Files that are open in the library."""

    def __init__(self, kind: str) -> None:
        super().__init__(getattr(lib, f"tolvex_{kind}_new"), getattr(lib, f"tolvex_{kind}_free"))
        self._kind = kind
        self.told = 0  # problems that somebody was warned of

    def check(self, status: int) -> None:
        """Raises what a call has failed with."""
        if status != 0:
            error = getattr(lib, f"tolvex_{self._kind}_error")
            raise c.error_of(status, c.text(error(self.value)))

    def open(self, paths: Sequence[bytes], parts: bool) -> None:
        """Opens the files; an error names the one that it is about."""
        if parts:
            status = getattr(lib, f"tolvex_{self._kind}_open_parts")(self.value, paths[0])
        else:
            function = getattr(lib, f"tolvex_{self._kind}_open")
            status = function(self.value, (c_char_p * len(paths))(*paths), len(paths))
        try:
            self.check(status)
        except MdfFileError as error:
            name = os.fsdecode(paths[0])
            if len(paths) > 1 or name in error.text:
                raise
            raise MdfFileError(f"{name}: {error.text}") from None

    def problems(self) -> List[str]:
        return self._texts("problems")

    def notices(self) -> List[str]:
        return self._texts("notices")

    def _texts(self, what: str) -> List[str]:
        texts, count = POINTER(c_char_p)(), c_size_t()
        function = getattr(lib, f"tolvex_{self._kind}_{what}")
        self.check(function(self.value, byref(texts), byref(count)))
        return c.texts_of(texts, count.value)


class Reader(Opened):
    """A recording that is open in the library. One thread at a time."""

    def __init__(self, paths: Sequence[bytes], parts: bool) -> None:
        super().__init__("reader")
        self.open(paths, parts)

    def recording(self) -> c.Recording:
        info = c.Recording()
        self.check(lib.tolvex_reader_recording(self.value, byref(info)))
        return info

    def group(self, group: int) -> c.GroupInfo:
        info = c.GroupInfo()
        self.check(lib.tolvex_reader_group(self.value, group, byref(info)))
        return info

    def channel(self, group: int, channel: int) -> c.ChannelInfo:
        info = c.ChannelInfo()
        self.check(lib.tolvex_reader_channel(self.value, group, channel, byref(info)))
        return info

    def places(self, function: Any, *name: Any) -> List[Tuple[int, int]]:
        """What tolvex_reader_find or tolvex_reader_match find."""
        room, found = 16, c_size_t()
        while True:
            places = (c.Place * room)()
            self.check(function(self.value, *name, places, room, byref(found)))
            if found.value <= room:
                return [(places[i].group, places[i].channel) for i in range(found.value)]
            room = found.value

    def read(
        self,
        group: int,
        channels: Sequence[Tuple[int, int, Tuple[int, ...]]],
        first: int,
        count: int,
        *,
        raw: bool = False,
        seconds: Optional[Array] = None,
        nanoseconds: Optional[Array] = None,
    ) -> Tuple[List[Column], int]:
        """Columns of channels, each a number, a type and a shape, and how many rows they have.

        `seconds` and `nanoseconds` have room for the rows' times, if they are wanted.
        """
        columns: List[Optional[Column]] = [None] * len(channels)
        numbers = [i for i, channel in enumerate(channels) if channel[1] in DTYPES]
        others = [i for i, channel in enumerate(channels) if channel[1] not in DTYPES]
        options = c.ReadOptions(
            seconds=None if seconds is None else seconds.ctypes.data,
            nanoseconds=None if nanoseconds is None else nanoseconds.ctypes.data,
            raw=int(raw),
            threads=usual_threads(),
        )
        rows = count
        if numbers or seconds is not None or nanoseconds is not None:
            found, rows = self._read_numbers(
                group, [channels[i] for i in numbers], first, count, options
            )
            for i, column in zip(numbers, found):
                columns[i] = column
        if others:
            options.seconds = options.nanoseconds = None
            objects = self._read_objects(group, [channels[i] for i in others], first, rows, options)
            for i, column in zip(others, objects):
                columns[i] = column
            rows = min(rows, *(len(column) for column in objects))
        return [column for column in columns if column is not None], rows

    def _read_numbers(
        self, group: int, channels: Sequence[Any], first: int, count: int, options: c.ReadOptions
    ) -> Tuple[List[Column], int]:
        targets = (c.Target * len(channels))()
        arrays = []
        for target, (channel, kind, shape) in zip(targets, channels):
            values = np.empty((count,) + shape, DTYPES[kind])
            bits = np.empty((values.size + 7) // 8, np.uint8)
            arrays.append((values, bits))
            target.size = sizeof(c.Target)
            target.values = values.ctypes.data
            target.validity = bits.ctypes.data
            target.channel = channel
        rows = c_uint64()
        self.check(
            lib.tolvex_reader_read(
                self.value, group, targets, len(channels), first, count, byref(options), byref(rows)
            )
        )
        columns = []
        for values, bits in arrays:
            values = values[: rows.value]
            valid = bits_to_bool(bits, values.size)
            columns.append(Column(values, None if valid is None else valid.reshape(values.shape)))
        return columns, rows.value

    def _read_objects(
        self, group: int, channels: Sequence[Any], first: int, count: int, options: c.ReadOptions
    ) -> List[Column]:
        numbers = (c_int32 * len(channels))(*(channel for channel, _, _ in channels))
        handles = (c_void_p * len(channels))()
        self.check(
            lib.tolvex_reader_columns(
                self.value,
                group,
                numbers,
                len(channels),
                first,
                count,
                byref(options),
                handles,
            )
        )
        columns = []
        try:
            for handle, (_, _, shape) in zip(handles, channels):
                values = c.Values()
                status = lib.tolvex_column_values(handle, byref(values))
                if status != 0:
                    raise c.error_of(status, "")
                columns.append(column_of(values, shape))
        finally:
            for handle in handles:
                lib.tolvex_column_free(handle)
        return columns

    def times(self, group: int, first: int, count: int, exact: bool) -> Array:
        """Seconds (float64) or, `exact`, nanoseconds since 1970 (int64) of the rows."""
        times = np.empty(count, np.int64 if exact else np.float64)
        rows = c_uint64()
        function = lib.tolvex_reader_nanoseconds if exact else lib.tolvex_reader_seconds
        self.check(function(self.value, group, first, count, times.ctypes.data, byref(rows)))
        return times[: rows.value]


class ReaderPool:
    """Readers of the same files, as many as threads need them at once."""

    def __init__(self, paths: Sequence[bytes], parts: bool) -> None:
        self.paths = list(paths)
        self.parts = parts
        self._most = usual_threads()
        self._changed = threading.Condition()
        self._idle: List[Reader] = []
        self._used = 0
        self._closed = False
        self._files = self._identities()
        self._idle.append(Reader(self.paths, self.parts))
        _pools.add(self)

    def _open(self) -> Reader:
        self.check_files()
        return Reader(self.paths, self.parts)

    def _identities(self) -> List[Optional[Tuple[int, int]]]:
        found: List[Optional[Tuple[int, int]]] = []
        for path in self.paths:
            try:
                status = os.stat(path)
                found.append((status.st_dev, status.st_ino))
            except OSError:
                found.append(None)
        return found

    def check_files(self) -> None:
        """An error where a path is no longer the file that it was."""
        for path, then, now in zip(self.paths, self._files, self._identities()):
            if now is not None and then != now:
                raise MdfFileError(
                    f"{os.fsdecode(path)}: the file was replaced after it was opened"
                )

    def after_fork(self) -> None:
        """In a child process: the readers stay the parent's, whose threads may be using them."""
        self._changed = threading.Condition()
        self._idle = []
        self._used = 0

    @contextmanager
    def reader(self) -> Iterator[Reader]:
        """A reader for this thread alone; waits when there are many already."""
        reader = self._take()
        try:
            yield reader
        finally:
            with self._changed:
                self._used -= 1
                if self._closed:
                    reader.close()
                else:
                    self._idle.append(reader)
                self._changed.notify()

    def _take(self) -> Reader:
        with self._changed:
            while True:
                if self._closed:
                    raise MdfValueError("the measurement is closed")
                if self._idle:
                    self._used += 1
                    return self._idle.pop()
                if self._used < self._most:
                    self._used += 1
                    break
                self._changed.wait()
        try:
            return self._open()
        except BaseException:
            with self._changed:
                self._used -= 1
                self._changed.notify()
            raise

    def close(self) -> None:
        with self._changed:
            self._closed = True
            for reader in self._idle:
                reader.close()
            self._idle.clear()
            self._changed.notify_all()

    @property
    def closed(self) -> bool:
        return self._closed
