// SPDX-License-Identifier: Apache-2.0
//
// Bodies of ImageCheck.h.
#pragma once

#include <cstring>
#include <stdexcept>

#include "quill/QuillReader.h"
#include "quill/QuillWriter.h"
#include "runtime/vex/VirtualActivityManager.h"
#include "tests/quill/kills/ImageCheck.h"
#include "tests/quill/kills/KillFollower.h"

namespace QuillTest {

// One image.
template <class Record>
class ImageCheck<Record>::Run {
 public:
  using Key = Portus::IntfId;
  using Contents = std::map<Key, Record>;
  using Writer = Quill::QuillWriter<Key, Record>;
  using Reader = Quill::QuillReader<Key, Record>;
  using Follower = KillFollower<Record>;

  Run(const std::string& directory, const KillCase& given, const Image& image)
      : directory_(directory),
        given_(given),
        image_(image),
        before_(contentsOf(given.before)),
        after_(contentsOf(given.after)) {}

  KillVerdict run(const std::function<void(bool)>& judge) {
    if (given_.origin != nullptr) {
      given_.origin->put(directory_);
      newReaders();
      if (given_.start != given_.origin) given_.start->put(directory_);
    }
    image_.put(directory_);
    std::string why;
    verdict_.kept = image_.atRest(&why);
    judge(verdict_.kept);
    if (given_.origin != nullptr) readersFindNothingThird();
    nextWriter(why);
    if (given_.origin != nullptr) readersFollow();
    changeAll();
    return verdict_;
  }

 private:
  [[noreturn]] static void fail(const std::string& text) { throw std::runtime_error(text); }
  static Contents contentsOf(const KillModel& model) {
    Contents contents;
    for (const auto& [key, counter] : model) contents[key] = killRecord<Record>(key, counter);
    return contents;
  }

  void newReaders() {
    reader_ = std::make_unique<Reader>(handler_, directory_.c_str());
    shadow_ = std::make_unique<Follower>(handler_, directory_, false);
    keyShadow_ = std::make_unique<Follower>(handler_, directory_, true);
    if (!reader_->initialize()) fail("the reader does not attach");
    for (Follower* const each : {shadow_.get(), keyShadow_.get()}) {
      if (!each->shadow().initialize()) fail("a shadow does not attach: " + each->report());
    }
    loop_.runFor(0.06);
  }

  // Every key by a lookup, which must agree with an iteration.
  template <class Table>
  Contents read(const Table& table, const char* who) {
    Contents found;
    for (const Key& key : KillKeys::all()) {
      bool there = false;
      const Record& value = table.lookup(key, there);
      if (there) found[key] = value;
    }
    std::size_t steps = 0;
    Record value;
    Quill::IterHint hint;
    for (bool more = table.first(value, hint); more; more = table.next(value.key, value, hint)) {
      const auto same = found.find(value.key);
      if (same == found.end() || !(same->second == value)) {
        fail(std::string(who) + ": lookup and iteration differ");
      }
      if (++steps > found.size()) fail(std::string(who) + ": the iteration does not end");
    }
    if (steps != found.size()) fail(std::string(who) + ": the iteration leaves keys out");
    return found;
  }
  bool isOneOf(const Contents& found, const Key& key) const {
    const auto value = found.find(key);
    for (const Contents* const allowed : {&before_, &after_}) {
      const auto wanted = allowed->find(key);
      if (value == found.end() ? wanted == allowed->end()
                               : wanted != allowed->end() && wanted->second == value->second) {
        return true;
      }
    }
    return false;
  }
  // Key by key before or after, or, of a recovery, before or gone.
  template <class Table>
  void findsNothingThird(const Table& table, const char* who) {
    Contents found;
    if (given_.recovery) {
      for (const Key& key : KillKeys::all()) {
        try {
          bool there = false;
          const Record& value = table.lookup(key, there);
          if (there) found[key] = value;
        } catch (const Quill::CorruptionDetectedException&) {
          continue;  // reported, not believed
        }
      }
      boundedIteration(table, who);
    } else {
      found = read(table, who);
    }
    for (const Key& key : KillKeys::all()) {
      if (given_.recovery && !found.contains(key)) continue;
      if (!isOneOf(found, key)) fail(std::string(who) + " finds a third state of " + key.name());
    }
  }
  template <class Table>
  void boundedIteration(const Table& table, const char* who) {
    try {
      std::size_t steps = 0;
      Record value;
      Quill::IterHint hint;
      for (bool more = table.first(value, hint); more; more = table.next(value.key, value, hint)) {
        if (!isOneOf({{value.key, value}}, value.key)) {
          fail(std::string(who) + " iterates over a third state");
        }
        if (++steps > before_.size() + 1) fail(std::string(who) + ": the iteration does not end");
      }
    } catch (const Quill::CorruptionDetectedException&) {
      return;
    }
  }
  void readersFindNothingThird() {
    findsNothingThird(*reader_, "the reader");
    for (Follower* const each : {shadow_.get(), keyShadow_.get()}) {
      each->shadow().initialize();  // as its mounter does when the directory changes
      loop_.runFor(0.06);
      if (!given_.recovery && !each->report().empty()) fail("a shadow reports: " + each->report());
    }
    findsNothingThird(shadow_->shadow(), "the shadow");
    findsNothingThird(keyShadow_->shadow(), "the key shadow");
  }

