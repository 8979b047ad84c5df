// SPDX-License-Identifier: Apache-2.0
#include "quill/WriterKickSm.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>

#include "quill/Exceptions.h"
#include "quill/KickReaders.h"
#include "quill/Text.h"
#include "quill/Util.h"

namespace Quill {

namespace {

constexpr const char* kSocket = "kick";
// Where the socket is made. It gets its name when it listens already, so that a reader that sees
// the name appear can connect. RootPath::cleanup() knows this form of a left-over.
constexpr const char* kNewSocket = ".kick.new";
// Everybody may read a table, and a connection needs the right to write.
constexpr mode_t kSocketMode = 0666;
// The system's own limit applies as well.
constexpr int kBacklog = 1'024;
// Each further attempt needs another writer that removes the table's directory meanwhile.
constexpr int kMaxAttempts = 100;

}  // namespace

// The wait of a writer for the readers of its former life.
class WriterKickSm::WaitingForReaders {
 public:
  explicit WaitingForReaders(WriterKickSm& owner)
      : timer_(Sable::Platform::getTimerControl(owner)) {
    timer_->arm(kReaderWait);
  }
  void stop() noexcept { timer_->cancel(); }

 private:
  std::unique_ptr<Sable::Platform::TimerControl> timer_;
};

WriterKickSm::WriterKickSm(Sable::Platform::DebugHandler& handler, const RootPath& root,
                           bool localMem)
    : kickHandler_(handler), kickRoot_(root), kickLocal_(localMem) {}

WriterKickSm::~WriterKickSm() { deleteKickSocket(); }

void WriterKickSm::createKickSocket() {
  if (kickLocal_) return;
  const std::string path = kickRoot_.rootPath();
  int lock = -1;
  for (int attempt = 0; lock < 0; ++attempt) {
    kickRoot_.makeDirectory();
    lock = Util::acquireWriterLock(kickHandler_, kickRoot_);
    if (lock >= 0) break;
    const int error = errno;
    if (error == EAGAIN) {
      raise<Sable::InvalidInitializeException>("WriterKickSm::createKickSocket() ", path,
                                               " is owned by ",
                                               Util::ownerText(kickHandler_, path));
    }
    if (error != ENOENT || attempt == kMaxAttempts) {
      raise<Sable::InvalidInitializeException>("WriterKickSm::createKickSocket() cannot lock ",
                                               path, ": ", std::strerror(error));
    }
  }
  lock_ = lock;
  try {
    if (const int error = Util::writeOwner(path); error != 0) {
      raise<Sable::InvalidInitializeException>("WriterKickSm::createKickSocket() cannot say in ",
                                               kickRoot_.filePath("last-owner"),
                                               " who owns the table: ", std::strerror(error));
    }
    makeSocket();
  } catch (...) {
    deleteKickSocket();
    throw;
  }
  kickHandler_.trace(6, [&](std::ostream& os) {
    os << "WriterKickSm::createKickSocket() " << kickRoot_.filePath(kSocket);
  });
}

void WriterKickSm::makeSocket() {
  const auto check = [this](bool done, const char* step) {
    if (done) return;
    const int error = errno;
    raise<Sable::InvalidInitializeException>("WriterKickSm::createKickSocket() cannot ", step, " ",
                                             kickRoot_.filePath(kSocket), ": ",
                                             std::strerror(error));
  };
  socketPath_ = kickRoot_.filePath(kSocket);  // to go without memory
  const KickDescriptor directory = openKickDirectory(kickRoot_.rootPath());
  check(directory.get() >= 0, "open the directory of");
  KickDescriptor listening = newKickSocket();
  check(listening.get() >= 0, "make");
  // Of a writer that died in here. Nobody else is at work: the lock is held.
  static_cast<void>(unlinkat(directory.get(), kNewSocket, 0));
  const sockaddr_un address = kickAddress(directory, kNewSocket);
  check(bind(listening.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0,
        "bind");
  struct stat status {};
  const bool named = fchmodat(directory.get(), kNewSocket, kSocketMode, 0) == 0 &&
                     listen(listening.get(), kBacklog) == 0 &&
                     fstatat(directory.get(), kNewSocket, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
                     renameat(directory.get(), kNewSocket, directory.get(), kSocket) == 0;
  if (!named) {
    const int error = errno;
    static_cast<void>(unlinkat(directory.get(), kNewSocket, 0));
    errno = error;
  }
  check(named, "put into place");
  socketDevice_ = status.st_dev;
  socketInode_ = status.st_ino;
  listening_ = std::move(listening);
}

void WriterKickSm::doEnableListen() {
  if (kickLocal_ || readers_ != nullptr) return;
  if (Vex::currentActivityManager() == nullptr || listening_.get() < 0) {
    raise<Sable::InvalidInitializeException>(
        "WriterKickSm::doEnableListen() ", kickRoot_.rootPath(), ": ",
        listening_.get() < 0 ? "there is no socket" : "there is no activity loop on this thread");
  }
  try {
    readers_ = std::make_unique<Readers>(*this);
  } catch (const Vex::Exception& exception) {
    raise<Sable::InvalidInitializeException>("WriterKickSm::doEnableListen() ",
                                             kickRoot_.rootPath(), ": ", exception.text());
  }
  if (numReaders() == 0) return;
  waiting_ = std::make_unique<WaitingForReaders>(*this);
  kickHandler_.trace(6, [&](std::ostream& os) {
    os << "WriterKickSm::doEnableListen() waiting for " << numReaders() << " readers";
  });
}

void WriterKickSm::deleteKickSocket() noexcept {
  stopWaitingForReaders();
  if (listening_.get() >= 0) {
    // The name first: a reader whose connection ends here must not find the way back to a writer
    // that is going. Only this writer's own: where the directory was taken away and made anew by
    // hand, another writer may be at home in it.
    struct stat status {};
    if (lstat(socketPath_.c_str(), &status) == 0 && status.st_dev == socketDevice_ &&
        status.st_ino == socketInode_) {
      static_cast<void>(unlink(socketPath_.c_str()));  // one that stays is replaced by the next
    }
  }
  readers_.reset();
  connected_ = 0;
  sleepers_ = 0;
  listening_.reset();
  if (lock_ >= 0) Util::releaseWriterLock(kickHandler_, lock_);
  lock_ = -1;
}

bool WriterKickSm::validateSocket() const {
  if (kickLocal_) return true;
  const std::string path = kickRoot_.filePath(kSocket);
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0) {
    const int error = errno;
    raise<CorruptionDetectedException>("WriterKickSm::validateSocket(): ", path, ": ",
                                       std::strerror(error));
  }
  if (listening_.get() < 0 || status.st_dev != socketDevice_ || status.st_ino != socketInode_) {
    raise<CorruptionDetectedException>("WriterKickSm::validateSocket(): ", path,
                                       " is not this writer's socket");
  }
  return true;
}

void WriterKickSm::kickSleepers() { readers_->kickSleepers(); }

std::uint64_t WriterKickSm::lowestSequence() const noexcept {
  return readers_ ? readers_->lowestSequence() : std::numeric_limits<std::uint64_t>::max();
}

void WriterKickSm::stopWaitingForReaders() noexcept {
  if (waiting_ == nullptr) return;
  waiting_->stop();
  waiting_.reset();
}

void WriterKickSm::handleReaderConnection(int fd) {
  if (readers_) readers_->handleReadable(fd);
}

void WriterKickSm::handleReaderConnectionTimeout() {
  if (!waitingForReaders()) return;
  kickHandler_.trace(6, [&](std::ostream& os) {
    os << "WriterKickSm::handleReaderConnectionTimeout() " << connected_ << " of " << numReaders()
       << " readers are back";
  });
  stopWaitingForReaders();
  updateNumReaders();
}

}  // namespace Quill
