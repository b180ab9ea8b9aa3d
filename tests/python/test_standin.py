"""The stand-in's upload: forms that are refused without leaving a trace, and boundaries that arrive in pieces."""

import os
import pathlib
import re
import ssl
import subprocess
import sys
import unittest
import urllib.error
import urllib.request
from typing import List, Optional, Tuple

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
import service  # noqa: E402

BOUNDARY = "-" * 27 + "0041FA2B7B3C"
FIELDS = ("AP", "AspectRatio", "PIPtype", "Version", "category", "description", "productName", "templateKey",
          "templatetype", "title", "token", "uuid", "versionInfo", "versionType")
FILES = ("PIPfile", "PIPimg") + tuple(f"PIPimg_{number}" for number in range(1, 13))

Part = Tuple[str, Optional[str], str]  # name, path of a file or None for a field, contents


def form(parts: List[Part]) -> bytes:
    body = ""
    for name, path, contents in parts:
        of_file = "" if path is None else f'; filename="{path}"\r\nContent-Type: application/octet-stream'
        body += f'--{BOUNDARY}\r\nContent-Disposition: form-data; name="{name}"{of_file}\r\n\r\n{contents}\r\n'
    return f"{body}--{BOUNDARY}--\r\n".encode()


def post(standin: service.Standin, servlet: str, content_type: str, body: bytes) -> Tuple[int, str]:
    """Returns the reply's status and text."""
    context = ssl.create_default_context(cafile=standin.ready["ca_file"])
    opener = urllib.request.build_opener(urllib.request.ProxyHandler({}), urllib.request.HTTPSHandler(context=context))
    address = f"https://localhost:{standin.ready['https_port']}/servlet/{servlet}"
    request = urllib.request.Request(address, body, {"Content-Type": content_type})
    try:
        with opener.open(request, timeout=service.DEADLINE_SECONDS) as reply:
            return reply.status, reply.read().decode()
    except urllib.error.HTTPError as refusal:
        with refusal:
            return refusal.code, refusal.read().decode()


class RefusalTest(unittest.TestCase):
    def test_what_is_no_preset_is_refused_and_leaves_nothing(self) -> None:
        standin = service.Standin().__enter__()
        self.addCleanup(standin.__exit__)
        login = f"account={service.USER}&pwd={service.PASSWORD}&AP=TWR&Version=1&versionType=&uuid=u"
        _, reply = post(standin, "memLogin", "application/x-www-form-urlencoded", login.encode())
        token = re.findall("<tokenid>(.*)</tokenid>", reply)[0]
        values = {"AP": "TWR", "templatetype": "PRESET", "title": "A", "token": token}
        whole: List[Part] = [(name, None, values.get(name, "")) for name in FIELDS]
        whole += [(name, f"/p/{name}.png", name * 20) for name in FILES]
        cases = {  # the parts, how many bytes are cut off the form's end, status, text
            "whole": (whole, 0, 200, "templateUrl"),
            "field twice": (whole[:1] + whole, 0, 400, "AP twice"),
            "file twice": (whole + whole[-1:], 0, 400, "PIPimg_12 twice"),
            "file missing": (whole[:-1], 0, 400, "missing: PIPimg_12"),
            "unknown part": (whole + [("other", "x", "")], 0, 400, "unknown part: other"),
            "field behind files": (whole[1:] + whole[:1], 0, 400, "missing: AP"),
            "cut in a file": (whole, 60, 400, "damaged"),
            "cut in a head": (whole, 45 + 240 + 80, 400, "damaged"),
            "no parts": ([], 0, 401, "log in again"),
        }
        for name, (parts, cut, status, text) in cases.items():
            with self.subTest(name):
                body = form(parts)[:-cut or None]
                found, reply = post(standin, "uploadTemplate", "multipart/form-data; boundary=" + BOUNDARY, body)
                self.assertEqual((found, text in reply), (status, True), reply)
                self.assertEqual(len(os.listdir(standin.folder)), 1, "the whole one")


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
        ran = subprocess.run([service.STANDIN_PYTHON, "-c", PIECES, BOUNDARY], env=service.standin_environment(),
                             input=form([("a", None, "x" * 90), ("b", "p", "y" * 333), ("c", "q", "")]),
                             stderr=subprocess.PIPE)
        self.assertEqual((ran.returncode, ran.stderr.decode()), (0, ""))


if __name__ == "__main__":
    unittest.main()
