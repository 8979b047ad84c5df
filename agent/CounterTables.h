// SPDX-License-Identifier: Apache-2.0
//
// Agent::CounterTables: mounts the tables of counters where other processes can read them, and sees
// to it that counting goes on whatever becomes of them: a table that cannot be had, or that fails,
// is replaced by one in this process's own memory until it can be had. Loop protection never waits
// for a table, and never fails because of one.
//
// Activity thread only; the loop that is current when it is made must outlive it. Does not own the
// hosts, whose guardian it is; they must outlive it.
//
// Invariants:
//  1. Whenever the loop turns, each table can be written to.
//  2. An operation that meets a failure costs one change to a local table, without files. Files are
//     opened in a turn of their own.
//  3. A table is mounted again at once only if it has stood for kRetryPause; else after that time,
//     again and again. What makes it fail all the time makes it fail once in that time, whatever
//     becomes of the local table meanwhile.
//  4. A failure is told in one line, its end in another.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "agent/Configuration.h"
#include "model/status/IntfTotalsDir.h"
#include "model/status/PacketCounter.h"
#include "quill/entity/TableHost.h"
#include "runtime/sable/Platform.h"

namespace Agent {

class CounterTables final : private VexQuill::TableGuardian,
                            private Sable::Platform::TimeoutHandler {
 public:
  // Seconds, as long as the store's own readers wait.
  static constexpr double kRetryPause = 60.0;

  // Places both entities in a tree of their own under the name "ringward", by which the tables get
  // their names. `totalsMounted` is called when another table stands behind the totals.
  CounterTables(Vex::Ptr<Ringward::Status::PacketCounter> counters,
                Vex::Ptr<Ringward::Status::IntfTotalsDir> totals,
                std::function<void()> totalsMounted);
  CounterTables(const CounterTables&) = delete;
  CounterTables& operator=(const CounterTables&) = delete;
  // Leaves the files as they are. The entities have no tables afterwards.
  ~CounterTables();

  // Mounts what is asked for. An equal value does nothing.
  void configurationIs(const Counters& configuration);

 private:
  using Contents = VexQuill::HostedTable::Contents;
  class Root;
  struct Entry {
    VexQuill::HostedTable* table = nullptr;
    // What becomes of both contents: at the first mount, and at each one after it.
    Contents first = Contents::carried;
    Contents later = Contents::carried;
    std::function<void()> mounted;
    unsigned size = 0;
    bool mountedOnce = false;
    bool shared = false;
    double sharedSince = 0;
    double dueAt = 0;  // of the next try; never if none is wanted
    bool told = false;
  };

  void tableFailed(VexQuill::HostedTable& table, const Sable::Exception& failure) override;
  void tableInvalid(VexQuill::HostedTable& table) override;
  void timeout() override;

  Entry* find(const VexQuill::HostedTable& table);
  void share(Entry& entry, Contents contents);
  void localize(Entry& entry, Contents contents) noexcept;
  void retry(Entry& entry);
  void arm();
  void tell(Entry& entry, const std::string& reason);

  const Vex::Ptr<Ringward::Status::PacketCounter> counters_;
  const Vex::Ptr<Ringward::Status::IntfTotalsDir> totals_;
  const Vex::Ptr<Root> root_;
  bool configured_ = false;
  Counters configuration_;
  std::vector<Entry> entries_;
  std::unique_ptr<Sable::Platform::TimerControl> timer_;
};

}  // namespace Agent
