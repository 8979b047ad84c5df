// SPDX-License-Identifier: Apache-2.0
//
// Agent::ControlServer: the agent's end of the control socket: accepts clients, cuts what they send
// into frames, has the service answer, and writes what goes back. docs/formats.md, "Control
// socket", has the protocol.
//
// Activity thread only; works on the loop that it was made with. Service and rights outlive it.
//
// Invariants:
//  1. Nothing waits: sockets are non-blocking, and a turn of the loop carries out at most
//     kFramesPerTurn frames of all clients together, reads and writes at most kBytesPerClient each
//     way for each of at most kClientsPerTurn clients, and accepts at most kAcceptsPerTurn. What is
//     left goes on in the next turn, behind which the loop has read its packets. A frame of the
//     attribute log counts as so many as it may hold messages; one that is more than a turn's
//     share has a turn of its own.
//  2. A client costs at most one frame of the greatest length in, and kMostOut bytes, two frames
//     and what its stream bounds by itself out. One whose output has reached kMostOut is not read
//     until it has taken some.
//     Of new clients kAcceptsPerSecond are taken a second; the listener is withdrawn for the rest
//     of it.
//  3. Whatever a client does, or leaves undone, ends its own connection at most, with one log line;
//     of such lines there are at most kMaxLinesPerSecond a second.
//  4. No timer runs while every client has said hello, sent what it began and taken what there was.
//  5. Those who may only read have kReaderFramesPerSecond frames a second carried out, counted as
//     above, all of them together; the rest waits, in their sockets in the end. A frame begins
//     while there is something left, and what it takes beyond that is missing in the next second:
//     so the largest gets its turn beside any number of small ones. The agent may be a real-time
//     process, and nobody without a right may have it busy all the time.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "agent/control/ControlService.h"
#include "agent/control/ListeningSocket.h"
#include "agent/control/Rights.h"
#include "platform/linux/control/FrameConnection.h"
#include "platform/linux/control/Readiness.h"
#include "runtime/vex/ActivityManager.h"

namespace Agent {

// Whether one more client is taken: empty, or the limit that it would break. Those that may only
// read, of whom `readers` are there, have three quarters of the places, and each user of them
// (`ofUser`) a quarter, so that nobody shuts the operator out; root has four more than all others.
struct Admission {
  std::size_t clients = 0;
  std::size_t readers = 0;
  std::size_t ofUser = 0;
  bool mayWrite = false;
  bool root = false;
};
std::string admissionRefusal(const Admission& now, std::size_t maxClients);

class ControlServer final : private Vex::ReadableHandler,
                            private Vex::TimerSource,
                            private Vex::DeferredTask {
 public:
  static constexpr std::size_t kFramesPerTurn = 16;
  // The shortest message of the attribute log that has anything done, its header included: a frame
  // of the log counts as 1 and its length divided by this.
  static constexpr std::size_t kLogMessage = 34;
  static constexpr std::size_t kClientsPerTurn = 8;
  static constexpr std::size_t kAcceptsPerTurn = 4;
  static constexpr std::size_t kBytesPerClient = 16 * 1024;
  static constexpr std::size_t kMostOut = 128 * 1024;
  static constexpr unsigned kMaxLinesPerSecond = 8;
  static constexpr unsigned kAcceptsPerSecond = 64;
  static constexpr std::size_t kReaderFramesPerSecond = 2000;
  // Seconds: within which a client says hello; without taking a byte of what waits for it, or, if
  // nothing does, sending one of a message that it has begun; without accepting after a failure.
  static constexpr double kHelloTime = 10.0;
  static constexpr double kStallTime = 30.0;
  static constexpr double kAcceptPause = 1.0;

  struct Options {
    std::string path;
    std::size_t maxClients = 32;
    std::string name;  // of this program, for its hello
  };

  // Raises an internal exception if the system has no descriptors.
  ControlServer(Vex::ActivityManager& manager, ControlService& service, const Rights& rights,
                Options options);
  ~ControlServer() override;

  // Listens. Empty, or why it cannot; the server does nothing then, and may be asked again.
  std::string open();
  // Takes a connection that was made elsewhere, as if it had been accepted.
  void admitted(Platform::Linux::Fd socket) { admit(std::move(socket)); }

  std::size_t clients() const noexcept { return clients_.size(); }
  // The most bytes that any client has had waiting for it at the end of a turn.
  std::size_t mostWaiting() const noexcept { return mostWaiting_; }

 private:
  struct Client;

  void onReadable() override;
  double nextDue() override;
  void runDue(double now) override;
  void run() override;

  void accept();
  void admit(Platform::Linux::Fd socket);
  void refuse(Platform::Linux::Fd socket, const Credentials& who, const std::string& reason);
  void pauseAccept(int error);
  void withdrawListener(double until);
  // It has something to do in the next turn.
  void queue(Client& client);
  // One turn's share of a client's work. `frames` goes down by what was carried out; it is none
  // afterwards if the client's next frame is to have the next turn.
  void work(Client& client, std::size_t& frames);
  // Whether one more frame of the client's, which counts as `cost`, may be carried out now.
  bool admitFrame(Client& client, std::size_t cost);
  void handleFrame(Client& client, const Platform::Linux::Control::Frame& frame);
  void handleHello(Client& client, const Platform::Linux::Control::Hello& hello);
  void handleRequest(Client& client, const Platform::Linux::Control::Request& request);
  void answer(Client& client, const Platform::Linux::Control::Answer& answer);
  void write(Client& client);
  // At the end of its turn; `before`: the bytes that waited for it before the last write.
  void updateDeadline(Client& client, std::size_t before);
  void updateInterest(Client& client);
  // An empty reason: it went by itself. The client is gone afterwards.
  void drop(Client& client, const std::string& reason);
  // The same for one that has closed, of which everything has been read.
  void dropClosed(Client& client);
  void logDrop(const Credentials& who, const std::string& reason);
  double clock() const noexcept { return manager_.clock()->now(); }

  Vex::ActivityManager& manager_;
  ControlService& service_;
  const Rights& rights_;
  const Options options_;
  Platform::Linux::Control::Readiness readiness_;
  ListeningSocket listening_;
  std::unordered_map<int, std::unique_ptr<Client>> clients_;  // by descriptor
  std::deque<int> queue_;  // of those in clients_ that have something to do
  bool acceptable_ = false;
  double acceptAgain_ = Vex::kNever;  // kNever: it is not paused
  std::size_t mostWaiting_ = 0;
  double readersBegan_ = 0.0;
  std::size_t readerFrames_ = 0;
  double readersAgain_ = Vex::kNever;  // kNever: nobody waits
  double acceptsBegan_ = 0.0;
  unsigned accepts_ = 0;
  double linesBegan_ = 0.0;
  unsigned lines_ = 0;
};

}  // namespace Agent
