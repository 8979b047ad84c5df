// SPDX-License-Identifier: Apache-2.0
//
// Random requests of a tool to a running engine, by path and by number: whatever is asked is done
// or refused by an exception of the system; nothing else is raised, nothing changes through a const
// root, and lists stay within their bounds.
//
// The input: one request after the other, each a byte that says what is done, a path made of a
// byte for each name or, behind 0xFF, of raw bytes, and what the request needs beyond it.
#include <cmath>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include "engine/EngineTypes.h"
#include "engine/ProbeFrame.h"
#include "fuzz/Input.h"
#include "model/generic/PathAccess.h"
#include "runtime/vex/VirtualActivityManager.h"

namespace {

using Fuzz::require;
using Ringward::Generic::PathAccess;
using Vex::GenericIf;
using Generic = Vex::Ptr<GenericIf>;

class Pam final : public Portus::Pam {
 public:
  explicit Pam(const Portus::IntfId& intfId) : Portus::Pam(intfId) {}
  Vex::Ptr<Portus::Pkt> rxPkt() override { return std::exchange(waiting_, nullptr); }
  // What goes out may come back.
  void txPkt(const Vex::Ptr<Portus::Pkt>& pkt) override {
    if (pkt && !waiting_) waiting_ = pkt;
  }

 private:
  Vex::Ptr<Portus::Pkt> waiting_;
};

class Device final : public Portus::Device {
 public:
  Vex::Ptr<Portus::Pam> newPam(const Portus::IntfId& intfId,
                               const Portus::PamConfig& /*config*/) override {
    return Vex::makePtr<Pam>(intfId);
  }
};

struct World {
  World() {
    config->transmitConfigIs("transmitConfig");
    config->globalIntfConfigIs("globalIntfConfig");
    topoConfig->vlansIs(Bridging::VlanBitmap::parse("1-20"));
    for (const char* name : {"eth1", "eth2"}) {
      const auto id = Portus::IntfId::fromName(name);
      brConfig->switchIntfConfigIs(id)->nativeVlanIs(Bridging::VlanIdOrNone(1));
      const auto intfConfig = Vex::makePtr<Interface::IntfConfig>(id);
      intfConfig->adminEnabledIs(true);
      const auto intf = Vex::makePtr<Interface::IntfStatus>(id, intfConfig);
      allDir->intfStatusIs(id, intf);
      ethDir->ethIntfStatusIs(id, intf);
      localDir->intfStatusLocalIs(id,
                                  Vex::makePtr<Interface::IntfStatusLocal>(Vex::makePtr<Device>()));
      topoStatus->intfVlansIs(id, Bridging::VlanBitmap::parse("10-11"));
    }
    config->vlanEnabledIs(Bridging::VlanId(10), true);
    config->globalEnabledIs(true);
    root = Ringward::globalSmFactory(config, status, Vex::makePtr<Mlag::Status>("mlag"), queues,
                                     topoConfig, topoStatus, brConfig, ethDir, allDir, localDir,
                                     Vex::makePtr<Errdisable::CauseStatus>("cause"), counters);
    manager.runFor(0.0);
  }

