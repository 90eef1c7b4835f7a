"""The daemon under steady load while its peers fail: `python3 -m bench.soak MINUTES SEED PLOT`."""

# Run it with testbed/run.sh. Prints tables and draws resident memory over time into PLOT. Exit
# status 0 if everything held.

import math
import random
import re
import signal
import sys
import threading
import time
from collections import Counter
from datetime import datetime
from statistics import median

from matplotlib import pyplot

from testbed.cloud import MOVED, Answer, data_id
from testbed.environment import BROKER_PORT, UPSTREAM_PORT, TestEnvironment, check_in
from testbed.processes import eventually, expect, is_bound, text_of, udp_queue

# The shortest and the longest time in seconds, and what the cloud does. The echo has to stay away
# for more than 30 s to be missed.
FAULTS = {
    "broker killed": (0.1, 15, None),
    "broker killed shortly": (0.1, 3, None),
    "no echo": (35, 50, None),
    "500": (2, 20, Answer(500)),
    "201": (2, 5, Answer(201)),
    "redirect": (2, 5, Answer(307, headers={"Location": MOVED + "m1/x"})),
    "cut": (2, 10, Answer(cut=True)),
    "stall of 0.2 s": (5, 15, Answer(stall_s=0.2)),
    "stall of 1.5 s": (5, 12, Answer(stall_s=1.5)),
}
REJECTED, REFUSED, FAILED = "Failed to parse JSON", "Circuit is broken", "Curl call failed"
DETAILS = "CURL call to Server failed - |POST failed CODE:"  # of what failed
RECORDS = re.compile(f"Z (?:ERROR|WARNING) ({REJECTED}|{REFUSED}|{FAILED}|{DETAILS}|)")
DISCONNECTED = re.compile("(.*Z) DEBUG MQTT disconnected ")
PUBLISHED = re.compile(r"Received PUBLISH from VEYRA_SERVER \(d(\d).*'lora/veyra',")
# Behind its guard page; other mappings may be as large.
STACK = re.compile(r"---p 00000000 00:00 0 *\nSize: +4 kB\n(?:[A-Z].*\n)+"
                   r"\S+ rw-p 00000000 00:00 0 *\nSize: +32 kB\n.*\n.*\nRss: +(\d+) kB")
STACK_KIB = 24  # the deepest path known, of the resolver, touches 20
# A long backlog once may leave the heap larger; a leak of 100 bytes a datagram passes this in
# ten minutes.
GROWTH_KIB = 512
RESTARTS = 180

Fault = tuple[float, float, str]  # from second, to second, kind


def schedule(seconds: float, chance: random.Random) -> list[Fault]:
    """Faults one after another, with quiet between them, in rounds of all kinds."""
    faults: list[Fault] = []
    now = 5.0
    while True:
        for kind in chance.sample(list(FAULTS), len(FAULTS)):
            start = now + chance.uniform(3, 10)
            now = start + chance.uniform(*FAULTS[kind][:2])
            if now > seconds:
                return faults
            faults.append((start, now, kind))


