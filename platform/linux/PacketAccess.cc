// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/PacketAccess.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <utility>

#include "engine/ProbeFrame.h"
#include "runtime/vex/LogService.h"

namespace Platform::Linux {

namespace {

const Vex::LogHandle RINGWARD_PACKET_SOCKET(
    "RINGWARD_PACKET_SOCKET", Vex::LogSeverity::error, "Cannot open the packet socket: %s",
    "Without it no probe is sent or received and no loop is found.",
    "Give the process CAP_NET_RAW and CAP_NET_ADMIN in its network namespace.", 0.0, 1.0, 0);

// Frames that a Pam keeps for a reader that did not take them from inside the notification.
constexpr std::size_t kMaxWaiting = 64;

void add(PacketSocket::Statistics& sum, const PacketSocket::Statistics& more) {
  sum.received += more.received;
  sum.rejectedByRule += more.rejectedByRule;
  sum.foreign += more.foreign;
  sum.kernelDrops += more.kernelDrops;
  sum.truncated += more.truncated;
  sum.receiveErrors += more.receiveErrors;
  sum.sent += more.sent;
  sum.sendErrors.netDown += more.sendErrors.netDown;
  sum.sendErrors.noBuffers += more.sendErrors.noBuffers;
  sum.sendErrors.noDevice += more.sendErrors.noDevice;
  sum.sendErrors.wouldBlock += more.sendErrors.wouldBlock;
  sum.sendErrors.messageSize += more.sendErrors.messageSize;
  sum.sendErrors.invalid += more.sendErrors.invalid;
  sum.sendErrors.other += more.sendErrors.other;
}

// Whether the engine will take the frame for a probe.
bool isProbe(const Portus::Pkt& pkt) {
  // VLAN 4095, for which the codec raises, is looked at here: a flood of such frames costs one
  // exception each as it is.
  const std::span<const std::uint8_t> bytes = pkt.bytes();
  if (bytes.size() >= 16 && bytes[12] == 0x81 && bytes[13] == 0x00 && (bytes[14] & 0x0F) == 0x0F &&
      bytes[15] == 0xFF) {
    return false;
  }
  try {
    return static_cast<bool>(Ringward::readProbe(pkt, {}).mac);
  } catch (const Vex::RangeException&) {
    return false;  // the same behind another type of tag
  }
}

}  // namespace

class LinuxPam final : public Portus::Pam {
 public:
  LinuxPam(const Portus::IntfId& intfId, int ifindex, Vex::Ptr<PacketAccess> access)
      : Pam(intfId),
        ifindex_(ifindex),
        access_(std::move(access)),
        counts_(access_->totals_ != nullptr ? &access_->totals_->countsIs(intfId) : nullptr),
        carrier_(!access_->withoutCarrier_.contains(ifindex)) {
    access_->pamIs(ifindex_, *this);
  }
  ~LinuxPam() override {
    if (access_->lossListener_ != nullptr) access_->lossListener_->accessDel(intfId());
    access_->pamDel(ifindex_, *this);
    if (counts_ != nullptr && access_->totals_ != nullptr) access_->totals_->countsDel(*counts_);
  }

  Vex::Ptr<Portus::Pkt> rxPkt() override {
    if (waiting_.empty()) return nullptr;
    auto pkt = std::move(waiting_.front());
    waiting_.pop_front();
    return pkt;
  }

  void txPkt(const Vex::Ptr<Portus::Pkt>& pkt) override {
    if (!pkt || !access_->socket_) return;
    if (carrier_) {
      access_->send(*this, pkt);
    } else if (access_->lossListener_ != nullptr) {
      access_->lossListener_->probeLost(intfId(), *pkt);
    }
  }

  void carrierIs(bool carrier) {
    if (std::exchange(carrier_, carrier) || !carrier) return;
    if (access_->lossListener_ != nullptr) access_->lossListener_->carrierUp(intfId());
  }

  int ifindex() const noexcept { return ifindex_; }
  PacketTotals::Counts* counts() const noexcept { return counts_; }

  void deliver(Vex::Ptr<Portus::Pkt> pkt) {
    if (counts_ != nullptr && access_->totals_ != nullptr) {
      access_->totals_->received(*counts_, isProbe(*pkt));
    }
    if (waiting_.size() == kMaxWaiting) waiting_.pop_front();
    waiting_.push_back(std::move(pkt));
    readableCountInc();
  }

 private:
  const int ifindex_;
  const Vex::Ptr<PacketAccess> access_;
  PacketTotals::Counts* const counts_;
  bool carrier_;
  std::deque<Vex::Ptr<Portus::Pkt>> waiting_;
};

class LinuxDevice final : public Portus::Device {
 public:
  LinuxDevice(int ifindex, Vex::Ptr<PacketAccess> access)
      : ifindex_(ifindex), access_(std::move(access)) {}
  Vex::Ptr<Portus::Pam> newPam(const Portus::IntfId& intfId,
                               const Portus::PamConfig& config) override {
    return access_->newPam(intfId, ifindex_, config);
  }

 private:
  const int ifindex_;
  const Vex::Ptr<PacketAccess> access_;
};

PacketAccess::PacketAccess(Vex::ActivityManager& manager, bool guardSource)
    : DeferredTask(manager), manager_(manager), guardSource_(guardSource), flood_(manager) {}

PacketAccess::~PacketAccess() { close(); }

std::error_code PacketAccess::permission() {
  const Fd fd(::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0));
  return fd ? std::error_code() : lastError();
}

