"""Signals and tables: what is in real files and in files made by hand."""

from __future__ import annotations

import copy
import datetime
import gc
import io
import os
import pickle
import random
import struct
import subprocess
import sys
import threading
import warnings
from pathlib import Path
from typing import Any, List

import numpy as np
import pytest
from builder import DATA, START, TIME, Builder, Cn, HandRead

import tolvex

DECODED = DATA / "decoded-00000005.mf4"


@pytest.fixture()
def sample(tmp_path: Path) -> Path:
    """100 rows, a quarter of a second apart, of everything that a channel can be."""
    file = Builder()
    texts, places = file.sd([f"text {i} ä".encode() for i in range(100)])
    half = file.linear(1, 0.5)
    gears = file.texts({0: "P", 1: "R", 2: "N"})
    levels = file.texts({0: "low"}, file.linear(0, 10))
    channels = [
        TIME,
        Cn("speed", 0, 8, 16, unit="km/h", conversion=half),
        Cn("small", 2, 10, 8),
        Cn("gear", 0, 11, 8, conversion=gears),
        Cn("level", 0, 12, 8, conversion=levels),
        Cn("note", 7, 13, 64, type=1, data=texts),
        Cn("bytes", 10, 21, 16),
        Cn("checked", 0, 23, 32, invalid_bit=0),
        Cn("map", 2, 27, 16, array=(2, 3)),
        Cn("big", 1, 39, 64),
        Cn("single", 4, 47, 32),
    ]
    records = [
        struct.pack("<dHbBBQ", 0.25 * i, i, -i, i % 4, i % 3, places[i])
        + struct.pack("<BBI6h", i, 0xFE, i, *(10 * i + k for k in range(6)))
        + struct.pack(">Q", 2**64 - 1 - i)
        + struct.pack("<fB", i / 3, i % 5 == 4)
        for i in range(100)
    ]
    file.group("sample", channels, records, invalid=1)
    return file.write(tmp_path / "sample.mf4")


def test_every_value_of_a_real_file_is_what_its_bytes_say() -> None:
    m = tolvex.open(DECODED)
    by_hand = HandRead(DECODED).groups()
    assert [group.name for group in m.groups] == [name for name, _ in by_hand]
    values = 0
    for group, (_, channels) in zip(m.groups, by_hand):
        assert [signal.name for signal in group.channels] == list(channels)
        for name, want in channels.items():
            found = group[name].values if name != "time" else group.time
            assert found.tolist() == want, name
            values += len(want)
    assert values > 37_000
    assert m.start == datetime.datetime.fromtimestamp(
        HandRead(DECODED).u64(64 + 24 + 48) // 10**9, datetime.timezone.utc
    ).replace(microsecond=m.start.microsecond)
    assert m.duration == max(channels["time"][-1] for _, channels in by_hand)


def test_values_have_the_type_and_meaning_that_the_format_gives_them(sample: Path) -> None:
    m = tolvex.open(sample)
    rows = range(100)
    s = m["speed"]
    assert (s.unit, s.dtype, s.conversion) == ("km/h", np.float64, "linear")
    assert s.values.tolist() == [i * 0.5 + 1 for i in rows]
    assert s.time.tolist() == [0.25 * i for i in rows]
    assert s.time_ns.tolist() == [START + 250_000_000 * i for i in rows]
    assert s.datetime[4] == np.datetime64(START + 10**9, "ns")
    assert s.raw.dtype == np.uint16 and s.raw.tolist() == list(rows)
    assert s.valid.all() and s.text is None
    dtypes = {name: m[name].values.dtype for name in ("small", "big", "map", "single", "checked")}
    assert dtypes == dict(
        small=np.int8, big=np.uint64, map=np.int16, single=np.float32, checked=np.uint32
    )
    assert m["small"].values.tolist() == [-i for i in rows]
    assert m["big"].values.tolist() == [2**64 - 1 - i for i in rows]
    assert m["single"].values.tolist() == [float(np.float32(i / 3)) for i in rows]
    assert m["map"].values[7].tolist() == [[70, 71, 72], [73, 74, 75]]
    assert m["note"].values.tolist() == [f"text {i} ä" for i in rows]
    assert m["bytes"].values[5] == b"\x05\xfe"
    assert m["gear"].text.tolist() == [["P", "R", "N", None][i % 4] for i in rows]
    assert m["gear"].valid.tolist() == [i % 4 < 3 for i in rows]
    assert sorted(m["gear"].categories) == ["N", "P", "R"]
    assert [m["gear"].categories[c] for c in m["gear"].codes[:3]] == ["P", "R", "N"]
    assert m["gear"].raw.tolist() == [i % 4 for i in rows]
    assert m["level"].values.tolist() == [["low", 10.0, 20.0][i % 3] for i in rows]
    checked = m["checked"]
    assert checked.valid.tolist() == [i % 5 != 4 for i in rows]
    assert checked.masked().tolist() == [None if i % 5 == 4 else i for i in rows]
    assert checked.filled().dtype == np.float64 and np.isnan(checked.filled()[4])
    assert np.asarray(m["small"]).dtype == np.int8


