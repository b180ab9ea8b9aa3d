"""The command line, as a process against the stand-in, and the message loop that it runs on."""

import fcntl
import hashlib
import json
import os
import pathlib
import pty
import re
import signal
import struct
import subprocess
import sys
import tempfile
import termios
import unittest
from typing import Any, List, Tuple

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
sys.path.insert(0, os.environ["SKIFFPORT_TREE"])
import service  # noqa: E402

from skiffhost import progress  # noqa: E402
from skiffhost.completion import Completion, address_of  # noqa: E402
from skiffhost.outcome import Failure  # noqa: E402

FIELDS = ["--title", "Ü & 🌇", "--category", "2", "--tags", "a,b", "--description", 'x "y"', "--collections", "",
          "--pip-type", "colour", "--template-key", "K-1"]


class CommandLineCase(unittest.TestCase):
    @classmethod
    def setUpClass(cls) -> None:
        cls.standin = service.Standin().__enter__()
        cls.addClassCleanup(cls.standin.__exit__)
        scratch = tempfile.TemporaryDirectory()
        cls.addClassCleanup(scratch.cleanup)
        cls.scratch = pathlib.Path(scratch.name)
        cls.env = {**cls.standin.env, "SKIFFHOST_PASSWORD": service.PASSWORD, "TERM": "xterm"}
        cls.preset = service.write_preset(cls.scratch / "small", {"cover_after": 300000})

    def start(self, *arguments: str, **options: Any) -> "subprocess.Popen[str]":
        options = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, "env": self.env, **options}
        process = subprocess.Popen([sys.executable, "-m", "skiffhost", *arguments], stdin=subprocess.DEVNULL,
                                   universal_newlines=True, encoding="utf-8", **options)
        self.addCleanup(process.__exit__, None, None, None)  # waits and closes the pipes
        self.addCleanup(process.kill)
        return process

    def run_cli(self, *arguments: str, **env: str) -> Tuple[int, str, str]:
        """Returns exit code, standard output and standard error."""
        process = self.start(*arguments, env={**self.env, **env})
        output, errors = process.communicate(timeout=service.DEADLINE_SECONDS)
        return process.returncode, output, errors


class AccountTest(CommandLineCase):
    def test_addresses_come_from_detection(self) -> None:
        code, output, _ = self.run_cli("--uuid", "u-1", "addresses", "--json", "--version-name", "7")
        self.assertEqual(code, 0)
        values = json.loads(output)
        self.assertEqual(values["server"], "www.kestrelhub.example")
        self.assertEqual(values["sign_up"], "https://www.kestrelhub.example/signUp?from=twr&uuid=u-1")
        self.assertIn("version=7&versionType=Retail", self.standin.requests()[-1]["target"])

    def test_a_login_tells_of_the_member_and_keeps_the_token_back(self) -> None:
        password = self.scratch / "password"
        password.write_text(service.PASSWORD + "\n", "utf-8")
        code, output, _ = self.run_cli("login", service.USER, "--password-file", str(password), SKIFFHOST_PASSWORD="no")
        self.assertEqual(code, 0)
        self.assertIn("Mika Ångström", output)
        self.assertIsNone(re.search(r"\b[0-9a-f]{32}\b", output))

    def test_failed_logins_name_their_reason(self) -> None:
        closed = ",".join(f"{name}.kestrelhub.example:443:127.0.0.1:1" for name in ("detect", "www", "stage"))
        cases = [
            (1, "did not accept the login", {"SKIFFHOST_PASSWORD": "wrong"}),
            (3, "no answer to the login", {"SKIFFPORT_CONNECT_TO": closed}),
            (3, "no answer to the login", {"SSL_CERT_FILE": str(self.preset / "effect.bin")}),
        ]
        for code, text, env in cases:
            with self.subTest(env=env):
                found, output, errors = self.run_cli("login", service.USER, "--json", **env)
                self.assertEqual((found, json.loads(output)["exit_code"]), (code, code), errors)
                self.assertIn(text, errors)

    def test_without_a_terminal_there_must_be_a_password(self) -> None:
        without = {name: value for name, value in self.env.items() if name != "SKIFFHOST_PASSWORD"}
        process = self.start("login", service.USER, env=without)
        self.assertIn("no password", process.communicate(timeout=service.DEADLINE_SECONDS)[1])
        self.assertEqual(process.returncode, 2)


