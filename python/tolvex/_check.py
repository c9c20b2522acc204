"""Checks files against the format, and recovers damaged and unfinished ones."""

from __future__ import annotations

import os
from contextlib import suppress
from ctypes import byref, c_void_p
from dataclasses import dataclass
from html import escape
from typing import Any, Callable, List, Optional, Tuple, Type, TypeVar

from . import _library as c
from . import _show
from ._errors import MdfFileError, MdfValueError
from ._library import PathLike, lib
from ._progress import Call, Progress, reporting, run

_SHOWN = 12
_NO_LIMIT = 2**64 - 1

Struct = TypeVar("Struct", bound=c.Sized)


@dataclass(frozen=True)
class Finding:
    """One thing in a file that is wrong, or unusual."""

    #: In the file, in bytes: of the block or field in question.
    position: int
    what: str
    #: As texts; "" where there is nothing to compare.
    expected: str
    found: str
    #: True: data are lost or misread. False: a warning; the file can be read as it was meant.
    is_error: bool

    def __str__(self) -> str:
        severity = "error" if self.is_error else "warning"
        compared = f": expected {self.expected}, found {self.found}" if self.expected else ""
        return f"{severity} at {self.position}: {self.what}{compared}"


@dataclass(frozen=True)
class CheckReport:
    """What is wrong with a file. True when there is no error in it."""

    path: str
    #: The first 1000, in the order in which they were found; the counts are of all.
    findings: Tuple[Finding, ...]
    errors: int
    warnings: int

    @property
    def ok(self) -> bool:
        """There is no error; there may be warnings."""
        return self.errors == 0

    def __bool__(self) -> bool:
        return self.ok

    def __str__(self) -> str:
        lines = [self._title(), *(f"  {_show.cut(str(one), 200)}" for one in self._shown)]
        return "\n".join([*lines, *([f"  {self._more}"] if self._more else [])])

    __repr__ = __str__

    def _repr_html_(self) -> str:
        rows = [
            [
                "error" if one.is_error else "warning",
                str(one.position),
                *(escape(_show.cut(text, 200)) for text in (one.what, one.expected, one.found)),
            ]
            for one in self._shown
        ]
        titles = ["", "position", "what", "expected", "found"]
        table = _show.html_table(titles, rows) if rows else ""
        return f"<div><b>{escape(self._title())}</b>{table}{_paragraph(self._more)}</div>"

    def _title(self) -> str:
        name = _show.cut(os.path.basename(self.path), 60)
        if not self.errors and not self.warnings:
            return f"{name}: as it should be"
        counts = (self.errors, "error"), (self.warnings, "warning")
        return f"{name}: {', '.join(_show.counted(*count) for count in counts if count[0])}"

    @property
    def _shown(self) -> Tuple[Finding, ...]:
        return self.findings[:_SHOWN]

    @property
    def _more(self) -> str:
        return _more(self.errors + self.warnings)


@dataclass(frozen=True)
class RecoveredGroup:
    """One channel group of a recovered file."""

    #: The acquisition name, else the comment, else "".
    name: str
    #: In the result.
    rows: int
    #: Data blocks that no list named and that hold some of them.
    found_blocks: int
    #: That the result lacks, as far as they can be counted.
    lost_rows: int
    #: What is missing and where, and what was corrected without a loss; the first 100 of each.
    losses: Tuple[str, ...]
    repairs: Tuple[str, ...]
    #: Where it was in the input.
    data_group: int
    channel_group: int


