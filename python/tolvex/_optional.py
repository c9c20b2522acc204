"""Packages that are only needed by some calls."""

from __future__ import annotations

import importlib
from typing import Any

_DEBIAN = {
    "matplotlib.pyplot": "python3-matplotlib",
    "dask.dataframe": "python3-dask",
    "can": "python3-can",
}
_NAMES = {"can": "python-can", "dask.dataframe": "dask[dataframe]"}


def need(module: str) -> Any:
    """The module; an ImportError that says what to install where it is not there."""
    try:
        return importlib.import_module(module)
    except ImportError as error:
        package = _NAMES.get(module, module.split(".")[0])
        debian = _DEBIAN.get(module, f"python3-{package}")
        raise ImportError(
            f"this needs {package}: pip install '{package}' (Debian: apt install {debian}); {error}"
        ) from error
