// SPDX-License-Identifier: Apache-2.0
//
// ringward: shows and changes what the loop protection of this host does. docs/ringward.md tells of
// it.
#include <signal.h>

#include <cstdio>
#include <exception>
#include <iostream>

#include "cli/ringward/Run.h"

int main(int argc, char** argv) {
  // A reader of the output that goes away is an error to report, not the end of the process.
  signal(SIGPIPE, SIG_IGN);
  try {
    Vex::EpollActivityManager loop;
    return RingwardCli::run(argc, argv, loop, std::cout, std::cerr);
  } catch (const std::exception& exception) {
    std::fprintf(stderr, "ringward: %s\n", exception.what());
    return 1;
  }
}
