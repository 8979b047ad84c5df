// SPDX-License-Identifier: Apache-2.0
//
// Control::ControlClient: the client's end of the control socket on an activity loop: connects,
// says hello, sends requests, and hands out what comes back.
//
// Belongs to the loop's thread, with the loop current or not. Nothing here waits. Callbacks come
// from the loop's turns; each may close the client, none may destroy it.
//
// Invariants:
//  1. Exactly one gone() follows an open() that has succeeded, unless the object goes before.
//  2. Output is bounded by what the owner asks for; input by one frame.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/linux/control/FrameConnection.h"
#include "platform/linux/control/Protocol.h"
#include "platform/linux/control/Readiness.h"
#include "runtime/vex/ActivityManager.h"

namespace Platform::Linux::Control {

class ControlClient final : private Vex::ReadableHandler {
 public:
  struct Callbacks {
    std::function<void(const Hello& hello)> greeted;
    std::function<void(Answer answer)> answered;
    std::function<void(const Frame& frame)> logged;       // a frame of the attribute log
    std::function<void(const std::string& reason)> gone;  // one line, for people
    std::function<void()> written;                        // all output has been taken
  };

  // `name`: who speaks, for the hello.
  ControlClient(Vex::ActivityManager& manager, std::string name, Callbacks callbacks);
  ControlClient(const ControlClient&) = delete;
  ControlClient& operator=(const ControlClient&) = delete;
  ~ControlClient();

  // Connects and sends the hello. The error is the system's: ENOENT and ECONNREFUSED say that no
  // agent listens there, EAGAIN that too many wait to be taken and another try may succeed.
  std::error_code open(const std::string& path);
  bool connected() const noexcept { return connection_ != nullptr; }
  void close() noexcept;

  // Returns the number under which the answer comes. REQUIRES: connected; the request fits().
  std::uint32_t newRequest(Operation operation, std::vector<std::string> texts);
  // Whole frames of the attribute log. REQUIRES: connected.
  void framesOut(Bytes frames);
  // Bytes that wait to be written.
  std::size_t waiting() const noexcept { return connection_ ? connection_->waiting() : 0; }

 private:
  void onReadable() override;
  void handleFrame(const Frame& frame);
  void write();
  void handleGone(const std::string& reason);

  Vex::ActivityManager& manager_;
  const std::string name_;
  const Callbacks callbacks_;
  Readiness readiness_;
  std::unique_ptr<FrameConnection> connection_;
  bool wantsWrite_ = false;
  std::uint32_t lastId_ = 0;
};

}  // namespace Platform::Linux::Control
