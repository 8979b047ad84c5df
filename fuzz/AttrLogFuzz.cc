// SPDX-License-Identifier: Apache-2.0
//
// Any bytes as a stream of the attribute log, into an end that has mirrors and roots of every
// class: it takes them or raises, and what it sends in answer is bounded and can be read by another
// end. Wherever it ends, and however often the peer's right changed on the way, no entity is left
// in a transfer.
//
// The input: one byte that says whether the peer may write at first (1), into what pieces the
// stream is cut (2 to 126: half of it; 0: none) and whether the right changes behind each (128),
// and the stream.
#include <algorithm>
#include <optional>

#include "fuzz/Input.h"
#include "model/attrlog/Session.h"
#include "model/config/Config.h"
#include "model/status/PacketCounter.h"
#include "model/status/Status.h"
#include "model/status/TransmitStatus.h"

namespace {

using Ringward::AttrLog::Session;

struct Entities {
  Vex::Ptr<Ringward::Config::Config> config = Ringward::Config::configFactory("config");
  Vex::Ptr<Ringward::Status::Status> status = Ringward::Status::statusFactory("status");
  Vex::Ptr<Ringward::Status::TransmitStatus> transmit =
      Ringward::Status::transmitStatusFactory("transmit");
  Vex::Ptr<Ringward::Status::PacketCounter> counter =
      Ringward::Status::packetCounterFactory("counter");

  Entities() = default;
  Entities(const Entities&) = delete;
  Entities& operator=(const Entities&) = delete;
  // What the peer has made to stay would otherwise count as lost.
  ~Entities() {
    for (Vex::Entity* const entity :
         {static_cast<Vex::Entity*>(config.get()), static_cast<Vex::Entity*>(status.get()),
          static_cast<Vex::Entity*>(transmit.get()), static_cast<Vex::Entity*>(counter.get())}) {
      entity->isNondestructingIs(false);
    }
    if (config->transmitConfig()) config->transmitConfig()->isNondestructingIs(false);
    if (config->globalIntfConfig()) config->globalIntfConfig()->isNondestructingIs(false);
    for (auto it = status->intfStatusIteratorConst(); it; ++it) {
      status->intfStatus(it.key())->isNondestructingIs(false);
    }
  }
};

// Whether a transfer that came in has left something in an entity.
bool isInTransfer(const Vex::Entity& entity) {
  for (std::size_t at = 0; at < Vex::Entity::kTransfers; ++at) {
    if (entity.vexTransferUnderWay(at)) return true;
  }
  return false;
}

template <class Coll>
bool hasMarks(const Coll& coll) {
  using Access = Vex::KeyedAccess<Coll>;
  for (auto key = Access::keyAfter(coll, nullptr); key; key = Access::keyAfter(coll, &*key)) {
    if (Access::member(coll, *key)->isZombie()) return true;
  }
  return false;
}

void requireAtRest(const Entities& entities) {
  Fuzz::require(!isInTransfer(*entities.config) && !isInTransfer(*entities.status) &&
                !isInTransfer(*entities.transmit) && !isInTransfer(*entities.counter));
  Fuzz::require(!hasMarks(entities.config->vlanEnabledColl()));
  Fuzz::require(!hasMarks(entities.config->intfExcludeColl()));
  Fuzz::require(!hasMarks(entities.status->intfStatusColl()));
  Fuzz::require(!hasMarks(entities.status->sysIntfExcludeColl()));
  Fuzz::require(!hasMarks(entities.transmit->highPriority()));
  Fuzz::require(!hasMarks(entities.transmit->regularPriority()));
}

void requireFrames(Fuzz::Bytes output) {
  while (!output.empty()) {
    Fuzz::require(output.size() > 4);
    const std::size_t length = std::size_t{output[0]} << 24 | std::size_t{output[1]} << 16 |
                               std::size_t{output[2]} << 8 | output[3];
    Fuzz::require(length >= 1 && length <= output.size() - 4);
    Fuzz::require(output[4] >= 1 && output[4] <= 3);
    output = output.subspan(4 + length);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t kBuffer = 4096;
  Fuzz::Input input({data, size});
  const auto how = input.number<std::uint8_t>();
  Fuzz::Exactly stream(input.takeAll());
  Entities entities;
  std::optional<Session> sut;
  sut.emplace(Session::Options{
      kBuffer, (how & 1) != 0 ? Session::Access::readWrite : Session::Access::readOnly});
  sut->mirrorIs(*entities.config);
  sut->mirrorIs(*entities.status);
  sut->rootIs(*entities.transmit);
  sut->rootIs(*entities.counter);
  const std::size_t cut = how / 2 % 64;
  const std::size_t piece = cut == 0 ? SIZE_MAX : cut;
  for (auto rest = std::span<const std::uint8_t>(stream.bytes()); !rest.empty();) {
    const auto part = rest.first(std::min(piece, rest.size()));
    rest = rest.subspan(part.size());
    try {
      sut->bytesIn(part);
    } catch (const Vex::RangeException&) {
      break;  // rubbish: the owner drops the connection
    }
    Fuzz::require(sut->output().size() <= kBuffer + std::size_t{2} * 1024);
    requireFrames(sut->output());
    sut->outputDel(sut->output().size());
    if ((how & 0x80) != 0) {
      sut->accessIs(sut->access() == Session::Access::readOnly ? Session::Access::readWrite
                                                               : Session::Access::readOnly);
    }
  }
  sut.reset();
  requireAtRest(entities);
  return 0;
}
