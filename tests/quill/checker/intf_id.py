# SPDX-License-Identifier: Apache-2.0
"""Interface identifiers, written from "Interface identifiers" in docs/formats.md.

An identifier is here the number that its eight bytes are, most significant byte first. The module
shares nothing with runtime/portus: it is there to disagree where one of the two is wrong.
"""

import re

_MASK64 = (1 << 64) - 1
_PREFIXES = ("", "eth", "swp", "enp", "enP", "ens", "eno", "veth", "bond", "team", "port",
             "peerbond", "Ethernet", "Port-Channel", "PeerPort-Channel", "Loopback")
_SMALL_ALPHABET = "-./0123456789:_abcdefghijklmnopqrstuvwxyz"
_FORM_SMALL, _FORM_WIDE = 0, 1

_KIND_NONE, _KIND_ETHERNET = 0, 1
_KINDS = (
    (2, re.compile(r"(?:Port-Channel|po|bond|team)[0-9]+")),
    (3, re.compile(r"(?:PeerPort-Channel|peerbond)[0-9]+")),
    (4, re.compile(r"(?:vlan|Vlan)[0-9]+|.+\.[0-9]+")),
    (5, re.compile(r"lo|(?:lo|Loopback)[0-9]+")),
)


def _mix(x):
    x = ((x ^ (x >> 33)) * 0xFF51AFD7ED558CCD) & _MASK64
    x = ((x ^ (x >> 33)) * 0xC4CEB9FE1A85EC53) & _MASK64
    return x ^ (x >> 33)


def hash_of(number):
    """The 32-bit hash that places an identifier in a table."""
    return _mix(number) >> 32


def kind_of_name(name):
    if not name:
        return _KIND_NONE
    for kind, pattern in _KINDS:
        if pattern.fullmatch(name):
            return kind
    return _KIND_ETHERNET


def _numeral(digits, base):
    value = 0
    for digit in digits:
        value = value * base + digit
    return value


def encode(name):
    """The number of a name that packs (forms 0 and 1); None for one that is hashed (form 2)."""
    kind = kind_of_name(name)
    index = next((i for i, p in enumerate(_PREFIXES) if p and name.startswith(p)), 0)
    rest = name[len(_PREFIXES[index]):]
    if len(rest) <= 10 and all(c in _SMALL_ALPHABET for c in rest):
        form, numeral = _FORM_SMALL, _numeral([_SMALL_ALPHABET.index(c) + 1 for c in rest], 41)
    elif len(rest) <= 8:
        form, numeral = _FORM_WIDE, _numeral([ord(c) - 0x20 for c in rest], 94)
    else:
        return None
    return kind << 61 | form << 59 | index << 55 | numeral


def _digits(numeral, base):
    digits = []
    while numeral > 0:
        numeral, digit = divmod(numeral - 1, base)
        digits.append(digit + 1)
    return reversed(digits)


def name_of(number):
    """The name of an identifier, or "intf#" and its digits where it is not valid or is hashed."""
    form = number >> 59 & 3
    prefix = _PREFIXES[number >> 55 & 15]
    numeral = number & ((1 << 55) - 1)
    name = None
    if form == _FORM_SMALL:
        name = prefix + "".join(_SMALL_ALPHABET[d - 1] for d in _digits(numeral, 41))
    elif form == _FORM_WIDE:
        name = prefix + "".join(chr(d + 0x20) for d in _digits(numeral, 94))
    if name is None or encode(name) != number:
        return "intf#%016x" % number
    return name