def test_parts_of_a_signal_are_those_of_its_times(sample: Path) -> None:
    m = tolvex.open(sample)
    s = m["speed"]
    assert s[10.0:12.0].time.tolist() == [10 + 0.25 * i for i in range(8)]
    assert s[10.0:12.0].values.tolist() == s.values[40:48].tolist()
    assert s[10.0:20.0][:10.5].values.tolist() == s.values[40:42].tolist()
    when = m.start + datetime.timedelta(seconds=10)
    assert len(s[when:]) == 60 and len(s["2023-11-14T22:13:30.2Z":]) == 59
    assert len(s[np.datetime64(START + 10**10, "ns") :]) == 60
    assert len(s[100:]) == 0 and s[100:].values.dtype == np.float64
    assert s.at(1.3) == s.values[5] and s.at(-0.1) is None and s.at(1e6) == s.values[-1]
    assert s.at(1.375, interpolate=True) == (s.values[5] + s.values[6]) / 2
    assert m["gear"].at(0.3) == "R" and m["gear"].at(0.8) is None and m["checked"].at(1.1) is None
    assert s.resample(0.1).time[:4].tolist() == [0, 0.1, 0.2, 0.3]
    assert s.resample(0.1).values[:6].tolist() == [1, 1, 1, 1.5, 1.5, 2]
    assert s.resample(0.125, True).values[:3].tolist() == [1, 1.25, 1.5]
    for wrong in (lambda: s[3], lambda: s[1:2:3], lambda: s.resample(0), lambda: s.at("soon")):
        with pytest.raises(tolvex.MdfError):
            wrong()


def test_times_that_go_back_hide_no_rows(tmp_path: Path) -> None:
    times = [0, 1, 2, 3, 1.5, 2.5, 4, float("nan"), 5]
    file = Builder()
    file.group(
        "g", [TIME, Cn("x", 0, 8, 8)], [struct.pack("<dB", t, i) for i, t in enumerate(times)]
    )
    m = tolvex.open(file.write(tmp_path / "back.mf4"))
    x = m["x"]
    assert x[1.2:2.7].values.tolist() == [2, 4, 5]
    assert x.at(1.7) == 4 and x.resample(1).values.tolist() == [0, 1, 2, 3, 6, 8]
    assert x[4:].datetime.dtype == "datetime64[ns]" and np.isnat(x.datetime[7])
    assert m.duration == 5


def model_join(groups: List[Any]) -> List[Any]:
    """Rows of (time, values) where the n-th records of a time share a row."""
    rows: dict[Any, List[Any]] = {}
    for column, (times, values) in enumerate(groups):
        seen: dict[float, int] = {}
        for time, value in zip(times, values):
            n = seen[time] = seen.get(time, -1) + 1
            rows.setdefault((time, n), [None] * len(groups))[column] = value
    return [(time, *rows[time, n]) for time, n in sorted(rows)]


def model_raster(groups: List[Any], step: float) -> List[Any]:
    """The last value of each at the multiples of the step."""
    every = sorted(time for times, _ in groups for time in times)
    rows, k = [], 0
    while every and k * step <= every[-1]:
        if k * step >= every[0]:
            held = [[v for t, v in zip(*group) if t <= k * step] for group in groups]
            rows.append((k * step, *(values[-1] if values else None for values in held)))
        k += 1
    return rows


