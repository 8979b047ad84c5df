// SPDX-License-Identifier: Apache-2.0
//
// Ringward::AttrLog::Session: one end of one connection that carries the attribute log, whatever
// moves its bytes. Both ends use it. Activity thread only.
//
// Its owner gives it the bytes that came (bytesIn(), or frame by frame frameIn()), takes the bytes
// that wait (output(), outputDel()), and ends the connection when a call raises: what the peer sent
// is then no message of the log, and the entities are as they were. A new connection begins with a
// new Session; mirrors keep what they have until the peer has sent everything once more.
//
// rootIs() sends an entity and all below it; the peer applies them to an object of its own that it
// has named with mirrorIs(). Changes of the mirror go to the original, if the peer has the right:
// otherwise the peer hears why, and gets the original's value back. Sessions of one process may
// share entities: what came in by one goes out by the others.
//
// Frames of types from 16 on are the owner's own; they share the output with the log.
//
// Invariants:
//  1. At most Options::buffer bytes wait, or one frame if that is longer. A peer that does not read
//     costs nothing more: what it has missed is sent when it reads again.
//  2. No callback is made from within a handler of an adapter. A callback does not end the session,
//     and bytesIn() is not called from one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "model/attrlog/EntityType.h"

namespace Ringward::AttrLog {

class Session final : private Vex::NboAttrLog::Demuxer::Owner {
 public:
  // What the peer may do to our entities.
  enum class Access : std::uint8_t { readOnly, readWrite };

  struct Options {
    std::size_t buffer = std::size_t{256} * 1024;
    Access access = Access::readOnly;
    // For an owner that has handed the entities below its roots to others: a peer may change them
    // and may not put others in their place.
    bool childrenKept = false;
  };

  struct Callbacks {
    // Something waits in output() after nothing did.
    std::function<void()> outputReady;
    // A root of the peer stands: from now on the mirror follows it.
    std::function<void(std::string_view name, Vex::Entity& mirror)> mounted;
    // The first full transfer has come in.
    std::function<void()> synchronised;
    // A frame of the owner's own kind; `body` is good for the call. What it raises ends bytesIn().
    std::function<void(std::uint8_t type, std::span<const std::uint8_t> body)> frame;
    // The peer did not let a change of a mirror happen. `entity` is its full name here, empty if it
    // is gone.
    std::function<void(std::string_view entity, std::string_view reason)> refused;
    // A change could not be followed; one text for a log.
    std::function<void(std::string_view text)> trouble;
  };

  // What of this process's own holders may do to a mirror.
  enum class MirrorMode : std::uint8_t { readOnly, readWrite };

  explicit Session(Options options, Callbacks callbacks = {});
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;
  ~Session();

  // Announces an entity and streams it and all below it. Raises RangeException for a class that the
  // log does not know and for a name that it cannot carry, InternalException for an entity that the
  // session has already. The session holds a counted reference. The first time that output is taken
  // out and nothing is left to send, the peer is told that it is synchronised: name all roots
  // first.
  void rootIs(Vex::Entity& root);
  void rootIs(Vex::Entity& root, const EntityType& type);
  // What the peer announces under this entity's type and name is applied to it, and our own changes
  // are sent. In a read-only mirror a change raises ReadOnlyException in the adapter, which ends as
  // trouble(), and the peer is asked for its value. Raises as rootIs().
  void mirrorIs(Vex::Entity& root, MirrorMode mode = MirrorMode::readWrite);
  void mirrorIs(Vex::Entity& root, const EntityType& type, MirrorMode mode = MirrorMode::readWrite);

  Access access() const noexcept;
  // A peer may earn or lose the right to write while it is connected.
  void accessIs(Access access) noexcept;

  // Bytes of the stream, cut anywhere. Raises RangeException on rubbish; the connection is then to
  // be dropped.
  void bytesIn(std::span<const std::uint8_t> bytes);
  // One frame, for an owner that takes the stream apart itself.
  void frameIn(std::uint8_t type, std::span<const std::uint8_t> body);
  // The body of a frame of messages.
  void messageIn(std::span<const std::uint8_t> body);

  // What waits to be written, oldest first; whole frames, of which some bytes may be gone. Good
  // until the next call of anything that may add output.
  std::span<const std::uint8_t> output() const noexcept;
  void outputDel(std::size_t bytes);
  // A frame of the owner's own. False, and nothing done, while there is no room. Raises
  // RangeException for a type below 16 and for a body of 64 KiB or more.
  bool frameOut(std::uint8_t type, std::span<const std::uint8_t> body);

  // Whether the first full transfer has come in.
  bool isSynchronised() const noexcept { return synchronisedIn_; }
  // Whether nothing waits to be put into output().
  bool isSettled() const noexcept { return !demuxer_.hasWaiting() && !refusal_; }

 private:
  struct Mirror {
    Vex::StreamAdapter* adapter;
    bool mounted = false;
  };
  // A root of the peer's for which there is no mirror (yet).
  struct Orphan {
    std::string typeName;
    std::string name;
    Vex::EntityId id;
  };
  struct Refusal {
    Vex::EntityId id;
    Vex::AttributeId attribute;
    std::string reason;
  };

  void handleOrphan(std::string_view typeName, std::string_view name, Vex::EntityId id) override;
  void handleRefused(const Vex::StreamAdapter& adapter, Vex::AttributeId id) override;
  void handleNotificationException(const Vex::StreamAdapter& adapter, Vex::AttributeId id) override;
  void handleOutput() override;

  void mount(Mirror& mirror, const Vex::EntityId& id);
  void readRefused(std::span<const std::uint8_t> body);
  void sendControls();
  void continueOutput();

  const Callbacks callbacks_;
  Vex::NboAttrLog::Demuxer demuxer_;
  std::vector<std::uint8_t> input_;  // the beginning of a frame
  std::vector<Mirror> mirrors_;
  std::vector<Orphan> orphans_;
  std::optional<Refusal> refusal_;
  bool hasRoots_ = false;
  bool synchronisedOut_ = false;
  bool synchronisedIn_ = false;
  bool outputTold_ = false;
};

}  // namespace Ringward::AttrLog
