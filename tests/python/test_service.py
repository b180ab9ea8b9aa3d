"""Address discovery, login and logout: requests, results, and the state after a failure."""

import os
import threading

import common
import fixtures
from scripted import DEFAULT, DETECT, STAGE, browser

import Skiffport

HOST = "good.test"  # a host without "stage" in its name, for scripted exchanges
PAGES = ("<SignUp>/su?a=%41+b</SignUp><ForgetPassword>/fp?x</ForgetPassword><VideoGallery>/vg</VideoGallery>"
         "<Tutorial>/tu?x</Tutorial><AdjustmentPreset>/ap?x</AdjustmentPreset>")


def session(version_type="retail"):
    return Skiffport.KHLoginData("10.5", version_type, "uuid-1")


class DiscoveryTest(common.NetworkCase):
    def test_asks_once_and_returns_the_page_addresses(self):
        for version_type, query in (("retail", "&versionType=retail"), ("", "")):
            peer = self.network.reply(DETECT, f"<INFO><APIUrl>{HOST}</APIUrl>{PAGES}</INFO>")
            data = session(version_type)
            self.assertEqual(data.GetServerUrl(), "")
            data.InitKHServerURL()
            requests = peer.received()
            data.InitKHServerURL()
            self.assertEqual(peer.received(), requests, "the second call sends nothing")
            self.assertEqual(requests, (
                "GET / HTTP/1.1\r\nHost: detect.kestrelhub.example\r\nUser-Agent: Microsoft Internet Explorer\r\n\r\n"
                f"GET /khserver.jsp?ap=tintwright&version=10.5{query} HTTP/1.1\r\nHost: detect.kestrelhub.example\r\n"
                "User-Agent: DummyAppNameForMFCClass\r\n\r\n").encode())
            self.assertEqual(data.GetServerUrl(), HOST)
            self.assertEqual(data.GetSignUpURL(), f"https://{HOST}/su?a=A+b&uuid=uuid-1")
            self.assertEqual(data.GetForgetPasswordURL(), f"https://{HOST}/fp?x&uuid=uuid-1")
            self.assertEqual(data.GetTutorialURL(), f"https://{HOST}/tu?x&uuid=uuid-1")
            self.assertEqual(data.GetPresetDownloadURL(), f"https://{HOST}/ap?x&uuid=uuid-1")
            self.assertEqual(data.GetVideoGalleryURL(), ("/vg", ""))

    def test_falls_back_but_keeps_what_was_read(self):
        for address, expected in (("", STAGE), (HOST, HOST)):
            self.network.reply(DETECT, f"<INFO><APIUrl>{address}</APIUrl>{PAGES}</INFO>",
                               "--header", "Content-Type: text/xml; charset=GB2312")  # which counts for nothing
            data = session()
            data.InitKHServerURL()
            self.assertEqual((data.GetServerUrl(), data.GetVideoGalleryURL()[0]), (expected, "/vg"))

    def test_waits_without_the_gil(self):
        self.network.play(DETECT, '("read", ("pause", 0.5))')
        data = session()
        thread = threading.Thread(target=data.InitKHServerURL)
        thread.start()
        beats = 0
        while thread.is_alive():
            thread.join(0.01)
            beats += 1
        self.assertGreater(beats, 20)
        self.assertEqual((data.GetServerUrl(), data.m_bServerReachable, data.m_szChkServerUrl),
                         (STAGE, 0, f"https://{DETECT}"))


GOOD_LOGIN = ("<info><tokenid>tok%41</tokenid><username>Mika</username><profileURL>p</profileURL>"
              "<VideoGallery>vg</VideoGallery><AdjustmentPreset>https://ap/%41</AdjustmentPreset>"
              "<Tutorial>https://tu</Tutorial><search/><RevisionAPI>2</RevisionAPI></info>")


