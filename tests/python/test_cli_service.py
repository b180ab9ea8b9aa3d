"""The command line's other requests, run as processes against the stand-in and scripted peers."""

import json

import test_cli
import peer
from kestrelhub_standin import launch

HOST = "www.kestrelhub.example"
LOGIN = ("--user", launch.USER)


class ServiceCommandsTest(test_cli.CommandLineCase):
    def check(self, arguments, code, output="", errors=""):
        """Compares the exit code and searches the streams for the texts; an empty text stands for an empty stream."""
        found = self.run_cli(*arguments)
        self.assertEqual(found[0], code, found)
        for text, stream in zip((output, errors), found[1:]):
            self.assertTrue(text in stream if text else stream == "", found)
        return found[1]

    def last_target(self):
        return self.standin.requests()[-1]["target"]

    def test_categories(self):
        self.check(["categories", "de"], 0, "1  Porträt\n2  Landschaft\n3  Nacht\n4  Essen & Trinken\n5  Schwarzweiß\n")
        self.assertEqual(json.loads(self.check(["categories", "--json"], 0, "{"))["categories"]["2"], "Landscape")
        self.check(["categories", "a&b"], 0, "Portrait")
        self.assertIn("Locid=a%26b&", self.last_target())
        self.check(["categories", "--host", "no-host.invalid"], 3, errors="no categories")

    def test_effects(self):
        self.assertEqual(self.run_cli("publish", launch.USER, str(self.preset), "--title", "T", "--template-key",
                                      "{K-9}")[0], 0)
        address = self.standin.presets()[-1]["address"]
        self.check(["effect", "{k-9}", *LOGIN], 0, address + "\n")
        self.assertEqual(json.loads(self.check(["effect", "{k-9}", *LOGIN, "--json"], 0, "{"))["address"], address)
        self.check(["effect", "{k-9}"], 3, errors="it may need a login")
        self.assertEqual(self.last_target(), "/servlet/GetEffectByGUIDForTWR?token=&guid={k-9}")
        self.check(["effect", "unknown", *LOGIN], 3, errors="no such effect")

    def test_related_videos(self):
        video = ["relate-video", "https://v.example/?a=1&b=2", "w e b", "x=y"]
        self.check([*video, *LOGIN], 0, f"https://{HOST}/videos/")
        self.assertIn("&videoURL=https://v.example/%3Fa%3D1%26b%3D2&website=w%20e%20b&", self.last_target())
        self.assertTrue(self.last_target().endswith("&x=y"))
        self.check(["relate-video", "", "web", *LOGIN], 3, errors="refused it")
        self.check(video, 2, errors="--user")
        with peer.Peer("reply", "--body", "<info><videoId>v</videoId></info>", "--then", "") as silent:
            elsewhere = f"{HOST}:80:127.0.0.1:{silent.port},{self.env['SKIFFPORT_CONNECT_TO']}"
            self.check([*video, *LOGIN, "--connect-to", elsewhere], 3, errors="reply is empty")

    def test_requests(self):
        path = "/servlet/getPresetCategory"
        query = ["--port", "80", "--params", "ap=TWR&Locid=en"]
        self.check(["request", HOST, path, *query], 0, '<category categoryid="3">Night</category>')
        self.check(["request", HOST, path, *query, "--form"], 0, "Unknown product.")
        self.assertEqual(self.last_target(), path)
        reply = self.check(["request", HOST, "/servlet/memLogin", "--form", "--params", "pwd=x", "--json"], 0, "{")
        self.assertIn("The login form is damaged.", json.loads(reply)["data"])
        self.check(["request", "no-host.invalid", "/"], 3, errors="name could not be found")
        with peer.Peer("reply", "--body", "a\x1b[2J\x9b\u202e\u2066\ufeffä\u200d") as service:
            there = ["--connect-to", f"{HOST}:80:127.0.0.1:{service.port}"]
            self.check(["request", HOST, "/", *query, *there], 0, "a?[2J????ä\u200d\n")
