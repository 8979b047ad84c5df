# SPDX-License-Identifier: Apache-2.0
"""The building blocks against the figures that docs/formats.md gives."""

import os
import re
import unittest

import intf_id
import table_format
from harness import eth
from model_writer import ModelWriter, checksum

_PAGE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../../docs/formats.md")

_NAMES = {
    "": "0000000000000000",
    "lo": "a000000000000471",
    "eth0": "2080000000000004",
    "eth10": "20800000000000d1",
    "swp1": "2100000000000005",
    "enP2p1s0f0np0": "2207dcacebdb33b9",
    "bond0": "4400000000000004",
    "po1": "400000000000d062",
    "Port-Channel1": "4680000000000005",
    "PeerPort-Channel1": "6700000000000005",
    "peerbond1": "6580000000000005",
    "Ethernet1/1": "2600000000002155",
    "Loopback0": "a780000000000004",
    "Vlan100": "88002264b1cc7154",
    "eth0.100": "8080000000aeb473",
    "Eth1/1": "28000040c3ca78b7",
}


class IntfIdTest(unittest.TestCase):
    def test_names_that_pack_read_back(self):
        for name, number in _NAMES.items():
            self.assertEqual(intf_id.name_of(int(number, 16)), name)

    def test_hashed_and_invalid_identifiers_read_as_their_digits(self):
        for number in ("370b032a0af9529b",  # form 2
                       "3880000000000004",  # form 3
                       "4080000000000004",  # kind of a port channel, name of an Ethernet port
                       "2000000000000000",  # no name, but not of kind none
                       "20ffffffffffffff",  # numeral too large
                       "2880000000000014",  # form 1 where form 0 fits
                       "200000000015f1fa"):  # prefix index 0 where eth fits
            self.assertEqual(intf_id.name_of(int(number, 16)), "intf#" + number)

    def test_hash_is_that_of_the_page(self):
        self.assertEqual(intf_id.hash_of(0x2080000000000004), 0xF048DCCF)
        self.assertEqual(intf_id.hash_of(0), 0)


class HashTest(unittest.TestCase):
    def test_checksum_is_that_of_the_page(self):
        for function in (table_format.util_hash, checksum):
            self.assertEqual(function(b""), 0xAB3E7C0B)
            self.assertEqual(function(b"a"), 0x1A80B1B3)


class WorkedExampleTest(unittest.TestCase):
    def test_bytes_of_the_page_are_those_of_a_table(self):
        writer = ModelWriter(class_type=b"Ringward::Status::PacketCounter")
        writer.put(eth(0), 1)
        writer.put(eth(0), 2)
        with open(_PAGE, encoding="utf-8") as page:
            text = page.read()
        text = text[text.index("### A worked example"):text.index("## Reading a table")]
        rows = 0
        for name in ("slots", "buckets", "conquer.1"):
            part = text[text.index("| Offset |"):]
            text = part[part.index("\n\n"):]
            for offset, digits in re.findall(r"\| ([0-9,]+) \| `([0-9a-f. ]+)` \|",
                                             part[:part.index("\n\n")]):
                at = int(offset.replace(",", ""))
                wanted = bytes.fromhex(digits.split("...")[0])
                self.assertEqual(bytes(writer.files[name][at:at + len(wanted)]).hex(" "),
                                 wanted.hex(" "), "%s at %d" % (name, at))
                rows += 1
        self.assertEqual(rows, 22)


if __name__ == "__main__":
    unittest.main()
