// SPDX-License-Identifier: Apache-2.0
//
// One entity of each root class, a way to change them at random, and their whole state as text.
#pragma once

#include <array>
#include <cstdio>
#include <random>
#include <string>

#include "engine/VlanSet.h"
#include "model/attrlog/EntityTypeOf.h"
#include "model/attrlog/Session.h"
#include "model/config/Config.h"
#include "model/status/PacketCounter.h"
#include "model/status/Status.h"
#include "model/status/TransmitStatus.h"

namespace AttrLogTest {

inline Portus::IntfId intf(unsigned number) {
  return Portus::IntfId::fromName("eth" + std::to_string(number));
}

// The bytes of a value in the log: equal for equal values.
template <class Value>
std::string bytesOf(const Value& value) {
  const auto out = Vex::makePtr<Vex::NboAttrLog::Out>(4096U);
  out << value;
  std::string text;
  for (const std::uint8_t byte : out->output()) {
    std::array<char, 3> digits{};
    std::snprintf(digits.data(), digits.size(), "%02x", byte);
    text += digits.data();
  }
  return text;
}

// Everything that an entity and those below it say, in the order of the descriptions.
template <class Class>
std::string textOf(const Class& entity, const std::string& indent = {}) {
  std::string text = indent + std::string(Ringward::AttrLog::Logged<Class>::kTypeName) + " '" +
                     entity.name().str() + "' nondestructing " +
                     std::to_string(entity.isNondestructing()) + "\n";
  Vex::forEachAttribute<Class>([&](const auto& a) {
    using Attribute = std::remove_cvref_t<decltype(a)>;
    text += indent + "  " + std::string(a.name);
    if constexpr (Attribute::kind == Vex::AttributeKind::plain) {
      text += " " + bytesOf(std::invoke(a.get, entity)) + "\n";
    } else if constexpr (Attribute::kind == Vex::AttributeKind::ownedChild) {
      const auto& child = std::invoke(a.get, entity);
      text += child ? "\n" + textOf(*child, indent + "    ") : " none\n";
    } else {
      const auto& coll = std::invoke(a.coll, entity);
      using Access = Vex::KeyedAccess<std::remove_cvref_t<decltype(coll)>>;
      text += " " + std::to_string(Access::members(coll)) + "\n";
      for (auto key = Access::keyAfter(coll, nullptr); key; key = Access::keyAfter(coll, &*key)) {
        text += indent + "    " + bytesOf(*key);
        if constexpr (Attribute::kind == Vex::AttributeKind::members) {
          text += "\n" + textOf(*Access::find(coll, *key), indent + "      ");
        } else {
          text += " " + bytesOf(*Access::find(coll, *key)) + "\n";
        }
      }
    }
  });
  return text;
}

struct Trees {
  Vex::Ptr<Ringward::Config::Config> config = Ringward::Config::configFactory("config");
  Vex::Ptr<Ringward::Status::Status> status = Ringward::Status::statusFactory("status");
  Vex::Ptr<Ringward::Status::TransmitStatus> transmit =
      Ringward::Status::transmitStatusFactory("transmit");
  Vex::Ptr<Ringward::Status::PacketCounter> counter =
      Ringward::Status::packetCounterFactory("counter");
  Vex::Ptr<Ringward::VlanSet> vlans = Ringward::vlanSetFactory(intf(1));

  Trees() = default;
  Trees(const Trees&) = delete;
  Trees& operator=(const Trees&) = delete;
  // A nondestructing entity would outlive the test.
  ~Trees() {
    config->isNondestructingIs(false);
    status->isNondestructingIs(false);
    transmit->isNondestructingIs(false);
    counter->isNondestructingIs(false);
    vlans->isNondestructingIs(false);
  }

  void rootsOf(Ringward::AttrLog::Session& session) {
    session.rootIs(*config);
    session.rootIs(*status);
    session.rootIs(*transmit);
    session.rootIs(*counter);
    session.rootIs(*vlans, Ringward::AttrLog::entityTypeOf<Ringward::VlanSet>);
  }
  void mirrorsOf(Ringward::AttrLog::Session& session) {
    session.mirrorIs(*config);
    session.mirrorIs(*status);
    session.mirrorIs(*transmit);
    session.mirrorIs(*counter);
    session.mirrorIs(*vlans, Ringward::AttrLog::entityTypeOf<Ringward::VlanSet>);
  }
  std::string text() const {
    return textOf(*config) + textOf(*status) + textOf(*transmit) + textOf(*vlans) +
           "counter nondestructing " + std::to_string(counter->isNondestructing()) + "\n";
  }
};

class Random {
 public:
  explicit Random(unsigned seed) : source_(seed) {}
  std::uint32_t operator()() { return static_cast<std::uint32_t>(source_()); }

