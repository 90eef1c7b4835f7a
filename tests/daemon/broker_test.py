# The daemon's link to a real broker that refuses, stays, or comes and goes.

import os
from unittest import TestCase

from rig.company import SANITIZED, Company, check_in
from rig.processes import eventually

DISCONNECTED = "DEBUG MQTT disconnected NET: 0 VEYRA: 1 Connected: "


class BrokerLink(TestCase):
    def test_logs_in_with_both_credentials(self) -> None:
        with Company() as company:
            company.start_broker_with_passwords()
            company.start_ready_daemon()
            self.assertTrue(company.logged("TRACE MQTT - connected with server VEYRA_SERVER\n"))
            record = "TRACE MQTT - subscribed id: 1 qos_count: 1 granted_qos: 2\n"
            self.assertTrue(company.logged(record))
            company.configuration["mqtt"]["password"] = "wrong"
            daemon = company.start_ready_daemon()
            self.assertTrue(
                company.logged("ERROR MQTT - Impossible to connect with server(5)\n", 2))
            self.assertNotIn("MQTT - connected", company.log())
            self.assertIn("TRACE MQTT - disconnected (", company.log())
            self.assertEqual(daemon.end(), 0)

    def test_survives_restarts_and_delivers_what_was_queued_in_order(self) -> None:
        with Company() as company:
            daemon = company.start_ready_daemon()
            company.send(check_in(number=0))
            self.assertEqual(len(company.replies(1)), 1)
            before = daemon.count("fd"), daemon.count("task")
            sent = 1
            for restart in range(1, 1 + int(os.environ.get("VEYRA_BROKER_RESTARTS", 2))):
                company.kill_broker()
                self.assertTrue(company.logged(DISCONNECTED + "0 Keepalive: ", restart))
                self.assertRegex(company.log(), r"Keepalive: \d{1,5}\.\n")
                for _ in range(3):
                    company.send(check_in(number=sent))
                    sent += 1
                company.start_broker()
                company.listen()
                numbers = [reply["result"]["id"] for reply in company.replies(3, 20)]
                self.assertEqual(numbers, list(range(sent - 3, sent)))
                self.assertEqual((daemon.count("fd"), daemon.count("task")), before)
            self.assertEqual(daemon.end(), 0)

    def test_stays_while_the_echo_comes_and_costs_next_to_nothing(self) -> None:
        with Company() as company:
            daemon = company.start_ready_daemon()
            spent_s, pauses = daemon.cpu_seconds(), daemon.status("voluntary_ctxt_switches")
            company.send(check_in())
            self.assertEqual(len(company.replies(1, 1)), 1, "served soon after the start")
            heard = company.listener.on
            self.assertTrue(eventually(lambda: len(heard("lora/veyra_keepalive")) == 7, 40))
            self.assertNotIn(DISCONNECTED, company.log())
            self.assertLess(daemon.cpu_seconds() - spent_s, 10 if SANITIZED else 1)
            pauses = daemon.status("voluntary_ctxt_switches") - pauses
            self.assertLess(pauses, 1000, "30 s of receiving for 100 ms at a time")
            self.assertEqual({m.payload for m in heard("lora/veyra_keepalive")}, {b""})
            self.assertEqual(daemon.end(), 0)

    def test_relays_ten_thousand_in_order_over_one_connection_in_flat_memory(self) -> None:
        with Company() as company:
            company.configuration["log"]["level"] = 30
            daemon = company.start_ready_daemon()
            resident_kib = []
            for sent in range(100, 10001, 100):
                for number in range(sent - 100, sent):
                    company.send(check_in(number=number))
                eventually(lambda: len(company.listener.on("lora/veyra")) >= sent)
                resident_kib.append(daemon.resident_kib())
            self.assertLess(resident_kib[-1], resident_kib[9] * (4 if SANITIZED else 1) + 256)
            numbers = [reply["result"]["id"] for reply in company.replies(10000)]
            self.assertEqual(numbers, list(range(10000)))
            self.assertEqual(len({request.connection for request in company.cloud.requests}), 1)
