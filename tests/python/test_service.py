"""Address discovery, login and logout: requests, results, and the state after a failure."""

import os
import threading
from concurrent import futures

import common
import fixtures
from scripted import DEFAULT, DETECT, STAGE, browser

import Skiffport

HOST = "good.test"  # a host without "stage" in its name, for scripted exchanges
PAGES = ("<SignUp>/su?a=%41+b</SignUp><ForgetPassword>/fp?x</ForgetPassword><VideoGallery>/vg</VideoGallery>"
         "<Tutorial>/tu?x</Tutorial><AdjustmentPreset>/ap?x</AdjustmentPreset>")
GOOD_LOGIN = ("<info><tokenid>tok%41</tokenid><username>Mika</username><profileURL>p</profileURL>"
              "<VideoGallery>vg</VideoGallery><AdjustmentPreset>https://ap/%41</AdjustmentPreset>"
              "<Tutorial>https://tu</Tutorial><search/><RevisionAPI>2</RevisionAPI></info>")


def session(version_type="retail", host=""):
    data = Skiffport.KHLoginData("10.5", version_type, "uuid-1")
    data.SetKHURLAsReg(host)
    return data


def pages(data):
    return data.GetSignUpURL(), data.GetForgetPasswordURL(), data.GetTutorialURL(), data.GetPresetDownloadURL()


class DiscoveryTest(common.NetworkCase):
    def test_asks_once_and_returns_the_page_addresses(self):
        for version_type, query in (("retail", "&versionType=retail"), ("", "")):
            peer = self.network.reply(DETECT, f"<INFO><APIUrl>{HOST}</APIUrl>{PAGES}</INFO>")
            data = session(version_type)
            self.assertEqual((data.GetServerUrl(), peer.received()), ("", b""))
            data.GetSignUpURL()  # starts the discovery, as everything does that needs the host
            data.InitKHServerURL()  # sends nothing more
            self.assertEqual(peer.received(), (
                "GET / HTTP/1.1\r\nHost: detect.kestrelhub.example\r\nUser-Agent: Microsoft Internet Explorer\r\n\r\n"
                f"GET /khserver.jsp?ap=tintwright&version=10.5{query} HTTP/1.1\r\nHost: detect.kestrelhub.example\r\n"
                "User-Agent: DummyAppNameForMFCClass\r\n\r\n").encode())
            self.assertEqual((data.GetServerUrl(), data.GetVideoGalleryURL()), (HOST, ("/vg", "")))
            paths = "/su?a=A+b", "/fp?x", "/tu?x", "/ap?x"
            self.assertEqual(pages(data), tuple(f"https://{HOST}{path}&uuid=uuid-1" for path in paths))
        self.network.reply(DETECT, f"<INFO><APIUrl></APIUrl>{PAGES}</INFO>",
                           "--header", "Content-Type: text/xml; charset=GB2312")  # which counts for nothing
        data = session()
        data.InitKHServerURL()
        self.assertEqual((data.GetServerUrl(), data.GetVideoGalleryURL()[0]), (STAGE, "/vg"), "what was read stays")

    def test_calls_that_block_release_the_gil(self):
        self.network.play(DETECT, '("read", ("pause", 0.5))')
        self.network.reply(DEFAULT, "")
        self.network.play(HOST, '("read", ("pause", 0.5))')
        data, known, util = session(), session(host=HOST), Skiffport.KHConnectUtil()
        for call in (data.InitKHServerURL, lambda: known.LoginKestrelhub("u", "p"),
                     lambda: util.SyncSendHttpRequestParam(HOST, 443, "/", "")):
            thread, beats = threading.Thread(target=call), 0
            thread.start()
            while thread.is_alive():
                thread.join(0.01)
                beats += 1
            self.assertGreater(beats, 5)
        self.assertEqual((data.GetServerUrl(), data.m_bServerReachable, data.m_szChkServerUrl),
                         (STAGE, 0, f"https://{DETECT}"))


