# What the daemon's tests have in common: each has a company of its own.
from unittest import TestCase

from rig.company import Company


class DaemonTest(TestCase):
    def setUp(self) -> None:
        self.company = self.enterContext(Company())

    def tearDown(self) -> None:
        print(self.company.log()[-3000:])  # is shown when the test fails
