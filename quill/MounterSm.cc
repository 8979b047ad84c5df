// SPDX-License-Identifier: Apache-2.0
#include "quill/MounterSm.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <bitset>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "quill/KickSocket.h"
#include "quill/RootPath.h"
#include "runtime/vex/ActivityManager.h"
#include "runtime/vex/Exception.h"
#include "runtime/vex/LogService.h"

namespace Quill {

namespace {

const Vex::LogHandle QUILL_MOUNT_FAILED(
    "QUILL_MOUNT_FAILED", Vex::LogSeverity::error, "Table %s: after a change of \"%s\": %s",
    "The table stays as it was for this program until its directory changes again or the next "
    "regular attempt.",
    "If this repeats, restart the writer of the table.", 0.0, 1.0, 0);

const Vex::LogHandle QUILL_WATCH_FAILED(
    "QUILL_WATCH_FAILED", Vex::LogSeverity::error,
    "Table %s: its directory cannot be watched at present: %s",
    "The attempt is made again every 10 seconds. Changes of the table are seen late meanwhile.",
    "Raise the limits fs.inotify.max_user_watches and fs.inotify.max_user_instances.", 0.0, 1.0, 0);

// The files whose changes are told. Others, as the lock and files on their way to their name, mean
// nothing to anybody.
constexpr std::array<std::string_view, 8> kNames = {
    "buckets", "slots",      "conquer.1",           "conquer.2",
    "fenix",   "last-owner", "corruption-detected", "kick"};

// Of a directory: what comes into being in it, goes, moves, is written or changes its rights.
constexpr std::uint32_t kTableMask = IN_ONLYDIR | IN_CREATE | IN_MOVED_TO | IN_CLOSE_WRITE |
                                     IN_DELETE | IN_MOVED_FROM | IN_ATTRIB | IN_DELETE_SELF |
                                     IN_MOVE_SELF;
// Of the directory above, for the one name in it that is on the way to the table. It is watched
// also while the table is there: a removed directory tells nothing of itself as long as a file of
// it is mapped. Rights count: a directory that may not be read cannot be watched.
constexpr std::uint32_t kAboveMask = IN_ONLYDIR | IN_CREATE | IN_MOVED_TO | IN_DELETE |
                                     IN_MOVED_FROM | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF;

// Room for some hundred events of these names; the rest is read in the next turn.
constexpr std::size_t kBufferSize = 16'384;
// Each further look needs another change meanwhile.
constexpr unsigned kMaxLooks = 32;
constexpr double kRetryTime = 10.0;

// The path without its last component; "/" is its own.
std::string_view above(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  return slash == 0 || slash == std::string_view::npos ? "/" : path.substr(0, slash);
}

}  // namespace

class MounterSm::Watcher final : private Vex::ReadableHandler,
                                 private Sable::Platform::TimeoutHandler {
 public:
  Watcher(Sable::Platform::DebugHandler& handler, const std::string& fullName,
          MounterBase& mounter);
  Watcher(const Watcher&) = delete;
  Watcher& operator=(const Watcher&) = delete;
  ~Watcher();

  bool ready() const noexcept { return aboveWatch_ >= 0; }

 private:
  using Changes = std::bitset<kNames.size()>;

  void onReadable() override;
  // Events cannot be read: for a while nobody asks, lest the loop turns for nothing.
  void deafIs(int error);
  // Another attempt to set the watches.
  void timeout() override;

  // Sets the watches as the directories stand now; on failure says so and tries again in time.
  // True: the table's directory is another one than before, or came, or went.
  bool look();
  // Watches the deepest directory above the table's that can be; false with the reason in errno.
  bool watchAbove(std::string_view& path);
  // A watch, or -1. `fatal`: no other directory could be watched either.
  int watch(std::string_view path, std::uint32_t mask, bool& fatal);
  void forget(int watch) noexcept;

  // What a turn's events come to.
  struct News {
    Changes changes;
    bool directories = false;  // something happened to a directory: look anew
    bool lost = false;         // the kernel had no room for all events
    int error = 0;             // nothing can be read
  };
  News read();
  void take(const inotify_event& event, std::string_view name, News& news) const;
  void tell(bool directory, const Changes& changes);
  // False: this object is gone.
  bool notify(std::string_view name);

  Sable::Platform::DebugHandler& handler_;
  const std::string path_;
  MounterBase& mounter_;
  Vex::ActivityManager* const manager_;
  KickDescriptor inotify_;
  std::unique_ptr<Sable::Platform::TimerControl> timer_;
  int tableWatch_ = -1;
  int aboveWatch_ = -1;
  bool deaf_ = false;
  std::string awaited_;  // the name in the directory above that leads to the table
  // Expires with this object.
  std::shared_ptr<const char> life_ = std::make_shared<const char>();
};

MounterSm::Watcher::Watcher(Sable::Platform::DebugHandler& handler, const std::string& fullName,
                            MounterBase& mounter)
    : handler_(handler),
      path_(RootPath(handler, fullName, true).rootPath()),
      mounter_(mounter),
      manager_(Vex::currentActivityManager()) {
  if (manager_ == nullptr) return;
  inotify_ = KickDescriptor(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  if (inotify_.get() < 0) {
    const int error = errno;
    handler_.trace(6, [&](std::ostream& os) {
      os << "MounterSm: " << path_ << " cannot be watched: " << std::strerror(error);
    });
    return;
  }
  timer_ = Sable::Platform::getTimerControl(*this);
  static_cast<void>(look());
  if (!ready()) {
    timer_->cancel();
    return;
  }
  try {
    manager_->readableIs(inotify_.get(), *this);
  } catch (const Vex::Exception&) {
    aboveWatch_ = -1;
    timer_->cancel();
  }
}

MounterSm::Watcher::~Watcher() {
  if (inotify_.get() >= 0) manager_->readableDel(inotify_.get());
}

int MounterSm::Watcher::watch(std::string_view path, std::uint32_t mask, bool& fatal) {
  const int result = inotify_add_watch(inotify_.get(), std::string(path).c_str(), mask);
  // Anything else is the matter of this path, and the one above it will do.
  fatal = result < 0 && (errno == ENOSPC || errno == ENOMEM || errno == EBADF);
  return result;
}

void MounterSm::Watcher::forget(int watch) noexcept {
  // Fails where the kernel has forgotten it already.
  if (watch >= 0) static_cast<void>(inotify_rm_watch(inotify_.get(), watch));
}

bool MounterSm::Watcher::watchAbove(std::string_view& path) {
  std::string_view below = path_;
  bool fatal = false;
  for (path = above(below); true; path = above(below)) {
    if (const int found = watch(path, kAboveMask, fatal); found >= 0) {
      if (found != aboveWatch_) forget(aboveWatch_);
      aboveWatch_ = found;
      awaited_ = below.substr(below.rfind('/') + 1);
      return true;
    }
    if (fatal || path == "/") return false;
    below = path;
  }
}

bool MounterSm::Watcher::look() {
  const int before = tableWatch_;
  int error = EAGAIN;  // too much going on
  std::string_view last;
  for (unsigned i = 0; i < kMaxLooks; ++i) {
    std::string_view path;
    bool fatal = !watchAbove(path);
    const int table = fatal ? -1 : watch(path_, kTableMask, fatal);
    if (fatal) {
      error = errno;
      break;
    }
    if (table != tableWatch_) {
      forget(tableWatch_);
      tableWatch_ = table;
    }
    // The watch of the first look stood before the second one began. So what this one did not see
    // will be told.
    if (path == last) return tableWatch_ != before;
    last = path;
  }
  forget(aboveWatch_);
  aboveWatch_ = -1;
  timer_->arm(kRetryTime);
  const Vex::CurrentActivityManager current(*manager_);
  Vex::log(QUILL_WATCH_FAILED, path_, std::strerror(error));
  return tableWatch_ != before;
}

MounterSm::Watcher::News MounterSm::Watcher::read() {
  alignas(inotify_event) std::array<char, kBufferSize> buffer{};
  const ssize_t size = ::read(inotify_.get(), buffer.data(), buffer.size());
  News news;
  if (size < 0 && errno != EAGAIN && errno != EINTR) news.error = errno;
  for (std::size_t at = 0; size > 0 && at < static_cast<std::size_t>(size);) {
    inotify_event event{};
    std::memcpy(&event, buffer.data() + at, sizeof event);
    at += sizeof event;
    // The name is filled up with zeros.
    take(event, {buffer.data() + at, strnlen(buffer.data() + at, event.len)}, news);
    at += event.len;
  }
  return news;
}

void MounterSm::Watcher::take(const inotify_event& event, std::string_view name, News& news) const {
  if ((event.mask & IN_Q_OVERFLOW) != 0) {
    news.lost = true;
    return;
  }
  const bool self = (event.mask & (IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT)) != 0;
  if (event.wd == aboveWatch_) {
    if (self || name == awaited_) news.directories = true;
    return;
  }
  if (event.wd != tableWatch_) return;  // of a watch that was given up
  if (self) news.directories = true;
  for (std::size_t i = 0; i < kNames.size(); ++i) {
    if (name == kNames[i]) news.changes.set(i);
  }
}

void MounterSm::Watcher::onReadable() {
  const News news = read();
  if (news.error != 0) return deafIs(news.error);
  const bool moved = (news.directories || news.lost) && look();
  tell(moved || news.lost, news.changes);
}

void MounterSm::Watcher::deafIs(int error) {
  timer_->arm(kRetryTime);  // first: without memory for it the next turn comes here again
  manager_->readableDel(inotify_.get());
  deaf_ = true;
  const Vex::CurrentActivityManager current(*manager_);
  Vex::log(QUILL_WATCH_FAILED, path_, std::strerror(error));
}

void MounterSm::Watcher::timeout() {
  if (deaf_) {
    timer_->arm(kRetryTime);  // should it fail
    manager_->readableIs(inotify_.get(), *this);
    timer_->cancel();
    deaf_ = false;
  }
  static_cast<void>(look());
  tell(true, {});  // whatever happened while nobody watched
}

void MounterSm::Watcher::tell(bool directory, const Changes& changes) {
  if (directory && !notify("directory")) return;
  for (std::size_t i = 0; i < kNames.size(); ++i) {
    if (changes.test(i) && !notify(kNames[i])) return;
  }
}

bool MounterSm::Watcher::notify(std::string_view name) {
  const std::weak_ptr<const char> life = life_;
  const std::string path = path_;
  try {
    mounter_.notify(std::string(name));
  } catch (const Vex::Exception& exception) {
    Vex::log(QUILL_MOUNT_FAILED, path, name, exception.text());
  }
  return !life.expired();
}

MounterSm::MounterSm(Sable::Platform::DebugHandler& handler, const std::string& fullName,
                     MounterBase& mounter)
    : watcher_(std::make_unique<Watcher>(handler, fullName, mounter)) {}

MounterSm::~MounterSm() = default;

bool MounterSm::ready() const noexcept { return watcher_->ready(); }

}  // namespace Quill
