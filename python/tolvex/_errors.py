"""What can go wrong, and what is worth a warning."""

from __future__ import annotations

import re
from typing import Optional


class MdfError(Exception):
    """A call that failed: what, where in the file, expected and found.

    `str(error)` is the whole text. `place` is the position or block in question, `expected` and
    `found` what was compared; each is None where the text says nothing of it.
    """

    def __init__(self, text: str) -> None:
        super().__init__(text)
        self.text = text

    def __str__(self) -> str:
        return self.text

    @property
    def place(self) -> Optional[str]:
        return _part(r"\bat (?:position )?(0x[0-9A-Fa-f]+|\d+)", self.text)

    @property
    def expected(self) -> Optional[str]:
        return _part(r"\bexpected (.+?)(?:, found |; |$)", self.text)

    @property
    def found(self) -> Optional[str]:
        return _part(r"\bfound (.+?)(?:; |$)", self.text)


def _part(pattern: str, text: str) -> Optional[str]:
    match = re.search(pattern, text)
    return match.group(1) if match else None


class MdfFileError(MdfError, OSError):
    """A file that cannot be opened, read or written, or is no measurement file."""


class MdfValueError(MdfError, ValueError):
    """An argument that no call can be made of."""


class MdfTypeError(MdfError, TypeError):
    """Values that are of another kind than was asked for."""


class MdfNameError(MdfError, KeyError):
    """A name that no channel or group has, or more than one."""


class MdfMemoryError(MdfError, MemoryError):
    """There is no memory left."""


class MdfCancelled(MdfError):
    """A callback ended it."""


class MdfWarning(UserWarning):
    """Something of a file is damaged or was left out, or the file was taken for what it seems."""
