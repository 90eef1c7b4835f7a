# The base of the daemon's tests. Each test has a test environment of its own.
import re
from typing import Any
from unittest import TestCase

from testbed.environment import TestEnvironment, check_in

TIME = re.compile(r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z ", re.MULTILINE)


def without_times(log: str) -> str:
    """The records of a log, each without its time."""
    return TIME.sub("", log)


class DaemonTest(TestCase):
    def setUp(self) -> None:
        self.testbed = self.enterContext(TestEnvironment())

    def tearDown(self) -> None:
        print(self.testbed.log()[-3000:])  # shown when the test fails

    def assert_logged(self, text: str, times: int = 1, seconds: float = 10) -> None:
        """Waits until the text is in the daemon's log `times` times."""
        self.assertTrue(self.testbed.logged(text, times, seconds), f"not logged: {text}")

    def assert_replies(self, count: int, seconds: float = 10) -> None:
        """Waits for the replies and fails if their number is different."""
        self.assertEqual(len(self.testbed.replies(count, seconds)), count)

    def relay(self, datagram: str = check_in(), seconds: float = 10) -> Any:
        """Sends a datagram and waits for its reply, which it returns."""
        count = len(self.testbed.replies()) + 1
        self.testbed.send(datagram)
        self.assert_replies(count, seconds)
        return self.testbed.replies()[-1]
