// SPDX-License-Identifier: Apache-2.0
//
// Every verb of quillctl while a call of the system, or an allocation, fails: it ends, with a
// status and a reason, leaks nothing, and leaves the table as it was before, after, or, where a
// verb makes several changes, between two of them. The faults are those of Sample.h.
#include <dirent.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <streambuf>

#include "cli/quillctl/Arguments.h"
#include "cli/quillctl/Run.h"
#include "tests/quill/TestTable.h"
#include "tests/quill/faults/Calls.h"
#include "tests/quill/faults/Sample.h"

namespace QuillTest {

namespace {

using Faults::Fault;
using Faults::Kind;

// A stream's room that needs no allocation; what does not fit is lost.
class FixedBuffer final : public std::streambuf {
 public:
  FixedBuffer() { setp(bytes_.data(), bytes_.data() + bytes_.size()); }
  std::string text() const { return {pbase(), pptr()}; }

 private:
  std::array<char, 65'536> bytes_{};
};

struct Verb {
  const char* name;
  std::vector<const char*> words;
  const char* input;
  bool changes;
};

std::ostream& operator<<(std::ostream& out, const Verb& verb) { return out << verb.name; }

const std::vector<Verb>& verbs() {
  static const std::vector<Verb> kAll = {
      {"List", {"list"}, "", false},
      {"Create", {"create", "new", "--type", "counterVlan", "--size", "50"}, "", true},
      {"CreateOfOneThatIs", {"create", "t", "--type", "counterVlan", "--size", "50"}, "", false},
      {"Put", {"put", "t", "7", "1", "2", "3"}, "", true},
      {"PutOfANewKey", {"put", "t", "3000", "1", "2", "3"}, "", true},
      {"Get", {"get", "t", "7"}, "", false},
      {"GetOfNoKey", {"get", "t", "999"}, "", false},
      {"Del", {"del", "t", "7"}, "", true},
      {"Fill", {"fill", "t", "20", "--seed", "5"}, "", true},
      {"Batch", {"batch", "t"}, "put 1 5 5 5\ndel 2\nput 900 1 1 1\n", true},
      {"Clear", {"clear", "t"}, "", true},
      {"Dump", {"dump", "t"}, "", false},
      {"DumpJson", {"--json", "dump", "t"}, "", false},
      {"Stat", {"stat", "t"}, "", false},
      {"Verify", {"verify", "t"}, "", false},
      {"Counters", {"counters", "t"}, "", false},
      {"Watch", {"watch", "t"}, "", false},
      {"Remove", {"remove", "t"}, "", true},
  };
  return kAll;
}

struct Outcome {
  int status = -1;
  std::string out;
  std::string err;
};

// As main() of quillctl does it.
Outcome outcomeOf(const std::string& root, const std::vector<const char*>& words, int input) {
  std::vector<const char*> arguments;
  {
    const Faults::Pause pause;
    arguments = {"quillctl", "--root", root.c_str()};
    arguments.insert(arguments.end(), words.begin(), words.end());
  }
  FixedBuffer outBuffer;
  FixedBuffer errBuffer;
  std::ostream out(&outBuffer);
  std::ostream err(&errBuffer);
  Outcome outcome;
  try {
    outcome.status =
        Quillctl::run(static_cast<int>(arguments.size()), arguments.data(), input, out, err);
  } catch (const std::exception& exception) {
    const Faults::Pause pause;
    outcome.status = 2;
    outcome.err = std::string("quillctl: ") + exception.what() + "\n";
  }
  const Faults::Pause pause;
  outcome.out += outBuffer.text();
  outcome.err += errBuffer.text();
  return outcome;
}

// A signal that ends a watch is on its way, and goes with this. Without `wanted` there is none.
class PendingSignal {
 public:
  explicit PendingSignal(bool wanted) {
    sigemptyset(&set_);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&set_, signal);
    sigprocmask(SIG_BLOCK, &set_, &before_);
    if (wanted) raise(SIGTERM);
  }
  PendingSignal(const PendingSignal&) = delete;
  PendingSignal& operator=(const PendingSignal&) = delete;
  ~PendingSignal() {
    const timespec now{};
    while (sigtimedwait(&set_, nullptr, &now) > 0) {
    }
    sigprocmask(SIG_SETMASK, &before_, nullptr);
  }

