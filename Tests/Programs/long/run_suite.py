"""Runs a module of Python's own tests but the tests and classes that are named besides it.

One line a test: what became of it, and why it failed.
"""

import importlib
import sys
import unittest

from test import support

support.use_resources = []  # neither the network nor much memory
support.verbose = False


class Result(unittest.TestResult):
    def __init__(self):
        super().__init__()
        self.lines = []

    def note(self, test, what):
        self.lines.append(f"{test.id()} {what}")

    def addSuccess(self, test):
        self.note(test, "ok")

    def addSkip(self, test, reason):
        self.note(test, "skipped")

    def addExpectedFailure(self, test, error):
        self.note(test, "fails as expected")

    def addUnexpectedSuccess(self, test):
        self.note(test, "succeeds unexpectedly")

    def addError(self, test, error):
        self.note(test, "ERROR " + self._exc_info_to_string(error, test))

    addFailure = addError

    def addSubTest(self, test, subtest, error):
        if error is not None:
            self.note(subtest, "FAILED " + self._exc_info_to_string(error, test))


def tests_of(suite):
    for test in suite:
        if isinstance(test, unittest.TestSuite):
            yield from tests_of(test)
        else:
            yield test


if __name__ == "__main__":
    module, *left_out = sys.argv[1:]
    result = Result()
    suite = unittest.defaultTestLoader.loadTestsFromModule(importlib.import_module("test." + module))
    for test in tests_of(suite):
        class_name, name = test.id().split(".")[-2:]
        if name in left_out or class_name in left_out:
            test.run = lambda result: None
    suite.run(result)
    print("\n".join(sorted(result.lines)))
