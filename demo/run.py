"""The whole road of a datagram on one machine, every hop on the screen: `python3 -m demo.run`."""

# Run it with testbed/run.sh. Sends three datagrams through the daemon, with a real MQTT broker
# and a mock cloud. Exit status 0 means that everything went as it should.

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
BROKEN = f'{{"path":"{CHECK_IN}","request":{{"brantle_serial":'
# Not what the datagram, the cloud and the broker show anyway, nor the configuration's lines.
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
        """The daemon's records since the last call, or up to the one that holds `last`."""
        for line in self.testbed.log().splitlines()[self.shown:]:
            self.shown += 1
            if SHOWN.match(line):
                say(RED if " ERROR " in line else GREY, "daemon's log", line)
            if last and last in line:
                return

    def start_peers(self) -> None:
        # Its "uuid" gives way to the gateway key.
        self.testbed.set_device(json.dumps({"uuid": "f" * 36, "deviceId": DEVICE_ID}))
        stage(
            "1. The gateway and its cloud",
            "Three programs stand around the daemon: the gateway's MQTT broker, the Veyra cloud,",
            "and somebody who listens on the broker in place of the network server.",
        )
        self.testbed.start_broker_with_passwords()
        where = f"{BROKER_HOST}:{BROKER_PORT}"
        say(GREEN, "broker", f"mosquitto on {where}, with user name and password")
        say(GREEN, "cloud", f"HTTPS on https://localhost:{CLOUD_PORT}/api/, checks every signature")
        say(GREEN, "listener", "subscribed to lora/veyra")

    def start_daemon(self) -> None:
        stage(
            "2. The daemon",
            "It reads its configuration and the gateway's identity, connects to the broker and",
            "waits for datagrams. Its log is at the most talkative level here.",
        )
        self.testbed.start_ready_daemon()
        expect(self.testbed.logged("MQTT - subscribed"), "the daemon is not subscribed")
        self.show_log()

    def send(self, datagram: str) -> None:
        say(BOLD, "network server", f"sends to 127.0.0.1:{UPSTREAM_PORT}  {datagram}")
        self.testbed.send(datagram)

    def follow(self, count: int) -> None:
        """Shows a datagram's way through the daemon to the cloud and to the broker."""
        requests = self.testbed.cloud.requests
        expect(eventually(lambda: len(requests) >= count), f"request {count} is not at the cloud")
        self.show_log(" TRACE Server URL")
        request = requests[count - 1]
        say(BLUE, "cloud got", f"{request.method} {request.path}")
        for name in sorted(request.headers):
            say(BLUE, "", f"{name}: {request.headers[name]}")
        say(BLUE, "", request.body.strip())
        say(GREEN, "cloud says", f"{request.verdict}; answered {request.status}")
        expect(request.status == 200, f"the cloud did not take request {count}")
        expect(len(self.testbed.replies(count)) >= count, f"reply {count} is not on the broker")
        self.show_log()
        reply = self.testbed.listener.on("lora/veyra")[count - 1]
        say(GREEN, "broker carries", f"{reply.topic} {reply.payload.decode()}")

    def send_all(self) -> None:
        stage(
            "3. A check-in",
            "The network server sends one JSON object. The daemon sends it to the cloud as one",
            "HTTPS request and publishes the cloud's answer on the broker. X-API-HASH proves that",
            "it knows the gateway's secret: the SHA-256 of the secret, the time and the path.",
        )
        data = {"type": "check_in", "id": "first", "attributes": {"firmware": "1.0"}}
        request = {"brantle_serial": SERIAL, "data": data}
        self.send(compact({"method": "POST", "path": CHECK_IN, "request": request}))
        self.follow(1)
        stage(
            "4. A broken datagram",
            "It ends in the middle. The daemon says so in its log and drops it: no request, no",
            "reply.",
        )
        self.send(BROKEN)
        expect(self.testbed.logged(" ERROR "), "the broken datagram left no record")
        self.show_log()
        stage(
            "5. Gateway statistics",
            "The next one goes through as if nothing had happened, on the same TLS connection. It",
            "names no method: POST is meant.",
        )
        data = {"type": "gateway_statistics", "id": "second", "attributes": {"rx": 12, "tx": 3}}
        request = {"brantle_serial": SERIAL, "data": data}
        self.send(compact({"path": STATISTICS, "request": request}))
        self.follow(2)

    def stop(self) -> None:
        stage("6. The end", "SIGTERM asks the daemon to stop; the others follow.")
        self.status = self.testbed.daemon.end() if self.testbed.daemon else None
        self.show_log()

    def check(self) -> int:
        """How many of the checks did not hold."""
        what = "What the cloud, the listener and the daemon's log have seen:"
        stage("7. Did all of it hold?", what)
        requests, replies = self.testbed.cloud.requests, self.testbed.replies()
        log = self.testbed.log()
        first, second = requests[:2]
        complaints = re.findall(r"^\S+Z (?:ERROR|WARNING) .*", log, re.MULTILINE)
        config = f'"veyraPort" : {UPSTREAM_PORT}'
        checks = {
            "the check-in reached the cloud with a valid signature": is_valid(first, CHECK_IN),
            "so did the statistics": is_valid(second, STATISTICS),
            "nothing else did": len(requests) == 2,
            "both came on one TLS connection": len({r.connection for r in requests}) == 1,
            "the first reply was the check-in's": replies[0] == reply_to(first, "first"),
            "the second was the statistics'": replies[1] == reply_to(second, "second"),
            "there was no other": len(replies) == 2,
            "the broken datagram left one ERROR record, the only one": len(complaints) == 1
            and complaints[0].endswith(f" ERROR Failed to parse JSON {BROKEN}"),
            "the configuration is in the log": " INFO VEYRA Server Config" in log and config in log,
            "the daemon ended with exit status 0": self.status == 0,
        }
        for text, holds in checks.items():
            say(GREEN if holds else RED, "held" if holds else "NOT HELD", text)
        return list(checks.values()).count(False)


def is_valid(request: Request, path: str) -> bool:
    return request.path == f"/api/{path}" and request.verdict == "signature valid"


def reply_to(request: Request, data_id: str) -> dict[str, Any]:
    """The cloud's answer, with the time that was signed."""
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
    expect(not faults, f"{faults} of the checks above did not hold")
    held = "All of it held: 2 requests signed and answered, 2 replies published, 1 broken datagram"
    print("\n" + paint(GREEN, f"{held} refused, clean stop."))


if __name__ == "__main__":
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    try:
        main()
    except AssertionError as failure:
        sys.exit(f"\nThe demo failed: {failure}")
    except KeyboardInterrupt:
        sys.exit(130)
