// SPDX-License-Identifier: Apache-2.0
#include "quill/ReaderKickSm.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

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

}  // namespace

// The socket, and what of the protocol belongs to one connection. With it the timer, since there is
// none without a loop either.
class ReaderKickSm::Connection final : private Vex::ReadableHandler, private Vex::DeferredTask {
 public:
  Connection(ReaderKickSm& owner, Vex::ActivityManager& manager)
      : DeferredTask(manager),
        owner_(owner),
        manager_(manager),
        timer_(Sable::Platform::getTimerControl(owner)),
        retryTimer_(Sable::Platform::getTimerControl(retry_)) {}
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
  // Another batch in a while, or, where there is no memory for a timer either, when the writer
  // kicks.
  void again();

  template <class... Parts>
  void log(const Vex::LogHandle& handle, const Parts&... parts) {
    const Vex::CurrentActivityManager current(manager_);
    Vex::log(handle, owner_.kickRoot_.rootPath(), parts...);
  }

 private:
  // The time before which no attempt was to be made is over.
  struct Retry final : Sable::Platform::TimeoutHandler {
    explicit Retry(Connection& connection) noexcept : connection_(connection) {}
    void timeout() override { connection_.run(); }
    Connection& connection_;
  };

  void onReadable() override { owner_.fdEvent(socket_.get()); }
  // The owner hears that there is no connection.
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
  Retry retry_{*this};
  std::unique_ptr<Sable::Platform::TimerControl> retryTimer_;
  KickDescriptor socket_;
  std::uint64_t opened_ = 0;  // connections so far: tells one from the next
  bool answered_ = false;
  bool reportedAny_ = false;
  std::uint64_t reported_ = 0;
  double notBefore_ = 0.0;  // the next attempt
};

bool ReaderKickSm::Connection::open() {
  if (clock() < notBefore_) {
    // Whoever asked saw a writer, and may see nothing more of it: the attempt is made up for.
    traceText("is not connected: the connection before ended just now, without an answer");
    retryTimer_->arm(notBefore_ - clock());
    return false;
  }
  const KickDescriptor directory = openKickDirectory(owner_.kickRoot_.rootPath());
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
  retryTimer_->cancel();
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
  retryTimer_->cancel();
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

void ReaderKickSm::Connection::again() {
  try {
    timer_->arm(kRetryTime);
  } catch (const std::bad_alloc&) {
    // Asleep behind the writer is answered by a kick at once.
    report(reported_, true);
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
  if (!ready() || connected_) return;
  if (connection_->open()) return handleConnected();
  // There may have been a writer in the meantime, or the last one may have gone before its news
  // were read: the queue still has them.
  if (mayRun()) connection_->timer().arm(kCatchUpTime);
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
    } catch (const std::bad_alloc&) {
      if (batch.alive() && ready() && connected_ && mayRun()) connection_->again();
      throw;
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