  Vex::VirtualActivityManager manager{1000.0};
  Vex::CurrentActivityManager current{manager};
  Vex::Ptr<Ringward::Config::Config> config = Ringward::Config::configFactory("config");
  Vex::Ptr<Ringward::Status::Status> status = Ringward::Status::statusFactory("status");
  Vex::Ptr<Ringward::Status::TransmitStatus> queues =
      Ringward::Status::transmitStatusFactory("transmitStatus");
  Vex::Ptr<Ringward::Status::PacketCounter> counters =
      Ringward::Status::packetCounterFactory("packetCounter");
  Vex::Ptr<Bridging::Config> brConfig = Vex::makePtr<Bridging::Config>("brConfig");
  Vex::Ptr<Bridging::Topology::Config> topoConfig =
      Vex::makePtr<Bridging::Topology::Config>("topoConfig");
  Vex::Ptr<Bridging::Topology::Status> topoStatus =
      Vex::makePtr<Bridging::Topology::Status>("topoStatus");
  Vex::Ptr<Interface::EthIntfStatusDir> ethDir = Vex::makePtr<Interface::EthIntfStatusDir>("eth");
  Vex::Ptr<Interface::AllIntfStatusDir> allDir = Vex::makePtr<Interface::AllIntfStatusDir>("all");
  Vex::Ptr<Interface::AllIntfStatusLocalDir> localDir =
      Vex::makePtr<Interface::AllIntfStatusLocalDir>("local");
  Vex::Ptr<Ringward::GlobalSm> root;
};

constexpr std::string_view kKeys[] = {"",
                                      "[10]",
                                      "[11]",
                                      "[0]",
                                      "[1]",
                                      "[4095]",
                                      "[eth1]",
                                      "[eth2]",
                                      "[po1]",
                                      "[x\\]y]",
                                      "[intf#0000000000000000]"};
constexpr std::string_view kTexts[] = {
    "true",
    "false",
    "0",
    "1",
    "5",
    "255",
    "4294967295",
    "-1",
    "inf",
    "nan",
    "eth1",
    "10",
    "02:00:00:00:00:01",
    "name",
    "Value('Ringward::Status::IntfAndVlan', ** {'intfId': eth1, 'vlanId': 10})",
    "Value('Ringward::Status::IntfAndVlan', ** {'intfId': eth2})",
    "Value('Ringward::Status::CounterIntf', ** {'key': eth1, 'tx': 7})",
    "Value('Ringward::PacketEncapsulation', ** {'vlanId': 4094, 'senderIntfId': eth1})",
    "Value('Ringward::PacketEncapsulation', ** {'senderIntfId': nobody})",
    "Value('Vex::LinkQueueMetadata', ** {'headIndex': 4294967295, 'nextIndex': 4294967294})"};

// The name of any attribute of any type.
std::string anyName(Fuzz::Input& input) {
  static const std::vector<std::string> all = [] {
    std::vector<std::string> names;
    for (const auto& types : {Ringward::Generic::modelTypes(), Ringward::Generic::engineTypes()}) {
      for (const auto* type : types) {
        for (const auto& a : type->attributes()) names.emplace_back(a.name());
      }
    }
    return names;
  }();
  return all[input.number<std::uint16_t>() % all.size()];
}

std::string raw(Fuzz::Input& input) {
  const auto bytes = input.take(input.byte());
  return {bytes.begin(), bytes.end()};
}

std::string anyText(Fuzz::Input& input) {
  return input.flag() ? std::string(input.oneOf(kTexts)) : raw(input);
}

// A path that mostly leads somewhere: from the root on, one of the attributes that are there.
std::string anyPath(Fuzz::Input& input, const PathAccess& paths) {
  const std::uint8_t names = input.byte();
  if (names == 0xFF) return raw(input);
  std::string path;
  try {
    for (int i = 0; i < names % 6; ++i) {
      const auto nodes = paths.ls(path, 40);
      if (nodes.empty()) break;
      const auto& node = nodes[input.below(nodes.size())];
      if (node.kind == "element") {
        path += "[" + node.name + "]";
      } else {
        path += "/" + node.name;
      }
    }
  } catch (const Vex::Exception&) {
    // The path leads as far as it has come.
  }
  return path + std::string(input.oneOf(kKeys));
}

// What can be seen of the entities, as text.
std::string seen(const PathAccess& paths) {
  std::string all;
  for (const char* path :
       {"config", "status", "transmitStatus", "packetCounter", "config/vlanEnabled",
        "config/intfExclude", "status/intfStatus", "status/sysIntfExclude",
        "transmitStatus/regularPriority", "transmitStatus/highPriority",
        "packetCounter/counterIntf", "packetCounter/counterVlan"}) {
    for (const auto& node : paths.ls(path, 1000)) {
      all += node.name + "=" + node.text + ":" + std::to_string(node.members) + ";";
    }
  }
  return all;
}

class Run {
 public:
  explicit Run(Fuzz::Input input) : input_(input) {}

