# SPDX-License-Identifier: Apache-2.0
"""What is wrong with a table: each finding names file, offset, value and what is allowed."""

from dataclasses import dataclass


@dataclass(frozen=True)
class Finding:
    file: str
    offset: int
    what: str
    value: object
    allowed: str

    def text(self):
        return "%s: offset %d: %s is %s, allowed: %s" % (self.file, self.offset, self.what,
                                                        self.value, self.allowed)


class Findings:
    """The first LIMIT findings, in the order of discovery, and how many there were in all."""

    LIMIT = 20

    def __init__(self):
        self.first = []
        self.count = 0

    def add(self, file, offset, what, value, allowed):
        self.count += 1
        if len(self.first) < self.LIMIT:
            self.first.append(Finding(file, offset, what, value, allowed))

    def check(self, good, file, offset, what, value, allowed):
        """Adds a finding unless `good`; answers `good`."""
        if not good:
            self.add(file, offset, what, value, allowed)
        return good

    def __bool__(self):
        return self.count > 0
