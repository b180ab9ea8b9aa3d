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

from .causes import tracing_registry
from .completion import SAFE
from .login import explain_login, unreadable_roots, was_refused
from .outcome import EXIT_NO_ANSWER, EXIT_REFUSED, EXIT_USAGE, Failure, printable
from .signals import handling

USER_VARIABLE, PASSWORD_VARIABLE = "SKIFFHOST_USER", "SKIFFHOST_PASSWORD"


class Session(NamedTuple):
    """The module, its session object, and the product identity that an uploader needs too."""

    module: ModuleType
    data: Any
    version: str
    version_type: str
    installation: str


def open_session(arguments: argparse.Namespace) -> Session:
    """Creates a session object with the command's product identity, for the calling thread. Sends no request."""
    if arguments.connect_to is not None:
        os.environ["SKIFFPORT_CONNECT_TO"] = arguments.connect_to
    if arguments.ca_file is not None:
        os.environ["SSL_CERT_FILE"] = arguments.ca_file
    elif unreadable_roots():
        raise Failure(EXIT_USAGE, unreadable_roots())
    if arguments.verbose:
        os.environ["SKIFFPORT_REGISTRY"] = tracing_registry()
    try:  # here, since the documents are made of the parser without a built module
        import Skiffport

        from .loop import initialize_thread
    except ModuleNotFoundError as error:
        version = ".".join(map(str, sys.version_info[:2]))
        advice = (f"set SKIFFPORT_PYTHONS={sys.executable} and build again" if sys.platform != "win32" else
                  "install the wheel for this version of 64-bit CPython")
        raise Failure(EXIT_USAGE,
                      f"Skiffport is not built for this CPython {version}: {advice} ({error})") from error
    except ImportError as error:
        raise Failure(EXIT_USAGE, f"cannot import Skiffport: {error}") from error
    initialize_thread()
    installation = arguments.uuid or str(uuid.uuid5(uuid.NAMESPACE_DNS, socket.gethostname()))
    data = Skiffport.KHLoginData(arguments.version_name, arguments.version_type, installation)
    if arguments.host is not None:
        data.SetKHURLAsReg(arguments.host)
    return Session(Skiffport, data, arguments.version_name, arguments.version_type, installation)


def find_service(session: Session) -> None:
    """Finds the service's address unless it was given. Cannot fail: there is a fallback."""
    with native_interrupts():
        session.data.InitKHServerURL()


def log_in(session: Session, account: Account) -> None:
    """Logs the member in. Raises Failure."""
    find_service(session)
    with native_interrupts():
        result = session.data.LoginKestrelhub(*account)
        reason = explain_login(session.data, result)  # may ask the service once more
    if reason:
        if was_refused(session.data, result):
            raise Failure(EXIT_REFUSED, reason)
        raise Failure(EXIT_NO_ANSWER, reason, SAFE, result or None)


class Account(NamedTuple):
    user: str
    password: str


def user_of(arguments: argparse.Namespace) -> str:
    """Returns who is to log in; an empty text if nobody is named. Raises Failure."""
    given = [name for name in (getattr(arguments, "named", None), arguments.user) if name is not None]
    if len(given) > 1:
        raise Failure(EXIT_USAGE, "the user is named twice")
    return str(given[0]) if given else os.environ.get(USER_VARIABLE, "")


def account_of(arguments: argparse.Namespace) -> Account:
    """Returns who is to log in, and the password from a file, the environment or a prompt. Raises Failure.

    Takes the password out of the environment, which the member's browser inherits. Asks only once.
    """
    if "account" not in arguments:
        arguments.account = _ask_account(arguments)
    return arguments.account  # type: ignore[no-any-return]


def _ask_account(arguments: argparse.Namespace) -> Account:
    inherited = os.environ.pop(PASSWORD_VARIABLE, None)
    user = user_of(arguments)
    if not user:
        raise Failure(EXIT_USAGE, f"no user: use --user or set {USER_VARIABLE}")
    if arguments.password_file is not None:
        source, password = "the password file's first line", _first_line(arguments.password_file)
    elif inherited is not None:
        source, password = PASSWORD_VARIABLE, inherited
    elif sys.stdin.isatty():
        source, password = "the password", _prompt(f"Password for {printable(user)}: ")
    else:
        raise Failure(EXIT_USAGE, f"no password: use --password-file or set {PASSWORD_VARIABLE}")
    if not password:
        raise Failure(EXIT_USAGE, f"{source} is empty")
    return Account(user, password)


def _prompt(text: str) -> str:
    try:
        return getpass.getpass(text)
    except EOFError:
        return ""


def _first_line(path: str) -> str:
    try:
        with open(0 if path == "-" else path, encoding="utf-8", closefd=path != "-") as file:
            return file.readline().rstrip("\n")  # which stands for a CR LF, too
    except UnicodeDecodeError as error:
        raise Failure(EXIT_USAGE, f"the password file is not UTF-8: {path}") from error
    except OSError as error:
        raise Failure(EXIT_USAGE, f"cannot read the password file {path}: {error.strerror}") from error


def native_interrupts() -> ContextManager[None]:
    """Lets Ctrl-C end the process: a service call blocks the thread that would run Python's handlers."""
    return handling((signal.SIGINT,), signal.SIG_DFL)
