"""Signals as pictures, drawn by matplotlib."""

from __future__ import annotations

from typing import TYPE_CHECKING, Any, Dict

import numpy as np

from . import _optional
from ._errors import MdfTypeError, MdfValueError

if TYPE_CHECKING:
    from ._signal import Signal

_MOST_POINTS = 200_000  # beyond, the least and the greatest of each part are drawn


def plot(signal: Signal, ax: Any, time: str, style: Dict[str, Any]) -> Any:
    """Draws the signal into the axes, or those of a new figure, which are returned."""
    if time not in ("seconds", "datetime"):
        raise MdfValueError(f"time: expected 'seconds' or 'datetime', found {time!r}")
    if signal.shape or not (signal.is_status or signal.dtype.kind in "iuf"):
        raise MdfTypeError(f"{signal.name} cannot be drawn: its values are no single numbers")
    if ax is None:
        ax = _optional.need("matplotlib.pyplot").subplots(layout="constrained")[1]
    if signal.group.has_time:
        times = signal.datetime if time == "datetime" else signal.time
        label = "time" if time == "datetime" else "time [s]"
    else:
        times, label = np.arange(len(signal)), "row"
    column = signal.column
    if column.categories is not None:
        codes = column.values.astype(np.float64)
        codes[column.values < 0] = np.nan
        ax.step(times, codes, where="post", **{"label": signal.name, **style})
        used = np.unique(column.values[column.values >= 0])
        if len(used) <= 20:
            ax.set_yticks(used, [column.categories[code] for code in used.tolist()])
    else:
        values = column.filled().astype(np.float64)
        times, values = _thinned(times, values)
        ax.plot(times, values, **{"label": signal.name, **style})
    ax.set_xlabel(label)
    ax.set_ylabel(f"{signal.name} [{signal.unit}]" if signal.unit else signal.name)
    return ax


def _thinned(times: Any, values: Any) -> Any:
    """Where there are more points than a picture shows: the extremes of each part."""
    if len(values) <= _MOST_POINTS:
        return times, values
    size = -(-2 * len(values) // _MOST_POINTS)
    whole = len(values) // size * size
    parts = values[:whole].reshape(-1, size)
    low = np.where(np.isnan(parts), np.inf, parts).argmin(axis=1)
    high = np.where(np.isnan(parts), -np.inf, parts).argmax(axis=1)
    begins = np.arange(0, whole, size)
    picked = np.sort(np.stack([begins + low, begins + high], axis=1), axis=1).reshape(-1)
    picked = np.concatenate([picked, np.arange(whole, len(values))])
    return times[picked], values[picked]
