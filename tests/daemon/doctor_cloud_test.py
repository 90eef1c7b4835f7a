# The doctor on faults of the cloud.

import socket
import threading
import time
from http.server import BaseHTTPRequestHandler, HTTPServer
from pathlib import Path
from unittest import skipIf, skipUnless

from testbed.cloud import Answer
from testbed.environment import CA_DIRECTORY, CLOUD_PORT, GATEWAY_SECRET, check_in, run
from testbed.faulty_peers import name_server, scripted_server, silent_listener
from tests.daemon.doctor_test_case import IS_EMULATED, DoctorTest, ago

CA_FILE = CA_DIRECTORY / "DigiCert_Global_Root_CA.pem"


class DoctorOnCloud(DoctorTest):
    def setUp(self) -> None:
        super().setUp()
        self.stop_daemon()

    def expect(self, finding_id: str, *options: object, says: str = ".") -> None:
        report = self.examine(*options)
        self.assertEqual(report.bad(), {finding_id, "alive.not-running"}, report.text)
        self.assertRegex(report.finding(finding_id)["cause"], says)

    def serve(self, certificate: str) -> None:
        self.testbed.cloud.close()
        self.testbed.cloud = self.testbed.make_cloud(certificate)

    def test_tells_certificate_faults_apart(self) -> None:
        own = CA_FILE.read_text()
        folder = self.testbed.folder / "certificates"
        expired, impostor = [(folder / f"{n}.pem").read_text() for n in ("expired-ca", "impostor")]
        strangers = (CA_DIRECTORY / "Stranger.pem").read_text()
        cases = [
            ("cloud.ca-missing", "stranger", own, 'Root CA Zürich".*CN = Mock cloud CA'),
            ("cloud.other-ca", "alone", own, 'CN = localhost.*CN = Mock cloud CA'),
            ("cloud.ca-other-key", "cloud", impostor, 'CN = Mock cloud CA.* another key'),
            ("cloud.other-ca", "chain", strangers, 'CN = Mock cloud CA.*Root CA Zürich'),
            ("cloud.ca-missing", "cloud", 5 * strangers, 'CN = Mock cloud CA.*and 2 more'),
            ("cloud.ca-expired", "cloud", expired, "has expired"),
            ("cloud.ca-expired", "chain", expired, "has expired"),
            ("cloud.incomplete-chain", "partial", own, "CN = Intermediate authority"),
            ("cloud.host-mismatch", "elsewhere", own, "elsewhere.example, other.example"),
            ("cloud.certificate-expired", "expired", own, "expired"),
            ("cloud.certificate-invalid", "client", own, "purpose"),
            ("cloud.ca-file", "cloud", "no certificate", "has no certificate"),
        ]
        for finding, certificate, trusted, says in cases:
            with self.subTest(finding=finding):
                CA_FILE.write_text(trusted)
                self.serve(certificate)
                self.expect(finding, says=says)
        self.serve("future")
        CA_FILE.write_text(own)
        self.expect("cloud.certificate-not-yet-valid")
        CA_FILE.unlink()
        self.expect("cloud.ca-file", says="No such file")

    def test_tells_silent_peers_apart(self) -> None:
        self.testbed.cloud.close()
        self.expect("cloud.unreachable", says=r"Connection refused \(tried .*127.0.0.1")
        with socket.create_server(("127.0.0.1", CLOUD_PORT)):
            self.expect("cloud.no-tls", says="no TLS handshake took place")
        with HTTPServer(("127.0.0.1", CLOUD_PORT), BaseHTTPRequestHandler) as plain:
            threading.Thread(target=plain.serve_forever, daemon=True).start()
            self.expect("cloud.no-tls", says="does not speak TLS")
            plain.shutdown()
        for alert, finding in ((b"\x46", "cloud.tls-version"), (b"\x28", "cloud.tls-rejected")):
            record = b"\x15\x03\x01\x00\x02\x02" + alert
            with scripted_server("127.0.0.1", CLOUD_PORT, lambda _: record):
                self.expect(finding, says="alert")
        with silent_listener("127.0.0.1", CLOUD_PORT):
            self.expect("cloud.silent", says="127.0.0.1")
        self.configure("network", veyraServer="https://no.such.invalid/api/")
        self.expect("cloud.no-route", says="no route to any of its name")
        self.configure("network", veyraServer="https://192.0.2.1/api/")
        self.expect("cloud.no-route", says="Network is unreachable")
        run("ip", "route", "add", "unreachable", "192.0.2.0/24")
        self.expect("cloud.no-route", says="No route to host")

    @skipIf(IS_EMULATED, "the emulator reads the name servers from the system root")
    @skipUnless(Path("/etc/resolv.conf").exists(), "the test mounts a file over it")
    def test_tells_faults_of_the_name_resolution_apart(self) -> None:
        self.configure("network", veyraServer="https://cloud.invalid/api/")
        self.configure("mqtt", host="broker.invalid")
        cases = [(3, "unresolved", "unresolved"), (2, "dns-failed", "dns-failed"),
                 (None, "dns-silent", "dns-failed")]
        for code, finding, broker in cases:
            with self.subTest(finding=finding), name_server(self.testbed.folder, code):
                start = time.monotonic()
                report = self.examine("--publish", "--sign", "m1/x")
                self.assertLess(time.monotonic() - start, 14)
                self.assertIn(f"cloud.{finding}", report.bad())
                self.assertIn(f"broker.{broker}", report.outcomes())
                self.assertIn({"check": "signature", "needs": "cloud"}, report.data["skipped"])

    def test_judges_the_response(self) -> None:
        html = {"Content-Type": "text/html"}
        cases = [
            ("cloud.unavailable", Answer(502), "status 502"),
            ("cloud.unavailable", Answer(504), "status 504"),
            ("cloud.html", Answer(200, headers=html), "HTML"),
            ("cloud.redirect", Answer(302, headers={"Location": "http://login/"}), "http://login/"),
            ("cloud.proxy-login", Answer(407), "proxy"),
            ("cloud.network-login", Answer(511), "login"),
            ("cloud.no-response", Answer(200, stall_s=9), "does not answer"),
        ]
        for finding, answer, says in cases:
            with self.subTest(finding=finding):
                self.testbed.cloud.head = answer
                self.expect(finding, says=says)
        elsewhere = Answer(301, headers={"Location": "/x"})
        lower = Answer(500, headers={"date": "Sat, 22 Nov 2025 00:00:00 GMT"})
        self.testbed.cloud.head = lower
        self.expect("clock.wrong")
        for answer in (Answer(404, headers=html), Answer(401), Answer(500), elsewhere):
            with self.subTest(answer=answer):
                self.testbed.cloud.head = answer
                self.assertEqual(self.examine().finding("cloud.ok")["httpStatus"], answer.status)
        self.testbed.start_ready_daemon()
        self.testbed.cloud.head = Answer(503)
        report = self.examine(meanwhile=lambda: self.testbed.send(check_in()))
        self.assertEqual((report.bad(), report.unknown()), (set(), {"cloud.unavailable"}))
        self.testbed.cloud.answer = Answer(200, b"<html>")
        self.testbed.start_ready_daemon()
        report = self.examine(meanwhile=lambda: self.testbed.send(check_in()))
        self.assertIn("cloud.unavailable", report.bad(), "the replies have no result")
        for ahead_s in (0, -9999):
            self.testbed.cloud.clock_ahead_s = ahead_s
            self.testbed.cloud.head = Answer(404, headers={"Age": "9999"})
            self.assertIn("clock.ok", self.examine().outcomes(), "the response is from a cache")

    def test_ignores_the_date_of_an_unverified_server(self) -> None:
        self.serve("stranger")
        self.testbed.cloud.clock_ahead_s = 9999
        self.expect("cloud.ca-missing")
        self.assertIn("clock.unverified", self.examine().unknown())
        self.configure("network", veyraServer=f"HTTPS://localhost:{CLOUD_PORT}/x/")
        unverified = {"clock.unverified", "signature.not-sent"}
        self.assertLessEqual(unverified, self.examine("--sign", "m1/x").unknown())
        self.configure("network", veyraServer=f"http://localhost:{CLOUD_PORT}/x/")
        dated = (b"HTTP/1.1 200 OK\r\nDate: Sun, 22 Nov 2020 00:00:00 GMT\r\n"
                 b"Content-Length: 0\r\n\r\n")
        self.testbed.cloud.close()
        CA_FILE.unlink()
        with socket.create_server(("127.0.0.1", CLOUD_PORT)):
            self.assertIn("cloud.no-response", self.examine().bad())
        with scripted_server("127.0.0.1", CLOUD_PORT, lambda _: dated):
            report = self.examine("--sign", "m1/x")
        self.assertLessEqual(unverified, report.unknown())
        self.assertIn("settings.not-encrypted", report.bad())

    def test_reports_unknown_if_a_recent_request_succeeded(self) -> None:
        self.testbed.cloud.close()
        success, failure = "TRACE Curl Response {}\n", "ERROR CURL call to Server failed - x\n"
        cases = [(ago(seconds=90) + success, "bad"), (ago(seconds=9) + success, "unknown"),
                 (ago(seconds=9) + success + ago(seconds=5) + failure, "bad")]
        for log, outcome in cases:
            self.testbed.log_file.write_text(log)
            report = self.examine()
            self.assertEqual(report.outcomes()["cloud.unreachable"], outcome)
        self.assertIn('"cloud" first', report.finding("errors.request-failed")["fix"])

    def test_uses_only_http_and_https(self) -> None:
        self.configure("network", veyraServer="telnet://127.0.0.1:7070//https:/")
        received: list[bytes] = []

        def answer(data: bytes) -> bytes:
            received.append(data)
            return b"x"

        with scripted_server("127.0.0.1", 7070, answer):
            report = self.examine()
        self.assertLessEqual({"cloud.unreachable", "settings.not-encrypted"}, report.bad())
        self.assertEqual(received, [])

    def test_judges_a_signed_request(self) -> None:
        self.testbed.cloud.secret = "another"
        self.expect("signature.rejected", "--sign", "m1/x")
        self.testbed.cloud.answer = Answer(403)
        self.testbed.cloud.secret = GATEWAY_SECRET
        self.expect("signature.rejected", "--sign", "m1/x")
        self.testbed.cloud.answer = Answer(302, headers={"Location": "/api/moved/x"})
        report = self.examine("--sign", "m1/x")
        self.assertEqual(report.outcomes()["signature.no-verdict"], "unknown")
        self.assertNotIn("/api/moved/x", [request.path for request in self.testbed.cloud.requests])
        self.testbed.cloud.answer = Answer(stall_s=9)
        self.assertIn("signature.no-response", self.examine("--sign", "m1/x").unknown())
        self.configure("network", gatewayKey="0")
        sent = len(self.testbed.cloud.requests)
        report = self.examine("--sign", "m1/x")
        self.assertIn({"check": "signature", "needs": "identity"}, report.data["skipped"])
        self.assertEqual(len(self.testbed.cloud.requests), sent)

    def test_reports_faults_of_the_services_proxy(self) -> None:
        answer = (b"HTTP/1.1 407 Proxy\r\nDate: Sun, 22 Nov 2020 00:00:00 GMT\r\n"
                  b"Content-Length: 0\r\n\r\n")
        proxy = "http://127.0.0.3:3128"
        with scripted_server("127.0.0.3", 3128, lambda _: answer):
            for name in ("https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"):
                with self.subTest(name=name):
                    self.testbed.start_ready_daemon({name: proxy})
                    report = self.examine()
                    self.assertEqual((report.bad(), report.unknown()),
                                     ({"cloud.proxy-login"}, {"clock.no-reference"}))
            self.testbed.start_ready_daemon({"https_proxy": proxy, "NO_PROXY": "localhost"})
            self.assertEqual(self.examine().bad(), set())
