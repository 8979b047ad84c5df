// SPDX-License-Identifier: Apache-2.0
//
// Vex::StreamAdapter: the half of an entity's stream adapter that is the same for all classes, and
// what belongs to it: its word of flags, its flow out (what waits to be sent) and its flow in (a
// transfer that is coming). The other half is the template in model/attrlog/VexNboAttrLogSa.h.
// Activity thread only. Owned by the Demuxer of its connection, which it leaves before it dies.
//
// Invariants:
//  1. One adapter for each pair of connection and entity.
//  2. The handler-active flag is down whenever no handler of the adapter is on the stack.
//  3. An adapter sends only after the peer has been told of its entity (it has an id).
//  4. An attribute that could not be sent is dirty, and an adapter with a dirty attribute stands in
//     its connection's queue.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "runtime/vex/Entity.h"
#include "runtime/vex/attrlog/MsgHeader.h"
#include "runtime/vex/attrlog/Out.h"

namespace Vex {

namespace NboAttrLog {
class Demuxer;

// A bit for each attribute of a class, by its position in the class.
class VexDirtyBitSet0 {
 public:
  static constexpr std::size_t kBits = 32;
  bool has(std::size_t position) const noexcept { return (bits_ >> position & 1U) != 0; }
  void bitIs(std::size_t position, bool flag) noexcept {
    const std::uint32_t bit = std::uint32_t{1} << position;
    bits_ = flag ? bits_ | bit : bits_ & ~bit;
  }
  bool any() const noexcept { return bits_ != 0; }
  void clear() noexcept { bits_ = 0; }

 private:
  std::uint32_t bits_ = 0;
};

// What an entity has waiting for its connection. The class's own half adds where the transfer of
// each collection stands.
class FlowOut {
 public:
  virtual ~FlowOut() = default;
  bool hasDirtyAttributes() const noexcept { return dirty_.any(); }
  VexDirtyBitSet0& dirtyBits() noexcept { return dirty_; }
  // Of those, what the peer is waiting for: it was told of a new id, behind which all of the entity
  // follows, or has asked, or wrote what does not stand. The others are changes of this end.
  bool isOwed(std::size_t position) const noexcept { return owed_.has(position); }
  void owedIs(std::size_t position) noexcept {
    dirty_.bitIs(position, true);
    owed_.bitIs(position, true);
  }
  // The attribute has been sent, or needs to be no more.
  void doneIs(std::size_t position) noexcept {
    dirty_.bitIs(position, false);
    owed_.bitIs(position, false);
  }
  void allDone() noexcept {
    dirty_.clear();
    owed_.clear();
  }
  // Transfers that were begun and will not be ended; the peer is told before anything else.
  VexDirtyBitSet0& pendingAborts() noexcept { return aborts_; }
  // The position of the attribute that went last: the others have their turn before it goes again.
  std::size_t latest() const noexcept { return latest_; }
  void latestIs(std::size_t position) noexcept { latest_ = position; }
  // A transfer has ended and has to be made once more: other entities have their turn before that.
  bool yields() const noexcept { return yields_; }
  void yieldsIs(bool flag) noexcept { yields_ = flag; }

 private:
  VexDirtyBitSet0 dirty_;
  VexDirtyBitSet0 owed_;
  VexDirtyBitSet0 aborts_;
  std::size_t latest_ = SIZE_MAX;  // so that the first is the first
  bool yields_ = false;
};

// The transfer of an attribute that is coming in.
class FlowIn {
 public:
  AttributeId aid() const noexcept { return aid_; }
  void aidIs(AttributeId id) noexcept { aid_ = id; }
  // The end of the transfer is being carried out.
  bool handlingTransaction() const noexcept { return handlingTransaction_; }
  void handlingTransactionIs(bool flag) noexcept { handlingTransaction_ = flag; }
  // How many of this end's frames the sender had taken in when it began.
  std::uint64_t peerReceived() const noexcept { return peerReceived_; }
  void peerReceivedIs(std::uint64_t frames) noexcept { peerReceived_ = frames; }
  // Whether the marks of the members are this transfer's.
  bool ownsMarks() const noexcept { return ownsMarks_; }
  void ownsMarksIs(bool flag) noexcept { ownsMarks_ = flag; }

