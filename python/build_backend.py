"""Builds the wheel of tolvex: compiles the library with CMake and packs it with the package.

A build backend after PEP 517 and PEP 660 on the standard library alone, so that installing from the
sources downloads nothing. What the wheel says of itself is in pyproject.toml, its version in
CMakeLists.txt. Environment:

TOLVEX_BUILD_DIR   Absolute path of a build folder that is kept; one that is configured already is
                   used as it is. The default is a temporary folder.
SOURCE_DATE_EPOCH  The time of the files in the wheel, in seconds since 1970; 1980 by default.
"""
from __future__ import annotations

import ast
import base64
import hashlib
import os
import re
import shutil
import subprocess
import sysconfig
import tempfile
import time
import zipfile
from pathlib import Path
from typing import Any, Optional

_HERE = Path(__file__).resolve().parent
_PACKAGE = _HERE / "tolvex"
_LIBRARIES = (".so", ".dll")
_ZIP_EPOCH = 315532800  # 1980, the earliest time that an archive can state

_Settings = Optional[dict[str, Any]]


class UnsupportedOperation(Exception):
    """Tells the installer that this backend does not provide what it asked for."""


def build_wheel(
    wheel_directory: str, config_settings: _Settings = None, metadata_directory: str | None = None
) -> str:
    """Writes the wheel of package and library into the directory; returns its name."""
    files = {
        path.relative_to(_HERE).as_posix(): path.read_bytes()
        for path in _PACKAGE.rglob("*")
        if path.is_file() and path.suffix not in (".pyc", *_LIBRARIES)
    }
    name, library = _build_library()
    files[f"tolvex/{name}"] = library
    return _write_wheel(wheel_directory, files)


def build_editable(
    wheel_directory: str, config_settings: _Settings = None, metadata_directory: str | None = None
) -> str:
    """Puts the library beside the package's sources; the wheel points there."""
    name, library = _build_library()
    target = _PACKAGE / name
    target.unlink(missing_ok=True)  # another process may have it loaded
    target.write_bytes(library)
    return _write_wheel(wheel_directory, {"tolvex.pth": f"{_HERE}\n".encode()})


def prepare_metadata_for_build_wheel(
    metadata_directory: str, config_settings: _Settings = None
) -> str:
    """Writes the wheel's metadata, for which nothing is compiled."""
    for name, content in _metadata().items():
        path = Path(metadata_directory, name)
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content)
    return name.split("/")[0]


prepare_metadata_for_build_editable = prepare_metadata_for_build_wheel


def build_sdist(sdist_directory: str, config_settings: _Settings = None) -> str:
    """Not supported: an archive of this folder would lack the library's sources."""
    raise UnsupportedOperation(
        "tolvex: no source archive, as the library's sources are outside of the package's folder; "
        "install from a checkout of the repository, or from a wheel"
    )


def _repository() -> Path:
    """The folder that holds the library's sources, and this one as `python`.

    pip before 21.3 builds in a copy of this folder; the original is then looked for around the
    working directory that pip was started in.
    """
    working = Path(os.environ.get("PWD", "."))
    for folder in (_HERE.parent, working, working.parent):
        original = folder / "python" / Path(__file__).name
        if (folder / "CMakeLists.txt").is_file() and original.is_file():
            if original.read_bytes() == Path(__file__).read_bytes():
                return folder
    raise FileNotFoundError(
        f"tolvex: the library's sources are not beside {_HERE}; run pip in the repository's folder"
    )


def _build_library() -> tuple[str, bytes]:
    """Builds the library that needs the C library alone; returns its file name and content."""
    # That of pip's isolated environment hides what a CMake installed by pip imports.
    environment = {key: value for key, value in os.environ.items() if key != "PYTHONPATH"}

    def cmake(*arguments: str | Path) -> None:
        try:
            subprocess.run(["cmake", *arguments], check=True, env=environment)
        except FileNotFoundError:
            raise RuntimeError("tolvex: building the library takes CMake 3.25 or newer") from None

    with tempfile.TemporaryDirectory(prefix="tolvex-") as temporary:
        build = Path(environment.get("TOLVEX_BUILD_DIR") or temporary)
        if not any((build / name).exists() for name in ("build.ninja", "Makefile")):
            options = ["-DTOLVEX_BUILD_TESTS=OFF", "-DTOLVEX_BUILD_TOOL=OFF"]
            if "CMAKE_GENERATOR" not in environment and shutil.which("ninja"):
                options.append("-GNinja")
            # A newer compiler's warnings are no reason not to install.
            cmake("-S", _repository(), "-B", build, "--compile-no-warning-as-error", *options)
        jobs = str(os.cpu_count() or 1)
        cmake("--build", build, "--target", "tolvex_standalone", "--parallel", jobs)
        [path] = [p for p in (build / "standalone").iterdir() if p.suffix in _LIBRARIES]
        return path.name, path.read_bytes()


