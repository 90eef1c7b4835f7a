"""Compares the daemon with a baseline program: `python3 -m bench.benchmark SLICES`.

testbed/run.sh must start this program. Both programs get the same datagrams, the same broker and
the same cloud, which is nginx with one static response. They are measured alternately, so that
other load on the machine affects both. The tables are Markdown.
"""

# The measured program and the cloud share one core, as on a small gateway. Everything else uses the
# other cores. If the scheduler chose the cores, its choices would matter more than the programs.

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

DATAGRAMS_PER_BURST = {200: 2000, 2048: 1000, 16384: 250}  # by the size of a datagram in bytes
BURSTS = 12  # in each slice
SINGLES = 300  # datagrams in each slice whose latency is measured
SETTLING = 10000  # datagrams before the memory is measured again
CLOUD_PORT = 8444
BASE_URL = f"https://localhost:{CLOUD_PORT}/api/"
# TCP_NODELAY: the broker does not wait for acknowledgements of the subscriber.
BROKER = "allow_anonymous true\nset_tcp_nodelay true\nlog_type none\nlog_type subscribe"
# A typical datagram of a network server: packet records of a gateway.
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

Series = defaultdict[str, list[float]]  # measurements by the name of the program


def packets(size: int) -> bytes:
    records, rest = divmod(size - len(DATAGRAM % ("", "")), len(RECORD))
    return (DATAGRAM % (RECORD * records, "x" * rest)).encode()


def percentile(values: Sequence[float], part: float) -> float:
    return sorted(values)[max(math.ceil(part * len(values)), 1) - 1]


def spread(values: Sequence[float], digits: int) -> str:
    """The median, and the 10th and 90th percentile."""
    low, middle, high = (f"{percentile(values, part):.{digits}f}" for part in (0.1, 0.5, 0.9))
    return f"{middle} ({low} to {high})"


def ratios(series: Series) -> str:
    """The daemon's values divided by the baseline's values of the same turn."""
    both = zip(series["daemon"], series["baseline-json"], strict=True)
    return spread([daemon / baseline for daemon, baseline in both], 3)


def row(*cells: object) -> None:
    print("|", " | ".join(str(cell) for cell in cells), "|", flush=True)


def head(*cells: str) -> None:
    print()
    row(*cells)
    row(*("---" for _ in cells))


class Answers:
    """A subscriber that prints the arrival times of replies, in nanoseconds of the wall clock."""

    def __init__(self, testbed: TestEnvironment) -> None:
        command = f"{find_program('mosquitto_sub')} -h {BROKER_HOST} -p {BROKER_PORT}".split()
        command += ["-t", "lora/veyra", "-F", "%U"]
        self.process = Process(command, testbed.folder, "answers")
        broker = testbed.broker
        subscribed = eventually(lambda: broker and "lora/veyra" in broker.errors())
        expect(subscribed, "mosquitto_sub is not subscribed")
        self._file = self.process.out.open()
        self._rest = ""
        self._times: list[int] = []

    def count(self) -> int:
        *lines, self._rest = (self._rest + self._file.read()).split("\n")
        self._times += [int(line.replace(".", "")) for line in lines]
        return len(self._times)

    def take(self, count: int) -> list[int]:
        expect(eventually(lambda: self.count() >= count, 60), "a datagram got no reply")
        times, self._times = self._times[:count], self._times[count:]
        return times


