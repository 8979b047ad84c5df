// SPDX-License-Identifier: Apache-2.0
//
// The independent checker as a process that stays: a table's directory in, its judgement out.
// Belongs to one thread. Raises std::runtime_error if the process does not answer.
#pragma once

#include <sys/types.h>
#include <string>

namespace QuillTest {

class CheckerProcess {
 public:
  CheckerProcess();
  CheckerProcess(const CheckerProcess&) = delete;
  CheckerProcess& operator=(const CheckerProcess&) = delete;
  ~CheckerProcess();

  // "rest", "open <states>" or "damaged <findings>".
  std::string judge(const std::string& directory);

 private:
  pid_t pid_ = -1;
  int socket_ = -1;
};

}  // namespace QuillTest