Vex::Ptr<Portus::Device> PacketAccess::newDevice(int ifindex) {
  return Vex::makePtr<LinuxDevice>(ifindex, Vex::Ptr<PacketAccess>(this));
}

Vex::Ptr<Portus::Pam> PacketAccess::newPam(const Portus::IntfId& intfId, int ifindex,
                                           const Portus::PamConfig& config) {
  if (!socket_ && !open(config)) return nullptr;
  return Vex::makePtr<LinuxPam>(intfId, ifindex, Vex::Ptr<PacketAccess>(this));
}

bool PacketAccess::open(const Portus::PamConfig& config) {
  const PacketSocketConfig socketConfig{
      .filter = config.filter,
      .priority = config.sockPrio,
      .source = guardSource_ ? std::optional(source_) : std::nullopt};
  auto socket = std::make_unique<PacketSocket>(socketConfig);
  if (const std::error_code error = socket->open()) {
    Vex::log(RINGWARD_PACKET_SOCKET, error.message());
    return false;
  }
  socket_ = std::move(socket);
  manager_.readableIs(socket_->fd(), *this);
  return true;
}

void PacketAccess::carrierIs(int ifindex, bool carrier) {
  if (carrier) {
    withoutCarrier_.erase(ifindex);
  } else {
    withoutCarrier_.insert(ifindex);
  }
  const auto at = pams_.find(ifindex);
  if (at == pams_.end()) return;
  const Vex::Ptr<LinuxPam> pam(at->second);
  pam->carrierIs(carrier);
}

void PacketAccess::send(const LinuxPam& pam, const Vex::Ptr<Portus::Pkt>& pkt) {
  waiting_.push_back({&pam, pam.intfId(), pam.ifindex(), pam.counts(), pkt});
  if (waiting_.size() >= PacketSocket::kMostOutgoing) {
    flush();
  } else {
    schedule();
  }
}

void PacketAccess::flush() {
  // What a listener leads to may send again, into a new list.
  std::vector<Waiting> waiting = std::exchange(waiting_, {});
  cancel();
  if (!socket_ || waiting.empty()) return;
  outgoing_.clear();
  for (const Waiting& entry : waiting) {
    outgoing_.push_back({entry.ifindex, entry.pkt->bytes()});
    // Before a listener can end the Pam, whose counts they are.
    if (entry.counts != nullptr && totals_ != nullptr) totals_->sent(*entry.counts);
  }
  socket_->send(outgoing_, [&](std::size_t position, std::error_code error) {
    if (totals_ != nullptr) totals_->sendFailed(waiting[position].intfId);
    // Other failed sends are counted by the socket; there is nobody who could do more.
    if (error == std::errc::network_down && lossListener_ != nullptr) {
      lossListener_->probeLost(waiting[position].intfId, *waiting[position].pkt);
    }
  });
  waiting.clear();
  if (waiting_.empty()) waiting_ = std::move(waiting);  // for its memory
}

void PacketAccess::close() noexcept {
  if (!socket_) return;
  waiting_.clear();  // of interfaces that have gone
  cancel();
  manager_.readableDel(socket_->fd());
  add(closedSockets_, socket_->statistics());
  socket_.reset();
}

void PacketAccess::pamIs(int ifindex, LinuxPam& pam) { pams_[ifindex] = &pam; }

void PacketAccess::pamDel(int ifindex, const LinuxPam& pam) noexcept {
  const auto at = pams_.find(ifindex);
  if (at != pams_.end() && at->second == &pam) pams_.erase(at);
  // What it has not sent yet must not be told of as lost when nobody asks for it any more. Its own:
  // the interface may have another Pam by now.
  std::erase_if(waiting_, [&pam](const Waiting& entry) { return entry.pam == &pam; });
  // Not from inside a batch: the socket is in use then and closes with the batch's end.
  if (pams_.empty() && !inBatch_) close();
}

void PacketAccess::sourceIs(const Portus::EthAddr& address) {
  source_ = address;
  guard();
}

void PacketAccess::guardSourceIs(bool guard) {
  guardSource_ = guard;
  this->guard();
}

void PacketAccess::guard() {
  if (!socket_) return;
  const auto source = guardSource_ ? std::optional(source_) : std::nullopt;
  // With an error the guard still holds, in this process instead of the kernel.
  if (const std::error_code error = socket_->sourceIs(source)) {
    Vex::log(RINGWARD_PACKET_SOCKET, error.message());
  }
}

void PacketAccess::onReadable() {
  const Vex::Ptr<PacketAccess> hold(this);
  inBatch_ = true;
  const std::size_t read =
      socket_->receiveBatch([this](const ReceivedFrame& frame) { deliver(frame); }, kFramesPerTurn);
  inBatch_ = false;
  flood_.turn(read, read == kFramesPerTurn);
  if (pams_.empty()) close();
}

void PacketAccess::deliver(const ReceivedFrame& frame) {
  const auto at = pams_.find(frame.ifindex);
  if (at == pams_.end()) return;
  const Vex::Ptr<LinuxPam> pam(at->second);  // the frame may lead to the end of its Pam
  auto pkt = Portus::globalPktManager()->newPkt();
  if (!pkt) return;
  pkt->bytesIs(frame.bytes);
  delivering_ = pkt.get();
  deliveringTo_ = frame.ifindex;
  pam->deliver(pkt);
  delivering_ = nullptr;
  deliveringTo_ = 0;
}

PacketSocket::Statistics PacketAccess::statistics() {
  PacketSocket::Statistics sum = closedSockets_;
  if (socket_) add(sum, socket_->statistics());
  return sum;
}

}  // namespace Platform::Linux
