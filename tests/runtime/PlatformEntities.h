// SPDX-License-Identifier: Apache-2.0
//
// Stand-ins for what the platform gives, and watchers that write down what an entity tells. For the
// tests of the interface, topology and bridging entities; one thread.
//
// A watcher writes the name of the attribute, with the key behind it for a collection.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "runtime/interface/IntfStatus.h"
#include "runtime/interface/PamDirectories.h"
#include "runtime/portus/Pam.h"
#include "runtime/vex/Ptr.h"

namespace RuntimeTest {

inline Portus::IntfId intf(std::string_view name) { return Portus::IntfId::fromName(name); }

// Opens TestPams; counts those that are open and remembers how the last one was asked for.
class TestDevice final : public Portus::Device {
 public:
  Vex::Ptr<Portus::Pam> newPam(const Portus::IntfId& intfId,
                               const Portus::PamConfig& config) override;
  int asked = 0;
  int open = 0;
  bool refuses = false;
  Portus::PamConfig lastConfig;
};

class TestPam final : public Portus::Pam {
 public:
  TestPam(const Portus::IntfId& intfId, TestDevice* device) : Pam(intfId), device_(device) {
    ++device_->open;
  }
  ~TestPam() override { --device_->open; }
  Vex::Ptr<Portus::Pkt> rxPkt() override { return nullptr; }
  void txPkt(const Vex::Ptr<Portus::Pkt>& /*pkt*/) override {}

 private:
  const Vex::Ptr<TestDevice> device_;
};

inline Vex::Ptr<Portus::Pam> TestDevice::newPam(const Portus::IntfId& intfId,
                                                const Portus::PamConfig& config) {
  ++asked;
  lastConfig = config;
  if (refuses) return nullptr;
  return Vex::makePtr<TestPam>(intfId, this);
}

// What is common to all watchers: the log, and what to do when told.
class Teller {
 public:
  std::vector<std::string> log;
  std::function<void()> handler;

 protected:
  void tell(std::string what) {
    log.push_back(std::move(what));
    if (handler) handler();
  }
  void tell(std::string_view what, const Portus::IntfId& intfId) {
    tell(std::string(what) + " " + intfId.name());
  }
};

// Makes a registered watcher.
template <class W, class E>
Vex::Ptr<W> watch(const Vex::Ptr<E>& entity) {
  auto watcher = Vex::makePtr<W>();
  watcher->notifierIs(entity);
  watcher->isRegisteredNotifieeIs(true);
  return watcher;
}

inline Vex::Ptr<Interface::IntfStatus> newIntfStatus(const Portus::IntfId& intfId,
                                                     bool adminEnabled = true) {
  const auto config = Vex::makePtr<Interface::IntfConfig>(intfId);
  config->adminEnabledIs(adminEnabled);
  return Vex::makePtr<Interface::IntfStatus>(intfId, config);
}

}  // namespace RuntimeTest
