"""The command line, run as a process against the stand-in."""

import contextlib
import fcntl
import hashlib
import importlib.util
import json
import os
import pty
import re
import signal
import struct
import subprocess
import sys
import termios
import time
import unittest
from unittest import mock

import common
import fixtures
from kestrelhub_standin import launch
from scripted import DETECT, STAGE, Network

from skiffhost import progress
from skiffhost.presetfiles import FILES, SENT

FIELDS = ["--title", "Ü & 🌇", "--category", "2", "--tags", "a,b", "--description", 'x "y"', "--collections", "",
          "--pip-type", "colour", "--template-key", "K-1"]

COMMAND = ("-m", "skiffhost")
# Programs that run the command with something changed first.
MAIN = "; from skiffhost.__main__ import main; sys.exit(main())"
WITHOUT_RICH = ("-c", "import sys; sys.modules['rich'] = None" + MAIN)
SLOW_CANCEL = ("-c", "import sys, Skiffport; from skiffhost import timelimit; timelimit.GRACE_SECONDS = 0.5; "
               "Skiffport.PyPresetUploader.CancelUpload = lambda uploader: None" + MAIN)
SLOW_OUTPUT = ("-c", "import sys, time; from skiffhost import timelimit as limit; limit.GRACE_SECONDS = 0.1; "
               "sys.exit(limit.run_limited(0.5, lambda: limit.lift_limit() or time.sleep(1) or 7))")
INTERRUPTED_IMPORT = ("-c", "import sys, signal; sys.addaudithook(lambda event, values: event == 'import' and "
                      "values[0] == 'skiffhost.commands' and signal.raise_signal(2))" + MAIN)


