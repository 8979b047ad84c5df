// SPDX-License-Identifier: Apache-2.0
#include "agent/CounterTables.h"

#include <algorithm>
#include <cmath>
#include <exception>
#include <limits>
#include <utility>

#include "quill/Exceptions.h"
#include "runtime/vex/Entity.h"
#include "runtime/vex/LogService.h"

namespace Agent {

namespace {

constexpr double kNever = std::numeric_limits<double>::infinity();

const Vex::LogHandle RINGWARD_COUNTERS(
    "RINGWARD_COUNTERS", Vex::LogSeverity::warning,
    "The counters of table %s are kept in this process alone: %s",
    "Other processes cannot read them, or not all of them. Loops are found and broken as ever.",
    "End the other writer of the table, or make room and rights in its directory; the agent tries "
    "again every minute.",
    0.0, 1.0, 0);

const Vex::LogHandle RINGWARD_COUNTERS_SHARED("RINGWARD_COUNTERS_SHARED", Vex::LogSeverity::notice,
                                              "The counters of table %s can be read again",
                                              "What was in the way has gone.",
                                              Vex::NoActionRequired, 0.0, 1.0, 0);

}  // namespace

// The root of the tree in which the entities stand.
class CounterTables::Root final : public Vex::EntityOf<Root> {
 public:
  using NotifieeConst = Vex::Entity::NotifieeConst;
  static constexpr std::span<const Vex::AttributeInfo> kAttributes{};
  Root() : EntityOf("ringward") {}
};

CounterTables::CounterTables(Vex::Ptr<Ringward::Status::PacketCounter> counters,
                             Vex::Ptr<Ringward::Status::IntfTotalsDir> totals,
                             std::function<void()> totalsMounted)
    : counters_(std::move(counters)),
      totals_(std::move(totals)),
      root_(Vex::makePtr<Root>()),
      timer_(Sable::Platform::getTimerControl(*this)) {
  counters_->parentIs(root_.get());
  totals_->parentIs(root_.get());
  const auto newEntry = [this](VexQuill::HostedTable& table, Contents first, Contents later,
                               std::function<void()> mounted) {
    Entry entry;
    entry.table = &table;
    entry.first = first;
    entry.later = later;
    entry.mounted = std::move(mounted);
    entry.dueAt = kNever;
    entries_.push_back(std::move(entry));
    table.guardianIs(this);
  };
  newEntry(counters_->counterIntfMap(), Contents::carried, Contents::carried, nullptr);
  newEntry(counters_->counterVlanMap(), Contents::carried, Contents::carried, nullptr);
  // The totals go on from those of an earlier run. Later they are known better than any table does.
  newEntry(totals_->intfTotalsMap(), Contents::adopted, Contents::dropped,
           std::move(totalsMounted));
}

CounterTables::~CounterTables() {
  for (Entry& entry : entries_) entry.table->guardianIs(nullptr);
  totals_->parentIs(nullptr);
  counters_->parentIs(nullptr);
}

void CounterTables::configurationIs(const Counters& configuration) {
  if (configured_ && configuration == configuration_) return;
  configured_ = true;
  configuration_ = configuration;
  for (Entry& entry : entries_) {
    entry.size = entry.table == &counters_->counterVlanMap()
                     ? configuration.vlans
                     // One record more, for what is known of no interface.
                     : configuration.interfaces + (entry.mounted ? 1 : 0);
    entry.table->rootIs(configuration.root);
    entry.told = false;
    if (configuration.shared) {
      share(entry, entry.mountedOnce ? entry.later : entry.first);
    } else {
      entry.dueAt = kNever;
      localize(entry, Contents::carried);
    }
  }
  arm();
}

void CounterTables::share(Entry& entry, Contents contents) {
  try {
    entry.table->remount(false, entry.size, contents);
  } catch (const std::exception& failure) {
    entry.shared = false;
    entry.dueAt = Vex::now() + kRetryPause;
    const auto* const known = dynamic_cast<const Sable::Exception*>(&failure);
    tell(entry, known != nullptr ? known->msg() : failure.what());
    return;
  }
  entry.shared = true;
  entry.mountedOnce = true;
  entry.sharedSince = Vex::now();
  entry.dueAt = kNever;
  if (std::exchange(entry.told, false)) {
    Vex::log(RINGWARD_COUNTERS_SHARED, entry.table->fullName());
  }
  if (entry.mounted) entry.mounted();
}

void CounterTables::localize(Entry& entry, Contents contents) noexcept {
  entry.shared = false;
  try {
    entry.table->remount(true, entry.size, contents);
  } catch (const std::exception&) {
    // No memory. What is counted now is lost, and the next operation comes here again.
  }
}

void CounterTables::tableFailed(VexQuill::HostedTable& table, const Sable::Exception& failure) {
  Entry* const entry = find(table);
  if (entry == nullptr) return;
  const std::string reason = failure.msg();
  const bool damaged = dynamic_cast<const Quill::CorruptionDetectedException*>(&failure) != nullptr;
  // What a damaged table says is not to be believed: its counts begin anew.
  localize(*entry, damaged ? Contents::dropped : Contents::carried);
  if (!configuration_.shared) return;
  retry(*entry);
  tell(*entry, reason);
}

void CounterTables::tableInvalid(VexQuill::HostedTable& table) {
  Entry* const entry = find(table);
  if (entry == nullptr || !entry->shared) return;
  retry(*entry);
}

void CounterTables::retry(Entry& entry) {
  // A local table that fails too comes here with each count: that neither hastens the next try nor
  // puts it off.
  if (entry.dueAt != kNever) return;
  const double now = Vex::now();
  entry.dueAt = now - entry.sharedSince >= kRetryPause ? now : now + kRetryPause;
  arm();
}

void CounterTables::timeout() {
  for (Entry& entry : entries_) {
    if (entry.dueAt > Vex::now()) continue;
    // One that stands was found unsound: nothing of it is taken along.
    share(entry,
          entry.shared ? Contents::dropped : (entry.mountedOnce ? entry.later : entry.first));
  }
  arm();
}

void CounterTables::arm() {
  double next = kNever;
  for (const Entry& entry : entries_) next = std::min(next, entry.dueAt);
  if (std::isinf(next)) {
    timer_->cancel();
  } else {
    timer_->arm(std::max(0.0, next - Vex::now()));
  }
}

CounterTables::Entry* CounterTables::find(const VexQuill::HostedTable& table) {
  const auto at = std::find_if(entries_.begin(), entries_.end(),
                               [&](const Entry& entry) { return entry.table == &table; });
  return at != entries_.end() ? &*at : nullptr;
}

void CounterTables::tell(Entry& entry, const std::string& reason) {
  if (std::exchange(entry.told, true)) return;
  Vex::log(RINGWARD_COUNTERS, entry.table->fullName(), reason);
}

}  // namespace Agent
