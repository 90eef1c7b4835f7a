# The daemon's link to a real broker that refuses, stays, or comes and goes.

import os

from testbed.environment import SANITIZED, check_in
from testbed.processes import eventually
from tests.daemon.daemon_test_case import DaemonTest

DISCONNECTED = "DEBUG MQTT disconnected NET: 0 VEYRA: 1 Connected: "


class BrokerLink(DaemonTest):
    def test_logs_in_with_both_credentials(self) -> None:
        self.testbed.start_broker_with_passwords()
        self.testbed.start_ready_daemon()
        self.assertTrue(self.testbed.logged("TRACE MQTT - connected with server VEYRA_SERVER\n"))
        self.assertTrue(self.testbed.logged("subscribed id: 1 qos_count: 1 granted_qos: 2\n"))
        self.testbed.configuration["mqtt"]["password"] = "wrong"
        self.testbed.start_ready_daemon()
        self.assertTrue(self.testbed.logged("ERROR MQTT - Impossible to connect with server(5)\n"))
        self.assertNotIn("MQTT - connected", self.testbed.log())
        self.assertTrue(self.testbed.logged("TRACE MQTT - disconnected ("))

    def test_survives_restarts_and_delivers_what_was_queued_in_order(self) -> None:
        daemon = self.testbed.start_ready_daemon()
        self.testbed.send(check_in(number=0))
        self.assertEqual(len(self.testbed.replies(1)), 1)
        before = daemon.count("fd"), daemon.count("task")
        for restart in range(1, 1 + int(os.environ.get("VEYRA_BROKER_RESTARTS", 2))):
            self.testbed.kill_broker()
            self.assertTrue(self.testbed.logged(DISCONNECTED + "0 Keepalive: ", restart))
            self.assertRegex(self.testbed.log(), r"Keepalive: \d{1,5}\.\n")
            wanted = [3 * restart, 3 * restart + 1, 3 * restart + 2]
            for number in wanted:
                self.testbed.send(check_in(number=number))
            self.testbed.start_broker()
            self.testbed.listen()
            numbers = [reply["result"]["id"] for reply in self.testbed.replies(3, 20)]
            self.assertEqual(numbers, wanted)
            self.assertEqual((daemon.count("fd"), daemon.count("task")), before)
        self.assertEqual(daemon.end(), 0)

    def test_stays_while_the_echo_comes_and_costs_next_to_nothing(self) -> None:
        daemon = self.testbed.start_ready_daemon()
        spent_s, pauses = daemon.cpu_seconds(), daemon.status("voluntary_ctxt_switches")
        self.testbed.send(check_in())
        self.assertEqual(len(self.testbed.replies(1, 5)), 1, "served soon after the start")
        heard = self.testbed.listener.on
        self.assertTrue(eventually(lambda: len(heard("lora/veyra_keepalive")) == 7, 40))
        self.assertNotIn(DISCONNECTED, self.testbed.log())
        self.assertLess(daemon.cpu_seconds() - spent_s, 10 if SANITIZED else 1)
        pauses = daemon.status("voluntary_ctxt_switches") - pauses
        self.assertLess(pauses, 1000, "30 s of receiving for 100 ms at a time")

    def test_relays_ten_thousand_in_order_over_one_connection_in_flat_memory(self) -> None:
        self.testbed.configuration["log"]["level"] = 30
        daemon = self.testbed.start_ready_daemon()
        resident_kib = []
        for sent in range(100, 10001, 100):
            for number in range(sent - 100, sent):
                self.testbed.send(check_in(number=number))
            eventually(lambda: len(self.testbed.listener.on("lora/veyra")) >= sent)
            resident_kib.append(daemon.resident_kib())
        self.assertLess(resident_kib[-1], resident_kib[9] * (4 if SANITIZED else 1) + 256)
        numbers = [reply["result"]["id"] for reply in self.testbed.replies(10000)]
        self.assertEqual(numbers, list(range(10000)))
        self.assertEqual(len({request.connection for request in self.testbed.cloud.requests}), 1)
