// SPDX-License-Identifier: Apache-2.0
//
// Agent::AgentControl: the control socket of the running agent: opens it as the configuration says,
// and tells in one line when it cannot. Detection never depends on it.
//
// Activity thread only. Must go before the entities of its roots do.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "agent/Configuration.h"
#include "agent/control/ControlServer.h"
#include "agent/control/Rights.h"
#include "agent/control/TreeService.h"

namespace Agent {

class AgentControl {
 public:
  // `name`: of this program, for clients. `output` takes one line for the operator at a time.
  AgentControl(Vex::ActivityManager& manager, TreeService::Roots roots, std::string name,
               std::function<void(std::string_view)> output);
  AgentControl(const AgentControl&) = delete;
  AgentControl& operator=(const AgentControl&) = delete;

  // Listens as it says. Another path, group or number of clients ends the connections there are; an
  // equal configuration does nothing, but tries again what has failed.
  void configurationIs(const Control& configuration);

  // Null while nothing is open.
  const ControlServer* server() const noexcept { return server_.get(); }

 private:
  void open();

  Vex::ActivityManager& manager_;
  TreeService service_;
  const std::string name_;
  const std::function<void(std::string_view)> output_;
  std::optional<Control> configuration_;
  std::unique_ptr<SystemRights> rights_;
  std::unique_ptr<ControlServer> server_;
};

}  // namespace Agent