class Subject:
    """One of the measured programs. Each has its own port."""

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
            # The baseline has no handler for the signal.
            expected = 0 if self.name == "daemon" else -signal.SIGTERM
            expect(self.process.end() == expected, f"{self.name}: {self.process.errors()}")
        self.process = None

    def resident_kib(self) -> int:
        return self.process.resident_kib() if self.process else 0

    def cpu_us(self) -> float:
        """CPU time of all threads, in user and kernel mode."""
        # The id of the CPU clock of a process, as clock_getcpuclockid(3) computes it.
        clock = ~int(self.process.proc.name) << 3 | 2 if self.process else 0
        return time.clock_gettime_ns(clock) / 1e3

    def send(self, datagram: bytes) -> None:
        self.socket.sendto(datagram, ("127.0.0.1", self.port))

    def send_many(self, datagram: bytes, count: int) -> None:
        """Keeps the queue of the socket filled, but not full."""
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
        # The relative paths in nginx.conf refer to the directory of the test environment.
        file = shutil.copy(Path(__file__).with_name("nginx.conf"), testbed.folder)
        os.sched_setaffinity(0, MEASURED)
        nginx = [find_program("nginx"), "-e", "stderr", "-p", testbed.folder, "-c", file]
        self.cloud = Process(nginx, testbed.folder, "nginx")
        os.sched_setaffinity(0, OTHERS)
        expect(eventually(lambda: is_bound("tcp", CLOUD_PORT)), "nginx does not listen")
        self.answers = Answers(testbed)

    def first_ms(self, subject: Subject) -> float:
        """The time from the start of the program to its first reply. Leaves it running and idle."""
        subject.stop()
        start = time.time_ns()
        subject.start()
        while not self.answers.count():
            subject.send(packets(200))
            time.sleep(0.001)
            expect(time.time_ns() < start + 20e9, f"{subject.name} sent no reply")
        came = self.answers.take(1)[0]
        # Discards the replies to the other datagrams.
        time.sleep(0.3)
        while count := self.answers.count():
            self.answers.take(count)
            time.sleep(0.3)
        return (came - start) / 1e6

    def burst(self, subject: Subject, size: int, count: int) -> tuple[float, float]:
        """Replies per second, and CPU time per reply in microseconds."""
        datagram, cpu, start = packets(size), subject.cpu_us(), time.time_ns()
        subject.send_many(datagram, count)
        seconds = (self.answers.take(count)[-1] - start) / 1e9
        return count / seconds, (subject.cpu_us() - cpu) / count

    def single_ms(self, subject: Subject, size: int) -> float:
        # Without the random pause, datagrams would be in phase with the 10 ms poll of the queue.
        time.sleep(random.uniform(0, 0.01))
        datagram, start = packets(size), time.time_ns()
        subject.send(datagram)
        return (self.answers.take(1)[0] - start) / 1e6

    def start_and_memory(self) -> None:
        after = f"resident after {SETTLING} datagrams, KiB"
        head("", "time to first reply, ms", "resident, idle, KiB", after)
        for subject in self.subjects:
            first = [self.first_ms(subject) for _ in range(max(self.slices, 3))]
            idle = subject.resident_kib()
            self.burst(subject, 2048, SETTLING)
            row(subject.name, spread(first, 0), idle, subject.resident_kib())

    def size(self, size: int) -> None:
        rate, cpu, single = Series(list), Series(list), Series(list)
        for _ in range(self.slices):
            for subject in self.subjects:
                # A new process: the memory layout of a process changes its speed by a few percent.
                self.first_ms(subject)
            for _ in range(BURSTS):
                for subject in self.subjects:
                    measured = self.burst(subject, size, DATAGRAMS_PER_BURST[size])
                    rate[subject.name].append(measured[0])
                    cpu[subject.name].append(measured[1])
            for subject in self.subjects:
                single[subject.name] += [self.single_ms(subject, size) for _ in range(SINGLES)]
        head(f"{size} bytes", "replies/s", "CPU time, us", "median, ms", "95%, ms", "99.9%, ms")
        for name, times in single.items():
            latency = [f"{percentile(times, part):.2f}" for part in (0.5, 0.95, 0.999)]
            row(name, spread(rate[name], 0), spread(cpu[name], 1), *latency)
        row("daemon / baseline-json", ratios(rate), ratios(cpu), "", "", "")

    def instructions(self) -> None:
        """Compares a long run with a short one, so that start and stop are not counted."""
        head("instructions per datagram", "daemon", "baseline-json", "ratio")
        for size in DATAGRAMS_PER_BURST:
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
            time.sleep(3)  # the daemon binds the port twice
            self.burst(subject, size, count)
            subject.stop()
            totals.append(int(file.read_text().split("totals: ")[1].split()[0]))
        return (totals[1] - totals[0]) / 200

    def drain(self) -> None:
        """The time from the first to the last of the replies that waited for the broker."""
        head("queued replies", "time to drain, ms", "replies/s")
        daemon = self.subjects[0]
        for count in (1000, 10000, 100000):
            self.first_ms(daemon)
            assert daemon.process
            self.testbed.kill_broker()
            daemon.send_many(packets(200), count)
            emptied = eventually(lambda: not udp_queue(daemon.port)[0], 60)
            expect(emptied, "the daemon does not empty its queue")
            # Replies that are published before the subscriber is back would not be counted.
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
        for size in DATAGRAMS_PER_BURST:
            self.size(size)
        for subject in self.subjects:
            subject.stop()
        self.instructions()
        self.drain()


if __name__ == "__main__":
    os.sched_setaffinity(0, OTHERS)
    with TestEnvironment() as testbed:
        Benchmark(testbed, int(sys.argv[1])).run()
