# The daemon's link to a real broker that refuses, stays, or comes and goes.

import os

from rig.company import SANITIZED, check_in
from rig.processes import eventually
from tests.daemon.case import DaemonTest

DISCONNECTED = "DEBUG MQTT disconnected NET: 0 VEYRA: 1 Connected: "


class BrokerLink(DaemonTest):
    def test_logs_in_with_both_credentials(self) -> None:
        self.company.start_broker_with_passwords()
        self.company.start_ready_daemon()
        self.assertTrue(self.company.logged("TRACE MQTT - connected with server VEYRA_SERVER\n"))
        self.assertTrue(self.company.logged("subscribed id: 1 qos_count: 1 granted_qos: 2\n"))
        self.company.configuration["mqtt"]["password"] = "wrong"
        self.company.start_ready_daemon()
        self.assertTrue(self.company.logged("ERROR MQTT - Impossible to connect with server(5)\n"))
        self.assertNotIn("MQTT - connected", self.company.log())
        self.assertTrue(self.company.logged("TRACE MQTT - disconnected ("))

    def test_survives_restarts_and_delivers_what_was_queued_in_order(self) -> None:
        daemon = self.company.start_ready_daemon()
        self.company.send(check_in(number=0))
        self.assertEqual(len(self.company.replies(1)), 1)
        before = daemon.count("fd"), daemon.count("task")
        for restart in range(1, 1 + int(os.environ.get("VEYRA_BROKER_RESTARTS", 2))):
            self.company.kill_broker()
            self.assertTrue(self.company.logged(DISCONNECTED + "0 Keepalive: ", restart))
            self.assertRegex(self.company.log(), r"Keepalive: \d{1,5}\.\n")
            wanted = [3 * restart, 3 * restart + 1, 3 * restart + 2]
            for number in wanted:
                self.company.send(check_in(number=number))
            self.company.start_broker()
            self.company.listen()
            numbers = [reply["result"]["id"] for reply in self.company.replies(3, 20)]
            self.assertEqual(numbers, wanted)
            self.assertEqual((daemon.count("fd"), daemon.count("task")), before)
        self.assertEqual(daemon.end(), 0)

    def test_stays_while_the_echo_comes_and_costs_next_to_nothing(self) -> None:
        daemon = self.company.start_ready_daemon()
        spent_s, pauses = daemon.cpu_seconds(), daemon.status("voluntary_ctxt_switches")
        self.company.send(check_in())
        self.assertEqual(len(self.company.replies(1, 5)), 1, "served soon after the start")
        heard = self.company.listener.on
        self.assertTrue(eventually(lambda: len(heard("lora/veyra_keepalive")) == 7, 40))
        self.assertNotIn(DISCONNECTED, self.company.log())
        self.assertLess(daemon.cpu_seconds() - spent_s, 10 if SANITIZED else 1)
        pauses = daemon.status("voluntary_ctxt_switches") - pauses
        self.assertLess(pauses, 1000, "30 s of receiving for 100 ms at a time")

    def test_relays_ten_thousand_in_order_over_one_connection_in_flat_memory(self) -> None:
        self.company.configuration["log"]["level"] = 30
        daemon = self.company.start_ready_daemon()
        resident_kib = []
        for sent in range(100, 10001, 100):
            for number in range(sent - 100, sent):
                self.company.send(check_in(number=number))
            eventually(lambda: len(self.company.listener.on("lora/veyra")) >= sent)
            resident_kib.append(daemon.resident_kib())
        self.assertLess(resident_kib[-1], resident_kib[9] * (4 if SANITIZED else 1) + 256)
        numbers = [reply["result"]["id"] for reply in self.company.replies(10000)]
        self.assertEqual(numbers, list(range(10000)))
        self.assertEqual(len({request.connection for request in self.company.cloud.requests}), 1)
