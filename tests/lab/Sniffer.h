// SPDX-License-Identifier: Apache-2.0
//
// Sniffer: the record of what passes on the ports of a host, byte for byte as on the wire and with
// the kernel's time stamps; and Injector, which puts any bytes on a wire. Probe helpers follow:
// what a probe looks like is written down here on its own, so that the tests do not take the word
// of the code that they check.
//
// A sniffer reads with a thread of its own; any thread may call it. An injector is for one thread.
//
// Invariants:
//  1. A tag that the kernel had taken out of a frame is put back: Frame::bytes is the wire's image.
//  2. At most kMostFrames are kept, the first ones; total() goes on counting.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/lab/Lab.h"
#include "tests/lab/PacketTap.h"

namespace RingwardLab {

using Bytes = std::vector<std::uint8_t>;

struct Frame {
  Clock::time_point at;  // When the kernel met the frame.
  std::string port;
  bool outgoing = false;  // Sent by this host, not received.
  Bytes bytes;
};

class Sniffer {
 public:
  static constexpr std::size_t kMostFrames = 200'000;
  using Keep = RingwardLab::Keep;

  // Listens on one port, or on all of the host's if `port` is empty. kProbes has the kernel drop
  // what does not carry the probes' ether type. Throws std::system_error.
  Sniffer(const Lab& lab, const std::string& host, const std::string& port, Keep keep);
  ~Sniffer();
  Sniffer(const Sniffer&) = delete;
  Sniffer& operator=(const Sniffer&) = delete;

  std::vector<Frame> frames() const;
  std::size_t total() const;
  // Frames that the kernel could not deliver since the last call. A check that needs every frame
  // has to look here.
  unsigned dropped();
  using Wanted = std::function<bool(const Frame&)>;
  // The first wanted frame after `after`; nothing at the time limit. `count` > 1 asks for the
  // count-th.
  std::optional<Frame> waitFrame(const Wanted& wanted, Milliseconds limit,
                                 Clock::time_point after = {}, std::size_t count = 1) const;

 private:
  void run();
  void readOne();
  std::string portName(int index);

  const Lab& lab_;
  const std::string host_;
  int fd_ = -1;
  int stop_ = -1;
  TapReader reader_;  // For the reading thread, as the names.
  std::map<int, std::string> names_;
  mutable std::mutex mutex_;
  mutable std::condition_variable arrived_;
  std::vector<Frame> frames_;
  std::size_t total_ = 0;
  std::thread thread_;
};

class Injector {
 public:
  Injector(const Lab& lab, const std::string& host, const std::string& port);
  ~Injector();
  Injector(const Injector&) = delete;
  Injector& operator=(const Injector&) = delete;

  // Puts the bytes on the wire as they are. Throws std::system_error.
  void send(const Bytes& bytes) const;

 private:
  int fd_ = -1;
  int index_ = 0;
};

// The identifier of the sending port, as it stands in a probe.
using ProbeId = std::array<std::uint8_t, 8>;

struct Probe {
  MacAddress source{};
  std::optional<std::uint16_t> vlan;  // Of its tag; none in an untagged probe.
  ProbeId id{};
};

// The exact image: 32 bytes with a tag, 28 without.
Bytes probeBytes(const Probe& probe);
// What `bytes` says, provided that they are to the last bit what probeBytes() makes of it.
std::optional<Probe> asProbe(const Bytes& bytes);
// A small broadcast frame that is no probe and means nothing to anybody.
Bytes broadcastFrame(const MacAddress& source);
// Two hexadecimal digits each, divided by spaces.
std::string hex(const Bytes& bytes);
MacAddress macOf(const std::string& text);

// A stream is what leaves one port on one VLAN (0 for untagged): the times of its probes, in order.
using Streams = std::map<std::pair<std::string, std::uint16_t>, std::vector<Clock::time_point>>;
Streams probeStreams(const std::vector<Frame>& frames);

}  // namespace RingwardLab
