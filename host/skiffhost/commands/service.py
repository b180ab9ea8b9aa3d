"""Subcommands for the service's other requests: categories, effects, related videos, and requests to any host.

The module reports little about a failure of these, so a request without a result counts as unanswered. It does not
escape its arguments: what goes into a query is escaped here.
"""

from __future__ import annotations

import argparse
from typing import Any
from urllib.parse import quote

from ..completion import SAFE, UNSAFE
from ..outcome import EXIT_NO_ANSWER, Failure, Result
from ..session import Session, account_of, find_service, log_in, native_interrupts, open_session, user_of
from .options import add_command, add_login_options, host_name


def register(subparsers: Any) -> None:
    parser = add_command(subparsers, "categories", categories, "list the preset categories for a location",
                         ["", "de --json"], {"categories": "object from category IDs to names"})
    parser.add_argument("location", nargs="?", default="en", help="location ID, e.g. de (default: en)")
    parser = add_command(subparsers, "effect", effect, "find the address of a shared effect",
                         ["9C1A52F0-7B0E-4C55-8C39-6A1E7A4B9D21", "9C1A52F0-7B0E-4C55-8C39-6A1E7A4B9D21 --user mika"],
                         {"address": "address of the effect"})
    parser.add_argument("guid", help="GUID of the effect, e.g. 9C1A52F0-7B0E-4C55-8C39-6A1E7A4B9D21")
    add_login_options(parser)
    parser = add_command(subparsers, "relate-video", relate_video, "report a related video to the service",
                         ["https://video.example/v/1 video.example --user mika"],
                         {"address": "address of the video at the service"})
    parser.add_argument("video_url", help="address of the video, e.g. https://video.example/v/1")
    parser.add_argument("website", help="website that hosts the video, e.g. video.example")
    parser.add_argument("info", nargs="?", default="", help="further information as an escaped query, e.g. "
                        "title=Evening%%20light&lang=en")
    add_login_options(parser)
    parser = add_command(subparsers, "request", request, "send a POST request to any host and print the reply's body",
                         ["www.kestrelhub.example /servlet/getPresetCategory --params 'ap=TWR&Locid=en' --port 80"],
                         {"data": "body of the reply"}, takes_host=False)
    parser.add_argument("server", metavar="host", type=host_name, help="name of the host, e.g. www.kestrelhub.example")
    parser.add_argument("path", help="path, sent as it is, e.g. /servlet/getPresetCategory")
    parser.add_argument("--port", type=int, choices=(443, 80), default=443, help="80, or 443 for TLS (default: 443)")
    parser.add_argument("--params", metavar="TEXT", default="", help="query, sent as it is, e.g. 'ap=TWR&Locid=en'")
    parser.add_argument("--form", action="store_true", help="send the parameters as a form instead of a query")


def categories(arguments: argparse.Namespace) -> Result:
    session = _open_for_anyone(arguments)
    with native_interrupts():
        names = session.data.GetPresetCategory(_escaped(arguments.location))
    if not names:
        raise Failure(EXIT_NO_ANSWER, "no categories: the service has none or did not answer", SAFE)
    width = max(map(len, names)) + 2
    lines = [f"{number:{width}}{names[number]}" for number in sorted(names, key=lambda number: (len(number), number))]
    return Result(lines, {"categories": names})


def effect(arguments: argparse.Namespace) -> Result:
    session = _open_for_user(arguments) if user_of(arguments) else _open_for_anyone(arguments)
    with native_interrupts():
        address = session.data.GetEffectByGUID(_escaped(arguments.guid)).strip()
    if not address:
        advice = "" if user_of(arguments) else "; it may need a login (--user)"
        raise Failure(EXIT_NO_ANSWER, "no such effect, or the service did not answer" + advice, SAFE)
    return Result([address], {"address": address})


def relate_video(arguments: argparse.Namespace) -> Result:
    session = _open_for_user(arguments)
    with native_interrupts():
        try:
            address = session.data.SetRelateVideo(_escaped(arguments.video_url), _escaped(arguments.website),
                                                  arguments.info).strip()
        except SystemError as error:  # how the module reports an empty reply
            raise Failure(EXIT_NO_ANSWER, "no address for the video: the service's reply is empty", UNSAFE) from error
    if not address:
        raise Failure(EXIT_NO_ANSWER, "no address for the video: the service refused it or did not answer", UNSAFE)
    return Result([address], {"address": address})


def request(arguments: argparse.Namespace) -> Result:
    connection = open_session(arguments).module.KHConnectUtil()
    target = (arguments.server, arguments.port, arguments.path, arguments.params)
    with native_interrupts():
        if arguments.form:
            reply = connection.SyncSendHttpRequestParam(*target)
        else:
            reply = connection.SyncSendHttpRequest(*target, "")
    data = reply.get("data", "")
    if not reply.get("bSucc") or "errMsg" in reply:
        raise Failure(EXIT_NO_ANSWER, f"no answer: {reply.get('errMsg', 'the request could not be sent')}", UNSAFE)
    if not data:
        raise Failure(EXIT_NO_ANSWER, "the reply is empty or has no Content-Length", UNSAFE)
    return Result(data.splitlines(), {"data": data})


def _open_for_user(arguments: argparse.Namespace) -> Session:
    """Returns a session in which the command's user is logged in."""
    account = account_of(arguments)
    session = open_session(arguments)
    log_in(session, account)
    return session


def _open_for_anyone(arguments: argparse.Namespace) -> Session:
    session = open_session(arguments)
    find_service(session)
    return session


def _escaped(text: str) -> str:
    return quote(text, safe=":/{}")
