"""Child processes, and waiting for conditions."""

import os
import signal
import subprocess
import time
from collections.abc import Callable, Sequence
from pathlib import Path


def eventually(condition: Callable[[], object], seconds: float = 10) -> bool:
    """Polls until the condition holds. Returns False if it does not hold in time."""
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            return False
        time.sleep(0.005)
    return True


def expect(holds: object, what: str) -> None:
    if not holds:
        raise AssertionError(what)


def text_of(path: Path) -> str:
    return path.read_bytes().decode(errors="replace") if path.exists() else ""


def is_bound(protocol: str, port: int) -> bool:
    """Whether a socket is bound to the port. Sends nothing to it."""
    return f":{port:04X} 00000000:0000 " in text_of(Path("/proc/net") / protocol)


def udp_queue(port: int) -> tuple[int, int]:
    """The bytes in the queue of a UDP port, and the datagrams that the kernel has dropped there."""
    for line in text_of(Path("/proc/net/udp")).splitlines():
        fields = line.split()
        if fields[1].endswith(f":{port:04X}"):
            return int(fields[4].split(":")[1], 16), int(fields[12])
    return 0, 0


class Process:
    """A child process. Its output goes to NAME.out and NAME.err in the directory `folder`."""

    def __init__(
        self,
        command: Sequence[object],
        folder: Path,
        name: str,
        environment: dict[str, str] | None = None,
    ) -> None:
        self.out, self.err = folder / f"{name}.out", folder / f"{name}.err"
        with self.out.open("wb") as out, self.err.open("wb") as err:
            self._child = subprocess.Popen(
                [str(part) for part in command],
                stdin=subprocess.DEVNULL,
                stdout=out,
                stderr=err,
                env={**os.environ, **(environment or {})},
            )
        self.proc = Path("/proc") / str(self._child.pid)

    def wait(self, seconds: float = 10) -> int | None:
        """Waits for the end. Returns the exit status, or the negative number of the signal that
        ended the process, or None if it is still running."""
        try:
            return self._child.wait(seconds)
        except subprocess.TimeoutExpired:
            return None

    def end(self, number: int = signal.SIGTERM, seconds: float = 10) -> int | None:
        self._child.send_signal(number)
        return self.wait(seconds)

    def kill(self) -> None:
        self._child.kill()
        self._child.wait()

    def output(self) -> str:
        return text_of(self.out)

    def errors(self) -> str:
        return text_of(self.err)

    def count(self, folder: str) -> int:
        """The number of entries in a directory of its /proc entry, such as fd or task."""
        return len(list((self.proc / folder).iterdir()))

    def status(self, name: str) -> int:
        """A number of its /proc status, such as VmRSS (KiB) or voluntary_ctxt_switches."""
        return int(text_of(self.proc / "status").split(f"\n{name}:")[1].split()[0])

    def resident_kib(self) -> int:
        return self.status("VmRSS")

    def cpu_seconds(self) -> float:
        fields = text_of(self.proc / "stat").rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")
