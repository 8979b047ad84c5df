// SPDX-License-Identifier: Apache-2.0
//
// Quill::ReaderKickSm: a reader's end of a table's kick socket. It connects, reports how far the
// reader has come, sleeps until it is kicked, and runs a batch then. docs/formats.md has the
// messages.
//
// Belongs to the activity thread. Never waits for the writer.
//
// Invariants:
//  1. No batch begins while the reader is not enabled or notifications are off.
//  2. Before the reader sleeps it has looked at the whole queue, and the writer kicks at once if it
//     has added to the queue since: no change is slept through.
//  3. After a batch that ended for its time limit another runs in a coming turn of the loop.
//  4. What a batch raises as a Sable::Exception ends here, with a log line; damage has been
//  reported
//     by then, and after anything else another batch is tried after kRetryTime.
//  5. Every event, of the pure operations below as well, may close the connection, end the
//     notifications or destroy the object.
//  6. What is reported on one connection never goes back.
#pragma once

#include <cstdint>
#include <memory>

#include "quill/Counters.h"
#include "quill/RootPath.h"
#include "runtime/sable/Platform.h"
#include "runtime/vex/ActivityManager.h"

namespace Quill {

class ReaderKickSm : private Sable::Platform::TimeoutHandler {
 public:
  // Seconds: after a batch that failed, after a report for which the socket had no room, and from a
  // connection that ended without the writer's answer to the next one. Without the last of them a
  // reader that is refused would go round with its mounter for ever. An attempt that comes too
  // early for it is made up for: handleConnected() is called again when the time is over.
  static constexpr double kRetryTime = 1.0;
  // Seconds from an attempt to connect that found no writer to a batch. Not at once: a writer that
  // is just coming may be giving the table up, which its new generation tells when it is done.
  static constexpr double kCatchUpTime = 0.05;

  ReaderKickSm(const ReaderKickSm&) = delete;
  ReaderKickSm& operator=(const ReaderKickSm&) = delete;
  virtual ~ReaderKickSm();

  // False: there is no loop to work on.
  bool ready() const noexcept;
  // Tries to open the connection; on success connected() and handleConnected(). Never waits. The
  // writer answers after the first sendSequence(), by handleAck(). Without a writer a batch reads
  // what the last one has left.
  void doConnect();
  // Reports up to where this reader has come. Nothing without a connection.
  void sendSequence(const std::uint64_t& sequence);
  // Off: ends a running batch after the present entry and begins none. On: catches up.
  void notifying(bool on);
  // Closes the connection without a call of handleConnected(). `quiet`: the writer need not be
  // told.
  void doCloseWriterConnection(bool quiet);
  // Runs a batch, if invariant 1 allows it, and reports the sequence that it reached.
  void doConquer();

  bool connected() const noexcept { return connected_; }
  bool enabled() const noexcept { return enabled_; }

 protected:
  ReaderKickSm(Sable::Platform::DebugHandler& handler, const RootPath& root,
               Reader::Counters& counters);

  // One batch; answers the sequence reached.
  virtual std::uint64_t doProcessNotifications() = 0;
  // The connection was opened (connected()) or was lost.
  virtual void handleConnected() = 0;
  // The writer has taken this reader's first report into account: from now on it prunes nothing
  // beyond it.
  virtual void handleAck() = 0;
  virtual void handleEnabled() = 0;
  virtual void fdEvent(int fd);
  void timeout() override;

  bool connected_ = false;
  bool enabled_ = false;
  bool yielded_ = false;   // the last batch ended for its time limit
  bool stopFlag_ = false;  // a batch is to end at once

 private:
  class Connection;
  class Batch;

  bool mayRun() const noexcept { return enabled_ && notifying_; }

  Sable::Platform::DebugHandler& kickHandler_;
  const RootPath& kickRoot_;
  bool notifying_ = true;
  bool running_ = false;                    // inside a batch
  std::unique_ptr<Connection> connection_;  // null: no loop
  // Expires with this object: how a function that has called out finds out whether it still may
  // touch anything.
  std::shared_ptr<const char> life_;
};

}  // namespace Quill
