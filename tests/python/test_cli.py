"""The command line, run as a process against the stand-in."""

import argparse
import contextlib
import fcntl
import json
import os
import pty
import re
import signal
import struct
import subprocess
import sys
import termios
from unittest import mock

import common
import fixtures
from kestrelhub_standin import launch
from scripted import DEFAULT, DETECT, STAGE, Network

from skiffhost import outcome, session
from skiffhost.presetfiles import FILES

FIELDS = ["--title", "Ü & 🌇", "--category", "2", "--tags", "a,b", "--description", 'x "y"', "--collections", "",
          "--pip-type", "colour", "--template-key", "K-1"]
COMMAND = ("-m", "skiffhost")
INTERRUPTED = (str(fixtures.REPOSITORY / "tests" / "support" / "interrupted.py"), "skiffhost")


def changed(change):
    """A program that runs the command with something changed first."""
    return ("-c", f"import signal, sys; {change}; from skiffhost.__main__ import main; sys.exit(main())")


UPLOADER = "import Skiffport; uploader = Skiffport.PyPresetUploader; real = uploader.SetCallback; "
SLOW_CANCEL = changed(UPLOADER + "uploader.CancelUpload = lambda uploader: None")
INTERRUPTED_START = changed(UPLOADER + "uploader.SetCallback = "
                            "lambda *how: real(*how) and how[1] and signal.raise_signal(2)")
INTERRUPTED_IMPORT = changed("sys.addaudithook(lambda event, values: event == 'import' and "
                             "values[0] == 'skiffhost.commands' and signal.raise_signal(2))")
NOT_BUILT = changed("sys.modules['_Skiffport'] = None")
LOGIN, VIDEO = ["--user", launch.USER], ["relate-video", "https://v.example/?a=1&b=2", "w e b", "x=y"]
REQUEST = ["request", DEFAULT, "/servlet/getPresetCategory", "--port", "80", "--params", "ap=TWR&Locid=en"]
# Imports everything, so that the standard library is there, and then once more as on Windows.
AS_ON_WINDOWS = """
import _signal, asyncio, importlib, os, pkgutil, shutil, signal, sys
import Skiffport, skiffhost
names = [name for _, name, _ in pkgutil.walk_packages(skiffhost.__path__, "skiffhost.") if "_messageloop" not in name]
for name in names:
    importlib.import_module(name)
for name in ["skiffhost", *names]:
    del sys.modules[name]
for name in ("SIGALRM SIGHUP SIGPIPE SIGUSR1 SIGUSR2 alarm pause pthread_kill pthread_sigmask setitimer sigpending "
             "sigtimedwait sigwait fork forkpty geteuid getuid killpg memfd_create mkfifo register_at_fork "
             "set_blocking add_signal_handler remove_signal_handler").split():
    for holder in (_signal, signal, os, asyncio.SelectorEventLoop):
        if name in vars(holder):
            delattr(holder, name)
signal.SIGBREAK = signal.SIGQUIT
sys.platform = "win32"
for name in names:
    importlib.import_module(name)
from skiffhost import __main__, in_background, loop
"""
WINDOWS_CTRL_C = AS_ON_WINDOWS + """
async def program():
    interrupted = asyncio.Event()
    with loop.on_interrupt(interrupted.set):
        in_background(signal.raise_signal, signal.SIGINT).result()
        await asyncio.wait_for(interrupted.wait(), 60)
asyncio.run(program())
print(signal.getsignal(signal.SIGINT) is signal.default_int_handler)
"""


