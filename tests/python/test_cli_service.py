"""The command line's other requests, run as processes against the stand-in and scripted peers."""

import test_cli
import peer
from kestrelhub_standin import launch
from scripted import DEFAULT as HOST

LOGIN, VIDEO = ["--user", launch.USER], ["relate-video", "https://v.example/?a=1&b=2", "w e b", "x=y"]
PATH = "/servlet/getPresetCategory"
REQUEST = ["request", HOST, PATH, "--port", "80", "--params", "ap=TWR&Locid=en"]


class ServiceCommandsTest(test_cli.CommandLineCase):
    def test_requests_print_their_answers_or_what_failed(self):
        self.assertEqual(self.run_cli(*self.publish, "--template-key", "{K-9}")[0], 0)
        address = self.standin.presets()[-1]["address"]
        # A text to find in each stream, or nothing for an empty stream, and a pattern of the last request's target.
        for arguments, code, output, errors, target in (
                (["categories", "de"], 0, "1  Porträt\n2  Landschaft\n3  Nacht\n4  Essen & Trinken\n5  S", "", "=de&"),
                (["categories", "a&b"], 0, "Portrait", "", "Locid=a%26b&"),
                (["categories", "--json"], 0, '"2": "Landscape"', "", "Locid=en&"),
                (["categories", "--host", "no-host.invalid"], 3, "", "no categories", "."),
                (["effect", "{k-9}", *LOGIN], 0, address + "\n", "", "&guid={k-9}$"),
                (["effect", "{k-9}", *LOGIN, "--json"], 0, f'"address": "{address}"', "", "&guid={k-9}$"),
                (["effect", "{k-9}"], 3, "", "it may need a login", "/GetEffectByGUIDForTWR.token=&guid={k-9}$"),
                (["effect", "unknown", *LOGIN], 3, "", "no such effect", "guid=unknown$"),
                ([*VIDEO, *LOGIN], 0, f"https://{HOST}/videos/", "",
                 "&videoURL=https://v.example/%3Fa%3D1%26b%3D2&website=w%20e%20b&.*&x=y$"),
                (["relate-video", "", "web", *LOGIN], 3, "", "refused it", "setRelateVideo"),
                (VIDEO, 2, "", "--user", "."),
                (["request", "no-host.invalid", "/"], 3, "", "name could not be found", "."),
                (REQUEST, 0, '<category categoryid="3">Night</category>', "", "ap=TWR&Locid=en$"),
                ([*REQUEST, "--form"], 0, "Unknown product.", "", PATH + "$"),
                (["request", HOST, "/servlet/memLogin", "--form", "--params", "pwd=x", "--json"], 0, "form is damaged.",
                 "", "/servlet/memLogin$")):
            with self.subTest(arguments=arguments):
                found = self.run_cli(*arguments)
                self.assertEqual((found[0], bool(found[1]), bool(found[2])), (code, bool(output), bool(errors)), found)
                self.assertEqual((output in found[1], errors in found[2]), (True, True), found)
                self.assertRegex(self.standin.requests()[-1]["target"], target)

    def test_what_a_service_may_also_answer(self):
        with peer.Peer("reply", "--body", "a\x1b[2J\x9b\u202e\u2066\ufeffä\u200d") as service:
            there = f"--connect-to={HOST}:80:127.0.0.1:{service.port}"
            self.assertEqual(self.run_cli(*REQUEST, there), (0, "a?[2J????ä\u200d\n", ""))
        with peer.Peer("reply", "--body", "<info><videoId>v</videoId></info>", "--then", "") as silent:
            there = f"--connect-to={HOST}:80:127.0.0.1:{silent.port},{self.env['SKIFFPORT_CONNECT_TO']}"
            code, output, errors = self.run_cli(*VIDEO, *LOGIN, there)
            self.assertEqual((code, output, "reply is empty" in errors), (3, "", True), errors)