  void nextWriter(const std::string& why) {
    writer_ = std::make_unique<Writer>(handler_, directory_.c_str(), given_.maxSlots, false,
                                       "KillRecord");
    writer_->initialize();
    held_ = read(*writer_, "the next writer");
    const std::uint32_t id = image_.fenix();
    const std::uint32_t now = writer_->fenixId();
    if (verdict_.kept) {
      if (now != id) fail("a table at rest was given up");
      Contents inFiles;
      for (const auto& [key, bytes] : image_.contents()) {
        std::memcpy(static_cast<void*>(&inFiles[key]), bytes.data(), sizeof(Record));
      }
      if (held_ != inFiles) fail("the next writer does not find what the files hold");
      if (given_.recovery ? !held_.empty() : held_ != before_ && held_ != after_) {
        fail("the next writer finds a third state");
      }
      verdict_.unannounced = !given_.recovery && held_ != before_ && held_ == after_ &&
                             image_.sequence() == given_.start->sequence();
    } else {
      if (!held_.empty()) fail("a table that was given up is not empty: " + why);
      // A fresh id begins with the process's number, and counts on past those that the files have.
      const std::uint32_t first = static_cast<std::uint32_t>(getpid()) << 16;
      if (id != 0 ? now != id + 1 : now - first > 0xFFFFU + 4) {
        fail("a table is not at rest (" + why + ") and has id " + std::to_string(now) + " after " +
             std::to_string(id));
      }
    }
    if (!writer_->validate()) fail("the next writer's table is not sound");
  }

  void readersFollow() {
    if (writer_->fenixId() != given_.origin->fenix()) {
      // The id tells a handle to let go and begin anew.
      reader_->detach();
      shadow_->detach();
      keyShadow_->detach();
    }
    readersConnect();
    const Key* const late = verdict_.unannounced ? &given_.key : nullptr;
    compare(late);
  }
  void readersConnect() {
    if (!reader_->initialize()) fail("the reader does not attach again");
    for (Follower* const each : {shadow_.get(), keyShadow_.get()}) {
      if (!each->connect(loop_)) fail("a shadow does not connect: " + each->report());
    }
  }
  void compare(const Key* late) {
    if (readBelieving() != held_) fail("the reader does not follow");
    // A key shadow has the values of the table.
    same(read(shadow_->shadow(), "the shadow"), "the shadow does not follow", late);
    same(shadow_->learned(), "the shadow's listener does not know all", late);
    same(read(keyShadow_->shadow(), "the key shadow"), "the key shadow does not follow", late);
    same(keyShadow_->learned(), "the key shadow's listener does not know all", late);
  }
  Contents readBelieving() {
    try {
      return read(*reader_, "the reader");
    } catch (const Quill::CorruptionDetectedException&) {
      // What was mapped is gone; a handle mounts it anew.
      if (!given_.recovery) throw;
      reader_->detach();
      if (!reader_->initialize()) fail("the reader does not attach again");
      return read(*reader_, "the reader");
    }
  }
  void same(Contents found, const char* otherwise, const Key* late) const {
    if (late != nullptr && isOneOf(found, *late)) {
      found.erase(*late);
      if (const auto wanted = held_.find(*late); wanted != held_.end()) found.insert(*wanted);
    }
    if (found == held_) return;
    for (const Key& key : KillKeys::all()) {
      const auto a = found.find(key);
      const auto b = held_.find(key);
      if ((a == found.end()) == (b == held_.end()) &&
          (a == found.end() || a->second == b->second)) {
        continue;
      }
      fail(std::string(otherwise) + ": " + key.name() + " is " +
           (a == found.end() ? "none" : std::to_string(a->second.words[0])) + " and not " +
           (b == held_.end() ? "none" : std::to_string(b->second.words[0])));
    }
  }

  // The new writer at work: the operation's own key, another one, a new one, and one goes.
  void changeAll() {
    constexpr std::uint32_t kCounter = 2'000'000;
    put(given_.origin != nullptr ? given_.key : KillKeys::all().front(), kCounter);
    for (const Key& key : KillKeys::all()) {
      if (held_.contains(key)) continue;
      put(key, kCounter + 1);
      break;
    }
    const Key other = held_.begin()->first;
    put(other, kCounter + 2);
    Record old;
    const Record last = held_.rbegin()->second;
    if (!writer_->remove(last.key, old) || !(old == last)) fail("the next writer cannot remove");
    held_.erase(last.key);
    if (read(*writer_, "the next writer") != held_)
      fail("the next writer does not hold its changes");
    if (!writer_->validate()) fail("the next writer's table is not sound after its changes");
    if (given_.origin == nullptr) return;
    loop_.runFor(0.06);
    readersConnect();  // nothing, for who is connected
    compare(nullptr);
  }
  void put(const Key& key, std::uint32_t counter) {
    const auto record = killRecord<Record>(key, counter);
    writer_->write(record, true);
    held_[key] = record;
  }

  const std::string& directory_;
  const KillCase& given_;
  const Image& image_;
  const Contents before_;
  const Contents after_;
  KillVerdict verdict_;
  Contents held_;  // by the next writer
  Vex::VirtualActivityManager loop_;
  Vex::CurrentActivityManager current_{loop_};
  Sable::Platform::DebugHandler handler_{"kills"};
  std::unique_ptr<Reader> reader_;
  std::unique_ptr<Follower> shadow_;
  std::unique_ptr<Follower> keyShadow_;
  std::unique_ptr<Writer> writer_;
};

template <class Record>
ImageCheck<Record>::ImageCheck(std::string directory) : directory_(std::move(directory)) {}

template <class Record>
KillVerdict ImageCheck<Record>::check(const KillCase& given, const Image& image,
                                      const std::function<void(bool)>& judge) {
  return Run(directory_, given, image).run(judge);
}

}  // namespace QuillTest
