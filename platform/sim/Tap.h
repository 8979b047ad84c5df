// SPDX-License-Identifier: Apache-2.0
//
// Platform::Sim::Tap: records what passes the ports of a Fabric, for tests and demonstrations.
// Activity thread only. Registers itself with the fabric, which must outlive it.
//
// A frame gives up to two records: when it leaves a port and when it arrives at the other end. A
// frame that waits in an egress is recorded when it is put there, with the time at which it leaves.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/sim/Fabric.h"

namespace Platform::Sim {

class Tap {
 public:
  struct Record {
    double time;  // seconds on the virtual clock
    std::string port;
    bool outgoing;
    FramePtr frame;
  };
  enum class Keep : std::uint8_t { everything, probes };

  explicit Tap(Fabric& fabric, Keep keep = Keep::everything);
  Tap(const Tap&) = delete;
  Tap& operator=(const Tap&) = delete;
  ~Tap();

  const std::vector<Record>& records() const noexcept { return records_; }
  // Those of one port and direction, in order.
  std::vector<Record> records(const std::string& port, bool outgoing) const;
  void clear() { records_.clear(); }
  // One line for each record: the time in hexadecimal floating point, so that equal texts mean
  // equal times, the port, the direction, the bytes.
  std::string toText() const;

 private:
  friend class Fabric;
  void record(double time, const Port& port, bool outgoing, const FramePtr& frame);

  Fabric& fabric_;
  const Keep keep_;
  std::vector<Record> records_;
};

}  // namespace Platform::Sim
