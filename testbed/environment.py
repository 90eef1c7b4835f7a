"""The test environment: the daemon, a real broker, a subscriber to the replies, a mock cloud.

run.sh must start it, because the ports are fixed and the daemon's CA certificate is mounted.
"""

import atexit
import json
import os
import shutil
import socket
import subprocess
import tempfile
import time
from collections.abc import Sequence
from pathlib import Path
from types import TracebackType
from typing import Any

from paho.mqtt.client import Client, MQTTMessage

from testbed.cloud import Cloud
from testbed.processes import Process, eventually, expect, is_bound, text_of

TESTBED = Path(__file__).parent
BUILD = Path(os.environ.get("VEYRA_BUILD", TESTBED.parent / "build"))
# An environment variable may name another program, such as an emulated one.
DAEMON = os.environ.get("VEYRA_DAEMON_PROGRAM", str(BUILD / "lora-veyra-server"))
SANITIZED = bool(os.environ.get("VEYRA_SANITIZE"))  # needs more time and memory
CA_DIRECTORY = Path("/etc/ssl/certs")

UPSTREAM_PORT = 1790
CLOUD_PORT = 8443
# Different from the defaults, so that an ignored setting is noticed.
BROKER_HOST = "127.0.0.2"
BROKER_PORT = 1884
DEVICE_ID = "DEVICE"
GATEWAY_KEY = "00-11-22-33-44-55-66-77-88-99-AA-BB-CC-DD-EE-FF"
GATEWAY_SECRET = "00112233-4455-6677-8899-aabbccddeeff" + DEVICE_ID


def find_program(name: str) -> str:
    path = shutil.which(name, path=os.environ["PATH"] + ":/usr/sbin")
    expect(path, f"{name} is not installed")
    return str(path)


def run(*command: object) -> None:
    done = subprocess.run([str(part) for part in command], capture_output=True, text=True)
    expect(done.returncode == 0, f"{command}: {done.stderr}")


def trust(certificates: Path) -> None:
    """Installs the CA certificate of the mock cloud as the certificate that the daemon trusts.

    The directory also has the CA certificate of a stranger, which the daemon must not trust.
    """
    view = certificates / "view"
    shutil.copytree(CA_DIRECTORY, view, symlinks=True)
    for file, name in (("ca", "DigiCert_Global_Root_CA"), ("strangers-ca", "Stranger")):
        (view / f"{name}.pem").unlink(missing_ok=True)
        shutil.copy(certificates / f"{file}.pem", view / f"{name}.pem")
        (view / f"{name}.pem").chmod(0o644)  # like the others: every user can read it
    run("openssl", "rehash", view)
    run("mount", "--no-mtab", "--bind", view, CA_DIRECTORY)


def check_in(path: str = "m1/x", number: int = 1, padding: int = 0) -> str:
    data = {"type": "check_in", "id": number, "attributes": "p" * padding}
    request = {"brantle_serial": "SN1", "data": data}
    return json.dumps({"method": "POST", "path": path, "request": request})


class Listener:
    """Receives what is published on the broker, in a thread of its own."""

    def __init__(
        self,
        topic: str,
        user: str = "",
        password: str = "",
        client_id: str = "listener",
        reconnect_s: float = 0.05,
    ) -> None:
        self.messages: list[MQTTMessage] = []
        self._subscribed = False
        self._client = Client(client_id=client_id)
        if user:
            self._client.username_pw_set(user, password)
        self._client.on_connect = lambda client, *_: client.subscribe(topic, 2)
        self._client.on_subscribe = lambda *_: setattr(self, "_subscribed", True)
        self._client.on_message = lambda _client, _data, message: self.messages.append(message)
        self._client.reconnect_delay_set(reconnect_s, reconnect_s)
        self._client.connect(BROKER_HOST, BROKER_PORT)
        self._client.loop_start()
        expect(eventually(lambda: self._subscribed), "the listener is not subscribed")

    def on(self, topic: str) -> list[MQTTMessage]:
        return [message for message in self.messages if message.topic == topic]

    def close(self) -> None:
        self._client.disconnect()
        self._client.loop_stop()


class ServiceManager:
    """Receives the daemon's notifications, with their times."""

    def __init__(self, name: str) -> None:
        self.name = name  # an abstract address starts with "@"
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM | socket.SOCK_NONBLOCK)
        self._socket.bind(name.replace("@", "\0"))
        self._heard: list[tuple[str, float]] = []
        self.close = self._socket.close

    def heard(self) -> list[str]:
        return [text for text, _ in self.timed()]

    def timed(self) -> list[tuple[str, float]]:
        try:
            while True:
                self._heard.append((self._socket.recv(99).decode(), time.monotonic()))
        except BlockingIOError:
            return self._heard

    def clear(self) -> None:
        self.timed().clear()


