"""Uploads to a misbehaving service or over a failing connection: each ends in bounded time with a clear outcome."""

import os
import socket
import subprocess
import sys
import time

import common
import fixtures
from publication import Publication

HOST = "good.test"
REFUSAL = "<uploadTemplate><errMsg>Too large.</errMsg></uploadTemplate>"
ACCEPTED = "<uploadTemplate><templateUrl>https%3A%2f%2Fh%2Fp+1</templateUrl></uploadTemplate>"


class HostileServiceTest(common.NetworkCase):
    def outcome(self, paths):
        publication = Publication(HOST)
        self.addCleanup(publication.uploader.SetCallback, None)  # breaks a reference cycle
        self.assertNotEqual(publication.start(paths), 0)
        return publication.completion()[1:4]

    def test_the_reply_decides_the_outcome(self):
        paths = self.preset()
        cases = {
            (1, "https://h/p+1", ""): [("reply", ACCEPTED), ("pieces", ACCEPTED, "--length", "chunked"),
                                       ("reply", ACCEPTED, "--length", "none"), ("reply", ACCEPTED, "--length", "long"),
                                       ("interim", ACCEPTED), ("reply", ACCEPTED, "--status", "299")],
            (0, "https://h/p+1", ""): [("reply", ACCEPTED, "--status", "500"), ("reply", ACCEPTED, "--status", "302")],
            (0, "", "Too large."): [("reply", REFUSAL, "--status", "413"), ("early-keep", REFUSAL, "--status", "413"),
                                    ("early-hold", REFUSAL, "--status", "401")],
            (1, "", "x" * 259): [("reply", f"<uploadTemplate><errMsg>{'x' * 300}</errMsg></uploadTemplate>")],
            (1, "", ""): [("reply", ""), ("reply", "no markup"), ("reply", ACCEPTED[:50]),
                          ("reply", ACCEPTED.replace("T", "t")), ("reset-reply", ACCEPTED),
                          ("reply", f"<!DOCTYPE a [<!ENTITY e SYSTEM 'file:///etc/passwd'>]>{ACCEPTED}"),
                          ("reply", "<uploadTemplate><errMsg>&lol;</errMsg></uploadTemplate>"),
                          ("reply", ACCEPTED, "--status", "204"), ("reply", ACCEPTED, "--length", "garbage")],
        }
        for outcome, scripts in cases.items():
            for scenario, body, *options in scripts:
                with self.subTest(f"{scenario} {body[:60]} {options}"):
                    peer = self.network.play(HOST, scenario, "--body", body, *options)
                    self.assertEqual(self.outcome(paths), outcome)
        self.assertEqual(peer.received().count(b'"\r\nContent-Type: application/octet-stream\r\n\r\n'), 14)

    def test_a_lost_connection_is_an_ordinary_failure(self):
        paths = self.preset({"effect": 8_000_000})
        for scenario, *options in (("reset-send",), ("reset-send", "--after", "3000000"), ("close",), ("garbage",),
                                   ("flood-headers",)):
            with self.subTest(scenario):
                self.network.play(HOST, scenario, *options)
                self.assertEqual(self.outcome(paths), (0, "", ""))
        for certificate in ("expired", "wrong-name", "unknown-issuer"):
            self.network.reply(HOST, ACCEPTED, tls=certificate)
            self.assertEqual(self.outcome(paths), (0, "", ""), certificate)
        self.network.lead(f"{HOST}:443:127.0.0.1:1")
        self.assertEqual(self.outcome(paths), (0, "", ""))

    def test_exit_during_a_stalled_upload_takes_bounded_time(self):
        self.network.play(HOST, "stall")
        script = ("import sys\nfrom publication import Publication\np = Publication(sys.argv[1])\n"
                  "assert p.start(sys.argv[2:]) != 0\np.pump_until(lambda: p.events)\nsys.exit(4)\n")
        paths = self.preset({"effect": 30_000_000})
        start = time.monotonic()
        self.assertEqual(self.run_python(script, HOST, *paths), (4, ""))
        self.assertLess(time.monotonic() - start, 15)


class InterpreterExitTest(common.Case):
    SCRIPT = """
import ctypes, os, sys, threading, Skiffport
class Last:
    def __del__(self, write=os.write):
        write(1, b"x")
ctypes.CDLL(None).on_exit(ctypes.CDLL(None).getchar, None)  # keeps the process alive after the interpreter's end
Skiffport.last = Last()
call = Skiffport.KHConnectUtil().SyncSendHttpRequestParam
threading.Thread(target=call, args=("slow.test", 80, "/", ""), daemon=True).start()
sys.stdin.read(1)
"""

    def test_a_thread_that_returns_afterwards_ends_quietly(self):
        with socket.create_server(("127.0.0.1", 0)) as listener:
            env = {**os.environ, "PYTHONPATH": os.pathsep.join(common.PATH),
                   "SKIFFPORT_CONNECT_TO": f"slow.test:80:127.0.0.1:{listener.getsockname()[1]}"}
            with subprocess.Popen([sys.executable, "-B", "-u", "-c", self.SCRIPT], stdin=subprocess.PIPE,
                                  stdout=subprocess.PIPE, stderr=subprocess.STDOUT, env=env) as child:
                listener.settimeout(fixtures.DEADLINE_SECONDS)
                connection = listener.accept()[0]
                child.stdin.write(b"x")
                child.stdin.flush()
                self.assertEqual(child.stdout.read(1), b"x")
                connection.close()
                tasks = f"/proc/{child.pid}/task"
                if sys.version_info >= (3, 9):  # 3.8 leaves the thread waiting for the GIL until the process ends
                    fixtures.wait_until(lambda: child.poll() is not None or len(os.listdir(tasks)) == 1,
                                        "end of the thread")
                self.assertEqual(child.communicate(timeout=fixtures.DEADLINE_SECONDS)[0], b"")
        self.assertEqual(child.returncode, 0)
