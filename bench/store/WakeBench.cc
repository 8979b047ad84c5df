// SPDX-License-Identifier: Apache-2.0
//
// From a change to the notification in a process that sleeps, beside the bare means by which one
// process wakes another: a futex, an eventfd, a Unix socket of packets. For each round the helper
// is seen to sleep, then it is woken, and it says at which time it went on. The benchmark and the
// helper have a processor each.
#include <linux/futex.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

#include "bench/store/Contestant.h"
#include "bench/store/Shared.h"

namespace StoreBench {
namespace {

constexpr unsigned kRounds = 1'000;
constexpr std::size_t kRecords = 100;

// Each contestant has a helper that adds one to page.seen[0] each time after it has stored
// page.stamp.
void stamp(SharedPage& page) {
  page.stamp = nanoseconds();
  ++page.seen[0];
}

class Store {
 public:
  Store() {
    for (const IntfId& key : keys_.byPlace) table_.writer().write({key, 0, 0, 0}, true);
  }
  const char* error() const { return table_.error(); }
  SharedPage& page() { return table_.page(); }
  const Helper& helper() const { return table_.helper(0); }
  // Takes in the shadow's report that it sleeps.
  void prepare() {
    table_.turn();
    kicks_ = table_.writer().writerCounters().kicks;
  }
  void wake() {
    ++value_;
    table_.writer().write({keys_.present[value_ % kRecords], value_, 0, 0}, true);
  }
  // A round in which the shadow was awake says nothing.
  bool counts() { return table_.writer().writerCounters().kicks == kicks_ + 1; }

 private:
  const Keys& keys_ = keysOf(kRecords);
  FollowedTable table_{kRecords, 1, true};
  std::uint32_t value_ = 0;
  std::uint64_t kicks_ = 0;
};

class Bare {
 public:
  const char* error() const { return nullptr; }
  SharedPage& page() { return *page_; }
  void prepare() {}
  bool counts() { return true; }

 protected:
  Bare() { processorIs(0); }
  std::unique_ptr<SharedPage, void (*)(SharedPage*)> page_ = newSharedPage();
};

class Futex : public Bare {
 public:
  const Helper& helper() const { return helper_; }
  void wake() {
    ++page_->word;
    call(FUTEX_WAKE, 1);
  }

 private:
  void call(int operation, std::uint32_t value) {
    syscall(SYS_futex, &page_->word, operation, value, nullptr, nullptr, 0);
  }
  void wait() {
    for (std::uint32_t seen = 0;;) {
      while (page_->word == seen) call(FUTEX_WAIT, seen);
      seen = page_->word;
      stamp(*page_);
    }
  }
  Helper helper_{[this] { wait(); }};
};

class Eventfd : public Bare {
 public:
  ~Eventfd() { close(event_); }
  const Helper& helper() const { return helper_; }
  void wake() {
    if (eventfd_write(event_, 1) != 0) std::abort();
  }

 private:
  const int event_ = eventfd(0, EFD_CLOEXEC);
  Helper helper_{[this] {
    eventfd_t value = 0;
    while (eventfd_read(event_, &value) == 0) stamp(*page_);
  }};
};

class Socket : public Bare {
 public:
  ~Socket() {
    for (const int end : ends_) close(end);
  }
  const Helper& helper() const { return helper_; }
  // As long as a message of the store.
  void wake() {
    if (send(ends_[0], message_.data(), message_.size(), MSG_NOSIGNAL) < 0) std::abort();
  }

 private:
  static std::array<int, 2> newPair() {
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) std::abort();
    return ends;
  }
  const std::array<int, 2> ends_ = newPair();
  std::array<char, 16> message_{};
  Helper helper_{[this] {
    while (recv(ends_[1], message_.data(), message_.size(), 0) > 0) stamp(*page_);
  }};
};

template <class Contestant>
void wake(benchmark::State& state) {
  Contestant contestant;
  if (contestant.error() != nullptr) return state.SkipWithError(contestant.error());
  const auto asleep = [&] { return contestant.helper().asleep(); };
  std::vector<std::uint64_t> times;
  for (auto _ : state) {
    for (unsigned tries = 0; times.size() < kRounds && tries < 4 * kRounds; ++tries) {
      if (!await(asleep, [&] { contestant.prepare(); })) {
        return state.SkipWithError("the helper does not sleep");
      }
      contestant.prepare();
      // An answer to the writer's turn may have woken it.
      if (!asleep()) continue;
      const std::uint64_t seen = contestant.page().seen[0];
      const std::uint64_t begin = nanoseconds();
      contestant.wake();
      if (!await([&] { return contestant.page().seen[0] != seen; }, [] {})) {
        return state.SkipWithError("the helper was not woken");
      }
      if (contestant.counts()) times.push_back(contestant.page().stamp - begin);
    }
  }
  if (times.size() < kRounds) return state.SkipWithError("the helper did not sleep often enough");
  std::sort(times.begin(), times.end());
  state.counters["p50"] = static_cast<double>(times[times.size() / 2]);
  state.counters["p99"] = static_cast<double>(times[times.size() * 99 / 100]);
}

const bool registered = [] {
  const auto add = [](const char* name, void (*function)(benchmark::State&)) {
    benchmark::RegisterBenchmark(name, function)->Iterations(1)->UseRealTime();
  };
  add("wake/store", wake<Store>);
  add("wake/futex", wake<Futex>);
  add("wake/eventfd", wake<Eventfd>);
  add("wake/socket", wake<Socket>);
  return true;
}();

}  // namespace
}  // namespace StoreBench
