// SPDX-License-Identifier: Apache-2.0
//
// Quill::WriterKickSm::Readers: the connections of a table's readers, from the moment that the
// writer listens. For WriterKickSm.cc and its own implementation only.
//
// Belongs to the activity thread; works on the loop that it was made with.
//
// Invariants:
//  1. A reader costs at most kMaxMessagesPerTurn messages of a turn, all connection attempts
//  together
//     at most kMaxAcceptsPerTurn of it.
//  2. The owner's count of readers, and of those that sleep, are those of the sessions here.
//  3. Reasons why readers are dropped make at most kMaxLinesPerSecond log lines a second, whatever
//     they send.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "quill/KickSession.h"
#include "quill/KickSocket.h"
#include "quill/WriterKickSm.h"
#include "runtime/vex/ActivityManager.h"

namespace Quill {

// Whether one more reader is taken: empty, or the limit that it would break. `readers` are
// connected already, `ofUser` of them belong to its user. The table's writer and root have no limit
// of their own.
std::string kickRefusal(std::size_t readers, std::size_t ofUser, uid_t user, uid_t writer);

class WriterKickSm::Readers final : private Vex::ReadableHandler,
                                    private Sable::Platform::TimeoutHandler {
 public:
  static constexpr unsigned kMaxMessagesPerTurn = 8;
  static constexpr unsigned kMaxAcceptsPerTurn = 16;
  static constexpr unsigned kMaxLinesPerSecond = 8;
  // Seconds within which a reader has to introduce itself.
  static constexpr double kIntroductionTime = 10.0;
  // Seconds without accepting after a failure, such as no descriptor left: the attempt stays
  // readable, and the loop would go round for it.
  static constexpr double kAcceptPause = 1.0;

  // REQUIRES: the loop is current; the owner has its listening socket, and keeps it longer.
  explicit Readers(WriterKickSm& owner);
  Readers(const Readers&) = delete;
  Readers& operator=(const Readers&) = delete;
  ~Readers();

  // The listening socket, or a reader's, is readable.
  void handleReadable(int fd);
  void kickSleepers();
  std::uint64_t lowestSequence() const noexcept;

 private:
  struct Reader final : public Vex::ReadableHandler {
    Reader(WriterKickSm& ownerOfAll, KickDescriptor connection) noexcept
        : owner(ownerOfAll), socket(std::move(connection)) {}
    void onReadable() override { owner.fdEvent(socket.get()); }

    WriterKickSm& owner;
    KickDescriptor socket;
    KickSession session;
    pid_t pid = 0;  // of whoever connected; 0 if it cannot be seen from here
    uid_t user = 0;
    double deadline = 0.0;  // of the introduction
  };

  void onReadable() override { owner_.fdEvent(owner_.listening_.get()); }
  void timeout() override;

  void accept();
  void admit(KickDescriptor connection);
  void pauseAccept(int error);
  // Reads what a reader has sent. It may be gone afterwards.
  void read(Reader& reader);
  // False: it has been dropped.
  bool take(Reader& reader, const KickMessage& message);
  bool kick(Reader& reader);
  bool send(Reader& reader, KickType type);
  // Forgets a reader. An empty reason: it went by itself.
  void drop(Reader& reader, const std::string& reason);
  // Left out where there is no memory for it: the ends of connections do not wait for lines.
  void logDrop(const Reader& reader, const std::string& reason) noexcept;
  void logLine(const Reader& reader, const std::string& reason);
  void armTimer();
  double clock() const noexcept { return manager_.clock()->now(); }

  WriterKickSm& owner_;
  Vex::ActivityManager& manager_;
  std::unique_ptr<Sable::Platform::TimerControl> timer_;
  std::unordered_map<int, std::unique_ptr<Reader>> readers_;  // by descriptor
  // Both have room for all of them.
  std::vector<Reader*> asleep_;
  std::vector<Reader*> woken_;  // while they are kicked
  bool paused_ = false;         // nobody is accepted before acceptAgain_
  double acceptAgain_ = 0.0;
  double linesBegan_ = 0.0;
  unsigned lines_ = 0;
};

}  // namespace Quill
