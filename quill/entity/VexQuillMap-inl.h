// SPDX-License-Identifier: Apache-2.0
//
// The bodies of VexQuillMap.h.
#pragma once

#include <typeinfo>

#include "quill/QuillReader.h"
#include "quill/QuillWriter.h"
#include "quill/RootPath.h"
#include "quill/Text.h"
#include "quill/entity/VexQuillMap.h"
#include "runtime/sable/TypeName.h"
#include "runtime/vex/Exception.h"

namespace VexQuill {

template <class PARENT, class VALUE, class KEY>
VexQuillMap<PARENT, VALUE, KEY>::~VexQuillMap() {
  this->trace(8, [](std::ostream& os) { os << "VexQuillMap::~VexQuillMap() deleting state"; });
  delete this->notifier();
  this->notifierIs(nullptr);
}

template <class PARENT, class VALUE, class KEY>
void VexQuillMap<PARENT, VALUE, KEY>::entity(const Vex::String8& name, PARENT* parent,
                                             NotifyMember notify) {
  VEX_ASSERT(parent != nullptr && parent_ == nullptr);
  parent_ = parent;
  this->shortNameIs(name.str());
  this->debugHandlerIs(Sable::Platform::getDebugHandler("QuillTemp-" + name.str()));
  treeName_ = nameInTree();
  this->fullNameIs(treeName_);
  this->notifierIs(new Notifier(parent, notify));
  this->trace(7, [&](std::ostream& os) {
    os << "VexQuillMap::entity() creating local QuillWriter " << fullName();
  });
  this->implementationIs(this->createDefaultLocalWriter(this->debugHandler()));
}

template <class PARENT, class VALUE, class KEY>
std::string VexQuillMap<PARENT, VALUE, KEY>::nameInTree() const {
  const std::string own = parent_->name().str() + '/' + this->shortName();
  return parent_->parent() != nullptr ? parent_->parent()->fullName() + '/' + own : own;
}

template <class PARENT, class VALUE, class KEY>
void VexQuillMap<PARENT, VALUE, KEY>::handleParent() {
  const std::string old = fullName();
  treeName_ = nameInTree();
  this->fullNameIs(treeName_);
  if (parent_->parent() == nullptr) {
    this->trace(7, [&](std::ostream& os) {
      os << "VexQuillMap::handleParent(): " << fullName() << " is now an orphan";
    });
    this->controlDetach();
    return;
  }
  if (reparented_) {
    Quill::raise<Sable::InvalidInitializeException>("Entity ", parent_->name(),
                                                    " already initialized");
  }
  reparented_ = true;
  this->trace(7, [&](std::ostream& os) {
    os << "VexQuillMap::handleParent(): old: " << old << " new: " << fullName();
  });
  // One that was mounted under the former name lets go of it: it would be mounted there for ever.
  if (this->initialized()) this->controlDetach();
  this->implementationIs(this->createDefaultLocalWriter(this->debugHandler()));
}

template <class PARENT, class VALUE, class KEY>
std::string VexQuillMap<PARENT, VALUE, KEY>::sharedName() const {
  return root_.empty() ? treeName_ : Quill::tablePath(root_, treeName_);
}

template <class PARENT, class VALUE, class KEY>
void VexQuillMap<PARENT, VALUE, KEY>::init(Quill::QuillType mode, bool isLocal, unsigned int size) {
  if (!this->initialized()) {
    this->fullNameIs(isLocal ? treeName_ : sharedName());
  }
  Map::init(mode, isLocal, size);
}

template <class PARENT, class VALUE, class KEY>
bool VexQuillMap<PARENT, VALUE, KEY>::validate() {
  const bool sound = Map::validate();
  if (!sound && guardian_ != nullptr) guardian_->tableInvalid(*this);
  return sound;
}

template <class PARENT, class VALUE, class KEY>
bool VexQuillMap<PARENT, VALUE, KEY>::validateFiles() {
  this->trace(9, [](std::ostream& os) {
    os << "VexQuillMap::validateFiles() delegating to QuillMap::validateFiles";
  });
  try {
    return Map::validateFiles();
  } catch (const Quill::CorruptionDetectedException&) {
    // Anything else says nothing about the table, which goes on.
    if (guardian_ != nullptr) guardian_->tableInvalid(*this);
    throw;
  }
}

template <class PARENT, class VALUE, class KEY>
std::string VexQuillMap<PARENT, VALUE, KEY>::classType() const {
  const PARENT& parent = *parent_;
  return Sable::demangled(typeid(parent).name());
}

template <class PARENT, class VALUE, class KEY>
bool VexQuillMap<PARENT, VALUE, KEY>::isMemberOf(const KEY& /*key*/) const {
  Quill::raise<Sable::UnimplementedException>("VexQuillMap::isMemberOf() not implemented");
}

template <class PARENT, class VALUE, class KEY>
template <class Operation>
void VexQuillMap<PARENT, VALUE, KEY>::guarded(Operation&& operation) const {
  if (guardian_ == nullptr) return operation();
  try {
    return operation();
  } catch (const Sable::Exception& failure) {
    // The guardian changes what stands behind the handle, which is no part of the handle's value.
    guardian_->tableFailed(const_cast<VexQuillMap&>(*this), failure);
  }
  try {
    operation();
  } catch (const Sable::Exception& failure) {
    this->trace(7, [&](std::ostream& os) {
      os << "VexQuillMap::guarded() " << fullName() << " given up: " << failure.msg();
    });
  }
}

template <class PARENT, class VALUE, class KEY>
VALUE VexQuillMap<PARENT, VALUE, KEY>::record(const KEY& key) const {
  VALUE value;
  guarded([&] {
    bool found = false;
    value = this->safeLookup(key, found);
  });
  return value;
}

template <class PARENT, class VALUE, class KEY>
std::optional<VALUE> VexQuillMap<PARENT, VALUE, KEY>::find(const KEY& key) const {
  std::optional<VALUE> value;
  guarded([&] {
    bool found = false;
    const VALUE& present = this->safeLookup(key, found);
    if (found) value = present;
  });
  return value;
}

template <class PARENT, class VALUE, class KEY>
void VexQuillMap<PARENT, VALUE, KEY>::recordIs(const VALUE& value) {
  guarded([&] { this->safeWrite(value, true); });
}

template <class PARENT, class VALUE, class KEY>
VALUE VexQuillMap<PARENT, VALUE, KEY>::recordDel(const KEY& key) {
  VALUE gone;
  guarded([&, copy = key] { gone = this->safeRemove(copy); });
  return gone;
}

template <class PARENT, class VALUE, class KEY>
void VexQuillMap<PARENT, VALUE, KEY>::delAll() {
  VALUE value;
  VALUE gone;
  Quill::IterHint hint;
  for (bool more = this->first(value, hint); more;) {
    const KEY key = Quill::keyOf<KEY>(value);
    more = this->next(key, value, hint);
    this->remove(key, gone);
  }
}

template <class PARENT, class VALUE, class KEY>
void VexQuillMap<PARENT, VALUE, KEY>::recordDelAll() {
  guarded([&] {
    try {
      delAll();
    } catch (const Quill::CorruptionDetectedException& damage) {
      this->corruptionDetected(damage.msg());
      Quill::raise<Sable::RuntimeException>("QuillMap::safeRemove() in no man's land");
    }
  });
}

template <class PARENT, class VALUE, class KEY>
void VexQuillMap<PARENT, VALUE, KEY>::recordCommit() {
  guarded([&] { this->directCommit(); });
}

template <class PARENT, class VALUE, class KEY>
template <class Step>
std::optional<VALUE> VexQuillMap<PARENT, VALUE, KEY>::step(Step&& take) const {
  std::optional<VALUE> value;
  guarded([&] {
    VALUE next;
    try {
      if (take(next)) value = next;
    } catch (const Quill::CorruptionDetectedException& damage) {
      this->corruptionDetected(damage.msg());
    }
  });
  return value;
}

template <class PARENT, class VALUE, class KEY>
std::optional<KEY> VexQuillMap<PARENT, VALUE, KEY>::firstKey() const {
  Quill::IterHint hint;
  const auto value = step([&](VALUE& next) { return this->first(next, hint); });
  return value ? std::optional(Quill::keyOf<KEY>(*value)) : std::nullopt;
}

template <class PARENT, class VALUE, class KEY>
std::optional<KEY> VexQuillMap<PARENT, VALUE, KEY>::keyAfter(const KEY& key) const {
  Quill::IterHint hint;
  const auto value = step([&](VALUE& next) { return this->next(key, next, hint); });
  return value ? std::optional(Quill::keyOf<KEY>(*value)) : std::nullopt;
}

template <class PARENT, class VALUE, class KEY>
std::vector<VALUE> VexQuillMap<PARENT, VALUE, KEY>::readable() const {
  std::vector<VALUE> values;
  try {
    VALUE value;
    Quill::IterHint hint;
    for (bool more = this->first(value, hint); more;) {
      values.push_back(value);
      more = this->next(Quill::keyOf<KEY>(value), value, hint);
    }
  } catch (const Sable::Exception& damage) {
    this->trace(7, [&](std::ostream& os) {
      os << "VexQuillMap::readable() " << fullName() << " ends early: " << damage.msg();
    });
  }
  return values;
}

template <class PARENT, class VALUE, class KEY>
void VexQuillMap<PARENT, VALUE, KEY>::removeOtherSize(unsigned size) const {
  const std::string path = sharedName();
  Quill::QuillReader<KEY, VALUE> present(this->debugHandler(), path.c_str());
  if (!present.initialize() || present.maxSize() == size) return;
  present.detach();
  Quill::QuillWriter<KEY, VALUE>(this->debugHandler(), path.c_str(), size, false, {}).cleanup();
}

template <class PARENT, class VALUE, class KEY>
void VexQuillMap<PARENT, VALUE, KEY>::remount(bool isLocal, unsigned size, Contents contents) {
  using Quill::QuillType;
  const std::vector<VALUE> carried =
      contents == Contents::carried ? readable() : std::vector<VALUE>();
  const auto fill = [&] {
    for (const VALUE& value : carried) this->write(value);
  };
  try {
    this->controlDetach();
    if (!isLocal) removeOtherSize(size);
    init(QuillType::writer, isLocal, size);
    if (contents != Contents::adopted) delAll();
    fill();
  } catch (...) {
    if (this->initialized()) this->controlDetach();
    init(QuillType::writer, true, size);
    fill();
    throw;
  }
}

}  // namespace VexQuill
