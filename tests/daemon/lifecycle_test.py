# How the built program starts, fails to start, is supervised and ends.

import os
import random
import signal
import socket
from pathlib import Path
from unittest import skipIf

from testbed.environment import BUILD, DAEMON, SANITIZED, UPSTREAM_PORT, ServiceManager, check_in
from testbed.environment import replace_syslog, run
from testbed.processes import Process, eventually, text_of
from tests.daemon.daemon_test_case import DaemonTest

AT_ONCE_S = 3.0 if SANITIZED else 0.5  # sanitizers' own work at exit takes a second
# The loader takes a blank in LD_PRELOAD for the end of a name, but not in LD_LIBRARY_PATH.
FAULTS = {"LD_PRELOAD": "libfaults.so",
          "LD_LIBRARY_PATH": str(BUILD / "tests"),
          "ASAN_OPTIONS": "verify_asan_link_order=0"}


class Lifecycle(DaemonTest):
    def test_ends_with_the_status_of_each_fault(self) -> None:
        nested = self.testbed.folder / "nested.conf"
        nested.write_text('{"a":' + "[" * 2000)
        no_json = "ERROR Failed to parse config file [%s], invalid JSON\n"
        for file, record in (("/nowhere", "ERROR Configuration file not found [/nowhere]\n"),
                             ("/", no_json % "/"), (nested, no_json % nested)):
            self.assertEqual(self.testbed.start_daemon("-c", file).wait(), 1)
            self.assertEqual(self.testbed.log()[25:], record)
            without_log = Process([DAEMON, "-c", file], self.testbed.folder, "without-log")
            self.assertEqual((without_log.wait(), without_log.errors()[25:]), (1, record))
        self.assertEqual(self.testbed.start_daemon("-l").wait(), -signal.SIGABRT)
        usage = "Tarnwick Lora VEYRA Server v2.4.22\n\nUsage: "
        version = "ZEP LoRa VEYRA Server - Version 2.4.22\r\n\\Z"
        for option, text in (("--version", version), ("-help", usage), ("--help", usage)):
            banner = self.testbed.start_daemon(option, "-c")  # what follows is not looked at
            self.assertEqual((banner.wait(), self.testbed.log()), (0, ""))
            self.assertRegex(banner.output(), "^" + text)
        # Unknown options are ignored; a value is looked at as an option in turn.
        other = self.testbed.folder / "other.log"
        daemon = self.testbed.start_daemon("--c", "/x", "-version", "help", "-c", "-l", other)
        self.assertEqual(daemon.wait(), 1)
        self.assertIn("Configuration file not found [-l]", other.read_text())
        lost = self.testbed.start_daemon("-c", "/nowhere", "-l", "/nowhere/log")
        self.assertEqual(lost.wait(), 1)
        self.assertRegex(lost.errors(), r"^Cannot open log file \[/nowhere/log\]: No such file .*\n"
                                        r"\S+ ERROR Configuration file not found \[/nowhere\]\n")

    def test_logs_where_it_is_told_to(self) -> None:
        syslog = self.enterContext(replace_syslog())
        del self.testbed.configuration["udp"], self.testbed.configuration["network"]
        self.testbed.set_device('{"uuid":"00112233445566778899aabbccddeeff"}')
        self.testbed.configuration["log"] = None
        for enabled in (None, False):
            self.testbed.configuration["mqtt"]["enabled"] = enabled
            self.assertEqual(self.testbed.start_daemon().wait(), 0)
            wanted = (
                r"^\S+ INFO Lora VEYRA Server started, version 2.4.22\n"
                r"\S+ INFO VEYRA Server Config --------------------- \r\n\{\n"
                r'[^Z]*"console" : null[^Z]*"syslog" : null[^Z]*"network" : null,'
                r'[^Z]*"veyraPort" : 1790[^Z]*'
                r"Z INFO -------------------------------------------\n"
                r"\S+ ERROR MQTT must be enabled.\n\Z")
            self.assertRegex(self.testbed.log(), wanted)
        run("mount", "-t", "tmpfs", "log", "/var/log")
        os.chdir(self.testbed.folder)
        Path("lora-veyra-server.conf").write_text('{"network":{"gatewayKey":"1"}}')
        self.assertEqual(Process([DAEMON], self.testbed.folder, "defaults").wait(), 0)
        log = text_of(Path("/var/log/lora-veyra-server.log"))
        self.assertTrue(log.endswith(" ERROR MQTT must be enabled.\n"))
        self.testbed.configuration["log"] = {"level": 10}
        for to_syslog in (False, True):
            for to_console in (False, True):
                self.testbed.configuration["log"].update(syslog=to_syslog, console=to_console)
                daemon = self.testbed.start_daemon()
                self.assertEqual(daemon.wait(), 0)
                record = "Z ERROR MQTT must be enabled.\n"
                self.assertEqual(daemon.output()[23:], record if to_console else "")
                self.assertEqual(self.testbed.log()[23:], "" if to_syslog else record)
                if to_syslog:
                    pid = daemon.proc.name
                    wanted = f"<27>lora-veyra-server[{pid}]: MQTT must be enabled."
                    self.assertEqual(syslog.recv(999).decode(), wanted)
        self.testbed.configuration["log"]["level"] = 50
        daemon = self.testbed.start_daemon()
        heard = [syslog.recv(9999).decode()[:4] for _ in range(6)]
        self.assertEqual(heard, ["<30>"] * 3 + ["<31>"] * 2 + ["<27>"])

    def test_says_that_the_port_is_taken_and_ends_or_waits_for_it(self) -> None:
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as other:
            other.bind(("127.0.0.1", UPSTREAM_PORT))
            text = ("File src/VeyraServer Line 284: Cannot open Upstream UDP socket. "
                    "Unable to bind socket   Error #0")
            daemon = self.testbed.start_daemon()
            self.assertEqual((daemon.wait(), daemon.errors()), (0, text), "no line feed")
            self.assertIn(f"ERROR {text}\n", self.testbed.log())
            self.testbed.configuration["udp"]["veyraPort"] = "text"  # 1790, and not tested
            supervised = {"NOTIFY_SOCKET": self.testbed.service_manager.name}
            daemon = self.testbed.start_daemon(environment=supervised)
            record = "ERROR Rx Msg exception :src/VeyraServer:381: Unable to bind socket 0\n"
            self.assertTrue(self.testbed.logged(record, 9))
            self.assertIsNone(daemon.end(signal.SIGTERM, 0.5), "the flag is not looked at")
            self.assertFalse((daemon.proc / "fd/0").is_symlink(), "the worker closes it")
            self.assertLess(daemon.count("fd"), 15)
        self.assertEqual(daemon.wait(), 0)
        self.assertEqual(self.testbed.service_manager.heard(), ["READY=1", "STOPPING=1"])

    @skipIf("emulated" in DAEMON, "the emulator would be preloaded")
    def test_needs_a_licence_and_goes_on_without_threads_until_there_are_some(self) -> None:
        for fault, status, text in (
            ("licence", 1, "lora-veyra-server is not licensed for this hardware.\n"),
            ("w1", 0, "File src/VeyraServer Line 308: Unable to create mqtt thread   Error #11"),
        ):
            daemon = self.testbed.start_daemon(environment={**FAULTS, "FAULT": fault})
            self.assertEqual((daemon.wait(), daemon.errors()), (status, text))
        daemon = self.testbed.start_ready_daemon({**FAULTS, "FAULT": "l1"})
        self.testbed.send(check_in())
        self.assertEqual(len(self.testbed.replies(1, 30)), 1, "the rebuilt client has a thread")
        self.assertEqual(self.testbed.log().count("MQTT disconnected NET: 0 VEYRA: 1 Connec"), 1)
        self.assertEqual(daemon.end(), 0)

    def test_stops_at_any_moment_under_load_with_status_zero(self) -> None:
        unusable = {"NOTIFY_SOCKET": "/" * 200}  # as if there were none
        for number in range(20):
            daemon = self.testbed.start_daemon(environment=unusable)
            self.assertTrue(self.testbed.logged("Lora VEYRA Server started"))
            eventually(lambda: self.testbed.send(check_in(padding=300)), random.random() / 8)
            self.assertEqual(daemon.end(), 0, f"round {number}")

    def test_stops_at_once_when_idle_and_when_peers_are_away(self) -> None:
        for record in ("Curl Response", "Curl call failed"):
            daemon = self.testbed.start_ready_daemon()
            self.testbed.send(check_in())
            self.assertTrue(self.testbed.logged(record))
            threads = [text_of(task / "status") for task in (daemon.proc / "task").iterdir()]
            self.assertIn("SigBlk:\t0000000000004002", "".join(threads), "the small stack's")
            self.assertEqual(daemon.end(signal.SIGINT, AT_ONCE_S), 0)
            self.assertIn("INFO Shutdown signal received 2\n", self.testbed.log())
            self.assertTrue(self.testbed.log().endswith("DEBUG Program closing\n"))
            self.assertEqual(self.testbed.service_manager.heard()[-1], "STOPPING=1")
            self.testbed.kill_broker()
            self.testbed.configuration["network"]["veyraServer"] = "https://localhost:1/api/"

    def test_is_heard_by_its_supervisor_until_it_is_wedged(self) -> None:
        self.testbed.service_manager.close()
        self.testbed.service_manager = ServiceManager("@veyra-test")
        daemon = self.testbed.start_ready_daemon()
        for number in range(100):  # busy or idle, no more than once a second
            self.testbed.send(check_in(number=number, padding=200))
        self.assertTrue(eventually(lambda: len(self.testbed.service_manager.heard()) >= 5))
        heard = self.testbed.service_manager.timed()[:5]
        self.assertEqual([text for text, _ in heard], ["READY=1"] + ["WATCHDOG=1"] * 4)
        self.assertGreater(heard[4][1] - heard[1][1], 2.5, heard)
        self.assertIn(": 0100007F:06FE ", text_of(Path("/proc/net/udp")), "for this machine only")
        self.assertEqual(len(self.testbed.replies(100)), 100)
        self.testbed.send('{"path":"p","request":{"brantle_serial":{}}}')
        self.assertTrue(self.testbed.logged("ERROR Curl call failed p\n"))
        self.assertIn("ERROR Exception caught during CURL call to [https:", self.testbed.log())
        self.testbed.send(check_in("m1/second"))
        self.assertTrue(self.testbed.logged("Curl Request https:", 102))
        self.testbed.service_manager.clear()
        self.assertIsNone(daemon.end(signal.SIGTERM, 2.5))
        self.assertEqual(self.testbed.service_manager.heard(), [])
        self.assertEqual(len(self.testbed.cloud.requests), 100)
