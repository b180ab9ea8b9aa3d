"""Says in words why a login failed. Asks the service once more where the result alone does not tell."""

from __future__ import annotations

import os
import sys
import time
from typing import Any

from .errors import explain_error

__all__ = ["explain_login", "unreadable_roots", "was_refused"]

# How long the probe before a login waits.
PROBE_SECONDS = 5.5


def unreadable_roots() -> str:
    """Returns, in words, that SSL_CERT_FILE names nothing that can be read; an empty text if that is not so."""
    path = os.environ.get("SSL_CERT_FILE", "")
    if not path or sys.platform == "win32" or os.path.isfile(path) and os.access(path, os.R_OK):
        return ""
    return f"SSL_CERT_FILE names no file that can be read: {path}"


def was_refused(session: Any, result: int) -> bool:
    """Returns whether the service answered and did not accept the login. Sends nothing.

    Takes the session object and what its LoginKestrelhub returned.
    """
    return result == 0 and bool(session.m_bServerReachable)


def explain_login(session: Any, result: int) -> str:
    """Returns why a login failed, in words; an empty text if it succeeded.

    Takes the session object and what its LoginKestrelhub returned. Call it after a failed login, before anything else
    of that object, and on the worker thread that logged in: if the service's default host was found unreachable, a
    request to it finds out why. That may block for 5 s to connect and then, if the host accepts connections but never
    answers, for 60 s. It holds the GIL only while it reads a reply's body.
    """
    if result == 1:
        return ""
    if result != 0:
        return f"no answer to the login: {unreadable_roots() or explain_error(result)}"
    if session.m_bServerReachable:
        return ("the user name or the password is wrong, or a first login must be completed on the page that the "
                "browser shows, or the service's reply could not be read")
    address = session.m_szChkServerUrl  # what was probed last
    if not address:
        return "no login: the user name or the password is missing"
    return f"no answer to the login: {unreadable_roots() or _why_unreachable(address.partition('://')[2])}"


def _why_unreachable(host: str) -> str:
    """Sends a request that ignores the name and the date of the host's certificate, which the probe does not."""
    import Skiffport

    start = time.monotonic()
    reply = Skiffport.KHConnectUtil().SyncSendHttpRequest(host, 443, "/", "", "")
    seconds = time.monotonic() - start
    if "errMsg" in reply:
        text = reply["errMsg"].rstrip(".")
        return text[:1].lower() + text[1:]
    if not reply.get("bSucc"):
        return "the service cannot be reached"
    if seconds >= PROBE_SECONDS:
        return f"the service took {seconds:.0f} s to answer"
    return ("the service can be reached, but its certificate has expired, is not valid yet or is for another host; "
            "or it could not be reached for a moment")
