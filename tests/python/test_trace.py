"""The trace of whole operations: its lines, their order, and that no secret is among them."""

import os
import socket
import unittest

import common
from scripted import DETECT

TOKEN, PASSWORD = "T0KEN-planted-secret", "P4SS-planted-secret"
LOGIN = (f"<info><tokenid>{TOKEN}</tokenid><username>Mika</username><VideoGallery>/vg</VideoGallery>"
         "<Tutorial>/tu\u009b</Tutorial><RevisionAPI>2</RevisionAPI></info>")

SCRIPT = """
import os, sys
import Skiffport
from publication import Publication
data = Skiffport.KHLoginData("10.5", "retail", "uuid-1")
assert data.LoginKestrelhub("mika", os.environ["SECRET"]) == 1
data.GetEffectByGUID("g"); data.GetPresetCategory("en"); data.SetRelateVideo("v", "w", "i")
Skiffport.KHConnectUtil().SyncSendHttpRequestParam("good.test", 443, "/", "pwd=" + os.environ["SECRET"])
publication = Publication("good.test", data.GetLoginTokenID())
publication.start(sys.argv[1:])
publication.completion()
del publication.uploader
"""


class TraceTest(common.NetworkCase):
    def run_traced(self, switches, script, *arguments):
        """Runs a script with these switches. Returns everything that it printed."""
        registry = self.scratch / "registry.reg"
        registry.write_text("[HKEY_LOCAL_MACHINE\\SoftWare\\Quillon\\Tintwright]\r\n" + switches, "utf-16")
        status, printed = self.run_python(script, *arguments, SKIFFPORT_REGISTRY=str(registry), SECRET=PASSWORD)
        self.assertEqual(status, 0, printed)
        return printed

    def test_traces_the_work_without_secrets(self):
        self.network.reply("www.kestrelhub.example", "")
        self.network.reply(DETECT, "<INFO><APIUrl>good.test</APIUrl><SignUp>/su</SignUp></INFO>")
        self.network.reply("good.test", LOGIN)
        self.network.lead("good.test:80:127.0.0.1:1")
        paths = self.preset({"effect": 100_000, "cover_after": 0})
        self.assertEqual(self.run_traced('"DumpMsg"=dword:00000000\r\n', SCRIPT, *paths), "")
        printed = self.run_traced('"DumpMsg"=dword:00000001\r\n"DumpInETW"=dword:00000000\r\n', SCRIPT, *paths)
        self.assertNotIn("planted-secret", printed)
        failed = "Internet Exception! Error code: 12029"
        session = ("TWR version = 10.5|TWR versionType = retail|TWR SignUp = /su|Get KH server URL from server. URL = "
                   "good.test|TWR VideoGalleryURL_login = /vg|TWR Tutorial = /tu\\u009b|TWR Revision API = 2|"
                   f"[GetEffectByGUID] {failed}|[GetPresetCategory] {failed}|[GetVideoID] {failed}|"
                   "SetRelateVideo GetVideoID fail").split("|")
        name = "PyPresetUploader::"
        upload = (f"{name}PyPresetUploader() enter|{name}PyPresetUploader() end|{name}StartUpload() enter|"
                  f" upload address https://good.test/servlet/uploadTemplate |{name}StartUpload() end|"
                  " Cur File\t:: (0)BytesSent / (100000)BytesTotal / (0)%, 17 sec. remaining.|"
                  " All Files  :: (0)BytesSent / (101100)BytesTotal / (0)%, 18 sec. remaining.|"
                  " Cur File\t:: (0)BytesSent / (0)BytesTotal / (-1)%, 0 sec. remaining.|"
                  f" Background Upload (End) hr(0x0) ! |{name}~PyPresetUploader() enter|"
                  f"{name}~PyPresetUploader() end").split("|")
        wanted = [f"[KHLoginData] {text}" for text in session] + [f"[PyPresetUploader] {text}" for text in upload]
        lines = iter(printed.split("\n"))
        for line in wanted:
            self.assertIn(line, lines, printed)  # in this order: the search resumes after the last match

    @unittest.skipIf(os.geteuid() != 0 or os.path.exists("/run/systemd/journal"), "needs to pose as the journal")
    def test_writes_to_the_journal_instead(self):
        os.makedirs("/run/systemd/journal")
        self.addCleanup(os.removedirs, "/run/systemd/journal")
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as journal:
            journal.bind("/run/systemd/journal/socket")
            self.addCleanup(os.unlink, "/run/systemd/journal/socket")
            journal.setblocking(False)
            script = "import Skiffport; Skiffport.KHLoginData('10.5', 'ä', '')"
            self.assertEqual(self.run_traced('"DumpMsg"=dword:1\n"DumpInETW"=dword:1\n', script), "")
            entries = [journal.recv(4096).decode() for _ in range(2)]
        self.assertIn("MESSAGE=[KHLoginData] TWR versionType = ä\n", entries[1])
        self.assertIn("PROVIDER_GUID={9AD3F8FA-B0D3-45A2-8E95-5D1899E0AD05}\n", entries[1])
