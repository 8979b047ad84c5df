// SPDX-License-Identifier: Apache-2.0
//
// Quill::WriterKickSm: the writer's end of a table's kick socket: who reads, how far each reader
// has come, and who sleeps and wants to be woken. docs/formats.md has the messages.
//
// Belongs to the activity thread. Never waits for a reader, and holds a bounded amount for each.
//
// Invariants:
//  1. While no reader sleeps, doKickSleepers() is one comparison.
//  2. A reader is sent one kick for each time that it said it sleeps, whatever the number of
//     changes.
//  3. A reader that breaks the protocol, or whose socket is full, is dropped with a log line; what
//     it had reported is forgotten.
//  4. The writer lock is held from createKickSocket() to deleteKickSocket().
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "quill/KickSocket.h"
#include "quill/RootPath.h"
#include "runtime/sable/Platform.h"
#include "runtime/vex/ActivityManager.h"

namespace Quill {

class WriterKickSm : private Sable::Platform::TimeoutHandler {
 public:
  // Seconds for which a writer that kept its table waits for the readers of its former life: longer
  // than the 60 seconds after which each of them tries again.
  static constexpr double kReaderWait = 90.0;

  WriterKickSm(const WriterKickSm&) = delete;
  WriterKickSm& operator=(const WriterKickSm&) = delete;
  virtual ~WriterKickSm();

  // Makes the table's directory, takes the writer lock, says who owns the table, makes the
  // listening socket. Raises Sable::InvalidInitializeException; for a table that another writer
  // holds its text names the owner. Nothing for a local table.
  void createKickSocket();
  // Starts to accept readers on the loop that is current. With readers in the header from a former
  // life of the table (numReaders()), starts to wait for them. Nothing for a local table.
  void doEnableListen();
  // Drops every reader, closes and removes the socket, gives the lock back. Safe at any time.
  void deleteKickSocket() noexcept;
  // Raises CorruptionDetectedException if the socket is not in the directory any more.
  bool validateSocket() const;
  // Wakes the readers that said they sleep. Called after every notification.
  void doKickSleepers() {
    if (sleepers_ != 0) [[unlikely]]
      kickSleepers();
  }
  // The lowest sequence that any connected reader has reported, all ones if none has.
  std::uint64_t lowestSequence() const noexcept;

  // Readers that have finished the introduction.
  unsigned connectedReaders() const noexcept { return connected_; }
  // Wake-ups sent.
  std::uint64_t kicks() const noexcept { return kicks_; }
  // A handle for Util::AutoLock: -1 while the lock is not held.
  int lockHandle() const noexcept { return lock_; }

  // The writer that restarted with its table kept waits for its former readers; as long, nothing
  // may be pruned and the header keeps the former count.
  bool waitingForReaders() const noexcept { return waiting_ != nullptr; }
  // Ends the wait; nothing if there is none.
  void stopWaitingForReaders() noexcept;

 protected:
  WriterKickSm(Sable::Platform::DebugHandler& handler, const RootPath& root, bool localMem);

  // The count of readers in the queue's header.
  virtual unsigned numReaders() const = 0;
  // Called whenever connectedReaders() or waitingForReaders() has changed by an event.
  virtual void updateNumReaders() = 0;
  // A reader wants to connect or has sent something.
  virtual void fdEvent(int fd) { handleReaderConnection(fd); }
  void timeout() override { handleReaderConnectionTimeout(); }

  void handleReaderConnection(int fd);
  // The former readers have had their time: ends the wait.
  void handleReaderConnectionTimeout();

  std::uint64_t sequence_ = 0;  // the last one given out; in no file

 private:
  class Readers;
  class WaitingForReaders;
  void kickSleepers();
  void makeSocket();

  Sable::Platform::DebugHandler& kickHandler_;
  const RootPath& kickRoot_;
  const bool kickLocal_;
  int lock_ = -1;
  KickDescriptor listening_;
  // The file of the socket, to know it again.
  std::uint64_t socketDevice_ = 0;
  std::uint64_t socketInode_ = 0;
  std::string socketPath_;
  unsigned connected_ = 0;
  unsigned sleepers_ = 0;
  std::uint64_t kicks_ = 0;
  std::unique_ptr<Readers> readers_;
  std::unique_ptr<WaitingForReaders> waiting_;
};

}  // namespace Quill
