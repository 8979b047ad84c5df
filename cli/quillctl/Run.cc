// SPDX-License-Identifier: Apache-2.0
#include "cli/quillctl/Run.h"

#include <algorithm>
#include <array>
#include <exception>
#include <string_view>
#include <utility>

#include "cli/quillctl/ReadCommands.h"
#include "cli/quillctl/Watch.h"
#include "cli/quillctl/WriteCommands.h"
#include "quill/Exceptions.h"

namespace Quillctl {

namespace {

using Command = void (*)(Session&);

constexpr std::array kCommands{
    std::pair<std::string_view, Command>{"list", &listTables},
    std::pair<std::string_view, Command>{"create", &createTable},
    std::pair<std::string_view, Command>{"put", &putRecord},
    std::pair<std::string_view, Command>{"get", &getRecord},
    std::pair<std::string_view, Command>{"del", &delRecord},
    std::pair<std::string_view, Command>{"fill", &fillTable},
    std::pair<std::string_view, Command>{"batch", &runBatch},
    std::pair<std::string_view, Command>{"clear", &clearTable},
    std::pair<std::string_view, Command>{"dump", &dumpTable},
    std::pair<std::string_view, Command>{"stat", &statTable},
    std::pair<std::string_view, Command>{"verify", &verifyTable},
    std::pair<std::string_view, Command>{"watch", &watchTable},
    std::pair<std::string_view, Command>{"counters", &showCounters},
    std::pair<std::string_view, Command>{"remove", &removeTable},
};

ExitStatus runCommand(Session& session) {
  try {
    const auto found = std::find_if(kCommands.begin(), kCommands.end(), [&](const auto& entry) {
      return entry.first == session.arguments().command;
    });
    found->second(session);
    session.out() << std::flush;
    if (!session.out()) throw Failure(ExitStatus::refused, "cannot write the output");
    return ExitStatus::done;
  } catch (const Failure& failure) {
    session.out() << std::flush;
    session.note(failure.what());
    return failure.status();
  } catch (const Quill::CorruptionDetectedException& exception) {
    session.note(printable(exception.msg()));
    return ExitStatus::damaged;
  } catch (const std::exception& exception) {
    session.note(printable(exception.what()));
    return ExitStatus::refused;
  }
}

}  // namespace

int run(int argc, const char* const* argv, int input, std::ostream& out, std::ostream& err) {
  auto parsed = parseArguments(argc, argv);
  if (const auto* const early = std::get_if<EarlyExit>(&parsed)) {
    (early->status == 0 ? out : err) << early->text << std::flush;
    return early->status;
  }
  Vex::EpollActivityManager loop;
  const Vex::CurrentActivityManager current(loop);
  Session session(std::get<Arguments>(std::move(parsed)), input, out, err, loop);
  return static_cast<int>(runCommand(session));
}

}  // namespace Quillctl
