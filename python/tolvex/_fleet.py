"""Many files: what lies where, from their headers alone."""

from __future__ import annotations

import glob
import os
import threading
from collections.abc import Mapping
from ctypes import byref, create_string_buffer, sizeof
from html import escape
from typing import Any, Dict, Iterable, Iterator, List, NamedTuple, Optional, Tuple, Union

import numpy as np

from . import _library as c
from . import _optional, _show, _times
from ._column import Array
from ._errors import MdfMemoryError, MdfNameError, MdfTypeError, MdfValueError
from ._library import PathLike, lib
from ._progress import Progress, Report, reporting
from ._reader import usual_threads

Paths = Union[PathLike, Iterable[PathLike]]

_SHOWN = 12
_ERROR_SIZE = 1024
_PATIENCE = 0.1  # seconds in which progress is reported, and a signal heard


class FleetTotal(NamedTuple):
    """What files have together; files that could not be read count as files alone."""

    files: int
    records: int
    frames: int
    #: From the start of each recording to its last record.
    hours: float
    bytes: int


class Fleet(Mapping[str, Array]):
    """A table of files: arrays by column, and a row for each file.

    `path`; `start` and `stop` (datetime64[ns] in UTC, or local time where `local` is True; NaT
    where there is none): when the recording started, and its last record; `size` in bytes;
    `version` of the format, e.g. 410; `program` that wrote it; the numbers of its `groups`,
    `channels`, `records` and CAN `frames`; `finalized`; `problems`: how many things are damaged, as
    far as the headers tell; `error`: why the file could not be read, or "".

    `fleet["start"]` is a column, `fleet[3]` a row as dict; `fleet[fleet["frames"] > 0]`, with a
    mask, numbers or a slice, are some of the rows.
    """

    def __init__(self, columns: Dict[str, Array]) -> None:
        self._columns = columns

    @property
    def rows(self) -> int:
        """How many files there are."""
        return len(self._columns["path"])

    @property
    def paths(self) -> List[str]:
        return list(self._columns["path"])

    def __getitem__(self, key: Any) -> Any:
        if isinstance(key, str):
            if key not in self._columns:
                raise MdfNameError(f"a fleet has no column {key!r}; it has {', '.join(self)}")
            return self._columns[key]
        if isinstance(key, (int, np.integer)):
            return {name: column[key] for name, column in self._columns.items()}
        rows: Any = key if isinstance(key, slice) else np.asarray(key)
        if not isinstance(key, slice):
            if len(rows) == 0:
                rows = slice(0)
            elif rows.dtype.kind not in "biu":
                raise MdfTypeError(f"rows are a mask, numbers or a slice, not {key!r}")
        return Fleet({name: column[rows] for name, column in self._columns.items()})

    def __iter__(self) -> Iterator[str]:
        return iter(self._columns)

    def __len__(self) -> int:
        """How many columns there are, as of any mapping; `rows` counts the files."""
        return len(self._columns)

    def __bool__(self) -> bool:
        """There is a file."""
        return self.rows > 0

    __hash__ = None  # type: ignore[assignment]

    def __eq__(self, other: object) -> bool:
        if not isinstance(other, Fleet):
            return NotImplemented
        return all(column.tolist() == other[name].tolist() for name, column in self.items())

    @property
    def errors(self) -> Fleet:
        """The files that could not be read (`error`) or are damaged (`problems`)."""
        return self._where((self["error"] != "") | (self["problems"] > 0))

    def between(
        self, start: Optional[_times.Time] = None, stop: Optional[_times.Time] = None
    ) -> Fleet:
        """The files that have something from `start` on and before `stop`, which are dates.

        Dates are UTC, or of their zone; for recordings in local time they are those there. Files
        whose times are not known are in none: see `errors`.
        """
        first = self["start"]
        last = np.where(np.isnat(self["stop"]), first, np.maximum(first, self["stop"]))
        found = ~np.isnat(first)
        if start is not None:
            found &= last >= _date(start)
        if stop is not None:
            found &= first < _date(stop)
        return self._where(found)

    def _where(self, mask: Array) -> Fleet:
        return Fleet({name: column[mask] for name, column in self._columns.items()})

    @property
    def total(self) -> FleetTotal:
        """Files, records, frames, hours and bytes of all rows."""
        spans = (self["stop"] - self["start"]).astype(np.int64)[~np.isnat(self["stop"])]
        sums = [int(self[name].sum()) for name in ("records", "frames", "size")]
        hours = float(np.maximum(spans, 0).sum(dtype=np.float64)) / 3.6e12
        return FleetTotal(self.rows, sums[0], sums[1], hours, sums[2])

    def to_pandas(self) -> Any:
        """A pandas.DataFrame; times are UTC, or without a zone when some of them are local."""
        pandas = _optional.need("pandas")
        frame = pandas.DataFrame(self._columns)
        if not self["local"].any():
            for name in ("start", "stop"):
                frame[name] = frame[name].dt.tz_localize("UTC")
        return frame

    def __repr__(self) -> str:
        cells = [_TITLES, *self._cells()]
        table = _show.columns_text(cells, right=[2, 3, 4, 5]) if self.rows else ""
        return "\n".join(text for text in (table, self._more(), self._summary()) if text)

    def _repr_html_(self) -> str:
        rows = [[escape(cell) for cell in row] for row in self._cells()]
        table = _show.html_table(_TITLES, rows) if rows else ""
        more = f"<p>{self._more()}</p>" if self._more() else ""
        return f"<div>{table}{more}<p>{escape(self._summary())}</p></div>"

    def _cells(self) -> List[List[str]]:
        return [_cells(self[row]) for row in range(min(self.rows, _SHOWN))]

    def _more(self) -> str:
        return f"… and {_show.number(self.rows - _SHOWN)} more" if self.rows > _SHOWN else ""

    def _summary(self) -> str:
        total = self.total
        texts = [
            _show.counted(total.files, "file"),
            f"{total.hours:.1f} h",
            _show.counted(total.records, "record"),
            _bytes(total.bytes),
        ]
        unread, damaged = int((self["error"] != "").sum()), int((self["problems"] > 0).sum())
        if unread:
            texts.append(f"{_show.number(unread)} not read")
        if damaged:
            texts.append(f"{_show.number(damaged)} damaged")
        return ", ".join(texts)