 private:
  std::mt19937 source_;
};

inline unsigned below(Random& random, unsigned limit) { return random() % limit; }

inline void changeConfig(Ringward::Config::Config& config, Random& random) {
  const bool flag = below(random, 2) != 0;
  const Bridging::VlanId vlan(1 + below(random, 12));
  switch (below(random, 12)) {
    case 0:
      return config.globalEnabledIs(flag);
    case 1:
    case 2:
      return config.vlanEnabledIs(vlan, flag);
    case 3:
      return config.vlanEnabledDel(vlan);
    case 4:
      return config.intfExcludeIs(intf(below(random, 12)), flag);
    case 5:
      return config.intfExcludeDel(intf(below(random, 12)));
    case 6:
      config.transmitConfigIs(flag ? "one" : "two");
      return;
    case 7:
      config.globalIntfConfigIs(flag ? "one" : "two");
      return;
    case 8:
      return flag ? config.transmitConfigDel() : config.globalIntfConfigDel();
    case 9:
      if (config.transmitConfig()) config.transmitConfig()->rateLimitIs(random());
      return;
    case 10:
      if (config.globalIntfConfig()) {
        config.globalIntfConfig()->transmitIntervalIs(static_cast<std::uint8_t>(random()));
        config.globalIntfConfig()->disabledTimeIs(random());
      }
      return;
    default:
      return config.clearCountersIs(random());
  }
}

inline void changeStatus(Ringward::Status::Status& status, Random& random) {
  const bool flag = below(random, 2) != 0;
  const Portus::IntfId id = intf(below(random, 8));
  switch (below(random, 9)) {
    case 0:
      return status.srcAddrIs(
          Portus::EthAddr(2, 0, 0, 0, 0, static_cast<std::uint8_t>(below(random, 256))));
    case 1:
      return status.aggressiveDisableIs(flag);
    case 2:
      return status.sysIntfExcludeIs(id, flag);
    case 3:
      return status.sysIntfExcludeDel(id);
    case 4:
      return status.runningIs(flag);
    case 5:
      return status.intfStatusDel(id);
    case 6:
      status.intfStatusIs(id);
      return;
    default: {
      const auto member = status.intfStatusIs(id);
      member->disabledIs(flag);
      member->disabledAtIs(below(random, 1000));
      member->disabledUntilIs(below(random, 1000));
    }
  }
}

inline void changeTransmit(Ringward::Status::TransmitStatus& transmit, Random& random) {
  const Ringward::Status::IntfAndVlan pair{intf(below(random, 4)),
                                           Bridging::VlanId(1 + below(random, 4))};
  switch (below(random, 8)) {
    case 0:
    case 1:
      return transmit.highPriorityEnq(pair);
    case 2:
      transmit.highPriorityDeq();
      return;
    case 3:
    case 4:
      return transmit.regularPriorityEnq(pair);
    case 5:
      transmit.regularPriorityDeq();
      return;
    case 6:
      return transmit.pairDel(pair);
    default:
      if (const auto* const tail = transmit.regularPriority().tail(); tail != nullptr) {
        transmit.regularPriorityDel(tail->vex_index());
      }
  }
}

inline void change(Trees& trees, Random& random) {
  switch (below(random, 8)) {
    case 0:
    case 1:
    case 2:
      return changeConfig(*trees.config, random);
    case 3:
    case 4:
      return changeStatus(*trees.status, random);
    case 5:
    case 6:
      return changeTransmit(*trees.transmit, random);
    default:
      if (below(random, 4) == 0) {
        trees.counter->isNondestructingIs(below(random, 2) != 0);
      } else if (below(random, 2) == 0) {
        trees.vlans->vlanIs(below(random, 20), below(random, 2) != 0);
      } else {
        trees.vlans->vlanDel(below(random, 20));
      }
  }
}

// Moves up to `limit` bytes.
inline std::size_t move(Ringward::AttrLog::Session& from, Ringward::AttrLog::Session& to,
                        std::size_t limit = SIZE_MAX) {
  const auto output = from.output();
  const std::vector<std::uint8_t> bytes(
      output.begin(), output.begin() + static_cast<std::ptrdiff_t>(std::min(limit, output.size())));
  from.outputDel(bytes.size());
  to.bytesIn(bytes);
  return bytes.size();
}

// Moves bytes until nothing is left; false if that takes more turns than anything sensible.
inline bool settle(Ringward::AttrLog::Session& a, Ringward::AttrLog::Session& b) {
  for (int turn = 0; turn < 100000; ++turn) {
    const std::size_t there = move(a, b);
    const std::size_t back = move(b, a);
    if (there + back == 0) return a.isSettled() && b.isSettled();
  }
  return false;
}

}  // namespace AttrLogTest
