// SPDX-License-Identifier: Apache-2.0
#include "agent/control/ControlServer.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "runtime/vex/Exception.h"
#include "runtime/vex/LogService.h"

namespace Agent {

namespace PC = Platform::Linux::Control;
using Platform::Linux::Fd;

namespace {

constexpr std::size_t kForRoot = 4;

const Vex::LogHandle RINGWARD_CLIENT_DROPPED(
    "RINGWARD_CLIENT_DROPPED", Vex::LogSeverity::warning,
    "Control socket: the client with process id %s of user %s was dropped: %s",
    "The connection was closed. Detection and all other clients go on.",
    "Find out what program that is, and whether its version fits the agent's.", 0.0, 1.0, 0);

const Vex::LogHandle RINGWARD_CLIENTS_WAIT(
    "RINGWARD_CLIENTS_WAIT", Vex::LogSeverity::warning,
    "Control socket: no client can be taken at present: %s",
    "Clients that are connected are served. The attempt is made again after a second.",
    "Give the agent's process more descriptors.", 0.0, 1.0, 0);

std::string count(std::size_t number, const char* what) {
  return std::to_string(number) + ' ' + what;
}

std::uint8_t typeOf(PC::FrameType type) noexcept { return static_cast<std::uint8_t>(type); }

// What carrying a frame out counts as. Nothing: a frame whose length cannot be, which is refused.
std::size_t costOf(const std::optional<PC::Frame>& frame) noexcept {
  const bool isOfLog = frame && frame->type < PC::kFirstOwnType;
  return 1 + (isOfLog ? frame->body.size() / ControlServer::kLogMessage : 0);
}

}  // namespace

std::string admissionRefusal(const Admission& now, std::size_t maxClients) {
  if (now.clients >= maxClients + (now.root ? kForRoot : 0)) {
    return "there are " + count(now.clients, "clients already; raise max-clients in [control]");
  }
  if (now.mayWrite) return {};
  const std::size_t forReaders = std::max<std::size_t>(maxClients * 3 / 4, 1);
  const std::size_t forOne = std::max<std::size_t>(maxClients / 4, 1);
  if (now.readers >= forReaders) {
    return "there are " + count(now.readers, "clients that only read already");
  }
  if (now.ofUser >= forOne) return "its user has " + count(now.ofUser, "clients already");
  return {};
}

struct ControlServer::Client {
  Client(Fd socket, Credentials credentials)
      : connection(std::move(socket)), who(std::move(credentials)) {}

