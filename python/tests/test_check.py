"""Check and recovery, compared with the program and with what was recorded."""

from __future__ import annotations

import json
import os
import pickle
import signal
import struct
import subprocess
from pathlib import Path
from typing import Any, List

import numpy as np
import pytest
from builder import DATA

import tolvex
from tolvex import _progress, _show
from tolvex._check import check, recover

RAW = DATA / "raw-00000005.MF4"
LIBRARY = Path(os.environ.get("TOLVEX_LIBRARY", "libtolvex.so"))
PROGRAM = Path(os.environ.get("TOLVEX_PROGRAM", LIBRARY.parent.parent / "bin" / "tolvex"))


@pytest.fixture()
def cut(tmp_path: Path) -> Path:
    """A real file whose signal data end early."""
    path = tmp_path / "<cut>.mf4"
    path.write_bytes(RAW.read_bytes()[:150_000])
    return path


def damaged(folder: Path) -> List[Path]:
    """Real files as they are, cut, with a block that is overwritten, and none at all."""
    paths = sorted(DATA.glob("*.[mM][fF]4"))
    for original in list(paths):
        whole = original.read_bytes()
        channel = whole.index(b"##CN")
        changes = {
            "cut": whole[: len(whole) * 2 // 3],
            "overwritten": whole[:channel] + bytes(8) + whole[channel + 8 :],
            "zeros": whole[: len(whole) // 2] + bytes(len(whole) - len(whole) // 2),
        }
        for name, content in changes.items():
            paths.append(folder / f"{name}-{original.name}")
            paths[-1].write_bytes(content)
    paths.append(folder / "text.mf4")
    paths[-1].write_text("no measurement")
    return paths


@pytest.mark.skipif(not PROGRAM.exists(), reason="there is no program tolvex")
def test_finds_what_the_program_finds(tmp_path: Path) -> None:
    for path in damaged(tmp_path):
        run = subprocess.run(
            [PROGRAM, "doctor", "--format", "json", path], capture_output=True, check=False
        )
        said, report = json.loads(run.stdout), check(path)
        assert (report.errors, report.warnings) == (said["errors"], said["warnings"]), path
        assert bool(report) == report.ok == (run.returncode == 0)
        found = [
            {
                "severity": "error" if one.is_error else "warning",
                "position": one.position,
                "what": one.what,
                "expected": one.expected,
                "found": one.found,
            }
            for one in report.findings
        ]
        assert found == said["findings"], path


def test_reports_show_themselves(tmp_path: Path, cut: Path) -> None:
    report = check(cut)
    assert not report.ok and report.errors == len(report.findings)
    (signal_data,) = [one for one in report.findings if one.what == "SD block: length"]
    stated = struct.unpack_from("<Q", RAW.read_bytes(), signal_data.position)[0]
    assert signal_data.found == str(stated)  # its length in the file
    line = f"error at {signal_data.position}: SD block: length: expected "
    assert line in str(report) and repr(report) == str(report)
    assert "&lt;cut&gt;.mf4" in report._repr_html_() and "<cut>" not in report._repr_html_()
    assert pickle.loads(pickle.dumps(report)) == report
    assert str(check(RAW)) == "raw-00000005.MF4: as it should be"

    recovery = recover(cut, tmp_path / "out.mf4")
    lost = sum(group.lost_rows for group in recovery.groups)
    assert f"{_show.counted(lost, 'row')} lost" in str(recovery)
    assert recovery.groups[0].losses[0] in str(recovery)
    assert "&lt;cut&gt;.mf4" in recovery._repr_html_()


def test_recovers_what_is_there(tmp_path: Path, cut: Path) -> None:
    output = tmp_path / "out.mf4"
    report = recover(cut, output, verify=True)
    assert not report.lossless
    (frames,) = [group for group in report.groups if group.name == "CAN_DataFrame"]
    with tolvex.open(output) as recovered, tolvex.open(RAW) as original:
        name = ("CAN_DataFrame.DataBytes", "CAN_DataFrame")
        values, whole = recovered[name].values, original[name].values
        assert frames.rows == len(values) > 1000
        assert frames.rows + frames.lost_rows == len(whole)
        assert values.tolist() == whole[: len(values)].tolist()
        times = original[name].time[: len(values)]
        np.testing.assert_array_equal(recovered[name].time, times)
    assert check(output).ok

    unfinished = DATA / "unfinalized-00000002.MF4"
    report = recover(unfinished, output, overwrite=True)
    assert report.lossless and report.repairs + sum([g.repairs for g in report.groups], ())
    with tolvex.open(output) as recovered, pytest.warns(tolvex.MdfWarning):
        with tolvex.open(unfinished) as original:
            assert recovered.start_ns == original.start_ns
            assert len(recovered.frames()) == len(original.frames()) == 9600


def test_leaves_no_output_but_a_whole_one(tmp_path: Path, cut: Path) -> None:
    output, text = tmp_path / "out.mf4", tmp_path / "text.mf4"
    text.write_text("no measurement")
    with pytest.raises(tolvex.MdfFileError, match="text.mf4: exists; overwrite=True"):
        recover(cut, text)
    assert text.read_text() == "no measurement"
    with pytest.raises(tolvex.MdfFileError, match="max_output changes it"):
        recover(cut, output, max_output=1000)
    failing = [(text, output), (tmp_path / "none.mf4", output), (cut, tmp_path / "none" / "out")]
    for name, to in failing:
        with pytest.raises(tolvex.MdfFileError, match="none|no measurement"):
            recover(name, to)
    with pytest.raises(tolvex.MdfFileError, match="the output is the input"):
        recover(cut, cut, overwrite=True)
    with pytest.raises(tolvex.MdfFileError, match="none.mf4: No such file"):
        check(tmp_path / "none.mf4")
    with pytest.raises(tolvex.MdfValueError, match="max_output"):
        recover(cut, output, max_output=-1)
    assert sorted(path.name for path in tmp_path.iterdir()) == ["<cut>.mf4", "text.mf4"]


def test_tells_how_far_it_is(tmp_path: Path, cut: Path, capsys: Any) -> None:
    told: List[Any] = []
    check(RAW, progress=lambda done, total: told.append((done, total)))
    size = RAW.stat().st_size
    assert told[-1] == (size, size) and told == sorted(told)

    recover(cut, tmp_path / "out.mf4", verify=True, progress=True)
    assert "recovering <cut>.mf4: 100%" in capsys.readouterr().err

    class Enough(Exception):
        pass

    def stop(done: int, total: int) -> None:
        raise Enough(done, total)

    with pytest.raises(Enough):
        check(RAW, progress=stop)
    with pytest.raises(Enough):
        recover(cut, tmp_path / "ended.mf4", progress=stop)
    assert not (tmp_path / "ended.mf4").exists()


def test_hears_signals_in_the_middle(tmp_path: Path, monkeypatch: Any) -> None:
    asked = 0

    def interrupted(call: _progress.Call, _: Any) -> int:
        nonlocal asked
        asked += 1
        if asked == 1:  # on the thread that is in the library
            os.kill(os.getpid(), signal.SIGINT)
            while not call.iscancelled:
                pass
        return call.iscancelled

    monkeypatch.setattr(_progress.Call, "cancelled", interrupted)
    with pytest.raises(KeyboardInterrupt):
        recover(RAW, tmp_path / "out.mf4")
    assert asked == 1 and not list(tmp_path.iterdir())
