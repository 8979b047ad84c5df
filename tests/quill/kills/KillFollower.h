// SPDX-License-Identifier: Apache-2.0
//
// A shadow, or a key shadow, in the hands of a map that does with it what a handle does, and of a
// listener that looks each key up of which it is told and keeps what it learns.
//
// Belongs to one thread with a current loop.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "quill/Exceptions.h"
#include "quill/QuillShadow.h"
#include "runtime/portus/IntfId.h"
#include "runtime/sable/Platform.h"

namespace QuillTest {

template <class Record>
class KillFollower {
 public:
  using Shadow = Quill::QuillShadow<Portus::IntfId, Record, KillFollower>;

  KillFollower(Sable::Platform::DebugHandler& handler, const std::string& directory, bool keyOnly)
      : handler_(handler), directory_(directory), keyOnly_(keyOnly) {
    newShadow();
  }

  Shadow& shadow() { return *shadow_; }
  const std::map<Portus::IntfId, Record>& learned() const { return learned_; }
  // Of damage; each let the shadow go.
  const std::string& report() const { return report_; }
  // Attaches, or tries to connect again, until it is connected to the writer that lives.
  template <class Loop>
  bool connect(Loop& loop) {
    for (unsigned attempt = 0; attempt < 6; ++attempt) {
      if (detached_) newShadow();
      shadow_->initialize();
      loop.runFor(0.06);
      if (shadow_->mountStatus() == 2) return true;
      loop.runFor(1.0);
    }
    return false;
  }
  void detach() {
    shadow_->detach();
    detached_ = true;
  }

  // What the shadow asks of its map.
  KillFollower* notifier() { return this; }
  void notify(const Portus::IntfId& key) {
    learned_.erase(key);
    try {
      bool found = false;
      const Record& value = shadow_->lookup(key, found);
      if (found) learned_[key] = value;
    } catch (const Quill::CorruptionDetectedException& damage) {
      report_ = damage.msg();  // a key shadow reads the value from the table itself
    }
  }
  void corruptionDetected(const std::string& text) {
    report_ = text;
    detach();  // the next attach is made with another one
  }
  void handleDisconnect() {}

 private:
  void newShadow() {
    shadow_ = std::make_unique<Shadow>(handler_, directory_.c_str(), this, keyOnly_ ? 1 : 0);
    detached_ = false;
  }

  Sable::Platform::DebugHandler& handler_;
  std::string directory_;
  bool keyOnly_;
  bool detached_ = false;
  std::map<Portus::IntfId, Record> learned_;
  std::string report_;
  std::unique_ptr<Shadow> shadow_;
};

}  // namespace QuillTest
