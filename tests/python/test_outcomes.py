"""What an asyncio host awaits, what failures say, and what the command line tries again."""

import asyncio
import json
import os
import re
import subprocess
import sys

import common

import Skiffport
import skiffhost
from skiffhost import aio, completion, errors, loop

PRODUCT = {"version": "10.5", "version_type": "retail", "uuid": "uuid-1"}
FAILING = """
import asyncio, sys
import skiffhost
from skiffhost import aio, errors
assert skiffhost.record_causes()
import Skiffport
member = skiffhost.Member(Skiffport.KHLoginData("10.5", "retail", "uuid-1"), "10.5", "retail", "uuid-1")
for host, number in ("refused.test", 12029), ("no-host.invalid", 12007), ("detect.kestrelhub.example", 12045):
    member.session.SetKHURLAsReg(host)
    try:
        asyncio.run(aio.publish(member, sys.argv[1:], title="Title"))
    except skiffhost.NotPublished as failure:
        assert (failure.outcome, failure.error_number, failure.retry) == ("failed", number, "safe"), vars(failure)
        print(failure)
"""


class AwaitTest(common.StandinCase):
    def test_publishes_and_says_why_it_did_not(self):
        async def main(password, title):
            seen = []
            member = await aio.log_in(common.launch.USER, password, **PRODUCT)
            address = await aio.publish(member, self.preset(), title=title, on_progress=lambda t: seen.append(t.phase))
            return address, seen[-1], sorted({*seen[:-1]})

        published = asyncio.run(main(common.launch.PASSWORD, "Title"))
        self.assertEqual(published[1:], ("published", ["finishing", "uploading"]))
        self.assertIn(published[0], [preset["address"] for preset in self.standin.presets()])
        with self.assertRaises(skiffhost.LoginFailed) as caught:
            asyncio.run(main("wrong", "Title"))
        self.assertTrue(caught.exception.refused)
        with self.assertRaises(skiffhost.NotPublished) as caught:
            asyncio.run(main(common.launch.PASSWORD, " "))
        self.assertEqual((caught.exception.outcome, caught.exception.retry), (completion.REFUSED, None))


class FailureTest(common.NetworkCase):
    def test_a_cancelled_task_waits_for_the_upload_while_the_loop_runs(self):
        self.network.play("www.kestrelhub.example", "stall")
        member = skiffhost.Member(Skiffport.KHLoginData(*PRODUCT.values()), *PRODUCT.values())
        member.session.SetKHURLAsReg("www.kestrelhub.example")
        phases = []

        async def main():
            task = asyncio.ensure_future(aio.publish(member, self.preset({"effect": 10**7}), title="Title",
                                                     on_progress=lambda tracker: phases.append(tracker.phase)))
            while not phases:
                await asyncio.sleep(0.01)
            task.cancel()
            await asyncio.sleep(0)
            task.cancel()  # changes nothing
            await asyncio.wait([task])
            return task.cancelled()

        self.assertTrue(asyncio.run(main()))
        self.assertEqual((phases[-1], loop.pump()), ("cancelled", 0))

    def test_a_failure_says_why(self):
        self.network.lead("refused.test:443:127.0.0.1:1")
        self.network.play("detect.kestrelhub.example", "reply", tls="unknown-issuer")
        status, printed = self.run_python(FAILING, *self.preset())
        expected = [errors.explain_error(number) + "; none of the files was sent, so it is safe to try again"
                    for number in (12029, 12007, 12045)]
        self.assertEqual((status, printed.splitlines()), (0, expected))


    def test_each_error_has_one_sentence_and_a_row_in_the_reference(self):
        source, page = ((common.ROOT / name).read_text() for name in ("framework/InternetSession.cpp", "docs/reference.md"))
        sentences = dict(re.findall(r'\{ERROR_(\w+), L"(.*)"\}', source))
        self.assertEqual({name: errors.ErrorNumber[name].sentence for name in sentences}, sentences)
        rows = re.findall(r"^\| ([0-9, ]+) \| `0x8007", page, re.MULTILINE)
        self.assertEqual(sorted(map(int, ",".join(rows).split(","))), sorted(errors.ErrorNumber))


class RetryTest(common.NetworkCase):
    def test_only_what_can_do_nothing_twice_is_tried_again(self):
        command = [sys.executable, "-m", "skiffhost", "--json", "--retries", "1", "--connect-to", "::127.0.0.1:1"]
        for words, retry in ((["categories"], "safe"), (["request", "www.kestrelhub.example", "/"], "unsafe")):
            done = subprocess.run([*command, *words], env={**os.environ, "PYTHONPATH": os.environ["SKIFFPORT_TREE"]},
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=60)
            found = (done.returncode, json.loads(done.stdout)["retry"], done.stderr.count(b"trying again in 1 s"))
            self.assertEqual(found, (3, retry, retry == "safe"), done)
