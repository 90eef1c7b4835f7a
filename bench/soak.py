"""Runs the daemon under steady load while its peers fail.

testbed/run.sh must start `python3 -m bench.soak MINUTES SEED PLOT`. It prints tables and draws the
resident memory over time into PLOT. The exit status is 0 if all checks passed.
"""

import math
import random
import re
import signal
import sys
import threading
import time
from collections import Counter
from dataclasses import dataclass
from datetime import datetime
from statistics import median

from matplotlib import pyplot

from bench.faults import NO_ECHO, Fault, FaultKind, schedule
from testbed.cloud import Request, data_id
from testbed.environment import BROKER_PORT, UPSTREAM_PORT, TestEnvironment, check_in
from testbed.processes import eventually, expect, is_bound, text_of, udp_queue


# Warnings and errors in the daemon's log. The last alternative, which is empty, matches every other
# record.
REJECTED, REFUSED, FAILED = "Failed to parse JSON", "Circuit is broken", "Curl call failed"
FAILURE_DETAILS = "CURL call to Server failed - |POST failed CODE:"
OTHER = ""
RECORDS = re.compile(f"Z (?:ERROR|WARNING) ({REJECTED}|{REFUSED}|{FAILED}|{FAILURE_DETAILS}|)")
DISCONNECTED = re.compile("(.*Z) DEBUG MQTT disconnected ")
# A record in the broker's log. The group is the flag DUP, which is 1 if a message is repeated.
PUBLISHED = re.compile(r"Received PUBLISH from VEYRA_SERVER \(d(\d).*'lora/veyra',")
# In /proc/PID/smaps: a mapping of 32 KiB after a guard page of 4 KiB is the worker's stack. The
# group is its resident part.
WORKER_STACK = re.compile(
    r"---p 00000000 00:00 0 *\nSize: +4 kB\n(?:[A-Z].*\n)+"
    r"\S+ rw-p 00000000 00:00 0 *\nSize: +32 kB\n.*\n.*\nRss: +(\d+) kB"
)

MOST_STACK_KIB = 24  # the deepest known path, in the resolver, uses 20
# One long backlog may enlarge the heap. A leak of 100 bytes for each datagram exceeds this limit in
# ten minutes.
MOST_GROWTH_KIB = 512
RESTARTS = 180


@dataclass
class Check:
    holds: bool
    text: str


