# How the built program starts, fails to start, is supervised and ends.

import os
import random
import signal
import socket
from pathlib import Path
from unittest import TestCase, skipIf

from rig.cloud import Answer
from rig.company import (
    BUILD, DAEMON, SANITIZED, UPSTREAM_PORT, Company, Supervisor, check_in, replace_syslog, run
)
from rig.processes import Process, eventually, text_of

EMULATED = "emulated" in DAEMON
AT_ONCE_S = 3.0 if SANITIZED else 0.5  # sanitizers' own work at exit takes a second
NO_THREADS = {
    "LD_PRELOAD": str(BUILD / "tests/libno-threads.so"),
    "ASAN_OPTIONS": "verify_asan_link_order=0",
}
WEDGE = '{"path":"p","request":{"brantle_serial":{}}}'


class Start(TestCase):
    def test_ends_with_the_status_of_each_fault(self) -> None:
        with Company() as company:
            nested = company.folder / "nested.conf"
            nested.write_text('{"a":' + "[" * 2000)
            for file, record in (
                ("/nowhere", "ERROR Configuration file not found [/nowhere]\n"),
                ("/", "ERROR Failed to parse config file [/], invalid JSON\n"),
                (nested, f"ERROR Failed to parse config file [{nested}], invalid JSON\n"),
            ):
                self.assertEqual(company.start_daemon("-c", file).wait(), 1)
                self.assertEqual(company.log()[25:], record)
                without_log = Process([DAEMON, "-c", file], company.folder, "without-log")
                self.assertEqual((without_log.wait(), without_log.errors()[25:]), (1, record))
            self.assertEqual(company.start_daemon("-l").wait(), -signal.SIGABRT)
            for option, text in (
                ("--version", "ZEP LoRa VEYRA Server - Version 2.4.22\r\n\\Z"),
                ("-help", "Tarnwick Lora VEYRA Server v2.4.22\n\nUsage: "),
                ("--help", "Tarnwick Lora VEYRA Server v2.4.22\n\nUsage: "),
            ):
                banner = company.start_daemon(option, "-c")  # what follows is not looked at
                self.assertEqual((banner.wait(), company.log()), (0, ""))
                self.assertRegex(banner.output(), "^" + text)
            # Unknown options are ignored; a value is looked at as an option in turn.
            other = company.folder / "other.log"
            daemon = company.start_daemon("--c", "/x", "-version", "help", "-c", "-l", other)
            self.assertEqual(daemon.wait(), 1)
            self.assertIn("Configuration file not found [-l]", other.read_text())
            lost = company.start_daemon("-c", "/nowhere", "-l", "/nowhere/log")
            wanted = (r"^Cannot open log file \[/nowhere/log\]: No such file or directory\n"
                      r"\S+ ERROR Configuration file not found \[/nowhere\]\n\Z")
            self.assertEqual(lost.wait(), 1)
            self.assertRegex(lost.errors(), wanted)
            unlicensed = company.start_daemon(program=str(BUILD / "tests/unlicensed-server"))
            self.assertEqual((unlicensed.wait(), company.log()), (1, ""))
            self.assertEqual(unlicensed.errors().count("\n"), 1)

    def test_logs_where_it_is_told_to(self) -> None:
        with Company() as company, replace_syslog() as syslog:
            del company.configuration["udp"], company.configuration["network"]["gatewayKey"]
            company.set_device('{"uuid":"00112233445566778899aabbccddeeff"}')
            company.configuration["log"] = None
            for enabled in (None, False):
                company.configuration["mqtt"]["enabled"] = enabled
                self.assertEqual(company.start_daemon().wait(), 0)
                wanted = (
                    r"^\S+ INFO Lora VEYRA Server started, version 2.4.22\n"
                    r"\S+ INFO VEYRA Server Config --------------------- \r\n\{\n"
                    r'[^Z]*"console" : null[^Z]*"syslog" : null[^Z]*"veyraPort" : 1790[^Z]*'
                    r"Z INFO -------------------------------------------\n"
                    r"\S+ ERROR MQTT must be enabled.\n\Z")
                self.assertRegex(company.log(), wanted)
            run("mount", "-t", "tmpfs", "log", "/var/log")
            os.chdir(company.folder)
            Path("lora-veyra-server.conf").write_text('{"network":{"gatewayKey":"1"}}')
            self.assertEqual(Process([DAEMON], company.folder, "defaults").wait(), 0)
            self.assertRegex(text_of(Path("/var/log/lora-veyra-server.log")), wanted)
            company.configuration["log"] = {"level": 10}
            for to_syslog in (False, True):
                for to_console in (False, True):
                    company.configuration["log"].update(syslog=to_syslog, console=to_console)
                    daemon = company.start_daemon()
                    self.assertEqual(daemon.wait(), 0)
                    record = "Z ERROR MQTT must be enabled.\n"
                    self.assertEqual(daemon.output()[23:], record if to_console else "")
                    self.assertEqual(company.log()[23:], "" if to_syslog else record)
                    if to_syslog:
                        pid = daemon.proc.name
                        wanted = f"<27>lora-veyra-server[{pid}]: MQTT must be enabled."
                        self.assertEqual(syslog.recv(999).decode(), wanted)
            company.configuration["log"]["level"] = 50
            daemon = company.start_daemon()
            heard = [syslog.recv(9999).decode()[:4] for _ in range(6)]
            self.assertEqual(heard, ["<30>"] * 3 + ["<31>"] * 2 + ["<27>"])

    def test_says_that_the_port_is_taken_and_ends_or_waits_for_it(self) -> None:
        with Company() as company:
            with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as other:
                other.bind(("127.0.0.1", UPSTREAM_PORT))
                text = ("File src/VeyraServer Line 284: Cannot open Upstream UDP socket. "
                        "Unable to bind socket   Error #0")
                daemon = company.start_daemon()
                self.assertEqual((daemon.wait(), daemon.errors()), (0, text), "no line feed")
                self.assertIn(f"ERROR {text}\n", company.log())
                company.configuration["udp"]["veyraPort"] = "text"  # 1790, and not tested
                supervised = {"NOTIFY_SOCKET": company.supervisor.name}
                daemon = company.start_daemon(environment=supervised)
                record = "ERROR Rx Msg exception :src/VeyraServer:381: Unable to bind socket 0\n"
                self.assertTrue(company.logged(record, 9))
                self.assertIsNone(daemon.end(signal.SIGTERM, 0.3), "the flag is not looked at")
                self.assertLess(daemon.count("fd"), 15)
                self.assertEqual(company.supervisor.heard(), [])
            self.assertEqual(daemon.wait(), 0)
            self.assertEqual(company.supervisor.heard(), ["READY=1", "STOPPING=1"])

    @skipIf(EMULATED, "the emulator needs threads")
    def test_goes_on_without_threads_until_there_are_some(self) -> None:
        with Company() as company:
            daemon = company.start_daemon(environment={**NO_THREADS, "NO_THREADS": "w1"})
            text = "File src/VeyraServer Line 308: Unable to create mqtt thread   Error #11"
            self.assertEqual((daemon.wait(), daemon.errors()), (0, text))
            daemon = company.start_ready_daemon({**NO_THREADS, "NO_THREADS": "l1"})
            company.send(check_in())
            self.assertEqual(len(company.replies(1, 30)), 1, "the rebuilt client has a thread")
            self.assertEqual(company.log().count("MQTT disconnected NET: 0 VEYRA: 1 Connec"), 1)
            self.assertEqual(daemon.end(), 0)


