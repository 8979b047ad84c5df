// SPDX-License-Identifier: Apache-2.0
#include "quill/KickSession.h"

#include <utility>

#include "quill/Text.h"

namespace Quill {

namespace {

constexpr double kRateWindow = 1.0;

}  // namespace

KickSession::Effect KickSession::refuse(std::string& reason, std::string text) const {
  reason = std::move(text);
  return Effect::refused;
}

KickSession::Effect KickSession::handleMessage(const KickMessage& message, std::uint64_t last,
                                               double now, std::string& reason) {
  // A clock that went back begins a window too.
  if (messages_ == 0 || now - windowBegan_ >= kRateWindow || now < windowBegan_) {
    windowBegan_ = now;
    messages_ = 0;
  }
  if (++messages_ > kMaxMessagesPerSecond) {
    return refuse(reason, textOf("more than ", kMaxMessagesPerSecond, " messages in a second"));
  }
  switch (message.type) {
    case KickType::hello:
      if (greeted_) return refuse(reason, "a second HELLO");
      if (message.sequence != 0) {
        return refuse(reason, textOf("HELLO with sequence ", message.sequence, ", must be 0"));
      }
      greeted_ = true;
      return Effect::none;
    case KickType::sequence:
    case KickType::sleep:
      return handleReport(message, last, reason);
    case KickType::ack:
    case KickType::kick:
      break;
  }
  return refuse(reason, textOf(message.type, " from a reader, must be HELLO, SEQUENCE or SLEEP"));
}

KickSession::Effect KickSession::handleReport(const KickMessage& message, std::uint64_t last,
                                              std::string& reason) {
  if (!greeted_) return refuse(reason, textOf(message.type, " before HELLO"));
  if (!introduced_ && message.type == KickType::sleep) {
    return refuse(reason, "SLEEP before the first SEQUENCE");
  }
  if (message.sequence < sequence_ || message.sequence > last) {
    return refuse(reason, textOf(message.type, " with sequence ", message.sequence, ", must be ",
                                 sequence_, " to ", last));
  }
  sequence_ = message.sequence;
  if (!introduced_) {
    introduced_ = true;
    return Effect::introduced;
  }
  // A report does not end a sleep: a kick too many costs the reader one look at the queue, a kick
  // too few a change.
  if (message.type == KickType::sequence) return Effect::none;
  // Not from a sleeper: it had come up to the last one, and each change since would have woken it.
  // Once for each `last`: the reader looks after the kick, and if it still reports less there is
  // nothing that it can find. In a damaged queue the two would wake each other for ever.
  if (message.sequence < last && last != kickedFor_) {
    kickedFor_ = last;
    return Effect::kickNow;
  }
  asleep_ = true;
  return Effect::slept;
}

}  // namespace Quill