 private:
  sigset_t set_{};
  sigset_t before_{};
};

class QuillctlFaults : public testing::TestWithParam<Verb> {
 protected:
  QuillctlFaults() {
    Faults::watchingIs(false);
    const std::string root = templates_.path();
    EXPECT_EQ(plain(root, {"create", "t", "--type", "counterVlan", "--size", "50"}).err, "");
    EXPECT_EQ(plain(root, {"fill", "t", "40"}).err, "");
    EXPECT_EQ(plain(root, {"create", "u", "--type", "counterIntf", "--size", "10"}).err, "");
  }
  ~QuillctlFaults() override { Faults::othersToo(false); }

  static Outcome plain(const std::string& root, const std::vector<const char*>& words) {
    const Faults::Pause pause;
    const Faults::Time nobodyWaits(1'000.0, 0.001);
    return outcomeOf(root, words, -1);
  }
  // The lines of a dump: a table's entries.
  static std::vector<std::string> entries(const std::string& root, const char* table) {
    std::istringstream text(plain(root, {"dump", table}).out);
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);) lines.push_back(line);
    std::sort(lines.begin(), lines.end());
    return lines;
  }
  static unsigned descriptors() {
    unsigned count = 0;
    const std::unique_ptr<DIR, int (*)(DIR*)> directory{opendir("/proc/self/fd"), &closedir};
    while (readdir(directory.get()) != nullptr) ++count;
    return count;
  }
  static unsigned mappings() {
    std::ifstream maps("/proc/self/maps");
    unsigned count = 0;
    for (std::string line; std::getline(maps, line);) {
      if (line.find("quill") != std::string::npos && line.find("-test-") != std::string::npos) {
        ++count;
      }
    }
    return count;
  }

  unsigned allocationsOfParsing() const {
    std::vector<const char*> arguments = {"quillctl", "--root", templates_.path().c_str()};
    arguments.insert(arguments.end(), GetParam().words.begin(), GetParam().words.end());
    const Faults::Plan plan({Kind::allocation, 0, 0, false});
    static_cast<void>(
        Quillctl::parseArguments(static_cast<int>(arguments.size()), arguments.data()));
    return plan.count();
  }

  // A copy of the tables, for one run.
  struct Run {
    explicit Run(const TemporaryRoot& from) {
      std::filesystem::copy(from.path(), root.path(), std::filesystem::copy_options::recursive);
    }
    TemporaryRoot root;
  };

