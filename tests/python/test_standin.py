"""The stand-in's upload: what a form may look like on the wire, and what is refused without leaving a trace."""

import hashlib
import http.client
import os
import pathlib
import ssl
import subprocess
import sys
import unittest
import xml.etree.ElementTree as ElementTree
from typing import Any, Dict, List, Optional, Tuple

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
import service  # noqa: E402

BOUNDARY = b"-" * 27 + b"0041FA2B7B3C"
FIELDS = ("AP", "AspectRatio", "PIPtype", "Version", "category", "description", "productName", "templateKey",
          "templatetype", "title", "token", "uuid", "versionInfo", "versionType")
PARTS = ("PIPfile", "PIPimg") + tuple(f"PIPimg_{number}" for number in range(1, 13))

Part = Tuple[str, Optional[bytes], bytes]  # name, path of a file or None for a field, contents


def form(parts: List[Part]) -> bytes:
    body = bytearray()
    for name, path, contents in parts:
        body += b"--" + BOUNDARY + b'\r\nContent-Disposition: form-data; name="' + name.encode() + b'"'
        if path is not None:
            body += b'; filename="' + path + b'"\r\nContent-Type: application/octet-stream'
        body += b"\r\n\r\n" + contents + b"\r\n"
    return bytes(body + b"--" + BOUNDARY + b"--\r\n")


class StandinTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls) -> None:
        cls.standin = service.Standin().__enter__()
        cls.addClassCleanup(cls.standin.__exit__)
        status, reply = cls.post("/servlet/memLogin", "application/x-www-form-urlencoded", [
            f"account={service.USER}&pwd={service.PASSWORD}&AP=TWR&Version=1&versionType=&uuid=u".encode()])
        assert status == 200, reply
        cls.token = reply["tokenid"]

    @classmethod
    def post(cls, path: str, content_type: str, pieces: List[bytes]) -> Tuple[int, Dict[str, str]]:
        """Posts a body, a TLS record for each piece. Returns the status and the reply's elements."""
        context = ssl.create_default_context(cafile=cls.standin.ready["ca_file"])
        connection = http.client.HTTPSConnection("localhost", cls.standin.ready["https_port"], context=context,
                                                 timeout=service.DEADLINE_SECONDS)
        with_length = {"Content-Type": content_type, "Content-Length": str(sum(map(len, pieces)))}
        connection.request("POST", path, iter(pieces), with_length)
        response = connection.getresponse()
        reply = {element.tag: element.text or "" for element in ElementTree.fromstring(response.read())}
        connection.close()
        return response.status, reply

    def upload(self, parts: List[Part], piece: int = 1 << 16, cut: int = 0) -> Tuple[int, str]:
        """Returns the status and the refusal's text; `cut` leaves the form's last bytes out."""
        body = form(parts)
        body = body[:len(body) - cut]
        pieces = [body[start:start + piece] for start in range(0, len(body), piece)]
        status, reply = self.post("/servlet/uploadTemplate", "multipart/form-data; boundary=" + BOUNDARY.decode(),
                                  pieces)
        self.assertEqual(status == 200, "templateUrl" in reply)
        return status, reply.get("errMsg", "")

    def parts(self, **changes: Any) -> List[Part]:
        values = {"AP": "TWR", "templatetype": "PRESET", "title": "A & <B>", "token": self.token, **changes}
        fields: List[Part] = [(name, None, values.get(name, "").encode()) for name in FIELDS]
        return fields + [(name, f"/p/{name}.png".encode(), name.encode() * 20) for name in PARTS]

    def stored(self) -> List[str]:
        return sorted(os.listdir(self.standin.folder))

    def test_paths_and_contents_are_stored_as_they_were_sent(self) -> None:
        paths = ['D:\\p\\a "b"; filename="c".bin', "/tmp/Ö 🌇;x.png", "//x", "", "\\\\host\\share\\a'b.png", 'x"']
        lookalikes = [b"\r\n--" + BOUNDARY[:-1], b"\r\n--" * 50, b"", b"\r\n", b"--" + BOUNDARY + b"\r\n"]
        parts = self.parts()
        for index, path in enumerate(paths):
            name, _, contents = parts[len(FIELDS) + index]
            parts[len(FIELDS) + index] = (name, path.encode(), contents)
        for index, contents in enumerate(lookalikes):
            name, path_bytes, _ = parts[-1 - index]
            parts[-1 - index] = (name, path_bytes, contents)
        for piece in (7, 41, 1 << 16):
            with self.subTest(piece=piece):
                self.assertEqual(self.upload(parts, piece), (200, ""))
                record = self.standin.presets()[-1]
                self.assertEqual(record["fields"]["title"], "A & <B>")
                for file, (name, path_bytes, contents) in zip(record["files"], parts[len(FIELDS):]):
                    self.assertEqual((file["name"], file["filename"].encode(), file["size"], file["sha256"]),
                                     (name, path_bytes, len(contents), hashlib.sha256(contents).hexdigest()))
                    on_disk = self.standin.folder / record["id"] / name
                    self.assertEqual(on_disk.read_bytes(), contents)

    def test_what_is_no_preset_is_refused_and_leaves_nothing(self) -> None:
        whole = self.parts()
        cases = {
            "token": (self.parts(token="0" * 32), 0, 401, "log in again"),
            "title": (self.parts(title=" "), 0, 422, "needs a title"),
            "field twice": ([whole[0]] + whole, 0, 400, "AP twice"),
            "file twice": (whole + whole[-1:], 0, 400, "PIPimg_12 twice"),
            "field missing": (whole[1:], 0, 400, "missing: AP"),
            "file missing": (whole[:-1], 0, 400, "missing: PIPimg_12"),
            "unknown part": (whole + [("other", b"x", b"")], 0, 400, "unknown part: other"),
            "field behind files": (whole[1:] + whole[:1], 0, 400, "missing: AP"),
            "cut in a file": (whole, 60, 400, "damaged"),
            "cut in a head": (whole, 45 + 240 + 80, 400, "damaged"),
            "no parts": ([], 0, 401, "log in again"),
        }
        before = self.stored()
        for name, (parts, cut, status, text) in cases.items():
            with self.subTest(name):
                found_status, found_text = self.upload(parts, cut=cut)
                self.assertEqual((found_status, text in found_text), (status, True), found_text)
                self.assertEqual(self.stored(), before)

    def test_a_refused_token_ends_a_large_upload_early(self) -> None:
        large = self.parts(token="")
        large[-1] = ("PIPimg_12", b"x", bytes(50 << 20))
        self.assertEqual(self.upload(large)[0], 401)

    def test_a_broken_connection_leaves_nothing(self) -> None:
        before = self.stored()
        context = ssl.create_default_context(cafile=self.standin.ready["ca_file"])
        connection = http.client.HTTPSConnection("localhost", self.standin.ready["https_port"], context=context)
        body = form(self.parts())
        connection.putrequest("POST", "/servlet/uploadTemplate")
        connection.putheader("Content-Type", "multipart/form-data; boundary=" + BOUNDARY.decode())
        connection.putheader("Content-Length", str(len(body)))
        connection.endheaders(body[:-400])
        service.wait_until(lambda: self.stored() != before, "a folder for the files")
        connection.close()
        service.wait_until(lambda: self.stored() == before, "an empty folder")