def _write_wheel(directory: str, files: dict[str, bytes]) -> str:
    """Writes a wheel of the files and its metadata, the same bytes for the same content."""
    metadata = _metadata()
    info = next(iter(metadata)).split("/")[0]
    content = {name: files[name] for name in sorted(files)} | metadata
    record = ""
    for name, data in content.items():
        digest = base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b"=").decode()
        record += f"{name},sha256={digest},{len(data)}\n"
    content[f"{info}/RECORD"] = f"{record}{info}/RECORD,,\n".encode()

    wheel = f"{info.removesuffix('.dist-info')}-{_tag()}.whl"
    seconds = max(int(os.environ.get("SOURCE_DATE_EPOCH", _ZIP_EPOCH)), _ZIP_EPOCH)
    with zipfile.ZipFile(Path(directory, wheel), "w") as archive:
        for name, data in content.items():
            entry = zipfile.ZipInfo(name, time.gmtime(seconds)[:6])
            entry.compress_type = zipfile.ZIP_DEFLATED
            entry.create_system = 3  # Unix, wherever this runs
            entry.external_attr = 0o100644 << 16
            archive.writestr(entry, data)
    return wheel


def _tag() -> str:
    """Any Python 3, this platform; _PYTHON_HOST_PLATFORM names another one."""
    return "py3-none-" + re.sub("[-.]", "_", sysconfig.get_platform())


def _metadata() -> dict[str, bytes]:
    """The files of the wheel's dist-info folder but for RECORD, by their names in the wheel."""
    tables = _project_tables()
    project = tables["project"]
    listing = (_repository() / "CMakeLists.txt").read_text(encoding="utf-8")
    version = re.findall(r"^project\(tolvex VERSION ([0-9.]+)", listing, re.MULTILINE)[0]
    licences = [_repository() / "LICENSE", _HERE / "LICENSE.libraries"]
    fields = [
        ("Metadata-Version", "2.4"),
        ("Name", project["name"]),
        ("Version", version),
        ("Summary", project["description"]),
        ("Keywords", ",".join(project["keywords"])),
        ("License-Expression", project["license"]),
        *(("License-File", path.name) for path in licences),
        *(("Classifier", text) for text in project["classifiers"]),
        ("Requires-Python", project["requires-python"]),
        *(("Requires-Dist", text) for text in project["dependencies"]),
    ]
    for extra, packages in tables["project.optional-dependencies"].items():
        fields.append(("Provides-Extra", extra))
        fields += [("Requires-Dist", f'{text}; extra == "{extra}"') for text in packages]
    entry_points = ""
    for header, table in tables.items():
        if header.startswith("project.entry-points."):
            entry_points += "[{}]\n".format(header.split(".", 2)[2].strip('"'))
            entry_points += "".join(f"{name} = {place}\n" for name, place in table.items())
    texts = {
        "METADATA": "".join(f"{name}: {value}\n" for name, value in fields),
        "WHEEL": "Wheel-Version: 1.0\nGenerator: tolvex\nRoot-Is-Purelib: false\n"
        f"Tag: {_tag()}\n",
        "entry_points.txt": entry_points,
    }
    for path in licences:
        texts[f"licenses/{path.name}"] = path.read_text(encoding="utf-8")
    info = f"{project['name']}-{version}.dist-info"
    return {f"{info}/{name}": text.encode() for name, text in texts.items()}


def _project_tables() -> dict[str, dict[str, Any]]:
    """The tables of pyproject.toml that begin with `project`, by their headers.

    They hold strings and lists of strings, which are written as in Python; Python reads TOML itself
    from 3.11 on.
    """
    tables: dict[str, dict[str, Any]] = {}
    header = pending = ""
    for line in (_HERE / "pyproject.toml").read_text(encoding="utf-8").splitlines():
        if not pending and line.startswith("["):
            header = line.strip("[]")
        elif header.startswith("project") and line and not line.startswith("#"):
            pending += line + "\n"
            key, _, value = pending.partition("=")
            try:
                tables.setdefault(header, {})[key.strip(' "')] = ast.literal_eval(value.strip())
            except SyntaxError:  # a list that ends in a later line
                continue
            pending = ""
    return tables
