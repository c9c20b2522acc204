"""Points in time: seconds since a recording's start, dates, nanoseconds since 1970."""

from __future__ import annotations

import datetime
import math
import re
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

    In a recording whose start is `local` it is one of that place, and cannot have a zone. Dates
    that 64 bits do not hold are the ends of what they hold.
    """
    if isinstance(date, str):
        return _clamped(_text_ns(date, local))
    if isinstance(date, np.datetime64):
        return _clamped(_datetime64_ns(date))
    if date != date:  # pandas.NaT
        raise MdfValueError("a time cannot be missing (NaT)")
    extra = int(getattr(date, "nanosecond", 0))  # of pandas
    if hasattr(date, "to_pydatetime"):
        date = date.to_pydatetime(warn=False)
    if not isinstance(date, datetime.datetime):
        date = datetime.datetime(date.year, date.month, date.day)
    offset = date.utcoffset()
    if offset is not None and local:
        raise _zoned(date)
    since = date.replace(tzinfo=None) - EPOCH - (offset or datetime.timedelta(0))
    microseconds: int = since // datetime.timedelta(microseconds=1)
    return _clamped(microseconds * 1000 + extra)


def _clamped(ns: int) -> int:
    return max(-LIMIT, min(LIMIT, ns))


def _zoned(date: Any) -> MdfValueError:
    return MdfValueError(f"the recording does not tell its time zone, but {date} has one")


def _datetime64_ns(date: Any) -> int:
    if np.isnat(date):
        raise MdfValueError("a time cannot be missing (NaT)")
    seconds = date.astype("datetime64[s]")
    rest = (date - seconds).astype("timedelta64[ns]")  # below a second
    return int(seconds.astype(np.int64)) * 1_000_000_000 + int(rest.astype(np.int64))


_ZONE = re.compile(r"(?:[Zz]|([+-])(\d\d):?(\d\d))$")


def _text_ns(text: str, local: bool) -> int:
    """Of an ISO 8601 text."""
    base, offset = text.strip(), 0
    zone = _ZONE.search(base) if len(base) > 10 else None
    if zone is not None:
        if local:
            raise _zoned(text)
        base = base[: zone.start()]
        if zone.group(1):
            minutes = int(zone.group(2)) * 60 + int(zone.group(3))
            offset = minutes * (-1 if zone.group(1) == "-" else 1)
    try:
        if not base[:1].isdigit():
            raise ValueError
        return _datetime64_ns(np.datetime64(base)) - offset * 60_000_000_000
    except ValueError as error:
        raise MdfValueError(f"{text!r} is no date, as 2021-07-26T04:34:14Z is one") from error


def to_ns(time: Time, start_ns: int, local: bool) -> int:
    """Nanoseconds since 1970 of seconds since the start, or of a date."""
    if is_date(time):
        return date_ns(time, local)
    return _clamped(start_ns + round(to_seconds(time) * 1e9))


def to_seconds(time: Time) -> float:
    """Seconds, within what 64 bits of nanoseconds hold."""
    try:
        seconds = float(time)  # type: ignore[arg-type]
    except OverflowError:
        seconds = math.inf if time > 0 else -math.inf  # type: ignore[operator]
    except (TypeError, ValueError) as error:
        raise MdfValueError(f"{time!r} is neither seconds since the start nor a date") from error
    if math.isnan(seconds):
        raise MdfValueError("a time cannot be NaN")
    return max(-2e10, min(2e10, seconds))


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
    """The times in order, and which rows they are of: a slice if these are all, in order.

    Rows without a time are left out.
    """
    isthere = ns != NO_TIME
    times: Any = ns
    rows: Any = slice(None)
    if not isthere.all():
        rows = np.flatnonzero(isthere)
        times = ns[rows]
    if len(times) > 1 and (times[1:] < times[:-1]).any():
        order = np.argsort(times, kind="stable")
        times = times[order]
        rows = order if isinstance(rows, slice) else rows[order]
    return times, rows