_TITLES = ["path", "start", "duration", "size", "channels", "records", ""]


def _cells(row: Dict[str, Any]) -> List[str]:
    path = _show.cut(row["path"][-50:], 50)
    if len(row["path"]) > 50:
        path = f"…{path[1:]}"
    if row["error"]:
        return [path, "", "", "", "", "", _show.cut(row["error"], 60)]
    start = "" if np.isnat(row["start"]) else str(row["start"].astype("datetime64[s]"))
    span = row["stop"] - row["start"]
    told = [] if row["finalized"] else ["not finalized"]
    if row["problems"]:
        told.append(_show.counted(row["problems"], "problem"))
    return [
        path,
        start.replace("T", " "),
        "" if np.isnat(span) else _show.seconds(int(span.astype(np.int64)) / 1e9),
        _bytes(row["size"]),
        _show.number(row["channels"]),
        _show.number(row["records"]),
        ", ".join(told),
    ]


def _bytes(count: int) -> str:
    size, unit = float(count), "B"
    for unit in ("B", "KiB", "MiB", "GiB", "TiB"):
        if size < 1000 or unit == "TiB":
            break
        size /= 1024
    return f"{count} B" if unit == "B" else f"{size:.1f} {unit}"


def _date(date: _times.Time) -> np.datetime64:
    if not _times.is_date(date):
        raise MdfTypeError(f"a fleet has no common start: expected a date, found {date!r}")
    return np.datetime64(_times.date_ns(date, False), "ns")


# Finding the files ----------------------------------------------------------------------------


def found_paths(paths: Paths) -> Tuple[List[Any], Dict[int, str]]:
    """The paths that are meant, and by number why one of them is a folder that cannot be read."""
    named = c.path_list(paths)
    if not isinstance(paths, c.PATHS):
        return named, {}
    path = os.fsdecode(paths)
    if os.path.isdir(path):
        failures: List[OSError] = []
        found = [
            os.path.join(folder, name)
            for folder, _, names in os.walk(path, onerror=failures.append)
            for name in names
            if name.lower().endswith(".mf4")
        ]
        why = {os.fsdecode(error.filename): str(error.strerror) for error in failures}
        found = sorted([*found, *why])
        return found, {i: why[name] for i, name in enumerate(found) if name in why}
    if glob.has_magic(path) and not os.path.lexists(path):
        matches = glob.glob(path, recursive=True)
        return sorted(match for match in matches if not os.path.isdir(match)), {}
    return [path], {}