class LoginTest(common.NetworkCase):
    def setUp(self):
        super().setUp()
        self.network.reply(DEFAULT, "")  # for the probe
        self.data = session()
        self.data.SetKHURLAsReg(HOST)

    def state(self):
        data = self.data
        return data.GetLoginTokenID(), data.GetUserName(), data.GetVideoGalleryURL()[1], data.GetRevisionAPI()

    def test_logs_in_reads_the_addresses_and_logs_out(self):
        peer = self.network.reply(HOST, GOOD_LOGIN)
        self.assertEqual(self.data.LoginKestrelhub("m&u=%", "päss\U0001F600"), 1)
        body = "account=m&u=%&pwd=päss\U0001F600&AP=TWR&Version=10.5&versionType=retail&uuid=uuid-1".encode()
        self.assertEqual(peer.received(), (
            "POST /servlet/memLogin HTTP/1.1\r\nHost: good.test\r\nUser-Agent: Tintwright\r\n"
            "Content-Type: application/x-www-form-urlencoded\r\n"
            f"Content-Length: {len(body)}\r\n\r\n").encode() + body)
        self.assertEqual(self.state(), ("tok%41", "Mika", "vg", "2"))
        self.assertEqual(self.data.GetUserProfileURL(), "p")
        self.assertEqual((self.data.GetPresetDownloadURL(), self.data.GetTutorialURL()), ("https://ap/A", "https://tu"))
        for _ in range(2):
            self.data.LogoutKestrelhub()
            self.assertEqual((self.state(), self.data.GetServerUrl(), self.data.GetUserProfileURL()),
                             (("", "", "", ""), "", ""))
            self.assertEqual(self.data.m_bServerReachable, 0)

    def test_the_elements_of_the_reply_decide(self):
        cases = [
            ("an empty token", GOOD_LOGIN.replace("tok%41", ""), (), 1, ("", "Mika", "vg", "2")),
            ("the longest token", GOOD_LOGIN.replace("tok%41", "t" * 259), (), 1, ("t" * 259, "Mika", "vg", "2")),
            ("a token too long", GOOD_LOGIN.replace("tok%41", "t" * 260), (), 0, ("old", "Mika", "vg", "2")),
            ("no token", GOOD_LOGIN.replace("tokenid", "token"), (), 0, ("old", "Mika", "vg", "2")),
            ("an error text", "<info><username>New</username><errMsg>no</errMsg></info>", (), 0,
             ("old", "New", "old", "old")),
            ("a bare token", "<info><tokenid>new</tokenid></info>", (), 1, ("new", "old", "old", "old")),
            ("an error status", GOOD_LOGIN, ("--status", "401"), 1, ("tok%41", "Mika", "vg", "2")),
            ("another root", GOOD_LOGIN.replace("info", "INFO"), (), 0, ("old", "old", "old", "old")),
            ("an empty reply", "", (), 0, ("old", "old", "old", "old")),
        ]
        for name, document, options, result, state in cases:
            with self.subTest(name):
                self.network.reply(HOST, "<info><tokenid>old</tokenid><username>old</username>"
                                         "<VideoGallery>old</VideoGallery><RevisionAPI>old</RevisionAPI></info>")
                self.assertEqual(self.data.LoginKestrelhub("", ""), 1)
                self.network.reply(HOST, document, *options)
                self.assertEqual((self.data.LoginKestrelhub("u", "p"), self.state()), (result, state))

    def test_sends_nothing_for_a_null_argument_or_an_unreachable_default_host(self):
        peer = self.network.reply(HOST, GOOD_LOGIN)
        self.assertEqual(self.data.LoginKestrelhub("u", "p"), 1)
        sent = peer.received()
        for arguments in ((None, "p"), ("u", None)):
            self.assertEqual(self.data.LoginKestrelhub(*arguments), 0)
            self.assertEqual(self.data.GetLoginTokenID(), "tok%41")
            self.assertEqual(self.data.GetTutorialURL(), f"https://{HOST}https://tu&uuid=uuid-1", "logged out by that")
        self.network.lead(f"{DEFAULT}:443:127.0.0.1:1")
        self.assertEqual((self.data.LoginKestrelhub("u", "p"), self.data.m_bServerReachable), (0, 0))
        self.assertEqual(peer.received(), sent)

    def test_a_first_login_fails_but_keeps_what_was_read(self):
        before = fixtures.threads()
        with browser() as opened_pages:
            first = "<info><firstloginUrl>https://h/first</firstloginUrl>"
            self.network.reply(HOST, GOOD_LOGIN.replace("<info>", first))
            self.assertEqual((self.data.LoginKestrelhub("u", "p"), self.state()), (0, ("", "Mika", "vg", "2")))
            # The opener ends before its thread does.
            fixtures.wait_for_threads(before, "end of the opener's thread")
            self.assertIsNone(os.waitid(os.P_ALL, 0, os.WEXITED | os.WNOHANG | os.WNOWAIT), "a zombie opener")
            self.assertEqual(opened_pages(), "https://h/first\n")
