# SPDX-License-Identifier: Apache-2.0
"""What the tests of the checker share: a directory of their own and runs of the checker."""

import os
import subprocess
import sys
import tempfile
import unittest

import table_check

CHECKER = os.path.abspath(table_check.__file__)


def eth(number):
    """The identifier of eth0 to eth9, as docs/formats.md shows that of eth0."""
    return bytes.fromhex("20800000000000") + bytes([4 + number])


def key(number):
    """Some identifier; no two numbers give the same."""
    return (0x2080000000000000 + number).to_bytes(8, "big")


def vlan(number):
    return number.to_bytes(2, "little")


def run(*arguments):
    """(exit status, stdout, stderr) of the command, run as a program."""
    done = subprocess.run([sys.executable, "-B", CHECKER, *arguments], capture_output=True, text=True,
                          timeout=120, check=False)
    return done.returncode, done.stdout, done.stderr


class TableTest(unittest.TestCase):
    def setUp(self):
        parent = tempfile.TemporaryDirectory(prefix="quill-checker-")
        self.addCleanup(parent.cleanup)
        self.directory = os.path.join(parent.name, "table")

    def path(self, name):
        return os.path.join(self.directory, name)

    def check(self, writer=None, *options):
        """The checker's facts on what the writer has, or on what lies in the directory."""
        if writer is not None:
            writer.save(self.directory)
        arguments = table_check.parser().parse_args(["--page-size", "4096", *options,
                                                     self.directory])
        return table_check.report(table_check.Check(arguments), arguments.dump)

    def assert_sound(self, writer=None, *options):
        facts = self.check(writer, *options)
        self.assertEqual([d["text"] for d in facts["damage"]], [])
        self.assertTrue(facts["sound"])
        return facts

    def assert_damage(self, writer, file, offset, text, *options):
        """The finding with the given whole text is among those made, at the given place."""
        facts = self.check(writer, *options)
        self.assertFalse(facts["sound"])
        found = [(d["file"], d["offset"], d["text"]) for d in facts["damage"]]
        self.assertIn((file, offset, text), found)
        return facts
