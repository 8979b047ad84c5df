// SPDX-License-Identifier: Apache-2.0
//
// The command watch: follows a table as a shadow does and prints each changed key, one line each,
// until SIGINT, SIGTERM or SIGHUP. The table need not exist yet, and its writer may come and go.
//
// Belongs to one thread, with the session's loop current.
#pragma once

#include "cli/quillctl/Session.h"

namespace Quillctl {

// Raises Failure.
void watchTable(Session& session);

}  // namespace Quillctl
