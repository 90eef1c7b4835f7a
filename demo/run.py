"""Follows datagrams through the daemon on one machine: `python3 -m demo.run`.

testbed/run.sh must start this program. It sends three datagrams to the daemon, with a real MQTT
broker and a mock cloud, and prints each step. The exit status is 0 if all checks passed.
"""

import json
import os
import re
import signal
import sys
from typing import Any

from testbed.cloud import Request
from testbed.environment import BROKER_HOST, BROKER_PORT, CLOUD_PORT, DEVICE_ID, UPSTREAM_PORT
from testbed.environment import TestEnvironment
from testbed.processes import eventually, expect

IN_COLOUR = sys.stdout.isatty() and not os.environ.get("NO_COLOR")
BOLD, GREY, GREEN, RED, BLUE = ("1", "90", "32", "31", "36")
SERIAL = "DEMO000001"
CHECK_IN = f"m1/gateways/{SERIAL}/check_in"
STATISTICS = f"m1/gateways/{SERIAL}/gateway_statistics"
INVALID = f'{{"path":"{CHECK_IN}","request":{{"brantle_serial":'
# Records of one line, except those that repeat what the other programs show.
SHOWN = re.compile(r"20\d\d-\S+Z (?!TRACE (Parse upstream message \[|request body: |Curl Re))")


def compact(value: object) -> str:
    return json.dumps(value, separators=(",", ":"))


def paint(colour: str, text: str) -> str:
    return f"\033[{colour}m{text}\033[0m" if IN_COLOUR else text


def say(colour: str, label: str, text: str) -> None:
    print(paint(colour, f"{label:>16}"), "", text, flush=True)


def stage(title: str, *explanation: str) -> None:
    print("", paint(BOLD, title), *explanation, sep="\n", flush=True)


