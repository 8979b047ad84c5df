// SPDX-License-Identifier: Apache-2.0
#include "agent/control/AgentControl.h"

#include <utility>

#include "runtime/vex/Exception.h"

namespace Agent {

AgentControl::AgentControl(Vex::ActivityManager& manager, TreeService::Roots roots,
                           std::string name, std::function<void(std::string_view)> output)
    : manager_(manager),
      service_(std::move(roots)),
      name_(std::move(name)),
      output_(std::move(output)) {}

void AgentControl::configurationIs(const Control& configuration) {
  if (configuration_ != configuration) {
    server_.reset();
    configuration_ = configuration;
  }
  if (!server_ && !configuration_->socket.empty()) open();
}

void AgentControl::open() {
  std::string error;
  try {
    rights_ = std::make_unique<SystemRights>(configuration_->group);
    server_ = std::make_unique<ControlServer>(
        manager_, service_, *rights_,
        ControlServer::Options{configuration_->socket, configuration_->maxClients, name_});
    error = server_->open();
  } catch (const Vex::Exception& exception) {
    error = exception.text();
  }
  if (error.empty()) return;
  server_.reset();
  output_("warning: no control socket: " + plainText(error) + "; detection goes on without it");
}

}  // namespace Agent
