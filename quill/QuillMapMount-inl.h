// SPDX-License-Identifier: Apache-2.0
//
// The bodies of QuillMap.h: how a handle is mounted, unmounted and destroyed.
#pragma once

#include <iomanip>
#include <sstream>
#include <utility>

#include "quill/QuillMap.h"
#include "quill/QuillReader.h"
#include "quill/QuillShadow.h"
#include "quill/QuillTemporary.h"
#include "quill/QuillWriter.h"
#include "quill/Text.h"
#include "quill/Util.h"

namespace Quill {

template <class KEY, class VALUE, class NOTIFY>
QuillMap<KEY, VALUE, NOTIFY>::QuillMap(std::string fullName, std::string shortName)
    : fullName_(std::move(fullName)),
      debugHandler_(Sable::Platform::getDebugHandler("QuillMap-" + shortName)),
      shortName_(std::move(shortName)) {}

template <class KEY, class VALUE, class NOTIFY>
QuillMap<KEY, VALUE, NOTIFY>::~QuillMap() {
  trace(8, [](std::ostream& os) { os << "QuillMap::~QuillMap() deleting state"; });
  readerMounter_ = nullptr;
  mounter_.reset();
  debugHandlerIs(nullptr);
}

template <class KEY, class VALUE, class NOTIFY>
void QuillMap<KEY, VALUE, NOTIFY>::debugHandlerIs(
    std::unique_ptr<Sable::Platform::DebugHandler> handler) {
  retired_.reset();
  implementation_.reset();
  debugHandler_ = std::move(handler);
}

template <class KEY, class VALUE, class NOTIFY>
void QuillMap<KEY, VALUE, NOTIFY>::implementationIs(std::unique_ptr<Base> implementation) {
  implementation_ = std::move(implementation);
}

template <class KEY, class VALUE, class NOTIFY>
auto QuillMap<KEY, VALUE, NOTIFY>::createDefaultLocalWriter(
    Sable::Platform::DebugHandler& handler) const -> std::unique_ptr<Base> {
  auto local = std::make_unique<QuillTemporary<KEY, VALUE>>(handler, fullName_.c_str(),
                                                            kDefaultLocalSize, true, "");
  if (!local->initialize()) {
    raise<Sable::RuntimeException>(
        "QuillMap::createDefaultLocalWriter(): unable to initialize local QuillTemporary");
  }
  return local;
}

template <class KEY, class VALUE, class NOTIFY>
auto QuillMap<KEY, VALUE, NOTIFY>::newDummy() const -> std::unique_ptr<QuillBaseDummy<KEY, VALUE>> {
  return std::make_unique<QuillBaseDummy<KEY, VALUE>>(*debugHandler_, fullName_, !isLocal_);
}

template <class KEY, class VALUE, class NOTIFY>
auto QuillMap<KEY, VALUE, NOTIFY>::newReader() -> std::unique_ptr<Base> {
  if (!isShadow()) {
    return std::make_unique<QuillReader<KEY, VALUE>>(*debugHandler_, fullName_.c_str());
  }
  if (notifier_ == nullptr) {
    raise<Sable::RuntimeException>("QuillMap::attach() notify not set");
  }
  return std::make_unique<QuillShadow<KEY, VALUE, QuillMap>>(*debugHandler_, fullName_.c_str(),
                                                             this, mode_ == QuillType::keyshadow);
}

template <class KEY, class VALUE, class NOTIFY>
void QuillMap<KEY, VALUE, NOTIFY>::requireSameInit(QuillType mode, bool isLocal,
                                                   unsigned size) const {
  const std::string text =
      textOf("QuillMap::init() name: ", fullName_, " already initialized with mode: ", mode_,
             " size: ", maxSize(), " local: ", isLocal_);
  const bool same =
      mode == mode_ && isLocal == isLocal_ && (mode != QuillType::writer || size == maxSize());
  if (!same && !(isLocal && isLocal_)) raise<Sable::InvalidInitializeException>(text);
  trace(7, [&](std::ostream& os) { os << text; });
}

template <class KEY, class VALUE, class NOTIFY>
void QuillMap<KEY, VALUE, NOTIFY>::init(QuillType mode, bool isLocal, unsigned int size) {
  trace(7, [&](std::ostream& os) {
    os << "QuillMap::init() name:" << fullName_ << " mode:" << mode << " isLocal:" << isLocal
       << " size:" << size;
  });
  if (initialized_) return requireSameInit(mode, isLocal, size);
  if (mode == QuillType::writer && size == 0) {
    raise<Sable::InvalidInitializeException>(
        "QuillMap::init() 0 is not a valid initialization size for collection ", fullName_,
        " in writer mode");
  }
  std::ostringstream name;
  name << "Quill-" << std::hex << std::setfill('0') << std::setw(4)
       << (Util::hash(fullName_) & 0xffffU) << "-" << shortName_ << "-" << mode;
  debugHandlerIs(Sable::Platform::getDebugHandler(name.str()));
  mode_ = mode;
  isLocal_ = isLocal;
  try {
    // Here and not when it is needed: memory may have run out by then.
    Vex::ActivityManager* const loop = Vex::currentActivityManager();
    if (loop != nullptr) retired_ = std::make_unique<Retired<Base>>(*loop);
    mountFirst(size);
  } catch (...) {
    // The handle goes on, empty. Not even a name that cannot be a directory's may prevent that, so
    // this one placeholder knows no directory.
    readerMounter_ = nullptr;
    mounter_.reset();
    implementation_ =
        std::make_unique<QuillBaseDummy<KEY, VALUE>>(*debugHandler_, fullName_, false);
    throw;
  }
  initialized_ = true;
}

template <class KEY, class VALUE, class NOTIFY>
void QuillMap<KEY, VALUE, NOTIFY>::mountFirst(unsigned size) {
  Mountable& self = *this;
  if (!isLocal_ && mode_ != QuillType::writer) {
    if (!isShadow() && mode_ != QuillType::reader) {
      raise<Sable::RuntimeException>("QuillMap::init() not a valid reader type:", mode_);
    }
    implementation_ = newDummy();
    auto mounter = std::make_unique<ReaderMounter>(*debugHandler_, self);
    readerMounter_ = mounter.get();
    mounter_ = std::move(mounter);
    try {
      mounter_->notify("QuillMap::init()");
    } catch (const Sable::Exception& failure) {
      // A shadow without a notifier is the caller's mistake; anything else is the table's, and the
      // mounter tries again.
      if (isShadow() && notifier_ == nullptr) throw;
      trace(7, [&](std::ostream& os) { os << "QuillMap::init() not mounted: " << failure.msg(); });
    }
  } else {
    implementation_ = std::make_unique<QuillWriter<KEY, VALUE>>(*debugHandler_, fullName_.c_str(),
                                                                size, isLocal_, classType());
    if (!implementation_->initialize()) {
      raise<Sable::InvalidInitializeException>("QuillMap::init() failed to initialize collection",
                                               fullName_);
    }
    if (!isLocal_) {
      mounter_ = std::make_unique<WriterMounter>(*debugHandler_, self);
      mounter_->notify("QuillMap::init()");
    }
  }
  implementation_->sampleIs(sample_);
}

template <class KEY, class VALUE, class NOTIFY>
void QuillMap<KEY, VALUE, NOTIFY>::attach() {
  if (mode_ == QuillType::writer) {
    raise<Sable::RuntimeException>("QuillMap::attach() invoked for a writer");
  }
  const QuillType present = implementation_->type();
  // A shadow that lost its connection keeps its copy and only connects again.
  const bool retry =
      isShadow() && (present == QuillType::shadow || present == QuillType::keyshadow);
  std::unique_ptr<Base> fallback;
  if (retry) {
    fallback = newDummy();
  } else {
    fallback = newReader();
    implementation_.swap(fallback);
  }
  Base* const candidate = implementation_.get();
  trace(7, [&](std::ostream& os) {
    os << "QuillMap::attach() attempting to attach " << candidate->rootPath() << " as " << mode_;
  });
  bool attached = false;
  try {
    candidate->yieldTimeIs(yieldTime_);
    candidate->sampleIs(sample_);
    candidate->notifying(notifying_);
    attached = candidate->initialize();
  } catch (...) {
    putBack(std::move(fallback), retry);
    throw;
  }
  // Damage that was met behind a first copy has put a placeholder here by now.
  if (attached && implementation_.get() == candidate) {
    trace(7, [](std::ostream& os) { os << "QuillMap::attach() successful"; });
    retire(std::move(fallback));
    return;
  }
  trace(7, [&](std::ostream& os) {
    os << "QuillMap::attach() initialize failed for " << fallback->rootPath();
  });
  putBack(std::move(fallback), retry);
}

template <class KEY, class VALUE, class NOTIFY>
void QuillMap<KEY, VALUE, NOTIFY>::putBack(std::unique_ptr<Base> fallback, bool retry) {
  // One that was mounted tells its listener what goes, while it still answers, and may be where
  // this was called from. A new one has no other caller than attach().
  if (retry) implementation_->detach();
  implementation_.swap(fallback);
  if (retry) retire(std::move(fallback));
}

template <class KEY, class VALUE, class NOTIFY>
void QuillMap<KEY, VALUE, NOTIFY>::retire(std::unique_ptr<Base> old) {
  if (retired_ == nullptr) {
    // The handle was initialized without a loop. Without one now, too, no handler runs: `old` ends
    // here.
    Vex::ActivityManager* const loop = Vex::currentActivityManager();
    if (loop != nullptr) retired_ = std::make_unique<Retired<Base>>(*loop);
  }
  if (retired_ != nullptr) retired_->add(std::move(old));
}

template <class KEY, class VALUE, class NOTIFY>
void QuillMap<KEY, VALUE, NOTIFY>::unmount() const {
  trace(7, [&](std::ostream& os) { os << "QuillMap::detach() " << held().rootPath(); });
  // A placeholder stays: put into another one at each call, they would pile up.
  if (dynamic_cast<QuillBaseDummy<KEY, VALUE>*>(&held()) != nullptr) return held().detach();
  auto dummy = newDummy();  // first: without memory for it everything stays as it is
  held().detach();
  dummy->wrap(std::move(implementation_));
  implementation_ = std::move(dummy);
}

template <class KEY, class VALUE, class NOTIFY>
void QuillMap<KEY, VALUE, NOTIFY>::controlDetach() {
  unmount();
  readerMounter_ = nullptr;
  mounter_.reset();
  initialized_ = false;
}

template <class KEY, class VALUE, class NOTIFY>
void QuillMap<KEY, VALUE, NOTIFY>::corruptionDetected(const std::string& message) const {
  const std::string root = rootPath();
  const std::string text = textOf("QuillMap::corruptionDetected() ", root, " ", message);
  trace(7, [&](std::ostream& os) { os << text; });
  if (mode_ == QuillType::writer) raise<CorruptionDetectedException>(text);
  // First: without memory for the timer everything stays as it is, and the next read comes here.
  if (readerMounter_ != nullptr && notifying_) readerMounter_->armRemount();
  unmount();
  if (isLocal_) return;  // no directory, nobody to tell
  Util::writeCorruptionFile(*debugHandler_, root, message);
  // Should the writer not answer, because it is gone itself.
  if (readerMounter_ != nullptr && notifying_) readerMounter_->handleMounted();
}

template <class KEY, class VALUE, class NOTIFY>
void QuillMap<KEY, VALUE, NOTIFY>::handleDisconnect() {
  trace(8, [](std::ostream& os) { os << "QuillMap::handleDisconnect()"; });
  if (!isShadow()) {
    raise<Sable::RuntimeException>("ReaderMounter::handleDisconnect() wrong type:", mode_);
  }
  // Called by the loop's handlers, which have nobody to pass an exception to.
  if (readerMounter_ != nullptr) readerMounter_->onEvent("QuillMap::handleDisconnect()");
}

}  // namespace Quill