@dataclass(frozen=True)
class RecoveryReport:
    """What became of a damaged or unfinished file."""

    input: str
    output: str
    #: The result has everything.
    lossless: bool
    #: What concerns no single group; the first 100 of each.
    losses: Tuple[str, ...]
    repairs: Tuple[str, ...]
    #: In the order of the result.
    groups: Tuple[RecoveredGroup, ...]

    def __str__(self) -> str:
        lines = [self._title()]
        cells = [
            [f"  {cell}" if i == 0 else cell for i, cell in enumerate(row)] for row in self._rows
        ]
        lines += [line for line in _show.columns_text(cells, right=[1]).split("\n") if line]
        lines += [f"  {text}" for text in self._told[:_SHOWN]]
        return "\n".join([*lines, *([f"  {self._more}"] if self._more else [])])

    __repr__ = __str__

    def _repr_html_(self) -> str:
        rows = [[escape(cell) for cell in row] for row in self._rows]
        table = _show.html_table(["group", "rows", ""], rows) if rows else ""
        told = "".join(f"<li>{escape(text)}</li>" for text in self._told[:_SHOWN])
        texts = f"<ul>{told}</ul>" if told else ""
        title = escape(self._title())
        return f"<div><b>{title}</b>{table}{texts}{_paragraph(self._more)}</div>"

    def _title(self) -> str:
        names = [_show.cut(os.path.basename(path), 60) for path in (self.input, self.output)]
        rows = _show.counted(sum(group.rows for group in self.groups), "row")
        lost = sum(group.lost_rows for group in self.groups)
        what = "nothing lost" if self.lossless else "not all that was there"
        if lost:
            what = f"{_show.counted(lost, 'row')} lost"
        return f"{names[0]} → {names[1]}: {rows}, {what}"

    @property
    def _rows(self) -> List[List[str]]:
        """A row of cells for each group that has or lost anything."""
        rows = []
        for group in self.groups:
            lost = f"{_show.counted(group.lost_rows, 'row')} lost" if group.lost_rows else ""
            found = f"in {_show.counted(group.found_blocks, 'lost block')}"
            told = [lost, found if group.found_blocks else ""]
            if group.rows or group.losses or any(told):
                label = group.name or f"data group {group.data_group}"
                cells = [_show.cut(label, 40), _show.counted(group.rows, "row")]
                rows.append([*cells, ", ".join(text for text in told if text)])
        return rows

    @property
    def _told(self) -> List[str]:
        places: List[Any] = [self, *self.groups]
        losses = [text for place in places for text in place.losses]
        repairs = [text for place in places for text in place.repairs]
        told = [f"lost: {text}" for text in losses] + [f"put right: {text}" for text in repairs]
        return [_show.cut(text, 200) for text in told]

    @property
    def _more(self) -> str:
        return _more(len(self._told))


def _more(count: int) -> str:
    return f"… and {_show.number(count - _SHOWN)} more" if count > _SHOWN else ""


def _paragraph(text: str) -> str:
    return f"<p>{text}</p>" if text else ""


def check(path: PathLike, *, progress: Progress = None) -> CheckReport:
    """Checks a file against the format: every block, list, record and time.

    What is wrong is in the report, and no exception; a file that cannot be checked, as it cannot
    be opened, is an MdfFileError. `progress` is told how many bytes are done, and of how many:
    a function of the two, which is called on this thread, or True for a bar of tqdm. What the
    function raises, as Ctrl-C does, ends the check and is raised again. Any number of threads may
    check files at once.
    """
    name = c.path_text(path)
    encoded = c.path_bytes(path)

    def work(call: Call) -> CheckReport:
        handle = c_void_p()
        try:
            function = c.ProgressFunction(call.progress)
            status = lib.tolvex_check_file(encoded, function, None, byref(handle))
            summary = _filled(c.CheckSummary, handle, status, lib.tolvex_check_get_summary)
            if status != 0:
                raise c.error_of(status, f"{name}: {c.text(summary.failure)}")
            findings = tuple(
                _finding(_filled(c.Finding, handle, 0, lib.tolvex_check_get_finding, i))
                for i in range(summary.finding_count)
            )
            return CheckReport(name, findings, int(summary.errors), int(summary.warnings))
        finally:
            lib.tolvex_check_free(handle)

    with reporting(progress, f"checking {os.path.basename(name)}", "B") as report:
        return run(work, report)


