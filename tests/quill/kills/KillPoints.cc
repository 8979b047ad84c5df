// SPDX-License-Identifier: Apache-2.0
//
// The proof of docs/kill-points.md: a writer may die after any of its stores. Takes from the
// environment:
//
//   QUILL_SEED      the first scenario; at random if not given
//   KILL_SECONDS    how long (10)
//   KILL_SCENARIOS  how many at most (0: no limit); 1 brings about again what a failure printed
//   KILL_LIST       so many scenarios are recorded and listed, and nothing is checked
//   JOBS            how many processes (as many as processors)
//
// Exit status: 0, nothing failed.
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <random>
#include <string>
#include <vector>

#include "tests/quill/TestTable.h"
#include "tests/quill/kills/KillTrace.h"
#include "tests/quill/kills/KillWorker.h"

namespace QuillTest {

namespace {

// So long a run looks at every image of a recovery too.
constexpr unsigned kLongRun = 120;
// One image of so many goes to the independent checker.
constexpr unsigned kCheckEach = 25;

unsigned numberFrom(const char* variable, unsigned otherwise) {
  const char* const text = std::getenv(variable);
  return text == nullptr || *text == '\0' ? otherwise
                                          : static_cast<unsigned>(std::strtoul(text, nullptr, 10));
}

double now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

struct Settings {
  unsigned seed = 0;
  unsigned seconds = 0;
  unsigned scenarios = 0;
  unsigned jobs = 1;
};

void add(KillCounts& to, const KillCounts& more) {
  to.images += more.images;
  to.kept += more.kept;
  to.givenUp += more.givenUp;
  to.unannounced += more.unannounced;
  to.checked += more.checked;
}

// The share of process `number`; what it found goes to a file.
int work(const Settings& settings, unsigned number, const std::string& root) {
  KillWorker worker(root, settings.seconds >= kLongRun, kCheckEach);
  const double until = now() + settings.seconds;
  int status = 0;
  try {
    for (unsigned i = number; now() < until; i += settings.jobs) {
      if (settings.scenarios != 0 && i >= settings.scenarios) break;
      worker.run(settings.seed + i, until);
    }
  } catch (const std::exception& exception) {
    std::fprintf(stderr, "FAILED: %s\n", exception.what());
    status = 1;
  }
  std::ofstream out(root + "/counts");
  out << worker.steps() << ' ' << worker.counts().size() << '\n';
  for (const auto& [name, c] : worker.counts()) {
    out << c.images << ' ' << c.kept << ' ' << c.givenUp << ' ' << c.unannounced << ' ' << c.checked
        << ' ' << name << '\n';
  }
  for (const std::uint64_t hash : worker.distinct()) out << hash << '\n';
  return out.flush() ? status : 1;
}

class Summary {
 public:
  void read(const std::string& file) {
    std::ifstream in(file);
    std::uint64_t steps = 0;
    std::size_t count = 0;
    in >> steps >> count;
    steps_ += steps;
    for (std::size_t i = 0; i < count; ++i) {
      KillCounts c;
      std::string name;
      in >> c.images >> c.kept >> c.givenUp >> c.unannounced >> c.checked >> std::ws;
      std::getline(in, name);
      add(byName_[name], c);
      add(all_, c);
    }
    for (std::uint64_t hash = 0; in >> hash;) distinct_.push_back(hash);
  }
  void print(double seconds, unsigned seed) {
    std::sort(distinct_.begin(), distinct_.end());
    distinct_.erase(std::unique(distinct_.begin(), distinct_.end()), distinct_.end());
    std::printf("%-24s %9s %9s %9s %11s %8s\n", "operation", "images", "kept", "given up",
                "unannounced", "checker");
    for (const auto& [name, c] : byName_) line(name.c_str(), c);
    line("all", all_);
    std::printf("%llu %s looked at, %.0f images a second\n",
                static_cast<unsigned long long>(steps_), killRecorderCounts(),
                static_cast<double>(all_.images) / seconds);
    std::printf("images %llu distinct %llu seed %u\n", static_cast<unsigned long long>(all_.images),
                static_cast<unsigned long long>(distinct_.size()), seed);
  }
  bool any() const { return all_.images > 0; }

 private:
  static void line(const char* name, const KillCounts& c) {
    const auto number = [](std::uint64_t n) { return static_cast<unsigned long long>(n); };
    std::printf("%-24s %9llu %9llu %9llu %11llu %8llu\n", name, number(c.images), number(c.kept),
                number(c.givenUp), number(c.unannounced), number(c.checked));
  }
  std::map<std::string, KillCounts> byName_;
  KillCounts all_;
  std::vector<std::uint64_t> distinct_;
  std::uint64_t steps_ = 0;
};

int run(const Settings& settings, const TemporaryRoot& root) {
  std::vector<pid_t> children;
  const double begin = now();
  for (unsigned i = 0; i < settings.jobs; ++i) {
    const std::string own = root.path() + "/" + std::to_string(i);
    std::filesystem::create_directory(own);
    const pid_t child = fork();
    if (child == 0) _exit(work(settings, i, own));
    if (child < 0) return 1;
    children.push_back(child);
  }
  int result = 0;
  Summary summary;
  for (unsigned i = 0; i < settings.jobs; ++i) {
    int status = 0;
    waitpid(children[i], &status, 0);
    if (!WIFEXITED(status)) {
      std::fprintf(stderr, "FAILED: a process ended by signal %d (14: a hang), seed %u\n",
                   WTERMSIG(status), settings.seed);
    }
    if (status != 0) result = 1;
    summary.read(root.path() + "/" + std::to_string(i) + "/counts");
  }
  summary.print(now() - begin, settings.seed);
  return summary.any() ? result : 1;
}

}  // namespace

}  // namespace QuillTest

int main() {
  using namespace QuillTest;
  const TemporaryRoot root;
  Settings settings;
  settings.seed = numberFrom("QUILL_SEED", std::random_device()() % 1'000'000'000U);
  settings.seconds = numberFrom("KILL_SECONDS", 10);
  settings.scenarios = numberFrom("KILL_SCENARIOS", 0);
  settings.jobs =
      std::clamp(numberFrom("JOBS", static_cast<unsigned>(sysconf(_SC_NPROCESSORS_ONLN))), 1U, 64U);
  if (settings.scenarios != 0) settings.jobs = std::min(settings.jobs, settings.scenarios);
  try {
    if (const unsigned count = numberFrom("KILL_LIST", 0); count != 0) {
      KillWorker worker(root.path(), true, 0);
      for (unsigned i = 0; i < count; ++i) worker.list(settings.seed + i);
      return 0;
    }
    return run(settings, root);
  } catch (const std::exception& exception) {
    std::fprintf(stderr, "FAILED: %s\n", exception.what());
    return 1;
  }
}
