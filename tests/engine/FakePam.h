// SPDX-License-Identifier: Apache-2.0
//
// Packet access for tests: records what is sent and hands over what it is fed, and a device that
// opens it. Activity thread only.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <span>
#include <utility>
#include <vector>

#include "runtime/portus/Pam.h"

using Frame = std::vector<std::uint8_t>;

class FakePam final : public Portus::Pam {
 public:
  explicit FakePam(const Portus::IntfId& intfId) : Pam(intfId) {}

  Vex::Ptr<Portus::Pkt> rxPkt() override {
    if (waiting_.empty()) return nullptr;
    auto pkt = waiting_.front();
    waiting_.pop_front();
    return pkt;
  }
  void txPkt(const Vex::Ptr<Portus::Pkt>& pkt) override {
    if (pkt) {
      sent.emplace_back(pkt->bytes().begin(), pkt->bytes().end());
    } else {
      ++nullPackets;
    }
    if (onTx) onTx();
  }

  // One frame arrives and is announced.
  void receive(std::span<const std::uint8_t> frame) {
    auto pkt = Portus::globalPktManager()->newPkt();
    pkt->bytesIs(frame);
    waiting_.push_back(std::move(pkt));
    readableCountInc();
  }
  // An announcement without a frame.
  void announce() { readableCountInc(); }
  std::size_t waiting() const { return waiting_.size(); }

  std::vector<Frame> sent;
  int nullPackets = 0;
  std::function<void()> onTx;  // runs when a packet has been handed over

 private:
  std::deque<Vex::Ptr<Portus::Pkt>> waiting_;
};

class FakeDevice final : public Portus::Device {
 public:
  Vex::Ptr<Portus::Pam> newPam(const Portus::IntfId& intfId,
                               const Portus::PamConfig& config) override {
    configs.push_back(config);
    pam = Vex::makePtr<FakePam>(intfId);
    return pam;
  }

  std::vector<Portus::PamConfig> configs;  // of each opening
  Vex::Ptr<FakePam> pam;                   // opened last
};
