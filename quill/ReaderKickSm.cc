// SPDX-License-Identifier: Apache-2.0
#include "quill/ReaderKickSm.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "quill/KickSocket.h"
#include "quill/Text.h"
#include "runtime/sable/Exception.h"
#include "runtime/vex/LogService.h"

namespace Quill {

namespace {

// Of one turn. The writer sends one for each sleep.
constexpr unsigned kMaxMessagesPerTurn = 8;

const Vex::LogHandle QUILL_WRITER_LOST(
    "QUILL_WRITER_LOST", Vex::LogSeverity::warning,
    "Table %s: the connection to the writer was closed: %s",
    "This reader answers from what it has and tries to connect again.",
    "Find out whether the writer's version fits this program's.", 0.0, 1.0, 0);

const Vex::LogHandle QUILL_READER_FAILED(
    "QUILL_READER_FAILED", Vex::LogSeverity::error, "Table %s: changes could not be followed: %s",
    "If the table was found damaged, the writer has been told and this reader waits for it to put "
    "that right; else it tries again.",
    "If this repeats, restart the writer of the table.", 0.0, 1.0, 0);

// Which socket stands in the directory. That of a new writer is another one, also where the file
// system gives it the number of the one before.
struct SocketIdentity {
  static SocketIdentity of(const KickDescriptor& directory) noexcept {
    struct stat status {};
    if (directory.get() < 0 ||
        fstatat(directory.get(), "kick", &status, AT_SYMLINK_NOFOLLOW) != 0) {
      return {};
    }
    return {status.st_dev, status.st_ino, status.st_ctim.tv_sec, status.st_ctim.tv_nsec};
  }
  friend bool operator==(const SocketIdentity&, const SocketIdentity&) = default;

  dev_t device = 0;
  ino_t inode = 0;
  time_t seconds = 0;
  long nanoseconds = 0;
};

}  // namespace

// The socket, and what of the protocol belongs to one connection. With it the timer, since there is
// none without a loop either.
class ReaderKickSm::Connection final : private Vex::ReadableHandler, private Vex::DeferredTask {
 public:
  Connection(ReaderKickSm& owner, Vex::ActivityManager& manager)
      : DeferredTask(manager),
        owner_(owner),
        manager_(manager),
        timer_(Sable::Platform::getTimerControl(owner)) {}
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection() override { close(); }

  Sable::Platform::TimerControl& timer() noexcept { return *timer_; }
  double clock() const noexcept { return manager_.clock()->now(); }

  // False: there is no writer, or it is too early for the next attempt.
  bool open();
  // Without telling anybody.
  void close() noexcept;
  // Tells the writer. `sleep`: nothing is left to do until a kick comes.
  void report(std::uint64_t sequence, bool sleep);
  void read(int fd);

  template <class... Parts>
  void log(const Vex::LogHandle& handle, const Parts&... parts) {
    const Vex::CurrentActivityManager current(manager_);
    Vex::log(handle, owner_.kickRoot_.rootPath(), parts...);
  }

 private:
  void onReadable() override { owner_.fdEvent(socket_.get()); }
  void run() override;

  // The connection has ended by itself: the owner hears of it in the next turn.
  void lose(const std::string& reason);
  // False: nothing of this connection may be touched any more.
  bool acknowledge();
  void traceText(const std::string& text) const {
    owner_.kickHandler_.trace(6, [&](std::ostream& os) {
      os << "ReaderKickSm: " << owner_.kickRoot_.rootPath() << " " << text;
    });
  }

