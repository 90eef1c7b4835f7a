# How the built program reads its command line and its settings, and how it fails to start.

import os
import signal
import socket
from itertools import product
from pathlib import Path
from unittest import skipIf

from testbed.environment import BUILD, DAEMON, UPSTREAM_PORT, run
from testbed.system import replace_syslog
from testbed.processes import Process, text_of
from tests.daemon.daemon_test_case import DaemonTest, without_times

PORT_IN_USE = (
    "File src/VeyraServer Line 284: Cannot open Upstream UDP socket. "
    "Unable to bind socket   Error #0"
)
MQTT_DISABLED = "ERROR MQTT must be enabled.\n"


class CommandLine(DaemonTest):
    def test_reports_a_missing_configuration_file(self) -> None:
        self.assert_unusable("/nowhere", "ERROR Configuration file not found [/nowhere]\n")

    def test_reports_a_configuration_file_that_is_not_valid_json(self) -> None:
        nested = self.testbed.folder / "nested.conf"
        nested.write_text('{"a":' + "[" * 2000)
        for file in ("/", nested):
            with self.subTest(file):
                record = f"ERROR Failed to parse config file [{file}], invalid JSON\n"
                self.assert_unusable(file, record)

    def assert_unusable(self, file: object, record: str) -> None:
        """The daemon ends with status 1; the record goes to the log file only if -l names one."""
        self.assertEqual(self.testbed.start_daemon("-c", file).wait(), 1)
        self.assertEqual(without_times(self.testbed.log()), record)
        daemon = Process([DAEMON, "-c", file], self.testbed.folder, "without-log")
        self.assertEqual(daemon.wait(), 1)
        self.assertEqual(without_times(daemon.errors()), record)

    def test_logs_to_standard_error_when_the_log_file_cannot_be_opened(self) -> None:
        daemon = self.testbed.start_daemon("-c", "/nowhere", "-l", "/nowhere/log")
        self.assertEqual(daemon.wait(), 1)
        message, record = without_times(daemon.errors()).splitlines()
        self.assertRegex(message, r"^Cannot open log file \[/nowhere/log\]: No such file ")
        self.assertEqual(record, "ERROR Configuration file not found [/nowhere]")

    def test_aborts_when_an_option_has_no_value(self) -> None:
        self.assertEqual(self.testbed.start_daemon("-l").wait(), -signal.SIGABRT)

    def test_prints_version_and_help(self) -> None:
        version = r"^ZEP LoRa VEYRA Server - Version 2\.4\.22\r\n\Z"
        usage = r"^Tarnwick Lora VEYRA Server v2\.4\.22\n\nUsage: "
        for option, text in {"--version": version, "-help": usage, "--help": usage}.items():
            with self.subTest(option):
                # -c without a value is an error. The program must end before it reads -c.
                daemon = self.testbed.start_daemon(option, "-c")
                self.assertEqual(daemon.wait(), 0)
                self.assertRegex(daemon.output(), text)
                self.assertEqual(self.testbed.log(), "")

    def test_ignores_unknown_options(self) -> None:
        self.testbed.configuration["mqtt"]["enabled"] = None
        daemon = self.testbed.start_daemon("--c", "/nowhere", "-version", "help")
        self.assertEqual(daemon.wait(), 0)
        self.assertTrue(self.testbed.log().endswith(MQTT_DISABLED))

    def test_takes_an_option_as_such_where_a_value_is_expected(self) -> None:
        log_file = self.testbed.folder / "other.log"
        self.assertEqual(self.testbed.start_daemon("-c", "-l", log_file).wait(), 1)
        self.assertIn("Configuration file not found [-l]", log_file.read_text())

    def test_uses_default_paths(self) -> None:
        run("mount", "-t", "tmpfs", "log", "/var/log")
        os.chdir(self.testbed.folder)
        Path("lora-veyra-server.conf").write_text('{"network":{"gatewayKey":"1"}}')
        self.assertEqual(Process([DAEMON], self.testbed.folder, "defaults").wait(), 0)
        log = text_of(Path("/var/log/lora-veyra-server.log"))
        self.assertTrue(log.endswith(MQTT_DISABLED))


