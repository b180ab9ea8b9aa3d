#!/usr/bin/python3
"""A PyQt6 or PySide2 window that logs a member in and publishes a preset's folder: qt_publish.py [FOLDER].

Ctrl-C closes it. To try it against a stand-in of the service:
scripts/with-standin /usr/bin/python3 examples/qt_publish.py
"""

import html
import os
import signal
import sys
import threading
import uuid

try:
    from PyQt6 import QtCore, QtWidgets
    Signal = QtCore.pyqtSignal
except ImportError:
    from PySide2 import QtCore, QtWidgets
    Signal = QtCore.Signal

import Skiffport
from skiffhost import loop
from skiffhost.completion import Completion, address_of
from skiffhost.outcome import EXIT_CANCELLED, EXIT_NO_ANSWER, Failure
from skiffhost.presetfiles import find_files
from skiffhost.progress import describe, from_event
from skiffhost.session import check_login

PRODUCT = ("10.5", "retail", "4d0f2c1e-6a55-4a0e-9d7e-0c5b8f6f7a10")  # version, its type, this installation
SIGNAL_MILLISECONDS = 200  # upper bound on the delay of Ctrl-C


class PublishWindow(QtWidgets.QWidget):
    """Everything but ``_log_in`` runs on the window's thread."""

    login_ended = Signal(object, object)  # the session and LoginKestrelhub's outcome

    def __init__(self, folder=""):
        super().__init__()
        self.setWindowTitle("Publish a preset")
        self._uploader = None
        self._cancelled = False
        self._closing = False
        self._build(folder)
        self.login_ended.connect(self._on_login)
        self._show("Ready.")

    # The widgets

    def _build(self, folder):
        self.user = QtWidgets.QLineEdit(os.environ.get("SKIFFHOST_USER", ""))
        self.password = QtWidgets.QLineEdit(os.environ.get("SKIFFHOST_PASSWORD", ""))
        self.password.setEchoMode(QtWidgets.QLineEdit.EchoMode.Password)
        self.folder = QtWidgets.QLineEdit(folder)
        self.title = QtWidgets.QLineEdit()
        choose = QtWidgets.QPushButton("Choose …")
        choose.clicked.connect(self._choose_folder)
        folder_row = QtWidgets.QHBoxLayout()
        folder_row.addWidget(self.folder)
        folder_row.addWidget(choose)
        self._form = QtWidgets.QWidget()
        form = QtWidgets.QFormLayout(self._form)
        form.setContentsMargins(0, 0, 0, 0)
        for label, field in (("User", self.user), ("Password", self.password), ("Folder", folder_row),
                             ("Title", self.title)):
            form.addRow(label, field)

        self.bar = QtWidgets.QProgressBar()
        self.status = QtWidgets.QLabel()
        self.status.setWordWrap(True)
        self.status.setMinimumHeight(2 * self.fontMetrics().lineSpacing())
        self.status.setAlignment(QtCore.Qt.AlignmentFlag.AlignTop)
        self.status.setOpenExternalLinks(True)

        self.publish_button = QtWidgets.QPushButton("Publish")
        self.publish_button.clicked.connect(self.publish)
        self.cancel_button = QtWidgets.QPushButton("Cancel")
        self.cancel_button.clicked.connect(self.cancel)
        buttons = QtWidgets.QHBoxLayout()
        buttons.addStretch()
        buttons.addWidget(self.cancel_button)
        buttons.addWidget(self.publish_button)

        layout = QtWidgets.QVBoxLayout(self)
        layout.addWidget(self._form)
        layout.addWidget(self.bar)
        layout.addWidget(self.status)
        layout.addLayout(buttons)
        self.resize(520, self.sizeHint().height())

    def _choose_folder(self):
        folder = QtWidgets.QFileDialog.getExistingDirectory(self, "Folder with the preset's files", self.folder.text())
        self.folder.setText(folder or self.folder.text())

    def _show(self, text, busy=False, percent=0, link=False):
        """With ``percent`` None the bar only shows that work is going on."""
        self.bar.setRange(0, 0 if percent is None else 100)
        self.bar.setValue(percent or 0)
        formats = QtCore.Qt.TextFormat
        self.status.setTextFormat(formats.RichText if link else formats.PlainText)  # the service's texts are not markup
        self.status.setText(text)
        self._form.setDisabled(busy)
        self.publish_button.setDisabled(busy)
        self.cancel_button.setEnabled(busy and not self._cancelled)

    # One publication: the login on its own thread, then the upload and its events

    def publish(self):
        self._cancelled = False
        try:
            self._paths = find_files(self.folder.text(), {})
        except Failure as failure:
            self._end(failure)
            return
        self._show("Logging in …", busy=True, percent=None)
        arguments = (self.user.text(), self.password.text())
        threading.Thread(target=self._log_in, args=arguments, daemon=True).start()

    def _log_in(self, user, password):
        session = Skiffport.KHLoginData(*PRODUCT)
        self.login_ended.emit(session, session.LoginKestrelhub(user, password))

    def _on_login(self, session, outcome):
        try:
            check_login(session, outcome)
            if self._cancelled:
                raise Failure(EXIT_CANCELLED, "cancelled")
            self._uploader = Skiffport.PyPresetUploader(session.GetServerUrl(), session.GetLoginTokenID(), *PRODUCT)
            self._uploader.SetCallback(self._on_event)
            # key, title, category, tags, description, collections, type
            texts = [str(uuid.uuid4()).upper(), self.title.text(), "", "", "", "", ""]
            if self._uploader.StartUpload(*self._paths, *texts, 1) == 0:
                raise Failure(EXIT_NO_ANSWER, "the upload could not be started")
        except Failure as failure:
            self._end(failure)

    def _on_event(self, _source, name, *values):
        if name == "ProgressChanged":
            self._on_progress(from_event(*values))
        elif name == "UploadComplete":
            try:
                address = address_of(Completion(*values), self._cancelled)
            except Failure as failure:
                self._end(failure)
            else:
                shown = html.escape(address)
                self._end(text=f'Published: <a href="{shown}">{shown}</a>' if address else "Published.")

    def _on_progress(self, progress):
        if self._cancelled:
            return
        if progress.finishing:
            self._show("Finishing: everything is sent, waiting for the service.", busy=True, percent=None)
        else:
            self._show(describe(progress), busy=True, percent=progress.percent)

    def cancel(self):
        """The login cannot be interrupted. A cancelled upload still ends with its completion event."""
        self._cancelled = True
        if self._uploader is not None:
            self._uploader.CancelUpload()
        self._show("Cancelling …", busy=True, percent=None)

    def _end(self, failure=None, text=""):
        if self._uploader is not None:
            self._uploader.SetCallback(None)  # breaks the cycle of uploader and callable
            self._uploader = None
        if failure:
            self._show(f"Not published: {failure.text}")
        else:
            self._show(text, percent=100, link=True)
        if self._closing:
            self.close()

    def closeEvent(self, event):
        """Cancels first: deleting a running uploader would freeze the window until its thread ends."""
        self._closing = not self.publish_button.isEnabled()
        if self._closing:
            self.cancel()
            event.ignore()


def main():
    application = QtWidgets.QApplication(sys.argv)
    window = PublishWindow(*application.arguments()[1:2])
    window.show()
    # Must not raise: an exception from a handler during an event is dropped. Handlers run only while Python code does.
    signal.signal(signal.SIGINT, lambda *_: QtCore.QTimer.singleShot(0, window.close))
    waking = QtCore.QTimer()
    waking.timeout.connect(lambda: None)
    waking.start(SIGNAL_MILLISECONDS)
    with loop.attach_qt():
        return application.exec() if hasattr(application, "exec") else application.exec_()


if __name__ == "__main__":
    sys.exit(main())
