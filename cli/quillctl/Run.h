// SPDX-License-Identifier: Apache-2.0
//
// Quillctl::run: one run of quillctl, from its arguments to its exit status. main() adds nothing.
#pragma once

#include <ostream>

namespace Quillctl {

// `input`: the descriptor that a batch reads. Raises nothing that the command line, the input or a
// table's files can cause. One thread; the descriptor and the streams stay the caller's.
int run(int argc, const char* const* argv, int input, std::ostream& out, std::ostream& err);

}  // namespace Quillctl
