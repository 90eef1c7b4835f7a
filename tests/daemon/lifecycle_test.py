# How the built program stops, and its notifications to the service manager.

import random
import signal

from testbed.environment import SANITIZED, ServiceManager, check_in
from testbed.processes import Process, eventually, text_of
from tests.daemon.daemon_test_case import DaemonTest

AT_ONCE_S = 3.0 if SANITIZED else 0.5  # the sanitizers' own work at exit takes a second
STOP_SIGNALS = 1 << signal.SIGINT - 1 | 1 << signal.SIGTERM - 1


class Stop(DaemonTest):
    def test_stops_at_any_moment_under_load(self) -> None:
        unusable = {"NOTIFY_SOCKET": "/" * 200}  # longer than a socket address can be
        for stop in range(20):
            with self.subTest(stop=stop):
                daemon = self.testbed.start_daemon(environment=unusable)
                self.assert_logged("Lora VEYRA Server started")
                eventually(lambda: self.testbed.send(check_in(padding=300)), random.random() / 8)
                self.assertEqual(daemon.end(), 0)

    def test_stops_at_once_when_idle(self) -> None:
        daemon = self.testbed.start_ready_daemon()
        self.relay()
        self.assert_stops_at_once(daemon)

    def test_stops_at_once_when_the_peers_are_unreachable(self) -> None:
        self.testbed.kill_broker()
        self.testbed.configuration["network"]["veyraServer"] = "https://localhost:1/api/"
        daemon = self.testbed.start_ready_daemon()
        self.testbed.send(check_in())
        self.assert_logged("Curl call failed")
        self.assert_stops_at_once(daemon)

    def assert_stops_at_once(self, daemon: Process) -> None:
        self.assertEqual(daemon.end(signal.SIGINT, AT_ONCE_S), 0)
        self.assertIn("INFO Shutdown signal received 2\n", self.testbed.log())
        self.assertTrue(self.testbed.log().endswith("DEBUG Program closing\n"))
        self.assertEqual(self.testbed.service_manager.heard()[-1], "STOPPING=1")


class Signals(DaemonTest):
    def test_leaves_stop_signals_to_threads_with_a_large_stack(self) -> None:
        daemon = self.testbed.start_ready_daemon()
        self.relay()  # the broker worker runs
        threads = [text_of(task / "status") for task in (daemon.proc / "task").iterdir()]
        blocked = [signal_set(thread, "SigBlk") for thread in threads]
        self.assertEqual(blocked.count(STOP_SIGNALS), 1, "the broker worker")


class Notification(DaemonTest):
    def test_notifies_the_service_manager_once_a_second(self) -> None:
        self.testbed.service_manager.close()
        self.testbed.service_manager = ServiceManager("@veyra-test")
        self.testbed.start_ready_daemon()
        for number in range(100):  # a busy daemon must not notify more often
            self.testbed.send(check_in(number=number, padding=200))
        self.assertTrue(eventually(lambda: len(self.testbed.service_manager.heard()) >= 5))
        heard = self.testbed.service_manager.timed()[:5]
        self.assertEqual([text for text, _ in heard], ["READY=1"] + ["WATCHDOG=1"] * 4)
        first_alive_s, fourth_alive_s = heard[1][1], heard[4][1]
        self.assertGreater(fourth_alive_s - first_alive_s, 2.5)
        self.assert_replies(100)

    def test_stops_notifying_when_a_request_never_ends(self) -> None:
        daemon = self.testbed.start_ready_daemon()
        self.testbed.send('{"path":"p","request":{"brantle_serial":{}}}')
        self.assert_logged("ERROR Curl call failed p\n")
        self.assertIn("ERROR Exception caught during CURL call to [https:", self.testbed.log())
        self.testbed.send(check_in("m1/second"))
        self.assert_logged("Curl Request https:", times=2)
        self.testbed.service_manager.clear()
        self.assertIsNone(daemon.end(signal.SIGTERM, 2.5), "only SIGKILL ends it")
        self.assertEqual(self.testbed.service_manager.heard(), [])
        self.assertEqual(self.testbed.cloud.requests, [])


def signal_set(status: str, name: str) -> int:
    """A set of signals in the text of a /proc status file."""
    return int(status.split(f"\n{name}:")[1].split()[0], 16)
