"""The wheel: what is in it, and that it works where nothing else of the project is."""
from __future__ import annotations

import base64
import hashlib
import os
import re
import shutil
import subprocess
import sys
import tomllib
import zipfile
from importlib.metadata import PathDistribution
from pathlib import Path

import pytest

PYTHON = Path(__file__).resolve().parents[1]
ROOT = PYTHON.parent
SIGNALS = ROOT / "tests/data/decoded-00000005.mf4"
FRAMES = ROOT / "tests/data/raw-00000005.MF4"
USE = """
import sys, can, tolvex

print(tolvex.__version__, len(tolvex.open(sys.argv[1]).groups))
with can.Logger("copy.mf4") as copy:  # by the plug-ins that are installed along
    for message in can.LogReader(sys.argv[2]):
        copy(message)
print(sum(1 for message in can.LogReader("copy.mf4")))
"""


def run(*command: object, cwd: Path = ROOT, **variables: str) -> str:
    """What the command prints, which is not told where this project's package and library are."""
    environment = {"TOLVEX_BUILD_DIR": str(ROOT / "build/wheel-linux"), **os.environ, **variables}
    environment.update(PWD=str(cwd), SOURCE_DATE_EPOCH="1700000000")
    for name in ("PYTHONPATH", "TOLVEX_LIBRARY"):
        environment.pop(name, None)
    done = subprocess.run(
        [str(word) for word in command], cwd=cwd, env=environment, capture_output=True, text=True
    )
    assert done.returncode == 0, done.stdout + done.stderr
    return done.stdout


@pytest.fixture(scope="module")
def wheel(tmp_path_factory: pytest.TempPathFactory) -> Path:
    script, folder = ROOT / "scripts/build-wheel.sh", tmp_path_factory.mktemp("wheel")
    return Path(run(script, "linux", folder, PYTHON=sys.executable).splitlines()[-1])


@pytest.fixture(scope="module")
def distribution(wheel: Path) -> PathDistribution:
    info = "-".join(wheel.name.split("-")[:2]) + ".dist-info"
    return PathDistribution(zipfile.Path(wheel) / info)  # type: ignore[arg-type]


@pytest.fixture(scope="module")
def environment(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """A virtual environment with the system's NumPy, and pip, but no tolvex."""
    folder = tmp_path_factory.mktemp("environment")
    run(sys.executable, "-m", "venv", "--system-site-packages", folder)
    return folder


def test_states_what_the_project_does(wheel: Path, distribution: PathDistribution) -> None:
    project = tomllib.loads((PYTHON / "pyproject.toml").read_text())["project"]
    wanted = project["dependencies"] + [
        f'{package}; extra == "{extra}"'
        for extra, packages in project["optional-dependencies"].items()
        for package in packages
    ]
    assert distribution.requires == wanted
    assert distribution.metadata["Requires-Python"] == project["requires-python"]
    assert {(e.group, e.name): e.value for e in distribution.entry_points} == {
        (group, name): value
        for group, table in project["entry-points"].items()
        for name, value in table.items()
    }


def test_records_every_file(wheel: Path, distribution: PathDistribution) -> None:
    with zipfile.ZipFile(wheel) as archive:
        content = {name: archive.read(name) for name in archive.namelist()}
    sources = {path.relative_to(PYTHON).as_posix() for path in PYTHON.glob("tolvex/**/*.py")}
    packed = {name for name in content if name.startswith("tolvex/")}
    assert packed == sources | {"tolvex/py.typed", "tolvex/libtolvex.so"}
    recorded = {str(file): file for file in distribution.files or ()}
    assert set(recorded) == set(content)
    for name, file in recorded.items():
        if file.hash is not None:
            digest = base64.urlsafe_b64decode(file.hash.value + "=")
            assert digest == hashlib.sha256(content[name]).digest()
            assert file.size == len(content[name])
    assert [name for name in recorded if recorded[name].hash is None] == [list(content)[-1]]


def test_library_needs_the_c_library_alone(wheel: Path, tmp_path: Path) -> None:
    with zipfile.ZipFile(wheel) as archive:
        library = archive.extract("tolvex/libtolvex.so", tmp_path)
    needed = re.findall(r"NEEDED.*\[(.+)\]", run("readelf", "-d", library, LC_ALL="C"))
    assert [n for n in needed if not re.match(r"(libc|libm|libpthread|ld-linux.*)\.so", n)] == []
    run("bash", ROOT / "tests/package/check-exports.sh", library, ROOT / "include/tolvex")


def test_same_sources_make_the_same_wheel(wheel: Path, tmp_path: Path) -> None:
    # In a copy as well, where pip builds before 21.3.
    copy = shutil.copytree(PYTHON, tmp_path / "python")
    call = "import sys; sys.path[0] = sys.argv[1]; import build_backend as b; b.build_wheel(sys.argv[2])"
    run(sys.executable, "-c", call, copy, tmp_path)
    assert (tmp_path / wheel.name).read_bytes() == wheel.read_bytes()
    with zipfile.ZipFile(wheel) as archive:
        packed = [name for name in archive.namelist() if name.startswith("tolvex/")]
        assert packed == sorted(packed)
        assert {entry.date_time for entry in archive.infolist()} == {(2023, 11, 14, 22, 13, 20)}


@pytest.mark.parametrize("source", ["wheel", "sources", "editable"])
def test_installs_runs_and_uninstalls(
    source: str, wheel: Path, environment: Path, tmp_path: Path
) -> None:
    wanted: list[object] = [wheel]
    if source == "sources":
        wanted = [PYTHON]
    elif source == "editable":  # a copy, as the library is put into it
        wanted = ["--editable", shutil.copytree(PYTHON, tmp_path / "python")]
    python = environment / "bin/python"
    [packages] = environment.glob("lib/python3*/site-packages")
    before = sorted(os.listdir(packages))

    run(python, "-m", "pip", "install", "--no-index", *wanted)
    used = run(python, "-c", USE, SIGNALS, FRAMES, cwd=tmp_path)
    assert used.split() == [wheel.name.split("-")[1], "9", "5477"]
    run(python, "-m", "pip", "uninstall", "--yes", "tolvex")
    assert sorted(os.listdir(packages)) == before
