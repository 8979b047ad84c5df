// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/control/ControlClient.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <cerrno>
#include <limits>

#include "runtime/vex/Exception.h"

namespace Platform::Linux::Control {

namespace {

constexpr std::size_t kChunk = 64 * 1024;
// Of one turn.
constexpr unsigned kMostReads = 16;

}  // namespace

ControlClient::ControlClient(Vex::ActivityManager& manager, std::string name, Callbacks callbacks)
    : manager_(manager), name_(std::move(name)), callbacks_(std::move(callbacks)) {
  manager_.readableIs(readiness_.fd(), *this);
}

ControlClient::~ControlClient() {
  close();
  manager_.readableDel(readiness_.fd());
}

std::error_code ControlClient::open(const std::string& path) {
  close();
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    return std::make_error_code(std::errc::filename_too_long);
  }
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  Fd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!socket) return lastError();
  // Succeeds or fails at once for this family: EAGAIN is a backlog that is full.
  if (connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return lastError();
  }
  const int fd = socket.get();
  auto made = std::make_unique<FrameConnection>(std::move(socket));
  if (const std::error_code error = readiness_.newInterest(fd, true, false)) return error;
  connection_ = std::move(made);
  wantsWrite_ = false;
  Hello hello;
  hello.capabilities = kRequests | kAttributeLog;
  hello.text = name_;
  connection_->frameOut(static_cast<std::uint8_t>(FrameType::hello), helloBody(hello));
  write();
  return {};
}

void ControlClient::close() noexcept {
  if (!connection_) return;
  readiness_.interestDel(connection_->fd());
  connection_.reset();
}

std::uint32_t ControlClient::newRequest(Operation operation, std::vector<std::string> texts) {
  VEX_ASSERT(connected());
  const Request request{++lastId_, operation, std::move(texts)};
  connection_->frameOut(static_cast<std::uint8_t>(FrameType::request), requestBody(request));
  write();
  return request.id;
}

void ControlClient::framesOut(Bytes frames) {
  VEX_ASSERT(connected());
  connection_->bytesOut(frames);
  write();
}

// A broken connection is found by the next read: what has come before still counts.
void ControlClient::write() {
  static_cast<void>(connection_->write(std::numeric_limits<std::size_t>::max()));
  const bool wants = connection_->waiting() != 0;
  if (wants == wantsWrite_) return;
  wantsWrite_ = wants;
  readiness_.interestIs(connection_->fd(), true, wants);
}

void ControlClient::onReadable() {
  std::array<Readiness::Event, 1> events;
  if (readiness_.take(events) == 0 || !connection_) return;
  if (events[0].writable) {
    write();
    if (connection_->waiting() == 0 && callbacks_.written) callbacks_.written();
    if (!connection_) return;
  }
  if (!events[0].readable) return;
  try {
    for (unsigned reads = 0; reads < kMostReads; ++reads) {
      switch (connection_->read(kChunk)) {
        case FrameConnection::Input::some:
          break;
        case FrameConnection::Input::nothing:
          return;
        case FrameConnection::Input::closed:
          return handleGone("the agent has closed the connection");
      }
      // All of them, since nothing else would call again for what is left.
      while (const auto frame = connection_->in().next()) {
        handleFrame(*frame);
        if (!connection_) return;
      }
    }
  } catch (const Vex::RangeException& exception) {
    handleGone("the agent breaks the protocol: " + exception.text());
  }
}

void ControlClient::handleFrame(const Frame& frame) {
  if (frame.type < kFirstOwnType) {
    if (callbacks_.logged) callbacks_.logged(frame);
    return;
  }
  switch (static_cast<FrameType>(frame.type)) {
    case FrameType::hello:
      if (callbacks_.greeted) callbacks_.greeted(readHello(frame.body));
      return;
    case FrameType::answer:
      if (callbacks_.answered) callbacks_.answered(readAnswer(frame.body));
      return;
    case FrameType::farewell:
      return handleGone("the agent has closed the connection: " + readFarewell(frame.body));
    case FrameType::request:
      break;
  }
  Vex::throwRangeException("frame type " + std::to_string(frame.type) + " from an agent");
}

void ControlClient::handleGone(const std::string& reason) {
  close();
  if (callbacks_.gone) callbacks_.gone(reason);
}

}  // namespace Platform::Linux::Control
