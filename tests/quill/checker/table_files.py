# SPDX-License-Identifier: Apache-2.0
"""Reading a table's directory: the four mapped files and the small ones beside them."""

import fcntl
import os
import re
import stat
import struct

from table_format import BucketFile, QueueFile, SlotFile

MAPPED = ("slots", "buckets", "conquer.1", "conquer.2")
_SMALL = ("fenix", "last-owner", "corruption-detected", "lock", "kick")
_MAX_TEXT = 4096
_MAX_NAMES = 1000

_FENIX = re.compile(rb"quill-fenix 1 ([0-9a-f]{8})\n")
_OWNER = re.compile(rb"([1-9][0-9]{0,9}) ([^\n]+)\n")


class UsageError(Exception):
    """What was asked for cannot be done; nothing is said about the table."""


def _read(directory, name, limit, findings):
    """Bytes of a regular file; None, with a finding unless it is missing, if there are none."""
    path = os.path.join(directory, name)
    try:
        # Never waits for the other end of a pipe, whatever lies there under the name.
        handle = os.open(path, os.O_RDONLY | os.O_NONBLOCK | os.O_CLOEXEC)
    except FileNotFoundError:
        return None
    except OSError as error:
        if stat.S_ISREG(os.lstat(path).st_mode):
            raise UsageError("cannot read %s: %s" % (path, error.strerror)) from error
        findings.add(name, 0, "file type", error.strerror, "a regular file")
        return None
    try:
        status = os.fstat(handle)
        if not findings.check(stat.S_ISREG(status.st_mode), name, 0, "file type",
                              oct(stat.S_IFMT(status.st_mode)), "a regular file"):
            return None
        if not findings.check(status.st_size <= limit, name, 0, "file size", status.st_size,
                              "at most %d" % limit):
            return None
        with open(handle, "rb", closefd=False) as file:
            return file.read(limit)
    finally:
        os.close(handle)


def _lock_holder(directory):
    """Process that holds the writer's lock; None if nobody does or it cannot be told."""
    # struct flock of a 64-bit Linux.
    layout = struct.Struct("hh4xqqi4x")
    try:
        with open(os.path.join(directory, "lock"), "rb") as file:
            question = layout.pack(fcntl.F_WRLCK, os.SEEK_SET, 0, 0, 0)
            kind, _, _, _, pid = layout.unpack(fcntl.fcntl(file, fcntl.F_GETLK, question))
            return pid if kind != fcntl.F_UNLCK else None
    except OSError:
        return None


class Table:
    """A table as it lies on disk. A mapped file that is missing is None."""

    def __init__(self, directory, max_bytes, findings):
        if not os.path.isdir(directory):
            raise UsageError("%s is not a directory" % directory)
        self.directory = directory
        data = {name: _read(directory, name, max_bytes, findings) for name in MAPPED}
        self.slots = SlotFile(data["slots"]) if data["slots"] is not None else None
        self.buckets = BucketFile(data["buckets"]) if data["buckets"] is not None else None
        self.queues = [QueueFile(name, data[name]) if data[name] is not None else None
                       for name in ("conquer.1", "conquer.2")]
        self.fenix = self._fenix(findings)
        self.owner = self._owner(findings)
        complaint = _read(directory, "corruption-detected", _MAX_TEXT, findings)
        self.complaint = complaint and complaint.decode("utf-8", "backslashreplace")
        lock = _read(directory, "lock", _MAX_TEXT, findings)
        findings.check(not lock, "lock", 0, "file size", len(lock or b""), "0")
        self.lock_holder = _lock_holder(directory) if lock is not None else None
        self._kick(findings)
        names = sorted(os.listdir(directory)[:_MAX_NAMES])
        self.others = [os.fsencode(n).decode("utf-8", "backslashreplace") for n in names
                       if n not in MAPPED + _SMALL]

    @property
    def mapped(self):
        return (self.slots, self.buckets, *self.queues)

    def _fenix(self, findings):
        """The id in `fenix`, 0 for none. Absence is judged by the rules, nonsense here."""
        text = _read(self.directory, "fenix", _MAX_TEXT, findings)
        self.has_fenix_file = text is not None
        if text is None:
            return 0
        match = _FENIX.fullmatch(text)
        findings.check(match, "fenix", 0, "text", repr(text[:64]),
                       '"quill-fenix 1 ", 8 lower-case hexadecimal digits, line feed')
        return int(match.group(1), 16) if match else 0

    def _owner(self, findings):
        text = _read(self.directory, "last-owner", _MAX_TEXT, findings)
        if text is None:
            return None
        match = _OWNER.fullmatch(text)
        if not findings.check(match, "last-owner", 0, "text", repr(text[:64]),
                              "process id, blank, program name, line feed"):
            return None
        return {"pid": int(match.group(1)),
                "name": match.group(2).decode("utf-8", "backslashreplace")}

    def _kick(self, findings):
        try:
            mode = os.lstat(os.path.join(self.directory, "kick")).st_mode
        except FileNotFoundError:
            return
        findings.check(stat.S_ISSOCK(mode), "kick", 0, "file type", oct(stat.S_IFMT(mode)),
                       "a socket")
