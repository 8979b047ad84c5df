// SPDX-License-Identifier: Apache-2.0
#include "tests/lab/Sniffer.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace RingwardLab {

namespace {

constexpr std::uint16_t kProbeType = 0x88B7;

[[noreturn]] void fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

sockaddr_ll address(int index, std::uint16_t protocol) {
  sockaddr_ll result{};
  result.sll_family = AF_PACKET;
  result.sll_protocol = htons(protocol);
  result.sll_ifindex = index;
  return result;
}

void append16(Bytes& bytes, std::uint16_t value) {
  bytes.push_back(static_cast<std::uint8_t>(value >> 8));
  bytes.push_back(static_cast<std::uint8_t>(value & 0xFF));
}

}  // namespace

Sniffer::Sniffer(const Lab& lab, const std::string& host, const std::string& port, Keep keep)
    : lab_(lab),
      host_(host),
      fd_(openTap(lab, host, port, keep, 16 << 20)),
      stop_(eventfd(0, EFD_CLOEXEC)) {
  thread_ = std::thread([this] { run(); });
}

Sniffer::~Sniffer() {
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto written = write(stop_, &one, sizeof one);
  thread_.join();
  close(stop_);
  close(fd_);
}

std::string Sniffer::portName(int index) {
  std::string& name = names_[index];
  if (name.empty()) {
    lab_.inHost(host_, [&] {
      char text[IF_NAMESIZE] = {};
      name = if_indextoname(static_cast<unsigned>(index), text) != nullptr
                 ? std::string(text)
                 : "#" + std::to_string(index);
    });
  }
  return name;
}

void Sniffer::run() {
  for (;;) {
    pollfd pollers[2] = {{stop_, POLLIN, 0}, {fd_, POLLIN, 0}};
    if (poll(pollers, 2, -1) < 0) {
      continue;
    }
    if ((pollers[0].revents & POLLIN) != 0) {
      return;
    }
    readOne();
  }
}

void Sniffer::readOne() {
  if (!reader_.read(fd_)) {
    return;
  }
  Frame frame{reader_.at(), portName(reader_.ifindex()), reader_.outgoing(), reader_.bytes()};
  const std::lock_guard lock(mutex_);
  ++total_;
  if (frames_.size() < kMostFrames) {
    frames_.push_back(std::move(frame));
    arrived_.notify_all();
  }
}

std::vector<Frame> Sniffer::frames() const {
  const std::lock_guard lock(mutex_);
  return frames_;
}

std::size_t Sniffer::total() const {
  const std::lock_guard lock(mutex_);
  return total_;
}

unsigned Sniffer::dropped() {
  tpacket_stats counts{};
  socklen_t size = sizeof counts;
  if (getsockopt(fd_, SOL_PACKET, PACKET_STATISTICS, &counts, &size) < 0) {
    fail("asking for the drops of a packet socket");
  }
  return counts.tp_drops;
}

std::optional<Frame> Sniffer::waitFrame(const Wanted& wanted, Milliseconds limit,
                                        Clock::time_point after, std::size_t count) const {
  std::unique_lock lock(mutex_);
  std::size_t looked = 0;
  std::optional<Frame> found;
  arrived_.wait_until(lock, Clock::now() + limit, [&] {
    for (; looked < frames_.size() && !found; ++looked) {
      const Frame& frame = frames_[looked];
      if (frame.at > after && wanted(frame) && --count == 0) {
        found = frame;
      }
    }
    return found.has_value();
  });
  return found;
}

Injector::Injector(const Lab& lab, const std::string& host, const std::string& port)
    : index_(lab.link(host, port).index) {
  lab.inHost(host, [&] { fd_ = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0); });
  if (fd_ < 0) {
    fail("opening a packet socket");
  }
}

Injector::~Injector() { close(fd_); }

void Injector::send(const Bytes& bytes) const {
  const sockaddr_ll to = address(index_, ETH_P_ALL);
  if (sendto(fd_, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&to),
             sizeof to) < 0) {
    fail("sending " + std::to_string(bytes.size()) + " bytes");
  }
}

Bytes probeBytes(const Probe& probe) {
  Bytes bytes(6, 0xFF);
  bytes.insert(bytes.end(), probe.source.begin(), probe.source.end());
  if (probe.vlan) {
    append16(bytes, 0x8100);
    append16(bytes, static_cast<std::uint16_t>(0xE000 | *probe.vlan));
  }
  append16(bytes, kProbeType);
  for (const int byte : {0x0A, 0x1B, 0x2C, 0x00, 0x03, 0x01}) {
    bytes.push_back(static_cast<std::uint8_t>(byte));
  }
  bytes.insert(bytes.end(), probe.id.begin(), probe.id.end());
  return bytes;
}

std::optional<Probe> asProbe(const Bytes& bytes) {
  if (bytes.size() != 28 && bytes.size() != 32) {
    return std::nullopt;
  }
  Probe probe;
  std::copy_n(bytes.begin() + 6, 6, probe.source.begin());
  std::copy_n(bytes.end() - 8, 8, probe.id.begin());
  if (bytes.size() == 32) {
    probe.vlan = static_cast<std::uint16_t>((bytes[14] << 8 | bytes[15]) & 0x0FFF);
  }
  if (probeBytes(probe) != bytes) {
    return std::nullopt;
  }
  return probe;
}

Bytes broadcastFrame(const MacAddress& source) {
  Bytes bytes(6, 0xFF);
  bytes.insert(bytes.end(), source.begin(), source.end());
  append16(bytes, 0x88B5);  // IEEE 802: local experimental ether type 1.
  bytes.resize(60);
  return bytes;
}

std::string hex(const Bytes& bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string result;
  for (const std::uint8_t byte : bytes) {
    if (!result.empty()) {
      result += ' ';
    }
    result += kDigits[byte >> 4];
    result += kDigits[byte & 15];
  }
  return result;
}

MacAddress macOf(const std::string& text) {
  MacAddress result{};
  for (std::size_t i = 0; i < result.size(); ++i) {
    result[i] = static_cast<std::uint8_t>(std::stoul(text.substr(i * 3, 2), nullptr, 16));
  }
  return result;
}

Streams probeStreams(const std::vector<Frame>& frames) {
  Streams result;
  for (const Frame& frame : frames) {
    if (const auto probe = asProbe(frame.bytes)) {
      result[{frame.port, probe->vlan.value_or(0)}].push_back(frame.at);
    }
  }
  return result;
}

}  // namespace RingwardLab
