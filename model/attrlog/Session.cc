// SPDX-License-Identifier: Apache-2.0
#include "model/attrlog/Session.h"

#include <algorithm>
#include <exception>
#include <utility>

namespace Ringward::AttrLog {

using Vex::StreamAdapter;
using Vex::NboAttrLog::FrameType;
using Vex::NboAttrLog::kFirstOtherFrame;
using Vex::NboAttrLog::kFrameHeaderSize;
using Vex::NboAttrLog::kMaxFrameLength;

namespace {
// Roots of the peer that nobody here has asked for are remembered up to this number.
constexpr std::size_t kMaxOrphans = 64;

const EntityType& typeOf(const Vex::Entity& root) {
  const EntityType* const type = modelEntityType(root);
  if (type == nullptr) {
    Vex::throwRangeException("entity " + root.fullName() +
                             " is of a class that the attribute log does not carry");
  }
  return *type;
}

std::uint32_t lengthAt(const std::uint8_t* bytes) {
  const std::uint32_t length = std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 |
                               std::uint32_t{bytes[2]} << 8 | bytes[3];
  if (length < 1 || length > kMaxFrameLength) {
    Vex::throwRangeException("frame length " + std::to_string(length) + " not allowed (1 to " +
                             std::to_string(kMaxFrameLength) + ")");
  }
  return length;
}
}  // namespace

Session::Session(Options options, Callbacks callbacks)
    : callbacks_(std::move(callbacks)),
      demuxer_(*this, Vex::makePtr<Vex::NboAttrLog::Out>(options.buffer)) {
  accessIs(options.access);
  demuxer_.childrenKeptIs(options.childrenKept);
}

Session::~Session() = default;

Session::Access Session::access() const noexcept {
  return demuxer_.peerMayWrite() ? Access::readWrite : Access::readOnly;
}

void Session::accessIs(Access access) noexcept {
  demuxer_.peerMayWriteIs(access == Access::readWrite);
}

void Session::rootIs(Vex::Entity& root) { rootIs(root, typeOf(root)); }

void Session::rootIs(Vex::Entity& root, const EntityType& type) {
  if (demuxer_.adapter(root) != nullptr) {
    Vex::throwInternalException("entity " + root.fullName() +
                                " travels on this connection already");
  }
  // Whether the peer may write is asked at each write.
  StreamAdapter& adapter = type.newAdapter(demuxer_, root, StreamAdapter::kReadOnly);
  hasRoots_ = true;
  try {
    adapter.doSerializeOrphan();
  } catch (...) {
    demuxer_.adapterDel(adapter);
    throw;
  }
  // Without the controls: that all has been sent is said after the last root.
  demuxer_.continueOutput();
}

void Session::mirrorIs(Vex::Entity& root, MirrorMode mode) { mirrorIs(root, typeOf(root), mode); }

void Session::mirrorIs(Vex::Entity& root, const EntityType& type, MirrorMode mode) {
  if (demuxer_.adapter(root) != nullptr) {
    Vex::throwInternalException("entity " + root.fullName() +
                                " travels on this connection already");
  }
  const std::uint32_t flags =
      StreamAdapter::kMirror | (mode == MirrorMode::readOnly ? StreamAdapter::kReadOnly : 0U);
  mirrors_.push_back({&type.newAdapter(demuxer_, root, flags)});
  const auto known = std::find_if(orphans_.begin(), orphans_.end(), [&](const Orphan& orphan) {
    return orphan.typeName == type.typeName && orphan.name == root.name().view();
  });
  if (known == orphans_.end()) return;
  const Vex::EntityId id = known->id;
  orphans_.erase(known);
  mount(mirrors_.back(), id);
  // What the peer sent of it has been passed over.
  mirrors_.back().adapter->askRemount();
  continueOutput();
}

void Session::handleOrphan(std::string_view typeName, std::string_view name, Vex::EntityId id) {
  for (Mirror& mirror : mirrors_) {
    if (mirror.adapter->typeName() == typeName && mirror.adapter->entity().name().view() == name) {
      return mount(mirror, id);
    }
  }
  if (orphans_.size() >= kMaxOrphans) {
    Vex::throwRangeException("more than " + std::to_string(kMaxOrphans) +
                             " roots that nobody asked for not allowed");
  }
  orphans_.push_back({std::string(typeName), std::string(name), id});
}

void Session::mount(Mirror& mirror, const Vex::EntityId& id) {
  demuxer_.idIs(*mirror.adapter, id);
  if (std::exchange(mirror.mounted, true) || !callbacks_.mounted) return;
  Vex::Entity& entity = mirror.adapter->entity();
  callbacks_.mounted(entity.name().view(), entity);
}

void Session::handleRefused(const StreamAdapter& adapter, Vex::AttributeId id) {
  // One at a time: a peer that goes on writing hears of it again when it has read this one.
  if (refusal_) return;
  refusal_ = Refusal{
      adapter.entityId(), id,
      "attribute " + std::string(adapter.entity().attributeString(id)) + " of " +
          std::string(adapter.typeName()) + " " + adapter.entity().fullName() +
          (demuxer_.peerMayWrite() ? " stays what it is" : " is read-only for this connection")};
  if (refusal_->reason.size() > Vex::ByteConnection::In::kMaxText) {
    refusal_->reason.resize(Vex::ByteConnection::In::kMaxText);
  }
}

void Session::handleNotificationException(const StreamAdapter& adapter, Vex::AttributeId id) {
  if (!callbacks_.trouble) return;
  std::string text = "attribute " + std::string(adapter.entity().attributeString(id)) + " of " +
                     adapter.entity().fullName() + ": ";
  try {
    throw;
  } catch (const std::exception& e) {
    text += e.what();
  } catch (...) {
    text += "unknown exception";
  }
  callbacks_.trouble(text);
}

void Session::handleOutput() {
  if (demuxer_.out()->empty() || std::exchange(outputTold_, true)) return;
  if (callbacks_.outputReady) callbacks_.outputReady();
}

void Session::continueOutput() {
  demuxer_.continueOutput();
  sendControls();
  handleOutput();
}

void Session::sendControls() {
  Vex::NboAttrLog::Out& out = *demuxer_.out();
  if (refusal_) {
    // Written where it is read: as the payload of a message without its header.
    Vex::NboAttrLog::Out body(0);
    body.nextEntityId(refusal_->id);
    body.nextU32(refusal_->attribute);
    body.nextString(refusal_->reason);
    if (!out.frameIs(static_cast<std::uint8_t>(FrameType::refused), body.output())) return;
    refusal_.reset();
  }
  if (hasRoots_ && !synchronisedOut_ && !demuxer_.hasWaiting()) {
    synchronisedOut_ = out.frameIs(static_cast<std::uint8_t>(FrameType::synchronised), {});
  }
}

void Session::bytesIn(std::span<const std::uint8_t> bytes) {
  while (!bytes.empty()) {
    if (input_.empty() && bytes.size() >= 4) {
      // The usual case: a whole frame is there and is read where it lies.
      const std::size_t size = 4 + std::size_t{lengthAt(bytes.data())};
      if (bytes.size() >= size) {
        const auto frame = bytes.first(size);
        bytes = bytes.subspan(size);
        frameIn(frame[4], frame.subspan(kFrameHeaderSize));
        continue;
      }
    }
    const std::size_t want = input_.size() < 4
                                 ? 4 - input_.size()
                                 : 4 + std::size_t{lengthAt(input_.data())} - input_.size();
    const std::size_t taken = std::min(want, bytes.size());
    input_.insert(input_.end(), bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(taken));
    bytes = bytes.subspan(taken);
    if (input_.size() < 4 || input_.size() < 4 + std::size_t{lengthAt(input_.data())}) continue;
    const std::vector<std::uint8_t> frame = std::exchange(input_, {});
    frameIn(frame[4], std::span(frame).subspan(kFrameHeaderSize));
  }
}

void Session::frameIn(std::uint8_t type, std::span<const std::uint8_t> body) {
  switch (type) {
    case static_cast<std::uint8_t>(FrameType::messages):
      return messageIn(body);
    case static_cast<std::uint8_t>(FrameType::refused):
      return readRefused(body);
    case static_cast<std::uint8_t>(FrameType::synchronised):
      Vex::ByteConnection::In(body).endIs();
      if (!std::exchange(synchronisedIn_, true) && callbacks_.synchronised) {
        callbacks_.synchronised();
      }
      return;
    default:
      if (type < kFirstOtherFrame) {
        Vex::throwRangeException("frame type " + std::to_string(type) + " not allowed");
      }
      if (callbacks_.frame) callbacks_.frame(type, body);
  }
}

void Session::messageIn(std::span<const std::uint8_t> body) {
  demuxer_.messagesIn(body);
  sendControls();
  handleOutput();
}

void Session::readRefused(std::span<const std::uint8_t> body) {
  Vex::ByteConnection::In in(body);
  const Vex::EntityId id = in.nextEntityId().seenByPeer();
  in.nextU32();
  const std::string_view reason = in.nextString();
  in.endIs();
  if (!callbacks_.refused) return;
  const StreamAdapter* const adapter = demuxer_.adapter(id);
  callbacks_.refused(adapter != nullptr ? adapter->entity().fullName() : std::string(), reason);
}

std::span<const std::uint8_t> Session::output() const noexcept { return demuxer_.out()->output(); }

void Session::outputDel(std::size_t bytes) {
  demuxer_.out()->outputDel(bytes);
  if (demuxer_.out()->empty()) outputTold_ = false;
  continueOutput();
}

bool Session::frameOut(std::uint8_t type, std::span<const std::uint8_t> body) {
  if (type < kFirstOtherFrame) {
    Vex::throwRangeException("frame type " + std::to_string(type) + " not allowed (16 to 255)");
  }
  if (!demuxer_.out()->frameIs(type, body)) return false;
  handleOutput();
  return true;
}

}  // namespace Ringward::AttrLog