  void all() {
    for (int requests = 0; requests < 64 && !input_.empty(); ++requests) {
      const bool isConst = (input_.byte() & 3) == 0;
      PathAccess paths(roots(isConst));
      const std::string before = isConst ? seen(paths) : std::string();
      try {
        one(paths);
      } catch (const Vex::Exception& e) {
        require(!e.text().empty() && e.text().size() < 70000);
      }
      require(!isConst || seen(paths) == before);
      if (!isConst) w_.manager.runFor(0.02);
    }
  }

 private:
  std::vector<PathAccess::Root> roots(bool isConst) {
    return {{"config", [=, this] { return Vex::genericIf(w_.config, isConst); }},
            {"status", [=, this] { return Vex::genericIf(w_.status, isConst); }},
            {"transmitStatus", [=, this] { return Vex::genericIf(w_.queues, isConst); }},
            {"packetCounter", [=, this] { return Vex::genericIf(w_.counters, isConst); }},
            {"globalSm", [=, this] { return Vex::genericIf(w_.root, isConst); }}};
  }

  void one(PathAccess& paths) {
    const std::uint8_t what = input_.byte() % 7;
    const std::string path = anyPath(input_, paths);
    switch (what) {
      case 0:
        static_cast<void>(paths.get(path));
        return;
      case 1:
        paths.set(path, anyText(input_));
        return;
      case 2:
        paths.del(path);
        return;
      case 3: {
        const std::size_t limit = input_.byte();
        require(paths.ls(path, limit, anyText(input_)).size() <= limit);
        return;
      }
      case 4: {
        std::vector<std::pair<std::string, std::string>> arguments;
        for (std::size_t left = input_.below(3); left > 0; --left) {
          const std::string name = input_.flag() ? "" : anyName(input_);
          arguments.emplace_back(name, anyText(input_));
        }
        paths.call(path, anyName(input_), arguments);
        return;
      }
      default:
        byNumber();
        return;
    }
  }

  // An argument of any kind for any place.
  Generic anyArgument() {
    switch (input_.below(8)) {
      case 0:
        return nullptr;
      case 1:
        return Vex::genericValue(input_.flag());
      case 2:
        return Vex::genericValue(input_.number<std::uint32_t>());
      case 3:
        return Vex::genericValue(Portus::IntfId::fromName(input_.flag() ? "eth1" : "eth2"));
      case 4:
        return Vex::genericValue(Bridging::VlanId(1 + input_.byte() % 20));
      case 5:
        return Vex::genericValue(anyText(input_));
      case 6: {
        auto list = Vex::makePtr<GenericIf::List>();
        for (std::size_t left = input_.below(3); left > 0; --left) list->argumentIs(anyArgument());
        return list;
      }
      default:
        return Vex::genericIf(w_.status);
    }
  }

  void byNumber() {
    const auto all = roots(input_.flag());
    Generic at = all[input_.below(all.size())].open();
    for (int steps = 0; steps < 4 && at; ++steps) {
      const auto attributes = at->fwkType()->attributes();
      const Vex::AttributeId id = !attributes.empty() && input_.flag()
                                      ? attributes[input_.below(attributes.size())].id
                                      : input_.number<std::uint16_t>();
      const std::uint32_t code = input_.flag() ? 0U : input_.number<std::uint16_t>() % 260;
      at = at->attributeOp({id, code}, anyArgument(), anyArgument());
      if (at) require(!at->strRep().empty() || at->fwkType()->isValue());
    }
  }

  Fuzz::Input input_;
  World w_;
};

}  // namespace

// Each enabling of the engine keeps its interface filter for the life of the process: to look for
// leaks would find that one, at ten times the cost of the run itself.
extern "C" const char* __asan_default_options();  // NOLINT(bugprone-reserved-identifier): its name
extern "C" const char* __asan_default_options() { return "detect_leaks=0"; }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Run(Fuzz::Input({data, size})).all();
  return 0;
}
