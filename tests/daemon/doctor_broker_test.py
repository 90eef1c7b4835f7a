# The doctor on faults of the broker.

import socket
from pathlib import Path
from unittest import skipUnless

from testbed import system
from testbed.environment import BROKER_HOST, BROKER_PORT, CLOUD_PORT, Listener, find_program, run
from testbed.faulty_peers import scripted_broker, silent_listener
from testbed.processes import eventually
from tests.daemon.doctor_test_case import DoctorTest, ago

PASSWORDS = "topic readwrite lora/#"
REBUILT = "DEBUG MQTT disconnected NET: 0 VEYRA: 1 Connected: 0 Keepalive: 101.\n"


class DoctorOnBroker(DoctorTest):
    def test_judges_credentials_and_the_port(self) -> None:
        self.testbed.start_broker_with_passwords()
        self.configure("mqtt", password="wrong")
        self.assertIn("broker.credentials", self.examine().bad())
        self.configure("mqtt", port=70000)
        self.assertLessEqual({"settings.useless", "broker.refused"}, self.examine().bad())

    def test_observes_a_broker_that_does_not_answer(self) -> None:
        self.stop_daemon()
        self.testbed.kill_broker()
        with socket.create_server((BROKER_HOST, BROKER_PORT)):
            self.assertIn("broker.no-connack", self.examine().bad())
        self.configure("mqtt", host="::ffff:127.0.0.1", port=CLOUD_PORT)
        self.assertIn("broker.tls", self.examine().bad())

    def test_accepts_a_broker_that_the_daemon_is_connected_to(self) -> None:
        self.testbed.listener.close()
        self.testbed.start_broker("allow_anonymous true\nmax_connections 1")
        self.testbed.start_ready_daemon()
        self.assertTrue(self.testbed.logged("MQTT - subscribed"))
        report = self.examine()
        self.assertEqual((report.bad(), report.outcomes()["broker.closed"]), (set(), "unknown"))
        with self.testbed.log_file.open("a") as log:
            log.write(2 * (ago(seconds=0) + REBUILT))
        self.assertIn("broker.closed", self.examine().bad())

    def test_judges_the_answers_of_the_broker(self) -> None:
        self.testbed.kill_broker()
        cases = [
            ("broker.protocol", b"\x20\x02\x00\x01", b""),
            ("broker.unavailable", b"\x20\x02\x00\x03", b""),
            ("broker.anonymous", b"\x20\x02\x00\x04", b""),
            ("broker.rejected", b"\x20\x02\x00\x02", b""),
            ("alive.not-linked", b"\x20\x02\x00\x02", b""),
            ("echo.no-answer", b"\x20\x02\x00\x00", b""),
            ("echo.denied", b"\x20\x02\x00\x00", b"\x90\x03\x00\x01\x80"),
            ("replies.no-verdict", b"\x20\x02\x00\x00", b"\x90\x03\x00\x01\x80"),
        ]
        for finding, connack, suback in cases:
            with self.subTest(finding=finding), scripted_broker(connack, suback):
                self.testbed.start_ready_daemon()
                self.assertIn(finding, self.examine("--publish").outcomes())
                self.testbed.kill_daemon()

    @skipUnless(Path("/etc/hosts").exists(), "the test mounts a file over it")
    def test_names_an_address_that_delays_the_start(self) -> None:
        hosts = f"127.0.0.1 localhost\n::1 broker\n{BROKER_HOST} broker\n127.0.0.9 broker\n"
        system.replace_file("/etc/hosts", hosts, self.testbed.folder)
        self.configure("mqtt", host="broker")
        with silent_listener("127.0.0.9", BROKER_PORT):
            self.assertIn("broker.ok", self.examine().outcomes())
        with silent_listener("::1", BROKER_PORT):
            report = self.examine()
            self.assertEqual(report.bad(), {"broker.address-silent", "alive.not-running"})
            self.assertIn("::1", report.finding("broker.address-silent")["cause"])
            self.assertIn(BROKER_HOST, report.finding("broker.address-silent")["fix"])
            self.testbed.kill_broker()
            self.assertIn("broker.refused", self.examine().bad())

    @skipUnless(Path("/etc/hosts").exists(), "the test mounts a file over it")
    def test_reports_unknown_if_only_the_doctor_cannot_connect(self) -> None:
        folder = self.testbed.folder
        system.replace_file("/etc/hosts", f"127.0.0.1 localhost\n{BROKER_HOST} broker\n", folder)
        self.testbed.configuration["mqtt"]["host"] = "broker"
        self.testbed.start_ready_daemon()
        for hosts in ("127.0.0.1 localhost\n", "127.0.0.1 localhost\n192.0.2.1 broker\n"):
            system.replace_file("/etc/hosts", hosts, folder)
            report = self.examine()
            self.assertEqual(report.bad(), set(), report.text)
            self.assertTrue({"broker.dns-failed", "broker.no-route"} & report.unknown())

    def test_recognises_client_ids_that_are_user_names(self) -> None:
        self.testbed.start_broker_with_passwords()
        settings = Path(self.testbed.folder / "broker.conf").read_text()
        own = settings.split("log_type all\n")[1]
        self.testbed.start_broker(own + "use_username_as_clientid true")
        self.testbed.start_ready_daemon()
        self.assertTrue(self.testbed.logged("MQTT - subscribed"))
        with self.testbed.log_file.open("a") as log:
            log.write(2 * (ago(seconds=0) + REBUILT))
        report = self.examine()
        self.assertEqual(report.bad(), set(), report.text)
        self.assertEqual(report.outcomes()["broker.same-client-id"], "unknown")

    def test_reports_denied_publishing(self) -> None:
        cases = [
            ("topic read lora/veyra_keepalive", "replies.denied", {"echo.silent"}),
            ("topic readwrite lora/veyra_keepalive", "replies.denied", set()),
            (PASSWORDS, "replies.ok", set()),
        ]
        for rights, replies, more in cases:
            with self.subTest(rights=rights):
                self.testbed.start_broker_with_passwords(rights)
                run(find_program("mosquitto_pub"), "-h", BROKER_HOST, "-p", BROKER_PORT, "-r",
                    "-u", "listener", "-P", "secret", "-t", "lora/veyra_keepalive", "-m", "old")
                self.testbed.start_ready_daemon()
                report = self.examine("--publish")
                self.assertIn(replies, report.outcomes())
                self.assertEqual(report.bad() - {"replies.denied"}, more, report.text)
        later = self.testbed.listen("listener", "secret")
        self.assertTrue(eventually(lambda: later.messages and not later.messages[-1].retain))
        self.assertEqual([m.payload for m in later.messages if m.retain], [b"old"])

    def test_sees_a_connection_over_ipv6(self) -> None:
        self.testbed.configuration["mqtt"]["host"] = f"::ffff:{BROKER_HOST}"
        self.testbed.start_ready_daemon()
        self.assertEqual(self.examine().bad(), set())

    def test_sees_that_replies_are_lost(self) -> None:
        self.testbed.start_ready_daemon()
        self.testbed.listener.close()
        self.expect_bad("replies.not-read", "--publish")
        for limit in ("message_size_limit 4000", "max_packet_size 4000"):
            self.testbed.start_broker(f"allow_anonymous true\n{limit}")
            self.testbed.listen()
            self.testbed.start_ready_daemon()
            self.expect_bad("replies.too-large", "--publish")

    def test_sees_a_second_client_with_the_same_id(self) -> None:
        self.testbed.start_ready_daemon()
        second = Listener("lora/none", client_id="VEYRA_SERVER", reconnect_s=1)
        self.assertTrue({"echo.link-unstable", "echo.silent"} & self.examine().bad())
        second.close()