class Soak:
    def __init__(self, testbed: TestEnvironment, seed: int) -> None:
        self.testbed, self.chance = testbed, random.Random(seed)
        self.sent = self.broken = 0
        self.published: Counter[str] = Counter()  # by its mark of a repetition
        self.samples: list[int] = []  # KiB, one a second
        self.loaded = True
        # The worker looks the broker's name up.
        testbed.configuration["mqtt"]["host"] = "localhost"
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
        """Blocked, the broker takes keepalives and delivers none."""
        only = "topic readwrite lora/veyra\ntopic write lora/veyra_keepalive\n"
        self.acl.write_text(only if blocked else "topic readwrite lora/#\n")
        if self.testbed.broker:
            self.testbed.broker.end(signal.SIGHUP, 0)  # reads the file again

    def set_fault(self, kind: str, active: bool) -> None:
        answer = FAULTS[kind][2]
        if answer:
            self.testbed.cloud.answers.extend([answer] * 10000 * active)
        elif kind == "no echo":
            self.block_echo(active)
        elif active:
            self.testbed.kill_broker()
            self.count_published()
        else:
            self.start_broker()
        if not active:
            self.testbed.cloud.answers.clear()

    def send(self, padding: int) -> None:
        self.sent += 1
        datagram = check_in(number=self.sent, padding=padding)
        if padding and self.chance.random() < 0.05:
            self.broken += 1
            datagram = datagram[: len(datagram) // 2]
        self.testbed.send(datagram)

    def load(self) -> None:
        while self.loaded:
            self.send(int(math.exp(self.chance.uniform(0, math.log(16200)))))
            time.sleep(self.chance.uniform(0, 0.1))

    def received(self) -> list[int]:
        return [reply["result"]["id"] for reply in self.testbed.replies()]

    def probe(self) -> None:
        """An answer to a new datagram says that all before it are done with: they keep order."""
        for _ in range(180):
            self.send(0)
            if eventually(lambda: self.received()[-1:] == [self.sent], 1):
                return
        raise AssertionError("the daemon does not answer any more")

    def follow(self, faults: list[Fault], seconds: float) -> None:
        start = time.monotonic()
        moments = sorted(
            moment for at, to, kind in faults for moment in ((at, kind, True), (to, kind, False))
        )
        load = threading.Thread(target=self.load, daemon=True)
        load.start()
        while (now := time.monotonic() - start) < seconds:
            if moments and now >= moments[0][0]:
                _, kind, active = moments.pop(0)
                print(f"{now:7.1f} s  {'begin' if active else 'end  '} {kind}", flush=True)
                self.set_fault(kind, active)
            if now >= len(self.samples):
                self.samples.append(self.daemon.resident_kib())
            time.sleep(0.02)
        self.loaded = False
        load.join()

    def run(self, seconds: float, faults: list[Fault]) -> bool:
        expect(eventually(lambda: is_bound("udp", UPSTREAM_PORT)), "the daemon does not start")
        time.sleep(1)  # its port is open for good
        self.probe()
        before = self.daemon.count("fd"), self.daemon.count("task")
        self.follow(faults, seconds)
        self.probe()
        eventually(lambda: self.daemon.count("fd") == before[0])
        after = self.daemon.count("fd"), self.daemon.count("task")
        stacks = STACK.findall(text_of(self.daemon.proc / "smaps"))
        drops = udp_queue(UPSTREAM_PORT)[1]
        self.count_published()
        status = self.daemon.end()
        held = self.account(drops) + [
            (before == after, f"descriptors and threads as at the start: {after}"),
            (len(stacks) == 1 and int(stacks[0]) <= STACK_KIB, f"worker stack: {stacks} KiB of 32"),
            (status == 0, f"the daemon ended with exit status {status}"),
            self.memory(),
        ]
        for holds, what in held:
            print("held     " if holds else "NOT HELD ", what)
        return all(holds for holds, _ in held)

    def account(self, drops: int) -> list[tuple[bool, str]]:
        log = self.testbed.log()
        records = Counter(RECORDS.findall(log))
        cloud = [request for request in self.testbed.cloud.requests if request.status != 307]
        relayed = [request for request in cloud if request.status in (200, 201)]
        received = self.received()
        broken = [datetime.fromisoformat(at) for at in DISCONNECTED.findall(log)]
        stamps = {data_id(r.body): r.headers["X-API-TIMESTAMP"] for r in relayed}
        lost = [datetime.fromisoformat(stamps[i]) for i in stamps.keys() - set(received)]
        # What the client had in its hands when its link broke goes with it.
        excused = [any(-1 < (at - t).total_seconds() < 5 for at in broken) for t in lost]
        failed = len(cloud) - len(relayed)
        rows = {
            "sent": self.sent,
            "lost in the socket's queue, by the kernel": drops,
            "rejected, by the log": records[REJECTED],
            "refused by the breaker, by the log": records[REFUSED],
            "failed, by the log": records[FAILED],
            "failed, by the cloud": failed,
            "relayed, by the cloud": len(relayed),
            "published, by the broker": self.published.total(),
            "received by the subscriber": len(received),
            "lost with a broken link": sum(excused),
            "the client was rebuilt": len(broken),
        }
        print("\n| Datagrams | |\n|---|---|")
        for name, count in rows.items():
            print(f"| {name} | {count:,} |")
        total = drops + records[REJECTED] + records[REFUSED] + records[FAILED] + len(relayed)
        valid = all(request.verdict == "signature valid" for request in cloud)
        ordered = received == sorted(set(received))
        return [
            (total == self.sent, f"every datagram is accounted for: {total} of {self.sent}"),
            (records[REJECTED] <= self.broken, "only broken datagrams were rejected"),
            (failed == records[FAILED], "the log's failed requests are the cloud's"),
            (valid, "every signature was valid"),
            (records[""] == 0, "no other warning or error is in the log"),
            (ordered and not self.published["1"], "nothing came twice or out of order"),
            (self.published.total() == len(received), "the subscriber got what the broker took"),
            (all(excused), "no reply was lost but with a broken link"),
        ]

    def memory(self) -> tuple[bool, str]:
        print("\n| Minute | resident, KiB |\n|---|---|")
        for start in range(0, len(self.samples), 60):
            print(f"| {start // 60 + 1} | {median(self.samples[start:start + 60]):,.0f} |")
        quarter = len(self.samples) // 4
        growth = median(self.samples[-quarter:]) - median(self.samples[quarter:2 * quarter])
        return growth < GROWTH_KIB, f"memory in the last quarter: {growth:+.0f} KiB on the second"


def draw(samples: list[int], faults: list[Fault], file: str) -> None:
    pyplot.rcParams["svg.fonttype"] = "none"
    figure, axes = pyplot.subplots(figsize=(9, 3.5), layout="constrained")
    for start, end, kind in faults:
        colour = "#f4b6b6" if kind.startswith(("broker", "no echo")) else "#c9d8f0"
        axes.axvspan(start / 60, end / 60, color=colour)
    axes.plot([second / 60 for second in range(len(samples))], [s / 1024 for s in samples], "k")
    axes.set(xlabel="minutes", ylabel="resident, MiB", ylim=(0, max(samples) / 1024 * 1.2))
    axes.set_title("red: the broker is down or keeps the echo; blue: the cloud fails or stalls")
    figure.savefig(file, metadata={"Date": None, "Creator": None})


def restart(testbed: TestEnvironment, chance: random.Random) -> None:
    """Stops the daemon at random moments under load."""
    for count in range(RESTARTS):
        daemon = testbed.start_daemon()
        expect(testbed.logged("Lora VEYRA Server started"), "the daemon does not start")
        end = time.monotonic() + chance.uniform(0, 0.12)
        while time.monotonic() < end:
            testbed.send(check_in(number=count, padding=300))
        status = daemon.end()
        expect(status == 0, f"round {count} ended with {status}\n{daemon.errors()}")
    print(f"held      {RESTARTS} stops at random moments under load, each with exit status 0")


def main(minutes: float, seed: int, file: str) -> int:
    faults = schedule(minutes * 60, random.Random(seed))
    with TestEnvironment() as testbed:
        soak = Soak(testbed, seed)
        held = soak.run(minutes * 60, faults)
        draw(soak.samples, faults, file)
        restart(testbed, soak.chance)
    return 0 if held else 1


if __name__ == "__main__":
    sys.exit(main(float(sys.argv[1]), int(sys.argv[2]), sys.argv[3]))