 private:
  AttributeId aid_ = 0;
  bool handlingTransaction_ = false;
  bool ownsMarks_ = false;
  std::uint64_t peerReceived_ = 0;
};
}  // namespace NboAttrLog

// A change of an entity that its holder may only read.
class ReadOnlyException : public Exception {
 public:
  explicit ReadOnlyException(std::string text) : Exception(std::move(text), 4) {}
};

class StreamAdapter {
 public:
  enum Flag : std::uint32_t {
    kReadOnly = 1,          // its holder may not change the entity, see convertedToWritable()
    kHandlerActive = 2,     // a handler of this adapter is on the stack
    kFlowOutPresent = 4,    // there is a FlowOut
    kTransferUnderWay = 8,  // the parent's transfer of the attribute that holds this entity
    kMirror = 16,           // the peer has the original
    kQueued = 32,           // stands in the connection's queue
    kAnnounce = 64,         // the peer has yet to be told of this root
    kRemount = 128,         // all of the entity goes once more behind its next mention
  };
  // What an adapter does with changes: nothing, or sends them.
  enum class SyncMode : std::uint8_t { off, on };

  // Raises the handler-active flag and takes it down on every way out.
  class Anchor {
   public:
    explicit Anchor(StreamAdapter& adapter) noexcept : adapter_(adapter) {
      adapter_.flagIs(kHandlerActive, true);
    }
    Anchor(const Anchor&) = delete;
    Anchor& operator=(const Anchor&) = delete;
    ~Anchor() { adapter_.flagIs(kHandlerActive, false); }

   private:
    StreamAdapter& adapter_;
  };

  StreamAdapter(const StreamAdapter&) = delete;
  StreamAdapter& operator=(const StreamAdapter&) = delete;

  bool flag(Flag which) const noexcept { return (flags_ & which) != 0; }
  void flagIs(Flag which, bool on) noexcept { flags_ = on ? flags_ | which : flags_ & ~which; }
  std::uint32_t inheritedFlags() const noexcept { return flags_ & (kReadOnly | kMirror); }

  virtual Entity& entity() const noexcept = 0;
  virtual NotifieeConst& notifiee() noexcept = 0;
  virtual std::string_view typeName() const noexcept = 0;

  // The ids under which the peer knows the entity, from this end's view: one that this end allotted
  // and one that the peer did. Null for none.
  const EntityId& ownId() const noexcept { return ownId_; }
  const EntityId& peerId() const noexcept { return peerId_; }
  // What stands in messages: the one that was mentioned latest. The peer may have replaced its
  // object meanwhile, and knows the new one by no other.
  const EntityId& entityId() const noexcept { return latestId_; }

  SyncMode syncMode() const noexcept { return syncMode_; }
  void syncModeIs(SyncMode mode) noexcept { syncMode_ = mode; }
  const Ptr<NboAttrLog::Out>& nboAttrLogOut() const noexcept;

  NboAttrLog::FlowOut* flowOut() const noexcept { return flowOut_.get(); }
  // With `connect` the adapter joins the queue of those that have something to send.
  void flowOutIs(std::unique_ptr<NboAttrLog::FlowOut> flowOut, bool connect);
  virtual std::unique_ptr<NboAttrLog::FlowOut> newFlowOut() const = 0;
  NboAttrLog::FlowIn* flowIn() const noexcept { return flowIn_.get(); }

  // Announces an entity that has no parent in the stream, then streams it. Without room it is
  // announced later.
  void doSerializeOrphan();
  // Everything of the entity is to be sent: once more from the beginning if a part of it is on its
  // way. doRemountSelf() includes all entities below.
  virtual void doThis() = 0;
  virtual void doRemountSelf(NboAttrLog::Out& out) = 0;
  // Forgets what waits to be sent and where transfers stand.
  virtual void freeResyncState(NboAttrLog::FlowOut& flowOut) = 0;
  // Lets go of the adapters of the entities below.
  virtual void childrenDel() = 0;

  // Asks the peer to send the entity and all below it from the beginning.
  void askRemount();

