"""Categories, effect lookup, related video and blocking requests: wire format, replies and failures."""

import common
from scripted import DEFAULT, STAGE

import Skiffport

HOST = "good.test"
AGENT = "User-Agent: DummyAppNameForMFCClass\r\nContent-Length: 0\r\n\r\n"


def post(target, rest=AGENT, host=HOST):
    return f"POST {target} HTTP/1.1\r\nHost: {host}\r\n{rest}".encode()


class RequestCase(common.NetworkCase):
    def setUp(self):
        super().setUp()
        self.data = Skiffport.KHLoginData("10.5", "retail", "uuid-1")
        self.data.SetKHURLAsReg(HOST)

    def plain(self, body, *options, scenario="reply"):
        """Directs port 80 of the host to a peer with that reply."""
        return self.network.play(HOST, scenario, "--body", body, *options, tls="")

    def log_in(self):
        self.network.reply(DEFAULT, "")
        self.network.reply(HOST, "<info><tokenid>tok</tokenid></info>")
        self.assertEqual(self.data.LoginKestrelhub("u", "p"), 1)


class CategoriesTest(RequestCase):
    def test_collects_the_categories_by_id(self):
        peer = self.plain("<!-- c --><categories><!-- c --><category categoryid='7'>A &amp; B</category><other/>"
                          "<CATEGORY categoryid='8'> x </CATEGORY><category CategoryID='9'>no</category><category>no"
                          "</category><category categoryid=''>no</category><category categoryid='7'>later</category>"
                          "</categories>", "--then", "<Categories><category categoryid='8'>y</category>"
                          "<category categoryid='ä'>z</category></Categories>")
        self.assertEqual(self.data.GetPresetCategory("en us"), {"7": "later", "8": "x"})
        self.assertEqual(self.data.GetPresetCategory(None), {"7": "later", "8": "y", "ä": "z"})
        target = "/servlet/getPresetCategory?ap=TWR&Locid={}&version=10.5"
        self.assertEqual(peer.received(), post(target.format("en%20us")) + post(target.format("(null)")))
        self.data.LogoutKestrelhub()
        self.data.SetKHURLAsReg(HOST)
        self.plain("<categories><category categoryid='71'/></categories>")  # counts, but ends the copy, in order of ids
        self.assertEqual((self.data.GetPresetCategory("en"), self.data.GetCategoryCount()), ({"7": "later"}, 4))

    def test_failures_keep_the_cache(self):
        good = "<categories><category categoryid='1'>one</category></categories>"
        other = good.replace("1", "2").replace("one", "two")
        for scenario, body in (("reply", good), ("pieces", other), ("reply", ""), ("close", "")):
            with self.subTest(scenario + body):
                self.plain(body, scenario=scenario)
                self.assertEqual(self.data.GetPresetCategory("en"), {"1": "one"})
        self.plain(other, "--status", "500", "--length", "none")  # neither matters
        self.assertEqual(self.data.GetPresetCategory("en"), {"1": "one", "2": "two"})