class PublishTest(CommandLineCase):
    def publish(self, *arguments: str, fields: List[str] = FIELDS) -> Tuple[int, str, str]:
        return self.run_cli("publish", service.USER, *arguments, *fields)

    def test_every_field_and_file_arrives_and_lines_stay_few(self) -> None:
        code, output, errors = self.publish(str(self.preset), "--curve-r", str(self.preset / "curve_b.bin"))
        self.assertEqual(code, 0, errors)
        record = self.standin.presets()[-1]
        self.assertEqual(output, f"published {record['address']}\n")
        names = [name for name in service.FILES if name != "curve_r"]
        names.insert(service.FILES.index("curve_r"), "curve_b")
        names.insert(1, "cover_after")
        digests = [hashlib.sha256((self.preset / f"{name}.bin").read_bytes()).hexdigest() for name in names]
        self.assertEqual([file["sha256"] for file in record["files"]], digests)
        expected = {"title": "Ü & 🌇", "category": "2", "tags": "a,b", "description": 'x "y"', "PIPtype": "colour",
                    "templateKey": "K-1"}
        self.assertEqual({name: record["fields"][name] for name in expected}, expected)
        self.assertNotIn("collections", record["fields"])
        percents = [int(percent) for percent in re.findall(r"(\d+)%", errors)]
        self.assertEqual(percents, sorted(percents))
        self.assertLessEqual(len(percents), 12)
        self.assertIn("finishing 100%", errors.splitlines()[-1])

    def test_faults_in_the_folder_are_told_before_anything_is_sent(self) -> None:
        folder = service.write_preset(self.scratch / "faulty")
        (folder / "levels_g.bin").unlink()
        (folder / "effect.old").write_text("")
        (folder / "curve_r.bin").unlink()
        (folder / "curve_r").mkdir()
        asked = self.standin.requests()
        code, output, errors = self.publish(str(folder), "--levels-b", str(folder / "gone"))
        self.assertEqual((code, output), (2, ""))
        for text in ("no file levels_g", "could be effect: effect.bin, effect.old", "not a file: ", "no such file: "):
            self.assertIn(text, errors)
        self.assertEqual(self.standin.requests(), asked)

    def test_a_refusal_comes_in_the_service_s_words(self) -> None:
        code, output, errors = self.publish(str(self.preset), "--json", fields=["--title", " "])
        self.assertEqual(code, 1)
        self.assertIn("A preset needs a title.", errors)
        self.assertEqual(json.loads(output), {"ok": False, "error": "A preset needs a title.", "exit_code": 1})

    def test_interrupts_cancel_and_publish_nothing(self) -> None:
        large = service.write_preset(self.scratch / "large", dict.fromkeys(service.FILES, 3 << 20))
        published = len(self.standin.presets())
        process = self.start("publish", service.USER, str(large), "--progress", "lines", *FIELDS)
        assert process.stderr is not None and process.stdout is not None
        self.assertIn("uploading", process.stderr.readline())
        for _ in range(3):
            process.send_signal(signal.SIGINT)
        errors = process.stderr.read()
        self.assertEqual((process.wait(service.DEADLINE_SECONDS), process.stdout.read()), (130, ""), errors)
        self.assertTrue(errors.endswith("skiffhost: cancelled\n"), errors)
        self.assertNotIn("Traceback", errors)
        self.assertEqual(len(self.standin.presets()), published)
        service.wait_until(lambda: not list(self.standin.folder.glob(".*")), "removal of what had arrived")

    def test_a_terminal_gets_a_bar_that_finishes(self) -> None:
        controller, terminal = pty.openpty()
        self.addCleanup(os.close, controller)
        fcntl.ioctl(terminal, termios.TIOCSWINSZ, struct.pack("HHHH", 24, 90, 0, 0))
        process = self.start("publish", service.USER, str(self.preset), *FIELDS, stderr=terminal)
        os.close(terminal)
        drawn = b""
        try:
            while True:
                drawn += os.read(controller, 65536)
        except OSError:  # the terminal's last user has gone
            pass
        assert process.stdout is not None
        self.assertTrue(process.stdout.read().startswith("published https://"))
        text = drawn.decode()
        self.assertRegex(text, r"(?s)uploading.*\r.*/s, \d+:\d\d left.*\r.*finishing.*100%")
        self.assertEqual(text.count("\n"), 1)


