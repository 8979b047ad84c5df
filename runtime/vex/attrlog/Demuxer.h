// SPDX-License-Identifier: Apache-2.0
//
// Vex::NboAttrLog::Demuxer: one end of a connection as its stream adapters see it. It holds them,
// knows by which ids the peer calls their entities, gives each incoming message to the right one
// and lets those with something to send have their turn. Activity thread only.
//
// Ids: whoever announces an entity allots the next number of its own, from 2 on, and never takes
// one twice. A message about an entity that has gone meanwhile is dropped in silence; one about a
// number that was never announced is an error. An entity that both ends announce at once has two.
// Behind a new id follows all of the entity; whoever has to make an entity for an id that is not
// new asks for that.
//
// Changes that cross: each frame says how many frames its sender had taken in. A change by the peer
// of something that this end has changed and sent, and that the peer had not seen, is applied; then
// the end that has the original sends what stands now. So both ends agree once they are quiet.
//
// Invariants:
//  1. Each id refers to one adapter, an adapter has at most one id of each end.
//  2. At the peer's mercy are at most kMaxMembers members of one collection, kMaxEntities adapters.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <unordered_map>

#include "runtime/vex/attrlog/StreamAdapter.h"

namespace Vex::NboAttrLog {

class Demuxer {
 public:
  static constexpr std::uint32_t kMaxMembers = 1U << 20;
  static constexpr std::size_t kMaxEntities = 1U << 16;

  // What carries the connection is told.
  class Owner {
   public:
    // The peer has announced an entity without a parent.
    virtual void handleOrphan(std::string_view typeName, std::string_view name, EntityId id) = 0;
    // The peer wrote what it may not; it is to be told why.
    virtual void handleRefused(const StreamAdapter& adapter, AttributeId id) = 0;
    // An adapter raised while it followed a change; std::current_exception() is what.
    virtual void handleNotificationException(const StreamAdapter& adapter, AttributeId id) = 0;
    // Something waits to be sent; called from no handler of an adapter.
    virtual void handleOutput() = 0;

   protected:
    ~Owner() = default;
  };

  Demuxer(Owner& owner, Ptr<Out> out) noexcept : owner_(owner), out_(std::move(out)) {}
  Demuxer(const Demuxer&) = delete;
  Demuxer& operator=(const Demuxer&) = delete;
  ~Demuxer();

  Owner& owner() const noexcept { return owner_; }
  const Ptr<Out>& out() const noexcept { return out_; }
  // Whether the peer may change entities whose original is here.
  bool peerMayWrite() const noexcept { return peerMayWrite_; }
  void peerMayWriteIs(bool flag) noexcept { peerMayWrite_ = flag; }
  // Whether entity-valued attributes that have an entity keep it, whatever the peer may write.
  bool childrenKept() const noexcept { return childrenKept_; }
  void childrenKeptIs(bool flag) noexcept { childrenKept_ = flag; }

  // The adapter of an entity, of an id as this end sees it; null for none.
  StreamAdapter* adapter(const Entity& entity) const noexcept;
  StreamAdapter* adapter(const EntityId& id) const noexcept;
  // Takes an adapter in and registers it with its entity. Raises RangeException when the peer has
  // made too many.
  void adapterIs(Ptr<NotifieeConst> owned, StreamAdapter& adapter);
  // Lets an adapter and all below it go.
  void adapterDel(StreamAdapter& adapter);

  // Allots an id of this end.
  void newId(StreamAdapter& adapter);
  // The peer refers to an entity by this id (seen from here) for the first time or again. Raises
  // RangeException for an id that cannot be.
  void idIs(StreamAdapter& adapter, const EntityId& id);
  // Asked before an entity is made or replaced for an id that has come in: raises the
  // RangeException that idIs(), or adapterIs(), would raise afterwards. `present` is the entity
  // that has the place and stays, `leaving` the one that goes for it; null for none.
  void requireRoomFor(const EntityId& id, const Entity* present, const Entity* leaving) const;
  // True if no message has carried this id before.
  bool announcedIs(const EntityId& id);

  FlowOut& createFlowOut(StreamAdapter& adapter);
  // The transfer that is coming in for an entity.
  FlowIn* flowIn(const EntityId& id) const noexcept;
  FlowIn& flowInIs(StreamAdapter& adapter);
  void flowInDel(StreamAdapter& adapter) noexcept;

  void queuedIs(StreamAdapter& adapter, bool queued) noexcept;
  bool hasWaiting() const noexcept { return first_ != nullptr; }
  // Whether a change may go at once although others wait. Only so many between two steps of those
  // that wait: else changes that come faster than the peer reads would take all the room.
  bool goesAhead() noexcept {
    if (first_ == nullptr) return true;
    if (ahead_ == 0) return false;
    --ahead_;
    return true;
  }
  // Sends what waits, as far as there is room, and tells the owner of output.
  void continueOutput();

  // The body of a frame of messages. Raises what the adapters raise; the connection is then of no
  // more use.
  void messagesIn(std::span<const std::uint8_t> body);
  // How many of this end's frames the peer had taken in when it sent what is being handled.
  std::uint64_t peerReceived() const noexcept { return peerReceived_; }

 private:
  // Said before the peer heard of a newer id of this end, which is on its way and takes its place.
  static bool isOutdated(const EntityId& id, const StreamAdapter& adapter) noexcept;
  void read(std::span<const std::uint8_t> body);
  void dispatch(const MsgHeader& header, ByteConnection::In& payload);
  void readOrphan(const MsgHeader& header, ByteConnection::In& payload);

  struct Held {
    Ptr<NotifieeConst> owned;
    StreamAdapter* adapter;
  };

  Owner& owner_;
  const Ptr<Out> out_;
  bool peerMayWrite_ = false;
  bool childrenKept_ = false;
  bool sending_ = false;
  bool reading_ = false;
  std::unordered_map<const Entity*, Held> adapters_;
  std::unordered_map<std::uint64_t, StreamAdapter*> byId_;
  std::uint64_t nextNumber_ = kFirstEntityNumber;
  std::uint64_t peerNumber_ = 0;  // the largest that the peer has announced
  std::uint64_t peerReceived_ = 0;
  std::uint64_t framesIn_ = 0;
  static constexpr unsigned kMostAhead = 16;
  unsigned ahead_ = kMostAhead;
  StreamAdapter* first_ = nullptr;  // the queue of those that have something to send
  StreamAdapter* last_ = nullptr;
};

}  // namespace Vex::NboAttrLog
