// SPDX-License-Identifier: Apache-2.0
#include "model/status/TransmitStatus.h"

namespace Ringward::Status {

void TransmitStatus::notifyIndex(const Attribute& attribute, std::uint32_t index) {
  notify(attribute.id, NotifyIndex{attribute.handler, index});
}

void TransmitStatus::enq(Attribute& attribute, const IntfAndVlan& value) {
  notifyIndex(attribute, attribute.queue.enq(value));
}

IntfAndVlan TransmitStatus::deq(Attribute& attribute) {
  auto begun = deqBegin(attribute);
  if (!begun) return {};
  begun->notification.tellRest();
  return begun->value;
}

std::optional<TransmitStatus::Dequeue> TransmitStatus::deqBegin(Attribute& attribute) {
  const auto member = attribute.queue.deq();
  if (!member) return std::nullopt;
  return Dequeue{member->value(),
                 {notifiees(), attribute.id, NotifyIndex{attribute.handler, member->vex_index()}}};
}

void TransmitStatus::is(Attribute& attribute, std::uint32_t index, const IntfAndVlan& value) {
  if (attribute.queue.doMemberIs(index, value)) notifyIndex(attribute, index);
}

void TransmitStatus::del(Attribute& attribute, std::uint32_t index) {
  if (attribute.queue.memberDel(index)) notifyIndex(attribute, index);
}

void TransmitStatus::delAll(Attribute& attribute) {
  while (const Queue::Member* head = attribute.queue.head()) del(attribute, head->vex_index());
}

void TransmitStatus::delPair(Attribute& attribute, const IntfAndVlan& pair) {
  const Queue::Member* match = attribute.queue.memberOf(pair);
  while (match != nullptr) {
    const std::uint32_t index = match->vex_index();
    del(attribute, index);
    match = attribute.queue.memberOf(pair, index);
  }
}

void TransmitStatus::pairDel(const IntfAndVlan& pair) {
  delPair(high_, pair);
  delPair(regular_, pair);
}

void TransmitStatus::highPriorityMetadataIs(const HighPriorityMetadata& metadata) {
  if (high_.queue.metadata() == metadata) return;
  high_.queue.metadataIs(metadata);
  notify(kHighPriorityMetadata, [](NotifieeConst& notifiee) { notifiee.onHighPriorityMetadata(); });
}

void TransmitStatus::regularPriorityMetadataIs(const RegularPriorityMetadata& metadata) {
  if (regular_.queue.metadata() == metadata) return;
  regular_.queue.metadataIs(metadata);
  notify(kRegularPriorityMetadata,
         [](NotifieeConst& notifiee) { notifiee.onRegularPriorityMetadata(); });
}

}  // namespace Ringward::Status