  // The rule that was broken, empty if none was.
  std::string judge(const Fault& fault) {
    const Verb& verb = GetParam();
    const Run run(templates_);
    const std::string root = run.root.path();
    const int input = memfd_create("input", MFD_CLOEXEC);
    EXPECT_EQ(write(input, verb.input, std::strlen(verb.input)),
              static_cast<ssize_t>(std::strlen(verb.input)));
    lseek(input, 0, SEEK_SET);
    const unsigned descriptorsBefore = descriptors();
    const unsigned mappingsBefore = mappings();
    long blocksBefore = 0;
    long blocks = 0;
    Outcome outcome;
    {
      const PendingSignal signal(std::string(verb.name) == "Watch");
      const Faults::Time time(1'000.0, 0.001);
      Faults::othersToo(true);
      const Faults::Plan plan(fault);
      {
        blocksBefore = Faults::liveBlocks();
        outcome = outcomeOf(root, verb.words, input);
        // What the outcome itself holds comes and goes with it.
        blocks = Faults::liveBlocks() - heldBy(outcome);
      }
      Faults::othersToo(false);
      count_ = plan.count();
      if (fault.at == 0) good_ = outcome;
    }
    close(input);
    std::string wrong;
    if (outcome.status < 0 || outcome.status > 4) wrong += "status " + text(outcome) + "; ";
    const bool silent = outcome.err.empty() || !outcome.err.ends_with("\n");
    if (outcome.status != good_.status && silent)
      wrong += "no reason given: " + text(outcome) + "; ";
    if (outcome.status == 4) wrong += "a sound table is called damaged: " + text(outcome) + "; ";
    if (outcome.status == good_.status && !verb.changes && exact(verb) &&
        outcome.out != good_.out && outcome.err.empty()) {
      wrong += "another answer: " + text(outcome) + "; ";
    }
    if (descriptors() + 1 != descriptorsBefore) wrong += "descriptors; ";
    if (mappings() != mappingsBefore) wrong += "mappings; ";
    if (blocks != blocksBefore) {
      wrong += "blocks of memory: " + std::to_string(blocks - blocksBefore) + " more; ";
    }
    return wrong + tableAfter(root, outcome);
  }

  // Whether the answer says nothing of processes or places.
  static bool exact(const Verb& verb) {
    const std::string name = verb.name;
    return name.starts_with("Get") || name.starts_with("Dump") || name == "Counters";
  }
  static std::string text(const Outcome& outcome) {
    return std::to_string(outcome.status) + " \"" + outcome.out + "\" \"" + outcome.err + "\"";
  }
  static long heldBy(const Outcome& outcome) {
    constexpr std::size_t kInside = 15;  // what a std::string holds without an allocation
    return (outcome.out.capacity() > kInside ? 1 : 0) + (outcome.err.capacity() > kInside ? 1 : 0);
  }

  // What is wrong with the tables afterwards.
  std::string tableAfter(const std::string& root, const Outcome& outcome) {
    const Verb& verb = GetParam();
    const std::string name = verb.name;
    if (entries(root, "u") != entries(templates_.path(), "u")) return "another table has changed";
    if (name == "Create") {
      // What a creation that failed has left is no table: it is removed like a damaged one.
      const std::vector<const char*> create = {"create",      "new",    "--type",
                                               "counterVlan", "--size", "50"};
      if (plain(root, create).status != 0) {
        plain(root, {"remove", "new"});
        if (plain(root, create).status != 0) return "the table cannot be made afterwards";
      }
      return plain(root, {"verify", "new"}).status == 0 ? "" : "the new table is not sound";
    }
    const bool there = std::filesystem::exists(root + "/t/slots");
    if (name == "Remove") {
      if (outcome.status == 0 && there) return "not removed";
      plain(root, {"remove", "t"});
      return std::filesystem::exists(root + "/t/slots") ? "cannot be removed afterwards" : "";
    }
    const Outcome verified = plain(root, {"verify", "t"});
    if (verified.status != 0) return "the table is not sound: " + text(verified);
    const std::vector<std::string> now = entries(root, "t");
    const std::vector<std::string> old = entries(templates_.path(), "t");
    if (!verb.changes) return now == old ? "" : "a verb that only looks has changed the table";
    // Each line is one of before or of after, and each of both is there.
    if (after_.empty() && name != "Clear") after_ = now;  // the run without a fault comes first
    if (outcome.status == 0 && now != after_) return "done, and the table is not as it should be";
    std::vector<std::string> both;
    std::set_union(old.begin(), old.end(), after_.begin(), after_.end(), std::back_inserter(both));
    for (const std::string& line : now) {
      if (!std::binary_search(both.begin(), both.end(), line)) {
        return "a strange entry: \"" + line + "\"; " + text(outcome);
      }
    }
    std::vector<std::string> kept;
    std::set_intersection(old.begin(), old.end(), after_.begin(), after_.end(),
                          std::back_inserter(kept));
    if (!std::includes(now.begin(), now.end(), kept.begin(), kept.end())) return "entries are lost";
    if (plain(root, {"put", "t", "4000", "1", "1", "1"}).status != 0)
      return "no writing afterwards";
    return {};
  }

  const TemporaryRoot templates_;
  unsigned count_ = 0;
  Outcome good_;
  std::vector<std::string> after_;
};

}  // namespace

TEST_P(QuillctlFaults, TheVerbEndsWithAReasonAndLeavesTheTableSound) {
  // The first runs make what lives as long as the process, and tell what is right.
  static_cast<void>(judge({}));
  EXPECT_EQ(judge({}), "") << GetParam() << " without a fault";
  const unsigned calls = count_;
  EXPECT_EQ(judge({Kind::allocation, 0, 0, false}), "");
  const unsigned allocations = count_;
  // Of the command line's library functions allocate that may not raise, too: what happens before a
  // table is touched is passed over.
  const unsigned parsing = allocationsOfParsing();
  // The destructors of the JSON library allocate, and may not raise: there a failed allocation ends
  // the process, which has then changed what it has changed.
  const bool json = std::string(GetParam().words.front()) == "--json";
  EXPECT_GT(calls, 5U);
  EXPECT_GT(allocations, 5U);
  const auto faults = Faults::faultsOf(calls, parsing + 1, json ? 0 : allocations);
  Faults::expectRulesKept(GetParam().name, faults,
                          [this](const Fault& fault) { return judge(fault); });
}

INSTANTIATE_TEST_SUITE_P(Verbs, QuillctlFaults, testing::ValuesIn(verbs()),
                         [](const auto& verb) { return std::string(verb.param.name); });

}  // namespace QuillTest