  // Sends what waits, as far as there is room. `later`: others are to have their turn first.
  enum class Sent : std::uint8_t { all, noRoom, later };
  Sent sendWaiting();
  // Sends an attribute from the entity's present state. An id of nobody raises RangeException.
  virtual void handleAttrFlowOut(AttributeId id);
  // Reads the body of one message and applies it. Raises RangeException for anything but a message
  // that the entity has; the entity is then as it was. Raises InternalException "entity reactor is
  // already active" for a call from within another one.
  virtual void handleAttrDeserialization(std::int32_t id, std::uint32_t options, std::size_t length,
                                         ByteConnection::In& in);
  virtual void handleAttrTransaction(AttributeId id, NboAttrLog::Transaction type,
                                     std::uint32_t count);

 protected:
  StreamAdapter(NboAttrLog::Demuxer& demuxer, std::uint32_t flags) noexcept
      : flags_(flags), demuxer_(&demuxer) {}
  virtual ~StreamAdapter() = default;

  // Whether a change that is noticed belongs to what is coming in.
  bool handlingFlowInFor(AttributeId id) const noexcept {
    return handlingId_ == id ||
           (flowIn_ != nullptr && flowIn_->handlingTransaction() && flowIn_->aid() == id);
  }
  // Whether the peer may change the attribute of a read-only entity: that of a mirror, whose
  // original it has.
  bool readOnlyRemoteOk(AttributeId /*id*/) const noexcept { return flag(kMirror); }
  // Whether a read-only entity may be changed all the same: by the peer, if the connection has come
  // by the right meanwhile; by this process, if the entity is its own.
  bool convertedToWritable(bool remote) const noexcept;
  [[noreturn]] void doThrowReadOnly(std::string_view attribute) const;
  // Whether an attribute may go at once although others wait, or there is no room. If not, the
  // adapter has joined the queue.
  bool prepareImmediateTransmission(AttributeId id, bool insufficient);
  // Whether a transfer may go on.
  bool continueFlowOut() const noexcept {
    const NboAttrLog::Out& out = *nboAttrLogOut();
    return out.hasSufficientBuffer(NboAttrLog::Out::kMessageRoom + out.reserve());
  }
  void sendTransactionMarker(AttributeId id, NboAttrLog::Transaction type, std::uint32_t count);
  NboAttrLog::FlowOut& makeFlowOut();
  void askResend(std::size_t position);

  // The attribute at a position of the class; 0 is isNondestructing.
  virtual AttributeId attributeAt(std::size_t position) const noexcept = 0;
  virtual std::size_t attributeCount() const noexcept = 0;
  // Which dirty attribute goes next.
  virtual std::size_t nextDirty() const noexcept = 0;
  // The peer asks for an attribute again.
  virtual void resendAll(AttributeId id) = 0;
  // Takes the marks of a transfer that came to nothing off again.
  virtual void marksDel(AttributeId id) noexcept = 0;

  // The change that is being applied: its attribute (0 for none) and the address of its key.
  class Handling {
   public:
    Handling(StreamAdapter& adapter, AttributeId id, const void* key) noexcept : adapter_(adapter) {
      adapter_.handlingId_ = id;
      adapter_.handlingKey_ = key;
    }
    Handling(const Handling&) = delete;
    Handling& operator=(const Handling&) = delete;
    ~Handling() {
      adapter_.handlingId_ = 0;
      adapter_.handlingKey_ = nullptr;
    }

   private:
    StreamAdapter& adapter_;
  };
  AttributeId handlingId() const noexcept { return handlingId_; }
  const void* handlingKey() const noexcept { return handlingKey_; }
  NboAttrLog::Demuxer* demuxer() const noexcept { return demuxer_; }

 private:
  friend class NboAttrLog::Demuxer;

  // False for want of room.
  bool sendResend(AttributeId id);

  std::uint32_t flags_;
  SyncMode syncMode_ = SyncMode::off;
  AttributeId handlingId_ = 0;
  const void* handlingKey_ = nullptr;
  EntityId ownId_;
  EntityId peerId_;
  EntityId latestId_;
  NboAttrLog::Demuxer* demuxer_;  // null once the adapter has left its connection
  std::unique_ptr<NboAttrLog::FlowOut> flowOut_;
  std::unique_ptr<NboAttrLog::FlowIn> flowIn_;
  NboAttrLog::VexDirtyBitSet0 wanted_;  // what the peer is to be asked for again
  bool remountWanted_ = false;
  StreamAdapter* previous_ = nullptr;  // in the queue
  StreamAdapter* next_ = nullptr;
};

}  // namespace Vex
