// SPDX-License-Identifier: Apache-2.0
//
// Both ends of a kick socket against anything at all at the other end, over the real sockets. A
// writer has peers that say what they like beside a shadow that keeps to the protocol; another
// shadow has a writer's socket behind which sits the fuzzer, over files that are sound. The ends
// under test go on, their loop comes to rest, and whoever keeps to the protocol is served.
//
// The input: steps of either side, at most kSteps of them.
//
// Not shown: readers of several users, and peers that run while an end is at work.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <string>
#include <utility>

#include "fuzz/Input.h"
#include "fuzz/QuillTable.h"
#include "fuzz/TableRun.h"
#include "quill/KickMessage.h"
#include "quill/QuillShadow.h"
#include "quill/QuillWriter.h"
#include "runtime/sable/Exceptions.h"

namespace {

using Fuzz::Input;
using Fuzz::QuillTable;
using Fuzz::require;
using Fuzz::TableKey;
using Fuzz::tableKey;
using Fuzz::TableRecord;
using Fuzz::tableRecord;
using Writer = Quill::QuillWriter<TableKey, TableRecord>;

constexpr unsigned kSteps = 64;
constexpr std::size_t kPeers = 4;

// A socket of the fuzzer's, that never waits.
class Peer {
 public:
  Peer() = default;
  explicit Peer(int fd) noexcept : fd_(fd) {}
  Peer(Peer&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Peer& operator=(Peer&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~Peer() { hangUp(); }

  static Peer made() {
    return Peer(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  }
  static sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
  }
  static Peer connected(const std::string& path) {
    Peer peer = made();
    const sockaddr_un address = addressOf(path);
    if (connect(peer.fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
      peer.hangUp();
    }
    return peer;
  }
  static Peer listening(const std::string& path) {
    Peer peer = made();
    const sockaddr_un address = addressOf(path);
    require(bind(peer.fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0);
    require(listen(peer.fd_, 16) == 0);
    return peer;
  }
  Peer accepted() const { return Peer(accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC)); }

  bool open() const noexcept { return fd_ >= 0; }
  void hangUp() noexcept {
    if (fd_ >= 0) close(std::exchange(fd_, -1));
  }
  // False: the other end cannot take it now, or is gone.
  bool send(Fuzz::Bytes bytes) const {
    return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT) >= 0;
  }
  // A message of this size at most is taken away unread.
  bool drop() const {
    std::array<char, 64> buffer{};
    return recv(fd_, buffer.data(), buffer.size(), MSG_DONTWAIT) > 0;
  }

 private:
  int fd_ = -1;
};

// What a shadow asks of its handle.
class Handle {
 public:
  struct Notifier {
    void notify(const TableKey&) noexcept {}
  };
  Notifier* notifier() noexcept { return &notifier_; }
  void corruptionDetected(const std::string& message) {
    corruption = message;
    shadow->detach();
  }
  void handleDisconnect() noexcept { ++disconnects; }

  using Shadow = Quill::QuillShadow<TableKey, TableRecord, Handle>;

  std::unique_ptr<Shadow> shadow;
  std::string corruption;
  unsigned disconnects = 0;

 private:
  Notifier notifier_;
};

// A message that is near to one of the protocol, or any bytes.
void say(const Peer& peer, Input& input, std::uint64_t last) {
  const std::uint8_t kind = input.byte();
  if (kind >= 224) {
    static_cast<void>(peer.send(input.take(kind - 224U)));
    return;
  }
  Quill::KickMessage message;
  message.type = static_cast<Quill::KickType>(kind % 7);
  static constexpr std::array<std::uint64_t, 4> kFar = {0, ~std::uint64_t{0}, 1ULL << 32,
                                                        1ULL << 63};
  const std::uint8_t sequence = input.byte();
  message.sequence = sequence < 64    ? last - sequence % 8
                     : sequence < 128 ? last + sequence % 8
                     : sequence < 192 ? sequence - 128U
                                      : kFar[sequence % kFar.size()];
  Quill::KickBytes bytes = Quill::encodeKick(message);
  if (kind % 32 == 31) bytes[input.below(bytes.size())] = input.byte();
  const unsigned times = kind % 16 == 15 ? 1U + input.byte() : 1U;
  for (unsigned i = 0; i < times && peer.send(bytes); ++i) {
  }
}

// A writer, an honest reader and some that are not.
class WriterRun : private Fuzz::TableRun {
 public:
  WriterRun(const QuillTable& table, Input& input) : TableRun(table, input) {
    table.put(table.shapes()[1]);
    writer_ =
        std::make_unique<Writer>(handler_, table.path().c_str(), Fuzz::kTableSize, false, "Fuzz");
    writer_->initialize();
    honest_.shadow = std::make_unique<Handle::Shadow>(handler_, table.path().c_str(), &honest_, 0U);
    require(honest_.shadow->initialize());
    settle();
  }

  void steps() {
    for (unsigned i = 0; i < kSteps && !input_.empty(); ++i) step();
    settle();
    // Whatever the others said, this one has all there is, and was never let go.
    write(500, 500);
    settle();
    require(honest_.shadow->mountStatus() == 2 && honest_.corruption.empty());
    require(honest_.disconnects == 0);
    require(honest_.shadow->sequence() == writer_->sequence());
    bool found = false;
    const TableRecord record = honest_.shadow->lookup({500}, found);
    require(found && record == tableRecord(500, 500));
    require(writer_->validate());
    for (Peer& peer : peers_) peer.hangUp();
    settle();
    require(writer_->connectedReaders() == 1);
  }

 private:
  void step() {
    const std::uint8_t choice = input_.byte();
    Peer& peer = peers_[choice / 16 % kPeers];
    switch (choice % 16) {
      case 0:
      case 1:
        if (peer.open()) return peer.hangUp();
        peer = Peer::connected(table_.path() + "/kick");
        return;
      case 2: {  // as an honest reader begins
        if (!peer.open()) peer = Peer::connected(table_.path() + "/kick");
        static_cast<void>(peer.send(Quill::encodeKick({Quill::KickType::hello, 0})));
        static_cast<void>(peer.send(Quill::encodeKick({Quill::KickType::sequence, 0})));
        return;
      }
      case 3:
        static_cast<void>(peer.open() && peer.drop());
        return;
      case 4:
        for (unsigned i = 0, n = 1 + input_.byte() % 200U; i < n; ++i) write(tableKey(i % 30), i);
        return settle();
      case 5:
        return write(tableKey(static_cast<std::uint32_t>(input_.below(40))), 1);
      case 6:
      case 7:
      case 8:
        return settle();
      case 9: {
        static constexpr std::array<double, 4> kTimes = {0.1, 1.1, 10.5, 100.0};
        return loop_.runFor(kTimes[input_.below(4)]);
      }
      default:
        if (peer.open()) say(peer, input_, writer_->sequence());
    }
  }

  void write(std::uint32_t key, std::uint32_t number) {
    writer_->write(tableRecord(key, number), true);
  }

  std::unique_ptr<Writer> writer_;
  Handle honest_;
  std::array<Peer, kPeers> peers_;
};

// A shadow over a table whose writer says anything.
class ReaderRun : private Fuzz::TableRun {
 public:
  ReaderRun(const QuillTable& table, Input& input) : TableRun(table, input) {
    content_ = shapePut().content;
    if (input.flag()) listening_ = Peer::listening(table.path() + "/kick");
    handle_.shadow = std::make_unique<Handle::Shadow>(handler_, table.path().c_str(), &handle_,
                                                      input.flag() ? 1U : 0U);
  }

  void steps() {
    static_cast<void>(done([&] { static_cast<void>(handle_.shadow->initialize()); }));
    for (unsigned i = 0; i < kSteps && !input_.empty(); ++i) step();
    settle();
    // Nothing that a socket says makes a sound table look damaged or different.
    require(handle_.corruption.empty());
    if (handle_.shadow->mountStatus() == 0) return;
    handle_.shadow->notifying(true);
    loop_.runFor(10.0);
    for (const auto& [key, record] : content_) {
      bool found = false;
      const TableRecord seen = handle_.shadow->lookup({key}, found);
      require(found && seen == record);
    }
    require(handle_.shadow->members() == content_.size());
  }

 private:
  template <class Action>
  static bool done(const Action& action) {
    try {
      action();
      return true;
    } catch (const Sable::Exception&) {
      return false;
    }
  }

  void step() {
    const std::uint8_t choice = input_.byte();
    switch (choice % 12) {
      case 0:
        if (listening_.open()) {
          writer_ = listening_.accepted();
        } else {
          unlink((table_.path() + "/kick").c_str());
          listening_ = Peer::listening(table_.path() + "/kick");
        }
        return;
      case 1:
        writer_.hangUp();
        return;
      case 2:
        listening_.hangUp();
        return;
      case 3:
        static_cast<void>(writer_.open() && writer_.drop());
        return;
      case 4:
        static_cast<void>(done([&] { static_cast<void>(handle_.shadow->initialize()); }));
        return;
      case 5: {
        const bool on = input_.flag();
        static_cast<void>(done([&] { handle_.shadow->notifying(on); }));
        return;
      }
      case 6: {
        static constexpr std::array<double, 4> kTimes = {0.1, 1.1, 10.5, 100.0};
        return loop_.runFor(kTimes[input_.below(4)]);
      }
      case 7:
        return settle();
      case 8:
        if (writer_.open()) {
          static_cast<void>(writer_.send(Quill::encodeKick({Quill::KickType::ack, 0})));
        }
        return;
      default:
        if (writer_.open()) say(writer_, input_, handle_.shadow->sequence());
    }
  }

  Handle handle_;
  Fuzz::TableContent content_;
  Peer listening_;
  Peer writer_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const QuillTable table;
  Input input({data, size});
  if (input.flag()) {
    ReaderRun(table, input).steps();
  } else {
    WriterRun(table, input).steps();
  }
  return 0;
}
