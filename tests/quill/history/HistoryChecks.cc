// SPDX-License-Identifier: Apache-2.0
//
// What a history checks, and what it does to files and connections from outside.
#include <dirent.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "tests/quill/RawFile.h"
#include "tests/quill/history/History.h"

namespace QuillTest {

namespace {

// Byte offsets of the files of a table of CheckedRecords, as docs/formats.md has them.
constexpr std::uint64_t kBucketsFenix = 12;
constexpr std::uint64_t kBucketHeads = 24;
constexpr std::uint64_t kOccupiedSlots = 160;
constexpr std::uint64_t kSlot = 256;
constexpr std::uint64_t kFirstSlot = 176 + kSlot;
constexpr std::uint64_t kFlags = 12;
constexpr std::uint64_t kMinSeq = 16;

// True if the socket is an end of a connection to a kick socket, of which this process has those of
// one table: the reader's, which is connected to a name, or the writer's, which has that name
// itself.
bool isConnection(int fd, bool readerSide) {
  int value = 0;
  socklen_t size = sizeof value;
  if (getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &value, &size) != 0 || value != 0) return false;
  sockaddr_un address{};
  size = sizeof address;
  auto* const name = reinterpret_cast<sockaddr*>(&address);
  if ((readerSide ? getpeername(fd, name, &size) : getsockname(fd, name, &size)) != 0) return false;
  return address.sun_family == AF_UNIX &&
         std::string(address.sun_path).find("kick") != std::string::npos;
}

std::vector<int> openDescriptors() {
  std::vector<int> all;
  DIR* const directory = opendir("/proc/self/fd");
  if (directory == nullptr) wrong("no /proc/self/fd");
  while (const dirent* entry = readdir(directory)) all.push_back(std::atoi(entry->d_name));
  closedir(directory);
  return all;
}

}  // namespace

void History::cut(bool readerSide) {
  for (const int fd : openDescriptors()) {
    if (!isConnection(fd, readerSide)) continue;
    shutdown(fd, SHUT_RDWR);
    ++coverage().connectionsCut;
  }
}

void History::damageFiles(unsigned which) {
  const RawFile slots(path_ + "/slots");
  switch (which % 4) {
    case 0:
      for (std::uint64_t at = kFirstSlot; at + kSlot <= slots.size(); at += kSlot) {
        const std::uint32_t flags = slots.u32(at + kFlags);
        if ((flags & 1U) == 0) continue;
        slots.u32Is(at + kFlags, flags + 2);  // as a writer leaves it that died half-way
        return;
      }
      [[fallthrough]];
    case 1:
      return slots.u32Is(kOccupiedSlots, slots.u32(kOccupiedSlots) + 1);
    case 2:
      return RawFile(path_ + "/conquer.1").u64Is(kMinSeq, ~0ULL - 1);
    default: {
      const RawFile buckets(path_ + "/buckets");
      return buckets.u32Is(kBucketsFenix, buckets.u32(kBucketsFenix) + 1000);
    }
  }
}

void History::passingDamage(std::uint32_t key) {
  writer();
  const RawFile buckets(path_ + "/buckets");
  const std::uint64_t head = kBucketHeads + 8 * std::uint64_t{key / 1000} + 4;
  const std::uint32_t sound = buckets.u32(head);
  buckets.u32Is(head, 0x00FFFFFF);
  const bool attached = reader_.map->mountStatus() == 1 && current(reader_);
  bool found = false;
  {
    const Vex::CurrentActivityManager loop(reader_.loop);
    static_cast<void>(reader_.map->safeLookup({key}, found));
  }
  if (attached) {
    if (found || reader_.map->mountStatus() != 0) wrong("the reader believes a damaged link");
    ++coverage().damagesMet;
    if (writer().validate()) wrong("the writer's check passes a damaged link");
    for (unsigned i = 0; i < 4; ++i) writer_.loop.runTurn();
  }
  buckets.u32Is(head, sound);
}

bool History::current(const Party& party) const {
  return party.map->mountStatus() != 0 && party.map->fenixId() == generation_;
}

