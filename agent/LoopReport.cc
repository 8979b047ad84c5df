// SPDX-License-Identifier: Apache-2.0
#include "agent/LoopReport.h"

#include <cmath>
#include <ctime>
#include <sstream>
#include <utility>

#include "engine/ProbeFrame.h"
#include "runtime/vex/ActivityManager.h"

namespace Agent {

using Platform::Linux::errdisableActionName;

LoopReport::LoopReport(Vex::Ptr<Ringward::Status::Status const> status,
                       Vex::Ptr<Bridging::Config const> brConfig,
                       const Platform::Linux::PacketAccess& access, Output output)
    : status_(std::move(status)),
      brConfig_(std::move(brConfig)),
      access_(access),
      output_(std::move(output)) {}

void LoopReport::held(const Portus::IntfId& intfId, const Hold& hold) {
  since_.emplace(intfId, Vex::now());
  std::ostringstream line;
  line << "loop: received on " << intfId << sender(intfId, hold.ifindex) << ", action "
       << errdisableActionName(hold.action);
  if (hold.error) {
    line << " FAILED (" << hold.error.message() << "): the loop is not broken; trying again";
  } else {
    line << ", " << until(intfId);
  }
  output_(line.str());
}

void LoopReport::heldAtLast(const Portus::IntfId& intfId, const Hold& hold) {
  std::ostringstream line;
  line << "held at last: " << intfId << ", action " << errdisableActionName(hold.action)
       << " after " << hold.attempts << " failed attempts, " << until(intfId);
  output_(line.str());
}

void LoopReport::released(const Portus::IntfId& intfId, const Hold& hold) {
  std::ostringstream line;
  line << "recovered: " << intfId;
  if (const auto at = since_.find(intfId); at != since_.end()) {
    line << " after " << std::llround(Vex::now() - at->second) << " s";
    since_.erase(at);
  }
  if (hold.error) {
    line << ", but putting it back FAILED (" << hold.error.message() << "); trying again";
  }
  output_(line.str());
}

void LoopReport::releasedAtLast(const Portus::IntfId& intfId, const Hold& hold) {
  std::ostringstream line;
  line << "put back at last: " << intfId << " after " << hold.attempts << " failed attempts";
  output_(line.str());
}

double LoopReport::since(const Portus::IntfId& intfId) const {
  const auto at = since_.find(intfId);
  return at != since_.end() ? at->second : 0.0;
}

std::string LoopReport::sender(const Portus::IntfId& intfId, int ifindex) const {
  const Portus::Pkt* frame = access_.inDelivery(ifindex);
  // A port that was listed before the agent came, or that returns while it is listed.
  if (frame == nullptr) return ", found held down";
  const auto port = brConfig_->switchIntfConfig(intfId);
  const auto probe =
      Ringward::readProbe(*frame, port ? port->nativeVlan() : Bridging::VlanIdOrNone());
  std::ostringstream os;
  os << ", sent from " << probe.senderIntfId << ", vlan " << probe.vlanId;
  return os.str();
}

std::string LoopReport::until(const Portus::IntfId& intfId) const {
  const auto status = status_->intfStatus(intfId);
  if (!status || status->disabledUntil() == 0) return "for good";
  const double now = Vex::now();
  std::ostringstream os;
  os << "until " << dateOf(status->disabledUntil(), now) << " ("
     << std::llround(status->disabledUntil() - now) << " s)";
  return os.str();
}

std::string dateOf(double activityTime, double activityNow) {
  timespec wall{};
  clock_gettime(CLOCK_REALTIME, &wall);
  const auto seconds = static_cast<time_t>(wall.tv_sec + std::llround(activityTime - activityNow));
  std::tm parts{};
  char text[64] = "";
  if (gmtime_r(&seconds, &parts) != nullptr) {
    static_cast<void>(strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &parts));
  }
  return text;
}

}  // namespace Agent