def fleet(paths: Paths, *, threads: Optional[int] = None, progress: Progress = None) -> Fleet:
    """A table of what lies where, from the headers of many files.

    `paths` is a list of files, whose order the rows have; or a folder, in which and below which all
    *.mf4 are found, in upper or lower case; or a pattern as "data/**/*.mf4", `**` for any folders:
    then the rows are sorted by path. Nothing is left out silently: what cannot be read is a row
    with an `error`. `threads` read side by side, by default one for each processor, at most 8;
    more may be faster over a network. `progress` is told how many files are done, and of how many:
    a function of the two, which is called on this thread, or True for a bar of tqdm. What it
    raises, as Ctrl-C does, ends the call.
    """
    if threads is not None and threads < 1:
        raise MdfValueError(f"threads: expected at least 1, found {threads}")
    found, failures = found_paths(paths)
    summaries, errors = (c.Summary * len(found))(), dict(failures)
    with reporting(progress, "reading headers", "file") as report:
        if found:
            _Work(found, summaries, errors).run(threads or usual_threads(), report)
    return Fleet(_columns([os.fsdecode(path) for path in found], summaries, errors))


class _Work:
    """Summaries of files by several threads, each in its place of an array."""

    def __init__(self, paths: List[Any], summaries: Any, errors: Dict[int, str]) -> None:
        self._paths = paths
        self._summaries = summaries
        self._errors = errors
        self._numbers = iter([i for i in range(len(paths)) if i not in errors])
        self._done: List[int] = [len(errors)]  # and by each thread
        self._iscancelled = False
        self._failures: List[BaseException] = []

    def run(self, threads: int, report: Optional[Report]) -> None:
        np.frombuffer(self._summaries, c.Summary)["size"] = sizeof(c.Summary)
        started = [
            threading.Thread(target=self._body, args=(number,), name="tolvex")
            for number in range(1, 1 + min(threads, len(self._paths)))
        ]
        self._done += [0] * len(started)
        try:
            for thread in started:
                thread.start()
            reported = -1
            while reported < 0 or any(thread.is_alive() for thread in started):
                next((t for t in started if t.is_alive()), started[0]).join(_PATIENCE)
                if report is not None and sum(self._done) != reported:
                    report(sum(self._done), len(self._paths))
                reported = sum(self._done)
        except BaseException:
            self._iscancelled = True
            raise
        finally:
            for thread in started:
                if thread.is_alive():
                    thread.join()
        if self._failures:
            raise self._failures[0]

    def _body(self, number: int) -> None:
        try:
            self._read(number)
        except BaseException as error:
            self._failures.append(error)
            self._iscancelled = True

    def _read(self, number: int) -> None:
        summarize, first, size = lib.tolvex_summarize_file, self._summaries[0], sizeof(c.Summary)
        paths, path_bytes = self._paths, c.path_bytes
        text = create_string_buffer(_ERROR_SIZE)
        for i in self._numbers:
            status = summarize(path_bytes(paths[i]), byref(first, i * size), text, _ERROR_SIZE)
            if status != 0:
                if status == 1:
                    raise MdfMemoryError("no memory for the headers of a file")
                self._errors[i] = c.text(text.value) or f"the library gave status {status}"
            self._done[number] += 1
            if self._iscancelled:
                break


def _columns(paths: List[str], summaries: Any, errors: Dict[int, str]) -> Dict[str, Array]:
    table = np.frombuffer(summaries, c.Summary) if paths else np.empty(0, c.Summary)
    unread = np.zeros(len(paths), bool)
    unread[list(errors)] = True
    texts = np.full(len(paths), "", object)
    for i, text in errors.items():
        texts[i] = text
    names = np.empty(len(paths), object)
    names[:] = paths
    programs = np.empty(len(paths), object)
    programs[:] = [
        c.text(name) for name in np.ascontiguousarray(table["program"]).view("S16")[:, 0]
    ]

    times = {name: table[f"{name}_time_ns"].copy() for name in ("start", "first", "last")}
    for ns in times.values():
        ns[unread] = c.NO_TIME
    return {
        "path": names,
        "start": times["start"].view("datetime64[ns]"),
        "stop": times["last"].view("datetime64[ns]"),
        "local": table["start_is_local"].astype(bool),
        "size": table["bytes"].astype(np.int64),
        "version": table["version"].astype(np.int32),
        "program": programs,
        "groups": table["group_count"].astype(np.int64),
        "channels": table["channel_count"].astype(np.int64),
        "records": table["records"].astype(np.int64),
        "frames": table["frames"].astype(np.int64),
        "finalized": table["is_finalized"].astype(bool),
        "problems": table["problem_count"].astype(np.int64),
        "error": texts,
    }
