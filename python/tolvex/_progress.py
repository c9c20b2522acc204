"""Long calls: how far they are, and ending them."""

from __future__ import annotations

import queue
import threading
from contextlib import contextmanager
from typing import Any, Callable, Iterator, List, Optional, Tuple, TypeVar, Union

from . import _optional

Report = Callable[[int, int], Any]
#: Who is told: nobody; a bar of tqdm (True); or a function, by how much is done and of how much.
Progress = Union[None, bool, Report]
Result = TypeVar("Result")

_PATIENCE = 0.1  # seconds in which a signal is heard where waiting is not interrupted by it


@contextmanager
def reporting(progress: Progress, title: str, unit: str) -> Iterator[Optional[Report]]:
    """The function that is to be told; None without one."""
    if progress is None or isinstance(progress, bool):
        if not progress:
            yield None
            return
        with _optional.need("tqdm.auto").tqdm(desc=title, unit=unit, unit_scale=unit == "B") as bar:

            def show(done: int, total: int) -> None:
                if total != bar.total or done < bar.n:  # of another step
                    bar.reset(total)
                bar.update(done - bar.n)

            yield show
    else:
        yield progress


class Call:
    """What the thread that works and the one that waits for it tell each other."""

    def __init__(self, isreported: bool) -> None:
        self._isreported = isreported
        self.iscancelled = False
        self.told: queue.SimpleQueue[Optional[Tuple[int, int]]] = queue.SimpleQueue()
        self.heard: queue.SimpleQueue[None] = queue.SimpleQueue()

    def progress(self, _: Any, done: int, total: int) -> int:
        """For the library, on the thread that works; returns when the other one has reported."""
        if self._isreported and not self.iscancelled:
            self.told.put((done, total))
            self.heard.get()
        return self.iscancelled

    def cancelled(self, _: Any) -> int:
        """Likewise."""
        return self.iscancelled


def run(work: Callable[[Call], Result], report: Optional[Report]) -> Result:
    """What `work` returns or raises; meanwhile signals and reports reach the calling thread.

    Python handles signals on its main thread, and not while that is in the library. So `work`
    runs on another one. An exception here, be it of `report` or of a signal (Ctrl-C), ends the
    work and is raised again.
    """
    call = Call(report is not None)
    results: List[Result] = []
    failures: List[BaseException] = []

    def body() -> None:
        try:
            results.append(work(call))
        except BaseException as error:
            failures.append(error)
        finally:
            call.told.put(None)

    thread = threading.Thread(target=body, name="tolvex")
    try:
        thread.start()
        told = _next(call)
        while told is not None and report is not None:
            report(*told)
            call.heard.put(None)
            told = _next(call)
    except BaseException:
        call.iscancelled = True
        call.heard.put(None)
        raise
    finally:
        if thread.is_alive():
            thread.join()
    if failures:
        raise failures[0]
    return results[0]


def _next(call: Call) -> Optional[Tuple[int, int]]:
    """What is told next; None at the end."""
    while True:
        try:
            return call.told.get(timeout=_PATIENCE)
        except queue.Empty:
            pass
