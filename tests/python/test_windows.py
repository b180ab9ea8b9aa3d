"""The host package as on Windows: without the signals and calls that Python lacks there."""

import common
import fixtures
from kestrelhub_standin import launch

# Imports everything, so that the standard library is there, and then once more as on Windows.
AS_ON_WINDOWS = """
import _signal, asyncio, importlib, os, pkgutil, signal, sys
import Skiffport, skiffhost
names = [module.name for module in pkgutil.walk_packages([os.environ["HOST"]], "skiffhost.")]
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
INTERRUPTED = """
async def program():
    interrupted = asyncio.Event()
    with loop.on_interrupt(interrupted.set):
        in_background(signal.raise_signal, signal.SIGINT).result()
        await asyncio.wait_for(interrupted.wait(), 60)
asyncio.run(program())
print(signal.getsignal(signal.SIGINT) is signal.default_int_handler)
"""


class WindowsTest(common.StandinCase):
    def test_commands_and_a_ctrl_c_in_asyncio(self):
        preset = fixtures.write_preset(self.scratch / "preset")
        run = "sys.exit(__main__.main(sys.argv[1:]))"
        publish = ["publish", launch.USER, str(preset), "--title", "T", "--progress", "none"]
        refused = r"\Askiffhost: --{}: not available on Windows, .*\n\Z"
        for script, words, code, text in [
                (INTERRUPTED, [], 0, r"\ATrue\n\Z"), (run, publish, 0, r"\Apublished https://.*\n\Z"),
                (run, ["publish", "--help"], 0, r"\A(?s:(?!.*--(verbose|connect-to|ca-file)).*--title)"),
                (run, ["--verbose", *publish], 2, refused.format("verbose")),
                (run, ["--connect-to", "a:1:b:2", *publish], 2, refused.format("connect-to")),
                (run, [*publish, "--ca-file=a"], 2, refused.format("ca-file"))]:
            with self.subTest(words=words):
                found, output = self.run_python(AS_ON_WINDOWS + script, *words, SKIFFHOST_PASSWORD=launch.PASSWORD,
                                                HOST=str(common.ROOT / "host" / "skiffhost"))
                self.assertEqual(found, code, output)
                self.assertRegex(output, text)
        self.assertEqual(len(self.standin.presets()), 1)
