// SPDX-License-Identifier: Apache-2.0
//
// runCommand: one short-lived program, run to its end. Any thread.
#pragma once

#include <string>
#include <vector>

namespace RingwardLab {

// Runs arguments[0], found through PATH, and returns all that it wrote. Throws std::runtime_error
// naming the command and its output if it cannot be started or does not end with status 0.
std::string runCommand(const std::vector<std::string>& arguments);

}  // namespace RingwardLab
