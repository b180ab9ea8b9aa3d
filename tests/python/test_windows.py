"""The host package as on Windows: without the signals and calls that Python lacks there."""

import json

import common
import fixtures
from kestrelhub_standin import launch

# Imports everything, so that the standard library is there, and then once more as on Windows.
AS_ON_WINDOWS = """
import _signal, asyncio, contextlib, importlib, io, json, os, pkgutil, signal, sys
import Skiffport, skiffhost
names = [module.name for module in pkgutil.walk_packages(skiffhost.__path__, "skiffhost.")]
list(map(importlib.import_module, names))
for name in ["skiffhost", *names]:
    del sys.modules[name]
for module, missing in ((os, "fork forkpty geteuid getuid killpg memfd_create mkfifo register_at_fork set_blocking"),
                        (signal, "SIGALRM SIGHUP SIGPIPE SIGUSR1 SIGUSR2 alarm pause pthread_kill pthread_sigmask "
                         "setitimer sigpending sigtimedwait sigwait"),
                        (asyncio.SelectorEventLoop, "add_signal_handler remove_signal_handler")):
    for name in missing.split():
        for holder in (module, _signal) if module is signal else (module,):
            vars(holder).get(name) and delattr(holder, name)
signal.SIGBREAK = signal.SIGQUIT
sys.platform = "win32"
for name in names:
    importlib.import_module(name)
from skiffhost import __main__, in_background, loop
"""


class WindowsTest(common.StandinCase):
    def run_command(self, *words):
        """Returns exit code and output of a command that is run as on Windows."""
        return self.run_python(AS_ON_WINDOWS + "sys.exit(__main__.main(sys.argv[1:]))", *words,
                               SKIFFHOST_PASSWORD=launch.PASSWORD)

    def test_the_command_line_publishes(self):
        preset = fixtures.write_preset(self.scratch / "preset")
        code, output = self.run_command("publish", launch.USER, str(preset), "--title", "T", "--progress", "none")
        self.assertEqual((code, output), (0, f"published {self.standin.presets()[-1]['address']}\n"))

    def test_what_is_missing_is_refused_and_not_in_the_help(self):
        options = (["--verbose"], ["--connect-to", "a:1:b:2"], ["--ca-file=a"])
        code, output = self.run_command("publish", "--help")
        self.assertEqual((code, "--title" in output, [name for name, *_ in options if name.split("=")[0] in output]),
                         (0, True, []))
        for option in options:
            code, output = self.run_command(*option, "login", "mika", "--json")
            text = f"{option[0].split('=')[0]}: not available on Windows"
            self.assertEqual((code, json.loads(output.splitlines()[1])["error"].startswith(text)), (2, True), output)

    def test_a_ctrl_c_is_for_the_loop(self):
        code, output = self.run_python(AS_ON_WINDOWS + """
async def program():
    interrupted = asyncio.Event()
    with loop.on_interrupt(interrupted.set):
        in_background(signal.raise_signal, signal.SIGINT).result()
        await asyncio.wait_for(interrupted.wait(), 60)
asyncio.run(program())
print(signal.getsignal(signal.SIGINT) is signal.default_int_handler)
""")
        self.assertEqual((code, output), (0, "True\n"))