class CommandLineTest(common.StandinCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.env = {**cls.standin.env, "SKIFFHOST_PASSWORD": launch.PASSWORD, "TERM": "xterm"}
        cls.env.pop("SKIFFHOST_USER", None)
        cls.preset = fixtures.write_preset(cls.scratch / "small", {"cover_after": 300000})
        cls.publish = ["publish", launch.USER, str(cls.preset), *FIELDS]

    def start(self, *arguments, program=COMMAND, prepare=None, **env):
        process = subprocess.Popen([sys.executable, *program, *arguments], env={**self.env, **env}, encoding="utf-8",
                                   stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                   preexec_fn=prepare)
        self.addCleanup(process.__exit__, None, None, None)  # waits and closes the pipes
        self.addCleanup(process.kill)
        return process

    def run_cli(self, *arguments, **how):
        """Returns exit code, standard output and standard error."""
        process = self.start(*arguments, **how)
        streams = process.communicate(timeout=fixtures.DEADLINE_SECONDS)
        return (process.returncode, *streams)

    def check(self, arguments, code, output="", errors="", **how):
        """Runs the command. Each text must be in its stream, in one line of errors, and no text means nothing."""
        found = self.run_cli(*arguments, **how)
        self.assertEqual((found[0], bool(found[1]), found[2].count("\n")), (code, bool(output), bool(errors)),
                         (arguments, found))
        self.assertEqual((output in found[1], errors in found[2]), (True, True), (arguments, found))
        return found[1]

    def run_on_terminal(self, *arguments, program=COMMAND, columns=80, keys=b"", **env):
        """Types the keys when a password is asked for. Returns exit code or -signal, and all that was shown."""
        child, terminal = pty.fork()
        if child == 0:
            fcntl.ioctl(0, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
            os.execve(sys.executable, [sys.executable, *program, *arguments], {**self.env, **env})
        shown = b""
        with contextlib.suppress(OSError):  # how a terminal ends whose process has ended
            while True:
                shown += os.read(terminal, 4096)
                if b"Password" in shown:
                    keys = keys[os.write(terminal, keys):]
        os.close(terminal)
        status = os.waitpid(child, 0)[1]
        return -os.WTERMSIG(status) or os.WEXITSTATUS(status), shown.decode()

    def test_logins_print_the_member_or_the_reason_but_not_the_token(self):
        code, output, errors = self.run_cli("login", "--verbose", SKIFFHOST_USER=launch.USER)
        self.assertIn("[KHLoginData] TWR Revision API = ", errors)
        self.assertEqual((code, "Mika Ångström" in output, re.search(r"\b[0-9a-f]{32}\b", output)), (0, True, None))
        closed = ",".join(f"{host}:443:127.0.0.1:1" for host in (DETECT, DEFAULT, STAGE))
        failed = "no answer to the login: the "
        with Network() as network:
            network.reply(DEFAULT, "", tls="expired")
            expired = {name: os.environ[name] for name in ("SKIFFPORT_CONNECT_TO", "SSL_CERT_FILE")}
            for code, text, env in [
                    (1, "the user name or the password is wrong, or ", {"SKIFFHOST_PASSWORD": "wrong"}),
                    (3, failed + "server could not be reached", {"SKIFFPORT_CONNECT_TO": closed}),
                    (3, failed + "service can be reached, but its certificate has expired", expired),
                    (2, "SSL_CERT_FILE names no file that can be read: /\n", {"SSL_CERT_FILE": "/"})]:
                self.check(["login", launch.USER, "--json", "--host", DEFAULT], code, f'"exit_code": {code}',
                           "skiffhost: " + text, **env)

    def test_addresses_print_what_was_found(self):
        _, output, _ = self.run_cli("--uuid", "u-1", "addresses", "--json", "--version-name", "7")
        self.assertIn(f'"server": "{DEFAULT}", "sign_up": "https://{DEFAULT}/signUp?from=twr&uuid=u-1"', output)
        self.assertIn("version=7&versionType=Retail", self.standin.requests()[-1]["target"])
        with Network() as network:
            network.lead(f"{DETECT}:443:127.0.0.1:1")
            for text in ("no answer from the detection host", "named no pages"):
                code, output, errors = self.run_cli("addresses", **os.environ)
                self.assertEqual((code, output.split(), text in errors), (3, ["server", STAGE], True), errors)
                network.reply(DETECT, "<INFO></INFO>")

    def test_the_user_and_the_password_have_several_sources(self):
        file, empty = self.scratch / "password", self.scratch / "empty"
        file.write_bytes("pß \r\nsecond line".encode())
        empty.write_bytes(b"\n")
        for named, user, path, env, expected in [
                ("a", None, None, ("b", "p"), ("a", "p")),
                (None, "a", None, ("b", "p"), ("a", "p")),
                (None, None, None, ("b", "p"), ("b", "p")),
                (None, "a", file, ("", "p"), ("a", "pß ")),
                (None, "", None, ("b", "p"), "no user"),
                ("a", "b", None, ("", "p"), "named twice"),
                ("a", None, None, ("", ""), "SKIFFHOST_PASSWORD is empty"),
                ("a", None, None, ("",), "no password: use --password-file"),
                ("a", None, empty, ("", "p"), "first line is empty"),
                ("a", None, "/gone", ("", "p"), "cannot read the password file /gone: No such file or directory$")]:
            given = argparse.Namespace(named=named, user=user, password_file=path and str(path))
            env = dict(zip(("SKIFFHOST_USER", "SKIFFHOST_PASSWORD"), env))
            with self.subTest(named=named, user=user, path=path, env=env), open(os.devnull) as nothing, \
                    mock.patch("sys.stdin", nothing), mock.patch.dict(os.environ, env):
                if isinstance(expected, str):
                    with self.assertRaisesRegex(outcome.Failure, expected):
                        session.account_of(given)
                else:
                    self.assertEqual(session.account_of(given), expected)
                self.assertNotIn("SKIFFHOST_PASSWORD", os.environ, "the browser would inherit it")

    def test_prompts_and_imports_end_without_a_traceback(self):
        with mock.patch.dict(self.env):
            del self.env["SKIFFHOST_PASSWORD"]
            for program, keys, code, text in ((COMMAND, b"\x03", 130, "cancelled"), (INTERRUPTED_IMPORT, b"", -2, ""),
                                              (COMMAND, b"\n", 2, "the password is empty")):
                found, shown = self.run_on_terminal("login", "m", program=program, keys=keys)
                self.assertEqual((found, "Traceback" in shown, "skiffhost: " + text in shown),
                                 (code, False, bool(text)), shown)

    def test_publishes_all_fields_and_prints_few_progress_lines(self):
        code, output, errors = self.run_cli(*self.publish)
        record = self.standin.presets()[-1]
        self.assertEqual((code, output), (0, f"published {record['address']}\n"), errors)
        expected = {"title": "Ü & 🌇", "category": "2", "tags": "a,b", "description": 'x "y"', "PIPtype": "colour",
                    "templateKey": "K-1"}
        self.assertEqual({**record["fields"], **expected}, record["fields"])
        self.assertNotIn("collections", record["fields"])
        percents = list(map(int, re.findall(r"(\d+)%", errors)))
        self.assertEqual((percents, percents[12:]), (sorted(percents), []))
        self.assertIn("finishing 100%", errors.splitlines()[-1])
        text = "A preset needs a title."  # the service's own message
        self.assertEqual(self.run_cli(*self.publish, "--json", "--title", "\u00a0"), (
            1, json.dumps({"ok": False, "error": text, "exit_code": 1}) + "\n", f"skiffhost: {text}\n"))

    def test_signals_cancel_the_upload_unless_they_are_ignored(self):
        """An upload whose start is interrupted must not go on; one that is told to ignore signals must."""
        ignored = [signal.SIGHUP, signal.SIGINT]
        large = fixtures.write_preset(self.scratch / "large", dict.fromkeys(FILES, 3 << 20))
        for program, label, numbers, prepare, code in [
                (COMMAND, "uploading", [signal.SIGINT], None, 130),
                (COMMAND, "uploading", [signal.SIGTERM], None, 130),
                (INTERRUPTED, "cancelling", [], None, 130),
                (INTERRUPTED_START, "cancelling|skiffhost", [], None, 130),
                (COMMAND, "uploading", ignored, lambda: [signal.signal(each, signal.SIG_IGN) for each in ignored], 0)]:
            with self.subTest(program=program, numbers=numbers):
                published = len(self.standin.presets())
                process = self.start("publish", launch.USER, str(large), *FIELDS, program=program, prepare=prepare,
                                     INTERRUPTS="1")
                errors = process.stderr.readline()
                self.assertRegex(errors, label)
                for number in numbers:
                    process.send_signal(number)
                errors += process.stderr.read()
                self.assertEqual(process.wait(fixtures.DEADLINE_SECONDS), code, errors)
                self.assertEqual(errors.endswith("skiffhost: cancelled\n"), code == 130, errors)
                self.assertNotIn("Traceback", errors)
                self.assertEqual(len(self.standin.presets()), published + (code == 0))
        fixtures.wait_until(lambda: not list(self.standin.folder.glob(".*")), "removal of the partial presets")

    def test_a_second_interrupt_ends_a_cancelled_upload(self):
        """The service gets everything but answers nothing, and the upload does not notice the cancel."""
        process = self.start(*self.publish, "--json", "--progress", "lines", program=SLOW_CANCEL)
        service = self.standin._process.pid
        self.addCleanup(os.kill, service, signal.SIGCONT)
        for label, target, number in (("uploading", service, signal.SIGSTOP), ("finishing", process.pid, signal.SIGINT),
                                      ("cancelling", process.pid, signal.SIGINT)):
            self.assertTrue(any(re.match(label + " [1-9]", line) for line in process.stderr))
            os.kill(target, number)
        output, errors = process.communicate(timeout=fixtures.DEADLINE_SECONDS)
        text = "cancelled; the service may have it"
        self.assertEqual((process.returncode, json.loads(output)["error"], errors), (130, text, f"skiffhost: {text}\n"))

    def test_narrow_terminals_show_percent_and_bar(self):
        for columns, encoding, bar in ((40, "utf-8", r" █+"), (40, "ascii", " #+"), (18, "utf-8", "")):
            code, shown = self.run_on_terminal(*self.publish, columns=columns, PYTHONIOENCODING=encoding)
            rows = re.split(r"[\r\n]+", shown)
            self.assertTrue(any(re.match(f"published *{bar} *100%", row) for row in rows), shown)
            self.assertEqual((code, [row for row in rows[:-2] if len(row) > columns]), (0, []))

    def test_mistakes_take_one_line_and_nothing_is_sent(self):
        publish, address = f"publish mika {self.preset} ", "--connect-to: not a rule host:port:address:port: "
        asked = self.standin.requests()
        for arguments, text in [
                ("", "missing a command: addresses, login, publish"),
                ("pubish", "unknown command: pubish; did you mean publish?"),
                (publish, "missing: --title (see skiffhost publish --help)"),
                (publish + "--titel T", "unknown option: --titel; did you mean --title?"),
                (publish + "--title My preset", "unexpected argument: preset"),
                (publish + "--title=", "--title: must not be empty"),
                (publish + "--title T --progress x", "--progress: unknown value: x; choose from auto, bar"),
                ("login mika --quiet --verbose", "cannot be combined"),
                (f"publish mika {self.scratch} --title T", "has none of its 13 files"),
                ("publish mika --title T", "missing: the preset's folder"),
                (publish + "--title T --effect /gone --curve-r /", "no such file: /gone; not a file: /"),
                ("publish folder --title T --user mika", "no such folder: folder"),
                (f"addresses --ca-file {self.preset}/effect.bin", "--ca-file: no PEM certificate in "),
                ("addresses --connect-to a:1:b:2,a:1:b", address + "a:1:b"),
                ("addresses --connect-to a:1:b:65536", address + "a:1:b:65536"),
                ("categories --host https://a/", "--host: not the name of a host: https://a/"),
                ("addresses --host a", "unknown option: --host"), ("--host a addresses", "no use for --host")]:
            with self.subTest(arguments=arguments):
                self.check([*arguments.split(), "--json"], 2, '"exit_code": 2}\n', text)
        self.assertIn("SKIFFPORT_PYTHONS", self.run_cli("addresses", program=NOT_BUILT)[2])
        self.assertEqual(self.standin.requests(), asked)

    def test_only_what_can_do_nothing_twice_is_tried_again(self):
        for words, retry in ((["categories"], "safe"), (["request", DEFAULT, "/"], "unsafe")):
            code, output, errors = self.run_cli("--json", "--retries", "1", "--connect-to", "::127.0.0.1:1", *words)
            found = (code, json.loads(output)["retry"], errors.count("trying again in 1 s"))
            self.assertEqual(found, (3, retry, retry == "safe"), errors)

    def test_closed_and_failing_streams(self):
        publish = f"publish {launch.USER} {self.preset} --title T"
        reader, gone = os.pipe()
        os.close(reader)
        self.addCleanup(os.close, gone)
        for command, code in [
                (f"--help >&{gone}", 141), (f"categories >&{gone}", 141), (f"bogus --json >&{gone}", 2),
                ("categories >/dev/full", 4), ("categories <&- >&- 2>&-", 0), ("bogus 2>&-", 2),
                ("bogus --json >/dev/full 2>&1", 2), (publish + " 2>&-", 0),
                (publish + " --progress bar 2>/dev/full", 0), (publish + " --quiet 2>&1", 0)]:
            done = subprocess.run(["bash", "-c", f"{sys.executable} -m skiffhost {command}; exit $?"], env=self.env,
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE, pass_fds=[gone], check=False)
            lines = done.stdout.count(b"\n")
            self.assertEqual((done.returncode, lines), (code, command.startswith("publish")), (command, done))
            self.assertNotRegex(done.stderr.decode(), "Traceback|Exception ignored|skiffhost: .*Broken pipe")

    def test_requests_print_their_answers_or_what_failed(self):
        self.assertEqual(self.run_cli(*self.publish, "--template-key", "{K-9}")[0], 0)
        address = self.standin.presets()[-1]["address"]
        # A text to find in each stream, or nothing for an empty stream, and a pattern of the last request's target.
        for arguments, code, output, errors, target in (
                (["categories", "de"], 0, "1  Porträt\n2  Landschaft\n3  Nacht\n4  Essen & Trinken\n5  S", "", "=de&"),
                (["categories", "a&b"], 0, "Portrait", "", "Locid=a%26b&"),
                (["categories", "--json"], 0, '"2": "Landscape"', "", "Locid=en&"),
                (["categories", "--host", "no-host.invalid"], 3, "", "no categories", "."),
                (["effect", "{k-9}", *LOGIN, "--json"], 0, f'"address": "{address}"', "", "&guid={k-9}$"),
                (["effect", "{k-9}"], 3, "", "it may need a login", "/GetEffectByGUIDForTWR.token=&guid={k-9}$"),
                (["effect", "unknown", *LOGIN], 3, "", "no such effect", "guid=unknown$"),
                ([*VIDEO, *LOGIN], 0, f"https://{DEFAULT}/videos/", "",
                 "&videoURL=https://v.example/%3Fa%3D1%26b%3D2&website=w%20e%20b&.*&x=y$"),
                (["relate-video", "", "web", *LOGIN], 3, "", "refused it", "setRelateVideo"),
                (VIDEO, 2, "", "--user", "."),
                (["request", "no-host.invalid", "/"], 3, "", "name could not be found", "."),
                (REQUEST, 0, '<category categoryid="3">Night</category>', "", "ap=TWR&Locid=en$"),
                (["request", DEFAULT, "/servlet/memLogin", "--form", "--params", "pwd=x", "--json"], 0,
                 "form is damaged.", "", "/servlet/memLogin$")):
            with self.subTest(arguments=arguments):
                self.check(arguments, code, output, errors)
                self.assertRegex(self.standin.requests()[-1]["target"], target)

    def test_what_a_service_may_also_answer(self):
        with Network() as network:
            network.reply(DEFAULT, "a\x1b[2J\x9b\u202e\u2066\ufeffä\u200d", tls="")
            self.check(REQUEST, 0, "a?[2J????ä\u200d\n", **os.environ)
            network.lead(self.env["SKIFFPORT_CONNECT_TO"])
            network.reply(DEFAULT, "<info><videoId>v</videoId></info>", "--then", "", tls="")
            env = {**os.environ, "SSL_CERT_FILE": self.env["SSL_CERT_FILE"]}
            self.check([*VIDEO, *LOGIN], 3, "", "reply is empty", **env)
            silent = network.play(DEFAULT, "silent-reply", tls="")
            process = self.start(*REQUEST, **os.environ)
            fixtures.wait_until(silent.received, "the request")
            process.send_signal(signal.SIGINT)  # must not wait for the end of the request
            self.assertEqual(process.wait(fixtures.DEADLINE_SECONDS / 2), -signal.SIGINT)

    def test_commands_and_a_ctrl_c_as_on_windows(self):
        main = AS_ON_WINDOWS + "sys.exit(__main__.main(sys.argv[1:]))"
        for script, words, code, output, errors in (
                (WINDOWS_CTRL_C, [], 0, "True\n", ""), (main, [*self.publish, "--quiet"], 0, "https://", ""),
                (main, ["publish", "--help"], 0, "--title", ""),
                (main, [*self.publish, "--ca-file=a"], 2, "", "--ca-file: not available on Windows, ")):
            with self.subTest(words=words):
                shown = self.check(words, code, output, errors, program=("-c", script))
                self.assertNotRegex(shown, "--(verbose|connect-to|ca-file)", "which it has not there")
