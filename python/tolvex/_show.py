"""How measurements, groups, signals and tables show themselves in terminals and notebooks."""

from __future__ import annotations

from html import escape
from typing import TYPE_CHECKING, Any, Iterable, List, Sequence, Tuple

import numpy as np

from ._column import Array, Column
from ._errors import MdfError

if TYPE_CHECKING:
    from ._frames import Frames
    from ._measurement import Group, Measurement
    from ._signal import Signal
    from ._table import Table

_ROWS = 12  # of lists
_MOST_LINES = 60  # of lists of signals
_MOST_READ = 1 << 18  # values read for a picture
_RUNS = 32  # in which they are read of longer signals
_BARS = "▁▂▃▄▅▆▇█"


def cut(text: str, width: int) -> str:
    """On one line of so many characters, control characters escaped."""
    line = "".join(c if c.isprintable() else ascii(c)[1:-1] for c in text.strip()[: width + 1])
    return line if len(line) <= width else line[: width - 1] + "…"


def seconds(value: float) -> str:
    return f"{value:,.3f} s".replace(",", " ")


def number(value: int) -> str:
    return f"{value:,}".replace(",", " ")


def counted(count: int, what: str) -> str:
    return f"{number(count)} {what}{'' if count == 1 else 's'}"


# Pictures -------------------------------------------------------------------------------------


def points(signal: Signal) -> Array:
    """Numbers that are a picture of the signal, in order of its rows; NaN where there is none."""
    rows = len(signal)
    if signal.shape or not signal.has_values or rows == 0:
        return np.empty(0)
    if signal._column is not None or rows <= _MOST_READ:
        return _numbers(signal.column)
    size = _MOST_READ // _RUNS
    firsts = np.linspace(0, rows - size, _RUNS).astype(int)
    whole = signal.rows
    runs = [np.arange(first, first + size) for first in firsts.tolist()]
    kind = (signal.index, signal._type, signal.shape)
    return np.concatenate([_numbers(whole.picked(run).columns([kind], False)[0]) for run in runs])


def _numbers(column: Column) -> Array:
    if column.categories is not None:
        return np.where(column.values < 0, np.nan, column.values).astype(np.float64)
    if column.values.dtype == object:
        return np.empty(0)
    with np.errstate(all="ignore"):  # signalling NaN
        found = column.filled().astype(np.float64)
    found[~np.isfinite(found)] = np.nan
    return found


def envelope(values: Array, width: int) -> Tuple[Array, Array]:
    """The least and the greatest of each of up to `width` equal parts; NaN for parts of none."""
    edges = np.linspace(0, len(values), min(width, len(values)) + 1).astype(int)[:-1]
    if len(edges) == 0:
        return np.empty(0), np.empty(0)
    least = np.fmin.reduceat(values, edges)
    return least, np.fmax.reduceat(values, edges)


def sparkline(values: Array, width: int = 48) -> str:
    """A line of bars."""
    low, high = envelope(values, width)
    heights = _heights(low / 2 + high / 2).tolist()
    if all(height != height for height in heights):
        return ""
    return "".join(" " if h != h else _BARS[round(h * (len(_BARS) - 1))] for h in heights)


def _heights(values: Array) -> Array:
    """The values from 0, the least, to 1, the greatest of them; all equal ones are 0."""
    half = values / 2  # whose differences cannot be too large
    if np.isnan(half).all():
        return half
    bottom, top = np.nanmin(half), np.nanmax(half)
    return (half - bottom) / (top - bottom if top > bottom else 1.0)