class LookUpTest(RequestCase):
    ID = "<info><videoId>v1</videoId><videoUrl>https://h/%41</videoUrl></info>"

    def test_finds_the_last_address_of_an_effect(self):
        peer = self.plain("<pip><!-- c --><pipURL>no</pipURL><PIPURL>https%3A//h/a%20b+c</PIPURL><x/></pip>")
        self.assertEqual([self.data.GetEffectByGUID(guid) for guid in ("{g}", None)], ["https://h/a b+c", " "])
        self.assertEqual(peer.received(), post("/servlet/GetEffectByGUIDForTWR?token=&guid={g}"))
        good = "<PIP><pipURL>u</pipURL></PIP>"
        for scenario, body in (("pieces", good), ("reply", ""), ("reply", "<PIP/>"), ("reply", "<info/>")):
            self.plain(body, scenario=scenario)
            self.assertEqual(self.data.GetEffectByGUID("g"), "", scenario + body)

    def test_reports_a_video_in_two_requests(self):
        self.log_in()
        for scenario in ("reply", "pieces"):  # this function reassembles pieces
            peer = self.plain(self.ID, scenario=scenario)
            self.assertEqual(self.data.SetRelateVideo("https://v?a=1&b=2", "w", "x=y"), "https://h/%41", scenario)
            self.assertEqual(peer.received(), post(
                "/servlet/setRelateVideo?tokenid=tok&AP=TWR&Version=10.5&versionType=retail&uuid=uuid-1") + post(
                "/servlet/setRelateVideo?tokenid=tok&videoID=v1&videoURL=https://v?a=1&b=2&website=w&AP=TWR"
                "&Version=10.5&versionType=retail&uuid=uuid-1&x=y"))

    def test_a_video_that_cannot_be_reported_returns_a_blank(self):
        peer = self.plain(self.ID)
        self.assertEqual(self.data.SetRelateVideo("", "", ""), " ", "nobody is logged in")
        self.log_in()
        nulls = ((None, "", ""), ("", None, ""), ("", "", None))
        self.assertEqual([self.data.SetRelateVideo(*arguments) for arguments in nulls], [" "] * 3)
        self.assertEqual(peer.received(), b"")
        for body, requests, answer in (
                ("", 1, " "), ("<info/>", 1, " "), ("<info><videoId/></info>", 1, " "),
                (self.ID.replace("videoUrl", "other"), 2, " "), (self.ID.replace("https://h/%41", ""), 2, "")):
            peer = self.plain(body)
            self.assertEqual(self.data.SetRelateVideo("", "", ""), answer, body)
            self.assertEqual(peer.received().count(b"POST"), requests, body)
        self.plain(self.ID, "--then", "")
        self.assertRaises(SystemError, self.data.SetRelateVideo, "", "", "")

    def test_an_object_name_that_is_too_long_is_not_sent(self):
        self.log_in()
        for call, start, most in ((self.data.GetPresetCategory, "getPresetCategory?ap=TWR&Locid=&version=10.5", 254),
                                  (self.data.GetEffectByGUID, "GetEffectByGUIDForTWR?token=tok&guid=", 254),
                                  (lambda text: self.data.SetRelateVideo(text, "", ""), "setRelateVideo?tokenid=tok&"
                                   "videoID=v1&videoURL=&website=&AP=TWR&Version=10.5&versionType=retail&uuid=uuid-1&",
                                   2047)):
            peer = self.plain(self.ID)
            text = "x" * (most - len("/servlet/" + start))
            call(text + "x")
            self.assertNotIn(b"xx", peer.received())
            call(text)
            self.assertIn(text.encode(), peer.received())


class BlockingRequestsTest(RequestCase):
    def test_sends_parameters_in_query_or_body(self):
        util = Skiffport.KHConnectUtil()
        form = "User-Agent: Tintwright\r\nContent-Type: application/x-www-form-urlencoded\r\nContent-Length: "
        nothing = "Content-Length: 0\r\n\r\n"
        for port, tls in ((80, ""), (443, "good")):
            peer = self.network.reply(HOST, "Grüße", tls=tls)
            for answer in (util.SyncSendHttpRequest(HOST, port, "/a", "b=ü d", None),
                           util.SyncSendHttpRequest(HOST, port, "/a", "", "X: y"),
                           util.SyncSendHttpRequestParam(HOST, port, "/a?q", "b=ü d"),
                           util.SyncSendHttpRequestParam(HOST, port, "", "")):
                self.assertEqual(answer, {"bSucc": 1, "data": "Grüße"})
            self.assertEqual(peer.received(), post("/a?b=ü%20d", nothing) + post("/a", nothing)
                             + post("/a?q", form + "6\r\n\r\nb=ü d") + post("/", form + "0\r\n\r\n"))
        for arguments in ((None, 80, "/", ""), (HOST, 80, None, ""), (HOST, 80, "/", None)):
            self.assertEqual(util.SyncSendHttpRequest(*arguments, ""), {})
            self.assertEqual(util.SyncSendHttpRequestParam(*arguments), {})
        for port in (8080, 0, -1, 65536 + 80):
            self.assertEqual(util.SyncSendHttpRequest(HOST, port, "/", "", ""), {"bSucc": 0})
        self.network.reply(STAGE, "x", tls="expired-wrong-name")  # staging hosts are recognised by name
        self.assertEqual(util.SyncSendHttpRequest(STAGE, 443, "/", "", "")["bSucc"], 1)
