// SPDX-License-Identifier: Apache-2.0
//
// Any bytes as a stream of the attribute log, into an end that has mirrors and roots of every
// class: it takes them or raises, and what it sends in answer is bounded and can be read by another
// end.
//
// The input: one byte that says whether the peer may write and how the stream is cut, the stream.
#include <algorithm>

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
  Session sut({kBuffer, (how & 1) != 0 ? Session::Access::readWrite : Session::Access::readOnly});
  sut.mirrorIs(*entities.config);
  sut.mirrorIs(*entities.status);
  sut.rootIs(*entities.transmit);
  sut.rootIs(*entities.counter);
  const std::size_t piece = how / 2 == 0 ? SIZE_MAX : how / 2;
  for (auto rest = std::span<const std::uint8_t>(stream.bytes()); !rest.empty();) {
    const auto part = rest.first(std::min(piece, rest.size()));
    rest = rest.subspan(part.size());
    try {
      sut.bytesIn(part);
    } catch (const Vex::RangeException&) {
      return 0;  // rubbish: the owner drops the connection
    }
    Fuzz::require(sut.output().size() <= kBuffer + std::size_t{2} * 1024);
    requireFrames(sut.output());
    sut.outputDel(sut.output().size());
  }
  return 0;
}