def rows_of(tables: List[Any], names: List[str]) -> List[Any]:
    return [
        row for t in tables for row in zip(*(np.ma.asarray(t[name]).tolist() for name in names))
    ]


def test_joins_and_rasters_are_those_of_a_simple_model(tmp_path: Path) -> None:
    seed = random.randrange(2**32)
    print("seed", seed)
    chance = random.Random(seed)
    for case in range(30):
        file, groups = Builder(), []
        for name in "abc":
            times = sorted(chance.randrange(60) / 4 for _ in range(chance.randrange(25)))
            values = [chance.randrange(200) for _ in times]
            groups.append((times, values))
            rows = [struct.pack("<dB", *row) for row in zip(times, values)]
            file.group(f"group {name}", [TIME, Cn(name, 0, 8, 8)], rows)
        m = tolvex.open(file.write(tmp_path / f"{case}.mf4"))
        names = ["time", "a", "b", "c"]
        size = chance.choice([1, 2, 5, 100])
        want = model_join(groups)
        assert rows_of([m.table(["a", "b", "c"])], names) == want
        assert rows_of(list(m.iter_tables(["a", "b", "c"], rows=size)), names) == want
        want = model_raster(groups, 0.5)
        assert rows_of([m.table(["a", "b", "c"], raster=0.5)], names) == want
        assert rows_of(list(m.iter_tables(["a", "b", "c"], rows=size, raster=0.5)), names) == want
        lines = m.table(["a", "b"], raster=0.5, interpolate=True)
        parts = m.iter_tables(["a", "b"], rows=size, raster=0.5, interpolate=True)
        assert rows_of([lines], names[:3]) == rows_of(list(parts), names[:3])
        times, values = groups[0]
        if len(set(times)) == len(times) and times:
            there = lines["time"] >= times[0]
            want = np.interp(lines["time"][there], times, values)
            assert np.allclose(np.ma.asarray(lines["a"])[there].filled(np.nan), want)
        cut = [row for row in model_join(groups) if 3 <= row[0] < 9]
        assert rows_of([m.table(["a", "b", "c"], start=3, stop=9)], names) == cut


def test_tables_become_what_other_packages_take(sample: Path) -> None:
    pandas = pytest.importorskip("pandas")
    m = tolvex.open(sample)
    t = m.table(["speed", "gear", "level", "checked", "map", "note"], start=1.0, stop=3.0)
    assert list(t) == ["time", "speed", "gear", "level", "checked", "map", "note"]
    assert t.units["speed"] == "km/h" and t.rows == 8 and len(t["map"]) == 8
    df = t.to_pandas()
    assert df.index.name == "time" and df.index.tolist() == t.time.tolist()
    assert df["speed"].tolist() == t["speed"].tolist()
    assert isinstance(df["gear"].dtype, pandas.CategoricalDtype)
    assert df["gear"].tolist()[:3] == ["P", "R", "N"] and pandas.isna(df["gear"].iloc[3])
    assert df["level"].tolist()[:4] == [10.0, 20.0, "low", 10.0]
    assert df["checked"].dtype == np.float64 and df["checked"].isna().sum() == 2
    assert df["map[1][2]"].tolist() == t["map"][:, 1, 2].tolist()
    df = t.to_pandas(time="datetime", missing="nullable")
    assert str(df.index.dtype) == "datetime64[ns, UTC]" and df.index[0].value == START + 10**9
    assert str(df["checked"].dtype) == "UInt32" and df["checked"].isna().sum() == 2
    assert df["checked"].dropna().tolist() == [4 + i for i in range(8) if (4 + i) % 5 != 4]
    assert t.to_pandas(time="timedelta").index[0] == pandas.Timedelta(seconds=1)
    assert t.to_pandas(time="none").index.tolist() == list(range(8))
    series = m["speed"][1.0:2.0].to_pandas("datetime")
    assert series.name == "speed" and series.index.tz is not None
    x = pytest.importorskip("xarray") and t.to_xarray()
    assert x["map"].shape == (8, 2, 3) and x["speed"].attrs["units"] == "km/h"
    assert x["time"].values.tolist() == t.time.tolist()
    assert m.groups["sample"].to_pandas().shape == (100, 15)


