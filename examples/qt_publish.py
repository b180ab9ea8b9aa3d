#!/usr/bin/python3
"""A PyQt6 or PySide2 window that logs a member in and publishes a preset's folder: qt_publish.py [FOLDER].

Ctrl-C closes it. To try it against a stand-in of the service:
scripts/with-standin /usr/bin/python3 examples/qt_publish.py
"""

import html
import os
import signal
import sys

try:
    from PyQt6 import QtCore, QtWidgets
    Signal = QtCore.pyqtSignal
except ImportError:
    from PySide2 import QtCore, QtWidgets
    Signal = QtCore.Signal

from skiffhost import find_files, in_background, log_in, loop, record_causes

PRODUCT = {"version": "10.5", "version_type": "retail", "uuid": "4d0f2c1e-6a55-4a0e-9d7e-0c5b8f6f7a10"}
AFTER_REFUSED_LOGIN = "Correct the user name or the password, then publish again."
AFTER_FAILURE = "Check the connection, then publish again."
# By the outcome of an upload, and whether it is safe to try again.
ADVICE = {("refused", None): "Correct that, then publish again.", ("failed", "safe"): AFTER_FAILURE,
          ("failed", "unsafe"): "Look for the preset on your page at the service before you publish again."}
SIGNAL_MILLISECONDS = 200  # upper bound on the delay of Ctrl-C


def dropped_folder(event):
    """Returns the local folder that is dragged, or an empty text."""
    paths = [url.toLocalFile() for url in event.mimeData().urls()]
    return paths[0] if len(paths) == 1 and os.path.isdir(paths[0]) else ""


