// SPDX-License-Identifier: Apache-2.0
#include "runtime/portus/Pkt.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <string>
#include <utility>

#include "runtime/vex/Exception.h"

namespace Portus {

// User-provided bodies on purpose: a defaulted constructor would let value-initialisation clear the
// whole inline buffer.
Pkt::Pkt() noexcept {}
Pkt::~Pkt() = default;

void Pkt::currentFragmentIs(std::size_t index) {
  if (index >= fragments()) {
    Vex::throwRangeException("Pkt::currentFragment " + std::to_string(index) +
                             " not allowed: the packet has " + std::to_string(fragments()));
  }
  current_ = index;
}

std::uint8_t* Pkt::headReserve(std::size_t n) {
  VEX_ASSERT_TEXT(n <= begin_, "sharedBuffer_ != 0");
  begin_ -= n;
  fragments_[0] += n;
  current_ = 0;
  // What is not written afterwards must not carry another packet's bytes onto the wire.
  std::fill_n(sharedBuffer_ + begin_, n, std::uint8_t{0});
  return sharedBuffer_ + begin_;
}

void Pkt::bytesIs(std::span<const std::uint8_t> first, std::span<const std::uint8_t> second) {
  if (first.size() > kMaxLength || second.size() > kMaxLength - first.size()) {
    Vex::throwRangeException("Pkt::bytes of " + std::to_string(first.size()) + " and " +
                             std::to_string(second.size()) + " not allowed: at most " +
                             std::to_string(kMaxLength) + " bytes in all");
  }
  const std::size_t length = first.size() + second.size();
  std::unique_ptr<std::uint8_t[]> buffer;
  std::uint8_t* target = sharedBuffer_;
  std::size_t capacity = capacity_;
  // Bytes that come from this packet would be overwritten while they are copied, so they go to a
  // new buffer too; a packet that is cut to a part of itself is rare.
  const auto isOwn = [this](std::span<const std::uint8_t> part) {
    return !part.empty() && !std::less<>()(part.data(), sharedBuffer_) &&
           std::less<>()(part.data(), sharedBuffer_ + capacity_);
  };
  if (length > capacity || isOwn(first) || isOwn(second)) {
    capacity = std::max(kInlineCapacity, length + kHeadroom);
    buffer.reset(new std::uint8_t[capacity]);
    target = buffer.get();
  }
  const std::size_t begin = capacity - length;
  std::copy(first.begin(), first.end(), target + begin);
  std::copy(second.begin(), second.end(), target + begin + first.size());
  if (buffer) heapBuffer_ = std::move(buffer);
  sharedBuffer_ = target;
  capacity_ = capacity;
  begin_ = begin;
  current_ = 0;
  fragments_ = {first.size(), second.size()};
  if (first.empty()) fragments_ = {second.size(), 0};
}

std::size_t Pkt::copyTo(std::span<std::uint8_t> target) const noexcept {
  const std::size_t length = std::min(target.size(), totalLength());
  std::copy_n(data(), length, target.begin());
  return length;
}

void Pkt::reset() noexcept {
  heapBuffer_.reset();
  sharedBuffer_ = inlineBuffer_.data();
  capacity_ = kInlineCapacity;
  begin_ = kInlineCapacity;
  fragments_ = {};
  current_ = 0;
  vexMarkedForDeletionIs(false);
}

void Pkt::handleZeroRef() {
  // Moved out first: the packet may be gone when the manager's count is dropped, at the latest.
  const Vex::Ptr<Manager> manager = std::move(manager_);
  manager->pktReturned(this);
}

std::unique_lock<std::mutex> Pkt::Manager::guard() const {
  std::unique_lock lock(mutex_, std::defer_lock);
  if (Vex::enableThreadSafePointers) lock.lock();
  return lock;
}

Vex::Ptr<Pkt> Pkt::Manager::newPkt() {
  Vex::Ptr<Pkt> result;
  {
    const auto lock = guard();
    if (outstanding_ >= maxOutstanding_) return nullptr;
    if (idle_ != nullptr) {
      Pkt* const pkt = std::exchange(idle_, idle_->nextIdle_);
      pkt->nextIdle_ = nullptr;
      --idleCount_;
      result = Vex::Ptr<Pkt>(pkt);  // a packet in the pool has no count
    } else {
      try {
        result = Vex::Ptr<Pkt>::adopt(new Pkt);
      } catch (const std::bad_alloc&) {
        return nullptr;
      }
    }
    ++outstanding_;
  }
  result->manager_ = Vex::Ptr<Manager>(this);
  return result;
}

void Pkt::Manager::pktReturned(Pkt* pkt) noexcept {
  pkt->reset();
  {
    const auto lock = guard();
    --outstanding_;
    if (idleCount_ < kMaxIdle) {
      pkt->nextIdle_ = std::exchange(idle_, pkt);
      ++idleCount_;
      return;
    }
  }
  delete pkt;
}

Pkt::Manager::~Manager() {
  while (idle_ != nullptr) delete std::exchange(idle_, idle_->nextIdle_);
}

void Pkt::Manager::maxOutstandingIs(std::size_t limit) {
  const auto lock = guard();
  maxOutstanding_ = limit;
}

std::size_t Pkt::Manager::maxOutstanding() const {
  const auto lock = guard();
  return maxOutstanding_;
}

std::size_t Pkt::Manager::outstanding() const {
  const auto lock = guard();
  return outstanding_;
}

std::size_t Pkt::Manager::idle() const {
  const auto lock = guard();
  return idleCount_;
}

const Vex::Ptr<Pkt::Manager>& globalPktManager() {
  static const auto* const manager = new Vex::Ptr<Pkt::Manager>(Vex::makePtr<Pkt::Manager>());
  return *manager;
}

}  // namespace Portus
