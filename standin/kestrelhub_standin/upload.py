"""POST /servlet/uploadTemplate: parses a preset's form while it arrives and stores it.

Text parts come before file parts, so the member and the form are checked before the first byte of a file is stored.
The body is never held in memory: files are written to disk chunk by chunk.
"""

import re
import warnings
from typing import Any, AsyncIterator, Dict, Tuple

from aiohttp import BodyPartReader, MultipartReader, StreamReader, web
from aiohttp.multipart import BadContentDispositionHeader, BadContentDispositionParam

from .members import Members
from .presets import FILE_PARTS, IncomingPreset
from .replies import Refusal

CHUNK_BYTES = 256 * 1024
LONGEST_FIELD_BYTES = 256 * 1024
SHORTEST_READ_BYTES = 128

REQUIRED_FIELDS = ("AP", "AspectRatio", "PIPtype", "Version", "category", "description", "productName", "templateKey",
                   "templatetype", "title", "token", "uuid", "versionInfo", "versionType")
OPTIONAL_FIELDS = ("collections", "tags")

# A file name is a whole, unescaped path, so it ends at the last quotation mark of the line.
_DISPOSITION = re.compile(r'form-data; name="([^"]*)"(?:; filename="(.*)")?', re.DOTALL)

for _category in (BadContentDispositionHeader, BadContentDispositionParam):
    warnings.simplefilter("ignore", _category)


class WholeReads:
    """A request's body whose reads are short only at its end.

    The multipart reader looks for a boundary in two consecutive reads, so it would miss one that spans three.
    """

    def __init__(self, content: StreamReader) -> None:
        self._content = content
        self.readline = content.readline
        self.unread_data = content.unread_data
        self.at_eof = content.at_eof

    async def read(self, size: int) -> bytes:
        data = await self._content.read(size)
        while data and len(data) < min(size, SHORTEST_READ_BYTES):
            more = await self._content.read(size - len(data))
            if not more:
                break
            data += more
        return data


async def receive_preset(request: web.Request, members: Members, preset: IncomingPreset, api_host: str) -> str:
    """Reads the whole form into the preset and publishes it. Returns its address. Raises Refusal."""
    if request.content_type != "multipart/form-data":
        raise Refusal(415, "The upload is not a form.")
    try:
        fields, account = await _read_form(request, members, preset)
    except (ValueError, AssertionError, KeyError, RuntimeError) as error:  # what the multipart reader raises
        raise Refusal(400, f"The form is damaged: {error}") from error
    address = f"https://{api_host}/presets/{preset.id}"
    preset.publish({"address": address, "member": account, "host": request.host, "fields": fields,
                    "content_length": request.content_length})
    return address


async def _read_form(request: web.Request, members: Members, preset: IncomingPreset) -> Tuple[Dict[str, str], str]:
    fields: Dict[str, str] = {}
    account = ""
    async for part in MultipartReader(request.headers, WholeReads(request.content)):
        if not isinstance(part, BodyPartReader):
            raise Refusal(400, "The form has a nested multipart.")
        name, details = _describe(part)
        if "filename" in details:
            account = account or _check_fields(fields, members)
            _check_new(name, FILE_PARTS, [file["name"] for file in preset.files])
            await preset.add_file(name, details, _chunks(part))
        else:
            if account:
                raise Refusal(400, f"The field {name} comes after a file.")
            _check_new(name, REQUIRED_FIELDS + OPTIONAL_FIELDS, fields)
            fields[name] = await _field_text(name, part)
    account = account or _check_fields(fields, members)
    missing = set(FILE_PARTS) - {file["name"] for file in preset.files}
    if missing:
        raise Refusal(400, "These files are missing: " + ", ".join(sorted(missing)))
    return fields, account


def _describe(part: BodyPartReader) -> Tuple[str, Dict[str, Any]]:
    """Returns the part's name and, for a file, the details in its header."""
    raw = part.headers.get("Content-Disposition", "")
    match = _DISPOSITION.fullmatch(raw)
    name, filename = match.groups() if match else (part.name, part.filename)
    if name is None:
        raise Refusal(400, "A part of the form has no name.")
    if filename is None:
        return name, {}
    return name, {"filename": filename, "content_type": part.headers.get("Content-Type", ""), "disposition": raw}


def _check_new(name: str, known: Any, seen: Any) -> None:
    if name not in known:
        raise Refusal(400, f"The form has an unknown part: {name}")
    if name in seen:
        raise Refusal(400, f"The form has {name} twice.")


def _check_fields(fields: Dict[str, str], members: Members) -> str:
    """Returns the account that the form's token belongs to. Raises Refusal if a field is missing or invalid."""
    account = members.account_of(fields.get("token", ""))
    if account is None:
        raise Refusal(401, "The session has ended. Please log in again.")
    missing = [name for name in REQUIRED_FIELDS if name not in fields]
    if missing:
        raise Refusal(400, "These fields are missing: " + ", ".join(missing))
    if fields["AP"] != "TWR" or fields["templatetype"] != "PRESET":
        raise Refusal(400, "This is not a preset.")
    if not fields["title"].strip():
        raise Refusal(422, "A preset needs a title.")
    return account


async def _chunks(part: BodyPartReader) -> AsyncIterator[bytes]:
    while not part.at_eof():
        chunk = await part.read_chunk(CHUNK_BYTES)
        if chunk:
            yield chunk


async def _field_text(name: str, part: BodyPartReader) -> str:
    value = bytearray()
    async for chunk in _chunks(part):
        value += chunk
        if len(value) > LONGEST_FIELD_BYTES:
            raise Refusal(413, f"The field {name} is too long.")
    return value.decode("utf-8", "surrogateescape")