class Log(DaemonTest):
    def setUp(self) -> None:
        super().setUp()
        self.testbed.configuration["mqtt"]["enabled"] = False  # the daemon ends after startup

    def test_shows_the_configuration_with_its_defaults(self) -> None:
        del self.testbed.configuration["udp"], self.testbed.configuration["network"]
        self.testbed.configuration["log"] = None
        self.testbed.set_device('{"uuid":"00112233445566778899aabbccddeeff"}')
        self.assertEqual(self.testbed.start_daemon().wait(), 0)
        self.assertRegex(
            without_times(self.testbed.log()),
            r"(?s)\AINFO Lora VEYRA Server started, version 2\.4\.22\n"
            r"INFO VEYRA Server Config --------------------- \r\n\{\n"
            r'.*"console" : null,.*"syslog" : null.*"network" : null,.*"veyraPort" : 1790\n'
            r".*\nINFO -------------------------------------------\n" + MQTT_DISABLED,
        )

    def test_is_readable_by_owner_and_group_only(self) -> None:
        self.assertEqual(self.testbed.start_daemon().wait(), 0)
        self.assertEqual(self.testbed.log_file.stat().st_mode & 0o7777, 0o640)

    def test_goes_to_the_configured_destinations(self) -> None:
        syslog = self.enterContext(replace_syslog())
        for to_syslog, to_console in product((False, True), repeat=2):
            with self.subTest(syslog=to_syslog, console=to_console):
                settings = {"level": 10, "syslog": to_syslog, "console": to_console}
                self.testbed.configuration["log"] = settings
                daemon = self.testbed.start_daemon()
                self.assertEqual(daemon.wait(), 0)
                console, file = without_times(daemon.output()), without_times(self.testbed.log())
                self.assertEqual(console, MQTT_DISABLED if to_console else "")
                self.assertEqual(file, "" if to_syslog else MQTT_DISABLED)
                if to_syslog:
                    record = f"<27>lora-veyra-server[{daemon.proc.name}]: MQTT must be enabled."
                    self.assertEqual(syslog.recv(999).decode(), record)

    def test_reaches_syslog_with_the_severity_of_each_level(self) -> None:
        syslog = self.enterContext(replace_syslog())
        self.testbed.configuration["log"] = {"level": 50, "syslog": True}
        self.testbed.start_daemon()
        severities = [syslog.recv(9999).decode()[:4] for _ in range(6)]
        info, debug, error = "<30>", "<31>", "<27>"
        self.assertEqual(severities, [info, info, info, debug, debug, error])


class Port(DaemonTest):
    def test_is_not_shared_with_a_second_daemon(self) -> None:
        self.testbed.start_ready_daemon()
        second = Process([DAEMON, *self.testbed.usual_options()], self.testbed.folder, "second")
        self.assertEqual(second.wait(), 0)
        self.assertEqual(second.errors(), PORT_IN_USE)
        self.assert_logged(f"ERROR {PORT_IN_USE}\n")

    def test_is_bound_on_the_loopback_address_only(self) -> None:
        with udp_socket("127.0.0.2"):  # would prevent a bind on every address
            self.testbed.start_ready_daemon()
            self.relay()

    def test_is_bound_when_free_if_startup_skipped_its_check(self) -> None:
        self.testbed.configuration["udp"]["veyraPort"] = "text"  # takes effect as 1790
        service_manager = {"NOTIFY_SOCKET": self.testbed.service_manager.name}
        with udp_socket("127.0.0.1"):
            daemon = self.testbed.start_daemon(environment=service_manager)
            record = "ERROR Rx Msg exception :src/VeyraServer:381: Unable to bind socket 0\n"
            self.assert_logged(record, times=9)
            self.assertLess(daemon.count("fd"), 15, "failed attempts leak no descriptors")
            self.assertIsNone(daemon.end(seconds=0.5), "the stop flag is not checked meanwhile")
            self.assertFalse((daemon.proc / "fd/0").is_symlink(), "the worker closes descriptor 0")
        self.assertEqual(daemon.wait(), 0)
        self.assertEqual(self.testbed.service_manager.heard(), ["READY=1", "STOPPING=1"])


@skipIf("emulated" in DAEMON, "the fault would be loaded into the emulator")
class Faults(DaemonTest):
    def environment(self, fault: str) -> dict[str, str]:
        # A space ends a name in LD_PRELOAD, but not in LD_LIBRARY_PATH.
        return {"LD_PRELOAD": "libfaults.so", "LD_LIBRARY_PATH": str(BUILD / "tests"),
                "FAULT": fault, "ASAN_OPTIONS": "verify_asan_link_order=0"}

    def test_ends_without_a_licence(self) -> None:
        daemon = self.testbed.start_daemon(environment=self.environment("no licence"))
        self.assertEqual(daemon.wait(), 1)
        notice = "lora-veyra-server is not licensed for this hardware.\n"
        self.assertEqual(daemon.errors(), notice)

    def test_ends_without_a_worker_thread(self) -> None:
        daemon = self.testbed.start_daemon(environment=self.environment("no worker thread"))
        self.assertEqual(daemon.wait(), 0)
        error = "File src/VeyraServer Line 308: Unable to create mqtt thread   Error #11"
        self.assertEqual(daemon.errors(), error)

    def test_continues_without_a_network_thread_until_the_client_is_replaced(self) -> None:
        daemon = self.testbed.start_ready_daemon(self.environment("no first network thread"))
        self.relay(seconds=30)
        self.assertEqual(self.testbed.log().count("MQTT disconnected NET: 0 VEYRA: 1 Connec"), 1)
        self.assertEqual(daemon.end(), 0)


def udp_socket(address: str) -> socket.socket:
    """A socket that has the daemon's port on the address."""
    other = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    other.bind((address, UPSTREAM_PORT))
    return other
