"""The examples as a user runs them: the asyncio script's outcomes, and the window's states with both bindings."""

import os
import pathlib
import signal
import subprocess
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "python"))
import common  # noqa: E402
import fixtures  # noqa: E402
from kestrelhub_standin import launch  # noqa: E402

EXAMPLES = fixtures.REPOSITORY / "examples"
INTERRUPTED = str(fixtures.REPOSITORY / "tests" / "support" / "interrupted.py")
BINDING = """
import sys
for binding in sys.argv[2:]:
    sys.modules[binding] = None  # cannot be imported
"""
SCREENSHOTS = BINDING + """
import make_screenshots
make_screenshots.main(sys.argv[1])
"""
INTERRUPTED_WINDOW = BINDING + """
import interrupted, qt_publish
class Window(qt_publish.PublishWindow):
    def __init__(self, folder):
        super().__init__(folder)
        self.title.setText("Never")
        qt_publish.QtCore.QTimer.singleShot(0, self.publish)
qt_publish.PublishWindow = Window
sys.exit(qt_publish.main())
"""
KEYBOARD = BINDING + """
import importlib, os, tempfile, types, qt_publish
from qt_publish import QtCore, QtWidgets
QtGui = importlib.import_module(QtCore.__name__.replace("Core", "Gui"))
def press(widget, key):
    event = QtGui.QKeyEvent(QtCore.QEvent.Type.KeyPress, key, QtCore.Qt.KeyboardModifier.NoModifier)
    QtWidgets.QApplication.sendEvent(widget, event)
application = QtWidgets.QApplication(sys.argv[:1])
QtCore.QSettings.setPath(QtCore.QSettings.Format.NativeFormat, QtCore.QSettings.Scope.UserScope, sys.argv[1])
window = qt_publish.PublishWindow("nowhere")
window.show()
height = window.height()
press(window.title, QtCore.Qt.Key.Key_Return)
assert window.status.text() == "Not published: the preset needs a title", window.status.text()
for folder in ("nowhere", sys.argv[1]):
    data = types.SimpleNamespace(urls=lambda: [QtCore.QUrl.fromLocalFile(sys.argv[1])])
    if folder != "nowhere":
        window.dropEvent(types.SimpleNamespace(mimeData=lambda: data, acceptProposedAction=lambda: None))
    assert window.folder.text() == folder
    window.title.setText("Title")
    press(window.title, QtCore.Qt.Key.Key_Return)
    application.processEvents()
    assert window.status.text() == "Not published: the folder holds no preset that can be sent", window.status.text()
    assert "Errno" not in window.status.toolTip() and "effect" in window.status.toolTip() or folder == "nowhere"
    assert window.height() == height and not window.cancel_button.isEnabled()
press(window, QtCore.Qt.Key.Key_Escape)
assert not window.isVisible()
"""


class ExamplesTest(common.StandinCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.env = {**cls.standin.env, "SKIFFHOST_USER": launch.USER, "SKIFFHOST_PASSWORD": launch.PASSWORD,
                   "PYTHONPATH": os.pathsep.join((*common.PATH, str(EXAMPLES)))}
        cls.large = fixtures.write_preset(cls.scratch / "large", {"effect": 80_000_000})

    def start(self, folder, title, *program):
        command = [sys.executable, "-B", *(program or [str(EXAMPLES / "asyncio_publish.py")]), str(folder), title]
        process = subprocess.Popen(command, env=self.env, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.addCleanup(process.__exit__, None, None, None)
        self.addCleanup(process.kill)
        return process

    def test_the_asyncio_script_reports_each_outcome(self):
        small = fixtures.write_preset(self.scratch / "small")
        output, errors = self.start(small, "From asyncio").communicate(timeout=fixtures.DEADLINE_SECONDS)
        self.assertEqual(output, f"published {self.standin.presets()[-1]['address']}\n", errors)
        process = self.start(small, " ")
        errors = process.communicate(timeout=fixtures.DEADLINE_SECONDS)[1]
        self.assertTrue(errors.endswith("not published: A preset needs a title.\n"), errors)
        for program in ((), (INTERRUPTED, "asyncio_publish")):
            process = self.start(self.large, "Never", *program)
            if not program:
                self.assertIn("uploading", process.stderr.readline())
                process.send_signal(signal.SIGINT)
            errors = process.communicate(timeout=fixtures.DEADLINE_SECONDS)[1]
            self.assertTrue(errors.endswith("not published: cancelled\n"), errors)
            self.assertEqual(process.returncode, 130)
        self.assertEqual(len(self.standin.presets()), 1)

    def run_window(self, script, *arguments):
        done = subprocess.run([sys.executable, "-B", "-c", script, *arguments], env=self.env, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, timeout=2 * fixtures.DEADLINE_SECONDS)
        self.assertEqual(done.returncode, 0, done.stdout.decode())
        return done.stdout.decode()

    def test_the_window_reaches_every_state_and_an_interrupt_closes_it(self):
        for binding, others in (("PyQt6", ()), ("PySide2", ("PyQt6",))):
            with self.subTest(binding):
                pictures = self.scratch / binding
                pictures.mkdir()
                self.run_window(SCREENSHOTS, str(pictures), *others)
                self.assertEqual(len(list(pictures.glob("*.png"))), 6)
                self.run_window(KEYBOARD, str(pictures), *others)
                self.assertNotIn("Traceback", self.run_window(INTERRUPTED_WINDOW, str(self.large), *others))
        self.assertNotIn("Never", [record["fields"]["title"] for record in self.standin.presets()])


if __name__ == "__main__":
    unittest.main()
