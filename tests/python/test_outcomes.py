"""How awaited uploads end without a published preset, and what failures say."""

import asyncio
import re

import common

import Skiffport
import skiffhost
from skiffhost import aio, errors, loop

PRODUCT = ("10.5", "retail", "uuid-1")
FAILING = """
import asyncio, sys
import skiffhost
from skiffhost import aio, errors
assert skiffhost.record_causes()
import Skiffport
member = skiffhost.Member(Skiffport.KHLoginData("10.5", "retail", "uuid-1"), "10.5", "retail", "uuid-1")
for host, number, retry in (("refused.test", 12029, "safe"), ("no-host.invalid", 12007, "safe"),
                            ("detect.kestrelhub.example", 12045, "safe"), ("good.test", 12152, "unsafe")):
    member.session.SetKHURLAsReg(host)
    try:
        asyncio.run(aio.publish(member, sys.argv[1:], title="Title"))
    except skiffhost.NotPublished as failure:
        assert (failure.outcome, failure.error_number, failure.retry) == ("failed", number, retry), vars(failure)
        print(failure)
"""


class FailureTest(common.NetworkCase):
    def test_a_cancelled_task_waits_for_the_upload_while_the_loop_runs(self):
        self.network.play("www.kestrelhub.example", "stall")
        member = skiffhost.Member(Skiffport.KHLoginData(*PRODUCT), *PRODUCT)
        member.session.SetKHURLAsReg("www.kestrelhub.example")
        phases = []

        async def main():
            task = asyncio.ensure_future(aio.publish(member, self.preset({"effect": 10**7}), title="Title",
                                                     on_progress=lambda tracker: phases.append(tracker.phase)))
            while not phases:
                await asyncio.sleep(0.01)
            for _ in range(2):  # the second changes nothing
                task.cancel()
                await asyncio.sleep(0)
            await asyncio.wait([task])
            return task.cancelled()

        self.assertTrue(asyncio.run(main()))
        self.assertEqual((phases[-1], loop.pump()), ("cancelled", 0))

    def test_a_failure_says_why(self):
        self.network.lead("refused.test:443:127.0.0.1:1")
        self.network.play("detect.kestrelhub.example", "reply", tls="unknown-issuer")
        self.network.play("good.test", "close")
        status, printed = self.run_python(FAILING, *self.preset())
        expected = [errors.explain_error(number) + "; none of the files was sent, so it is safe to try again"
                    for number in (12029, 12007, 12045)] + [errors.explain_error(12152) + "; the service may have it"]
        self.assertEqual((status, printed.splitlines()), (0, expected))

    def test_each_error_has_one_sentence_and_a_row_in_the_reference(self):
        source = (common.ROOT / "framework/InternetSession.cpp").read_text()
        page = (common.ROOT / "docs/reference.md").read_text()
        sentences = dict(re.findall(r'\{ERROR_(\w+), L"(.*)"\}', source))
        self.assertEqual({name: errors.ErrorNumber[name].sentence for name in sentences}, sentences)
        rows = re.findall(r"^\| ([0-9, ]+) \| `0x8007", page, re.MULTILINE)
        self.assertEqual(sorted(map(int, ",".join(rows).split(","))), sorted(errors.ErrorNumber))
