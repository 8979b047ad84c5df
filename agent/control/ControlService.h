// SPDX-License-Identifier: Apache-2.0
//
// What the control server needs of whatever stands behind it: answers to requests, and streams of
// changes for clients that subscribe. The server knows bytes and rights, the service knows
// entities. Activity thread only.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/linux/control/Protocol.h"

namespace Agent {

// The stream of one client. What it keeps for the client is bounded by itself.
class ControlStream {
 public:
  virtual ~ControlStream() = default;
  // A frame of the client's with a type below kFirstOwnType. Raises a Vex::Exception for what
  // cannot be: the owner drops the client.
  virtual void frameIn(const Platform::Linux::Control::Frame& frame) = 0;
  // Whole frames that wait for the client; good until the next call.
  virtual Platform::Linux::Control::Bytes output() const = 0;
  // The first `bytes` of them have been taken.
  virtual void outputDel(std::size_t bytes) = 0;
};

class ControlService {
 public:
  virtual ~ControlService() = default;
  // Carries out what is no subscription. Whoever lacks a right is answered with Status::refused and
  // `refusal`, which is empty for whoever may change things. What goes wrong is an answer, too.
  virtual Platform::Linux::Control::Answer answer(const Platform::Linux::Control::Request& request,
                                                  const std::string& refusal) = 0;
  // A stream of the named roots. `outputReady` may be called at any time from then on and only
  // takes note. Raises a Vex::Exception that names what is wrong with the names.
  virtual std::unique_ptr<ControlStream> newStream(const std::vector<std::string>& roots,
                                                   const std::string& refusal,
                                                   std::function<void()> outputReady) = 0;
};

}  // namespace Agent
