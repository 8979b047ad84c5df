// SPDX-License-Identifier: Apache-2.0
#include "quill/ReaderMounter.h"

#include <exception>

#include "quill/FenixFile.h"
#include "quill/SystemLog.h"
#include "quill/Text.h"
#include "runtime/vex/ActivityManager.h"
#include "runtime/vex/Exception.h"

namespace Quill {

namespace {

// Raises the flag for a scope.
class Mounting {
 public:
  explicit Mounting(bool& flag) noexcept : flag_(flag) { flag_ = true; }
  Mounting(const Mounting&) = delete;
  Mounting& operator=(const Mounting&) = delete;
  ~Mounting() { flag_ = false; }

 private:
  bool& flag_;
};

}  // namespace

ReaderMounter::ReaderMounter(Sable::Platform::DebugHandler& handler, Mountable& map)
    : MounterBase(handler), map_(map), mounterSm_(handler, map.fullName(), *this) {
  if (!mounterSm_.ready()) {
    trace(7, [](std::ostream& os) { os << "ReaderMounter unable to initialize mounterSm"; });
  }
}

void ReaderMounter::notify(const std::string& eventName) {
  ++notifyCount_;
  if (eventName == "corruption-detected") return;  // a reader's report is the writer's to act on
  if (!map_.notifyingOn()) {
    trace(7, [](std::ostream& os) {
      os << "ReaderMounter::notify() ignoring notify because quillMap notifications are off.";
    });
    return;
  }
  // A shadow that loses its writer while it is being mounted, or a listener of it that switches
  // notifications on: the mounting under way ends with the right timer either way.
  if (mounting_) return;
  const Mounting mounting(mounting_);
  const unsigned disk = FenixFile::read(debugHandler(), map_.rootPath());
  const unsigned mine = map_.fenixId();
  trace(7, [&](std::ostream& os) {
    os << "QuillMap::ReaderMounter::notify() eventName: " << eventName << " fenixId: " << disk
       << " quillMap.fenixId: " << mine << " mode: " << map_.mode();
  });
  try {
    handleGeneration(disk, mine);
  } catch (...) {
    handleMounted();
    throw;
  }
  handleMounted();
}

void ReaderMounter::handleGeneration(unsigned disk, unsigned mine) {
  if (disk == mine) {
    // The same generation: a reader has all there is, a shadow may have lost its connection.
    if (disk != 0 && map_.mode() != QuillType::reader && map_.mountStatus() != 2) map_.attach();
    return;
  }
  if (mine != 0) map_.detach();
  map_.attach();
}

void ReaderMounter::handleMounted() {
  if (fullyAttached()) {
    if (remountTimer_ != nullptr) {
      remountTimeouts_ = 0;
      remountTimer_->cancel();
    }
    return;
  }
  armRemount();
}

void ReaderMounter::armRemount() {
  if (remountTimer_ == nullptr) {
    if (Vex::currentActivityManager() == nullptr) return;
    remountTimer_ = Sable::Platform::getTimerControl(*this);
  }
  trace(7,
        [](std::ostream& os) { os << "QuillMap::ReaderMounter::notify() arming remount timer"; });
  remountTimer_->arm(kRemountTime);
}

bool ReaderMounter::fullyAttached() const {
  switch (map_.mode()) {
    case QuillType::shadow:
    case QuillType::keyshadow:
      return map_.mountStatus() == 2;
    case QuillType::reader:
      return map_.mountStatus() == 1;
    case QuillType::writer:
      break;
  }
  VEX_ASSERT_TEXT(false, "quillMap.mode_ == reader()");
  return false;
}

void ReaderMounter::onEvent(const std::string& eventName) {
  try {
    notify(eventName);
  } catch (const std::exception& error) {
    trace(7, [&](std::ostream& os) {
      os << "ReaderMounter::onEvent() " << eventName << " caught: " << error.what();
    });
  }
}

void ReaderMounter::timeout() {
  const unsigned timeouts = ++remountTimeouts_;
  if (timeouts == 1) {
    trace(7, [&](std::ostream& os) {
      os << "ReaderMounter::timeout() start retrying to mount " << map_.fullName()
         << ". This message can be safely ignored if the writer is not running.";
    });
  }
  onEvent("remount timeout");
  if (!fullyAttached()) return;
  const std::string canary =
      textOf("CANARY: ", map_.fullName(), " ReaderMounter::timeout() remounted after ", timeouts,
             " timeouts");
  trace(7, [&](std::ostream& os) { os << canary; });
  systemLog(canary);
}

}  // namespace Quill
