# The built doctor beside a daemon with real peers and real faults.

import json
import os
import signal
import socket
import subprocess

from testbed.cloud import Answer
from testbed.environment import BUILD, CLOUD_PORT, UPSTREAM_PORT, check_in
from tests.daemon.daemon_test_case import DaemonTest

DOCTOR = os.environ.get("VEYRA_DOCTOR_PROGRAM", str(BUILD / "lora-veyra-doctor"))


class Doctor(DaemonTest):
    def expect_bad(self, text: str, *options: str) -> None:
        """It says the text in what is bad. Its daemon is the one that runs or was killed last."""
        files = "-c", self.testbed.folder / "daemon.conf", "--var-run", self.testbed.folder / "run"
        command = [DOCTOR, "--json", *map(str, files), *options]
        done = subprocess.run(command, capture_output=True, text=True, timeout=25)
        report = json.loads(done.stdout)
        bad = [check for check in report["checks"] if check["outcome"] == "bad"]
        self.assertRegex("\n".join(f"{c['check']} {c['cause']}. {c['remedy']}" for c in bad), text)
        self.assertEqual((done.returncode, report["outcome"]), (1, "bad"))

    def test_finds_nothing_bad_and_disturbs_nobody(self) -> None:
        self.testbed.start_broker_with_passwords()
        self.testbed.start_ready_daemon()
        command = [DOCTOR, "--publish", "--sign", "m1/gateways/SN1/check_in"]
        proxy = {**os.environ, "https_proxy": "http://127.0.0.1:9"}  # not the daemon's
        doctor = subprocess.Popen(command, stdout=subprocess.PIPE, text=True, env=proxy)
        sent = 0
        while doctor.poll() is None:
            self.testbed.send(check_in(number=sent))
            self.testbed.replies(sent := sent + 1)
        report = doctor.communicate()[0]
        self.assertEqual((doctor.returncode, report.count("ok  ")), (0, 12), report)
        requests = [(r.method, r.verdict, r.headers["X-API-SERIAL"])
                    for r in self.testbed.cloud.requests]
        self.assertEqual(set(requests), {(m, "signature valid", "SN1") for m in ("GET", "POST")})
        replies = [reply for reply in self.testbed.replies(sent + 1) if reply]
        self.assertEqual([reply["result"]["id"] for reply in replies], list(range(sent)))
        self.assertEqual(self.testbed.log().count("MQTT - connected"), 1)
        self.assertNotIn("disconnected", self.testbed.log())

    def test_names_faults_of_the_cloud(self) -> None:
        self.testbed.start_daemon().kill()
        self.testbed.cloud.close()
        self.expect_bad("Connection refused. mend")
        for certificate, text in (("stranger", "Issuer:CN = Unknown authority"),
                                  ("elsewhere", "DNS:elsewhere.* write the host")):
            self.testbed.cloud = self.testbed.make_cloud(certificate)
            self.expect_bad(text)
            self.testbed.cloud.close()
        with socket.create_server(("127.0.0.1", CLOUD_PORT)):
            self.expect_bad("no TLS handshake")
        self.testbed.cloud = self.testbed.make_cloud("cloud")
        self.testbed.cloud.secret = "another"
        self.expect_bad("signature refused", "--sign", "m1/x")

    def test_names_what_the_broker_denies(self) -> None:
        self.testbed.start_broker_with_passwords("topic read lora/veyra_keepalive")
        self.testbed.start_ready_daemon()
        self.expect_bad("replies denied, reason code 135", "--publish")
        self.expect_bad("echo nothing in 12 s")
        self.testbed.configuration["mqtt"]["password"] = "wrong"
        self.testbed.start_ready_daemon()
        self.expect_bad("it refuses name or password")
        self.assertEqual(self.testbed.cloud.requests, [], "nothing is signed unasked")

    def test_tells_a_wedged_daemon_from_one_that_waits(self) -> None:
        self.testbed.start_ready_daemon()
        self.testbed.cloud.answer = Answer(stall_s=30)
        self.testbed.send(check_in())
        self.expect_bad("waits for a cloud", "--alive")
        self.testbed.cloud.answer = Answer()
        daemon = self.testbed.start_ready_daemon()
        self.testbed.send('{"path":"p","request":{"brantle_serial":{}}}')
        self.testbed.send(check_in())
        self.assertTrue(self.testbed.logged("Curl Request", 2))
        self.expect_bad("wedged on its lock", "--alive")
        self.assertEqual(daemon.end(signal.SIGKILL), -signal.SIGKILL)
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as other:
            other.bind(("0.0.0.0", UPSTREAM_PORT))
            self.expect_bad(f"port taken by python3, process {os.getpid()}")
        self.assertNotIn({}, self.testbed.replies(), "nothing is published unasked")
