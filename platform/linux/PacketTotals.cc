// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/PacketTotals.h"

#include <algorithm>
#include <utility>

namespace Platform::Linux {

PacketTotals::PacketTotals(Vex::Ptr<Ringward::Status::IntfTotalsDir> dir,
                           std::function<PacketSocket::Statistics()> socket)
    : dir_(std::move(dir)),
      socket_(std::move(socket)),
      timer_(Sable::Platform::getTimerControl(*this)) {}

PacketTotals::~PacketTotals() {
  // What the socket alone knows may be more than was written, though no probe has come since.
  if (!changed_.empty() || socketTotals() != writtenSocket_) write();
}

PacketTotals::Counts& PacketTotals::countsIs(const Portus::IntfId& intfId) {
  auto at = counts_.find(intfId);
  if (at == counts_.end()) {
    if (counts_.size() >= mostInterfaces_) makeRoom();
    at = counts_.emplace(intfId, Counts(intfId)).first;
  }
  ++at->second.users_;
  at->second.used_ = true;
  return at->second;
}

bool PacketTotals::makeRoom() {
  const auto goesBefore = [](const Counts& left, const Counts& right) {
    if (left.used_ != right.used_) return right.used_;
    return left.used_ ? left.age_ < right.age_ : left.age_ > right.age_;
  };
  auto gone = counts_.end();
  for (auto at = counts_.begin(); at != counts_.end(); ++at) {
    if (at->second.users_ != 0) continue;
    if (gone == counts_.end() || goesBefore(at->second, gone->second)) gone = at;
  }
  if (gone == counts_.end()) return false;
  dir_->intfTotalsDel(gone->first);
  counts_.erase(gone);
  return true;
}

void PacketTotals::changed(Counts& counts) {
  counts.changed_ = true;
  changed_.push_back(counts.totals_.key);
  if (!timer_->armed()) timer_->arm(kWritePause);
}

void PacketTotals::sendFailed(const Portus::IntfId& intfId) {
  const auto at = counts_.find(intfId);
  if (at == counts_.end()) return;
  --at->second.totals_.probesSent;
  add(at->second, &IntfTotals::sendErrors);
}

void PacketTotals::write() {
  timer_->cancel();
  for (const Portus::IntfId& intfId : std::exchange(changed_, {})) {
    const auto at = counts_.find(intfId);
    if (at == counts_.end()) continue;
    at->second.changed_ = false;
    dir_->intfTotalsIs(at->second.totals_);
  }
  writtenSocket_ = socketTotals();
  dir_->intfTotalsIs(writtenSocket_);
}

PacketTotals::IntfTotals PacketTotals::socketTotals() const {
  const PacketSocket::Statistics now = socket_();
  IntfTotals record = earlierSocket_;
  record.foreignProbes += now.foreign;
  record.malformed += now.rejectedByRule;
  record.kernelDrops += now.kernelDrops;
  return record;
}

void PacketTotals::adopt(const IntfTotals& earlier) {
  if (!earlier.key) {
    earlierSocket_ += earlier;
    return;
  }
  const auto [at, isNew] = counts_.emplace(earlier.key, Counts(earlier.key));
  at->second.totals_ += earlier;
  if (isNew) at->second.age_ = ++age_;
}

void PacketTotals::handleTableMounted() {
  if (!std::exchange(mounted_, true)) {
    // All of them, beyond mostInterfaces() too, if the earlier run had more: one that is left out
    // would stay in the table and be written over from 0 once its interface comes.
    std::size_t most = 0;
    for (auto at = dir_->intfTotalsIteratorConst(); at; ++at) {
      adopt(at.value());
      if (at.key()) ++most;
    }
    // But what each of many runs adds before it gets the table must not pile up there.
    most = std::max(most, mostInterfaces_);
    while (counts_.size() > most && makeRoom()) {
    }
  }
  for (auto& [intfId, counts] : counts_) {
    if (!counts.changed_) {
      counts.changed_ = true;
      changed_.push_back(intfId);
    }
  }
  write();
}

}  // namespace Platform::Linux
