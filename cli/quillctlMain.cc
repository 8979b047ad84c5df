// SPDX-License-Identifier: Apache-2.0
//
// quillctl: looks into, fills and repairs the shared tables. docs/quillctl.md tells of it.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <iostream>

#include "cli/quillctl/Run.h"

int main(int argc, char** argv) {
  // A reader of the output that goes away is an error to report, not the end of a writer.
  signal(SIGPIPE, SIG_IGN);
  try {
    return Quillctl::run(argc, argv, STDIN_FILENO, std::cout, std::cerr);
  } catch (const std::exception& exception) {
    std::fprintf(stderr, "quillctl: %s\n", exception.what());
    return 2;
  }
}
