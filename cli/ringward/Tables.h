// SPDX-License-Identifier: Apache-2.0
//
// What the shared tables of counters tell, with an agent or without. One thread.
#pragma once

#include <string>
#include <vector>

#include "cli/ringward/Context.h"
#include "model/status/CounterIntf.h"
#include "model/status/CounterVlan.h"
#include "model/status/IntfTotals.h"

namespace RingwardCli {

// Names below the root; docs/formats.md.
inline constexpr const char* kTotalsTable = "ringward/packetAccess/intfTotals";
inline constexpr const char* kIntfTable = "ringward/packetCounter/counterIntf";
inline constexpr const char* kVlanTable = "ringward/packetCounter/counterVlan";

struct CounterTables {
  std::vector<Ringward::Status::IntfTotals> totals;  // by key
  std::vector<Ringward::Status::CounterVlan> vlans;
  std::vector<std::string> missing;  // why a table could not be read, one line each
};

CounterTables readTables(const std::string& root);

// Both as text, or into `json` under "interfaces" and "vlans".
void showTables(Context& context, const CounterTables& tables);
void tablesTo(Json& json, const CounterTables& tables);

}  // namespace RingwardCli
