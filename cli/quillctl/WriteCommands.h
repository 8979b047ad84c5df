// SPDX-License-Identifier: Apache-2.0
//
// The commands that change a table: create, put, del, fill, batch, clear, remove. Each attaches as
// the table's writer for its time and is refused while another one lives.
//
// Belongs to one thread, with the session's loop current. Each raises Failure.
#pragma once

#include "cli/quillctl/Session.h"

namespace Quillctl {

// Does nothing for a table of that type and size that exists.
void createTable(Session& session);
void putRecord(Session& session);
void delRecord(Session& session);
void fillTable(Session& session);
// Batch.cc.
void runBatch(Session& session);
void clearTable(Session& session);
void removeTable(Session& session);

}  // namespace Quillctl