class Demo:
    def __init__(self, testbed: TestEnvironment) -> None:
        self.testbed = testbed
        self.shown = 0  # lines of the daemon's log
        self.status: int | None = None

    def show_log(self, last: str = "") -> None:
        """Shows the daemon's new records, up to the one that contains `last`."""
        for line in self.testbed.log().splitlines()[self.shown:]:
            self.shown += 1
            if SHOWN.match(line):
                say(RED if " ERROR " in line else GREY, "daemon's log", line)
            if last and last in line:
                return

    def start_peers(self) -> None:
        # The gateway key replaces the uuid.
        self.testbed.set_device(json.dumps({"uuid": "f" * 36, "deviceId": DEVICE_ID}))
        stage(
            "1. The gateway and its cloud",
            "The daemon needs the gateway's MQTT broker and the Veyra cloud, which is a mock here.",
            "A subscriber on the broker takes the place of the network server.",
        )
        self.testbed.start_broker_with_passwords()
        where = f"{BROKER_HOST}:{BROKER_PORT}"
        say(GREEN, "broker", f"mosquitto on {where}, requires a username and a password")
        say(GREEN, "cloud", f"https://localhost:{CLOUD_PORT}/api/, checks every signature")
        say(GREEN, "subscriber", "subscribed to lora/veyra")

    def start_daemon(self) -> None:
        stage(
            "2. The daemon",
            "It reads its configuration and the gateway's identity, connects to the broker and",
            "waits for datagrams. The log level is TRACE.",
        )
        self.testbed.start_ready_daemon()
        expect(self.testbed.logged("MQTT - subscribed"), "the daemon is not subscribed")
        self.show_log()

    def send(self, datagram: str) -> None:
        say(BOLD, "network server", f"sends to 127.0.0.1:{UPSTREAM_PORT}  {datagram}")
        self.testbed.send(datagram)

    def follow(self, count: int) -> None:
        """Shows the request of a datagram at the cloud and the reply on the broker."""
        requests = self.testbed.cloud.requests
        expect(eventually(lambda: len(requests) >= count), f"request {count} was not received")
        self.show_log(" TRACE Server URL")
        request = requests[count - 1]
        say(BLUE, "cloud received", f"{request.method} {request.path}")
        for name in sorted(request.headers):
            say(BLUE, "", f"{name}: {request.headers[name]}")
        say(BLUE, "", request.body.strip())
        say(GREEN, "cloud responds", f"{request.status}, {request.verdict}")
        expect(request.status == 200, f"the cloud rejected request {count}")
        expect(len(self.testbed.replies(count)) >= count, f"reply {count} was not published")
        self.show_log()
        reply = self.testbed.listener.on("lora/veyra")[count - 1]
        say(GREEN, "broker delivers", f"{reply.topic} {reply.payload.decode()}")

    def send_all(self) -> None:
        stage(
            "3. A check-in",
            "The network server sends one JSON object. The daemon sends it to the cloud in an",
            "HTTPS request and publishes the response on the broker. X-API-HASH is the",
            "SHA-256 of secret, timestamp and path. It proves that the daemon knows the secret.",
        )
        data = {"type": "check_in", "id": "first", "attributes": {"firmware": "1.0"}}
        request = {"brantle_serial": SERIAL, "data": data}
        self.send(compact({"method": "POST", "path": CHECK_IN, "request": request}))
        self.follow(1)
        stage(
            "4. An invalid datagram",
            "The JSON is incomplete. The daemon logs an error and drops the datagram: it sends no",
            "request and publishes no reply.",
        )
        self.send(INVALID)
        expect(self.testbed.logged(" ERROR "), "the invalid datagram was not logged")
        self.show_log()
        stage(
            "5. Gateway statistics",
            "The next datagram is relayed as usual, on the same TLS connection. It has no method,",
            "so the daemon uses POST.",
        )
        data = {"type": "gateway_statistics", "id": "second", "attributes": {"rx": 12, "tx": 3}}
        request = {"brantle_serial": SERIAL, "data": data}
        self.send(compact({"path": STATISTICS, "request": request}))
        self.follow(2)

    def stop(self) -> None:
        stage("6. Shutdown", "SIGTERM stops the daemon.")
        self.status = self.testbed.daemon.end() if self.testbed.daemon else None
        self.show_log()

    def check(self) -> int:
        """Returns the number of failed checks."""
        stage("7. Checks", "What the cloud, the subscriber and the daemon's log show:")
        requests, replies = self.testbed.cloud.requests, self.testbed.replies()
        log = self.testbed.log()
        first, second = requests[:2]
        errors = re.findall(r"^\S+Z (?:ERROR|WARNING) .*", log, re.MULTILINE)
        config = f'"veyraPort" : {UPSTREAM_PORT}'
        checks = {
            "the check-in reached the cloud with a valid signature": is_valid(first, CHECK_IN),
            "the statistics reached the cloud with a valid signature": is_valid(second, STATISTICS),
            "no other request reached the cloud": len(requests) == 2,
            "both requests used one TLS connection": len({r.connection for r in requests}) == 1,
            "the first reply answers the check-in": replies[0] == reply_to(first, "first"),
            "the second reply answers the statistics": replies[1] == reply_to(second, "second"),
            "no other reply was published": len(replies) == 2,
            "the only error in the log is about the invalid datagram": len(errors) == 1
            and errors[0].endswith(f" ERROR Failed to parse JSON {INVALID}"),
            "the log shows the configuration": " INFO VEYRA Server Config" in log and config in log,
            "the daemon ended with exit status 0": self.status == 0,
        }
        for text, holds in checks.items():
            say(GREEN if holds else RED, "passed" if holds else "FAILED", text)
        return list(checks.values()).count(False)


def is_valid(request: Request, path: str) -> bool:
    return request.path == f"/api/{path}" and request.verdict == "signature valid"


def reply_to(request: Request, data_id: str) -> dict[str, Any]:
    """The reply to a request: the response of the mock cloud and the signed timestamp."""
    return {
        "method": "POST",
        "path": request.path.removeprefix("/api/"),
        "result": {"accepted": True, "id": data_id, "number": request.number},
        "timestamp": request.headers["X-API-TIMESTAMP"],
    }


def main() -> None:
    with TestEnvironment() as testbed:
        demo = Demo(testbed)
        demo.start_peers()
        demo.start_daemon()
        demo.send_all()
        demo.stop()
        faults = demo.check()
    expect(not faults, f"{faults} of the checks above failed")
    print("\n" + paint(GREEN, "All checks passed."))


if __name__ == "__main__":
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    try:
        main()
    except AssertionError as failure:
        sys.exit(f"\nThe demo failed: {failure}")
    except KeyboardInterrupt:
        sys.exit(130)