class Stop(TestCase):
    def test_comes_at_any_moment_under_load_with_status_zero(self) -> None:
        with Company() as company:
            for number in range(20):
                daemon = company.start_daemon()
                self.assertTrue(company.logged("Lora VEYRA Server started"))
                eventually(lambda: company.send(check_in(padding=300)), random.random() / 8)
                self.assertEqual(daemon.end(), 0, f"round {number}")

    def test_comes_at_once_when_idle_and_when_peers_are_away(self) -> None:
        with Company() as company:
            for record in ("Curl Response", "Curl call failed"):
                daemon = company.start_ready_daemon()
                company.send(check_in())
                self.assertTrue(company.logged(record))
                self.assertEqual(daemon.end(signal.SIGINT, AT_ONCE_S), 0)
                self.assertIn("INFO Shutdown signal received 2\n", company.log())
                self.assertTrue(company.log().endswith("DEBUG Program closing\n"))
                self.assertEqual(company.supervisor.heard()[-1], "STOPPING=1")
                company.kill_broker()
                company.configuration["network"]["veyraServer"] = "https://localhost:1/api/"

    def test_waits_for_the_last_request_while_the_worker_closes_standard_input(self) -> None:
        with Company() as company:
            daemon = company.start_ready_daemon()
            company.send(check_in())
            self.assertEqual(len(company.replies(1)), 1)  # the worker works
            company.cloud.answer = Answer(stall_s=2)
            company.send(check_in())
            self.assertTrue(company.logged("request body: ", 2))
            self.assertIsNone(daemon.end(signal.SIGTERM, 1))
            self.assertFalse((daemon.proc / "fd/0").is_symlink())
            self.assertEqual(daemon.wait(), 0)
            self.assertTrue(company.logged("Curl Response {", 2))


class Supervision(TestCase):
    def test_hears_the_daemon_until_it_is_wedged(self) -> None:
        with Company() as company:
            company.supervisor.close()
            company.supervisor = Supervisor("@veyra-test")
            daemon = company.start_ready_daemon()
            for number in range(100):  # busy or idle, no more than once a second
                company.send(check_in(number=number, padding=200))
            self.assertEqual(len(company.replies(100)), 100)
            self.assertTrue(eventually(lambda: len(company.supervisor.heard()) >= 5))
            heard = company.supervisor.timed()
            self.assertEqual([text for text, _ in heard], ["READY=1"] + ["WATCHDOG=1"] * 4)
            for (_, before), (_, after) in zip(heard[2:], heard[3:]):
                self.assertTrue(0.9 < after - before < 1.5, heard)
            company.send(WEDGE)
            self.assertTrue(company.logged("ERROR Curl call failed p\n"))
            self.assertIn("ERROR Exception caught during CURL call to [https:", company.log())
            company.send(check_in("m1/second"))
            self.assertTrue(company.logged("Curl Request https:", 102))
            company.supervisor.clear()
            self.assertIsNone(daemon.end(signal.SIGTERM, 2.5))
            self.assertEqual(company.supervisor.heard(), [])
            self.assertEqual(len(company.cloud.requests), 100)
