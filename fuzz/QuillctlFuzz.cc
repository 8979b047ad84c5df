// SPDX-License-Identifier: Apache-2.0
//
// quillctl's command line over tables that are sound or not: it ends, with a status of 0 to 4.
//
// The input: the shape of the table "t", a few edits of its files, a command and its words, of
// which each is one that means something or any bytes, and last what a batch reads.
//
// Not shown: paths that lead out of the root of the tables. No word has a '/' in it, since a run of
// the fuzzer is no reason to write into other directories.
#include <signal.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <sstream>
#include <string>
#include <vector>

#include "cli/quillctl/Run.h"
#include "fuzz/Input.h"
#include "fuzz/QuillTable.h"

namespace {

double clockTime = 1'000.0;

}  // namespace

// Each look at the clock and each wait moves it on; NOLINTBEGIN: the names are the linker's
extern "C" int __wrap_clock_gettime(clockid_t, timespec* time);
extern "C" int __wrap_clock_gettime(clockid_t, timespec* time) {
  clockTime += 0.001;
  time->tv_sec = static_cast<time_t>(clockTime);
  time->tv_nsec = static_cast<long>((clockTime - static_cast<double>(time->tv_sec)) * 1e9);
  return 0;
}
extern "C" int __real_epoll_wait(int fd, epoll_event* events, int count, int timeout);
extern "C" int __wrap_epoll_wait(int fd, epoll_event* events, int count, int timeout);
extern "C" int __wrap_epoll_wait(int fd, epoll_event* events, int count, int timeout) {
  clockTime += timeout < 0 ? 100.0 : timeout / 1e3;
  return __real_epoll_wait(fd, events, count, 0);
}
// NOLINTEND

namespace {

using Fuzz::Input;

constexpr std::size_t kMaxWords = 12;
// What fill and create may be asked for: more only takes longer.
constexpr std::size_t kMaxDigits = 4;

std::string anyText(Input& input) {
  const Fuzz::Bytes bytes = input.take(input.byte() % 40U);
  std::string text(bytes.begin(), bytes.end());
  std::replace(text.begin(), text.end(), '/', '_');
  // The command line's own bytes are given back in its errors as they came.
  std::replace_if(
      text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20; }, '_');
  return text;
}

std::string word(Input& input) {
  static constexpr std::array<const char*, 40> kWords = {"list",
                                                         "get",
                                                         "dump",
                                                         "counters",
                                                         "stat",
                                                         "verify",
                                                         "create",
                                                         "put",
                                                         "del",
                                                         "fill",
                                                         "batch",
                                                         "clear",
                                                         "remove",
                                                         "watch",
                                                         "t",
                                                         "u",
                                                         "--json",
                                                         "--force",
                                                         "--type",
                                                         "--size",
                                                         "counterIntf",
                                                         "counterVlan",
                                                         "--seed",
                                                         "0",
                                                         "1",
                                                         "7",
                                                         "100",
                                                         "4095",
                                                         "-1",
                                                         "1.5",
                                                         "eth0",
                                                         "eth3",
                                                         "Vlan100",
                                                         "intf#0000000000000001",
                                                         "",
                                                         "--",
                                                         "-h",
                                                         "--help",
                                                         "--root",
                                                         "4294967295"};
  const std::uint8_t choice = input.byte();
  return choice < 240 ? kWords[choice % kWords.size()] : anyText(input);
}

bool isLargeNumber(const std::string& text) {
  return std::count_if(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; }) >
         static_cast<std::ptrdiff_t>(kMaxDigits);
}

std::vector<std::string> wordsOf(Input& input, const std::string& root) {
  std::vector<std::string> words = {"quillctl", "--root", root};
  const std::size_t count = 1 + input.below(kMaxWords);
  for (std::size_t i = 0; i < count; ++i) words.push_back(word(input));
  const auto has = [&words](const char* text) {
    return std::find(words.begin(), words.end(), text) != words.end();
  };
  if (has("fill") || has("create")) {
    std::erase_if(words, [&root](const auto& text) { return text != root && isLargeNumber(text); });
  }
  return words;
}

// Signals that end a command reach it through a descriptor; here one is always on its way, for
// those that would not end otherwise.
class EndingSignal {
 public:
  EndingSignal() {
    sigemptyset(&set_);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&set_, signal);
    sigprocmask(SIG_BLOCK, &set_, &before_);
  }
  EndingSignal(const EndingSignal&) = delete;
  EndingSignal& operator=(const EndingSignal&) = delete;
  ~EndingSignal() {
    const timespec now{};
    while (sent_ && sigtimedwait(&set_, nullptr, &now) > 0) {
    }
    sigprocmask(SIG_SETMASK, &before_, nullptr);
  }
  void send() {
    sent_ = true;
    raise(SIGTERM);
  }

 private:
  sigset_t set_{};
  sigset_t before_{};
  bool sent_ = false;
};

// Beside the shapes of records that quillctl does not know, two of those that it does.
class KnownTables : public Fuzz::QuillTable {
 public:
  KnownTables() {
    for (const char* const type : {"counterIntf", "counterVlan"}) {
      made({"quillctl", "--root", root().c_str(), "create", "t", "--type", type, "--size", "50"});
      made({"quillctl", "--root", root().c_str(), "fill", "t", "30"});
      shapeAdd();
    }
  }

 private:
  static void made(const std::vector<const char*>& arguments) {
    std::ostringstream out;
    Fuzz::require(
        Quillctl::run(static_cast<int>(arguments.size()), arguments.data(), -1, out, out) == 0);
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const KnownTables table;
  Input input({data, size});
  table.put(input.oneOf(table.shapes()));
  for (std::size_t edits = input.below(4); edits > 0; --edits) table.edit(input);
  const std::vector<std::string> words = wordsOf(input, table.root());
  std::vector<const char*> arguments;
  for (const std::string& text : words) arguments.push_back(text.c_str());

  const Fuzz::Bytes batch = input.takeAll();
  const int in = memfd_create("batch", MFD_CLOEXEC);
  Fuzz::require(write(in, batch.data(), batch.size()) == static_cast<ssize_t>(batch.size()));
  lseek(in, 0, SEEK_SET);
  EndingSignal signal;
  if (std::find(words.begin(), words.end(), "watch") != words.end()) signal.send();
  std::ostringstream out;
  std::ostringstream err;
  const int status =
      Quillctl::run(static_cast<int>(arguments.size()), arguments.data(), in, out, err);
  close(in);
  Fuzz::require(status >= 0 && status <= 4);
  // Who fails says why, and a text is printable whatever the files hold.
  Fuzz::require(status == 0 || status == 4 || !err.str().empty());
  for (const char c : err.str()) Fuzz::require(c == '\n' || static_cast<unsigned char>(c) >= 0x20);
  return 0;
}