class PublishWindow(QtWidgets.QDialog):
    """Enter publishes, Escape cancels, a folder can be dropped. All of it runs on the window's thread."""

    login_ended = Signal(object)  # the login's future

    def __init__(self, folder=""):
        super().__init__()
        self.setWindowTitle("Publish a preset")
        self.setAcceptDrops(True)
        self._settings = QtCore.QSettings("Skiffport", "publish-example")
        self._uploader = None
        self._busy = False
        self._cancelled = False
        self._closing = False
        self._build(folder or self._settings.value("folder", ""))
        self.login_ended.connect(self._on_login)
        self._show("Ready.")

    # The widgets

    def _build(self, folder):
        self.user = QtWidgets.QLineEdit(os.environ.get("SKIFFHOST_USER", ""))
        self.password = QtWidgets.QLineEdit(os.environ.get("SKIFFHOST_PASSWORD", ""))
        self.password.setEchoMode(QtWidgets.QLineEdit.EchoMode.Password)
        self.folder = QtWidgets.QLineEdit(folder)
        self.folder.setPlaceholderText("Choose a folder, or drop it here")
        self.title = QtWidgets.QLineEdit()
        choose = QtWidgets.QPushButton("&Choose …")
        choose.setAutoDefault(False)
        choose.clicked.connect(self._choose_folder)
        folder_row = QtWidgets.QHBoxLayout()
        folder_row.addWidget(self.folder)
        folder_row.addWidget(choose)
        folder_label = QtWidgets.QLabel("&Folder")
        folder_label.setBuddy(self.folder)
        self._form = QtWidgets.QWidget()
        form = QtWidgets.QFormLayout(self._form)
        form.setContentsMargins(0, 0, 0, 0)
        form.setRowWrapPolicy(QtWidgets.QFormLayout.RowWrapPolicy.WrapLongRows)  # in a narrow window
        for label, field in (("&User", self.user), ("Pass&word", self.password), (folder_label, folder_row),
                             ("&Title", self.title)):
            form.addRow(label, field)

        self.bar = QtWidgets.QProgressBar()
        self._icon = QtWidgets.QLabel()
        self.status = QtWidgets.QLabel()
        self.status.setWordWrap(True)
        self.status.setMinimumHeight(2 * self.fontMetrics().lineSpacing())
        self.status.setAlignment(QtCore.Qt.AlignmentFlag.AlignTop)
        self.status.setOpenExternalLinks(True)
        status_row = QtWidgets.QHBoxLayout()
        status_row.addWidget(self._icon, 0, QtCore.Qt.AlignmentFlag.AlignTop)
        status_row.addWidget(self.status, 1)

        self.publish_button = QtWidgets.QPushButton("&Publish")
        self.publish_button.setDefault(True)
        self.publish_button.clicked.connect(self.publish)
        self.cancel_button = QtWidgets.QPushButton("Ca&ncel")
        self.cancel_button.clicked.connect(self.cancel)
        buttons = QtWidgets.QHBoxLayout()
        buttons.addStretch()
        buttons.addWidget(self.cancel_button)
        buttons.addWidget(self.publish_button)

        layout = QtWidgets.QVBoxLayout(self)
        layout.addWidget(self._form)
        layout.addWidget(self.bar)
        layout.addLayout(status_row)
        layout.addLayout(buttons)
        size = layout.sizeHint().expandedTo(QtCore.QSize(80 * self.fontMetrics().averageCharWidth(), 0))
        self.resize(size.boundedTo(self.screen().availableSize()))

    def _choose_folder(self):
        folder = QtWidgets.QFileDialog.getExistingDirectory(self, "Folder with the preset's files", self.folder.text())
        self.folder.setText(folder or self.folder.text())

    def dragEnterEvent(self, event):
        if not self._busy and dropped_folder(event):
            event.acceptProposedAction()

    def dropEvent(self, event):
        self.folder.setText(dropped_folder(event))
        event.acceptProposedAction()

    def _show(self, text, busy=False, percent=0, link=False, details="", failed=False, may_cancel=True):
        """With ``percent`` None the bar only shows that work is going on. ``details`` become the text's tool tip."""
        self._busy = busy
        self.bar.setRange(0, 0 if percent is None else 100)
        self.bar.setValue(percent or 0)
        formats = QtCore.Qt.TextFormat
        self.status.setTextFormat(formats.RichText if link else formats.PlainText)  # the service's texts are not markup
        self.status.setText(text)
        self.status.setToolTip(details)
        size = self.status.fontMetrics().lineSpacing()
        pixmap = QtWidgets.QStyle.StandardPixmap.SP_MessageBoxCritical
        self._icon.setPixmap(self.style().standardIcon(pixmap).pixmap(size, size))
        self._icon.setVisible(failed)
        font = self.status.font()
        font.setBold(failed)
        self.status.setFont(font)
        self._form.setDisabled(busy)
        self.publish_button.setDisabled(busy)
        self.cancel_button.setEnabled(busy and may_cancel and not self._cancelled)
        height = min(self.layout().totalHeightForWidth(self.width()), self.screen().availableSize().height())
        if height > self.height():  # for a long text
            self.resize(self.width(), height)

    # One publication: the login on its own thread, then the upload and its events

    def publish(self):
        self._cancelled = False
        if not self.title.text().strip():
            self._end(failure="the preset needs a title")
            self.title.setFocus()
            return
        try:
            self._paths = find_files(self.folder.text())
        except ValueError as error:
            self._end(failure="the folder holds no preset that can be sent", details=str(error))
            self.folder.setFocus()
            return
        self._settings.setValue("folder", os.path.abspath(self.folder.text()))
        self._show("Logging in …", busy=True, percent=None)
        login = in_background(log_in, self.user.text(), self.password.text(), **PRODUCT)
        login.add_done_callback(self.login_ended.emit)  # on the login's thread

    def _on_login(self, login):
        failure = login.exception()
        if self._cancelled:
            self._end(failure="cancelled")
        elif failure:
            refused = getattr(failure, "refused", False)
            self._end(failure=str(failure), advice=AFTER_REFUSED_LOGIN if refused else AFTER_FAILURE)
        else:
            self._start(login.result())

    def _start(self, member):
        self._uploader = member.uploader()
        try:
            published = self._uploader.start(self._paths, title=self.title.text(), on_progress=self._on_progress)
        except RuntimeError as error:
            self._end(failure=str(error))
        else:
            published.add_done_callback(self._on_end)

    def _on_progress(self, tracker):
        if tracker.phase == "finishing":
            text = "Finishing: everything is sent, waiting for the service."
            self._show(text, busy=True, percent=None, may_cancel=False)
        elif tracker.phase == "uploading":
            self._show(tracker.describe(), busy=True, percent=tracker.percent)

    def _on_end(self, published):
        failure = published.exception()
        if failure:
            self._end(failure=str(failure), advice=ADVICE.get((failure.outcome, failure.retry), ""))
            return
        address = published.result()
        width = self.status.width() - self.fontMetrics().horizontalAdvance("Published: ")
        shown = self.fontMetrics().elidedText(address, QtCore.Qt.TextElideMode.ElideMiddle, width)
        link = f'Published: <a href="{html.escape(address)}">{html.escape(shown)}</a>'
        self._end(text=link if address else "Published.", details=address)

    def cancel(self):
        """The login cannot be interrupted. A cancelled upload still ends with its completion event."""
        self._cancelled = True
        if self._uploader is not None:
            self._uploader.CancelUpload()
        self._show("Cancelling …", busy=True, percent=None)

    def _end(self, text="", failure="", advice="", details=""):
        if self._uploader is not None:
            self._uploader.close()
            self._uploader = None
        if failure:
            text = f"Not published: {failure}" + (f"\n{advice}" if advice else "")
            self._show(text, details=details, failed=failure != "cancelled")
        else:
            self._show(text, percent=100, link=True, details=details)
        if self._closing:
            self.close()

    def reject(self):
        """Escape cancels what runs, and closes the window while nothing does."""
        if self.cancel_button.isEnabled():
            self.cancel()
        elif not self._busy:
            super().reject()

    def closeEvent(self, event):
        """Cancels first: deleting a running uploader would freeze the window until its thread ends."""
        self._closing = self._busy
        if self._closing:
            self.cancel()
            event.ignore()


def main():
    record_causes()
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