  PC::FrameConnection connection;
  const Credentials who;
  std::string refusal;  // empty: it may write
  bool greeted = false;
  bool queued = false;
  bool first = false;   // its next frame is too large to share a turn: ahead of all others
  bool parked = false;  // until readersAgain_
  bool readable = false;
  bool writable = true;
  bool wantsRead = true;  // as the kernel was told
  bool wantsWrite = false;
  double deadline = Vex::kNever;
  bool midway = false;  // the deadline is for the rest of a message
  bool heard = false;   // something has come since the deadline was looked at
  std::unique_ptr<ControlStream> stream;
};

ControlServer::ControlServer(Vex::ActivityManager& manager, ControlService& service,
                             const Rights& rights, Options options)
    : DeferredTask(manager),
      manager_(manager),
      service_(service),
      rights_(rights),
      options_(std::move(options)) {
  manager_.readableIs(readiness_.fd(), *this);
  manager_.timerSourceIs(*this);
}

ControlServer::~ControlServer() {
  manager_.timerSourceDel(*this);
  manager_.readableDel(readiness_.fd());
}

std::string ControlServer::open() {
  std::string error = listening_.open(options_.path);
  if (!error.empty()) return error;
  if (const std::error_code failed = readiness_.newInterest(listening_.fd(), true, false)) {
    listening_.close();
    return "cannot wait for clients: " + failed.message();
  }
  return {};
}

// Takes note; the work is done by run(), in the next turn: what else is readable in this one, and
// the packets above all, goes first.
void ControlServer::onReadable() {
  std::array<PC::Readiness::Event, 64> events;
  const std::size_t ready = readiness_.take(events);
  for (std::size_t i = 0; i < ready; ++i) {
    const PC::Readiness::Event& event = events[i];
    if (event.fd == listening_.fd()) {
      acceptable_ = true;
      schedule();
      continue;
    }
    const auto found = clients_.find(event.fd);
    if (found == clients_.end()) continue;
    Client& client = *found->second;
    client.readable = client.readable || event.readable;
    client.writable = client.writable || event.writable;
    queue(client);
  }
}

void ControlServer::queue(Client& client) {
  if (!std::exchange(client.queued, true)) {
    // Behind the others it would find the turn begun each time.
    client.first ? queue_.push_front(client.connection.fd())
                 : queue_.push_back(client.connection.fd());
  }
  schedule();
}

void ControlServer::run() {
  if (std::exchange(acceptable_, false)) accept();
  std::size_t frames = kFramesPerTurn;
  // Those that are queued meanwhile wait for the next turn, and whoever has had the last frame of
  // this one stands behind all others then.
  for (std::size_t left = std::min(queue_.size(), kClientsPerTurn); left > 0 && frames > 0;
       --left) {
    const int fd = queue_.front();
    queue_.pop_front();
    const auto found = clients_.find(fd);
    if (found == clients_.end()) continue;
    found->second->queued = false;
    found->second->first = false;
    work(*found->second, frames);
  }
  if (!queue_.empty()) schedule();
}

void ControlServer::work(Client& client, std::size_t& frames) {
  const int fd = client.connection.fd();
  try {
    if (client.readable) {
      if (!client.wantsRead) return drop(client, {});  // no more than its end can be told
      client.readable = false;
      switch (client.connection.read(kBytesPerClient)) {
        case PC::FrameConnection::Input::closed:
          return dropClosed(client);
        case PC::FrameConnection::Input::some:
          client.heard = true;
          break;
        case PC::FrameConnection::Input::nothing:
          break;
      }
    }
    while (frames > 0 && !client.parked && client.connection.waiting() < kMostOut &&
           client.connection.in().ready()) {
      const std::size_t cost = costOf(client.connection.in().peek());
      if (cost > frames && frames < kFramesPerTurn) {
        client.first = true;
        frames = 0;
        break;
      }
      if (!admitFrame(client, cost)) break;
      const auto frame = client.connection.in().next();
      if (!frame) break;
      frames -= std::min(cost, frames);
      handleFrame(client, *frame);
      if (!clients_.contains(fd)) return;
    }
    write(client);
  } catch (const Vex::Exception& exception) {
    drop(client, exception.text());
  } catch (const std::exception& exception) {
    drop(client, exception.what());
  }
}

bool ControlServer::admitFrame(Client& client, std::size_t cost) {
  if (client.refusal.empty()) return true;
  const double now = clock();
  if (now >= readersBegan_ + 1.0 || now < readersBegan_) {
    // Less than one second's share is missing: the longest frame counts as less than that.
    static_assert(1 + PC::kMaxBody / kLogMessage < kReaderFramesPerSecond);
    const bool nextSecond = now >= readersBegan_ && now < readersBegan_ + 2.0;
    readerFrames_ = nextSecond && readerFrames_ > kReaderFramesPerSecond
                        ? readerFrames_ - kReaderFramesPerSecond
                        : 0;
    readersBegan_ = now;
  }
  if (readerFrames_ < kReaderFramesPerSecond) {
    readerFrames_ += cost;
    return true;
  }
  client.parked = true;
  readersAgain_ = readersBegan_ + 1.0;
  return false;
}

void ControlServer::handleFrame(Client& client, const PC::Frame& frame) {
  if (!client.greeted) {
    if (frame.type != typeOf(PC::FrameType::hello)) {
      return drop(client, "frame type " + std::to_string(frame.type) + " before hello (16)");
    }
    return handleHello(client, PC::readHello(frame.body));
  }
  if (frame.type < PC::kFirstOwnType) {
    if (!client.stream) {
      return drop(client, "frame type " + std::to_string(frame.type) +
                              " of the attribute log before a subscription");
    }
    return client.stream->frameIn(frame);
  }
  if (frame.type != typeOf(PC::FrameType::request)) {
    return drop(client, "frame type " + std::to_string(frame.type) +
                            " from a client, must be request (17) or of the attribute log");
  }
  handleRequest(client, PC::readRequest(frame.body));
}

void ControlServer::handleHello(Client& client, const PC::Hello& hello) {
  if (hello.role != PC::Role::client) return drop(client, "a hello of another role than client");
  client.greeted = true;
  client.deadline = Vex::kNever;
  PC::Hello mine;
  mine.version = std::min(hello.version, PC::kProtocolVersion);
  mine.role = PC::Role::agent;
  mine.capabilities =
      PC::kRequests | PC::kAttributeLog | (client.refusal.empty() ? PC::kYouMayWrite : 0);
  mine.text = options_.name;
  client.connection.frameOut(typeOf(PC::FrameType::hello), PC::helloBody(mine));
}

void ControlServer::handleRequest(Client& client, const PC::Request& request) {
  if (request.operation != PC::Operation::subscribe) {
    return answer(client, service_.answer(request, client.refusal));
  }
  PC::Answer made{request.id, PC::Status::done, false, {}};
  try {
    if (client.stream) Vex::throwRangeException("this connection has a subscription already");
    const int fd = client.connection.fd();
    client.stream = service_.newStream(request.texts, client.refusal, [this, fd] {
      const auto found = clients_.find(fd);
      if (found != clients_.end()) queue(*found->second);
    });
  } catch (const Vex::Exception& exception) {
    made.status = PC::Status::failed;
    made.texts.push_back(exception.text());
  }
  answer(client, made);
}

void ControlServer::answer(Client& client, const PC::Answer& answer) {
  if (PC::fits(answer)) {
    client.connection.frameOut(typeOf(PC::FrameType::answer), PC::answerBody(answer));
    return;
  }
  const PC::Answer tooLong{answer.id,
                           PC::Status::failed,
                           false,
                           {"the answer is longer than a frame of 64 KiB; ask for less at once"}};
  client.connection.frameOut(typeOf(PC::FrameType::answer), PC::answerBody(tooLong));
}

void ControlServer::write(Client& client) {
  const std::size_t waited = client.connection.waiting();
  if (client.stream && waited < kMostOut) {
    const PC::Bytes frames = client.stream->output();
    client.connection.bytesOut(frames);
    client.stream->outputDel(frames.size());
  }
  const std::size_t before = client.connection.waiting();
  // A full socket is not tried again for each change of an entity, only when it says that it has
  // room.
  if (client.writable && before != 0 && client.connection.write(kBytesPerClient)) {
    // What it said before it went may not all have been read. If it has not, nobody will.
    const bool all = client.connection.read(kBytesPerClient) == PC::FrameConnection::Input::closed;
    return all ? dropClosed(client) : drop(client, {});
  }
  const std::size_t after = client.connection.waiting();
  client.writable = client.writable && (after == 0 || before - after == kBytesPerClient);
  mostWaiting_ = std::max(mostWaiting_, after);
  if (client.greeted) updateDeadline(client, before);
  updateInterest(client);
  const bool more = client.connection.in().ready() && after < kMostOut && !client.parked;
  if (more || (client.writable && after != 0)) queue(client);
}

void ControlServer::updateDeadline(Client& client, std::size_t before) {
  const std::size_t waiting = client.connection.waiting();
  const bool heard = std::exchange(client.heard, false);
  // A whole frame waits for this side, and while something waits for the client the rest of one may
  // stand in its socket, unread.
  const PC::FrameReader& in = client.connection.in();
  const bool midway = waiting == 0 && in.waiting() != 0 && !in.ready();
  const bool wasMidway = std::exchange(client.midway, midway);
  if (waiting == 0 && !midway) {
    client.deadline = Vex::kNever;
  } else if (client.deadline == Vex::kNever || midway != wasMidway ||
             (midway ? heard : waiting != before)) {
    client.deadline = clock() + kStallTime;
  }
}

void ControlServer::updateInterest(Client& client) {
  const bool wantsRead =
      client.connection.waiting() < kMostOut && client.connection.in().room() > 0;
  const bool wantsWrite = client.connection.waiting() != 0;
  if (wantsRead == client.wantsRead && wantsWrite == client.wantsWrite) return;
  client.wantsRead = wantsRead;
  client.wantsWrite = wantsWrite;
  readiness_.interestIs(client.connection.fd(), wantsRead, wantsWrite);
}

void ControlServer::accept() {
  const double now = clock();
  if (now >= acceptsBegan_ + 1.0 || now < acceptsBegan_) {
    acceptsBegan_ = now;
    accepts_ = 0;
  }
  for (std::size_t i = 0; i < kAcceptsPerTurn; ++i) {
    // Whoever connects and closes in a loop costs the agent this much and no log line.
    if (accepts_ >= kAcceptsPerSecond) return withdrawListener(acceptsBegan_ + 1.0);
    Fd socket(accept4(listening_.fd(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (socket) {
      ++accepts_;
      admit(std::move(socket));
    } else if (errno == EAGAIN) {
      return;
    } else if (errno != EINTR && errno != ECONNABORTED) {
      return pauseAccept(errno);
    }
  }
}

void ControlServer::admit(Fd socket) {
  const auto who = rights_.peer(socket.get());
  if (!who) return refuse(std::move(socket), {}, "the system does not tell who it is");
  auto client = std::make_unique<Client>(std::move(socket), *who);
  if (!rights_.mayWrite(*who)) client->refusal = rights_.reason(*who);
  Admission now;
  now.clients = clients_.size();
  now.mayWrite = client->refusal.empty();
  now.root = who->uid == 0;
  for (const auto& [fd, other] : clients_) {
    if (other->refusal.empty()) continue;
    ++now.readers;
    if (other->who.uid == who->uid) ++now.ofUser;
  }
  const int fd = client->connection.fd();
  client->deadline = clock() + kHelloTime;
  std::string reason = admissionRefusal(now, options_.maxClients);
  if (reason.empty()) {
    const std::error_code error = readiness_.newInterest(fd, true, false);
    if (!error) {
      clients_.emplace(fd, std::move(client));
      return;
    }
    reason = error.message();
  }
  client->connection.frameOut(typeOf(PC::FrameType::farewell), PC::farewellBody(reason));
  static_cast<void>(client->connection.write(kBytesPerClient));
  logDrop(*who, reason);
}

void ControlServer::refuse(Fd socket, const Credentials& who, const std::string& reason) {
  socket.close();
  logDrop(who, reason);
}

void ControlServer::pauseAccept(int error) {
  withdrawListener(clock() + kAcceptPause);
  Vex::log(RINGWARD_CLIENTS_WAIT, std::strerror(error));
}

void ControlServer::withdrawListener(double until) {
  readiness_.interestDel(listening_.fd());
  acceptAgain_ = until;
}

double ControlServer::nextDue() {
  double due = std::min(acceptAgain_, readersAgain_);
  for (const auto& [fd, client] : clients_) due = std::min(due, client->deadline);
  return due;
}

void ControlServer::runDue(double now) {
  if (acceptAgain_ <= now) {
    acceptAgain_ = Vex::kNever;
    if (const std::error_code error = readiness_.newInterest(listening_.fd(), true, false)) {
      pauseAccept(error.value());
    }
  }
  if (readersAgain_ <= now) {
    readersAgain_ = Vex::kNever;
    for (const auto& [fd, client] : clients_) {
      if (std::exchange(client->parked, false)) queue(*client);
    }
  }
  std::vector<Client*> late;
  for (const auto& [fd, client] : clients_) {
    if (client->deadline <= now) late.push_back(client.get());
  }
  for (Client* const client : late) {
    if (!client->greeted) {
      drop(*client, "no hello within 10 seconds");
    } else if (client->midway) {
      drop(*client, "it has said nothing for 30 seconds in the middle of a message; " +
                        count(client->connection.in().waiting(), "bytes of it have come"));
    } else {
      drop(*client, "it has not read for 30 seconds; " +
                        count(client->connection.waiting(), "bytes wait for it"));
    }
  }
}

void ControlServer::drop(Client& client, const std::string& reason) {
  const int fd = client.connection.fd();
  const auto node = clients_.extract(fd);  // keeps it for the rest of this function
  readiness_.interestDel(fd);
  if (reason.empty()) return;
  // What waits goes first, as far as the socket takes it at once; else the reason stays untold.
  client.connection.frameOut(typeOf(PC::FrameType::farewell), PC::farewellBody(reason));
  static_cast<void>(client.connection.write(kMostOut));
  logDrop(client.who, reason);
}

void ControlServer::dropClosed(Client& client) {
  drop(client, client.connection.in().endsInside() ? "it went in the middle of a message" : "");
}

// The log's own limit is one for each text, and a client could bring forth any number of texts.
void ControlServer::logDrop(const Credentials& who, const std::string& reason) {
  const double now = clock();
  if (now - linesBegan_ >= 1.0 || now < linesBegan_) {
    linesBegan_ = now;
    lines_ = 0;
  }
  if (++lines_ > kMaxLinesPerSecond) return;
  const Vex::CurrentActivityManager current(manager_);
  Vex::log(RINGWARD_CLIENT_DROPPED, who.pid, who.uid, reason);
}

}  // namespace Agent
