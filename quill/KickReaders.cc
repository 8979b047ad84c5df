// SPDX-License-Identifier: Apache-2.0
#include "quill/KickReaders.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <new>

#include "quill/Text.h"
#include "runtime/vex/Exception.h"
#include "runtime/vex/LogService.h"

namespace Quill {

namespace {

constexpr std::size_t kMaxReaders = 1'024;
constexpr std::size_t kMaxReadersPerUser = 64;

const Vex::LogHandle QUILL_READER_DROPPED(
    "QUILL_READER_DROPPED", Vex::LogSeverity::warning,
    "Table %s: reader with process id %s of user %s was dropped: %s",
    "The connection was closed. A reader that is sound connects again by itself and loses nothing.",
    "Find out what program that is, and whether its version fits the writer's.", 0.0, 1.0, 0);

const Vex::LogHandle QUILL_READERS_WAIT(
    "QUILL_READERS_WAIT", Vex::LogSeverity::warning,
    "Table %s: no reader can be taken at present: %s",
    "Readers that are connected are served. The attempt is made again after a second.",
    "Give the writer's process more descriptors.", 0.0, 1.0, 0);

}  // namespace

std::string kickRefusal(std::size_t readers, std::size_t ofUser, uid_t user, uid_t writer) {
  if (readers >= kMaxReaders) return textOf("the table has ", kMaxReaders, " readers already");
  if (user != 0 && user != writer && ofUser >= kMaxReadersPerUser) {
    return textOf("user ", user, " has ", kMaxReadersPerUser, " readers already");
  }
  return {};
}

WriterKickSm::Readers::Readers(WriterKickSm& owner)
    : owner_(owner),
      manager_(Vex::activityManager()),
      timer_(Sable::Platform::getTimerControl(*this)) {
  manager_.readableIs(owner_.listening_.get(), *this);
}

WriterKickSm::Readers::~Readers() {
  manager_.readableDel(owner_.listening_.get());
  for (const auto& [fd, reader] : readers_) manager_.readableDel(fd);
}

void WriterKickSm::Readers::handleReadable(int fd) {
  if (fd == owner_.listening_.get()) return accept();
  const auto found = readers_.find(fd);
  if (found != readers_.end()) read(*found->second);
}

void WriterKickSm::Readers::accept() {
  for (unsigned i = 0; i < kMaxAcceptsPerTurn; ++i) {
    KickDescriptor connection(
        accept4(owner_.listening_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (connection.get() >= 0) {
      admit(std::move(connection));
    } else if (errno == EAGAIN) {
      return;
    } else if (errno != EINTR && errno != ECONNABORTED) {
      return pauseAccept(errno);
    }
  }
}

void WriterKickSm::Readers::admit(KickDescriptor connection) {
  const int fd = connection.get();
  auto reader = std::make_unique<Reader>(owner_, std::move(connection));
  ucred peer{};
  socklen_t size = sizeof peer;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
    return logDrop(*reader, textOf("its user cannot be told: ", std::strerror(errno)));
  }
  reader->pid = peer.pid;
  reader->user = peer.uid;
  const auto ofUser = std::count_if(readers_.begin(), readers_.end(), [&peer](const auto& entry) {
    return entry.second->user == peer.uid;
  });
  const std::string refusal =
      kickRefusal(readers_.size(), static_cast<std::size_t>(ofUser), peer.uid, geteuid());
  if (!refusal.empty()) return logDrop(*reader, refusal);
  // Room for it in both lists now: when it falls asleep, or is woken, none may be found.
  asleep_.reserve(readers_.size() + 1);
  woken_.reserve(readers_.size() + 1);
  reader->deadline = clock() + kIntroductionTime;
  const auto [place, _] = readers_.emplace(fd, std::move(reader));
  try {
    manager_.readableIs(fd, *place->second);
  } catch (const Vex::Exception& exception) {
    logDrop(*place->second, exception.text());
    readers_.erase(place);
    return;
  } catch (...) {
    readers_.erase(place);
    throw;
  }
  // An armed timer is due no later than this reader's time.
  if (!timer_->armed()) armTimer();
}

void WriterKickSm::Readers::pauseAccept(int error) {
  manager_.readableDel(owner_.listening_.get());
  paused_ = true;
  acceptAgain_ = clock() + kAcceptPause;
  armTimer();
  const Vex::CurrentActivityManager current(manager_);
  Vex::log(QUILL_READERS_WAIT, owner_.kickRoot_.rootPath(), std::strerror(error));
}

void WriterKickSm::Readers::armTimer() {
  double due = paused_ ? acceptAgain_ : Vex::kNever;
  for (const auto& [fd, reader] : readers_) {
    if (!reader->session.introduced()) due = std::min(due, reader->deadline);
  }
  if (due == Vex::kNever) return timer_->cancel();
  timer_->arm(std::max(due - clock(), 0.0));
}

void WriterKickSm::Readers::timeout() {
  const double now = clock();
  timer_->arm(kAcceptPause);  // should memory run out in here
  if (paused_ && acceptAgain_ <= now) {
    manager_.readableIs(owner_.listening_.get(), *this);
    paused_ = false;
  }
  std::vector<Reader*> late;
  for (const auto& [fd, reader] : readers_) {
    if (!reader->session.introduced() && reader->deadline <= now) late.push_back(reader.get());
  }
  for (Reader* const reader : late) {
    drop(*reader, textOf("no introduction within ", kIntroductionTime, " seconds"));
  }
  armTimer();
}

void WriterKickSm::Readers::read(Reader& reader) {
  for (unsigned i = 0; i < kMaxMessagesPerTurn; ++i) {
    const KickInput input = receiveKick(reader.socket.get());
    switch (input.kind) {
      case KickInput::Kind::nothing:
        return;
      case KickInput::Kind::closed:
        return drop(reader, {});
      case KickInput::Kind::wrong:
        return drop(reader, input.reason);
      case KickInput::Kind::message:
        if (!take(reader, input.message)) return;
    }
  }
}

bool WriterKickSm::Readers::take(Reader& reader, const KickMessage& message) {
  const bool slept = reader.session.asleep();
  std::string reason;
  const KickSession::Effect effect =
      reader.session.handleMessage(message, owner_.sequence_, clock(), reason);
  // A message never ends a sleep: only a kick does, and it takes the reader off the list.
  if (!slept && reader.session.asleep()) asleep_.push_back(&reader);
  owner_.sleepers_ = static_cast<unsigned>(asleep_.size());
  switch (effect) {
    case KickSession::Effect::none:
    case KickSession::Effect::slept:
      return true;
    case KickSession::Effect::introduced:
      // Counted first: after the answer nothing beyond the report is pruned.
      ++owner_.connected_;
      owner_.updateNumReaders();
      return send(reader, KickType::ack);
    case KickSession::Effect::kickNow:
      return kick(reader);
    case KickSession::Effect::refused:
      break;
  }
  drop(reader, reason);
  return false;
}

bool WriterKickSm::Readers::kick(Reader& reader) {
  if (!send(reader, KickType::kick)) return false;
  ++owner_.kicks_;
  return true;
}

bool WriterKickSm::Readers::send(Reader& reader, KickType type) {
  const int error = sendKick(reader.socket.get(), {type, owner_.sequence_});
  if (error == 0) return true;
  std::string reason;
  if (error != EPIPE && error != ECONNRESET) {
    try {
      reason = textOf(type, " cannot be sent, it does not read: ", std::strerror(error));
    } catch (const std::bad_alloc&) {
      reason = "gone";  // short enough to need none
    }
  }
  drop(reader, reason);
  return false;
}

void WriterKickSm::Readers::kickSleepers() {
  // All of them are awake before the first can be dropped, so that a drop finds nobody in the list.
  woken_.swap(asleep_);
  owner_.sleepers_ = 0;
  for (Reader* const reader : woken_) reader->session.handleKicked();
  for (Reader* const reader : woken_) kick(*reader);
  woken_.clear();
}

std::uint64_t WriterKickSm::Readers::lowestSequence() const noexcept {
  std::uint64_t lowest = std::numeric_limits<std::uint64_t>::max();
  for (const auto& [fd, reader] : readers_) {
    if (reader->session.introduced()) lowest = std::min(lowest, reader->session.sequence());
  }
  return lowest;
}

void WriterKickSm::Readers::drop(Reader& reader, const std::string& reason) {
  const int fd = reader.socket.get();
  manager_.readableDel(fd);
  const auto node = readers_.extract(fd);  // keeps it for the rest of this function
  if (std::erase(asleep_, &reader) != 0) {
    owner_.sleepers_ = static_cast<unsigned>(asleep_.size());
  }
  if (reader.session.introduced()) {
    --owner_.connected_;
    owner_.updateNumReaders();
  }
  logDrop(reader, reason);
}

void WriterKickSm::Readers::logDrop(const Reader& reader, const std::string& reason) noexcept {
  try {
    logLine(reader, reason);
  } catch (...) {  // NOLINT(bugprone-empty-catch): see the declaration
  }
}

void WriterKickSm::Readers::logLine(const Reader& reader, const std::string& reason) {
  const std::string path = owner_.kickRoot_.rootPath();
  owner_.kickHandler_.trace(6, [&](std::ostream& os) {
    os << "WriterKickSm: " << path << " reader pid:" << reader.pid << " uid:" << reader.user
       << " has gone: " << (reason.empty() ? "closed by the reader" : reason);
  });
  if (reason.empty()) return;
  // The log's own limit is one for each text, and a reader could bring forth any number of texts.
  const double now = clock();
  if (now - linesBegan_ >= 1.0 || now < linesBegan_) {
    linesBegan_ = now;
    lines_ = 0;
  }
  if (++lines_ > kMaxLinesPerSecond) return;
  const Vex::CurrentActivityManager current(manager_);
  Vex::log(QUILL_READER_DROPPED, path, reader.pid, reader.user, reason);
}

}  // namespace Quill
