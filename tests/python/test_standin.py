"""The stand-in's multipart parser."""

import common
from kestrelhub_standin import launch

PIECES = """
import asyncio
from unittest import mock
import aiohttp
from kestrelhub_standin.upload import WholeReads

CONTENTS = [b"x" * 90, b"y" * 333, b""]
BODY = b"".join(b'--0041FA2B7B3C\\r\\nContent-Disposition: form-data; name="a"\\r\\n\\r\\n%s\\r\\n' % each
                for each in CONTENTS) + b"--0041FA2B7B3C--\\r\\n"

async def parse(piece):
    reader = aiohttp.StreamReader(mock.Mock(_reading_paused=False), 1 << 16, loop=asyncio.get_running_loop())
    headers = {"Content-Type": "multipart/form-data; boundary=0041FA2B7B3C"}
    async def feed():
        for start in range(0, len(BODY), piece):
            reader.feed_data(BODY[start:start + piece])
            for _ in range(3):  # lets the parser run
                await asyncio.sleep(0)
        reader.feed_eof()
    feeding = asyncio.ensure_future(feed())
    found = [bytes(await part.read()) async for part in aiohttp.MultipartReader(headers, WholeReads(reader))]
    assert found == CONTENTS, f"pieces of {piece} bytes"

for piece in range(1, 80): asyncio.run(parse(piece))
"""


class BodyInPiecesTest(common.Case):
    def test_a_boundary_may_arrive_in_pieces_of_any_size(self):
        """Feeds the parser directly, since a connection would join the pieces."""
        ran = common.fixtures.run([launch.PYTHON, "-c", PIECES], launch.standin_environment())
        self.assertEqual(ran, (0, ""))
