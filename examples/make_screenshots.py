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
DEADLINE_MILLISECONDS = 60000


def run_until(window, *steps):
    """Runs the window's event loop through steps of a name, a condition and an action, each taken at the moment when
    its condition holds: the next event may end that."""
    waiting, deadline, left, show = QtCore.QEventLoop(), QtCore.QTimer(), list(steps), window._show

    def look():
        while left and left[0][1]():
            left.pop(0)[2]()
        if not left:
            window._show = show
            waiting.exit(0)

    def show_and_look(*arguments, **named):
        show(*arguments, **named)
        look()

    window._show = show_and_look
    QtCore.QTimer.singleShot(0, look)
    deadline.timeout.connect(lambda: waiting.exit(1))
    deadline.start(DEADLINE_MILLISECONDS)
    if (waiting.exec() if hasattr(waiting, "exec") else waiting.exec_()) != 0:
        sys.exit(f"make_screenshots.py: the window did not reach: {left[0][0]}")


def take_all(window, target):
    def picture(name, condition):
        return name, condition, lambda: window.grab().save(str(target / f"qt-{name}.png"))

    def says(start):
        return lambda: window.status.text().startswith(start)

    def publish(title):
        window.title.setText(title)
        window.publish_button.click()

    run_until(window, picture("idle", says("Ready")))
    publish("Evening sky")
    run_until(window, picture("uploading", lambda: window.bar.value() >= 55), picture("finishing", says("Finishing")),
              picture("published", says("Published")))
    password = window.password.text()
    window.password.setText("wrong")
    publish("Evening sky")
    run_until(window, picture("refused", says("Not published: ")))
    window.password.setText(password)
    publish("Evening sky")
    run_until(window, ("the upload to be cancelled", lambda: window.bar.value() >= 40, window.cancel_button.click),
              picture("cancelled", says("Not published: cancelled")))


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
