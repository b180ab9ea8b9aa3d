"""Subcommands for the service's addresses and a member's account: addresses, login."""

from __future__ import annotations

import argparse
from typing import Any, Dict, Optional

from ..completion import SAFE
from ..outcome import EXIT_NO_ANSWER, Failure, Result
from ..session import account_of, find_service, log_in, open_session
from .options import add_command, add_login_options

SHARED_FIELDS = {
    "server": "host that answers the service's requests",
    "tutorial": "address of the tutorials",
    "preset_download": "address of the presets to download",
    "video_gallery": "address of the video gallery",
}


def register(subparsers: Any) -> None:
    add_command(subparsers, "addresses", addresses, "find the addresses of the service and its pages",
                ["", "--json"],
                {**SHARED_FIELDS, "sign_up": "address for new members", "forgotten_password": "address to reset a "
                 "password"}, takes_host=False)
    login_parser = add_command(subparsers, "login", login, "log a member in and show the account's details",
                               ["mika", "--user mika --password-file ~/.skiffhost-password --json"],
                               {**SHARED_FIELDS, "name": "the member's name", "profile": "address of the member's page",
                                "revision": "revision of the service's interface",
                                "token": "the session token, with --show-token"})
    add_login_options(login_parser, positional=True)
    login_parser.add_argument("--show-token", action="store_true",
                              help="also show the session token, which is as good as the password for a while")


def addresses(arguments: argparse.Namespace) -> Result:
    session = open_session(arguments)
    find_service(session)
    data = session.data
    server, gallery = data.GetServerUrl(), data.GetVideoGalleryURL()[0]
    start = f"https://{server}"
    pages = {
        "sign_up": data.GetSignUpURL(),
        "forgotten_password": data.GetForgetPasswordURL(),
        "tutorial": data.GetTutorialURL(),
        "preset_download": data.GetPresetDownloadURL(),
        "video_gallery": start + gallery,
    }
    # The module joins the host with something in any case; a path follows it only if the page was found.
    found = {name: page if page.startswith(start + "/") else "" for name, page in pages.items()}
    failure = None
    if not data.m_bServerReachable:
        failure = Failure(EXIT_NO_ANSWER, "no answer from the detection host: the server is a fallback", SAFE)
    elif not any(found.values()):
        failure = Failure(EXIT_NO_ANSWER, "the detection host named no pages", SAFE)
    return _listing({"server": server, **found}, failure)


def login(arguments: argparse.Namespace) -> Result:
    account = account_of(arguments)
    session = open_session(arguments)
    log_in(session, account)
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


def _listing(values: Dict[str, str], failure: Optional[Failure] = None) -> Result:
    width = max(map(len, values)) + 2
    lines = [f"{name.replace('_', ' '):{width}}{value}" for name, value in values.items() if value]
    return Result(lines, values, failure)
