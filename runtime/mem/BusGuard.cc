// SPDX-License-Identifier: Apache-2.0
#include "runtime/mem/BusGuard.h"

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>

#include "runtime/vex/Exception.h"

namespace Mem {

struct BusGuard::Record {
  std::atomic<std::uintptr_t> begin{0};
  std::atomic<std::uintptr_t> end{0};  // 0: covers nothing
  std::atomic<bool> hit{false};
  bool used = false;       // guarded by the mutex
  Record* next = nullptr;  // constant once the record is on the list
};

std::atomic<bool> BusGuard::anyHit{false};

// What the signal handler may touch of the guards.
struct BusHandler {
  static void hit(BusGuard::Record& record) noexcept {
    record.hit.store(true, std::memory_order_relaxed);  // read by the thread that was interrupted
    BusGuard::anyHit.store(true, std::memory_order_relaxed);
  }
};

namespace {

static_assert(std::atomic<std::uintptr_t>::is_always_lock_free);
static_assert(std::atomic<bool>::is_always_lock_free);

// Process-wide because the signal is. Records stay for the life of the process.
std::atomic<BusGuard::Record*> records{nullptr};
std::mutex& mutex() {
  static std::mutex instance;
  return instance;
}
struct sigaction actionBefore;  // written before the handler is installed
std::uintptr_t pageMask;        // as above

// By a process, not by an access: there is no address in it.
bool isSent(const siginfo_t& info) noexcept { return info.si_code <= 0; }

void passOn(int signal, siginfo_t* info, void* context) {
  if ((actionBefore.sa_flags & SA_SIGINFO) != 0) {
    actionBefore.sa_sigaction(signal, info, context);
  } else if (actionBefore.sa_handler == SIG_DFL) {
    std::signal(signal, SIG_DFL);
    // An access is made again and ends the process as if nobody had been here; a signal that was
    // sent has to be sent once more.
    if (isSent(*info)) static_cast<void>(raise(signal));
  } else if (actionBefore.sa_handler == SIG_IGN) {
    // Nobody can ignore an access that cannot be made.
    if (!isSent(*info)) std::signal(signal, SIG_DFL);
  } else {
    actionBefore.sa_handler(signal);
  }
}

void onBus(int signal, siginfo_t* info, void* context) {
  if (isSent(*info)) return passOn(signal, info, context);
  const auto address = reinterpret_cast<std::uintptr_t>(info->si_addr);
  // The acquire pairs with the release in newRecord(): a record on the list is whole.
  for (auto* record = records.load(std::memory_order_acquire); record != nullptr;
       record = record->next) {
    // `end` first: it is stored last when a range begins and first when it ends.
    const auto end = record->end.load(std::memory_order_acquire);
    if (address >= end || address < record->begin.load(std::memory_order_relaxed)) continue;
    const int error = errno;
    const std::uintptr_t page = address & pageMask;
    const std::size_t size = ~pageMask + 1;
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the page of an address
    void* mapped = mmap(reinterpret_cast<void*>(page), size, PROT_READ | PROT_WRITE,
                        MAP_FIXED | MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    errno = error;
    if (mapped == MAP_FAILED) break;
    BusHandler::hit(*record);
    return;
  }
  passOn(signal, info, context);
}

// REQUIRES: the mutex is held.
void install() {
  static bool installed = false;
  if (installed) return;
  pageMask = ~(static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE)) - 1);
  struct sigaction action {};
  action.sa_sigaction = onBus;
  // SA_NODEFER: an old action may leave by a long jump.
  action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
  sigemptyset(&action.sa_mask);
  if (sigaction(SIGBUS, nullptr, &actionBefore) != 0 || sigaction(SIGBUS, &action, nullptr) != 0) {
    Vex::throwInternalException(std::string("sigaction(SIGBUS): ") + std::strerror(errno));
  }
  installed = true;
}

BusGuard::Record* newRecord() {
  const std::lock_guard lock(mutex());
  install();
  for (auto* record = records.load(std::memory_order_relaxed); record != nullptr;
       record = record->next) {
    if (!record->used) {
      record->used = true;
      return record;
    }
  }
  auto* record = new BusGuard::Record;  // never deleted: the handler may stand on it
  record->used = true;
  record->next = records.load(std::memory_order_relaxed);
  records.store(record, std::memory_order_release);
  return record;
}

}  // namespace

void BusGuard::begin(void* base, std::size_t size) {
  if (record_ == nullptr) record_ = newRecord();
  const auto from = reinterpret_cast<std::uintptr_t>(base);
  record_->end.store(0, std::memory_order_relaxed);
  record_->hit.store(false, std::memory_order_relaxed);
  record_->begin.store(from, std::memory_order_relaxed);
  record_->end.store(from + size, std::memory_order_release);
}

void BusGuard::end() noexcept {
  if (record_ == nullptr) return;
  record_->end.store(0, std::memory_order_relaxed);
  const std::lock_guard lock(mutex());
  record_->used = false;
  record_ = nullptr;
}

bool BusGuard::recordHit() const noexcept {
  return record_ != nullptr && record_->hit.load(std::memory_order_relaxed);
}

}  // namespace Mem
