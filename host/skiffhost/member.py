"""A member who is logged in: the session, and the product identity that an uploader needs too."""

from __future__ import annotations

from typing import Any, NamedTuple, Optional

from .login import explain_login, was_refused
from .uploads import Uploader

__all__ = ["LoginFailed", "Member", "log_in"]


class LoginFailed(Exception):
    """A login that failed. Its text says why.

    ``refused`` says whether the service answered and did not accept it; ``error_number`` is as in
    ``errors.ErrorNumber``, or None.
    """

    def __init__(self, text: str, refused: bool, error_number: Optional[int]) -> None:
        super().__init__(text)
        self.refused = refused
        self.error_number = error_number


class Member(NamedTuple):
    """``session`` is the KHLoginData that logged in."""

    session: Any
    version: str
    version_type: str
    uuid: str

    def uploader(self) -> Uploader:
        """Returns a new uploader, which belongs to the calling thread."""
        return Uploader(self.session.GetServerUrl(), self.session.GetLoginTokenID(), *self[1:])


def log_in(user: str, password: str, *, version: str, version_type: str, uuid: str,
           host: Optional[str] = None) -> Member:
    """Logs a member in. Raises LoginFailed.

    ``version``, ``version_type`` and ``uuid`` are your product's version and its type, and this installation's UUID.
    Without ``host`` the service is found by detection. Blocks for minutes if the network is bad, and nothing interrupts
    it, so call it by ``in_background`` or ``aio.log_in``.
    """
    import Skiffport

    from .loop import initialize_thread

    initialize_thread()
    session = Skiffport.KHLoginData(version, version_type, uuid)
    if host is not None:
        session.SetKHURLAsReg(host)
    result = session.LoginKestrelhub(user, password)
    problem = explain_login(session, result)
    if problem:
        refused = was_refused(session, result)
        raise LoginFailed(problem, refused, result or None)
    return Member(session, version, version_type, uuid)
