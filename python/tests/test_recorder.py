"""Recording: what is written reads back equal, and nothing is lost without an error."""

from __future__ import annotations

import ctypes
import datetime
import gc
import random
import re
import resource
import threading
from contextlib import contextmanager

import numpy as np
import pandas as pd
import pytest

import tolvex
from tolvex import _arrow_taken, _recorder
from tolvex import _conversions as cv
from tolvex._frames import Frame
from tolvex._library import ArrowStream, lib
from tolvex._recorder import MdfQueueFull, Recorder
from tolvex._write import write

START = "2021-07-26T04:34:14.000001Z"
START_NS = 1_627_274_054_000_001_000


@pytest.fixture
def path(tmp_path):
    return tmp_path / "drive.mf4"


def groups(path, **options):
    """The groups that are no times of the recorder's own, by label."""
    found = {group.label: group for group in tolvex.open(path, **options).groups[2:]}
    assert found
    return found


def plain(values):
    """Values for comparing: None where there is none."""
    return [None if one is None or one is pd.NA or one != one else one for one in values]


# What is written reads back equal ---------------------------------------------------------


def numbers_of(rng, rows):
    """Columns of every numeric type, with the values at their ends."""
    columns = {}
    for kind in ("i1", "i2", "i4", "i8", "u1", "u2", "u4", "u8"):
        info = np.iinfo(kind)
        column = rng.integers(info.min, info.max, rows, dtype=kind, endpoint=True)
        column[:2] = info.min, info.max
        columns[kind] = column
    for kind in ("f2", "f4", "f8"):
        column = rng.normal(size=rows).astype(kind)
        column[:4] = np.nan, np.inf, -np.inf, -0.0
        columns[kind] = column
    columns["bool"] = rng.random(rows) < 0.5
    return columns


def frame_of(rng, rows):
    """A DataFrame with every type of pandas' that can be written."""
    columns = numbers_of(rng, rows)
    some = rng.random(rows) < 0.2
    some[0] = True
    texts = np.array([f"Straße {i}" for i in range(rows)], object)
    states = rng.choice(np.array(["off", "on", "", "müde"], object), rows)
    columns.update(
        Int64=pd.array(np.where(some, None, rng.integers(-(2**53), 2**53, rows)), "Int64"),
        UInt8=pd.array(rng.integers(0, 255, rows), "UInt8"),
        boolean=pd.array(np.where(some, None, rng.random(rows) < 0.5), "boolean"),
        Float32=pd.array(np.where(some, None, rng.integers(0, 99, rows) / 8), "Float32"),
        unique=texts,
        unique_missing=np.where(some, None, texts),
        states=states,
        states_missing=np.where(some, np.nan, states),
        string=pd.array(np.where(some, pd.NA, states), "string"),
        category=pd.Categorical.from_codes(rng.integers(-1, 3, rows), ["x", "never", ""]),
        numbers=pd.Categorical.from_codes(rng.integers(0, 3, rows), [5, 7, 2**40]),
        objects=np.where(some, None, rng.integers(0, 9, rows)),
        bytes=np.array([bytes([0, i % 256, 0]) for i in range(rows)] + [None], object)[:-1],
    )
    return pd.DataFrame(columns)


STORED = {"f2": "f4", "bool": "u1", "Int64": "f8", "boolean": "f8", "Float32": "f4", "UInt8": "u1"}
STORED.update(objects="f8", numbers="i8")