PIECES = """
import asyncio, sys
from unittest import mock
import aiohttp
from kestrelhub_standin.upload import WholeReads

async def parse(body, headers, piece):
    reader = aiohttp.StreamReader(mock.Mock(_reading_paused=False), 1 << 16, loop=asyncio.get_running_loop())

    async def feed():
        for start in range(0, len(body), piece):
            reader.feed_data(body[start:start + piece])
            for _ in range(3):  # lets the parser take it
                await asyncio.sleep(0)
        reader.feed_eof()

    feeding = asyncio.ensure_future(feed())
    found = [bytes(await part.read()) async for part in aiohttp.MultipartReader(headers, WholeReads(reader))]
    await feeding
    return found

body, boundary = sys.stdin.buffer.read(), sys.argv[1]
headers = {"Content-Type": "multipart/form-data; boundary=" + boundary}
for piece in range(1, 80):
    assert asyncio.run(parse(body, headers, piece)) == [b"x" * 90, b"y" * 333, b""], f"pieces of {piece} bytes"
"""


class BodyInPiecesTest(unittest.TestCase):
    def test_a_boundary_may_arrive_in_any_pieces(self) -> None:
        """Fed to the parser directly, since pieces on a wire arrive joined."""
        body = form([("a", None, b"x" * 90), ("b", b"p", b"y" * 333), ("c", b"q", b"")])
        ran = subprocess.run([service.STANDIN_PYTHON, "-c", PIECES, BOUNDARY.decode()], input=body,
                             env=service.standin_environment(), stderr=subprocess.PIPE)
        self.assertEqual((ran.returncode, ran.stderr.decode()), (0, ""))


if __name__ == "__main__":
    unittest.main()