  ReaderKickSm& owner_;
  Vex::ActivityManager& manager_;
  std::unique_ptr<Sable::Platform::TimerControl> timer_;
  KickDescriptor socket_;
  std::uint64_t opened_ = 0;  // connections so far: tells one from the next
  bool answered_ = false;
  bool reportedAny_ = false;
  std::uint64_t reported_ = 0;
  double notBefore_ = 0.0;  // the next attempt at the socket that refused
  SocketIdentity offered_;  // of the last attempt
};

bool ReaderKickSm::Connection::open() {
  const KickDescriptor directory = openKickDirectory(owner_.kickRoot_.rootPath());
  const SocketIdentity offered = SocketIdentity::of(directory);
  if (clock() < notBefore_ && offered == offered_) {
    traceText("is not connected: the writer refused it just now");
    return false;
  }
  offered_ = offered;
  KickDescriptor socket = newKickSocket();
  const sockaddr_un address = kickAddress(directory, "kick");
  if (directory.get() < 0 || socket.get() < 0 ||
      connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    const int error = errno;
    traceText(textOf("is not connected: ", std::strerror(error)));
    return false;
  }
  if (const int error = sendKick(socket.get(), {KickType::hello, 0}); error != 0) {
    traceText(textOf("is not connected, HELLO: ", std::strerror(error)));
    return false;
  }
  try {
    manager_.readableIs(socket.get(), *this);
  } catch (const Vex::Exception& exception) {
    traceText(textOf("is not connected: ", exception.text()));
    return false;
  }
  cancel();  // the loss of the connection before is of no interest any more
  socket_ = std::move(socket);
  ++opened_;
  answered_ = false;
  reportedAny_ = false;
  reported_ = 0;
  owner_.connected_ = true;
  return true;
}

void ReaderKickSm::Connection::close() noexcept {
  cancel();
  if (socket_.get() < 0) return;
  manager_.readableDel(socket_.get());
  socket_.reset();
  owner_.connected_ = false;
}

void ReaderKickSm::Connection::lose(const std::string& reason) {
  traceText("lost its writer: " + (reason.empty() ? "closed by the writer" : reason));
  if (!answered_) notBefore_ = clock() + kRetryTime;
  close();
  schedule();
  if (!reason.empty()) log(QUILL_WRITER_LOST, reason);
}

void ReaderKickSm::Connection::run() {
  const std::weak_ptr<const char> life = owner_.life_;
  try {
    owner_.handleConnected();
  } catch (const Sable::Exception& exception) {
    if (!life.expired()) log(QUILL_READER_FAILED, exception.text());
  }
}

void ReaderKickSm::Connection::report(std::uint64_t sequence, bool sleep) {
  if (socket_.get() < 0) return;
  if (!reportedAny_) {
    // The writer wants one SEQUENCE ahead of everything; there is room in a socket this young.
    if (const int error = sendKick(socket_.get(), {KickType::sequence, sequence}); error != 0) {
      return lose(error == EPIPE || error == ECONNRESET ? std::string() : std::strerror(error));
    }
    reportedAny_ = true;
    reported_ = sequence;
    if (!sleep) return;
  }
  // After a synchronisation the reader begins at what it has consumed, behind tombstones that it
  // had passed before. The writer would take a number that goes back for a fault.
  sequence = std::max(sequence, reported_);
  if (!sleep && sequence == reported_) return;
  const KickType type = sleep ? KickType::sleep : KickType::sequence;
  const int error = sendKick(socket_.get(), {type, sequence});
  if (error == 0) {
    reported_ = sequence;
  } else if (error != EAGAIN) {
    lose(error == EPIPE || error == ECONNRESET ? std::string() : std::strerror(error));
  } else if (sleep) {
    timer_->arm(kRetryTime);  // the next batch says it again; any other report only saves memory
  }
}

void ReaderKickSm::Connection::read(int fd) {
  if (fd != socket_.get()) return;
  bool kicked = false;
  for (unsigned i = 0; i < kMaxMessagesPerTurn; ++i) {
    const KickInput input = receiveKick(fd);
    if (input.kind == KickInput::Kind::nothing) break;
    if (input.kind == KickInput::Kind::closed) return lose({});
    if (input.kind == KickInput::Kind::wrong) return lose(input.reason);
    if (input.message.type == KickType::ack && !answered_ && reportedAny_) {
      if (!acknowledge()) return;
    } else if (input.message.type == KickType::kick && answered_) {
      kicked = true;  // several are one batch
    } else {
      return lose(textOf(input.message.type, " from the writer, must be one ACK, then KICK"));
    }
  }
  if (kicked) owner_.doConquer();
}

bool ReaderKickSm::Connection::acknowledge() {
  answered_ = true;
  const std::weak_ptr<const char> life = owner_.life_;
  const std::uint64_t opened = opened_;
  try {
    owner_.handleAck();
  } catch (const Sable::Exception& exception) {
    if (life.expired()) return false;
    log(QUILL_READER_FAILED, exception.text());
    // From anew, by way of the mounter, but not at once: it may fail in the same way.
    if (socket_.get() >= 0 && opened == opened_) {
      answered_ = false;
      lose({});
    }
    return false;
  }
  return !life.expired() && socket_.get() >= 0 && opened == opened_;
}

// Marks that a batch runs, as long as the object lives.
class ReaderKickSm::Batch {
 public:
  explicit Batch(ReaderKickSm& owner) : owner_(owner), life_(owner.life_) { owner.running_ = true; }
  Batch(const Batch&) = delete;
  Batch& operator=(const Batch&) = delete;
  ~Batch() {
    if (alive()) owner_.running_ = false;
  }
  bool alive() const noexcept { return !life_.expired(); }

