"""Points in time: seconds since a recording's start, dates, nanoseconds since 1970."""

from __future__ import annotations

import datetime
import math
from typing import Any, Tuple, Union

import numpy as np

from ._errors import MdfValueError
from ._library import NO_TIME

# Seconds since the start, or a date: datetime, numpy.datetime64, pandas.Timestamp, ISO 8601 text.
Time = Union[int, float, str, datetime.datetime, np.datetime64, Any]

EPOCH = datetime.datetime(1970, 1, 1)
LIMIT = 2**63 - 1


def to_datetime(ns: int, local: bool) -> datetime.datetime:
    """Of nanoseconds since 1970, to the microsecond: in UTC, or without a zone when `local`."""
    try:
        found = EPOCH + datetime.timedelta(microseconds=ns // 1000)
    except OverflowError as error:
        raise MdfValueError(f"no date is so far away: {ns} ns since 1970") from error
    return found if local else found.replace(tzinfo=datetime.timezone.utc)


def is_date(time: Time) -> bool:
    return isinstance(time, (str, datetime.datetime, datetime.date, np.datetime64))


def date_ns(date: Time, local: bool) -> int:
    """Nanoseconds since 1970 of a date, which is one of UTC unless it has a zone.

    In a recording whose start is `local` it is one of that place, and cannot have a zone.
    """
    if isinstance(date, str):
        date = parsed(date)
    if isinstance(date, np.datetime64):
        return int(date.astype("datetime64[ns]").astype(np.int64))
    extra = int(getattr(date, "nanosecond", 0))  # of pandas
    if hasattr(date, "to_pydatetime"):
        date = date.to_pydatetime(warn=False)
    if not isinstance(date, datetime.datetime):
        date = datetime.datetime(date.year, date.month, date.day)
    if date.tzinfo is not None:
        if local:
            raise MdfValueError(f"the recording does not tell its time zone, but {date} has one")
        date = date.astimezone(datetime.timezone.utc).replace(tzinfo=None)
    microseconds: int = (date - EPOCH) // datetime.timedelta(microseconds=1)
    return microseconds * 1000 + extra


def parsed(text: str) -> Any:
    """The date of an ISO 8601 text."""
    try:
        if text.endswith(("Z", "z")):
            return np.datetime64(text[:-1], "ns")
        zoned = len(text) > 10 and ("+" in text[10:] or "-" in text[10:])
        return datetime.datetime.fromisoformat(text) if zoned else np.datetime64(text, "ns")
    except ValueError as error:
        raise MdfValueError(f"{text!r} is no date, as 2021-07-26T04:34:14Z is one") from error


def to_ns(time: Time, start_ns: int, local: bool) -> int:
    """Nanoseconds since 1970 of seconds since the start, or of a date."""
    if is_date(time):
        return date_ns(time, local)
    try:
        seconds = float(time)  # type: ignore[arg-type]
    except (TypeError, ValueError) as error:
        raise MdfValueError(f"{time!r} is neither seconds since the start nor a date") from error
    if math.isnan(seconds):
        raise MdfValueError("a time cannot be NaN")
    if not abs(seconds) < 1e10:
        return LIMIT if seconds > 0 else -LIMIT
    return max(-LIMIT, min(LIMIT, start_ns + round(seconds * 1e9)))


def step_ns(step: float) -> int:
    """A step of time in nanoseconds."""
    try:
        seconds = float(step)
    except (TypeError, ValueError) as error:
        raise MdfValueError(f"{step!r} are no seconds") from error
    if not 1e-9 <= seconds <= 1e9:
        raise MdfValueError(f"a raster has 1e-9 to 1e9 seconds, not {step!r}")
    return round(seconds * 1e9)


MOST_ROWS = 100_000_000  # of a raster, in memory at once
MOST_ROWS_IN_PARTS = 1_000_000_000


def steps_between(
    start_ns: int, step: int, first_ns: int, end_ns: int, most: int
) -> Tuple[int, int]:
    """How many steps behind the start is the first time from `first_ns` on, and the end.

    `end_ns` is not included. More than `most` of them are an error.
    """
    begin = -((start_ns - first_ns) // step)
    end = max(begin, -((start_ns - end_ns) // step))
    if end - begin > most:
        raise MdfValueError(f"a raster of {step * 1e-9:g} s has more than {most} rows here")
    return begin, end


def sorted_times(ns: Any) -> Any:
    """The times in order, and which rows they are of; rows without a time are left out."""
    rows = np.flatnonzero(ns != NO_TIME)
    times = ns[rows]
    if len(times) > 1 and (times[1:] < times[:-1]).any():
        order = np.argsort(times, kind="stable")
        rows, times = rows[order], times[order]
    return times, rows