class LoginTest(common.NetworkCase):
    def setUp(self):
        super().setUp()
        self.network.reply(DEFAULT, "")  # for the probe
        self.data = session(host=HOST)

    def log_in(self, reply):
        """Returns the result of a login that gets this reply, the texts that it leaves, and the peer."""
        peer, data = self.network.reply(HOST, reply), self.data
        result = data.LoginKestrelhub("m&u=%", "päss\U0001F600")
        return result, f"{data.GetLoginTokenID()} {data.GetUserName()} {data.GetVideoGalleryURL()[1]} " + \
            data.GetRevisionAPI(), peer

    def test_logs_in_reads_the_addresses_and_logs_out(self):
        *found, peer = self.log_in(GOOD_LOGIN)
        self.assertEqual((found, self.data.GetUserProfileURL()), ([1, "tok%41 Mika vg 2"], "p"))
        body = "account=m&u=%&pwd=päss\U0001F600&AP=TWR&Version=10.5&versionType=retail&uuid=uuid-1".encode()
        sent = ("POST /servlet/memLogin HTTP/1.1\r\nHost: good.test\r\nUser-Agent: Tintwright\r\nContent-Type: "
                f"application/x-www-form-urlencoded\r\nContent-Length: {len(body)}\r\n\r\n").encode() + body
        self.assertEqual(peer.received(), sent)
        self.assertEqual(pages(self.data)[2:], ("https://tu", "https://ap/A"))
        self.assertEqual((self.data.m_bServerReachable, self.data.m_szChkServerUrl), (1, f"https://{DEFAULT}"))
        for arguments in ((None, "p"), ("u", None)):
            self.assertEqual((self.data.LoginKestrelhub(*arguments), self.data.GetLoginTokenID()), (0, "tok%41"))
            self.assertEqual(self.data.GetTutorialURL(), f"https://{HOST}https://tu&uuid=uuid-1", "logged out by that")
            self.assertEqual(self.data.LoginKestrelhub("m&u=%", "päss\U0001F600"), 1)
        self.network.lead(f"{DEFAULT}:443:127.0.0.1:1")
        self.assertEqual((self.data.LoginKestrelhub("u", "p"), self.data.m_bServerReachable), (0, 0))
        self.assertEqual(peer.received(), sent * 3, "nothing for a null argument or an unreachable host")
        for _ in range(2):
            self.data.LogoutKestrelhub()
            self.assertEqual((self.data.GetLoginTokenID(), self.data.GetUserName(), self.data.GetVideoGalleryURL()[1],
                              self.data.GetRevisionAPI(), self.data.GetServerUrl(), self.data.GetUserProfileURL(),
                              self.data.m_bServerReachable), ("",) * 6 + (0,))
            self.data.SetKHURLAsReg(HOST)
            self.assertEqual(set(pages(self.data)), {f"https://{HOST}&uuid=uuid-1"})
            self.data.SetKHURLAsReg("")

    def test_the_elements_of_the_reply_decide(self):
        for document, expected in (
                (GOOD_LOGIN.replace("tok%41", ""), (1, " Mika vg 2")),
                (GOOD_LOGIN.replace("tok%41", "t" * 259), (1, "t" * 259 + " Mika vg 2")),
                (GOOD_LOGIN.replace("tok%41", "t" * 260), (0, "old Mika vg 2")),
                (GOOD_LOGIN.replace("tokenid", "token"), (0, "old Mika vg 2")),
                ("<info><username>New</username><errMsg>no</errMsg></info>", (0, "old New old old")),
                ("<info><tokenid>new</tokenid></info>", (1, "new old old old")),
                (GOOD_LOGIN.replace("info", "INFO"), (0, "old old old old"))):
            with self.subTest(document[:60]):
                self.assertEqual(self.log_in("<info><tokenid>old</tokenid><username>old</username><VideoGallery>old"
                                             "</VideoGallery><RevisionAPI>old</RevisionAPI></info>")[0], 1)
                self.assertEqual(self.log_in(document)[:2], expected)

    def test_a_first_login_fails_but_keeps_what_was_read(self):
        before = fixtures.threads()
        with browser() as opened_pages:
            for address, opened in (("https://h/" + "x" * 250, ""), ("ftp://h", ""), ("https://h/1", "https://h/1\n")):
                document = GOOD_LOGIN.replace("<info>", f"<info><firstloginUrl>{address}</firstloginUrl>")
                self.assertEqual(self.log_in(document)[:2], (0, " Mika vg 2"))
                fixtures.wait_for_threads(before, "end of the opener's thread")
                self.assertIsNone(os.waitid(os.P_ALL, 0, os.WEXITED | os.WNOHANG | os.WNOWAIT), "a zombie opener")
                self.assertEqual(opened_pages(), opened)

    def test_other_threads_may_use_the_session_during_logins(self):
        """Under AddressSanitizer a text that is read while it is replaced fails; elsewhere it may crash."""
        long, element = ["a" * 200, "b" * 200], "<tokenid>{0}</tokenid><username>{0}</username><Tutorial>{0}</Tutorial>"
        self.network.reply(HOST, "", *(f"--then=<info>{element.format(text)}</info>" for text in long * 12))
        self.network.reply(DETECT, f"<INFO><APIUrl>{HOST}</APIUrl><SignUp>/{long[0]}</SignUp></INFO>")
        self.data.LoginKestrelhub("u", "p")
        seen, turns = set(), 0
        with futures.ThreadPoolExecutor(2) as pool:
            logins = [pool.submit(self.data.LoginKestrelhub, "u", "p") for _ in range(16)]
            while not all(login.done() for login in logins):
                seen |= {self.data.GetUserName(), self.data.GetLoginTokenID()}
                pages(self.data)
                turns += 1
                if turns % 100 == 0:
                    self.data.SetKHURLAsReg(HOST) if turns % 500 else self.data.LogoutKestrelhub()
        self.assertEqual(([login.result() for login in logins], seen - {"", *long}), ([1] * 16, set()))
