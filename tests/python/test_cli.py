"""The command line, run as a process against the stand-in."""

import hashlib
import json
import os
import re
import signal
import subprocess
import sys
import unittest

import common
import fixtures
from kestrelhub_standin import launch

from skiffhost import progress
from skiffhost.presetfiles import FILES, SENT

FIELDS = ["--title", "Ü & 🌇", "--category", "2", "--tags", "a,b", "--description", 'x "y"', "--collections", "",
          "--pip-type", "colour", "--template-key", "K-1"]


class CommandLineCase(common.StandinCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.env = {**cls.standin.env, "SKIFFHOST_PASSWORD": launch.PASSWORD, "TERM": "xterm"}
        cls.preset = fixtures.write_preset(cls.scratch / "small", {"cover_after": 300000})

    def start(self, *arguments, program=("-m", "skiffhost"), **options):
        options = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, "env": self.env, **options}
        process = subprocess.Popen([sys.executable, *program, *arguments], stdin=subprocess.DEVNULL,
                                   universal_newlines=True, encoding="utf-8", **options)
        self.addCleanup(process.__exit__, None, None, None)  # waits and closes the pipes
        self.addCleanup(process.kill)
        return process

    def run_cli(self, *arguments, **env):
        """Returns exit code, standard output and standard error."""
        process = self.start(*arguments, env={**self.env, **env})
        output, errors = process.communicate(timeout=fixtures.DEADLINE_SECONDS)
        return process.returncode, output, errors


class AccountTest(CommandLineCase):
    def test_addresses_come_from_detection(self):
        code, output, _ = self.run_cli("--uuid", "u-1", "addresses", "--json", "--version-name", "7")
        self.assertEqual(code, 0)
        values = json.loads(output)
        self.assertEqual(values["server"], "www.kestrelhub.example")
        self.assertEqual(values["sign_up"], "https://www.kestrelhub.example/signUp?from=twr&uuid=u-1")
        self.assertIn("version=7&versionType=Retail", self.standin.requests()[-1]["target"])

    def test_login_prints_the_member_but_not_the_token(self):
        password = self.scratch / "password"
        password.write_text(launch.PASSWORD + "\n", "utf-8")
        code, output, _ = self.run_cli("login", launch.USER, "--password-file", str(password), SKIFFHOST_PASSWORD="no")
        self.assertEqual(code, 0)
        self.assertIn("Mika Ångström", output)
        self.assertIsNone(re.search(r"\b[0-9a-f]{32}\b", output))

    def test_failed_logins_state_the_reason(self):
        closed = ",".join(f"{name}.kestrelhub.example:443:127.0.0.1:1" for name in ("detect", "www", "stage"))
        cases = [
            (1, "did not accept the login", {"SKIFFHOST_PASSWORD": "wrong"}),
            (3, "no answer to the login", {"SKIFFPORT_CONNECT_TO": closed}),
            (3, "no answer to the login", {"SSL_CERT_FILE": str(self.preset / "effect.bin")}),
        ]
        for code, text, env in cases:
            with self.subTest(env=env):
                found, output, errors = self.run_cli("login", launch.USER, "--json", **env)
                self.assertEqual((found, json.loads(output)["exit_code"]), (code, code), errors)
                self.assertIn(text, errors)

    def test_a_password_is_required_without_a_terminal(self):
        process = self.start("login", launch.USER, env=dict(os.environ))
        self.assertIn("no password", process.communicate(timeout=fixtures.DEADLINE_SECONDS)[1])
        self.assertEqual(process.returncode, 2)


class PublishTest(CommandLineCase):
    def publish(self, *arguments, fields=FIELDS):
        return self.run_cli("publish", launch.USER, *arguments, *fields)

    def test_publishes_all_files_and_fields_and_prints_few_progress_lines(self):
        code, output, errors = self.publish(str(self.preset), "--curve-r", str(self.preset / "curve_b.bin"))
        self.assertEqual(code, 0, errors)
        record = self.standin.presets()[-1]
        self.assertEqual(output, f"published {record['address']}\n")
        names = ["curve_b" if name == "curve_r" else name for name in SENT]
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

    def test_reports_faulty_files_before_anything_is_sent(self):
        folder = fixtures.write_preset(self.scratch / "faulty")
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

    def test_prints_the_service_s_own_message_on_refusal(self):
        code, output, errors = self.publish(str(self.preset), "--json", fields=["--title", " "])
        self.assertEqual(code, 1)
        self.assertIn("A preset needs a title.", errors)
        self.assertEqual(json.loads(output), {"ok": False, "error": "A preset needs a title.", "exit_code": 1})

    def test_interrupts_cancel_the_upload(self):
        large = fixtures.write_preset(self.scratch / "large", dict.fromkeys(FILES, 3 << 20))
        published = len(self.standin.presets())
        inside = (str(fixtures.REPOSITORY / "tests" / "support" / "interrupted.py"), "skiffhost")
        for program, sent, label in ((("-m", "skiffhost"), 3, "uploading"), (inside, 0, "cancelling")):
            process = self.start("publish", launch.USER, str(large), "--progress", "lines", *FIELDS, program=program)
            self.assertIn(label, process.stderr.readline())
            for _ in range(sent):
                process.send_signal(signal.SIGINT)
            errors = process.stderr.read()
            self.assertEqual((process.wait(fixtures.DEADLINE_SECONDS), process.stdout.read()), (130, ""), errors)
            self.assertTrue(errors.endswith("skiffhost: cancelled\n"), errors)
            self.assertNotIn("Traceback", errors)
        self.assertEqual(len(self.standin.presets()), published)
        fixtures.wait_until(lambda: not list(self.standin.folder.glob(".*")), "removal of the partial preset")


class ProgressTest(unittest.TestCase):
    def test_shows_counts_above_two_gigabytes(self):
        shown = progress.from_event(70, 1, -1294967296, -2, 120, 2500000, "x")
        self.assertEqual(progress.describe(shown), "3.0 GB of 4.3 GB, 5.0 MB/s, 1:00 left")
        self.assertEqual((shown.percent, shown.finishing), (69, False))
