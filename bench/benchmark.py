"""The daemon beside a baseline, turn by turn: `python3 -m bench.benchmark SLICES`."""

# Run it with testbed/run.sh. Both programs get the same datagrams, broker and cloud, the latter
# nginx with one static answer. The measured program and the cloud share one core, as on a small
# gateway, and everything else has the others: left to the scheduler, the core that the cloud wakes
# on decides more than the programs do. The tables are Markdown.

import math
import os
import random
import shutil
import signal
import socket
import sys
import time
from collections import defaultdict
from collections.abc import Sequence
from pathlib import Path

from testbed.environment import BROKER_HOST, BROKER_PORT, BUILD, UPSTREAM_PORT
from testbed.environment import TestEnvironment, find_program
from testbed.processes import Process, eventually, expect, is_bound, udp_queue

SIZES = {200: 2000, 2048: 1000, 16384: 250}  # bytes of a datagram: datagrams of a burst
# Short ones in turn: what else the machine does falls on both alike.
BURSTS = 12
SINGLES = 300
SETTLING = 10000
CLOUD_PORT = 8444
BASE_URL = f"https://localhost:{CLOUD_PORT}/api/"
# The broker never waits for the listener's acknowledgement.
BROKER = "allow_anonymous true\nset_tcp_nodelay true\nlog_type none\nlog_type subscribe"
# A datagram as a network server sends it: packet records of a gateway.
DATAGRAM = (
    '{"method":"POST","path":"m1/gateways/SN0000001/packets","request":{"brantle_serial":'
    '"SN0000001","data":{"type":"packets","id":1,"attributes":{"p":[%s"%s"]}}}}'
)
RECORD = (
    '{"freq":868.1,"sf":7,"rssi":-101,"snr":7.5,"crc":true,'
    '"time":"2026-11-21T04:25:47Z","data":"QAEAACaAAQABq1Yp8w=="},'
)
CORES = sorted(os.sched_getaffinity(0))
MEASURED, OTHERS = CORES[-1:], CORES[:-1] or CORES

Series = defaultdict[str, list[float]]  # of the daemon and the baseline


def packets(size: int) -> bytes:
    records, rest = divmod(size - len(DATAGRAM % ("", "")), len(RECORD))
    return (DATAGRAM % (RECORD * records, "x" * rest)).encode()


def share(values: Sequence[float], part: float) -> float:
    return sorted(values)[max(math.ceil(part * len(values)), 1) - 1]


def spread(values: Sequence[float], digits: int) -> str:
    """The median, and the 10th and 90th percentile."""
    low, middle, high = (f"{share(values, part):.{digits}f}" for part in (0.1, 0.5, 0.9))
    return f"{middle} ({low} to {high})"


def ratios(series: Series) -> str:
    """What was measured in the same turn is compared with each other."""
    both = zip(series["daemon"], series["baseline-json"], strict=True)
    return spread([daemon / baseline for daemon, baseline in both], 3)


def row(*cells: object) -> None:
    print("|", " | ".join(str(cell) for cell in cells), "|", flush=True)


def head(*cells: str) -> None:
    print()
    row(*cells)
    row(*("---" for _ in cells))


class Answers:
    """When replies come to a subscriber, in nanoseconds of the clock of the day."""

    def __init__(self, testbed: TestEnvironment) -> None:
        command = f"{find_program('mosquitto_sub')} -h {BROKER_HOST} -p {BROKER_PORT}".split()
        command += ["-t", "lora/veyra", "-F", "%U"]
        self.process = Process(command, testbed.folder, "answers")
        broker = testbed.broker
        subscribed = eventually(lambda: broker and "lora/veyra" in broker.errors())
        expect(subscribed, "no subscription")
        self._file = self.process.out.open()
        self._rest = ""
        self._times: list[int] = []

    def count(self) -> int:
        *lines, self._rest = (self._rest + self._file.read()).split("\n")
        self._times += [int(line.replace(".", "")) for line in lines]
        return len(self._times)

    def take(self, count: int) -> list[int]:
        expect(eventually(lambda: self.count() >= count, 60), "a datagram was not answered")
        times, self._times = self._times[:count], self._times[count:]
        return times