class TestEnvironment:
    """A context manager: everything is stopped at the end of the with statement."""

    def __init__(self) -> None:
        self.folder = Path(tempfile.mkdtemp(prefix="veyra-testbed-"))
        # Also removes the directory if a signal ends the process.
        atexit.register(shutil.rmtree, self.folder, ignore_errors=True)
        certificates = self.folder / "certificates"
        run(TESTBED / "make-certificates.sh", certificates)
        trust(certificates)
        self.cloud = self.make_cloud("cloud")
        self.broker: Process | None = None
        self.daemon: Process | None = None
        self.service_manager = ServiceManager(str(self.folder / "notify"))
        self.start_broker()
        self.listener = Listener("lora/#")
        self.set_device(json.dumps({"deviceId": DEVICE_ID}))
        self.configuration: dict[str, Any] = {
            "log": {"level": 50},
            "udp": {"veyraPort": UPSTREAM_PORT},
            "network": {
                "gatewayKey": GATEWAY_KEY,
                "veyraServer": f"https://localhost:{CLOUD_PORT}/api/",
            },
            "mqtt": {"enabled": True, "host": BROKER_HOST, "port": BROKER_PORT},
        }

    def __enter__(self) -> "TestEnvironment":
        return self

    def __exit__(
        self, _: type | None, error: BaseException | None, _trace: TracebackType | None
    ) -> None:
        self.kill_daemon()
        if isinstance(error, Exception):  # not on a signal
            print("--- end of the daemon's log\n" + "\n".join(self.log().splitlines()[-20:]))
        self.listener.close()
        self.kill_broker()
        self.cloud.close()
        self.service_manager.close()
        run("umount", "--no-mtab", CA_DIRECTORY)
        shutil.rmtree(self.folder)

    def make_cloud(self, certificate: str) -> Cloud:
        """Starts a cloud with one of the certificates of make-certificates.sh."""
        key = self.folder / "certificates" / f"{certificate}.key"
        return Cloud(key.with_suffix(".pem"), key, GATEWAY_SECRET, CLOUD_PORT)

    def start_broker(self, settings: str = "allow_anonymous true") -> None:
        self.kill_broker()
        file = self.folder / "broker.conf"
        # If root starts mosquitto, it switches to a user that cannot read these files.
        file.write_text(
            f"listener {BROKER_PORT} {BROKER_HOST}\nuser root\nmax_queued_messages 0\n"
            f"log_type all\n{settings}\n"
        )
        self.broker = Process([find_program("mosquitto"), "-c", file], self.folder, "broker")
        expect(eventually(lambda: is_bound("tcp", BROKER_PORT)), "the broker does not listen")

    def start_broker_with_passwords(self, rights: str = "topic readwrite lora/#") -> None:
        """The broker requires a password from now on. `rights` is the ACL of the daemon."""
        passwords = self.folder / "passwords"
        passwords.touch(0o600)
        for user in ("lora", "listener"):
            run(find_program("mosquitto_passwd"), "-b", passwords, user, "secret")
        acl = self.folder / "rights"
        acl.write_text(f"user lora\n{rights}\nuser listener\ntopic readwrite lora/#\n")
        self.start_broker(f"allow_anonymous false\npassword_file {passwords}\nacl_file {acl}")
        self.listen("listener", "secret")
        self.configuration["mqtt"].update(username="lora", password="secret")

    def kill_broker(self) -> None:
        if self.broker:
            self.broker.kill()
        self.broker = None

    def listen(self, user: str = "", password: str = "") -> Listener:
        self.listener.close()
        self.listener = Listener("lora/#", user, password)
        return self.listener

    def set_device(self, text: str) -> None:
        file = self.folder / "run/config/device_info.json"
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_text(text)

    def start_daemon(
        self,
        *options: object,
        program: str = DAEMON,
        environment: dict[str, str] | None = None,
        below: Sequence[object] = (),
    ) -> Process:
        """Starts the daemon with the current configuration and returns at once.

        `below` is a command that runs the daemon, such as a profiler.
        """
        self.kill_daemon()
        self.log_file.unlink(missing_ok=True)
        self.write_configuration()
        command = [*below, program, *self.usual_options(), *options]
        self.daemon = Process(command, self.folder, "daemon", environment)
        return self.daemon

    def write_configuration(self) -> None:
        text = "// comments are allowed\n" + json.dumps(self.configuration)
        (self.folder / "daemon.conf").write_text(text)

    def usual_options(self) -> list[object]:
        """The options of the daemon, and of the doctor when no daemon runs."""
        file = self.folder / "daemon.conf"
        return ["-c", file, "-l", self.log_file, "--var-run", self.folder / "run"]

    def start_ready_daemon(
        self, environment: dict[str, str] | None = None, program: str = DAEMON
    ) -> Process:
        """Starts the daemon as a service manager does, and waits until the daemon is ready."""
        self.service_manager.clear()
        notify = {"NOTIFY_SOCKET": self.service_manager.name}
        environment = {**notify, **(environment or {})}
        daemon = self.start_daemon(program=program, environment=environment)
        ready = eventually(lambda: "READY=1" in self.service_manager.heard())
        expect(ready, "the daemon is not ready")
        return daemon

    def kill_daemon(self) -> None:
        if self.daemon:
            self.daemon.kill()
            expect("Sanitizer" not in self.daemon.errors(), self.daemon.errors())

    @property
    def log_file(self) -> Path:
        return self.folder / "daemon.log"

    def log(self) -> str:
        return text_of(self.log_file)

    def logged(self, text: str, times: int = 1, seconds: float = 10) -> bool:
        return eventually(lambda: self.log().count(text) >= times, seconds)

    def send(
        self, datagram: str | bytes, host: str = "127.0.0.1", port: int = UPSTREAM_PORT
    ) -> None:
        data = datagram.encode() if isinstance(datagram, str) else datagram
        family = socket.AF_INET6 if ":" in host else socket.AF_INET
        with socket.socket(family, socket.SOCK_DGRAM) as sender:
            sender.sendto(data, (host, port))

    def replies(self, count: int = 0, seconds: float = 10) -> list[dict[str, Any]]:
        """Waits for `count` messages on lora/veyra. Returns all messages so far."""
        eventually(lambda: len(self.listener.on("lora/veyra")) >= count, seconds)
        return [json.loads(message.payload) for message in self.listener.on("lora/veyra")]
