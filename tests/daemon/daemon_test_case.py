# What the daemon's tests have in common: each has a test environment of its own.
from unittest import TestCase

from testbed.environment import TestEnvironment


class DaemonTest(TestCase):
    def setUp(self) -> None:
        self.testbed = self.enterContext(TestEnvironment())

    def tearDown(self) -> None:
        print(self.testbed.log()[-3000:])  # is shown when the test fails