def indexes(rng, rows):
    """Times of each kind, with the nanoseconds since START that they are."""
    ns = np.cumsum(rng.integers(0, 2 * 96 * 86400 * 10**9 // rows, rows))  # about 96 days
    ns = ns[ns < 97 * 86400 * 10**9]
    seconds = np.cumsum(rng.random(len(ns)))
    dates = pd.to_datetime(START_NS + ns, utc=True)
    return [
        ("dates", dates.tz_localize(None), ns, None),
        ("zoned", dates.tz_convert("Asia/Kolkata"), ns, None),
        ("spans", pd.to_timedelta(ns), ns, None),
        ("seconds", pd.Index(seconds), None, seconds),
    ]


@pytest.mark.parametrize("kind", range(4))
def test_frames_of_pandas_read_back_equal(path, kind):
    seed = random.randrange(2**32)
    print("seed", seed)
    rng = np.random.default_rng(seed)
    _, index, ns, seconds = indexes(rng, 700)[kind]
    data = frame_of(rng, len(index)).set_index(index)
    units = {"i4": "km/h", "states": "°"}
    write(path, data, start=START, units=units, comments={"f8": "of old\nand <new>"}, name="all")
    group = groups(path)["all"]
    assert group.measurement.start_ns == START_NS
    if ns is None:
        assert group.time.tobytes() == seconds.tobytes()
    else:
        assert (group.time_ns == START_NS + ns).all()
    assert [signal.name for signal in group.signals] == list(data)
    for name, column in data.items():
        signal = group[name]
        assert plain(signal.filled().tolist()) == plain(column.tolist()), name
        if name in STORED or column.dtype.kind in "iuf":
            assert signal.dtype == np.dtype(STORED.get(name, column.dtype)), name
    again = group.to_pandas(time="datetime")
    assert set(again["category"].cat.categories) == {"x", ""} | set(data["category"].dropna())
    assert np.isnan(group["states_missing"].raw).sum() == data["states_missing"].isna().sum()
    assert [group[name].unit for name in units] == list(units.values())
    assert group["f8"].comment == "of old\nand <new>" and group["i4"].comment == ""


@pytest.mark.parametrize("source", ["table", "group", "signals", "stream"])
def test_what_was_read_is_written_again(path, tmp_path, source):
    rng = np.random.default_rng(4)
    index = pd.date_range("2021-07-26 04:34:14.000000999", periods=300, freq="17us")
    write(path, frame_of(rng, 300).set_index(index), units={"i8": "Pa"}, name="first")
    first = groups(path)["first"]
    sources = {
        "table": first.table,
        "group": lambda: first,
        "signals": lambda: list(first.signals),
        "stream": first.stream,
    }
    copy = tmp_path / "copy.mf4"
    write(copy, sources[source](), name="copy")
    again = groups(copy)["copy"]
    assert again.measurement.start_ns == first.measurement.start_ns
    assert (again.time_ns == first.time_ns).all()
    for signal, other in zip(first.signals, again.signals):
        assert (signal.name, signal.unit, signal.dtype) == (other.name, other.unit, other.dtype)
        assert plain(signal.filled().tolist()) == plain(other.filled().tolist())


def test_joined_and_resampled_signals_are_written(path, tmp_path):
    fast = {"time": np.arange(5) / 4, "n": np.arange(5)}
    slow = {"time": [0.25, 1.0], "on": ["no", "yes"], "state": pd.Categorical(["a", "b"])}
    write(path, {"fast": fast, "slow": slow}, start=START)
    m = tolvex.open(path)
    copy = tmp_path / "copy.mf4"
    write(copy, {"joined": m.table(["n", "on", "state"]), "part": m["n"][0.5:1.0]})
    joined, part = groups(copy).values()
    assert joined.time.tolist() == [0.0, 0.25, 0.5, 0.75, 1.0]
    assert plain(joined["on"].values) == [None, "no", None, None, "yes"]
    assert plain(joined["state"].values) == [None, "a", None, None, "b"]
    assert (part.time.tolist(), part["n"].values.tolist()) == ([0.5, 0.75], [2, 3])
    write(copy, m["n"].resample(0.1, interpolate=True))
    (again,) = groups(copy).values()
    assert np.allclose(again["n"].values, np.arange(11) * 0.4)


class ArrowTable:
    """A table of Arrow, made by hand: (name, format, buffers), rows from `offset` on, no nulls.

    The validity of the columns is their first buffer, of a dictionary also its values.
    """

    def __init__(self, columns, rows, offset):
        self.columns, self.rows, self.offset, self.kept = columns, rows, offset, []

    def keep(self, one):
        self.kept.append(one)
        return one

    def schema(self, format, name=b"", children=(), dictionary=None):
        made = self.keep(_arrow_taken._Schema(format=format, name=name))
        pointers = [ctypes.pointer(child) for child in children]
        made.children = (ctypes.POINTER(_arrow_taken._Schema) * len(pointers))(*pointers)
        made.n_children = len(pointers)
        if dictionary is not None:
            made.dictionary = ctypes.pointer(dictionary)
        return made

    def array(self, length, offset, buffers, children=(), dictionary=None):
        made = self.keep(_arrow_taken._Array(length=length, offset=offset, null_count=-1))
        held = [None if one is None else self.keep(np.frombuffer(one, "u1")) for one in buffers]
        addresses = [None if one is None else one.ctypes.data for one in held]
        made.buffers = (ctypes.c_void_p * len(held))(*addresses)
        pointers = [ctypes.pointer(child) for child in children]
        made.children = (ctypes.POINTER(_arrow_taken._Array) * len(pointers))(*pointers)
        if dictionary is not None:
            made.dictionary = ctypes.pointer(dictionary)
        return made

    def __arrow_c_stream__(self, requested_schema=None):
        fields, arrays = [], []
        for name, format, buffers in self.columns:
            inner = None
            if isinstance(buffers[-1], tuple):
                *buffers, (size, form, values) = buffers
                inner = self.schema(form), self.array(size, 0, values)
            schema, array = inner if inner else (None, None)
            fields.append(self.schema(format, name, (), schema))
            arrays.append(self.array(self.rows, self.offset, buffers, (), array))
        batches = [self.array(self.rows, 0, [None], arrays)]

        def move(made, target):
            made.release = self.keep(ctypes.CFUNCTYPE(None, ctypes.c_void_p)(lambda _: None))
            ctypes.memmove(target, ctypes.addressof(made), ctypes.sizeof(made))
            return 0

        def following(_, target):
            if batches:
                return move(batches.pop(), target)
            ctypes.memset(target, 0, ctypes.sizeof(_arrow_taken._Array))
            return 0

        whole = self.schema(b"+s", b"", fields)
        functions = [
            self.keep(_arrow_taken._Next(one))
            for one in (lambda _, target: move(whole, target), following)
        ]
        get_schema, get_next = (ctypes.cast(one, ctypes.c_void_p).value for one in functions)
        stream = self.keep(ArrowStream(get_schema=get_schema, get_next=get_next))
        name = self.keep(ctypes.c_char_p(b"arrow_array_stream"))
        new = ctypes.pythonapi.PyCapsule_New
        return new(ctypes.addressof(stream), name, None)


def test_tables_of_arrow_are_written(path):
    valid = b"\x0b"  # of rows 0, 1 and 3
    view = np.array([[2, 0x6261, 0, 0], [13, 0, 0, 3], [9, 9, 9, 9], [0, 0, 0, 0]], "i4").tobytes()
    ends = np.array([0, 1, 3, 3, 6], "i4").tobytes()

    def whole(numbers):
        return np.array(numbers, "i8").tobytes()

    table = ArrowTable(
        [
            (b"time", b"tsu:Europe/Paris", [None, np.arange(4, dtype="i8").tobytes()]),
            (b"half", b"e", [None, np.arange(4, dtype="f2").tobytes()]),
            (b"bits", b"b", [None, b"\x0a"]),
            (b"some", b"b", [valid, b"\x0a"]),
            (b"int", b"S", [valid, np.arange(4, dtype="u2").tobytes()]),
            (b"text", b"u", [valid, ends, b"abcdef"]),
            (b"view", b"vu", [valid, view, b"...thirteen more"]),
            (b"bytes", b"w:2", [None, b"aabbccdd"]),
            (b"code", b"c", [valid, b"\1\0\0\1", (2, b"U", [None, whole([0, 2, 5]), b"yesno"])]),
            (b"number", b"c", [None, b"\1\0\0\1", (2, b"l", [None, whole([0, 7])])]),
        ],
        3,
        1,
    )
    write(path, table)
    (group,) = groups(path).values()
    assert group.time_ns.tolist() == [1000, 2000, 3000]
    expected = {
        "half": [1.0, 2.0, 3.0],
        "bits": [1, 0, 1],
        "some": [1, None, 1],
        "int": [1, None, 3],
        "text": ["bc", None, "def"],
        "view": ["thirteen more", None, ""],
        "bytes": [b"bb", b"cc", b"dd"],
        "code": ["ye", None, "sno"],
        "number": [0, 0, 7],
    }
    assert {name: plain(group[name].filled().tolist()) for name in expected} == expected
    table.columns.append((b"list", b"+l", [None]))
    with pytest.raises(tolvex.MdfTypeError, match=r"list: Arrow's type '\+l' cannot be stored"):
        write(path, table)


def test_arrays_and_several_groups_are_written(path):
    dates = [datetime.datetime(2022, 1, 1, 0, 0, second) for second in range(3)]
    slow = {
        "when": np.array(dates, object),
        "map": np.arange(12, dtype=">i2").reshape(3, 2, 2),
        "masked": np.ma.MaskedArray([1, 2, 3], [False, True, False], np.int16),
        "list": [1, None, 3],
        "fixed": np.array([b"ab", b"c", b""]),
        "wide": np.array(["ä", "bc", "ä\U0001f600"]),
    }
    fast = pd.DataFrame({"time": [0.0, 0.1], "raw": [1, 2]})
    with pytest.raises(tolvex.MdfValueError, match="there is no time"):
        write(path, {"slow": slow, "fast": fast})
    slow["time"] = slow.pop("when")
    write(path, {"slow": slow, "fast": fast}, conversions={"raw": cv.linear(0.5, 10)})
    found = groups(path)
    group = found["slow"]
    assert group.measurement.start == dates[0].replace(tzinfo=datetime.timezone.utc)
    assert found["fast"].time.tolist() == [0.0, 0.1]
    assert found["fast"]["raw"].values.tolist() == [10.5, 11.0]
    assert group.time.tolist() == [0.0, 1.0, 2.0]
    assert group["map[1][0]"].values.tolist() == [2, 6, 10]
    assert plain(group["masked"].values) == plain(group["list"].values) == [1, None, 3]
    assert group["fixed"].values.tolist() == ["ab", "c", ""]
    assert group["wide"].values.tolist() == ["ä", "bc", "ä\U0001f600"]


def test_a_series_and_a_structured_array_are_tables(path):
    series = pd.Series([1.5, 2.5], index=[0.0, 0.1], name="Speed")
    write(path, series)
    speed = tolvex.open(path)["Speed"]
    assert speed.values.tolist() == [1.5, 2.5] and speed.time.tolist() == [0.0, 0.1]
    with pytest.raises(tolvex.MdfNameError, match="the Series has no name"):
        write(path, series.rename(None))
    rows = np.array([(0.0, 7), (0.2, 8)], [("time", "f8"), ("gear", "u1")])
    write(path, {"rows": rows})
    gear = groups(path)["rows"]["gear"]
    assert gear.values.tolist() == [7, 8] and gear.time.tolist() == [0.0, 0.2]


FIELDS = [
    (order + kind, value)
    for order in "<>"
    for kind, value in [
        ("i1", -128),
        ("i2", -2),
        ("i4", 2**31 - 1),
        ("i8", -(2**63)),
        ("u1", 255),
        ("u2", 2**16 - 1),
        ("u4", 2**32 - 1),
        ("u8", 2**64 - 1),
        ("f2", 0.5),
        ("f4", -0.25),
        ("f8", 1e300),
        ("?", True),
        ("S3", "aä"),
        ("U2", "äö"),
        ("V2", b"\0\1"),
    ]
]


def test_single_records_and_arrays_of_each_type_are_the_same(path):
    fields = {f"f{i}": kind for i, (kind, _) in enumerate(FIELDS)}
    values = [value for _, value in FIELDS]
    named = {name: [value] for name, value in zip(fields, values)}
    order = ["time", *fields, "xy"]
    with Recorder(path, start=START) as r:
        group = r.group("types", [*fields.items(), ("xy", ">i2", (2,))])
        assert group.names == tuple(order)
        group.append(0.5, *values, [3, -4])
        group.append(1.0, **dict(zip(fields, values)), xy=np.array([3, -4]))
        group.extend({**named, "xy": [[3, -4]], "time": [1.5]})
        records = np.zeros(2, group.dtype)
        for name, value in zip(fields, values):
            records[name] = value.encode() if isinstance(value, str) else value
        records["xy"], records["time"] = [3, -4], [2.0, 2.5]
        group.extend(records)
    assert records.tobytes() in path.read_bytes()  # as they are, without a copy of another form
    found = groups(path)["types"]
    assert found.time.tolist() == [0.5, 1.0, 1.5, 2.0, 2.5]
    for name, value in zip(fields, values):
        assert found[name].values.tolist() == [value] * 5, name
    assert found["xy[0]"].values.tolist() == [3] * 5
    assert found["xy[1]"].values.tolist() == [-4] * 5


CONVERSIONS = [
    (cv.linear(0.5, -3), [0, 10], [-3.0, 2.0]),
    (cv.rational([0, 2, 1, 0, 0, 4]), [1, 2], [0.75, 1.25]),
    (cv.algebraic("2 * X + 1"), [1, 3], [3.0, 7.0]),
    (cv.table([0, 10], [0, 100]), [5, 20], [50.0, 100.0]),
    (cv.table([0, 10], [0, 100], interpolate=False), [4, 6], [0.0, 100.0]),
    (cv.ranges([(0, 5, 1.5), (6, 9, 2.5)], default=-1), [5, 6, 10], [1.5, 2.5, -1.0]),
    (cv.ranges([(0, 5, 1.5)]), [5, 6], [1.5, None]),
    ({0: "off", 2: ""}, [0, 2, 0], ["off", "", "off"]),
    (cv.texts({0: "off"}, "other"), [0, 9], ["off", "other"]),
    (cv.range_texts([(0, 3, "low"), (4, 9, "high")], "none"), [3, 4, 10], ["low", "high", "none"]),
]


def test_conversions_say_what_stored_values_mean(path):
    with Recorder(path) as r:
        for i, (conversion, raw, _) in enumerate(CONVERSIONS):
            group = r.group(f"g{i}", {"x": "i2"}, conversions={"x": conversion}, units={"x": "V"})
            group.extend({"time": np.arange(len(raw)), "x": raw})
    found = groups(path)
    for i, (_, raw, physical) in enumerate(CONVERSIONS):
        signal = found[f"g{i}"]["x"]
        assert signal.raw.tolist() == raw and signal.unit == "V"
        assert plain(signal.values.tolist()) == physical, CONVERSIONS[i]


# What cannot be written -------------------------------------------------------------------


TIMES = {"time": [0.0, 1.0]}
DAY = np.datetime64("2022-01-01", "ns")
REFUSED = [
    ({"x": [1, 2]}, "there is no time: give"),
    ({**TIMES, "x": [1]}, "x: 1 rows, but there are 2 times"),
    ({**TIMES, "x": [1, "a"]}, "x, row 1: str 'a' cannot be stored beside int 1"),
    ({**TIMES, "x": [1, DAY]}, "x, row 1: datetime64"),
    ({**TIMES, "x": [DAY, DAY]}, "x: dates other than the time cannot be stored"),
    ({**TIMES, "x": pd.array([2**53 + 1, None], "Int64")}, "x, row 0: 9007199254740993 cannot"),
    ({**TIMES, "x": np.array([0.5, 2**60 + 1], object)}, "x, row 1: 1152921504606846977 cannot"),
    ({**TIMES, "x": [1j, 2j]}, "x: values of type complex128"),
    ({**TIMES, "x": [b"a", None]}, "x, row 1: missing bytes cannot be stored"),
    ({**TIMES, "x": [b"a", b"bc"]}, "x, row 1: bytes of 2 cannot be stored"),
    ({**TIMES, "x": np.array(["a\0b", "c"], object)}, "x, row 0: a text cannot have a NUL"),
    ({**TIMES, "x": np.array(["\ud800", "c"], object)}, "x: no text"),
    (
        {**TIMES, "x": np.array(["a\0b", "a\0b"], object)},
        "x: a text of a conversion cannot have a NUL",
    ),
    ({"time": [0.0, np.nan], "x": [1, 2]}, "time, row 1: the row has no time: nan"),
    ({"time": [DAY, np.datetime64("NaT")], "x": [1, 2]}, "time, row 1: no time that"),
    ({"time": ["a", "b"], "x": [1, 2]}, "time: expected numbers|no date"),
    ({"time": [1960, 2], "when": np.array(["1960", "1970"], "M8[s]")}, "when: dates other"),
]


@pytest.mark.parametrize("data,message", REFUSED)
def test_what_cannot_be_written_leaves_no_file(path, data, message):
    with pytest.raises(tolvex.MdfError, match=message):
        write(path, data)
    assert not path.exists()


# A type, and two values of which the second does not fit.
UNFIT = [
    ("u1", [1, 256], "256 cannot be stored as uint8"),
    ("u8", [1, -1], "-1 cannot be stored as uint64"),
    ("i8", np.array([0, 2**63], "u8"), "9223372036854775808 cannot"),
    ("i4", [1, 0.5], "0.5 cannot be stored as int32"),
    ("i4", [1, np.nan], "nan cannot"),
    ("f8", [0, 2**53 + 1], "9007199254740993 cannot"),
    ("f8", np.array([0, 2**64 - 1], "u8"), "18446744073709551615 cannot"),
    ("f4", [0, 2**24 + 1], "16777217 cannot"),
    ("i2", np.ma.MaskedArray([1, 2], [False, True]), "the value is missing"),
    ("S2", ["ab", "äb"], "'äb' does not fit into 2 bytes"),
    ("S2", [b"a", b"a\0b"], "does not fit into 2 bytes"),
    ("V2", np.array([b"ab", "cd"], object), "expected bytes, found 'cd'"),
]


@pytest.mark.parametrize("kind,values,message", UNFIT)
def test_values_that_do_not_fit_are_refused(path, kind, values, message):
    with Recorder(path) as r:
        group = r.group("g", {"x": kind})
        with pytest.raises(tolvex.MdfError, match=f"x, row 1: .*{message}"):
            group.extend({"time": [0.0, 1.0], "x": values})
        group.append(0.0, values[0])
        if kind[0] != "f":  # a single number is rounded
            with pytest.raises(tolvex.MdfError, match="does not fit|expected"):
                group.append(0.0, values[1])
        for wrong, what in (
            ({"time": [0.0]}, "nothing for the field 'x'"),
            ({"time": [0.0], "x": values[:1], "y": [1]}, "no field 'y'"),
            ({"time": [0.0, 1.0], "x": values[:1]}, "differ in length"),
        ):
            with pytest.raises(tolvex.MdfError, match=what):
                group.extend(wrong)
    assert len(groups(path)["g"]) == 1


def test_definitions_that_cannot_be_are_refused(path):
    wrong = [
        (dict(fields={"x": "c16"}), "x: no signal can have the dtype complex128"),
        (dict(fields={"x": "U"}), "x: no signal"),
        (dict(fields={"x": "M8[ns]"}), "x: no signal"),
        (dict(fields=[("x", "f4"), ("x", "f4")]), "fields"),
        (dict(fields=[("x", "f4", 2), ("x[0]", "f4")]), "two signals"),
        (dict(fields={"time": "M8[ns]"}), "time: expected seconds"),
        (dict(fields={"x": "f4"}, units={"y": "m"}), "units: 'g' has no field 'y'"),
        (dict(fields={"x": "f4"}, conversions={"x": 3}), "expected a conversion"),
        (dict(fields={"x": "f4"}, units={"x": "a\0b"}), "NUL"),
    ]
    with Recorder(path) as r:
        for arguments, message in wrong:
            with pytest.raises(tolvex.MdfError, match=message):
                r.group("g", **arguments)
    for make in (
        lambda: cv.table([1, 0], [1, 2]),
        lambda: cv.rational([1, 2]),
        lambda: cv.texts({i: "" for i in range(65535)}),
        lambda: cv.texts({2**53 + 1: "a"}),
        lambda: cv.linear("x"),
        lambda: cv.ranges([(2, 1, 0)]),
    ):
        with pytest.raises(tolvex.MdfError):
            make()
    with pytest.raises(tolvex.MdfError, match="date or nanoseconds"):
        Recorder(path, start=1.5)
    with pytest.raises(tolvex.MdfError, match="needs an extension"):
        Recorder(path.parent / "drive", split_size=1000)


# What goes wrong --------------------------------------------------------------------------


@contextmanager
def files_limited_to(size):
    """As on a full disk: writes behind that position of a file fail."""
    before = resource.getrlimit(resource.RLIMIT_FSIZE)
    resource.setrlimit(resource.RLIMIT_FSIZE, (size, before[1]))
    try:
        yield
    finally:
        resource.setrlimit(resource.RLIMIT_FSIZE, before)


def test_a_full_disk_is_an_error_that_counts(path):
    records = np.zeros(20_000, [("time", "f8"), ("x", "i4")])
    records["x"] = np.arange(len(records))
    for asynchronous in (False, True):
        recorder = Recorder(path, asynchronous=asynchronous)
        group = recorder.group("g", records.dtype)
        refused = 0
        with files_limited_to(100_000):
            for part in np.array_split(records, 7):
                try:
                    group.extend(part)
                except tolvex.MdfFileError as error:
                    found = re.match(r"(\d+) of (\d+) records were taken: .*drive", str(error))
                    taken, of = int(found[1]), int(found[2])
                    assert of == len(part) and taken < of
                    refused += of - taken
            with pytest.raises(tolvex.MdfFileError, match=r"(\d+) records were lost: .*drive") as e:
                recorder.close()
        lost = int(str(e.value).split(" records")[0].split()[-1])
        values = groups(path)["g"]["x"].values
        assert 0 < len(values) < len(records)
        assert len(values) + lost == len(records) and refused <= lost
        assert not asynchronous or refused == 0
        recorder.close()  # nothing happens any more


def test_paths_that_cannot_be_recorded_into(path, tmp_path):
    for wrong in (tmp_path / "none" / "a.mf4", tmp_path, "/dev/full"):
        with pytest.raises(tolvex.MdfFileError, match=str(wrong)):
            Recorder(wrong)
        with pytest.raises(tolvex.MdfFileError, match=str(wrong)):
            write(wrong, {**TIMES, "x": [1, 2]})
    with pytest.raises(tolvex.MdfValueError, match="NUL"):
        Recorder("a\0b.mf4")
    write(path, {**TIMES, "x": [1, 2]})
    before = path.read_bytes()
    with pytest.raises(tolvex.MdfFileError):
        write(path, {**TIMES, "x": [3, 4]}, overwrite=False)
    first = Recorder(tmp_path / "other.mf4")
    with pytest.raises(tolvex.MdfFileError, match="other.mf4"):
        Recorder(tmp_path / "other.mf4")  # is being recorded into
    first.close()
    assert path.read_bytes() == before


def test_recordings_are_split(path):
    values = np.arange(30_000)
    with Recorder(path, split_size=100_000) as r:
        with pytest.raises(tolvex.MdfValueError, match="split_size: recordings under way split"):
            Recorder(path.parent / "other.mf4")
        r.group("g", {"x": "i4"}).extend({"time": values / 8, "x": values}, wait=True)
    assert len(list(path.parent.glob("drive_*.mf4"))) > 1
    whole = tolvex.open(path, parts=True)
    assert (whole["x"].values == values).all() and (whole["x"].time == values / 8).all()
    Recorder(path.parent / "other.mf4").close()  # no longer refused


def test_exceptions_and_garbage_leave_complete_files(path):
    class Stop(Exception):
        pass

    with pytest.raises(Stop):
        with Recorder(path) as r:
            r.group("g", {"x": "u1"}).append(0.0, 7)
            raise Stop
    assert groups(path)["g"]["x"].values.tolist() == [7]
    with pytest.raises(tolvex.MdfValueError, match="the recording has ended"):
        r.group("h", {"x": "u1"})

    recorder = Recorder(path, asynchronous=True)
    group = recorder.group("g", {"x": "u1"})
    group.append(0.0, 8)
    with pytest.warns(ResourceWarning, match="was not closed"):
        del recorder, group, r
        gc.collect()
    m = tolvex.open(path)
    assert m["x"].values.tolist() == [8] and not m.problems and not m.notices


# Threads ----------------------------------------------------------------------------------


@pytest.mark.parametrize("asynchronous", [False, True])
def test_threads_lose_nothing(path, asynchronous):
    threads, rounds = 8, 40
    with Recorder(path, asynchronous=asynchronous) as r:
        group = r.group("g", {"who": "u1", "n": "u4"})

        def work(who):
            for i in range(0, rounds * 100, 100):
                group.append(0.0, who, i)
                rest = np.arange(i + 1, i + 100)
                group.extend({"time": rest, "who": np.full(99, who), "n": rest}, wait=True)

        running = [threading.Thread(target=work, args=(who,)) for who in range(threads)]
        for thread in running:
            thread.start()
        for thread in running:
            thread.join()
    found = groups(path)["g"]
    who, n = found["who"].values, found["n"].values
    for one in range(threads):
        assert (n[who == one] == np.arange(rounds * 100)).all()


def test_closing_beside_threads_ends_them_with_an_error(path):
    recorder = Recorder(path, asynchronous=True)
    group = recorder.group("g", {"n": "u4"})
    counts, ready = [0] * 4, threading.Barrier(5)

    def work(who):
        ready.wait()
        with pytest.raises(tolvex.MdfError, match="the recording has ended"):
            while True:
                group.append(0.0, who)
                counts[who] += 1

    running = [threading.Thread(target=work, args=(who,)) for who in range(4)]
    for thread in running:
        thread.start()
    ready.wait()
    while min(counts) < 100:
        pass
    recorder.close()
    for thread in running:
        thread.join()
    n = groups(path)["g"]["n"].values
    assert [int((n == who).sum()) for who in range(4)] == counts


@contextmanager
def writer_held(at):
    """Holds the library's writing thread when it says a text with `at`, until the block ends."""
    held, go_on = threading.Event(), threading.Event()

    @ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_char_p)
    def hear(_, text):
        if at in text and not go_on.is_set():
            held.set()
            go_on.wait()

    lib.setDiagnosticHandler(hear, None)
    try:
        yield held
    finally:
        go_on.set()
        lib.setDiagnosticHandler(None, None)


def test_a_full_queue_is_told(path):
    recorder = Recorder(path, asynchronous=True, split_size=20_000)
    group = recorder.group("g", {"n": "u4"})
    given = 0
    with writer_held(b"splitFile:") as held:
        while not held.is_set():
            group.append(0.0, given)
            given += 1
        with pytest.raises(MdfQueueFull, match="0 of 1 records") as full:
            while True:
                group.append(0.0, given)
                given += 1
        assert (full.value.taken, full.value.given) == (0, 1)
        assert recorder.pending == 10_000
        with pytest.raises(MdfQueueFull, match="0 of 5 records"):
            group.extend({"time": np.zeros(5), "n": np.zeros(5, int)})
    n = np.arange(given, given + 5)
    group.extend({"time": np.zeros(5), "n": n}, wait=True)
    recorder.close()
    assert (tolvex.open(path, parts=True)["n"].values == np.arange(given + 5)).all()


# CAN frames -------------------------------------------------------------------------------


def some_frames(rng, count):
    """Frames of every kind and size, in order of time."""
    sizes = [0, 1, 7, 8, 12, 64]
    made = []
    times = START_NS + np.cumsum(rng.integers(0, 10**7, count))
    for time_ns in times.tolist():
        kind = int(rng.choice([0, 0, 0, 1, 2]))
        isfd = kind == 0 and bool(rng.random() < 0.5)
        size = 0 if kind == 1 else int(rng.choice(sizes if isfd else sizes[:4]))
        flags = int(rng.random() < 0.3) | (0x100 if rng.random() < 0.5 else 0)
        flags |= 0x4 | int(rng.choice([0, 0x8, 0x10, 0x18])) if isfd else 0
        flags |= 0x80 if kind == 1 else 0
        id = int(rng.integers(0, 0x20000000 if flags & 0x100 else 0x800))
        dlc = {12: 9, 64: 15}.get(size, size) if kind != 1 else int(rng.integers(0, 9))
        data = rng.integers(0, 256, size, np.uint8).tobytes()
        made.append(Frame(time_ns, id, int(rng.integers(0, 256)), dlc, flags, kind, data))
    return made


def recorded(path, record, **options):
    with Recorder(path, start=START, **options) as r:
        record(r)
    return list(tolvex.open(path).frames())


@pytest.mark.parametrize("asynchronous", [False, True])
def test_frames_read_back_equal_however_they_are_given(path, monkeypatch, asynchronous):
    monkeypatch.setattr(_recorder, "_FRAMES", 64)  # several calls of the library
    seed = random.randrange(2**32)
    print("seed", seed)
    frames = some_frames(np.random.default_rng(seed), 500)

    def one_by_one(r):
        for f in frames:
            r.frame(
                f.id,
                f.data,
                time_ns=f.time_ns,
                bus=f.bus,
                dlc=f.dlc,
                fd=f.is_fd,
                brs=bool(f.flags & 8),
                esi=bool(f.flags & 16),
                extended=f.is_extended,
                remote=f.is_remote,
                error=f.is_error,
                transmitted=f.is_transmitted,
            )

    options = {"asynchronous": asynchronous}
    assert recorded(path, one_by_one, **options) == frames
    assert recorded(path, lambda r: r.frames(iter(frames), wait=True), **options) == frames
    read = tolvex.open(path).frames()
    copy = path.parent / "copy.mf4"
    assert recorded(copy, lambda r: r.frames(read, wait=True), **options) == frames
    flags = read.flags
    arrays = {
        "time_ns": read.time_ns,
        "id": read.id,
        "bus": read.bus,
        "dlc": read.dlc,
        "kind": read.kind,
        "data": [f.data for f in read],
        "fd": flags & 4 != 0,
        "brs": flags & 8 != 0,
        "esi": flags & 16 != 0,
        "extended": flags & 0x100 != 0,
        "transmitted": flags & 1 != 0,
    }
    assert recorded(copy, lambda r: r.frames(arrays, wait=True), **options) == frames


def test_frames_of_few_arrays(path):
    data = np.arange(24, dtype=np.uint8).reshape(2, 12)
    given = {"time": [0.5, 1.5], "id": [0x123, 0x12345], "data": data}
    first, second = recorded(path, lambda r: r.frames(given))
    assert first.time_ns == START_NS + 500_000_000 and second.data == data[1].tobytes()
    assert (first.flags, second.flags, first.bus, first.dlc) == (0x4, 0x104, 1, 9)
    (frame,) = recorded(path, lambda r: r.frame(0x7FF, [1, 2], time=0.25, remote=False))
    assert frame == Frame(START_NS + 250_000_000, 0x7FF, 1, 2, 0, 0, b"\1\2")


WRONG_FRAMES = [
    (dict(id=0x20000000), "identifier of 29 bits"),
    (dict(id=0x800, extended=False), "no identifier of 11 bits"),
    (dict(id=1, data=bytes(65)), "at most 64 bytes"),
    (dict(id=1, data=bytes(9), fd=False), "at most 8 bytes"),
    (dict(id=1, data=bytes(9)), "configured for 8"),
    (dict(id=1, bus=256), "a bus below 256"),
    (dict(id=1, bus=-1), "no frame: identifier 0x1, bus -1"),
    (dict(id=1, data=b"1", remote=True), "a remote frame has a payload"),
    (dict(id=1, data=b"12", dlc=1), "data length code stands for 1"),
    (dict(id=1, time=0, time_ns=0), "either"),
    (dict(id=1, time=-1), "before the start"),
]


def test_frames_that_cannot_be_recorded(path):
    with Recorder(path, start=START, max_data_length=8) as r:
        for arguments, message in WRONG_FRAMES:
            with pytest.raises(tolvex.MdfValueError, match=message):
                r.frame(**arguments)
        for frames, message in [
            ([Frame(START_NS, 1, 1, 9, 4, 0, bytes(12))], "frame 0: its payload has 12 bytes"),
            ([Frame(START_NS, 1, 1, 1, 0, 0, b"12")], "frame 0: its payload has 2 bytes"),
            ({"id": [1], "time": [0.0], "bus": [-1]}, "bus: expected 0"),
            ({"id": [1, 2], "time": [0.0]}, "differ in length"),
            ({"id": [1], "data": [b""]}, "either `time` or `time_ns`"),
            ({"id": [1], "time": [0.0], "data": np.zeros((1, 2))}, "rows of uint8"),
            ({"id": [1], "time": [0.0], "speed": [1]}, "no 'speed'"),
            ([(1, 2)], "expected tolvex.Frame"),
        ]:
            with pytest.raises(tolvex.MdfError, match=message):
                r.frames(frames)
    assert len(tolvex.open(path).frames()) == 0


def test_frames_from_threads_and_on_a_full_disk(path):
    with Recorder(path, asynchronous=True) as r:

        def work(who):
            for i in range(500):
                r.frame(i, bytes([who]), time=i * 1e-3, bus=who)

        running = [threading.Thread(target=work, args=(who,)) for who in range(4)]
        for thread in running:
            thread.start()
        for thread in running:
            thread.join()
    m = tolvex.open(path)
    for who in range(4):
        found = m.frames(bus=who)
        assert found.id.tolist() == list(range(500)) and set(found.data.tolist()) == {who}

    given = {"id": np.arange(2000), "time": np.zeros(2000), "extended": True}
    recorder = Recorder(path)
    with files_limited_to(60_000), pytest.raises(tolvex.MdfError, match="of 2000 frames"):
        recorder.frames(given)
    with pytest.raises(tolvex.MdfFileError, match=r"records were lost") as e:
        recorder.close()
    lost = int(re.search(r"(\d+) records", str(e.value))[1])
    assert len(tolvex.open(path).frames()) + lost == 2000
