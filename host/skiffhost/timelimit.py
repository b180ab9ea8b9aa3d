"""Bounds a command's time. A service call may block with the GIL held, when no Python code of this process can run; so
the command runs in a child process, whose alarm ends it, and the parent reports that."""

from __future__ import annotations

import contextlib
import mmap
import os
import signal
import time
from typing import Any, Callable, NoReturn, Optional

from .outcome import EXIT_TIMED_OUT, Failure

# After the limit, an upload may take this long to cancel; twice this long after it, the process is killed.
GRACE_SECONDS = 5.0
FORWARDED = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)
PR_SET_PDEATHSIG = 1
WAITED_FOR = (*FORWARDED, signal.SIGCHLD)

_lifted: Optional[mmap.mmap] = None  # shared with the parent: its byte is 1 once the limit is lifted


def timed_out(addition: str = "") -> Failure:
    return Failure(EXIT_TIMED_OUT, "the time limit has passed" + addition)


def run_limited(seconds: float, run: Callable[[], int]) -> int:
    """Runs the function in a child process and returns its exit code, in the child as well. Raises Failure if the child
    had to be ended; ends this process by the signal that the child was ended by. Main thread only."""
    global _lifted
    _lifted = mmap.mmap(-1, 1)
    signal.signal(signal.SIGCHLD, signal.SIG_DFL)
    before = signal.pthread_sigmask(signal.SIG_BLOCK, WAITED_FOR)
    child = os.fork()
    if child == 0:
        _end_with_parent()
        signal.signal(signal.SIGALRM, _raise_failure)
        signal.setitimer(signal.ITIMER_REAL, seconds, GRACE_SECONDS)
        signal.pthread_sigmask(signal.SIG_SETMASK, before)
        return run()
    try:
        status = _wait_for(child, time.monotonic() + seconds + 2 * GRACE_SECONDS, _lifted)
    finally:
        signal.pthread_sigmask(signal.SIG_SETMASK, before)
    if not os.WIFSIGNALED(status):
        return os.WEXITSTATUS(status)
    number = os.WTERMSIG(status)
    if number == signal.SIGALRM:
        raise timed_out()
    signal.signal(number, signal.SIG_DFL)
    os.kill(os.getpid(), number)
    return 128 + number


def lift_limit() -> None:
    """Called once the command has its outcome, which is then printed in any case, however slow its reader is."""
    signal.setitimer(signal.ITIMER_REAL, 0)
    if _lifted is not None:
        _lifted[0] = 1


def _raise_failure(*_signal: Any) -> NoReturn:
    raise timed_out()


def _end_with_parent() -> None:
    """A parent that is killed takes this process with it, as it would without a time limit."""
    import ctypes

    with contextlib.suppress(AttributeError):  # not Linux
        ctypes.CDLL(None).prctl(PR_SET_PDEATHSIG, signal.SIGKILL)


def _wait_for(child: int, deadline: float, lifted: mmap.mmap) -> int:
    """Returns the child's wait status. Raises Failure if it has to kill the child. Passes signals on, except those of
    the terminal, which the child gets too."""
    while True:
        left = GRACE_SECONDS if lifted[0] else max(deadline - time.monotonic(), 0)
        info = signal.sigtimedwait(WAITED_FOR, left)
        if info is None:
            if lifted[0]:
                continue
            os.kill(child, signal.SIGKILL)
            os.waitpid(child, 0)
            raise timed_out()
        if info.si_signo != signal.SIGCHLD and info.si_code <= 0:
            os.kill(child, info.si_signo)
        ended, status = os.waitpid(child, os.WNOHANG)
        if ended:
            return status
