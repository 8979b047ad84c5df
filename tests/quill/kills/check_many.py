#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""check_many.py <folder of table_check.py> <key type>: judges one table after another.

Reads the path of a table's directory from each line of its input and answers with one line: "rest",
"open" and the names of the states in which a writer may have died, or "damaged" and what is wrong.
One process for all, since starting one takes longer than a check.
"""

import os
import sys


def main():
    folder, key_type = sys.argv[1:]
    sys.path.insert(0, folder)
    import table_check
    parser = table_check.parser()
    for line in sys.stdin:
        arguments = parser.parse_args(["--allow-open", "--key-type", key_type, line.rstrip("\n")])
        check = table_check.Check(arguments)
        if not check.sound:
            print("damaged", "; ".join(f.text() for f in check.findings.first), flush=True)
        elif check.states:
            print("open", *check.states, flush=True)
        else:
            print("rest", flush=True)
    os._exit(0)  # nothing to tidy up


if __name__ == "__main__":
    main()
