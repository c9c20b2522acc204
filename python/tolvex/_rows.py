"""Rows of a channel group: which ones, and when they are."""

from __future__ import annotations

from typing import TYPE_CHECKING, Any, List, Optional, Sequence, Tuple

import numpy as np

from . import _times
from ._column import Array, Column
from ._errors import MdfTypeError
from ._library import NO_TIME

if TYPE_CHECKING:
    from ._measurement import Group


class Rows:
    """Some rows of a group; those of `chosen` among `count` from `first` on, if it is there.

    Their times are read when they are asked for, and kept. Rows that no file has, as those of a
    raster, are made of their times.
    """

    def __init__(
        self,
        group: Group,
        first: int,
        count: int,
        chosen: Optional[Array] = None,
        seconds: Optional[Array] = None,
        ns: Optional[Array] = None,
        made: bool = False,
    ) -> None:
        self.group = group
        self.first = first
        self.count = count
        self.chosen = chosen
        self._seconds = seconds
        self._ns = ns
        self._made = made  # no rows of the file
        self._sorted: Optional[Tuple[Array, Any]] = None

    def __len__(self) -> int:
        return self.count if self.chosen is None else len(self.chosen)

    @property
    def seconds(self) -> Array:
        """Seconds since the start; NaN where there is no time."""
        if self._seconds is None:
            self._seconds = self._read(False)
        return self._seconds

    @property
    def ns(self) -> Array:
        """Nanoseconds since 1970; _library.NO_TIME where there is no time."""
        if self._ns is None:
            self._ns = self._read(True)
        return self._ns

    @property
    def sorted(self) -> Tuple[Array, Any]:
        """The times in order, in nanoseconds, and which rows they are of."""
        if self._sorted is None:
            self._sorted = _times.sorted_times(self.ns)
        return self._sorted

    def _read(self, exact: bool) -> Array:
        if not self.group.has_time:
            raise MdfTypeError(f"{self.group.label} has no channel of time")
        times = self.group.measurement._times(self.group.index, self.first, self.count, exact)
        return times if self.chosen is None else times[self.chosen]

    def columns(self, channels: Sequence[Any], raw: bool) -> List[Column]:
        """The columns of signals of the group."""
        if self._made:
            raise MdfTypeError(
                "resampled signals have no values beside those that they were made of"
            )
        found, _ = self.group.measurement._read(
            self.group.index, channels, self.first, self.count, raw=raw
        )
        return found if self.chosen is None else [column.take(self.chosen) for column in found]

    def picked(self, rows: Any) -> Rows:
        """Of these rows those in order, by mask or numbers that ascend; runs stay runs."""
        numbers = np.flatnonzero(rows) if rows.dtype == bool else rows
        seconds = None if self._seconds is None else self._seconds[numbers]
        ns = None if self._ns is None else self._ns[numbers]
        if self.chosen is None and (
            len(numbers) == 0 or numbers[-1] - numbers[0] + 1 == len(numbers)
        ):
            begin = int(numbers[0]) if len(numbers) else 0
            return Rows(self.group, self.first + begin, len(numbers), None, seconds, ns, self._made)
        chosen = numbers if self.chosen is None else self.chosen[numbers]
        return Rows(self.group, self.first, self.count, chosen, seconds, ns, self._made)

    def between(self, start: Any, end: Any) -> Rows:
        """Those from `start` on and before `end`; None is no limit."""
        return self.picked(self.inside(start, end))

    def inside(self, start: Any, end: Any) -> Array:
        """Which rows are from `start` on and before `end`."""
        inside = np.ones(len(self), bool)
        for limit, isfrom in ((start, True), (end, False)):
            if limit is None:
                continue
            times, at = self.compared(limit)
            inside &= (times >= at) if isfrom else (times < at)
            if times.dtype == np.int64:
                inside &= times != NO_TIME
        return inside

    def compared(self, time: Any) -> Tuple[Array, Any]:
        """The times of the rows, and `time` as one of them."""
        if _times.is_date(time):
            measurement = self.group.measurement
            return self.ns, _times.date_ns(time, measurement.start_is_local)
        return self.seconds, _times.to_seconds(time)