class CommandLineCase(common.StandinCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.env = {**cls.standin.env, "SKIFFHOST_PASSWORD": launch.PASSWORD, "TERM": "xterm"}
        cls.preset = fixtures.write_preset(cls.scratch / "small", {"cover_after": 300000})

    def start(self, *arguments, program=COMMAND, **options):
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

    def run_on_terminal(self, *arguments, program=COMMAND, columns=80, keys=b""):
        """Types the keys when a password is asked for. Returns exit code or -signal, and all that was shown."""
        child, terminal = pty.fork()
        if child == 0:
            fcntl.ioctl(0, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
            os.execve(sys.executable, [sys.executable, *program, *arguments], self.env)
        shown = b""
        with contextlib.suppress(OSError):  # how a terminal ends whose process has ended
            while True:
                shown += os.read(terminal, 4096)
                if b"Password" in shown:
                    keys = keys[os.write(terminal, keys):]
        os.close(terminal)
        status = os.waitpid(child, 0)[1]
        return -os.WTERMSIG(status) or os.WEXITSTATUS(status), shown.decode()

    def stop_service(self):
        """From now on the stand-in answers nothing."""
        os.kill(self.standin._process.pid, signal.SIGSTOP)
        self.addCleanup(os.kill, self.standin._process.pid, signal.SIGCONT)


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
        code, output, errors = self.run_cli("login", launch.USER, "--password-file", str(password), "--verbose",
                                            SKIFFHOST_PASSWORD="no")
        self.assertEqual(code, 0)
        self.assertIn("[KHLoginData] TWR Revision API = ", errors)
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

    def test_fallback_addresses_are_a_failure(self):
        with Network() as network:
            for answers, text in ((False, "no answer from the detection host"), (True, "named no pages")):
                network.lead(f"{DETECT}:443:127.0.0.1:1")
                if answers:
                    network.reply(DETECT, "<INFO></INFO>")
                code, output, errors = self.run_cli("addresses", "--json", **os.environ)
                values = json.loads(output)
                self.assertEqual((code, values["exit_code"], values["ok"], values["server"]), (3, 3, False, STAGE))
                self.assertIn(f"{text}: these are fallback addresses", errors)

    def test_a_password_is_required_without_a_terminal(self):
        process = self.start("login", launch.USER, env=dict(os.environ))
        self.assertIn("no password", process.communicate(timeout=fixtures.DEADLINE_SECONDS)[1])
        self.assertEqual(process.returncode, 2)

    def test_an_interrupted_prompt_or_import_ends_without_a_traceback(self):
        env = {name: value for name, value in self.env.items() if name != "SKIFFHOST_PASSWORD"}
        with mock.patch.object(type(self), "env", env):
            for program, code in ((COMMAND, 130), (INTERRUPTED_IMPORT, -signal.SIGINT)):
                found, shown = self.run_on_terminal("login", "m", program=program, keys=b"\x03")
                self.assertNotIn("Traceback", shown)
                self.assertEqual((found, "skiffhost: cancelled" in shown), (code, code == 130), shown)


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
        code, output, errors = self.publish(str(self.preset), "--json", fields=["--title", "\u00a0"])
        self.assertEqual(code, 1)
        self.assertIn("A preset needs a title.", errors)
        self.assertEqual(json.loads(output), {"ok": False, "error": "A preset needs a title.", "exit_code": 1})

    def test_interrupts_cancel_the_upload(self):
        large = fixtures.write_preset(self.scratch / "large", dict.fromkeys(FILES, 3 << 20))
        published = len(self.standin.presets())
        inside = (str(fixtures.REPOSITORY / "tests" / "support" / "interrupted.py"), "skiffhost")
        for program, label in ((("-m", "skiffhost"), "uploading"), (inside, "cancelling")):
            process = self.start("publish", launch.USER, str(large), "--progress", "lines", *FIELDS, program=program,
                                 env={**self.env, "INTERRUPTS": "1"})
            self.assertIn(label, process.stderr.readline())
            if label == "uploading":
                process.send_signal(signal.SIGINT)
            errors = process.stderr.read()
            self.assertEqual((process.wait(fixtures.DEADLINE_SECONDS), process.stdout.read()), (130, ""), errors)
            self.assertTrue(errors.endswith("skiffhost: cancelled\n"), errors)
            self.assertNotIn("Traceback", errors)
        self.assertEqual(len(self.standin.presets()), published)
        fixtures.wait_until(lambda: not list(self.standin.folder.glob(".*")), "removal of the partial preset")

    def test_a_second_interrupt_or_the_time_limit_ends_a_cancelled_upload(self):
        """The service gets everything but answers nothing, and the upload does not notice the cancel."""
        tiny = str(fixtures.write_preset(self.scratch / "tiny"))
        cases = [((), ("uploading", "finishing", "cancelling"), 130, "cancelled; the service may have it"),
                 (("--timeout", "3"), ("uploading", "finishing"), 124,
                  "the time limit has passed; the service may have it")]
        for options, labels, code, text in cases:
            process = self.start("publish", launch.USER, tiny, "--json", "--progress", "lines", *options, *FIELDS,
                                 program=SLOW_CANCEL)
            for label in labels:
                if not any(re.match(label + " [1-9]", line) for line in process.stderr):
                    text = "the time limit has passed"  # which a slow login takes, too
                self.stop_service()
                if code == 130 and label != "uploading":
                    process.send_signal(signal.SIGINT)
            output, errors = process.communicate(timeout=20)
            self.doCleanups()
            values = json.loads(output)
            self.assertEqual((process.returncode, values["exit_code"], values["error"]), (code, code, text))
            self.assertEqual(errors.splitlines()[-1], "skiffhost: " + values["error"])

    def test_narrow_terminals_show_percent_and_bar(self):
        rich = [(COMMAND, 40, "━"), (COMMAND, 20, "━")] if importlib.util.find_spec("rich") else []
        for program, columns, bar in (*rich, (WITHOUT_RICH, 40, r" \[#+\]"), (WITHOUT_RICH, 20, "")):
            code, shown = self.run_on_terminal("publish", launch.USER, str(self.preset), *FIELDS, program=program,
                                               columns=columns)
            rows = re.split(r"[\r\n]+", re.sub(r"\x1b\[[0-9?;]*[A-Za-z]", "", shown))
            self.assertTrue(any(re.match(f"finishing *{bar}.*100%", row) for row in rows), shown)
            self.assertEqual((code, [row for row in rows[:-2] if len(row) > columns]), (0, []))


class ArgumentsTest(CommandLineCase):
    def test_mistakes_take_one_line_and_nothing_is_sent(self):
        publish, address = f"publish mika {self.preset} ", "--connect-to: not a rule host:port:address:port: "
        cases = [
            ("", "missing a command: addresses, login, publish"),
            ("pubish", "unknown command: pubish; did you mean publish?"),
            (publish, "missing: --title (see skiffhost publish --help)"),
            (publish + "--titel T", "unknown option: --titel; did you mean --title?"),
            (publish + "--title My preset", "unexpected argument: preset"),
            (publish + "--title=", "--title: must not be empty"),
            (publish + "--title T --progress x", "--progress: unknown value: x; choose from auto, bar"),
            ("login mika --quiet --verbose", "exclude each other"),
            (f"publish mika {self.scratch} --title T", "has none of its 13 files"),
            ("publish mika --title T", "missing: the preset's folder"),
            (f"addresses --ca-file {self.preset}/effect.bin", "--ca-file: no PEM certificate in "),
            ("addresses --ca-file /gone", "--ca-file: no such file"),
            ("addresses --connect-to a:1:b:2,a:1:b", address + "a:1:b"),
            ("addresses --connect-to a:1:b:65536", address + "a:1:b:65536"),
            ("categories --host https://a/", "--host: not the name of a host: https://a/"),
            ("categories --timeout 0", "--timeout: not a number of seconds above 0: 0"),
        ]
        asked = self.standin.requests()
        for arguments, text in cases:
            with self.subTest(arguments=arguments):
                code, output, errors = self.run_cli(*arguments.split(), "--json")
                self.assertEqual((code, errors.count("\n")), (2, 1), errors)
                self.assertIn(text, json.loads(output)["error"])
        self.assertEqual(self.standin.requests(), asked)

    def test_closed_and_failing_streams(self):
        publish = f"publish {launch.USER} {self.preset} --title T"
        reader, gone = os.pipe()
        os.close(reader)
        self.addCleanup(os.close, gone)
        cases = [(f"--help >&{gone}", 4), (f"categories >&{gone}", 4), ("categories >/dev/full", 4),
                 ("categories <&- >&- 2>&-", 0), ("bogus 2>&-", 2), ("bogus --json >/dev/full 2>&1", 2),
                 (publish + " 2>&-", 0), (publish + " --progress bar 2>/dev/full", 0), (publish + " --quiet 2>&1", 0)]
        for command, code in cases:
            with self.subTest(command=command):
                done = subprocess.run(["bash", "-c", f"{sys.executable} -m skiffhost {command}"], env=self.env,
                                      stdout=subprocess.PIPE, stderr=subprocess.PIPE, pass_fds=[gone], check=False)
                lines = done.stdout.count(b"\n")
                self.assertEqual((done.returncode, lines), (code, command.startswith("publish")), done)
                self.assertNotRegex(done.stderr.decode(), "Traceback|Exception ignored")

    def test_the_time_limit_bounds_calls_that_block(self):
        self.stop_service()
        for command in (["login", launch.USER], ["categories", "--host", "www.kestrelhub.example"]):
            start = time.monotonic()
            code, output, errors = self.run_cli(*command, "--timeout", "0.5", "--json")
            self.assertLess(time.monotonic() - start, 5)  # a probe takes longer
            self.assertEqual((code, json.loads(output)["exit_code"]), (124, 124), errors)
            self.assertEqual(errors, "skiffhost: the time limit has passed\n")
        self.assertEqual(self.start(program=SLOW_OUTPUT).wait(20), 7)  # a command that has its outcome may print it


class ProgressTest(unittest.TestCase):
    def test_shows_counts_above_two_gigabytes(self):
        shown = progress.from_event(70, 1, -1294967296, -2, 120, 2500000, "x")
        self.assertEqual(progress.describe(shown), "3.0 GB of 4.3 GB, 5.0 MB/s, 1:00 left")
        self.assertEqual((shown.percent, shown.finishing), (69, False))
