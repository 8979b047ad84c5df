# SPDX-License-Identifier: Apache-2.0
"""What the tests of the checker share: a directory of their own and one run of the command."""

import json
import os
import subprocess
import sys
import tempfile
import unittest

CHECKER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "table_check.py")


def eth(number):
    """The identifier of eth0 to eth9, as docs/formats.md shows it for eth0."""
    return bytes.fromhex("2080000000000004")[:7] + bytes([4 + number])


def vlan(number):
    return number.to_bytes(2, "little")


def run(*arguments):
    """(exit status, stdout, stderr) of the command as a program."""
    done = subprocess.run([sys.executable, CHECKER, *arguments], capture_output=True, text=True,
                          timeout=120, check=False)
    return done.returncode, done.stdout, done.stderr


class TableTest(unittest.TestCase):
    def setUp(self):
        self._parent = tempfile.TemporaryDirectory(prefix="quill-checker-")
        self.addCleanup(self._parent.cleanup)
        self.directory = os.path.join(self._parent.name, "table")

    def path(self, name):
        return os.path.join(self.directory, name)

    def check(self, writer=None, *options):
        """(exit status, facts, stderr) of a run on what the writer has, or on what lies there."""
        if writer is not None:
            writer.save(self.directory)
        status, out, err = run("--json", "--page-size", "4096", *options, self.directory)
        return status, json.loads(out), err
