// SPDX-License-Identifier: Apache-2.0
//
// The command batch: changes from standard input, applied as they come, under one attachment of the
// writer. A pipe or a terminal is read from the loop, so that readers that wait for the next change
// are served meanwhile; a file, which cannot be waited for, in pieces with turns of the loop
// between.
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <optional>
#include <vector>

#include "cli/quillctl/LineReader.h"
#include "cli/quillctl/WriteCommands.h"
#include "cli/quillctl/Writing.h"

namespace Quillctl {

namespace {

std::vector<std::string_view> words(std::string_view line) {
  constexpr std::string_view blanks = " \t\r";
  std::vector<std::string_view> found;
  for (std::size_t at = line.find_first_not_of(blanks); at != std::string_view::npos;) {
    const std::size_t end = std::min(line.find_first_of(blanks, at), line.size());
    found.push_back(line.substr(at, end - at));
    at = line.find_first_not_of(blanks, end);
  }
  return found;
}

template <class Value>
class Batch final : private Vex::ReadableHandler {
 public:
  Batch(Session& session, Writing<Value>& writing) : session_(session), writing_(writing) {}

  // Applies everything; the first line that cannot be ends it with its Failure.
  void run() {
    bool waits = true;
    try {
      session_.loop().readableIs(session_.input(), *this);
    } catch (const Vex::Exception&) {
      waits = false;  // epoll(7) takes no regular file
    }
    writing_.turnsIs(!waits);
    while (!ended_ && !stopped_) {
      session_.loop().runTurn(waits ? Vex::kNever : 0);
      stopped_ = writing_.stopped();
      if (!waits && !stopped_) onReadable();
    }
    if (waits) session_.loop().readableDel(session_.input());
    writing_.report("applied");
    if (stopped_) failure_.emplace(ExitStatus::refused, "interrupted" + progress());
    if (failure_) throw Failure(*failure_);
  }

 private:
  void onReadable() override {
    if (ended_) return;
    std::array<char, 16'384> buffer{};
    const ssize_t got = read(session_.input(), buffer.data(), buffer.size());
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) return;
    if (got < 0) {
      failure_.emplace(ExitStatus::refused,
                       std::string("cannot read the input: ") + std::strerror(errno) + progress());
      ended_ = true;
      return;
    }
    const auto line = [this](const InputLine& input) { return applied(input); };
    if (got == 0) {
      static_cast<void>(lines_.end(line));
      ended_ = true;
    } else if (!lines_.take({buffer.data(), static_cast<std::size_t>(got)}, line)) {
      ended_ = true;
    }
  }

  bool applied(const InputLine& line) {
    try {
      apply(line);
      return true;
    } catch (const Failure& failure) {
      failure_.emplace(failure.status(), "line " + std::to_string(line.number) + ", " +
                                             inQuotes(line.text) + ": " + failure.what() +
                                             progress());
    } catch (const Sable::Exception& exception) {
      const bool damage = dynamic_cast<const Quill::CorruptionDetectedException*>(&exception);
      failure_.emplace(damage ? ExitStatus::damaged : ExitStatus::refused,
                       "line " + std::to_string(line.number) + ", " + inQuotes(line.text) + ": " +
                           printable(exception.msg()) + progress());
    }
    return false;
  }

  void apply(const InputLine& line) {
    if (line.tooLong) {
      throw Failure(ExitStatus::usage,
                    "the line is longer than " + std::to_string(LineReader::kMaxLine) + " bytes");
    }
    if (const std::size_t nul = line.text.find('\0'); nul != std::string::npos) {
      throw Failure(ExitStatus::usage, "byte " + std::to_string(nul + 1) + " is NUL");
    }
    const std::vector<std::string_view> given = words(line.text);
    if (given.empty() || given.front().front() == '#') return;
    if (given.front() == "put" && given.size() == 5) {
      writing_.put(recordOf<Value>(given[1], given[2], given[3], given[4]));
    } else if (given.front() == "del" && given.size() == 2) {
      if (!writing_.del(keyOf<Value>(given[1]))) {
        throw Failure(ExitStatus::missing, "no key " + inQuotes(given[1]) + " in the table");
      }
    } else {
      throw Failure(ExitStatus::usage, "must be \"put KEY TX RX RXOTHER\" or \"del KEY\"");
    }
  }

  std::string progress() const {
    return "; applied before it: " + std::to_string(writing_.changes()) + " changes";
  }

  Session& session_;
  Writing<Value>& writing_;
  LineReader lines_;
  bool ended_ = false;
  bool stopped_ = false;
  std::optional<Failure> failure_;
};

}  // namespace

void runBatch(Session& session) {
  const TableFacts facts = session.knownFacts();
  visitTable(facts, [&]<class Value>() {
    requireWritable(session, facts);
    Writing<Value> writing(session, facts);
    Batch<Value>(session, writing).run();
  });
}

}  // namespace Quillctl
