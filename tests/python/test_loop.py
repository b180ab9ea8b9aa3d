"""The message loop's functions and its attachment to asyncio. tests/full has whole uploads and other loops."""

import argparse
import asyncio
import os
import select
import signal
import threading
from concurrent import futures
from unittest import mock

import common
import fixtures
from publication import Publication

from skiffhost import loop
from skiffhost.commands.options import DEFAULTS
from skiffhost.session import open_session

PATHS = [__file__] * 13
NO_SERVICE = "no-host:1"  # an invalid address: the upload fails at once with one event


def readable():
    return bool(select.select([loop.fileno()], [], [], 0)[0])


def queue_events(publications):
    """Leaves an event of each publication waiting in the queue."""
    for publication in publications:
        before = fixtures.threads()
        publication.start(PATHS)
        fixtures.wait_for_threads(before, "end of the upload's thread")


class LoopTest(common.Case):
    KEPT = 0

    def setUp(self):
        self.assertTrue(loop.release(), "an earlier test left an uploader")
        super().setUp()
        self.running = asyncio.new_event_loop()
        self.addCleanup(self.running.close)
        self.addCleanup(fixtures.wait_until, loop.release, "the queue's release")

    def test_the_descriptor_is_readable_while_events_wait(self):
        publications = [Publication(NO_SERVICE) for _ in range(3)]
        self.assertEqual(loop.fileno(), loop.fileno())
        self.assertFalse(os.get_inheritable(loop.fileno()))
        self.assertEqual((readable(), loop.wait(0), loop.pump()), (False, False, 0))
        queue_events(publications)
        self.assertFalse(loop.release(), "the uploaders need it")
        self.assertEqual((readable(), loop.wait(), loop.pump(2), readable(), loop.pump(limit=2), readable()),
                         (True, True, 2, True, 1, False))
        for publication in publications:
            self.assertEqual(len(publication.events), 1)
            publication.uploader.SetCallback(None)

    def test_rejects_wrong_arguments(self):
        for error, call, bad in ((ValueError, loop.pump, 0), (ValueError, loop.wait, -1), (TypeError, loop.wait, "1"),
                                 (ValueError, loop.wait, float("nan"))):
            self.assertRaises(error, call, bad)

    def test_wait_releases_the_gil_and_ends_with_a_signal(self):
        stop = threading.Event()

        def send():
            while not stop.wait(0.02):
                os.kill(os.getpid(), signal.SIGUSR1)

        def raise_once(*_):
            signal.signal(signal.SIGUSR1, signal.SIG_IGN)
            raise KeyError("from the handler")

        seen = []
        self.addCleanup(signal.signal, signal.SIGUSR1, signal.signal(signal.SIGUSR1, lambda *_: seen.append(1)))
        thread = threading.Thread(target=send)
        thread.start()
        self.addCleanup(thread.join)
        self.addCleanup(stop.set)
        self.assertFalse(loop.wait())
        self.assertTrue(seen)
        signal.signal(signal.SIGUSR1, raise_once)
        self.assertRaises(KeyError, loop.wait)

    def test_a_session_prepares_the_thread_that_opens_it(self):
        for prepare, first_time in (lambda: None, True), (lambda: open_session(argparse.Namespace(**DEFAULTS)), False):
            with futures.ThreadPoolExecutor(1) as pool:
                pool.submit(prepare).result()
                self.assertEqual(pool.submit(loop.initialize_thread).result(), first_time)

    def test_exceptions_in_a_callable_do_not_reach_the_loop(self):
        script = ("import signal, sys\nfrom publication import Publication\nfrom skiffhost import loop\n"
                  "p = Publication(sys.argv[1])\np.uploader.SetCallback(lambda *_: {})\n"
                  "assert p.start(sys.argv[2:]) != 0 and loop.wait()\n"
                  "try:\n    assert loop.pump() == 1\n"
                  "finally:\n    print('after', flush=True)\n")
        for action, status, goes_on in (("signal.raise_signal(signal.SIGINT)", 0, True), ("sys.exit(3)", 3, False)):
            found, output = self.run_python(script.format(action), NO_SERVICE, *PATHS)
            self.assertEqual((found, "KeyboardInterrupt" in output, "after" in output), (status, goes_on, goes_on),
                             output)

    def run_to_end(self, program):
        self.running.run_until_complete(asyncio.wait_for(program, fixtures.DEADLINE_SECONDS))

    async def until(self, condition):
        while not condition():
            await asyncio.sleep(0)

    def test_attachments_share_the_queue_and_keep_it_alive(self):
        async def program():
            first, second = loop.attach_asyncio(asyncio.get_running_loop()), loop.attach_asyncio()
            first.detach()
            self.assertFalse(loop.release(), "an attachment needs it")
            publication = Publication(NO_SERVICE)
            publication.start(PATHS)
            await self.until(lambda: publication.events)
            publication.uploader.SetCallback(None)
            with self.assertRaises(RuntimeError):
                await asyncio.get_running_loop().run_in_executor(None, second.detach)
            publication = None
            second.detach()
            second.detach()

        self.run_to_end(program())

    def test_polls_a_queue_without_a_descriptor(self):
        async def program():
            publication = Publication(NO_SERVICE)
            attachment = loop.attach_asyncio()
            for count in (1, 2):  # it goes on after an event
                publication.start(PATHS)
                await self.until(lambda: len(publication.events) == count)
            attachment.detach()
            queue_events([publication])
            with mock.patch.object(self.running, "call_later") as later:
                for _ in range(10):
                    await asyncio.sleep(0)
            later.assert_not_called()
            self.assertEqual((len(publication.events), loop.pump()), (2, 1), "polled after the end")
            publication.uploader.SetCallback(None)

        with mock.patch.multiple(loop, HAS_DESCRIPTOR=False, POLL_SECONDS=0):
            self.run_to_end(program())
            with loop.attach_qt(), loop.attach_tk(None):
                pass

    def test_a_failed_attachment_leaks_nothing(self):
        with mock.patch.object(self.running, "add_reader", side_effect=OSError("no more")):
            self.assertRaises(OSError, loop.attach_asyncio, self.running)
        self.assertRaises(RuntimeError, loop.attach_asyncio)
