// SPDX-License-Identifier: Apache-2.0
//
// Bodies of QuillWriter.h: attach and detach, the moment of recovery, the checks of a running
// writer.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "quill/FenixFile.h"
#include "quill/QuillWriter.h"
#include "quill/Text.h"
#include "quill/Util.h"
#include "quill/Validator.h"
#include "runtime/mem/Atomics.h"

namespace Quill {

template <class Key, class Value>
bool QuillWriter<Key, Value>::initialize() {
  if (!localMem_ && !Mem::Atomics::checkCpuSupport()) {
    raise<Sable::InvalidInitializeException>("Hardware does not support Atomics");
  }
  if (this->initialized_) return true;
  try {
    conquer_.createKickSocket();
    attach();
    conquer_.doEnableListen();
    if (!localMem_) FenixFile::write(this->debugHandler(), root_.rootPath(), fenix_);
  } catch (...) {
    detach();
    throw;
  }
  this->initialized_ = true;
  return true;
}

template <class Key, class Value>
void QuillWriter<Key, Value>::attach() {
  if (localMem_) {
    fenix_ = static_cast<std::uint32_t>(getpid());
  } else {
    fenix_ = FenixFile::readKnown(this->debugHandler(), root_.rootPath());
    const bool fresh = fenix_ == 0;
    if (fresh) {
      static unsigned instanceId = 0;  // one for each kind of table
      Util::encodeFenix(static_cast<unsigned short>(getpid() & 0xffff),
                        Util::nextInstance(instanceId), fenix_);
    }
    const std::vector<unsigned> ids = FenixFile::idsIn(root_.rootPath());
    if (fresh) {
      // Files without `fenix` are given up. They must not pass for those of the new id, which is
      // made of the process's number and may have been theirs.
      while (fenix_ == 0 || std::find(ids.begin(), ids.end(), fenix_) != ids.end()) ++fenix_;
    } else if (std::any_of(ids.begin(), ids.end(), [&](unsigned id) { return id != fenix_; })) {
      // A recovery has died in here, and its files are about to be formatted under the id of the
      // table that it gave up. Once all four are, they would be sound and empty under an id that
      // readers hold with contents and a later sequence: the id must not outlive this writer.
      root_.removeFile("fenix");
    }
  }
  if (attachFiles() || !validate()) {
    this->trace(7, [&](std::ostream& os) {
      os << "QuillWriter::attach() failed, all entries from " << rootPath() << " will be lost";
    });
    if (++fenix_ == 0) ++fenix_;  // 0 stands for no id
    attachFiles();
    if (!validate()) {
      this->trace(7, [](std::ostream& os) { os << "QuillWriter::attach() failed validation"; });
      raise<Sable::InvalidInitializeException>("QuillWriter::attach() failed validation");
    }
    this->trace(7,
                [](std::ostream& os) { os << "QuillWriter::attach(): re-formatted successfully"; });
  }
  if (localMem_) return;
  this->trace(7, [&](std::ostream& os) {
    os << "QuillWriter::attach() success " << rootPath() << " capacity: " << capacity()
       << " fenixId: " << fenix_;
  });
}

template <class Key, class Value>
bool QuillWriter<Key, Value>::attachFiles() {
  bool formatted = slots_.attach(fenix_);
  formatted |= buckets_.attach(fenix_);
  conquer_.stopWaitingForReaders();
  conquer_.detach();
  formatted |= conquer_.attachConquer(Conquer::primary, fenix_);
  formatted |= conquer_.attachConquer(Conquer::secondary, fenix_);
  return formatted;
}

template <class Key, class Value>
void QuillWriter<Key, Value>::detach() {
  if (slots_.header() != nullptr) abandonDirectWrite();
  conquer_.deleteKickSocket();  // gives the lock back: nothing is stored any more
  slots_.detach();
  buckets_.detach();
  conquer_.stopWaitingForReaders();
  conquer_.detach();
  this->initialized_ = false;
}

template <class Key, class Value>
bool QuillWriter<Key, Value>::validate() {
  Validator<Key, Value> validator(this->debugHandler(), *this);
  struct Hook {
    QuillWriter& writer;
    ValidatorBase* before;
    ~Hook() { writer.validator_ = before; }
  } const hook{*this, std::exchange(validator_, &validator)};
  return validator.validate(fenix_);
}

template <class Key, class Value>
bool QuillWriter<Key, Value>::validateFiles() {
  if (localMem_) return true;  // has none
  Sable::Platform::DebugHandler& handler = this->debugHandler();
  ValidatorBase::validateFile(handler, root_.filePath("buckets"), buckets_.mem().size());
  ValidatorBase::validateFile(handler, root_.filePath("slots"), slots_.mem().size());
  conquer_.validateFile();
  conquer_.validateSocket();
  FenixFile::validate(handler, root_.rootPath(), fenix_);
  root_.removeFile("corruption-detected");
  return true;
}

template <class Key, class Value>
void QuillWriter<Key, Value>::cleanup() {
  if (localMem_) return;
  // Where it cannot be told, the lock will.
  if (access(root_.rootPath().c_str(), F_OK) != 0 && (errno == ENOENT || errno == ENOTDIR)) return;
  const Util::AutoLock lock(this->debugHandler(), root_, conquer_.lockHandle());
  this->trace(7, [&](std::ostream& os) {
    os << "QuillWriter::cleanup() removing Quill files " << rootPath();
  });
  for (const char* const name : {"fenix", "last-owner", "corruption-detected", "conquer.1",
                                 "conquer.2", "buckets", "slots"}) {
    root_.removeFile(name);
  }
  root_.cleanup();
}

template <class Key, class Value>
Writer::Counters QuillWriter<Key, Value>::writerCounters() const {
  Writer::Counters counters = counters_;
  counters.kicks = conquer_.kicks();
  counters.readersConnected = conquer_.connectedReaders();
  return counters;
}

}  // namespace Quill