class Soak:
    def __init__(self, testbed: TestEnvironment, seed: int) -> None:
        self.testbed, self.chance = testbed, random.Random(seed)
        self.sent = self.sent_broken = 0
        self.published: Counter[str] = Counter()  # by the flag DUP
        self.resident_kib: list[int] = []  # one sample a second
        self.loading = True
        testbed.configuration["mqtt"]["host"] = "localhost"  # makes the worker use the resolver
        testbed.configuration["log"]["level"] = 40
        self.acl = testbed.folder / "acl"
        self.block_echo(False)
        self.start_broker()
        testbed.listen()
        self.daemon = testbed.start_daemon()

    def start_broker(self) -> None:
        listener = f"listener {BROKER_PORT} 127.0.0.1\nallow_anonymous true"
        self.testbed.start_broker(f"{listener}\nacl_file {self.acl}")

    def count_published(self) -> None:
        log = text_of(self.testbed.folder / "broker.err")
        self.published.update(PUBLISHED.findall(log))

    def block_echo(self, blocked: bool) -> None:
        """While the echo is blocked, the broker accepts keepalives, but does not deliver them."""
        only = "topic readwrite lora/veyra\ntopic write lora/veyra_keepalive\n"
        self.acl.write_text(only if blocked else "topic readwrite lora/#\n")
        if self.testbed.broker:
            self.testbed.broker.end(signal.SIGHUP, 0)  # makes the broker read the file again

    def begin(self, kind: FaultKind) -> None:
        if kind.answer:
            self.testbed.cloud.answers.extend([kind.answer] * 10000)
        elif kind.name == NO_ECHO:
            self.block_echo(True)
        else:
            self.testbed.kill_broker()
            self.count_published()

    def end(self, kind: FaultKind) -> None:
        if kind.answer:
            self.testbed.cloud.answers.clear()
        elif kind.name == NO_ECHO:
            self.block_echo(False)
        else:
            self.start_broker()

    def send(self, padding: int) -> None:
        self.sent += 1
        datagram = check_in(number=self.sent, padding=padding)
        if padding and self.chance.random() < 0.05:
            self.sent_broken += 1
            datagram = datagram[: len(datagram) // 2]
        self.testbed.send(datagram)

    def load(self) -> None:
        while self.loading:
            self.send(int(math.exp(self.chance.uniform(0, math.log(16200)))))
            time.sleep(self.chance.uniform(0, 0.1))

    def received(self) -> list[int]:
        return [reply["result"]["id"] for reply in self.testbed.replies()]

    def wait_until_idle(self) -> None:
        """Waits for the reply to a new datagram. Replies to earlier datagrams arrive before it."""
        for _ in range(180):
            self.send(0)
            if eventually(lambda: self.received()[-1:] == [self.sent], 1):
                return
        raise AssertionError("the daemon no longer replies")

    def run_faults(self, faults: list[Fault], seconds: float) -> None:
        """Begins and ends the faults at their times, under load, and samples the memory."""
        steps = [(fault.start_s, "begin", self.begin, fault.kind) for fault in faults]
        steps += [(fault.end_s, "end", self.end, fault.kind) for fault in faults]
        steps.sort(key=lambda step: step[0])
        load = threading.Thread(target=self.load, daemon=True)
        load.start()
        start = time.monotonic()
        while (now_s := time.monotonic() - start) < seconds:
            if steps and now_s >= steps[0][0]:
                _, label, action, kind = steps.pop(0)
                print(f"{now_s:7.1f} s  {label:5} {kind.name}", flush=True)
                action(kind)
            if now_s >= len(self.resident_kib):
                self.resident_kib.append(self.daemon.resident_kib())
            time.sleep(0.02)
        self.loading = False
        load.join()

    def run(self, seconds: float, faults: list[Fault]) -> list[Check]:
        expect(eventually(lambda: is_bound("udp", UPSTREAM_PORT)), "the daemon does not start")
        time.sleep(1)  # startup binds the port twice
        self.wait_until_idle()
        before = self.daemon.count("fd"), self.daemon.count("task")
        self.run_faults(faults, seconds)
        self.wait_until_idle()
        eventually(lambda: self.daemon.count("fd") == before[0])
        after = self.daemon.count("fd"), self.daemon.count("task")
        stacks = WORKER_STACK.findall(text_of(self.daemon.proc / "smaps"))
        dropped = udp_queue(UPSTREAM_PORT)[1]
        self.count_published()
        status = self.daemon.end()
        small_stack = len(stacks) == 1 and int(stacks[0]) <= MOST_STACK_KIB
        return self.check_datagrams(dropped) + [
            Check(before == after, f"as many descriptors and threads as at the start: {after}"),
            Check(small_stack, f"the worker used {' and '.join(stacks)} KiB of its 32 KiB stack"),
            Check(status == 0, f"the daemon ended with exit status {status}"),
            self.check_memory(),
        ]

    def check_datagrams(self, dropped: int) -> list[Check]:
        log = self.testbed.log()
        records = Counter(RECORDS.findall(log))
        requests = [request for request in self.testbed.cloud.requests if request.status != 307]
        relayed = [request for request in requests if request.status in (200, 201)]
        failed = len(requests) - len(relayed)
        received = self.received()
        breaks = [datetime.fromisoformat(stamp) for stamp in DISCONNECTED.findall(log)]
        arrived = set(received)
        lost = [request for request in relayed if data_id(request.body) not in arrived]
        lost_in_break = [request for request in lost if is_during(request, breaks)]
        print_table("Datagrams | ", {
            "sent": self.sent,
            "dropped by the kernel (full socket queue)": dropped,
            "rejected (log)": records[REJECTED],
            "dropped by the circuit breaker (log)": records[REFUSED],
            "failed (log)": records[FAILED],
            "failed (cloud)": failed,
            "relayed (cloud)": len(relayed),
            "published (broker)": self.published.total(),
            "received by the subscriber": len(received),
            "lost because the link broke": len(lost_in_break),
            "recreations of the client": len(breaks),
        })
        total = dropped + len(relayed) + sum(records[kind] for kind in (REJECTED, REFUSED, FAILED))
        valid = all(request.verdict == "signature valid" for request in requests)
        ordered = received == sorted(arrived) and not self.published["1"]
        return [
            Check(total == self.sent, f"every datagram is accounted for: {total} of {self.sent}"),
            Check(records[REJECTED] <= self.sent_broken, "only truncated datagrams were rejected"),
            Check(failed == records[FAILED], "log and cloud agree on the failed requests"),
            Check(valid, "every signature was valid"),
            Check(records[OTHER] == 0, "the log has no other warning or error"),
            Check(ordered, "no reply was repeated or out of order"),
            Check(self.published.total() == len(received), "the subscriber got every message"),
            Check(len(lost) == len(lost_in_break), "replies were lost only when the link broke"),
        ]

    def check_memory(self) -> Check:
        print_table("Minute | resident, KiB", {
            str(start // 60 + 1): round(median(self.resident_kib[start:start + 60]))
            for start in range(0, len(self.resident_kib), 60)
        })
        quarter = len(self.resident_kib) // 4
        second = median(self.resident_kib[quarter:2 * quarter])
        growth = median(self.resident_kib[-quarter:]) - second
        text = f"memory grew by {growth:+.0f} KiB from the second quarter to the last one"
        return Check(growth < MOST_GROWTH_KIB, text)


def is_during(request: Request, breaks: list[datetime]) -> bool:
    """Whether the client may have lost the reply because the link was broken."""
    sent = datetime.fromisoformat(request.headers["X-API-TIMESTAMP"])
    return any(-1 < (noticed - sent).total_seconds() < 5 for noticed in breaks)


def print_table(head: str, rows: dict[str, int]) -> None:
    print(f"\n| {head} |\n|---|---|")
    for name, count in rows.items():
        print(f"| {name} | {count:,} |")


def draw(samples_kib: list[int], faults: list[Fault], file: str) -> None:
    pyplot.rcParams["svg.fonttype"] = "none"
    figure, axes = pyplot.subplots(figsize=(9, 3.5), layout="constrained")
    for fault in faults:
        colour = "#c9d8f0" if fault.kind.answer else "#f4b6b6"
        axes.axvspan(fault.start_s / 60, fault.end_s / 60, color=colour)
    minutes = [second / 60 for second in range(len(samples_kib))]
    samples_mib = [sample / 1024 for sample in samples_kib]
    axes.plot(minutes, samples_mib, "k")
    axes.set(xlabel="minutes", ylabel="resident, MiB", ylim=(0, max(samples_mib) * 1.2))
    axes.set_title("red: the broker is down or blocks the echo; blue: the cloud fails or stalls")
    figure.savefig(file, metadata={"Date": None, "Creator": None})


def check_restarts(testbed: TestEnvironment, chance: random.Random) -> Check:
    """Stops the daemon at random moments under load."""
    for count in range(RESTARTS):
        daemon = testbed.start_daemon()
        expect(testbed.logged("Lora VEYRA Server started"), "the daemon does not start")
        end = time.monotonic() + chance.uniform(0, 0.12)
        while time.monotonic() < end:
            testbed.send(check_in(number=count, padding=300))
        status = daemon.end()
        expect(status == 0, f"stop {count} ended with exit status {status}\n{daemon.errors()}")
    return Check(True, f"{RESTARTS} stops at random moments under load ended with exit status 0")


def main(minutes: float, seed: int, file: str) -> int:
    faults = schedule(minutes * 60, random.Random(seed))
    with TestEnvironment() as testbed:
        soak = Soak(testbed, seed)
        checks = soak.run(minutes * 60, faults)
        draw(soak.resident_kib, faults, file)
        checks.append(check_restarts(testbed, soak.chance))
    for check in checks:
        print("passed   " if check.holds else "FAILED   ", check.text)
    return 0 if all(check.holds for check in checks) else 1


if __name__ == "__main__":
    sys.exit(main(float(sys.argv[1]), int(sys.argv[2]), sys.argv[3]))
