// SPDX-License-Identifier: Apache-2.0
//
// The bodies of QuillMap.h: what a mounted handle does. QuillMapMount-inl.h has the mounting.
#pragma once

#include <utility>

#include "quill/QuillMap.h"
#include "quill/Text.h"
#include "quill/Util.h"
#include "runtime/vex/Exception.h"

namespace Quill {

template <class KEY, class VALUE, class NOTIFY>
auto QuillMap<KEY, VALUE, NOTIFY>::held() const -> Base& {
  if (implementation_ == nullptr) [[unlikely]] {
    raise<Sable::RuntimeException>("QuillMap name: ", fullName_, " used before init()");
  }
  return *implementation_;
}

template <class KEY, class VALUE, class NOTIFY>
auto QuillMap<KEY, VALUE, NOTIFY>::traced(const char* operation) const -> Base& {
  Base& implementation = held();
  trace(9, [&](std::ostream& os) {
    os << "QuillMap::" << operation << "() " << implementation.rootPath();
  });
  return implementation;
}

template <class KEY, class VALUE, class NOTIFY>
Reader::Counters QuillMap<KEY, VALUE, NOTIFY>::readerCounters() const {
  Reader::Counters counters = held().readerCounters();
  if (mounter_ != nullptr) {
    counters.mounterNotifies = mounter_->notifyCount();
    counters.remountTimeouts = mounter_->remountTimeouts();
  }
  return counters;
}

template <class KEY, class VALUE, class NOTIFY>
Writer::Counters QuillMap<KEY, VALUE, NOTIFY>::writerCounters() const {
  return traced("writerCounters").writerCounters();
}

template <class KEY, class VALUE, class NOTIFY>
void QuillMap<KEY, VALUE, NOTIFY>::cleanup() {
  traced("cleanup").cleanup();
}

template <class KEY, class VALUE, class NOTIFY>
std::string QuillMap<KEY, VALUE, NOTIFY>::rootPath() const {
  return traced("rootPath").rootPath();
}

template <class KEY, class VALUE, class NOTIFY>
std::string QuillMap<KEY, VALUE, NOTIFY>::quillName() const {
  return traced("quillName").quillName();
}

template <class KEY, class VALUE, class NOTIFY>
bool QuillMap<KEY, VALUE, NOTIFY>::validate() {
  return traced("validate").validate();
}

template <class KEY, class VALUE, class NOTIFY>
bool QuillMap<KEY, VALUE, NOTIFY>::validateFiles() {
  return traced("validateFiles").validateFiles();
}

template <class KEY, class VALUE, class NOTIFY>
unsigned QuillMap<KEY, VALUE, NOTIFY>::mountStatus() const {
  return traced("mountStatus").mountStatus();
}

template <class KEY, class VALUE, class NOTIFY>
std::uint64_t QuillMap<KEY, VALUE, NOTIFY>::sequence() const {
  return traced("sequence").sequence();
}

template <class KEY, class VALUE, class NOTIFY>
unsigned QuillMap<KEY, VALUE, NOTIFY>::fenixId() const {
  return traced("fenixId").fenixId();
}

template <class KEY, class VALUE, class NOTIFY>
std::string QuillMap<KEY, VALUE, NOTIFY>::owner() const {
  std::string name;
  const int pid = Util::readOwnerPid(*debugHandler_, rootPath(), name);
  return textOf(name, ":", pid);
}

template <class KEY, class VALUE, class NOTIFY>
bool QuillMap<KEY, VALUE, NOTIFY>::resize() const {
  return traced("resize").resize();
}

template <class KEY, class VALUE, class NOTIFY>
unsigned QuillMap<KEY, VALUE, NOTIFY>::maxSize() const {
  return traced("maxSize").maxSize();
}

template <class KEY, class VALUE, class NOTIFY>
unsigned QuillMap<KEY, VALUE, NOTIFY>::capacity() const {
  return traced("capacity").capacity();
}

template <class KEY, class VALUE, class NOTIFY>
void QuillMap<KEY, VALUE, NOTIFY>::notifying(bool on) const {
  notifying_ = on;
  if (implementation_ != nullptr) implementation_->notifying(on);
  if (on && mounter_ != nullptr) mounter_->notify("Notifications enabled");
}

template <class KEY, class VALUE, class NOTIFY>
void QuillMap<KEY, VALUE, NOTIFY>::yieldTimeIs(double const& seconds) const {
  if (!(seconds >= 0.0)) {
    Vex::throwRangeException(
        textOf("yieldTime of table ", fullName_, ": ", seconds, " seconds: must be 0 or more"));
  }
  yieldTime_ = seconds;
  if (implementation_ != nullptr) implementation_->yieldTimeIs(seconds);
}

template <class KEY, class VALUE, class NOTIFY>
void QuillMap<KEY, VALUE, NOTIFY>::sampleIs(unsigned int entries) const {
  sample_ = entries;
  if (implementation_ != nullptr) implementation_->sampleIs(entries);
}

template <class KEY, class VALUE, class NOTIFY>
bool QuillMap<KEY, VALUE, NOTIFY>::remove(const KEY& key, VALUE& old) {
  if (!held().remove(key, removeScratch_)) return false;
  old = removeScratch_;
  return true;
}

template <class KEY, class VALUE, class NOTIFY>
const VALUE& QuillMap<KEY, VALUE, NOTIFY>::safeLookup(const KEY& key, bool& found) const {
  try {
    return held().lookup(key, found);
  } catch (const CorruptionDetectedException& damage) {
    corruptionDetected(damage.msg());
  }
  return defaultValue_;
}

template <class KEY, class VALUE, class NOTIFY>
const VALUE* QuillMap<KEY, VALUE, NOTIFY>::safeWrite(const VALUE& value, bool overwrite) {
  try {
    return held().write(value, overwrite);
  } catch (const CorruptionDetectedException& damage) {
    corruptionDetected(damage.msg());
  }
  raise<Sable::RuntimeException>("QuillMap::safeWrite() in no man's land");
}

template <class KEY, class VALUE, class NOTIFY>
VALUE QuillMap<KEY, VALUE, NOTIFY>::safeRemove(const KEY& key) {
  try {
    return held().remove(key, removeScratch_) ? removeScratch_ : VALUE{};
  } catch (const CorruptionDetectedException& damage) {
    corruptionDetected(damage.msg());
  }
  raise<Sable::RuntimeException>("QuillMap::safeRemove() in no man's land");
}

template <class KEY, class VALUE, class NOTIFY>
void QuillMap<KEY, VALUE, NOTIFY>::directCommit() {
  try {
    return held().directCommit();
  } catch (const CorruptionDetectedException& damage) {
    corruptionDetected(damage.msg());
  }
  raise<Sable::RuntimeException>("QuillMap::directCommit() in no man's land");
}

}  // namespace Quill
