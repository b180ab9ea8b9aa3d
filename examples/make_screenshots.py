#!/usr/bin/python3
"""Takes pictures of the Qt example's window in its states: make_screenshots.py FOLDER.

Fails if the window does not reach a state. Started by scripts/screenshots, which provides the display and the stand-in
of the service.
"""

import os
import pathlib
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests" / "support"))
import qt_publish  # noqa: E402
from fixtures import write_preset  # noqa: E402
from qt_publish import QtCore, QtWidgets  # noqa: E402

from skiffhost import loop  # noqa: E402

PRESET = "evening-sky"
SIZES = {"effect": 120_000_000, "cover_after": 9_000_000}  # large enough to catch the bar half full
POLL_MILLISECONDS = 5
DEADLINE_MILLISECONDS = 60000


def run_until(condition, what):
    """Runs the window's event loop until the condition holds."""
    waiting, poll, deadline = QtCore.QEventLoop(), QtCore.QTimer(), QtCore.QTimer()
    poll.timeout.connect(lambda: condition() and waiting.exit(0))
    poll.start(POLL_MILLISECONDS)
    deadline.timeout.connect(lambda: waiting.exit(1))
    deadline.start(DEADLINE_MILLISECONDS)
    if (waiting.exec() if hasattr(waiting, "exec") else waiting.exec_()) != 0:
        sys.exit(f"make_screenshots.py: the window did not reach: {what}")


def take_all(window, target):
    def take(name, condition):
        run_until(condition, name)
        window.grab().save(str(target / f"qt-{name}.png"))

    def says(start):
        return lambda: window.status.text().startswith(start)

    def publish(title):
        window.title.setText(title)
        window.publish_button.click()

    take("idle", says("Ready"))
    publish("Evening sky")
    take("uploading", lambda: window.bar.value() >= 55)
    take("finishing", says("Finishing"))
    take("published", says("Published"))
    password = window.password.text()
    window.password.setText("wrong")
    publish("Evening sky")
    take("refused", says("Not published: "))
    window.password.setText(password)
    publish("Evening sky")
    run_until(lambda: window.bar.value() >= 40, "the upload to be cancelled")
    window.cancel_button.click()
    take("cancelled", says("Not published: cancelled"))


def main(folder):
    target = pathlib.Path(folder).resolve()
    application = QtWidgets.QApplication(sys.argv[:1])
    application.setStyle("Fusion")
    with tempfile.TemporaryDirectory() as scratch, loop.attach_qt():
        os.chdir(scratch)  # makes the window show a short path
        QtCore.QSettings.setPath(QtCore.QSettings.Format.NativeFormat, QtCore.QSettings.Scope.UserScope, scratch)
        write_preset(pathlib.Path(PRESET), SIZES)
        window = qt_publish.PublishWindow(PRESET)
        window.show()
        take_all(window, target)


if __name__ == "__main__":
    main(sys.argv[1])
