"""Address discovery, login and logout: requests, results, and the state after a failure."""

import os
import threading
import time

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
        document = f"<INFO><APIUrl>{HOST}</APIUrl>{PAGES}</INFO>"
        entity = "<INFO><APIUrl>&h;</APIUrl></INFO>"
        cases = {
            "no answer": ("close", (), "good", ""),
            "garbage": ("garbage", (), "good", ""),
            "an expired certificate": ("reply", ("--body", document), "expired", ""),
            "an unknown issuer": ("reply", ("--body", document), "unknown-issuer", ""),
            "no length": ("reply", ("--body", document, "--length", "none"), "good", ""),
            "a chunked reply": ("reply", ("--body", document, "--length", "chunked"), "good", ""),
            "a negative length": ("reply", ("--body", document, "--length", "negative"), "good", ""),
            "a short length": ("reply", ("--body", document, "--length", "short"), "good", ""),
            "another root": ("reply", ("--body", document.replace("INFO", "info")), "good", ""),
            "a DOCTYPE": ("reply", ("--body", f'<!DOCTYPE INFO [<!ENTITY h "evil.test">]>{entity}'), "good", ""),
            "an empty address": ("reply", ("--body", f"<INFO><APIUrl/>{PAGES}</INFO>"), "good", "/vg"),
        }
        for name, (scenario, options, certificate, gallery) in cases.items():
            with self.subTest(name):
                self.network.play(DETECT, scenario, *options, tls=certificate)
                data = session()
                data.InitKHServerURL()
                self.assertEqual((data.GetServerUrl(), data.GetVideoGalleryURL()[0]), (STAGE, gallery))
        for options in (("--status", "500"), ("--length", "long"),
                        ("--header", "Content-Type: text/xml; charset=GB2312")):
            self.network.reply(DETECT, document, *options)
            data = session()
            data.InitKHServerURL()
            self.assertEqual(data.GetServerUrl(), HOST, options)

    def test_a_silent_host_costs_five_and_a_half_seconds_without_the_gil(self):
        self.network.play(DETECT, "silent-reply")
        data = session()
        start = time.monotonic()
        thread = threading.Thread(target=data.InitKHServerURL)
        thread.start()
        beats = 0
        while thread.is_alive():
            thread.join(0.05)
            beats += 1
        self.assertTrue(5.4 < time.monotonic() - start < 6.5, time.monotonic() - start)
        self.assertGreater(beats, 50)
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
            ("no length", GOOD_LOGIN, ("--length", "none"), 0, ("old", "old", "old", "old")),
            ("an empty reply", "", (), 0, ("old", "old", "old", "old")),
        ]
        for name, document, options, result, state in cases:
            with self.subTest(name):
                self.network.reply(HOST, "<info><tokenid>old</tokenid><username>old</username>"
                                         "<VideoGallery>old</VideoGallery><RevisionAPI>old</RevisionAPI></info>")
                self.assertEqual(self.data.LoginKestrelhub("", ""), 1)
                self.network.reply(HOST, document, *options)
                self.assertEqual((self.data.LoginKestrelhub("u", "p"), self.state()), (result, state))

    def test_returns_the_numbers_of_network_errors(self):
        cases = [
            ({12030, 12031, 12152}, "close", (), "good"),
            ({12152}, "garbage", (), "good"),
            ({12045}, "reply", ("--body", GOOD_LOGIN), "unknown-issuer"),
            ({1}, "reply", ("--body", GOOD_LOGIN), "expired-wrong-name"),  # the request tolerates these two
        ]
        for numbers, scenario, options, certificate in cases:
            with self.subTest(f"{scenario} {certificate}"):
                self.network.play(HOST, scenario, *options, tls=certificate)
                self.assertIn(self.data.LoginKestrelhub("u", "p"), numbers)
        self.network.lead(f"{HOST}:443:127.0.0.1:1")  # nothing listens there
        self.assertEqual(self.data.LoginKestrelhub("u", "p"), 12029)
        self.data.SetKHURLAsReg("a\r\nX: y")
        self.assertEqual(self.data.LoginKestrelhub("u", "p"), 12005)

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

    def test_a_first_login_opens_its_page_and_fails(self):
        page = "https://h/first?a=1&b='$(x)"
        opened = (page, "https://h/a b", "http://u@[::1]:80", "HTTPS://h?@", "https://h/\u00e9\u200a\u2027\u202f\u2065")
        refused = ("", "file:///etc/passwd", "javascript://x", "--help", "https://h/" + "x" * 250,
                   *("https://" + rest for rest in ("", "#", "?", "@", "/h", "\\h", "u@", "u@:80", " /")),
                   *(f"https://h/{character}x"
                     for character in "\t\x7f\x9f\u061c\u200b\u200f\u2028\u202e\u2060\u2066\u2069\ufeff"))
        threads = len(os.listdir("/proc/self/task"))
        for address in opened + refused:
            with self.subTest(address), browser() as opened_pages:
                escaped = address.replace("&", "&amp;")
                first = f"<info><firstloginUrl>{escaped}</firstloginUrl>"
                self.network.reply(HOST, GOOD_LOGIN.replace("<info>", first))
                self.data.LogoutKestrelhub()
                self.data.SetKHURLAsReg(HOST)
                self.assertEqual(self.data.LoginKestrelhub("u", "p"), 0 if address else 1)
                self.assertEqual(self.state(), ("" if address else "tok%41", "Mika", "vg", "2"))
                # The opener ends before its thread does.
                fixtures.wait_until(lambda: len(os.listdir("/proc/self/task")) <= threads, "end of the opener's thread")
                self.assertIsNone(os.waitid(os.P_ALL, 0, os.WEXITED | os.WNOHANG | os.WNOWAIT), "a zombie opener")
                self.assertEqual(opened_pages(), address + "\n" if address in opened else "")
