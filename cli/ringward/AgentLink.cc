// SPDX-License-Identifier: Apache-2.0
#include "cli/ringward/AgentLink.h"

#include "cli/quillctl/Texts.h"
#include "cli/ringward/Failure.h"

namespace RingwardCli {

using Control::Answer;
using Control::Operation;
using Control::Status;
using Quillctl::inQuotes;
using Quillctl::printable;

namespace {

// Requests that are on their way at once: what the agent keeps of them is bounded, and a command
// can be about 4,094 VLANs.
constexpr std::size_t kAtOnce = 256;

[[noreturn]] void throwAnswer(const Answer& answer) {
  const std::string reason = answer.texts.empty() ? "no reason given" : answer.texts.front();
  throw Failure(ExitStatus::failed,
                (answer.status == Status::refused ? "refused: " : "") + printable(reason));
}

const std::string& onlyText(const Answer& answer) {
  if (answer.texts.size() != 1) {
    throw Failure(ExitStatus::failed, "the agent answers with " +
                                          std::to_string(answer.texts.size()) +
                                          " texts instead of one: is its version the same?");
  }
  return answer.texts.front();
}

}  // namespace

void throwUnreachable(const std::string& path, const std::error_code& error) {
  const std::string at = inQuotes(path) + " (" + error.message() + ")";
  if (error == std::errc::no_such_file_or_directory || error == std::errc::connection_refused ||
      error == std::errc::not_a_directory) {
    throw Failure(ExitStatus::noAgent, "no agent listens on " + at +
                                           "; start ringwardd, or name its socket with --socket");
  }
  if (error == std::errc::resource_unavailable_try_again) {
    throw Failure(ExitStatus::failed, "too many wait for the agent on " + inQuotes(path) +
                                          "; it may be stopped, see its log");
  }
  throw Failure(ExitStatus::failed, "cannot connect to the agent on " + at);
}

std::error_code openPatiently(Vex::EpollActivityManager& loop, Control::ControlClient& client,
                              const std::string& path, const std::function<bool()>& givenUp) {
  const double limit = loop.clock()->now() + AgentLink::kPatience;
  for (;;) {
    const std::error_code error = client.open(path);
    const double now = loop.clock()->now();
    if (error != std::errc::resource_unavailable_try_again || now >= limit) return error;
    const double next = now + AgentLink::kConnectPause;
    for (double left = AgentLink::kConnectPause; left > 0; left = next - loop.clock()->now()) {
      loop.runTurn(left);
      if (givenUp()) return error;
    }
  }
}

AgentLink::AgentLink(Vex::EpollActivityManager& loop, const std::string& path, double patience)
    : loop_(loop),
      patience_(patience),
      client_(loop, kName,
              {.greeted =
                   [this](const Control::Hello& hello) {
                     hello_ = hello;
                     greeted_ = true;
                   },
               .answered = [this](Answer answer) { answers_.push_back(std::move(answer)); },
               .logged = {},
               .gone =
                   [this](const std::string& reason) {
                     gone_ = true;
                     reason_ = reason;
                   },
               .written = {}}) {
  const std::error_code error = openPatiently(loop, client_, path, [] { return false; });
  if (error) throwUnreachable(path, error);
  await([this] { return greeted_; });
}

template <class Done>
void AgentLink::await(const Done& done) {
  double limit = loop_.clock()->now() + patience_;
  std::size_t heard = answers_.size();
  while (!done()) {
    if (gone_) throw Failure(ExitStatus::failed, printable(reason_));
    const double left = limit - loop_.clock()->now();
    if (left <= 0) {
      throw Failure(ExitStatus::failed,
                    "the agent does not answer; it may be stopped, see its log");
    }
    loop_.runTurn(left);
    if (answers_.size() != heard) limit = loop_.clock()->now() + patience_;
    heard = answers_.size();
  }
}

std::vector<Answer> AgentLink::askAll(const std::vector<Request>& requests) {
  std::vector<Answer> answers;
  askAll(requests, answers);
  return answers;
}

void AgentLink::askAll(const std::vector<Request>& requests, std::vector<Answer>& answers) {
  answers.clear();
  std::size_t sent = 0;
  while (answers.size() < requests.size()) {
    while (sent < requests.size() && sent < answers.size() + kAtOnce) {
      if (gone_) throw Failure(ExitStatus::failed, printable(reason_));
      const Request& request = requests[sent++];
      if (!Control::fits({0, request.operation, request.texts})) {
        throw Failure(ExitStatus::usage, "a request of more than 255 texts or 64 KiB");
      }
      client_.newRequest(request.operation, request.texts);
    }
    await([this] { return !answers_.empty(); });
    while (!answers_.empty()) {
      answers.push_back(std::move(answers_.front()));
      answers_.pop_front();
    }
  }
}

Answer AgentLink::ask(Operation operation, std::vector<std::string> texts) {
  Answer answer = askAll({{operation, std::move(texts)}}).front();
  if (answer.status != Status::done) throwAnswer(answer);
  return answer;
}

std::string AgentLink::get(const std::string& path) {
  return onlyText(ask(Operation::get, {path}));
}

void AgentLink::set(const std::string& path, const std::string& text) {
  static_cast<void>(ask(Operation::set, {path, text}));
}

void AgentLink::del(const std::string& path) { static_cast<void>(ask(Operation::del, {path})); }

std::string AgentLink::call(std::vector<std::string> texts) {
  return onlyText(ask(Operation::call, std::move(texts)));
}

std::vector<Node> AgentLink::ls(const std::string& path, std::size_t most) {
  std::vector<Node> nodes;
  std::string after;
  while (nodes.size() < most) {
    Answer answer = ask(Operation::ls, {path, after});
    auto& texts = answer.texts;
    if (texts.size() % Control::kLsFields != 0 || (texts.empty() && answer.more)) {
      throw Failure(ExitStatus::failed, "the agent answers with a list that is none");
    }
    for (std::size_t i = 0; i < texts.size() && nodes.size() < most; i += Control::kLsFields) {
      nodes.push_back(
          {texts[i], texts[i + 1], texts[i + 2], texts[i + 3], texts[i + 4] == "1", texts[i + 5]});
    }
    if (!answer.more) break;
    after = nodes.back().name;
  }
  return nodes;
}

}  // namespace RingwardCli