class Subject:
    """One of the measured programs, with a port of its own. Not running at first."""

    def __init__(self, testbed: TestEnvironment, name: str) -> None:
        self.testbed, self.name = testbed, name
        self.port = UPSTREAM_PORT + (name != "daemon")
        self.process: Process | None = None
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)

    def start(self, below: Sequence[object] = ()) -> None:
        self.stop()
        os.sched_setaffinity(0, MEASURED)
        if self.name == "daemon":
            self.process = self.testbed.start_daemon(below=below)
        else:
            program = BUILD / "bench/baseline-json"
            baseline = [program, self.port, BROKER_HOST, BROKER_PORT, BASE_URL]
            self.process = Process([*below, *baseline], self.testbed.folder, self.name)
        os.sched_setaffinity(0, OTHERS)

    def stop(self) -> None:
        if self.process:
            # The baseline is ended by the signal, the daemon by itself.
            expected = 0 if self.name == "daemon" else -signal.SIGTERM
            expect(self.process.end() == expected, f"{self.name}: {self.process.errors()}")
        self.process = None

    def resident_kib(self) -> int:
        return self.process.resident_kib() if self.process else 0

    def cpu_us(self) -> float:
        """The kernel's clock of the process, all threads, user and system."""
        clock = ~int(self.process.proc.name) << 3 | 2 if self.process else 0
        return time.clock_gettime_ns(clock) / 1e3

    def send(self, datagram: bytes) -> None:
        self.socket.sendto(datagram, ("127.0.0.1", self.port))

    def send_many(self, datagram: bytes, count: int) -> None:
        """Keeps the socket's queue filled, but never full."""
        batch = 1 + 16384 // (len(datagram) + 512)
        for sent in range(0, count, batch):
            while udp_queue(self.port)[0] > 65536:
                time.sleep(0.0002)
            for _ in range(min(batch, count - sent)):
                self.send(datagram)
        expect(udp_queue(self.port)[1] == 0, "the kernel dropped a datagram")