def test_names_are_found_or_the_error_says_which_there_are(tmp_path: Path, sample: Path) -> None:
    file = Builder()
    for name in ("left", "right"):
        record = [struct.pack("<dB", 0, ord(name[0]))]
        file.group(name, [TIME, Cn("Speed", 0, 8, 8), Cn(f"Of [{name}]", 0, 8, 8)], record)
    m = tolvex.open(file.write(tmp_path / "two.mf4"))
    assert "Speed" in m and "speed" not in m and 7 not in m
    assert [(s.name, s.group.name) for s in m.find("*pee*")] == [
        ("Speed", "left"),
        ("Speed", "right"),
    ]
    assert len(m.find("SPEED", ignore_case=True)) == 2 and m.find("SPEED") == []
    lines = [line.split() for line in repr(m.find("Speed")).splitlines()]
    assert lines == [["Speed", "uint8", "1", "row", side] for side in ("left", "right")]
    assert m.find("Speed")._repr_html_().count("<svg") == 2
    assert list(m) == ["Speed", "Of [left]", "Of [right]"]
    assert list(m.groups[1]) == ["Speed", "Of [right]"]
    for key in ("right", 1, -1, m.groups[1]):
        assert m["Speed", key].values.tolist() == [ord("r")]
    with pytest.raises(tolvex.MdfNameError, match=r"2 channels .*'Speed', 0\].*left.*right"):
        m["Speed"]
    with pytest.raises(KeyError, match="there are Speed"):
        m["peed"]
    with pytest.raises(tolvex.MdfNameError, match="no group is called"):
        m["Speed", "middle"]
    with pytest.raises(IndexError):
        m["Speed", 2]
    assert list(m.table(["Speed*"])) == ["time", "left.Speed", "right.Speed"]
    assert list(m.table("Of [left]")) == ["time", "Of [left]"]
    assert list(m.groups["left"].table("Sp*")) == ["time", "Speed"]
    with pytest.raises(tolvex.MdfValueError, match="another measurement"):
        m.table([tolvex.open(sample)["speed"]])


def test_files_that_cannot_be_read_are_errors_and_unfinished_ones_warnings(tmp_path: Path) -> None:
    (tmp_path / "text.mf4").write_text("no measurement " * 20)
    with pytest.raises(tolvex.MdfFileError) as raised:
        tolvex.open(tmp_path / "text.mf4")
    error = raised.value
    assert isinstance(error, OSError) and "text.mf4" in str(error)
    assert error.place == "0" and error.expected and error.found
    for paths in (tmp_path / "none.mf4", [DECODED, tmp_path / "none.mf4"]):
        with pytest.raises(tolvex.MdfFileError, match="none.mf4"):
            tolvex.open(paths)
    for wrong in (None, 7, io.BytesIO(b"MDF"), [None], ["a.mf4", 7]):
        for call in (tolvex.open, tolvex.fleet):
            with pytest.raises(tolvex.MdfTypeError, match="expected a path, or several; found"):
                call(wrong)
        for call in (tolvex.check, tolvex.Recorder, lambda path: tolvex.write(path, {"time": [0]})):
            with pytest.raises(tolvex.MdfTypeError, match="expected a path; found"):
                call(wrong)
    for wrong in ([], "a\0b"):
        with pytest.raises(tolvex.MdfError):
            tolvex.open(wrong)
    with pytest.warns(tolvex.MdfWarning) as told:
        m = tolvex.open(DATA / "unfinalized-00000002.MF4")
    assert m.notices and not m.problems and len(told) == len(m.notices)
    assert len(m.frames()) > 1000
    damaged = bytearray(DECODED.read_bytes())
    hand = HandRead(DECODED)
    last = hand.chain(hand.link(64, 0))[-1]
    blocks = hand.link(last, 2)
    damaged[blocks + 2 : blocks + 4] = b"XX"
    (tmp_path / "damaged.mf4").write_bytes(damaged)
    with pytest.warns(tolvex.MdfWarning):
        m = tolvex.open(tmp_path / "damaged.mf4")
        assert m.groups[-1].rows == 0 or not m.groups[-1].signals[0].valid.any()
    assert m.problems


