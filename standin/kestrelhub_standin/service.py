"""The service's requests: what each path accepts and replies, and on which of the two ports.

Detection, login and upload are served over TLS only; categories, effects and related videos over plain HTTP only.
``/standin/...`` is not part of the service: the demo and the tests read there what was stored and requested.
"""

import collections
import re
import secrets
import urllib.parse
import xml.etree.ElementTree as ElementTree
from typing import Any, Awaitable, Callable, Deque, Dict, List

from aiohttp import ClientPayloadError, web

from .members import NAME, Members
from .presets import PresetStore
from .replies import Refusal, add_element, document, flat_document
from .upload import receive_preset

Handler = Callable[[web.Request], Awaitable[web.StreamResponse]]

HOST = "www.kestrelhub.example"  # which detection returns
REQUESTS_KEPT = 1000

# Page addresses for visitors who are not logged in: the part after the host, with the start of a query.
PAGES = {
    "AdjustmentPreset": "/presets?from=twr",
    "SignUp": "/signUp?from=twr",
    "ForgetPassword": "/forgetpwd?from=twr",
    "VideoGallery": "/videos?from=twr",
    "Tutorial": "/tutorials?from=twr",
}

# Category names by location; an unknown location gets the English ones.
CATEGORIES = {
    "en": {"1": "Portrait", "2": "Landscape", "3": "Night", "4": "Food & Drink", "5": "Black & White"},
    "de": {"1": "Porträt", "2": "Landschaft", "3": "Nacht", "4": "Essen & Trinken", "5": "Schwarzweiß"},
}

# The login form is not escaped and a password may hold anything, so each value ends where the next name begins.
_LOGIN_BODY = re.compile(r"account=(.*?)&pwd=(.*)&AP=TWR&Version=(.*?)&versionType=(.*?)&uuid=(.*)", re.DOTALL)


