// SPDX-License-Identifier: Apache-2.0
#include "platform/sim/SimDevice.h"

#include <algorithm>
#include <utility>

namespace Platform::Sim {

Vex::Ptr<Portus::Pam> SimDevice::newPam(const Portus::IntfId& intfId,
                                        const Portus::PamConfig& config) {
  if (port_ == nullptr) return nullptr;
  return Vex::makePtr<SimPam>(intfId, config, Vex::Ptr<SimDevice>(this));
}

void SimDevice::receive(const FramePtr& frame) {
  // Pams may close while this goes on, by what the others' readers do.
  std::vector<Vex::Ptr<SimPam>> open;
  open.reserve(pams_.size());
  for (SimPam* pam : pams_) open.emplace_back(pam);
  for (const auto& pam : open) pam->receive(frame);
}

void SimDevice::transmit(const Portus::Pkt& pkt) {
  if (port_ == nullptr || !port_->enabled()) {
    ++counts_.sendErrors;
    return;
  }
  Frame bytes(pkt.totalLength());
  pkt.copyTo(bytes);
  ++counts_.sent;
  port_->send(newFrame(std::move(bytes)));
}

SimPam::SimPam(const Portus::IntfId& intfId, Portus::PamConfig config, Vex::Ptr<SimDevice> device)
    : Pam(intfId), config_(std::move(config)), device_(std::move(device)) {
  device_->pams_.push_back(this);
}

SimPam::~SimPam() { std::erase(device_->pams_, this); }

void SimPam::receive(const FramePtr& frame) {
  SimDevice::Counts& counts = device_->counts_;
  const std::size_t length = std::min<std::size_t>(config_.filter.accept(*frame), frame->size());
  if (length == 0) {
    ++counts.filtered;
    return;
  }
  if (device_->sourceGuard_ && sourceOf(*frame) != device_->status_->srcAddr()) {
    ++counts.foreign;
    return;
  }
  const auto pkt = queue_.size() < kQueueLength ? Portus::globalPktManager()->newPkt() : nullptr;
  if (!pkt) {
    ++counts.overflows;
    return;
  }
  pkt->bytesIs(Bytes(*frame).first(length));
  queue_.push_back(pkt);
  ++counts.delivered;
  readableCountInc();
}

Vex::Ptr<Portus::Pkt> SimPam::rxPkt() {
  if (queue_.empty()) return nullptr;
  auto pkt = std::move(queue_.front());
  queue_.pop_front();
  return pkt;
}

void SimPam::txPkt(const Vex::Ptr<Portus::Pkt>& pkt) {
  if (pkt) device_->transmit(*pkt);
}

}  // namespace Platform::Sim
