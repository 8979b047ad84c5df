// SPDX-License-Identifier: Apache-2.0
#include "platform/sim/Tap.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

namespace Platform::Sim {

Tap::Tap(Fabric& fabric, Keep keep) : fabric_(fabric), keep_(keep) {
  fabric_.taps_.push_back(this);
}

Tap::~Tap() { std::erase(fabric_.taps_, this); }

void Tap::record(double time, const Port& port, bool outgoing, const FramePtr& frame) {
  if (keep_ == Keep::probes && !isProbe(*frame)) return;
  records_.push_back({time, port.name(), outgoing, frame});
}

std::vector<Tap::Record> Tap::records(const std::string& port, bool outgoing) const {
  std::vector<Record> result;
  std::copy_if(records_.begin(), records_.end(), std::back_inserter(result),
               [&](const Record& r) { return r.port == port && r.outgoing == outgoing; });
  return result;
}

std::string Tap::toText() const {
  std::string text;
  for (const Record& r : records_) {
    char time[40];
    std::snprintf(time, sizeof time, "%a ", r.time);
    text += time;
    text += r.port;
    text += r.outgoing ? " out " : " in ";
    text += toHex(*r.frame);
    text += '\n';
  }
  return text;
}

}  // namespace Platform::Sim