void History::checkKey(std::uint32_t key) {
  if (writer_.map != nullptr) {
    bool found = false;
    const CheckedRecord& value = writer_.map->lookup({key}, found);
    if (found) requireWhole("the writer", key, value);
    if ((found ? std::to_string(value.counter) : "none") != textOf(model_, key)) {
      wrong("the writer does not know its own key " + std::to_string(key));
    }
  }
  for (Party* const each : {&reader_, &shadow_, &keyShadow_}) {
    const Vex::CurrentActivityManager loop(each->loop);
    bool found = false;
    const CheckedRecord value = each->map->safeLookup({key}, found);
    if (found) requireWhole(each->name, key, value);
    const std::string seen = found ? std::to_string(value.counter) : "none";
    const bool exact = each == &reader_ || (each == &keyShadow_ && found);
    if (exact && current(*each) && seen != textOf(model_, key)) {
      wrong(std::string(each->name) + " sees key " + std::to_string(key) + " as " + seen +
            " instead of " + textOf(model_, key));
    }
  }
}

void History::checkContents(const Party& party) {
  if (!current(party)) return;
  requireSame(party.name, contentsOf(party.name, *party.map), model_);
}

void History::runAll() {
  for (unsigned turns = 0; turns < 50'000; ++turns) {
    bool any = false;
    for (Party* const each : {&writer_, &reader_, &shadow_, &keyShadow_}) {
      if (each->loop.runTurn()) any = true;
    }
    if (!any) return;
  }
  wrong("the loops do not come to rest");
}

bool History::allMounted() {
  const std::uint64_t sequence = writer().sequence();
  return current(reader_) && current(shadow_) && current(keyShadow_) &&
         shadow_.map->mountStatus() == 2 && keyShadow_.map->mountStatus() == 2 &&
         shadow_.map->sequence() == sequence && keyShadow_.map->sequence() == sequence;
}

void History::count() {
  Coverage& all = coverage();
  const auto highest = [](std::uint64_t& known, std::uint64_t now) {
    known = std::max(known, now);
  };
  if (writer_.map != nullptr) {
    const Quill::Writer::Counters counters = writer_.map->writerCounters();
    highest(all.compactions, counters.compactions);
    highest(all.prunes, counters.prunes);
    highest(all.queueGrowths, counters.conquerGrows);
  }
  for (const Party* const each : {&shadow_, &keyShadow_}) {
    const Quill::Reader::Counters counters = each->map->readerCounters();
    highest(all.resyncs, counters.resyncs);
    highest(all.batchYields, counters.conquerYields);
    highest(all.syncYields, counters.syncerYields);
    highest(all.slotMoves, counters.slotMoves);
  }
}

void History::remount() {
  newsLost_ = false;
  ++coverage().newsLost;
  for (Party* const each : {&shadow_, &keyShadow_}) {
    const Vex::CurrentActivityManager loop(each->loop);
    const Quill::QuillType type = each->map->mode();
    each->map->controlDetach();
    each->map->init(type, false, 0);
  }
}

void History::quiet() {
  writer();
  if (newsLost_) remount();
  for (Party* const each : {&reader_, &shadow_, &keyShadow_}) {
    const Vex::CurrentActivityManager loop(each->loop);
    each->map->notifying(true);
  }
  runAll();
  // A reader that could not mount tries again after 60 seconds, and after one more if refused.
  for (unsigned tries = 0; tries < 6 && !allMounted(); ++tries) {
    for (Party* const each : {&reader_, &shadow_, &keyShadow_}) each->loop.leap(31);
    runAll();
  }
  for (const Party* const each : {&reader_, &shadow_, &keyShadow_}) {
    if (current(*each) && (each == &reader_ || each->map->mountStatus() == 2)) continue;
    wrong(std::string(each->name) + " does not mount again, status " +
          std::to_string(each->map->mountStatus()));
  }
  if (!allMounted()) {
    wrong("a shadow stays behind: " + std::to_string(shadow_.map->sequence()) + " and " +
          std::to_string(keyShadow_.map->sequence()) + " of " +
          std::to_string(writer().sequence()));
  }
  for (const Party* const each : {&writer_, &reader_, &shadow_, &keyShadow_}) checkContents(*each);
  if (writer().members() != model_.size()) wrong("members() is not the number of entries");
  const auto keys = changedKeys(quietModel_, model_);
  for (Party* const each : {&shadow_, &keyShadow_}) {
    requireTold(each->name, keys, each->told.keys);
    each->told.keys.clear();
    if (each->map->members() != model_.size()) wrong(std::string(each->name) + ": members()");
  }
  quietModel_ = model_;
  count();
  if (!writer().validate()) wrong("the table does not stand the writer's check");
  ++coverage().quiets;
}

}  // namespace QuillTest
