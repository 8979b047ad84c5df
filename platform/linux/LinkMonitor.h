// SPDX-License-Identifier: Apache-2.0
//
// Platform::Linux::LinkMonitor: keeps a LinkTable equal to the links of a network namespace and
// tells a listener of every difference, once.
//
// Belongs to the thread of its loop: wait until fd() is readable, then call process(). The
// namespace is that of the thread that calls start(). The listener is the caller's and outlives the
// monitor; it is called from start() and process() only, with the table already changed, and must
// not call either of them. An exception of the listener passes through; the next process() goes on
// behind it. Invariants:
//   1. Subscribed before the first dump, dumps and events on one socket: the order in which the
//   kernel
//      queued them is the order in which they are true, and nothing falls between.
//   2. After lost messages (ENOBUFS) or a dump that the kernel marks as interrupted, both families
//   are
//      dumped again and compared; the listener hears differences only, never a restart. A dump that
//      fails is asked for again by the next process(), not in a loop of its own.
//   3. One call of process() handles a bounded number of messages and reads only what is there.
//   4. Only messages of the kernel count; what other processes send to the socket is dropped.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <system_error>
#include <vector>

#include "platform/linux/Fd.h"
#include "platform/linux/LinkTable.h"

struct nlmsghdr;  // linux/netlink.h

namespace Platform::Linux {

class LinkMonitor {
 public:
  class Listener {
   public:
    virtual ~Listener() = default;
    // `before` is null for a new link. Both are good during the call only.
    virtual void linkIs(const LinkInfo& now, const LinkInfo* before) = 0;
    virtual void linkDel(const LinkInfo& last) = 0;
  };

  struct Config {
    // Bytes; 8 MiB held every message of 1,000 interfaces going up at once, the default held 90.
    std::size_t receiveBuffer = std::size_t{8} << 20;
  };

  struct Statistics {
    std::uint64_t messages = 0;   // link messages used
    std::uint64_t malformed = 0;  // link messages that could not be parsed
    std::uint64_t overruns = 0;   // times the kernel had to drop messages
    std::uint64_t resyncs = 0;    // complete dumps of both families after the first
  };

  explicit LinkMonitor(Listener& listener) : LinkMonitor(listener, Config()) {}
  LinkMonitor(Listener& listener, const Config& config) : listener_(listener), config_(config) {}
  LinkMonitor(const LinkMonitor&) = delete;
  LinkMonitor& operator=(const LinkMonitor&) = delete;

  // Opens, subscribes and reads everything there is; returns when the table is whole, or with the
  // error of socket(2), bind(2) or of the kernel's answer, or timed_out when the kernel has been
  // silent for `kStartTimeoutMs`. After an error the monitor is closed and start() may be repeated.
  std::error_code start();
  static constexpr int kStartTimeoutMs = 2000;

  int fd() const { return socket_.get(); }  // -1 before start()

  // Handles at most `maxMessages` messages. True: there is more to do now, call again before
  // waiting on fd() (some of it may be in memory already, where waiting does not see it).
  bool process(std::size_t maxMessages);

  // False while a first or repeated dump is under way or due: the table may be behind.
  bool inSync() const { return phase_ == Phase::kIdle && !resyncDue_; }

  // Compares the whole table with the kernel again, as after lost messages; the work is done by
  // process(), which is to be called without waiting for fd() then.
  void resync();

  const LinkTable& table() const { return table_; }
  const Statistics& statistics() const { return statistics_; }

 private:
  enum class Phase : std::uint8_t { kIdle, kDumpLinks, kSweepLinks, kDumpPorts, kSweepPorts };
  enum class Read : std::uint8_t { kData, kNothing, kLost };

  std::error_code open();
  std::error_code dumpRequestIs(Phase phase);
  void dumpFailed(std::error_code error);
  bool idleStep();
  bool sweepStep();
  Read receive();
  void handleNext();
  void handleDump(const nlmsghdr& header);
  void tell(const std::optional<LinkTable::Change>& change);

  Listener& listener_;
  const Config config_;
  Fd socket_;
  LinkTable table_;
  Statistics statistics_;

  std::vector<std::uint8_t> buffer_;  // one datagram
  std::size_t begin_ = 0;             // what is left of it
  std::size_t end_ = 0;

  Phase phase_ = Phase::kIdle;
  std::uint32_t portId_ = 0;    // the kernel's name of the socket
  std::uint32_t sequence_ = 0;  // of the dump under way; events have 0
  bool interrupted_ = false;    // the dump under way is not a consistent picture
  bool resyncDue_ = false;
  bool everInSync_ = false;
  std::error_code dumpError_;  // why the last dump could not be had
};

}  // namespace Platform::Linux
