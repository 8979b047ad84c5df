// SPDX-License-Identifier: Apache-2.0
//
// Platform::Linux::PacketTotals: what the packet access has sent and received, per interface, kept
// in this process and written to a table of the store once in a while. Activity thread only; the
// loop that is current when it is made must outlive it.
//
// Invariants:
//  1. A probe or frame costs an addition: what has changed is written together, kWritePause after
//     the first change, and then no sooner than after the next one. An idle system writes nothing.
//  2. No count falls while this lives, whatever becomes of the table. What a table that is mounted
//     for the first time says of an earlier run is where the counts go on from.
//  3. Entries and records are no more than mostInterfaces(), or what an earlier run has left, and
//     those with packet access. Who needs room takes the place of one without, and of no more than
//     one: first of those that have had none in this run, the last adopted before the others, then
//     of the one without for longest.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <unordered_map>
#include <vector>

#include "model/status/IntfTotalsDir.h"
#include "platform/linux/PacketSocket.h"
#include "runtime/sable/Platform.h"

namespace Platform::Linux {

class PacketTotals final : private Sable::Platform::TimeoutHandler {
 public:
  using IntfTotals = Ringward::Status::IntfTotals;

  // Seconds by which a table may be behind, and what is lost when the process is killed. The
  // socket's own record is as old as the last writing, however long ago that was: nobody is told
  // when one of its counts changes, and to look for it would wake an idle system.
  static constexpr double kWritePause = 1.0;

  // One interface's counts. Good as long as it is used (countsIs()).
  class Counts {
   public:
    explicit Counts(const Portus::IntfId& intfId) { totals_.key = intfId; }
    const IntfTotals& totals() const noexcept { return totals_; }

   private:
    friend class PacketTotals;
    IntfTotals totals_;
    bool changed_ = false;
    unsigned users_ = 0;
    bool used_ = false;      // in this run
    std::uint64_t age_ = 0;  // rises with each adoption and each end of packet access
  };

  // `socket` gives the packet socket's own counts, which belong to no interface.
  PacketTotals(Vex::Ptr<Ringward::Status::IntfTotalsDir> dir,
               std::function<PacketSocket::Statistics()> socket);
  // Writes what has not been written.
  ~PacketTotals();

  void mostInterfacesIs(std::size_t most) noexcept { mostInterfaces_ = most; }

  // The counts of an interface that has packet access from now on, until countsDel().
  Counts& countsIs(const Portus::IntfId& intfId);
  void countsDel(Counts& counts) noexcept {
    if (--counts.users_ == 0) counts.age_ = ++age_;
  }

  void sent(Counts& counts) { add(counts, &IntfTotals::probesSent); }
  // One of sent() that came to nothing after all. An interface that is not there any more: nothing.
  void sendFailed(const Portus::IntfId& intfId);
  void received(Counts& counts, bool valid) {
    add(counts, valid ? &IntfTotals::probesReceived : &IntfTotals::malformed);
  }

  // Another table stands behind the directory.
  void handleTableMounted();
  // Writes what has changed, now.
  void write();

 private:
  void add(Counts& counts, std::uint64_t IntfTotals::*count) {
    ++(counts.totals_.*count);
    if (!counts.changed_) changed(counts);
  }
  void changed(Counts& counts);
  void adopt(const IntfTotals& earlier);
  // The record of the packet socket as it is now.
  IntfTotals socketTotals() const;
  // Removes one entry and its record; whether there was one without packet access.
  bool makeRoom();
  void timeout() override { write(); }

  const Vex::Ptr<Ringward::Status::IntfTotalsDir> dir_;
  const std::function<PacketSocket::Statistics()> socket_;
  std::size_t mostInterfaces_ = 256;
  std::unordered_map<Portus::IntfId, Counts> counts_;
  std::vector<Portus::IntfId> changed_;
  IntfTotals earlierSocket_;  // what earlier runs have counted
  IntfTotals writtenSocket_;  // as the table has it
  bool mounted_ = false;      // a table has been mounted before
  std::uint64_t age_ = 0;     // the last one given
  std::unique_ptr<Sable::Platform::TimerControl> timer_;
};

}  // namespace Platform::Linux
