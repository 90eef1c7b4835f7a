# The base of the doctor's tests.
import json
import os
import subprocess
import time
from collections.abc import Callable, Sequence
from dataclasses import dataclass
from datetime import datetime, timedelta, timezone
from typing import Any

from testbed.environment import BUILD, DAEMON
from testbed.processes import Process, eventually, is_bound
from tests.daemon.daemon_test_case import DaemonTest

DOCTOR = os.environ.get("VEYRA_DOCTOR_PROGRAM", str(BUILD / "lora-veyra-doctor"))
# Under an emulator, the executable of the daemon's process is the emulator.
IS_EMULATED = "VEYRA_DOCTOR_PROGRAM" in os.environ
RUN_LIMIT_S = 26
CHECKS = ["configuration", "settings", "identity", "log", "broker", "cloud", "clock", "signature",
          "port", "alive", "service", "echo", "replies", "traffic", "errors"]
NUMBERS = {"httpStatus", "aheadSeconds", "freeMiB", "droppedDatagrams", "waitingBytes", "listensOn",
           "datagrams", "faultsSinceStart"}
CONTROLS = "[\x00-\x09\x0b-\x1f\x7f-\x9f\u202e]"


def ago(**interval: float) -> str:
    """The time of a log record that was written `interval` ago."""
    time_of_record = datetime.now(timezone.utc) - timedelta(**interval)
    return time_of_record.strftime("%Y-%m-%dT%H:%M:%S.000Z ")


@dataclass
class Report:
    status: int
    data: dict[str, Any]
    text: str

    def outcomes(self) -> dict[str, str]:
        """The outcome of each finding, by its id."""
        return {check["id"]: check["outcome"] for check in self.data["checks"]}

    def bad(self) -> set[str]:
        return {id for id, outcome in self.outcomes().items() if outcome == "bad"}

    def unknown(self) -> set[str]:
        return {id for id, outcome in self.outcomes().items() if outcome == "unknown"}

    def finding(self, finding_id: str) -> dict[str, Any]:
        checks: list[dict[str, Any]] = self.data["checks"]
        found = [check for check in checks if check["id"] == finding_id]
        assert found, f"{finding_id} is not among {self.outcomes()}"
        return found[0]


class DoctorTest(DaemonTest):
    doctor = [DOCTOR]  # the start of the doctor's command

    def command(self, *options: object) -> list[str]:
        """Without a running daemon, adds the options that name the daemon's files."""
        daemon = self.testbed.daemon
        runs = daemon is not None and daemon.wait(0) is None
        files = [] if runs else self.testbed.usual_options()
        process = ["--pid", daemon.proc.name] if daemon and runs and IS_EMULATED else []
        return [str(part) for part in (*self.doctor, *files, *process, *options)]

    def examine(self, *options: object, environment: dict[str, str] | None = None,
                meanwhile: Callable[[], object] | None = None) -> Report:
        """Runs the doctor. Calls `meanwhile` ten times a second until the doctor ends.

        The doctor must ignore the caller's time zone and proxy. It uses the daemon's proxy.
        """
        own = {"TZ": "Asia/Tokyo", "https_proxy": "http://127.0.0.1:9", **(environment or {})}
        doctor = subprocess.Popen([*self.command(*options), "--json"], text=True,
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                  env={**os.environ, **own})
        start = time.monotonic()
        while meanwhile and doctor.poll() is None:
            meanwhile()
            time.sleep(0.1)
        output, errors = doctor.communicate(timeout=RUN_LIMIT_S)
        self.assertLess(time.monotonic() - start, RUN_LIMIT_S if IS_EMULATED else 15)
        self.assertEqual(errors, "")
        report = Report(doctor.returncode, json.loads(output), output)
        self.assert_form(report, options)
        return report

    def assert_form(self, report: Report, options: Sequence[object]) -> None:
        """Checks the properties that every report must have."""
        checks = report.data["checks"]
        outcomes = [check["outcome"] for check in checks]
        worst = next(outcome for outcome in ("bad", "unknown", "ok") if outcome in outcomes)
        self.assertEqual((report.data["outcome"], report.data["problems"]),
                         (worst, outcomes.count("bad")))
        self.assertIn(report.status, {"bad": [1], "unknown": [0, 2], "ok": [0]}[worst])
        moment = datetime.fromisoformat(report.data["time"])
        self.assertLess(datetime.now(timezone.utc) - moment, timedelta(seconds=RUN_LIMIT_S))
        optional = {"signature": "--sign", "replies": "--publish"}
        wanted = {name for name in CHECKS if optional.get(name, "--json") in (*options, "--json")}
        named = {entry["check"] for entry in (*checks, *report.data["skipped"])}
        self.assertEqual(named, {"alive"} if "--alive" in options else wanted)
        order = [CHECKS.index(check["check"]) for check in checks]
        self.assertEqual(order, sorted(order))
        for check in checks:
            self.assertNotRegex(check["subject"] + check["cause"] + check["fix"], CONTROLS)
            self.assertNotEqual(check["subject"], "")
            self.assertEqual(check["cause"].endswith("."), check["outcome"] != "ok", check)
            self.assertTrue(check["fix"] or check["outcome"] != "bad", check)
            self.assertTrue(all(type(check[name]) is int for name in NUMBERS & check.keys()))

    def expect_bad(
        self, finding_id: str, *options: object, says: str = ".", unknown: str = ""
    ) -> Report:
        """The doctor reports this problem, and no other; `says` is a pattern of its cause."""
        report = self.examine(*options)
        self.assertEqual(report.bad(), {finding_id}, report.text)
        self.assertEqual(report.unknown(), set(unknown.split()), report.text)
        self.assertRegex(report.finding(finding_id)["cause"], says)
        return report

    def stop_daemon(self) -> None:
        """Stops the daemon and writes the current configuration to the daemon's file."""
        self.testbed.kill_daemon()
        self.testbed.write_configuration()

    def configure(self, section: str, **values: object) -> None:
        """Stops the daemon and changes its configuration."""
        self.testbed.configuration[section].update(values)
        self.stop_daemon()

    def start_second(self, below: Sequence[object] = (), program: object = DAEMON) -> Process:
        """Starts another daemon, with another port."""
        configuration = json.loads(json.dumps(self.testbed.configuration))
        configuration["udp"]["veyraPort"] = 1791
        file = self.testbed.folder / "second.conf"
        file.write_text(json.dumps(configuration))
        options = [*self.testbed.usual_options(), "-c", file, "-l", file.with_suffix(".log")]
        second = Process([*below, program, *options], self.testbed.folder, "second")
        self.addCleanup(second.kill)
        self.assertTrue(eventually(lambda: is_bound("udp", 1791)), second.errors())
        return second
