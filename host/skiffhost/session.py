"""Opens a session with the community service for a command: product identity, password, login.

Only this file imports the Skiffport module, after the environment that it reads has been set.
"""

from __future__ import annotations

import argparse
import getpass
import os
import signal
import socket
import sys
import uuid
from types import ModuleType
from typing import Any, ContextManager, NamedTuple

from .login import explain_login, was_refused
from .outcome import EXIT_NO_ANSWER, EXIT_REFUSED, EXIT_USAGE, Failure
from .signals import handling

PASSWORD_VARIABLE = "SKIFFHOST_PASSWORD"


class Session(NamedTuple):
    """The module, its session object, and the product identity that an uploader needs too."""

    module: ModuleType
    data: Any
    version: str
    version_type: str
    installation: str


def open_session(arguments: argparse.Namespace) -> Session:
    """Creates a session object with the command's product identity. Sends no request."""
    if arguments.connect_to is not None:
        os.environ["SKIFFPORT_CONNECT_TO"] = arguments.connect_to
    if arguments.ca_file is not None:
        os.environ["SSL_CERT_FILE"] = arguments.ca_file
    try:
        import Skiffport
    except ImportError as error:
        raise Failure(EXIT_USAGE, f"cannot import Skiffport, is the built tree on PYTHONPATH? {error}") from error
    installation = arguments.uuid or str(uuid.uuid5(uuid.NAMESPACE_DNS, socket.gethostname()))
    data = Skiffport.KHLoginData(arguments.version_name, arguments.version_type, installation)
    if arguments.host is not None:
        data.SetKHURLAsReg(arguments.host)
    return Session(Skiffport, data, arguments.version_name, arguments.version_type, installation)


def find_service(session: Session) -> None:
    """Finds the service's address unless it was given. Cannot fail: there is a fallback."""
    with native_interrupts():
        session.data.InitKHServerURL()


def log_in(session: Session, user: str, password: str) -> None:
    """Logs the member in. Raises Failure."""
    find_service(session)
    with native_interrupts():
        result = session.data.LoginKestrelhub(user, password)
        reason = explain_login(session.data, result)  # may ask the service once more
    if reason:
        raise Failure(EXIT_REFUSED if was_refused(session.data, result) else EXIT_NO_ANSWER, reason)


def password_of(arguments: argparse.Namespace) -> str:
    """Returns the password from the file, the environment or a prompt, in that order. Raises Failure."""
    if arguments.password_file is not None:
        try:
            with open(arguments.password_file, encoding="utf-8") as file:
                return file.readline().rstrip("\r\n")
        except (OSError, ValueError) as error:
            raise Failure(EXIT_USAGE, f"cannot read the password file: {error}") from error
    if PASSWORD_VARIABLE in os.environ:
        return os.environ[PASSWORD_VARIABLE]
    if not sys.stdin.isatty():
        raise Failure(EXIT_USAGE, f"no password: use --password-file or set {PASSWORD_VARIABLE}")
    try:
        return getpass.getpass(f"Password for {arguments.user}: ")
    except EOFError as error:
        raise Failure(EXIT_USAGE, "no password") from error


def native_interrupts() -> ContextManager[None]:
    """Lets Ctrl-C end the process: a service call blocks the thread that would run Python's handler."""
    return handling((signal.SIGINT,), signal.SIG_DFL)
