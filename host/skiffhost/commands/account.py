"""Subcommands for the service's addresses and a member's account: addresses, login."""

from __future__ import annotations

import argparse
import sys
from typing import Any, Dict

from ..outcome import EXIT_USAGE, Failure, Result
from ..session import find_service, log_in, open_session, password_of
from .options import add_command, add_login_options


def register(subparsers: Any) -> None:
    add_command(subparsers, "addresses", addresses, "find the addresses of the service and its pages")
    login_parser = add_command(subparsers, "login", login, "log a member in and show the account's details")
    add_login_options(login_parser)
    login_parser.add_argument("--show-token", action="store_true", help="also show the session token")


def addresses(arguments: argparse.Namespace) -> Result:
    if arguments.host is not None:
        raise Failure(EXIT_USAGE, "--host cannot be combined with addresses")
    session = open_session(arguments)
    find_service(session)
    data = session.data
    if not data.m_bServerReachable:
        print("skiffhost: no answer from the detection host, showing fallback addresses", file=sys.stderr)
    server = data.GetServerUrl()
    gallery = data.GetVideoGalleryURL()[0]
    return _listing({
        "server": server,
        "sign_up": data.GetSignUpURL(),
        "forgotten_password": data.GetForgetPasswordURL(),
        "tutorial": data.GetTutorialURL(),
        "preset_download": data.GetPresetDownloadURL(),
        "video_gallery": f"https://{server}{gallery}" if gallery else "",
    })


def login(arguments: argparse.Namespace) -> Result:
    password = password_of(arguments)
    session = open_session(arguments)
    log_in(session, arguments.user, password)
    data = session.data
    values = {
        "server": data.GetServerUrl(),
        "name": data.GetUserName(),
        "profile": data.GetUserProfileURL(),
        "tutorial": data.GetTutorialURL(),
        "preset_download": data.GetPresetDownloadURL(),
        "video_gallery": data.GetVideoGalleryURL()[1],
        "revision": data.GetRevisionAPI(),
    }
    if arguments.show_token:
        values["token"] = data.GetLoginTokenID()
    return _listing(values)


def _listing(values: Dict[str, str]) -> Result:
    width = max(map(len, values)) + 2
    return Result([f"{name.replace('_', ' '):{width}}{value}" for name, value in values.items()], values)
