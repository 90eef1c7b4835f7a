# The doctor as a whole: a healthy gateway, its report, its options.

import itertools
import json
import os
import pty
import signal
import socket
import subprocess
import time
from functools import partial
from unittest import skipIf

from testbed.cloud import Answer
from testbed.environment import UPSTREAM_PORT, check_in
from tests.daemon.doctor_test_case import CONTROLS, DOCTOR, IS_EMULATED, RUN_LIMIT_S, DoctorTest


class Doctor(DoctorTest):
    def test_reports_a_healthy_gateway_and_disturbs_nothing(self) -> None:
        self.testbed.start_broker_with_passwords()
        self.testbed.configuration["log"]["level"] = 50
        self.testbed.start_ready_daemon()
        # Under an emulator, --pid names the process, and the doctor sends no signature for it.
        sign = [] if IS_EMULATED else ["--sign", "m1/gateways/SN1/check_in"]
        second = subprocess.Popen(self.command(), stdout=subprocess.PIPE, text=True)
        numbers = itertools.count()
        start = time.monotonic()
        report = self.examine("--publish", *sign, meanwhile=lambda: self.testbed.send(
            check_in(number=next(numbers))))
        self.assertLess(time.monotonic() - start, RUN_LIMIT_S if IS_EMULATED else 10)
        self.assertEqual(set(report.outcomes().values()), {"ok"})
        sent = next(numbers)
        facts = {name: value for check in report.data["checks"] for name, value in check.items()}
        status = 200 if sign else self.testbed.cloud.head.status
        self.assertEqual((facts["httpStatus"], facts["droppedDatagrams"]), (status, 0))
        self.assertGreater(facts["datagrams"], sent * 3 // 4)
        self.assertRegex(second.communicate()[0], r"\nok +errors.*\nNo problem found\.\n\Z")
        requests = [(r.method, r.verdict, r.headers["X-API-SERIAL"])
                    for r in self.testbed.cloud.requests]
        methods = ("GET", "POST") if sign else ("POST",)
        self.assertEqual(set(requests), {(m, "signature valid", "SN1") for m in methods})
        replies = [reply for reply in self.testbed.replies(sent + 1) if "path" in reply]
        self.assertEqual([reply["result"]["id"] for reply in replies], list(range(sent)))
        self.assertEqual(self.testbed.log().count("MQTT - connected"), 1)
        self.assertNotIn("disconnected", self.testbed.log())

    def test_signs_and_publishes_only_on_request(self) -> None:
        self.testbed.configuration["other"] = {}
        self.testbed.start_ready_daemon()
        report = self.examine()
        self.assertEqual(report.finding("settings.ok")["ignored"], ["other"])
        self.assertEqual((report.status, report.data["outcome"]), (0, "ok"))
        self.assertEqual((report.data["schema"], report.data["program"]), (1, "lora-veyra-doctor"))
        self.assertEqual(report.data["fingerprint"], "7dadfdf4")
        self.assertEqual(self.testbed.cloud.requests, [])
        self.assertEqual(self.testbed.replies(), [])

    def test_prints_short_lines_for_a_serial_console(self) -> None:
        self.testbed.cloud.close()
        self.testbed.start_ready_daemon()
        done = subprocess.run(self.command(), capture_output=True, text=True, timeout=RUN_LIMIT_S)
        lines = done.stdout.splitlines()
        self.assertEqual([line for line in lines if len(line) > 80], [])
        cloud = next(n for n, line in enumerate(lines) if line.startswith("bad     cloud"))
        self.assertRegex(lines[cloud + 1], "^        cause: .*")
        fix = next(line for line in lines[cloud:] if line.startswith("        fix:   "))
        self.assertIn("network.veyraServer", fix + lines[lines.index(fix) + 1])
        self.assertEqual(lines[-1], "1 problem found. Fix first: cloud (cloud.unreachable).")
        self.assertNotIn("\033", done.stdout)
        long = "/nowhere/" + 99 * "\u20ac"
        done = subprocess.run([DOCTOR, "-c", long], capture_output=True, encoding="utf-8")
        self.assertTrue(all(len(line) <= 80 for line in done.stdout.splitlines()))
        text = subprocess.run([*self.command(), "-l", f"/nowhere/{99 * 'x'}/x.log"],
                              capture_output=True, encoding="utf-8").stdout
        self.assertRegex(text, r" install -d -m 750 -o root /nowhere/x{99}\n")

    def test_uses_colours_only_on_a_terminal(self) -> None:
        for variable, colour in (("TERM=dumb", b"\033[31mbad\033[0m"), ("NO_COLOR=1", b"bad  ")):
            terminal, end = pty.openpty()
            subprocess.run(["env", variable, DOCTOR, "--alive"], stdout=end)
            os.close(end)
            self.assertTrue(os.read(terminal, 99).startswith(colour))

    def test_skips_checks_that_depend_on_a_failed_check(self) -> None:
        self.stop_daemon()
        self.testbed.kill_broker()
        report = self.examine("--publish")
        self.assertEqual(report.bad(), {"broker.refused", "alive.not-running"})
        self.assertIn("127.0.0.2: Connection refused", report.finding("broker.refused")["cause"])
        self.assertEqual((report.data["problems"], report.data["fixFirst"]), (2, "broker.refused"))
        skipped = {entry["check"]: entry["needs"] for entry in report.data["skipped"]}
        self.assertEqual(skipped, {"echo": "broker", "replies": "broker"})

    def test_examines_only_the_process_if_requested(self) -> None:
        self.testbed.start_ready_daemon()
        report = self.examine("--alive")
        self.assertEqual((report.status, report.outcomes()), (0, {"alive.ok": "ok"}))
        self.assertNotIn("fingerprint", report.data)
        text = subprocess.run(self.command("--alive"), capture_output=True, text=True).stdout
        self.assertRegex(text, r"\Aok +alive +process \d+\nNo problem found\.\n\Z")
        text = subprocess.run(self.command(), capture_output=True, text=True).stdout
        self.assertIn("No reply was seen during this run.", text)
        self.assertEqual(set(self.examine("--alive", "-c", "/nowhere").outcomes()), {"alive.ok"})
        self.testbed.kill_daemon()
        self.assertEqual(self.examine("--alive").bad(), {"alive.killed"})

    def test_reports_wrong_arguments_in_the_requested_format(self) -> None:
        for arguments in (["--nonsense"], ["-c"], ["--pid", "1x"], ["--pid", "0"],
                          ["--pid", "99999999999"], ["extra"]):
            with self.subTest(arguments=arguments):
                done = subprocess.run([DOCTOR, *arguments], capture_output=True, text=True)
                self.assertEqual((done.returncode, done.stdout), (2, ""))
                self.assertIn("Usage:", done.stderr)
                command = [DOCTOR, "--json", *arguments]
                done = subprocess.run(command, capture_output=True, text=True)
                failure = json.loads(done.stdout)
                self.assertEqual((done.returncode, failure["outcome"]), (2, "error"))
                self.assertIn(arguments[-1], failure["error"])

    def test_reports_that_the_named_process_does_not_exist(self) -> None:
        done = subprocess.run([DOCTOR, "--pid", "4000000", "--json"], capture_output=True)
        self.assertEqual((done.returncode, json.loads(done.stdout)["outcome"]), (2, "error"))

    def test_prints_its_help_and_version(self) -> None:
        for option, text in (("--help", "Usage: "), ("--version", "lora-veyra-doctor 2.")):
            done = subprocess.run([DOCTOR, option], capture_output=True, text=True)
            self.assertEqual((done.returncode, done.stderr), (0, ""))
            self.assertTrue(done.stdout.startswith(text))

    def test_prints_no_control_characters_from_outside(self) -> None:
        self.testbed.cloud.head = Answer(302, headers={"Location": "http://x/\x1b[2J\x9b\xff"})
        self.testbed.start_ready_daemon()
        self.testbed.send(b"\x1b]0;title\x07 \xff\xfe \xe2\x80\xae not JSON")
        self.assertTrue(self.testbed.logged("Failed to parse JSON"))
        done = subprocess.run(self.command(), capture_output=True, timeout=RUN_LIMIT_S)
        self.assertIn("not JSON", done.stdout.decode())
        self.assertIn("redirects to http://x/?[2J", done.stdout.decode())
        self.assertNotRegex(done.stdout.decode(), CONTROLS)
        self.examine("-l", "/nowhere/\x1b.log")

    def test_counts_datagrams_that_go_elsewhere(self) -> None:
        self.testbed.start_ready_daemon()
        listening = self.enterContext(socket.socket(socket.AF_INET6, socket.SOCK_DGRAM))
        listening.bind(("::", 1782))
        foreign = self.enterContext(socket.socket(socket.AF_INET, socket.SOCK_DGRAM))
        foreign.bind(("0.0.0.0", 1783))
        cases = [
            ("127.0.0.1", 1780, check_in(), {"traffic.other-port"}),
            ("::1", UPSTREAM_PORT, check_in(), {"traffic.ipv6"}),
            ("127.0.0.5", UPSTREAM_PORT, check_in(), {"traffic.other-address"}),
            ("127.0.0.1", 1781, '{"path":"of another program"}', set()),
            ("127.0.0.5", UPSTREAM_PORT, "of another program", set()),
            ("127.0.0.1", 1782, check_in(), set()),
            ("127.0.0.1", 1783, check_in(), set()),
        ]
        for host, port, datagram, findings in cases:
            with self.subTest(port=port):
                send = partial(self.testbed.send, datagram, host, port)
                self.assertEqual(self.examine(meanwhile=send).bad(), findings)

    @skipIf(IS_EMULATED, "the signal would reach the emulator")
    def test_ends_with_a_report_when_it_takes_too_long(self) -> None:
        self.testbed.start_ready_daemon()
        output = []
        for options in (("--json",), ()):
            doctor = subprocess.Popen(self.command(*options), stdout=subprocess.PIPE, text=True)
            time.sleep(1)
            doctor.send_signal(signal.SIGALRM)
            output.append(doctor.communicate()[0])
            self.assertEqual(doctor.returncode, 2)
        self.assertEqual(json.loads(output[0])["outcome"], "error")
        self.assertIn("25 s", output[0])
        self.assertTrue(output[1].startswith("ok      configuration"))
