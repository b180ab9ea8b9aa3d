"""The stand-in's multipart parser."""

import subprocess

import common
from kestrelhub_standin import launch

BOUNDARY = "-" * 27 + "0041FA2B7B3C"
BODY = "".join(f'--{BOUNDARY}\r\nContent-Disposition: form-data; name="{name}"\r\n\r\n{contents}\r\n'
               for name, contents in (("a", "x" * 90), ("b", "y" * 333), ("c", ""))) + f"--{BOUNDARY}--\r\n"
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
            for _ in range(3):  # lets the parser run
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


class BodyInPiecesTest(common.Case):
    def test_a_boundary_may_arrive_in_pieces_of_any_size(self):
        """Feeds the parser directly, since a connection would join the pieces."""
        ran = subprocess.run([launch.PYTHON, "-c", PIECES, BOUNDARY], env=launch.standin_environment(),
                             input=BODY.encode(), stderr=subprocess.PIPE)
        self.assertEqual((ran.returncode, ran.stderr.decode()), (0, ""))
