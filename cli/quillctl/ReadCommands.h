// SPDX-License-Identifier: Apache-2.0
//
// The commands that only look: list, stat, verify, get, dump, counters. They take no lock (verify
// takes the writer lock for its time, if it is free), so they work beside a living writer.
//
// Belongs to one thread, with the session's loop current. Each raises Failure.
#pragma once

#include "cli/quillctl/Session.h"

namespace Quillctl {

void listTables(Session& session);
void statTable(Session& session);
// Raises Failure(damaged) after it has printed its finding.
void verifyTable(Session& session);
void getRecord(Session& session);
// Records of another type are shown as the slots that hold them.
void dumpTable(Session& session);
void showCounters(Session& session);

}  // namespace Quillctl