 private:
  ReaderKickSm& owner_;
  std::weak_ptr<const char> life_;
};

ReaderKickSm::ReaderKickSm(Sable::Platform::DebugHandler& handler, const RootPath& root,
                           Reader::Counters&)
    : kickHandler_(handler), kickRoot_(root), life_(std::make_shared<const char>()) {
  if (Vex::ActivityManager* const manager = Vex::currentActivityManager()) {
    connection_ = std::make_unique<Connection>(*this, *manager);
  }
}

ReaderKickSm::~ReaderKickSm() = default;

bool ReaderKickSm::ready() const noexcept { return connection_ != nullptr; }

void ReaderKickSm::doConnect() {
  if (!ready() || connected_ || !connection_->open()) return;
  handleConnected();
}

void ReaderKickSm::sendSequence(const std::uint64_t& sequence) {
  if (connected_) connection_->report(sequence, false);
}

void ReaderKickSm::notifying(bool on) {
  if (on == notifying_) return;
  notifying_ = on;
  if (!on) {
    stopFlag_ = true;
    if (ready()) connection_->timer().cancel();
  } else if (enabled_ && ready()) {
    connection_->timer().arm(0.0);
  }
}

void ReaderKickSm::doCloseWriterConnection(bool quiet) {
  if (!ready()) return;
  if (connected_ && !quiet) {
    kickHandler_.trace(6, [&](std::ostream& os) {
      os << "ReaderKickSm: " << kickRoot_.rootPath() << " closes its connection";
    });
  }
  connection_->close();
}

void ReaderKickSm::doConquer() {
  if (!mayRun()) return;  // handleEnabled() or notifying() catches up
  if (running_) {
    // A listener asks for a batch from inside one.
    if (ready()) connection_->timer().arm(0.0);
    return;
  }
  stopFlag_ = false;
  yielded_ = false;
  std::uint64_t sequence = 0;
  {
    const Batch batch(*this);
    try {
      sequence = doProcessNotifications();
    } catch (const Sable::Exception& exception) {
      if (!batch.alive() || !ready()) return;
      connection_->log(QUILL_READER_FAILED, exception.text());
      // Where damage was found, the connection is closed by now. Otherwise, as when memory has run
      // out, nobody would wake this reader again.
      if (connected_ && mayRun()) connection_->timer().arm(kRetryTime);
      return;
    }
    if (!batch.alive()) return;
  }
  if (!ready()) return;
  if (yielded_ && mayRun()) connection_->timer().arm(0.0);
  if (connected_) connection_->report(sequence, !yielded_ && !stopFlag_);
}

void ReaderKickSm::fdEvent(int fd) {
  if (ready()) connection_->read(fd);
}

void ReaderKickSm::timeout() { doConquer(); }

}  // namespace Quill
