// SPDX-License-Identifier: Apache-2.0
//
// A relay between a client and a control socket, driven by the test: it moves bytes in pieces,
// reads along, and closes both connections once so many bytes have been moved in one direction.
#pragma once

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <linux/sockios.h>
#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/linux/Fd.h"
#include "tests/agent/control/ControlProcesses.h"
#include "tests/agent/control/StreamTap.h"

namespace ControlTest {

class Relay {
 public:
  static constexpr std::uint64_t kNoEnd = std::numeric_limits<std::uint64_t>::max();
  enum Direction : std::size_t { down, up };  // to the client, to the agent

  // Clients connect to `path`, and are connected to `agent`. `narrow`: with small buffers.
  Relay(const std::string& path, std::string agent, bool narrow)
      : agent_(std::move(agent)), narrow_(narrow), listener_(newSocket()) {
    const sockaddr_un address = addressOf(path);
    if (bind(listener_.get(), generic(address), sizeof address) != 0 ||
        listen(listener_.get(), 4) != 0) {
      throw std::runtime_error("cannot listen on " + path);
    }
  }

  // Takes the client that connects next. Once so many bytes have gone down or up, the connection is
  // cut. `model`: see StreamTap.
  void accept(std::uint64_t cutDown, std::uint64_t cutUp, ConfigModel* model) {
    pollfd wanted{listener_.get(), POLLIN, 0};
    if (poll(&wanted, 1, kPatienceMs) != 1) throw std::runtime_error("no client has come");
    Fd client(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    Fd agent = newSocket();
    const sockaddr_un address = addressOf(agent_);
    if (!client || connect(agent.get(), generic(address), sizeof address) != 0) {
      throw std::runtime_error("cannot connect to " + agent_);
    }
    if (narrow_) {
      ControlTest::narrow(client.get());
      ControlTest::narrow(agent.get());
    }
    ways_[down] = {StreamTap(model), cutDown};
    ways_[up] = {StreamTap(nullptr), cutUp};
    client_ = std::move(client);
    agentEnd_ = std::move(agent);
  }
  bool connected() const { return static_cast<bool>(client_); }
  void cut() {
    client_.close();
    agentEnd_.close();
  }

  // Moves at most `most` bytes in each direction, waiting so long for any. False if nothing moved.
  bool pump(std::size_t most, int waitMs) {
    if (!connected()) return false;
    std::array<pollfd, 2> wanted{{{client_.get(), 0, 0}, {agentEnd_.get(), 0, 0}}};
    interest(ways_[down], wanted[1], wanted[0]);
    interest(ways_[up], wanted[0], wanted[1]);
    // One that is closed would be reported at each look, whether its bytes can go on or not.
    for (pollfd& end : wanted) {
      if (end.events == 0) end.fd = -1;
    }
    if (poll(wanted.data(), wanted.size(), waitMs) <= 0) return false;
    const std::uint64_t before = moved();
    if (!move(ways_[down], agentEnd_, client_, most) ||
        !move(ways_[up], client_, agentEnd_, most)) {
      cut();
    }
    return moved() != before;
  }
  // Bytes that have been moved on this connection.
  std::uint64_t moved() const { return ways_[down].moved + ways_[up].moved; }
  // Whether there is no byte between the two processes: what the one has written the other has
  // read.
  bool empty() const {
    return connected() && ways_[down].held.empty() && ways_[up].held.empty() &&
           count(client_, SIOCINQ) == 0 && count(agentEnd_, SIOCINQ) == 0 &&
           count(client_, SIOCOUTQ) == 0 && count(agentEnd_, SIOCOUTQ) == 0;
  }
  const StreamTap& tap(Direction direction) const { return ways_[direction].tap; }

 private:
  struct Way {
    StreamTap tap{nullptr};
    std::uint64_t end = kNoEnd;
    std::uint64_t moved = 0;
    std::vector<std::uint8_t> held{};
  };

  static Fd newSocket() { return Fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)); }
  static sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) throw std::runtime_error("long path: " + path);
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
  }
  static const sockaddr* generic(const sockaddr_un& address) {
    return reinterpret_cast<const sockaddr*>(&address);
  }
  static int count(const Fd& fd, unsigned long request) {
    int bytes = -1;
    return ioctl(fd.get(), request, &bytes) == 0 ? bytes : -1;
  }
  static void interest(const Way& way, pollfd& from, pollfd& to) {
    from.events = static_cast<short>(from.events | (way.held.empty() ? POLLIN : 0));
    to.events = static_cast<short>(to.events | (way.held.empty() ? 0 : POLLOUT));
  }
  // False: to be cut.
  static bool move(Way& way, const Fd& from, const Fd& to, std::size_t most) {
    bool open = true;
    if (way.held.empty()) {
      way.held.resize(std::max<std::size_t>(most, 1));
      const ssize_t got = recv(from.get(), way.held.data(), way.held.size(), MSG_DONTWAIT);
      open = got > 0 || (got < 0 && (errno == EAGAIN || errno == EINTR));
      way.held.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    }
    const auto size =
        static_cast<std::size_t>(std::min<std::uint64_t>(way.held.size(), way.end - way.moved));
    if (size != 0) {
      const ssize_t sent = send(to.get(), way.held.data(), size, MSG_DONTWAIT | MSG_NOSIGNAL);
      if (sent < 0 && errno != EAGAIN && errno != EINTR) open = false;
      const std::size_t taken = sent > 0 ? static_cast<std::size_t>(sent) : 0;
      way.tap.bytesIn(std::span(way.held).first(taken));
      way.held.erase(way.held.begin(), way.held.begin() + static_cast<std::ptrdiff_t>(taken));
      way.moved += taken;
    }
    return open && way.moved < way.end;
  }

  const std::string agent_;
  const bool narrow_;
  const Fd listener_;
  Fd client_;
  Fd agentEnd_;
  std::array<Way, 2> ways_{};
};

}  // namespace ControlTest