def test_several_files_are_one_recording(tmp_path: Path) -> None:
    for i in (2, 1, 0):
        file = Builder(START + i * 10**9)
        file.group("g", [TIME, Cn("x", 0, 8, 8)], [struct.pack("<dB", 0.5, i)])
        file.write(tmp_path / ("drive.mf4" if i == 0 else f"drive_{i}.mf4"))
    parts = tolvex.open(tmp_path / "drive.mf4", parts=True)
    named = tolvex.open(sorted(tmp_path.glob("*.mf4"), reverse=True))
    for m in (parts, named, pickle.loads(pickle.dumps(parts))):
        assert m["x"].time.tolist() == [0.5, 1.5, 2.5] and m["x"].values.tolist() == [0, 1, 2]
    assert pickle.loads(pickle.dumps(m.groups[0])).rows == 3


def test_four_threads_read_at_once(sample: Path) -> None:
    m = tolvex.open(sample)
    want = {s.name: s.masked().tolist() for s in m.groups[0].signals}
    failed: List[BaseException] = []

    def work(seed: int) -> None:
        chance = random.Random(seed)
        try:
            for _ in range(150):
                name = chance.choice(list(want))
                assert m[name].masked().tolist() == want[name]
                m.table(raster=1.0)
                assert len(m.find("*")) == 11
        except BaseException as error:
            failed.append(error)

    threads = [threading.Thread(target=work, args=(seed,)) for seed in range(4)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert not failed


def test_closed_measurements_say_so_and_keep_what_was_read(sample: Path) -> None:
    with tolvex.open(sample) as m:
        s = m["speed"]
        assert s.values[0] == 1 and copy.copy(m).groups[0].rows == 100
    assert m.closed and s.values[0] == 1 and "closed" in repr(m)
    for use in (
        lambda: m["small"],
        lambda: s.time,
        lambda: m.frames(),
        lambda: m.groups[0]["speed"],
    ):
        with pytest.raises(tolvex.MdfValueError, match="closed"):
            use()
    m.close()


def memory() -> int:
    gc.collect()
    return int(Path("/proc/self/statm").read_text().split()[1]) * 4096


def test_ten_thousand_opens_leave_nothing_behind(sample: Path) -> None:
    def opened(times: int) -> None:
        for i in range(times):
            m = tolvex.open(sample)
            m["speed"].values, m["note"].values, m["gear"].values
            if i % 2:
                m.close()

    opened(500)
    before, files = memory(), len(os.listdir("/proc/self/fd"))
    opened(10_000)
    assert memory() - before < 4 << 20
    assert len(os.listdir("/proc/self/fd")) == files


def test_everything_shows_itself(sample: Path) -> None:
    m = tolvex.open(sample)
    group, s = m.groups[0], m["speed"]
    shown = [
        m,
        m.groups,
        group,
        s,
        s[100:],
        m["gear"],
        m["note"],
        m["map"],
        group.table(),
        m.frames(),
    ]
    for one in shown:
        assert repr(one) and "<" not in repr(one)
        assert one._repr_html_().startswith("<div>")
    assert "▁" in repr(s) and "<svg" in s._repr_html_() and "sample" in repr(m)
    file = Builder()
    file.group("<b>\x1b[31m", [TIME, Cn("<script>", 0, 8, 8)], [struct.pack("<dB", 0, 1)])
    m = tolvex.open(file.write(sample.parent / "hostile.mf4"))
    for one in (m, m.groups[0], m.groups[0].signals[0], m.groups[0].table()):
        assert "<script>" not in one._repr_html_() and "\x1b" not in repr(one)


def test_packages_that_are_not_there_are_named(sample: Path, monkeypatch: Any) -> None:
    for module in ("pandas", "pyarrow", "xarray", "matplotlib.pyplot"):
        monkeypatch.setitem(__import__("sys").modules, module, None)
    t = tolvex.open(sample).table("speed")
    for call, package in (
        (t.to_pandas, "pandas"),
        (t.to_arrow, "pyarrow"),
        (t.to_xarray, "xarray"),
        (tolvex.open(sample)["speed"].plot, "matplotlib"),
    ):
        with pytest.raises(ImportError, match=f"pip install '{package}'"):
            call()


def test_problems_are_warned_of_once(tmp_path: Path) -> None:
    with warnings.catch_warnings(record=True) as told:
        warnings.simplefilter("always")
        m = tolvex.open(DATA / "unfinalized-00000002.MF4")
        count = len(told)
        for _ in range(3):
            m.frames()
            m.groups[0].table()
        assert count and len({str(w.message) for w in told}) == len(told)


def test_parts_and_resampled_signals_stay_what_they_are(sample: Path) -> None:
    m = tolvex.open(sample)
    r = m["small"].resample(0.1)
    assert r[1.0:2.0].values.tolist() == [-4, -4, -4, -5, -5, -6, -6, -6, -7, -7]
    assert r[1.0:2.0][1.5:].values.tolist() == r.values[15:20].tolist() and r.at(1.05) == -4
    part = m["small"][10.0:11.0]
    for wrong in (lambda: r.raw, lambda: m.table([part]), lambda: m.groups[0].stream([r])):
        with pytest.raises(tolvex.MdfError):
            wrong()
    assert part.to_pandas().tolist() == [-40, -41, -42, -43]
    assert m["small"].time is not None and list(m.table(["small", "small"])) == ["time", "small"]
    s = m["small"]
    assert s.time is s.time  # is kept
    other = Builder()
    for name in "ab":
        other.group(name, [TIME, Cn(name, 0, 8, 8)], [struct.pack("<dB", 0, 1)])
    m = tolvex.open(other.write(sample.parent / "ab.mf4"))
    with pytest.raises(tolvex.MdfValueError, match="another group"):
        m.groups["a"].stream([m["b"]])


def test_dates_of_all_ages_and_zones(sample: Path) -> None:
    m = tolvex.open(sample)
    s, zone = m["small"], datetime.timezone(datetime.timedelta(hours=-5))
    for late in ("9999-12-31", np.datetime64("9999-01-01"), datetime.datetime.max, 10**400):
        assert len(s[:late]) == 100 and len(s[late:]) == 0 and s.at(late) == -99
        assert m.table("small", stop=late).rows == 100 and len(m.frames(stop=late)) == 0
    assert s.at(datetime.datetime.max.replace(tzinfo=zone)) == -99
    for early in ("1000", datetime.date(1, 1, 1), -(10**400)):
        assert len(s[:early]) == 0 and len(s[early:]) == 100 and s.at(early) is None
    for same in ("2023-11-14T22:13:30Z", "2023-11-14T22:13:30+00:00", "2023-11-14T17:13:30-0500"):
        assert len(s[same:]) == 60
    for wrong in ("", "now", "NaT", "today", "2023-13-01", np.datetime64("NaT"), float("nan")):
        with pytest.raises(tolvex.MdfValueError):
            s.at(wrong)
    with pytest.raises(tolvex.MdfError):
        s.at(pytest.importorskip("pandas").NaT)


def test_statuses_of_arrays_with_numbers_and_far_times(tmp_path: Path) -> None:
    file = Builder()
    levels = file.texts({0: "off"}, file.linear(0, 2))
    rows = [struct.pack("<d2B", t, i % 2, i) for i, t in enumerate((-9e9, 0, 7e9))]
    file.group("a", [TIME, Cn("a", 0, 8, 8, conversion=levels, array=(2,))], rows)
    file.group(
        "b", [TIME, Cn("b", 0, 8, 8)], [struct.pack("<dB", *row) for row in ((-9e9, 0), (7e9, 100))]
    )
    m = tolvex.open(file.write(tmp_path / "far.mf4"))
    assert m["b"].at(0.0, True) == pytest.approx(56.25)
    t = m.table(["a", "b"])
    assert t["a"].tolist() == [["off", "off"], [2.0, 2.0], ["off", 4.0]]
    assert m["a"].at(0) == [2.0, 2.0]


def test_parts_of_a_table_say_when_times_go_back(tmp_path: Path) -> None:
    file = Builder()
    times = [0, 1, 2, 3, 1.5, 4, 5, 6, 2.5, 7]
    file.group(
        "a", [TIME, Cn("a", 0, 8, 8)], [struct.pack("<dB", t, i) for i, t in enumerate(times)]
    )
    file.group("b", [TIME, Cn("b", 0, 8, 8)], [struct.pack("<dB", i / 2, i) for i in range(16)])
    m = tolvex.open(file.write(tmp_path / "back.mf4"))
    with pytest.warns(tolvex.MdfWarning, match="times go back"):
        parts = list(m.iter_tables(["a", "b"], rows=2))
    found = [row for row in rows_of(parts, ["time", "a"]) if row[1] is not None]
    assert sorted(found) == sorted(zip(times, range(10)))
    with pytest.warns(tolvex.MdfWarning, match="times go back"):
        raster = rows_of(list(m.iter_tables(["a"], rows=2, raster=1.0)), ["time", "a"])
    assert [row[0] for row in raster] == list(range(8)) and raster[7] == (7, 9)


def test_files_that_were_replaced_and_folders_that_were_left(
    tmp_path: Path, monkeypatch: Any
) -> None:
    def made(value: int) -> None:
        file = Builder()
        record = struct.pack("<dB", 0, value)
        file.group("g", [TIME, Cn("x", 0, 8, 8)], [record])
        file.write(tmp_path / "new.mf4")
        os.replace(tmp_path / "new.mf4", tmp_path / "x.mf4")

    made(1)
    monkeypatch.chdir(tmp_path)
    m = tolvex.open("x.mf4")
    monkeypatch.chdir("/")
    assert len(m.frames()) == 0 and pickle.loads(pickle.dumps(m))["x"].values.tolist() == [1]
    made(2)
    assert m["x"].values.tolist() == [1]
    with pytest.raises(tolvex.MdfFileError, match="replaced"):
        m.frames()


AT_THE_END = """
import sys, threading, tolvex
m = tolvex.open(sys.argv[1])
group = m.groups[-1]

def failing():
    [group.__arrow_c_stream__(), 1 / 0]

for _ in range(3):
    try:
        failing()
    except ZeroDivisionError:
        pass
sys.kept = [group.__arrow_c_stream__()]
sys.kept.append(sys.kept)
if hasattr(__import__("os"), "fork"):
    import os
    stop = threading.Event()
    def work():
        while not stop.is_set():
            m.groups[-1].signals[0].values
    threads = [threading.Thread(target=work, daemon=True) for _ in range(4)]
    [thread.start() for thread in threads]
    for _ in range(5):
        child = os.fork()
        if child == 0:
            os._exit(0 if len(tolvex.open(sys.argv[1]).groups[-1].signals[0].values) and
                     len(m.groups[-1].signals[0].values) else 1)
        assert os.waitpid(child, 0)[1] == 0
print("done")
"""


def test_interpreters_end_in_peace() -> None:
    """With threads that read, children, and streams that nobody took."""
    command = [sys.executable, "-c", AT_THE_END, str(DECODED)]
    for _ in range(3):
        run = subprocess.run(command, capture_output=True, text=True, timeout=300)
        assert (run.returncode, run.stdout, run.stderr) == (0, "done\n", "")


def test_a_handler_of_warnings_may_use_the_measurement(monkeypatch: Any) -> None:
    import tolvex._reader

    monkeypatch.setattr(tolvex._reader, "usual_threads", lambda: 1)
    seen = []

    def show(*_: Any, **__: Any) -> None:
        seen.extend(repr(m) for m in opened)

    opened: List[Any] = []
    monkeypatch.setattr(warnings, "showwarning", show)
    with warnings.catch_warnings():
        warnings.simplefilter("always")
        warnings.showwarning = show
        opened.append(tolvex.open(DATA / "unfinalized-00000170.MF4"))
        opened[0].problems, opened[0].groups[0].signals
        opened[0]._hear(["once more"], 1)
    assert seen