class CompletionTest(unittest.TestCase):
    def test_what_a_completion_means(self) -> None:
        cases = [  # accepted, address, error, cancelled: address or exit code and text
            (1, "https://x", "", True, "https://x"),
            (1, "", "", False, ""),
            (1, "", "Later.", False, (1, "Later.")),
            (0, "https://x", "No.", True, (1, "No.")),
            (0, "", "", True, (130, "cancelled")),
            (0, "https://x", "", False, (3, "no accepted answer")),
        ]
        for accepted, address, error, cancelled, expected in cases:
            try:
                found: Any = address_of(Completion(100, accepted, address, error, 5, 1), cancelled)
            except Failure as failure:
                found = (failure.exit_code, failure.text)
            self.assertEqual(found, expected)


class ProgressTest(unittest.TestCase):
    def test_counts_and_ticks_become_everyday_units(self) -> None:
        shown = progress.from_event(70, 1, -1294967296, -2, 120, 2500000, "x")
        self.assertEqual(shown, progress.Progress(3000000000, 4294967294, 60.0, 5000000.0))
        self.assertEqual(progress.describe(shown), "3.0 GB of 4.3 GB, 5.0 MB/s, 1:00 left")
        self.assertEqual((shown.percent, shown.finishing), (69, False))
        self.assertEqual(progress.from_event(99, 0, 90, 100, 50, 2, "x").seconds_left, 2.5)
        empty = progress.from_event(0, 0, 0, 0, 0, 5600, "x")
        self.assertEqual((empty.percent, empty.finishing), (100, True))


MESSAGE_LOOP = """
import asyncio, os, signal, sys, threading
from publication import Publication
from skiffhost import loop

def waits_end():
    assert loop.wait(0.01) is False and loop.pump() == 0
    for bad in (lambda: loop.pump(0), lambda: loop.wait(-1), lambda: loop.wait(float("nan"))):
        try: bad()
        except ValueError: continue
        raise AssertionError

def signals_end_waits_and_other_threads_run():
    seen, stop = [], threading.Event()
    def send():
        while not stop.wait(0.02): os.kill(os.getpid(), signal.SIGUSR1)
    def raise_once(*_):
        signal.signal(signal.SIGUSR1, signal.SIG_IGN)
        raise KeyError
    signal.signal(signal.SIGUSR1, lambda *_: seen.append(1))
    thread = threading.Thread(target=send)
    thread.start()
    assert loop.wait() is False and seen
    try:
        signal.signal(signal.SIGUSR1, raise_once)
        loop.wait()
    except KeyError: stop.set()
    assert stop.is_set()
    thread.join()

async def events_arrive_in_asyncio():
    done = asyncio.get_running_loop().create_future()
    publication = Publication("no-host:1")  # no address, so the upload fails at once, with one event
    publication.uploader.SetCallback(lambda *event: done.set_result(event))
    with loop.attach_asyncio():
        thread = publication.start(sys.argv[1:] * 13, number=-5)
        assert await asyncio.wait_for(done, 60) == ("PROGRESS", "UploadComplete", 100, 0, "", "", thread, -5)

waits_end(); signals_end_waits_and_other_threads_run()
asyncio.run(events_arrive_in_asyncio())
print("good")
"""


class MessageLoopTest(unittest.TestCase):
    def test_waits_signals_and_an_asyncio_program(self) -> None:
        paths = (os.environ["SKIFFPORT_TREE"], str(service.REPOSITORY / "tests" / "support"))
        env = {**service.clean_environment(), "PYTHONPATH": os.pathsep.join(paths)}
        ran = subprocess.run([sys.executable, "-c", MESSAGE_LOOP, __file__], env=env, stdin=subprocess.DEVNULL,
                             stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=service.DEADLINE_SECONDS)
        self.assertEqual((ran.returncode, ran.stdout), (0, b"good\n"), ran.stderr.decode())


if __name__ == "__main__":
    unittest.main()
