// SPDX-License-Identifier: Apache-2.0
//
// Ringward::Status::TransmitStatus: the two queues of probes that wait to be sent, the work list
// between the transmitters and the scheduler. Given to the engine by the agent, outlives it.
// Activity thread only.
//
// Every operation notifies from inside the call. So an append in an unthrottled system has sent its
// probe before it returns, and taking the head lets the scheduler run again before the head's value
// is returned. For a scheduler that must not nest, DeqBegin takes the head and hands over both its
// value and its notification, to be delivered in pieces (Vex::SuspendableWalk).
#pragma once

#include <cstdint>
#include <optional>

#include "model/status/IntfAndVlan.h"
#include "runtime/vex/Description.h"
#include "runtime/vex/LinkQueue.h"

namespace Ringward::Status {

class TransmitStatus final : public Vex::EntityOf<TransmitStatus> {
 public:
  class NotifieeConst : public Vex::Entity::NotifieeConst {
   public:
    virtual void onHighPriorityMetadata() {}
    virtual void onHighPriority(std::uint32_t /*index*/) {}
    virtual void onHighPriorityvexImmediate() {}
    virtual void onHighPriority() {}
    virtual void onRegularPriorityMetadata() {}
    virtual void onRegularPriority(std::uint32_t /*index*/) {}
    virtual void onRegularPriorityvexImmediate() {}
    virtual void onRegularPriority() {}

   protected:
    NotifieeConst() noexcept = default;
  };
  static constexpr Vex::AttributeId kHighPriorityMetadata = 258;
  static constexpr Vex::AttributeId kHighPriority = 259;
  static constexpr Vex::AttributeId kRegularPriorityMetadata = 260;
  static constexpr Vex::AttributeId kRegularPriority = 261;
  static const std::span<const Vex::AttributeInfo> kAttributes;

  using Queue = Vex::LinkQueue<IntfAndVlan>;
  using VexHighPriority = Queue::Member;
  using VexRegularPriority = Queue::Member;
  using HighPriorityMetadata = Vex::LinkQueueMetadata;
  using RegularPriorityMetadata = Vex::LinkQueueMetadata;

  // The notification of one index of one queue.
  struct NotifyIndex {
    void (NotifieeConst::*handler)(std::uint32_t);
    std::uint32_t key;
    void operator()(NotifieeConst& notifiee) const { (notifiee.*handler)(key); }
  };
  // A head that has been taken, and its notification, of which nothing has been delivered yet. The
  // taker delivers all of it.
  struct Dequeue {
    IntfAndVlan value;
    Vex::SuspendableWalk<NotifieeConst, NotifyIndex> notification;
  };

  explicit TransmitStatus(const Vex::Name& name) : EntityOf(name) {}

  // Reading: members in queue order by head() and memberAfter(), by index, by value.
  const Queue& highPriority() const noexcept { return high_.queue; }
  const Queue& regularPriority() const noexcept { return regular_.queue; }

  // Appends and notifies the new index.
  void highPriorityEnq(const IntfAndVlan& value) { enq(high_, value); }
  void regularPriorityEnq(const IntfAndVlan& value) { enq(regular_, value); }
  // Takes the head, notifies its index and returns its value; for an empty queue the default value
  // and no notification.
  IntfAndVlan highPriorityDeq() { return deq(high_); }
  IntfAndVlan regularPriorityDeq() { return deq(regular_); }
  // Takes the head without notifying; none for an empty queue.
  std::optional<Dequeue> highPriorityDeqBegin() { return deqBegin(high_); }
  std::optional<Dequeue> regularPriorityDeqBegin() { return deqBegin(regular_); }

  // Inserts a member under an index or changes its value, and notifies; silent for an equal value.
  void highPriorityIs(std::uint32_t index, const IntfAndVlan& value) { is(high_, index, value); }
  void regularPriorityIs(std::uint32_t index, const IntfAndVlan& value) {
    is(regular_, index, value);
  }
  // Takes a member out wherever it stands and notifies; an absent index does nothing.
  void highPriorityDel(std::uint32_t index) { del(high_, index); }
  void regularPriorityDel(std::uint32_t index) { del(regular_, index); }
  void highPriorityDelAll() { delAll(high_); }
  void regularPriorityDelAll() { delAll(regular_); }

  // Takes out every request of one pair, first from the high queue and then from the regular one,
  // each from head to tail, notifying each index. Costs the matches and not the length of the
  // queues. Matches that a reaction appends behind the point reached go too.
  void pairDel(const IntfAndVlan& pair);

  const HighPriorityMetadata& highPriorityMetadata() const noexcept {
    return high_.queue.metadata();
  }
  void highPriorityMetadataIs(const HighPriorityMetadata& metadata);
  const RegularPriorityMetadata& regularPriorityMetadata() const noexcept {
    return regular_.queue.metadata();
  }
  void regularPriorityMetadataIs(const RegularPriorityMetadata& metadata);

 private:
  struct Attribute {
    Vex::AttributeId id;
    void (NotifieeConst::*handler)(std::uint32_t);
    Queue queue;
  };

  void notifyIndex(const Attribute& attribute, std::uint32_t index);
  void enq(Attribute& attribute, const IntfAndVlan& value);
  IntfAndVlan deq(Attribute& attribute);
  std::optional<Dequeue> deqBegin(Attribute& attribute);
  void is(Attribute& attribute, std::uint32_t index, const IntfAndVlan& value);
  void del(Attribute& attribute, std::uint32_t index);
  void delAll(Attribute& attribute);
  void delPair(Attribute& attribute, const IntfAndVlan& pair);

  Attribute high_{kHighPriority, &NotifieeConst::onHighPriority, {}};
  Attribute regular_{kRegularPriority, &NotifieeConst::onRegularPriority, {}};
};

// Makes an entity that nobody owns yet.
inline Vex::Ptr<TransmitStatus> transmitStatusFactory(const Vex::Name& name) {
  return Vex::makePtr<TransmitStatus>(name);
}

}  // namespace Ringward::Status

template <>
struct Vex::Description<Ringward::Status::TransmitStatus> {
  using Class = Ringward::Status::TransmitStatus;
  static constexpr std::string_view kTypeName = "Ringward::Status::TransmitStatus";
  static constexpr auto kAttributes = std::tuple(
      Vex::Scalar{Class::kHighPriorityMetadata, "highPriorityMetadata",
                  &Class::highPriorityMetadata, &Class::highPriorityMetadataIs},
      Vex::Queue{Class::kHighPriority, "highPriority", &Class::highPriority, &Class::highPriorityIs,
                 &Class::highPriorityDel, &Class::highPriorityEnq, &Class::highPriorityDeq},
      Vex::Scalar{Class::kRegularPriorityMetadata, "regularPriorityMetadata",
                  &Class::regularPriorityMetadata, &Class::regularPriorityMetadataIs},
      Vex::Queue{Class::kRegularPriority, "regularPriority", &Class::regularPriority,
                 &Class::regularPriorityIs, &Class::regularPriorityDel, &Class::regularPriorityEnq,
                 &Class::regularPriorityDeq});
};

inline constexpr std::span<const Vex::AttributeInfo> Ringward::Status::TransmitStatus::kAttributes =
    Vex::attributeInfos<Ringward::Status::TransmitStatus>;
