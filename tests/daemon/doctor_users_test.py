# The doctor started by root, with a daemon of another user, and the doctor started by other users.

import os
import shutil
import socket
import subprocess
from pathlib import Path
from unittest import skipIf

from testbed import system
from testbed.environment import DAEMON, UPSTREAM_PORT, run
from testbed.processes import eventually, is_bound
from tests.daemon.doctor_test_case import DOCTOR, IS_EMULATED, DoctorTest

SERVICE = system.SERVICE_ID
NOBODY = 65534


@skipIf(IS_EMULATED, "the executable of an emulated daemon is the emulator")
@skipIf("TSAN_OPTIONS" in os.environ, "other users cannot read the file that TSAN_OPTIONS names")
@skipIf(not system.has_users(), "only root can start a testbed with several users")
class DoctorOnUsers(DoctorTest):
    def setUp(self) -> None:
        super().setUp()
        folder = self.testbed.folder
        system.add_users(folder)
        system.install([DAEMON, DOCTOR], folder / "installed")
        self.program = folder / "installed/lora-veyra-server"
        self.doctor = [str(folder / "installed/lora-veyra-doctor")]
        folder.chmod(0o755)
        os.chown(folder, SERVICE, SERVICE)
        self.conf, self.device = folder / "daemon.conf", folder / "run/config/device_info.json"

    def start(self, user: int = SERVICE) -> None:
        below = system.run_as(user)
        self.testbed.start_daemon(below=below, program=str(self.program))
        self.assert_logged("MQTT - subscribed")

    def run_as(self, user: int) -> None:
        self.doctor = [*system.run_as(user), self.doctor[-1]]

    def test_reads_each_file_as_the_service_user(self) -> None:
        self.start()
        report = self.examine()
        self.assertEqual((report.status, report.data["outcome"]), (0, "ok"), report.text)
        self.assertRegex(report.finding("service.ok")["subject"], "^running as lora-veyra since")
        system.install_unit("ExecStart=/etc/init.d/lora-veyra-server start")
        self.assertEqual(self.examine().bad(), set(), "the script chooses the user")
        certificate = Path("/etc/ssl/certs/DigiCert_Global_Root_CA.pem")
        cases = {
            self.conf: "configuration.unreadable",
            self.device: "identity.device-unreadable",
            self.testbed.log_file: "log.not-writable",
            certificate: "cloud.ca-file",
        }
        for file, finding in cases.items():
            with self.subTest(file=file):
                before = file.stat()
                os.chown(file, 0, 0)
                file.chmod(0o600)
                report = self.examine()
                self.assertIn("Permission denied", report.finding(finding)["cause"])
                self.assertEqual(report.bad(), {finding}, report.text)
                os.chown(file, before.st_uid, before.st_gid)
                file.chmod(before.st_mode)
        self.conf.chmod(0o600)
        fix = self.examine("-c", self.conf).finding("configuration.unreadable")["fix"]
        self.assertNotIn("chgrp", fix, "the service user can replace this path by a link")
        run("mount", "-t", "tmpfs", "-o", "mode=755", "own", "/opt")
        Path("/opt/closed").mkdir(0o700)
        shutil.copy(self.conf, "/opt/closed/own.conf")
        closed = self.examine("-c", "/opt/closed/own.conf").finding("configuration.unreadable")
        self.assertIn("no permission to enter a directory", closed["cause"])
        shutil.copy(self.conf, "/opt/own.conf")
        fix = self.examine("-c", "/opt/own.conf").finding("configuration.unreadable")["fix"]
        self.assertIn("chgrp lora-veyra /opt/own.conf\n", fix)
        os.chdir(self.testbed.folder)
        fix = self.examine("-c", "daemon.conf").finding("configuration.unreadable")["fix"]
        self.assertNotIn("chgrp", fix, "the service user owns the working directory")
        shutil.copy(self.conf, "/opt/own;x.conf")
        fix = self.examine("-c", "/opt/own;x.conf").finding("configuration.unreadable")["fix"]
        self.assertNotIn("chgrp", fix, "a shell would run a part of the path")
        os.link("/opt/own.conf", "/opt/linked.conf")
        fix = self.examine("-c", "/opt/linked.conf").finding("configuration.unreadable")["fix"]
        self.assertNotIn("chgrp", fix, "the file has a second hard link")
        Path("/opt/linked.conf").unlink()
        Path("/opt").chmod(0o775)
        fix = self.examine("-c", "/opt/own.conf").finding("configuration.unreadable")["fix"]
        self.assertNotIn("chgrp", fix, "a group can replace this file")
        for file in cases:
            os.chown(file, 0, system.GROUP_ID)
            file.chmod(0o660)
        self.assertEqual(self.examine().bad(), set(), "the second group gives access")

    def test_reports_what_an_ordinary_user_cannot_see(self) -> None:
        self.start()
        self.run_as(NOBODY)
        options = self.testbed.usual_options()
        hidden = {"log.hidden", "port.owner-hidden", "alive.hidden", "traffic.hidden",
                  "errors.no-log"}
        text = subprocess.run(self.command(*options), capture_output=True, text=True).stdout
        self.assertIn("not everything could be examined", text)
        report = self.examine(*options)
        self.assertEqual((report.status, report.bad()), (2, set()))
        self.assertEqual(report.unknown(), hidden)
        self.device.chmod(0o600)
        report = self.examine(*options)
        self.assertEqual((report.bad(), report.unknown()), (set(), {*hidden, "identity.hidden"}))
        self.conf.chmod(0o600)
        self.assertEqual(self.examine(*options).unknown(),
                         {"configuration.hidden", "alive.hidden", "clock.no-reference"})
        self.run_as(SERVICE)
        self.assertEqual(self.examine().unknown(), {"configuration.hidden", "clock.no-reference"})

    def test_trusts_only_the_user_of_the_service(self) -> None:
        self.start()
        other = self.start_second(below=system.run_as(NOBODY), program=self.program)
        self.assertIn("service.other-process", self.examine().bad())
        other.kill()
        self.testbed.kill_daemon()
        own = self.program.with_name("own-program")
        shutil.copy(self.program, own)
        os.chown(own, SERVICE, SERVICE)
        other = self.start_second(below=system.run_as(SERVICE), program=own)
        own.unlink()
        self.assertIn("alive.killed", self.examine(*self.testbed.usual_options()).bad())
        other.kill()
        os.chown(self.testbed.folder, NOBODY, NOBODY)
        self.start(NOBODY)
        os.chown(self.testbed.folder, SERVICE, SERVICE)
        options = [*self.testbed.usual_options(), "-l", self.testbed.folder / "new.log"]
        self.assertEqual(self.examine(*options).bad(), {"alive.other-user", "port.in-use"})
        for user in ("nobody", NOBODY):
            system.install_unit(f"User={user}")
            self.assertNotIn("alive.other-user", self.examine().bad())

    def test_examines_a_daemon_in_other_namespaces(self) -> None:
        own = self.testbed.folder / "own"
        own.mkdir()
        mount = ["unshare", "--mount", "sh", "-c", 'mount -t tmpfs own "$0" && exec "$@"', own]
        options = ["-l", own / "daemon.log"]
        self.testbed.start_daemon(*options, below=mount, program=str(self.program))
        self.assertTrue(eventually(lambda: is_bound("udp", UPSTREAM_PORT)))
        report = self.examine()
        self.assertEqual((report.bad(), report.unknown()), (set(), set()))
        daemon = self.testbed.start_daemon(below=["unshare", "--net"], program=str(self.program))
        self.assert_logged("Start VeyraReceiveFunction thread")
        self.assertEqual(self.examine("--alive").unknown(), {"alive.other-network"})
        named = self.examine("--alive", "--pid", daemon.proc.name)
        self.assertEqual(named.bad(), {"alive.not-linked"})
        named = self.examine("--sign", "m1/x", "--pid", daemon.proc.name)
        self.assertIn("signature.not-sent", named.unknown())
        self.assertEqual(self.testbed.cloud.requests, [])
        container = ["unshare", "--pid", "--fork", "--kill-child"]
        self.testbed.start_daemon(below=container, program=str(self.program))
        self.assertTrue(eventually(lambda: is_bound("udp", UPSTREAM_PORT)))
        self.assertEqual(self.examine("--alive").unknown(), {"alive.other-network"})

    def test_judges_the_port_with_the_rights_of_the_service_user(self) -> None:
        self.configure("udp", veyraPort=80)
        self.assertIn("port.privileged", self.examine().bad())
        Path("/proc/sys/net/ipv4/ip_unprivileged_port_start").write_text("80")
        self.assertIn("port.ok", self.examine().outcomes())
        self.run_as(NOBODY)
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as other:
            other.bind(("127.0.0.1", 80))
            self.assertIn("port.owner-hidden", self.examine().unknown())

    def test_names_what_keeps_the_service_from_starting(self) -> None:
        self.stop_daemon()
        run("mount", "-t", "tmpfs", "init", "/etc/init.d")
        Path("/etc/init.d/lora-veyra-server").write_text("RUN_AS=nobody\n")
        fix = self.examine().finding("alive.not-running")["fix"]
        self.assertIn("/etc/init.d/lora-veyra-server start", fix)
        self.program.chmod(0o750)
        cause = self.examine().finding("alive.not-executable")["cause"]
        self.assertIn("the user nobody", cause)
        run("umount", "/etc/init.d")
        self.program.chmod(0o755)
        self.program.write_bytes(b"")
        self.assertIn("alive.not-executable", self.examine().bad())
        system.install_unit("User=nonexistent")
        report = self.examine()
        self.assertEqual((report.bad(), report.unknown()),
                         ({"alive.no-user"}, {"configuration.no-user", "clock.no-reference"}))
        os.chown(self.conf, 0, SERVICE)
        self.conf.chmod(0o640)
        for setting in ("Group", "SupplementaryGroups"):
            system.install_unit(f"User=nobody\n{setting}={SERVICE}")
            self.assertIn("configuration.ok", self.examine().outcomes())
        start = "ExecStart=/x/lora-veyra-server -c /etc/own.conf -l /own.log"
        system.install_unit(f"User=nobody\n{start}")
        self.conf.chmod(0o600)
        self.assertIn("configuration.unreadable", self.examine().bad())
        text = subprocess.run(self.doctor, capture_output=True, text=True).stdout
        self.assertRegex(text, "^bad     configuration /etc/own.conf\n")