def recover(
    input: PathLike,
    output: PathLike,
    *,
    verify: bool = False,
    max_output: Optional[int] = None,
    overwrite: bool = False,
    progress: Progress = None,
) -> RecoveryReport:
    """Writes all that can be recovered of a damaged or unfinished file into a new, finished one.

    The input stays as it is. An output that is there already is an MdfFileError, unless it is to
    be overwritten; it gets its name when it is complete. `verify` reads the result again and
    compares every record. `max_output` are the most bytes to write, as a small file can claim to
    hold a huge one: 0 for no limit; None for 1,000 times the input, and at least 1 GiB. What was
    lost is in the report; where nothing usable is left, it is an MdfFileError and there is no
    output. `progress` is that of `check`; with `verify` it tells of several steps.
    """
    names = c.path_text(input), c.path_text(output)
    encoded = c.path_bytes(input), c.path_bytes(output)
    if max_output is not None and not 0 <= max_output < _NO_LIMIT:
        raise MdfValueError(f"max_output: expected bytes, or 0 for no limit, found {max_output}")

    def work(call: Call) -> RecoveryReport:
        handle = c_void_p()
        options = c.RecoverOptions(
            progress=c.ProgressFunction(call.progress),
            cancelled=c.CancelledFunction(call.cancelled),
            max_output=_NO_LIMIT if max_output == 0 else max_output or 0,
            verify=int(verify),
        )
        try:
            status = lib.tolvex_recover_file(*encoded, byref(options), byref(handle))
            summary = _filled(c.RecoverySummary, handle, status, lib.tolvex_recovery_get_summary)
            if status != 0:
                hint = "; max_output changes it" if summary.beyond_limit else ""
                raise c.error_of(status, f"{names[0]}: {c.text(summary.failure)}{hint}")
            groups = tuple(
                _group(_filled(c.RecoveredGroup, handle, 0, lib.tolvex_recovery_get_group, i))
                for i in range(summary.group_count)
            )
            return RecoveryReport(*names, bool(summary.lossless), *_texts(summary), groups)
        finally:
            lib.tolvex_recovery_free(handle)

    with reporting(progress, f"recovering {os.path.basename(names[0])}", "B") as report:
        if overwrite:
            return run(work, report)
        return _into_new(names[1], lambda: run(work, report))


def _filled(kind: Type[Struct], handle: c_void_p, status: int, get: Any, *index: int) -> Struct:
    """A struct that a function gives of the handle, which the call with that status has made."""
    info = kind()
    if not handle.value:
        raise c.error_of(status, "")
    status = get(handle, *index, byref(info))
    if status != 0:
        raise c.error_of(status, "")
    return info


def _finding(info: c.Finding) -> Finding:
    what, expected, found = map(c.text, (info.what, info.expected, info.found))
    return Finding(int(info.position), what, expected, found, bool(info.is_error))


def _texts(info: Any) -> Tuple[Tuple[str, ...], Tuple[str, ...]]:
    """Losses and repairs."""
    losses = c.texts_of(info.losses, info.loss_count)
    return tuple(losses), tuple(c.texts_of(info.repairs, info.repair_count))


def _group(info: c.RecoveredGroup) -> RecoveredGroup:
    counts = int(info.rows), int(info.found_blocks), int(info.lost_rows)
    places = int(info.data_group), int(info.channel_group)
    return RecoveredGroup(c.text(info.name), *counts, *_texts(info), *places)


def _into_new(output: str, work: Callable[[], RecoveryReport]) -> RecoveryReport:
    """Does the work, which replaces the output; that was not there before.

    An empty file holds the name, so nobody else's file is replaced.
    """
    try:
        descriptor = os.open(output, os.O_CREAT | os.O_EXCL | os.O_WRONLY, 0o600)
    except FileExistsError as error:
        raise MdfFileError(f"{output}: exists; overwrite=True replaces it") from error
    except OSError as error:
        raise MdfFileError(f"{output}: {error.strerror}") from error
    held = os.fstat(descriptor)
    os.close(descriptor)
    try:
        return work()
    except BaseException:
        with suppress(OSError):
            there = os.stat(output)
            if os.path.samestat(there, held) and there.st_size == 0:
                os.unlink(output)
        raise
