// SPDX-License-Identifier: Apache-2.0
//
// A notification queue in files that a test builds and changes store by store, in the order in
// which a writer stores, and the shadow and the map that a queue reader wants around it.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "quill/ConquerReader.h"
#include "quill/FenixFile.h"
#include "runtime/mem/Region.h"
#include "tests/quill/HandTable.h"

namespace QuillTest {

class HandQueue {
 public:
  using Conquer = Quill::Conquer;

  static constexpr std::uint32_t kFenix = 7;

  HandQueue(Sable::Platform::DebugHandler& handler, std::string path, std::uint32_t capacity = 336)
      : path_(std::move(path)),
        files_{Mem::Shared(path_, "conquer.1", false, Mem::Shared::SHARED_DEFAULT_FLAGS, false),
               Mem::Shared(path_, "conquer.2", false, Mem::Shared::SHARED_DEFAULT_FLAGS, false)} {
    std::filesystem::create_directories(path_);
    for (const std::uint32_t id : {0U, 1U}) {
      files_[id].attach(bytes(capacity), Mem::Mode::readWrite);
      Conquer::Header& made = header(id);
      made.fenix.store(kFenix, Mem::release);
      made.table.notifications.store({1, capacity}, Mem::release);
      made.magic.store(Quill::Detail::magicWord("QUILLCQR"), Mem::release);
      made.version.store(6, Mem::release);
      made.minSeq.store(0, Mem::release);
      made.currentTable.store({0, 0}, Mem::release);
      made.table.currentPos.store(0, Mem::release);
    }
    Quill::FenixFile::write(handler, path_, kFenix);
  }

  const std::string& path() const { return path_; }
  std::string file(std::uint32_t id) const {
    return path_ + (id == 0 ? "/conquer.1" : "/conquer.2");
  }
  Conquer::Header& header(std::uint32_t id) {
    return *static_cast<Conquer::Header*>(files_[id].base());
  }
  Conquer::Entry& entry(std::uint32_t id, std::uint32_t pos) {
    return header(id).table.entries()[pos];
  }
  std::uint32_t current() { return header(0).currentTable.load(Mem::relaxed).value; }
  std::uint32_t used(std::uint32_t id) { return header(id).table.currentPos.load(Mem::relaxed); }

  void append(std::uint32_t id, std::uint64_t sequence, std::uint32_t slot) {
    Conquer::Entry& fresh = entry(id, used(id));
    fresh.sequenceIs(sequence);
    fresh.slot.store(slot, Mem::release);
    header(id).table.currentPos.store(used(id) + 1, Mem::release);
  }
  void append(std::uint64_t sequence, std::uint32_t slot) { append(current(), sequence, slot); }
  void entomb(std::uint32_t pos) { entry(current(), pos).slot.store(Quill::kNoSlot, Mem::release); }
  void switchTo(std::uint32_t id) {
    Quill::SlotRef& word = header(0).currentTable;
    word.store(word.load(Mem::relaxed).next(id), Mem::release);
  }
  void growFile(std::uint32_t id, std::uint32_t capacity) { files_[id].resize(bytes(capacity)); }
  void grow(std::uint32_t id, std::uint32_t capacity) {
    growFile(id, capacity);
    Quill::SlotRef& word = header(id).table.notifications;
    word.store(word.load(Mem::relaxed).next(capacity), Mem::release);
  }
  static std::uint32_t bytes(std::uint32_t capacity) {
    return static_cast<std::uint32_t>(Conquer::fileSize(capacity));
  }

 private:
  std::string path_;
  std::array<Mem::Shared, 2> files_;
};

// Gets into the middle of a walk that calls nobody: cuts pages off a mapped file, and when somebody
// touches one of them puts them back as they were and calls `action`, once, inside the access. The
// action runs in a signal handler: it may store and call what is allowed there.
class TouchHook {
 public:
  TouchHook(const std::string& file, std::uint32_t length, std::function<void()> action)
      : action_(std::move(action)), fd_(open(file.c_str(), O_RDWR | O_CLOEXEC)), length_(length) {
    saved_.resize(static_cast<std::size_t>(std::filesystem::file_size(file)));
    if (pread(fd_, saved_.data(), saved_.size(), 0) != static_cast<ssize_t>(saved_.size()) ||
        ftruncate(fd_, length_) != 0) {
      ADD_FAILURE() << "no hook on " << file;
    }
    active = this;
    struct sigaction mine {};
    mine.sa_handler = onBus;
    sigaction(SIGBUS, &mine, &before_);
  }
  TouchHook(const TouchHook&) = delete;
  TouchHook& operator=(const TouchHook&) = delete;
  ~TouchHook() {
    sigaction(SIGBUS, &before_, nullptr);
    active = nullptr;
    close(fd_);
  }

  bool touched() const { return touched_; }

 private:
  static inline TouchHook* active = nullptr;

  static void onBus(int) {
    TouchHook& self = *active;
    if (self.touched_) _exit(99);  // what was put back is there: a second time is an error
    self.touched_ = true;
    const auto cut = static_cast<std::size_t>(self.length_);
    if (ftruncate(self.fd_, static_cast<off_t>(self.saved_.size())) != 0 ||
        pwrite(self.fd_, self.saved_.data() + cut, self.saved_.size() - cut, self.length_) < 0) {
      _exit(98);
    }
    self.action_();
  }

  std::function<void()> action_;
  int fd_;
  off_t length_;
  std::vector<char> saved_;
  volatile bool touched_ = false;  // changes inside any access
  struct sigaction before_ {};
};

// Time passes by a second each time that somebody looks.
class LookingClock final : public Vex::Clock {
 public:
  double now() const noexcept override { return ++looks; }
  mutable unsigned looks = 0;
};

class LookingLoop final : public Vex::ActivityManager {
 public:
  LookingLoop() : LookingLoop(Vex::makePtr<LookingClock>()) {}
  const LookingClock& looking() const { return *looking_; }
  void readableIs(int, Vex::ReadableHandler&) override {}
  void readableDel(int) noexcept override {}

 private:
  explicit LookingLoop(const Vex::Ptr<LookingClock>& looking)
      : ActivityManager(looking), looking_(looking) {}
  Vex::Ptr<LookingClock> looking_;
};

// What a queue reader asks of the map.
struct QueueMap {
  void corruptionDetected(const std::string& message) { reports.push_back(message); }
  void handleDisconnect() { ++disconnects; }

  std::vector<std::string> reports;
  unsigned disconnects = 0;
};

// What it asks of the store.
struct QueueStore {
  void doSlot(unsigned slot, bool compare) {
    EXPECT_FALSE(compare);
    slots.push_back(slot);
    if (onSlot) onSlot();
  }

  std::vector<unsigned> slots;
  std::function<void()> onSlot;
};

}  // namespace QuillTest

// What it asks of the shadow.
template <>
class Quill::QuillShadow<QuillTest::HookKey, QuillTest::HookValue, QuillTest::QueueMap> {
 public:
  QuillTest::QueueStore* store() { return &store_; }
  QuillTest::QueueMap* map() { return &map_; }
  double yieldTime() const { return yieldTime_; }
  unsigned sample() const { return sample_; }
  void resync() { ++resyncs_; }

  QuillTest::QueueStore store_;
  QuillTest::QueueMap map_;
  double yieldTime_ = 0.0;
  unsigned sample_ = 8;
  unsigned resyncs_ = 0;
};