class Service:
    """Both ports of the service, which share one set of members and presets."""

    def __init__(self, presets: PresetStore) -> None:
        self._members = Members()
        self._presets = presets
        self._videos: Dict[str, str] = {}
        self._requests: Deque[Dict[str, Any]] = collections.deque(maxlen=REQUESTS_KEPT)

    def secure_application(self) -> web.Application:
        """Returns the application for the TLS port."""
        return self._application([
            web.get("/", self._front_page),
            web.get("/khserver.jsp", self._addresses),
            web.get("/presets/{id}", self._preset),
            web.post("/servlet/memLogin", _refusing("info", self._log_in)),
            web.post("/servlet/uploadTemplate", _refusing("uploadTemplate", self._upload)),
        ])

    def plain_application(self) -> web.Application:
        """Returns the application for the plain port."""
        return self._application([
            web.get("/", self._front_page),
            web.post("/servlet/getPresetCategory", _refusing("categories", self._categories)),
            web.post("/servlet/GetEffectByGUIDForTWR", _refusing("PIP", self._effect)),
            web.post("/servlet/setRelateVideo", _refusing("info", self._related_video)),
        ])

    def _application(self, routes: Any) -> web.Application:
        application = web.Application(middlewares=[self._note_request])
        application.add_routes(routes)
        application.add_routes([
            web.get("/standin/presets", self._stored_presets),
            web.get("/standin/presets/{id}", self._preset),
            web.get("/standin/requests", self._noted_requests),
        ])
        return application

    @web.middleware
    async def _note_request(self, request: web.Request, handler: Handler) -> web.StreamResponse:
        if request.path.startswith("/standin/"):
            return await handler(request)
        entry: Dict[str, Any] = {
            "scheme": request.scheme, "host": request.host, "method": request.method, "target": request.raw_path,
            "agent": request.headers.get("User-Agent"), "status": None}
        self._requests.append(entry)
        try:
            response = await handler(request)
        except web.HTTPException as error:
            entry["status"] = error.status
            raise
        entry["status"] = response.status
        return response

    async def _front_page(self, _request: web.Request) -> web.Response:
        return web.Response(text="Kestrelhub stand-in\n")

    async def _addresses(self, request: web.Request) -> web.Response:
        if request.query.get("ap") != "tintwright" or "version" not in request.query:
            return flat_document("INFO", {"errMsg": "Unknown product."}, status=400)
        return flat_document("INFO", {"APIUrl": HOST, **PAGES})

    async def _log_in(self, request: web.Request) -> web.Response:
        if request.content_type != "application/x-www-form-urlencoded":
            raise Refusal(415, "The login is not a form.")
        body = (await request.read()).decode("utf-8", "surrogateescape")
        match = _LOGIN_BODY.fullmatch(body)
        if match is None:
            raise Refusal(400, "The login form is damaged.")
        account, password = match.group(1, 2)
        token = self._members.log_in(account, password)
        if token is None:
            raise Refusal(401, "The account or the password is wrong.")
        site = f"https://{HOST}"
        return flat_document("info", {
            "firstloginUrl": "",
            "tokenid": token,
            "username": NAME,
            "profileURL": f"{site}/members/{urllib.parse.quote(account)}",
            "VideoGallery": f"{site}/videos?member=1",
            "AdjustmentPreset": f"{site}/presets?member=1",
            "Tutorial": f"{site}/tutorials?member=1",
            "search": f"{site}/search",
            "RevisionAPI": "2",
            "errMsg": "",
        })

    async def _upload(self, request: web.Request) -> web.Response:
        if request.content_length is None:
            raise Refusal(411, "The upload has no Content-Length.")
        with self._presets.incoming() as preset:
            address = await receive_preset(request, self._members, preset, HOST)
        return flat_document("uploadTemplate", {"templateUrl": urllib.parse.quote(address, safe="")})

    async def _categories(self, request: web.Request) -> web.Response:
        if request.query.get("ap") != "TWR":
            raise Refusal(400, "Unknown product.")
        root = ElementTree.Element("categories")
        names = CATEGORIES.get(_only(request, "Locid").lower(), CATEGORIES["en"])
        for category_id, name in names.items():
            add_element(root, "category", name).set("categoryid", category_id)
        return document(root)

    async def _effect(self, request: web.Request) -> web.Response:
        self._member_of(_only(request, "token"))
        record = self._presets.find(_only(request, "guid"))
        if record is None:
            return flat_document("PIP", {}, status=404)
        return flat_document("PIP", {"pipURL": urllib.parse.quote(record["address"], safe="")})

    async def _related_video(self, request: web.Request) -> web.Response:
        account = self._member_of(_only(request, "tokenid"))
        if "videoID" not in request.query:
            video = secrets.token_hex(4)
            self._videos[video] = account
            return flat_document("info", {"videoId": video})
        video = _only(request, "videoID")
        if self._videos.pop(video, None) != account:
            raise Refusal(404, "Unknown video.")
        if not _only(request, "videoURL"):
            raise Refusal(422, "A video needs an address.")
        return flat_document("info", {"videoUrl": f"https://{HOST}/videos/{video}"})

    def _member_of(self, token: str) -> str:
        account = self._members.account_of(token)
        if account is None:
            raise Refusal(401, "The session has ended. Please log in again.")
        return account

    async def _stored_presets(self, _request: web.Request) -> web.Response:
        return web.json_response(self._presets.all())

    async def _preset(self, request: web.Request) -> web.Response:
        record = self._presets.get(request.match_info["id"])
        if record is None:
            raise web.HTTPNotFound()
        return web.json_response(record)

    async def _noted_requests(self, _request: web.Request) -> web.Response:
        return web.json_response(list(self._requests))


def _only(request: web.Request, key: str) -> str:
    """Returns the value of a query key that must occur once."""
    values: List[str] = request.query.getall(key, [])
    if len(values) != 1:
        raise Refusal(400, f"The query has {key} {len(values)} times.")
    return values[0]


def _refusing(root: str, handler: Callable[[web.Request], Awaitable[web.Response]]) -> Handler:
    """Wraps a handler so that its refusals become the errMsg element of the usual root."""

    async def answer(request: web.Request) -> web.Response:
        try:
            return await handler(request)
        except Refusal as refusal:
            return flat_document(root, {"errMsg": refusal.text}, status=refusal.status)
        except (ConnectionError, ClientPayloadError, web.RequestPayloadError):
            return flat_document(root, {"errMsg": "The client disconnected."}, status=400)  # only for the log

    return answer