class Benchmark:
    def __init__(self, testbed: TestEnvironment, slices: int) -> None:
        self.testbed, self.slices = testbed, slices
        self.subjects = [Subject(testbed, name) for name in ("daemon", "baseline-json")]
        testbed.listener.close()
        testbed.start_broker(BROKER)
        testbed.configuration["log"]["level"] = 30
        testbed.configuration["network"]["veyraServer"] = BASE_URL
        # Paths in it are below its own folder.
        file = shutil.copy(Path(__file__).with_name("nginx.conf"), testbed.folder)
        os.sched_setaffinity(0, MEASURED)
        nginx = [find_program("nginx"), "-e", "stderr", "-p", testbed.folder, "-c", file]
        self.cloud = Process(nginx, testbed.folder, "nginx")
        os.sched_setaffinity(0, OTHERS)
        expect(eventually(lambda: is_bound("tcp", CLOUD_PORT)), "nginx does not listen")
        self.answers = Answers(testbed)

    def first_ms(self, subject: Subject) -> float:
        """From the start of the program to its first reply. Leaves it running and idle."""
        subject.stop()
        start = time.time_ns()
        subject.start()
        while not self.answers.count():
            subject.send(packets(200))
            time.sleep(0.001)
            expect(time.time_ns() < start + 20e9, f"{subject.name} does not answer")
        came = self.answers.take(1)[0]
        # Whatever it accepted is answered.
        time.sleep(0.3)
        while count := self.answers.count():
            self.answers.take(count)
            time.sleep(0.3)
        return (came - start) / 1e6

    def burst(self, subject: Subject, size: int, count: int) -> tuple[float, float]:
        """Replies per second, and microseconds of processor time for each."""
        datagram, cpu, start = packets(size), subject.cpu_us(), time.time_ns()
        subject.send_many(datagram, count)
        seconds = (self.answers.take(count)[-1] - start) / 1e9
        return count / seconds, (subject.cpu_us() - cpu) / count

    def single_ms(self, subject: Subject, size: int) -> float:
        # After a random pause, or datagrams would fall into step with the 10 ms of the queue.
        time.sleep(random.uniform(0, 0.01))
        datagram, start = packets(size), time.time_ns()
        subject.send(datagram)
        return (self.answers.take(1)[0] - start) / 1e6

    def start_and_memory(self) -> None:
        head("", "start to first answer, ms", "resident idle, KiB", f"after {SETTLING}, KiB")
        for subject in self.subjects:
            first = [self.first_ms(subject) for _ in range(max(self.slices, 3))]
            idle = subject.resident_kib()
            self.burst(subject, 2048, SETTLING)
            row(subject.name, spread(first, 0), idle, subject.resident_kib())

    def size(self, size: int) -> None:
        rate, cpu, single = Series(list), Series(list), Series(list)
        for _ in range(self.slices):
            for subject in self.subjects:
                # How a process comes to lie in memory makes it some percent faster or slower.
                self.first_ms(subject)
            for _ in range(BURSTS):
                for subject in self.subjects:
                    measured = self.burst(subject, size, SIZES[size])
                    rate[subject.name].append(measured[0])
                    cpu[subject.name].append(measured[1])
            for subject in self.subjects:
                single[subject.name] += [self.single_ms(subject, size) for _ in range(SINGLES)]
        head(f"{size} bytes", "replies/s", "processor, us", "median, ms", "95%, ms", "99.9%, ms")
        for name, times in single.items():
            shares = [f"{share(times, part):.2f}" for part in (0.5, 0.95, 0.999)]
            row(name, spread(rate[name], 0), spread(cpu[name], 1), *shares)
        row("daemon / baseline-json", ratios(rate), ratios(cpu), "", "", "")

    def instructions(self) -> None:
        """Of two runs of different length: what start and stop cost is not in their difference."""
        head("instructions per datagram", "daemon", "baseline-json", "ratio")
        for size in SIZES:
            daemon, baseline = (self.counted(subject, size) for subject in self.subjects)
            row(f"{size} bytes", f"{daemon:.0f}", f"{baseline:.0f}", f"{daemon / baseline:.3f}")

    def counted(self, subject: Subject, size: int) -> float:
        totals = []
        for count in (50, 250):
            file = self.testbed.folder / "callgrind.out"
            command = [find_program("valgrind"), "-q", "--tool=callgrind"]
            subject.start([*command, f"--callgrind-out-file={file}"])
            bound = eventually(lambda: is_bound("udp", subject.port))
            expect(bound, f"{subject.name} does not start")
            time.sleep(3)  # its port is open for good
            self.burst(subject, size, count)
            subject.stop()
            totals.append(int(file.read_text().split("totals: ")[1].split()[0]))
        return (totals[1] - totals[0]) / 200

    def drain(self) -> None:
        """Replies that waited for the broker, from the first to the last of them."""
        head("queued replies", "drained in, ms", "replies/s")
        daemon = self.subjects[0]
        for count in (1000, 10000, 100000):
            self.first_ms(daemon)
            assert daemon.process
            self.testbed.kill_broker()
            daemon.send_many(packets(200), count)
            expect(eventually(lambda: not udp_queue(daemon.port)[0], 60), "the queue is not taken")
            # It must not be back before the subscriber is.
            daemon.process.end(signal.SIGSTOP, 0)
            self.testbed.start_broker(BROKER)
            self.answers.process.kill()
            self.answers = Answers(self.testbed)
            daemon.process.end(signal.SIGCONT, 0)
            times = self.answers.take(count)
            seconds = (times[-1] - times[0]) / 1e9
            row(count, f"{seconds * 1e3:.1f}", f"{(count - 1) / seconds:.0f}")

    def run(self) -> None:
        self.start_and_memory()
        for size in SIZES:
            self.size(size)
        for subject in self.subjects:
            subject.stop()
        self.instructions()
        self.drain()


if __name__ == "__main__":
    os.sched_setaffinity(0, OTHERS)
    with TestEnvironment() as testbed:
        Benchmark(testbed, int(sys.argv[1])).run()
