# The daemon's link to a real broker: rejected, stable, and after a restart of the broker.

import os
import socket
import time

from testbed.environment import BROKER_HOST, BROKER_PORT, SANITIZED, check_in
from testbed.processes import Process, eventually
from tests.daemon.daemon_test_case import DaemonTest

CONNECTED = "TRACE MQTT - connected with server VEYRA_SERVER\n"
DISCONNECTED = "DEBUG MQTT disconnected NET: 0 VEYRA: 1 Connected: "
# The first packet to a broker: a clean session, a keepalive of 5 s, the id.
CONNECT_WITHOUT_LOGIN = b"\x10\x18\0\4MQTT\4\2\0\5\0\x0cVEYRA_SERVER"
RESTARTS = int(os.environ.get("VEYRA_BROKER_RESTARTS", 2))


class Connection(DaemonTest):
    def test_uses_the_default_broker_and_no_login_when_a_setting_is_missing(self) -> None:
        without_port = {"enabled": True, "host": BROKER_HOST, "username": "u"}
        without_host = {"enabled": True, "port": BROKER_PORT, "password": "p"}
        with socket.create_server(("127.0.0.1", 1883)) as default_broker:
            default_broker.settimeout(10)
            for settings in (without_port, without_host):
                with self.subTest(settings=settings):
                    self.testbed.configuration["mqtt"] = settings
                    self.testbed.start_daemon()
                    with default_broker.accept()[0] as client:
                        self.assertEqual(client.recv(99), CONNECT_WITHOUT_LOGIN)

    def test_logs_in_with_username_and_password(self) -> None:
        self.testbed.start_broker_with_passwords()
        self.testbed.start_ready_daemon()
        self.assert_logged(CONNECTED)
        self.assert_logged("TRACE MQTT - subscribed id: 1 qos_count: 1 granted_qos: 2\n")

    def test_reports_rejected_credentials(self) -> None:
        self.testbed.start_broker_with_passwords()
        self.testbed.configuration["mqtt"]["password"] = "wrong"
        self.testbed.start_ready_daemon()
        self.assert_logged("ERROR MQTT - Impossible to connect with server(5)\n")
        self.assert_logged("TRACE MQTT - disconnected (")
        self.assertNotIn(CONNECTED, self.testbed.log())


class Restart(DaemonTest):
    def test_delivers_queued_replies_in_order_after_a_broker_restart(self) -> None:
        daemon = self.testbed.start_ready_daemon()
        self.relay(check_in(number=0))
        before = resources(daemon)
        for restart in range(1, 1 + RESTARTS):
            with self.subTest(restart=restart):
                self.restart_with_queued_replies(restart)
                self.assertEqual(resources(daemon), before)
        self.assertEqual(daemon.end(), 0)

    def restart_with_queued_replies(self, restart: int) -> None:
        self.testbed.kill_broker()
        self.assert_logged(DISCONNECTED + "0 Keepalive: ", restart)
        self.assertRegex(self.testbed.log(), r"Keepalive: \d{1,5}\.\n")
        queued = [3 * restart, 3 * restart + 1, 3 * restart + 2]
        for number in queued:
            self.testbed.send(check_in(number=number))
        self.testbed.start_broker()
        self.testbed.listen()
        received = [reply["result"]["id"] for reply in self.testbed.replies(len(queued), 20)]
        self.assertEqual(received, queued)


class HealthyLink(DaemonTest):
    def test_keeps_the_link_while_the_echo_arrives(self) -> None:
        self.testbed.start_ready_daemon()
        keepalives = eventually(
            lambda: len(self.testbed.listener.on("lora/veyra_keepalive")) == 7, 40
        )
        self.assertTrue(keepalives)
        self.assertNotIn(DISCONNECTED, self.testbed.log())

    def test_uses_little_processor_time_when_idle(self) -> None:
        daemon = self.testbed.start_ready_daemon()
        self.relay()
        cpu_s, wakeups = daemon.cpu_seconds(), daemon.status("voluntary_ctxt_switches")
        time.sleep(10)  # measures an idle daemon
        cpu_s = daemon.cpu_seconds() - cpu_s
        wakeups = daemon.status("voluntary_ctxt_switches") - wakeups
        self.assertLess(cpu_s, 3 if SANITIZED else 0.5)
        # The main thread wakes up every 100 ms.
        self.assertTrue(80 < wakeups < 300, wakeups)


class Load(DaemonTest):
    def test_relays_ten_thousand_datagrams(self) -> None:
        self.testbed.configuration["log"]["level"] = 30
        daemon = self.testbed.start_ready_daemon()
        resident_kib = []
        for batch in range(100):
            for number in range(100 * batch, 100 * batch + 100):
                self.testbed.send(check_in(number=number))
            self.wait_for_replies(100 * batch + 100)
            resident_kib.append(daemon.resident_kib())
        with self.subTest("every reply arrives, in order"):
            numbers = [reply["result"]["id"] for reply in self.testbed.replies(10000)]
            self.assertEqual(numbers, list(range(10000)))
        with self.subTest("all requests share one connection"):
            connections = {request.connection for request in self.testbed.cloud.requests}
            self.assertEqual(len(connections), 1)
        with self.subTest("memory stays constant"):
            after_a_thousand, at_the_end = resident_kib[9], resident_kib[-1]
            self.assertLess(at_the_end, after_a_thousand * (4 if SANITIZED else 1) + 256)

    def wait_for_replies(self, count: int) -> None:
        # Counts the messages only: parsing all of them each time would take minutes.
        eventually(lambda: len(self.testbed.listener.on("lora/veyra")) >= count)


def resources(daemon: Process) -> dict[str, int]:
    return {"descriptors": daemon.count("fd"), "threads": daemon.count("task")}