def picture(values: Array, width: int = 220, height: int = 36) -> str:
    """A small drawing in SVG."""
    ends = _heights(np.stack(envelope(values, width // 2), axis=1)).tolist()
    spots: List[str] = []
    for i, pair in enumerate(ends):
        for level in dict.fromkeys(pair):
            if level == level:
                y = height - 2 - level * (height - 4)
                spots.append(f"{i * width / max(1, len(ends) - 1):.1f},{y:.1f}")
    if not spots:
        return ""
    return (
        f'<svg width="{width}" height="{height}" viewBox="0 0 {width} {height}">'
        f'<polyline points="{" ".join(spots)}" fill="none" stroke="#1f77b4" stroke-width="1"/>'
        "</svg>"
    )


# Texts ----------------------------------------------------------------------------------------


def columns_text(rows: Sequence[Sequence[str]], right: Iterable[int] = ()) -> str:
    """Rows of cells in columns, two spaces between them."""
    if not rows:
        return ""
    widths = [max(len(row[i]) for row in rows) for i in range(len(rows[0]))]
    flush = set(right)
    lines = [
        "  ".join(
            cell.rjust(width) if i in flush else cell.ljust(width)
            for i, (cell, width) in enumerate(zip(row, widths))
        ).rstrip()
        for row in rows
    ]
    return "\n".join(lines)


def _value(value: Any) -> str:
    if isinstance(value, (float, np.floating)):
        return f"{value:.6g}"
    if isinstance(value, bytes):
        return cut(value.hex(" "), 32)
    return cut(str(value), 32)


def signal_text(signal: Signal) -> str:
    lines = [signal_line(signal)]
    if not signal.has_values:
        return f"{lines[0]}: {cut(signal.fault or 'a structure', 120)}"
    try:
        line = sparkline(points(signal))
        if line:
            lines.append(f"  {line}")
        lines += [f"  {text}" for text in _ends(signal)]
    except MdfError as error:
        lines.append(f"  {cut(str(error), 120)}")
    return "\n".join(lines)


def signal_line(signal: Signal) -> str:
    unit = f" [{cut(signal.unit, 20)}]" if signal.unit else ""
    shape = "×".join(map(str, signal.shape))
    kind = "status" if signal.is_status else "text" if signal.is_text else str(signal.dtype)
    kind = "bytes" if kind == "object" else kind
    kind = f"{kind} {shape}".strip()
    rows = counted(len(signal), "row")
    return f"{cut(signal.name, 60)}{unit}: {kind}, {rows}, group {cut(signal.group.label, 40)}"


def _ends(signal: Signal) -> List[str]:
    """The first and the last rows."""
    count = len(signal)
    rows = list(range(min(count, 3))) + [i for i in range(max(3, count - 2), count)]
    if not rows:
        return []
    cells = []
    for run in (np.array(rows[:3]), np.array(rows[3:])):
        if len(run) == 0:
            continue
        part = type(signal)(signal.group, signal.index, signal.rows.picked(run))
        if signal._column is not None:
            part._column = signal._column.take(run)
        values = part.masked()
        times = part.time.tolist() if signal.group.has_time else run.tolist()
        for time, value in zip(times, values if signal.shape else values.tolist()):
            text = "-" if value is None else _value(value)
            cells.append([f"{time:.6f} s" if signal.group.has_time else f"row {time}", text])
    if count > len(rows):
        cells.insert(3, ["…", ""])
    return columns_text(cells, right=[0]).split("\n")


def signals_text(signals: Sequence[Signal]) -> str:
    rows = [_signal_row(signal) for signal in signals[:_MOST_LINES]]
    lines = [columns_text(rows, right=[3])] if rows else ["no signals"]
    if len(signals) > _MOST_LINES:
        lines.append(f"… and {number(len(signals) - _MOST_LINES)} more")
    return "\n".join(lines)


def _signal_row(signal: Signal) -> List[str]:
    rows = counted(len(signal), "row")
    name, unit = cut(signal.name, 60), cut(signal.unit, 20)
    return [name, unit, _kind(signal), rows, cut(signal.group.label, 40)]


def _first(group: Group, count: int) -> List[Signal]:
    """The first channels, of which there may be very many."""
    return [group._channel(i) for i in range(min(count, group._channel_count))]


def group_line(group: Group) -> List[str]:
    names = []
    for signal in (s for s in _first(group, 40) if s.has_values and not s.is_master):
        names.append(cut(signal.name, 30))
        if len(names) > 4:
            break
    more = "" if len(names) <= 4 else ", …"
    rows = counted(group.rows, "row")
    return [str(group.index), cut(group.label, 40), rows, ", ".join(names[:4]) + more]


def measurement_text(measurement: Measurement) -> str:
    if measurement.closed:
        return f"{measurement.label}: closed"
    lines = [_headline(measurement)]
    groups = measurement.groups
    lines.append(columns_text([group_line(group) for group in groups[:_ROWS]], right=[0, 2]))
    if len(groups) > _ROWS:
        lines.append(f"… and {counted(len(groups) - _ROWS, 'group')} more")
    return "\n".join(lines)


def _headline(measurement: Measurement) -> str:
    zone = "local time" if measurement.start_is_local else "UTC"
    try:
        start = f"{measurement.start:%Y-%m-%d %H:%M:%S} {zone}"
    except (MdfError, ValueError):
        start = f"{measurement.start_ns} ns since 1970"
    count = len(measurement.groups)
    length = seconds(measurement.duration) if count <= 1000 else "…"
    problems = len(measurement.problems)
    told = f", {counted(problems, 'problem')}" if problems else ""
    return f"{cut(measurement.label, 60)}: {start}, {length}, {counted(count, 'group')}{told}"


def groups_text(measurement: Measurement) -> str:
    return measurement_text(measurement).partition("\n")[2]


def group_text(group: Group) -> str:
    if group.measurement.closed:
        return f"{cut(group.label, 60)}: closed"
    lines = [
        f"{cut(group.label, 60)}: group {group.index} of {cut(group.measurement.label, 60)}, "
        f"{counted(group.rows, 'row')}, {counted(group._channel_count, 'channel')}"
    ]
    shown = _first(group, _ROWS)
    lines.append(columns_text([[f"  {cut(s.name, 60)}", cut(s.unit, 20), _kind(s)] for s in shown]))
    if group._channel_count > _ROWS:
        lines.append(f"  … and {number(group._channel_count - _ROWS)} more")
    return "\n".join(lines)


def _kind(signal: Signal) -> str:
    if not signal.has_values:
        return cut(signal.fault, 60) or "structure"
    return signal_line(signal).split("]: " if signal.unit else ": ", 1)[-1].split(",")[0]


def table_rows(table: Table) -> Tuple[List[str], List[List[str]]]:
    """Titles, and the first and last rows."""
    names = list(table)
    rows = list(range(min(table.rows, 5))) + list(range(max(5, table.rows - 3), table.rows))
    columns = []
    for name in names:
        if name == table.time_name:
            columns.append([_value(value) for value in table.time[rows]])
            continue
        found = table.columns[name].take(rows).masked()
        values = found if found.ndim > 1 else found.tolist()
        columns.append(["-" if value is None else _value(value) for value in values])
    cells = [list(line) for line in zip(*columns)]
    if table.rows > len(rows):
        cells.insert(5, ["…"] * len(names))
    return [cut(name, 32) for name in names], cells


def table_text(table: Table) -> str:
    titles, cells = table_rows(table)
    size = f"{counted(table.rows, 'row')}, {counted(len(titles), 'column')}"
    return f"{columns_text([titles, *cells], right=range(len(titles)))}\n{size}"


def frames_text(frames: Frames) -> str:
    if len(frames) == 0:
        return "0 frames"
    span = f"{seconds(float(frames.time[0]))} to {seconds(float(frames.time[-1]))}"
    identifiers = counted(len(np.unique(frames.id)), "identifier")
    return f"{counted(len(frames), 'frame')}, {identifiers}, {span}\n{_frame_rows(frames)}"


def _frame_cells(frames: Frames) -> List[List[str]]:
    rows = list(range(min(len(frames), 4))) + list(range(max(4, len(frames) - 2), len(frames)))
    cells = []
    for row in rows:
        frame = frames[row]
        name = f"{frame.id:08X}" if frame.is_extended else f"{frame.id:03X}"
        at = (frame.time_ns - frames._start_ns) / 1e9
        data = frame.data.hex(" ").upper() if len(frame.data) <= 16 else f"{len(frame.data)} bytes"
        cells.append([f"{at:.6f} s", str(frame.bus), name, data])
    if len(frames) > len(rows):
        cells.insert(4, ["…", "", "", ""])
    return cells


def _frame_rows(frames: Frames) -> str:
    return columns_text(_frame_cells(frames), right=[0, 1, 2])


# HTML -----------------------------------------------------------------------------------------


def html_table(titles: Sequence[str], rows: Sequence[Sequence[str]]) -> str:
    """A table; what is in the rows is HTML already."""
    head = "".join(f"<th>{escape(title)}</th>" for title in titles)
    body = "".join("<tr>" + "".join(f"<td>{cell}</td>" for cell in row) + "</tr>" for row in rows)
    return f"<table><thead><tr>{head}</tr></thead><tbody>{body}</tbody></table>"


def signal_html(signal: Signal) -> str:
    title = f"<b>{escape(signal_line(signal))}</b>"
    if not signal.has_values:
        return f"{title}<br>{escape(cut(signal.fault, 200))}"
    comment = f"<br>{escape(cut(signal.comment, 200))}" if signal.comment else ""
    return f"<div>{title}{comment}<br>{_drawn(signal)}</div>"


def signals_html(signals: Sequence[Signal]) -> str:
    rows = []
    for i, signal in enumerate(signals[:_MOST_LINES]):
        drawn = _drawn(signal) if i < _ROWS and _isdrawn(signal) else ""
        rows.append([*(escape(cell) for cell in _signal_row(signal)), drawn])
    more = ""
    if len(signals) > _MOST_LINES:
        more = f"<p>… and {number(len(signals) - _MOST_LINES)} more</p>"
    titles = ["channel", "unit", "type", "rows", "group", ""]
    return f"<div>{html_table(titles, rows)}{more}</div>"


def _isdrawn(signal: Signal) -> bool:
    return not signal.shape and (signal.is_status or signal.dtype.kind in "iuf")


def _drawn(signal: Signal) -> str:
    try:
        return picture(points(signal))
    except MdfError as error:
        return escape(cut(str(error), 120))


def group_html(group: Group) -> str:
    if group.measurement.closed:
        return f"<b>{escape(group_text(group))}</b>"
    rows = []
    for signal in _first(group, _ROWS):
        drawn = _drawn(signal) if _isdrawn(signal) else ""
        cells = [escape(cut(signal.name, 60)), escape(cut(signal.unit, 20)), escape(_kind(signal))]
        rows.append([*cells, drawn])
    more = ""
    if group._channel_count > _ROWS:
        more = f"<p>… and {number(group._channel_count - _ROWS)} more</p>"
    title = escape(group_text(group).partition("\n")[0])
    return f"<div><b>{title}</b>{html_table(['channel', 'unit', 'type', ''], rows)}{more}</div>"


def measurement_html(measurement: Measurement) -> str:
    if measurement.closed:
        return f"<b>{escape(measurement.label)}: closed</b>"
    groups = measurement.groups
    rows = []
    for group in groups[:_ROWS]:
        first = next((s for s in _first(group, 40) if _isdrawn(s) and not s.is_master), None)
        drawn = "" if first is None else _drawn(first)
        rows.append([*(escape(cell) for cell in group_line(group)), drawn])
    more = ""
    if len(groups) > _ROWS:
        more = f"<p>… and {counted(len(groups) - _ROWS, 'group')} more</p>"
    title = escape(_headline(measurement))
    return (
        f"<div><b>{title}</b>{html_table(['', 'group', 'rows', 'channels', ''], rows)}{more}</div>"
    )


def table_html(table: Table) -> str:
    titles, cells = table_rows(table)
    size = f"{counted(table.rows, 'row')}, {counted(len(titles), 'column')}"
    body = html_table(titles, [[escape(cell) for cell in row] for row in cells])
    return f"<div>{body}<p>{size}</p></div>"


def frames_html(frames: Frames) -> str:
    title = escape(frames_text(frames).partition("\n")[0])
    rows = [[escape(cell) for cell in row] for row in _frame_cells(frames)]
    return f"<div><b>{title}</b>{html_table(['time', 'bus', 'id', 'payload'], rows)}</div>"
