"""The faults of the soak test and their order."""

import random
from dataclasses import dataclass

from testbed.cloud import MOVED, Answer


@dataclass
class FaultKind:
    name: str
    shortest_s: float
    longest_s: float
    answer: Answer | None = None  # the cloud's answer during the fault


@dataclass
class Fault:
    kind: FaultKind
    start_s: float
    end_s: float


BROKER_KILLED = "broker killed"
NO_ECHO = "keepalive echo blocked"
KINDS = (
    FaultKind(BROKER_KILLED, 0.1, 15),
    FaultKind(BROKER_KILLED, 0.1, 3),
    FaultKind(NO_ECHO, 35, 50),  # the daemon notices it after 30 s
    FaultKind("status 500", 2, 20, Answer(500)),
    FaultKind("status 201", 2, 5, Answer(201)),
    FaultKind("redirect", 2, 5, Answer(307, headers={"Location": MOVED + "m1/x"})),
    FaultKind("cut transfer", 2, 10, Answer(cut=True)),
    FaultKind("stall of 0.2 s", 5, 15, Answer(stall_s=0.2)),
    FaultKind("stall of 1.5 s", 5, 12, Answer(stall_s=1.5)),
)


def schedule(seconds: float, chance: random.Random) -> list[Fault]:
    """Faults one after another, with pauses. Each round has all kinds, in random order."""
    faults: list[Fault] = []
    now_s = 5.0
    while True:
        for kind in chance.sample(KINDS, len(KINDS)):
            start_s = now_s + chance.uniform(3, 10)
            now_s = start_s + chance.uniform(kind.shortest_s, kind.longest_s)
            if now_s > seconds:
                return faults
            faults.append(Fault(kind, start_s, now_s))
