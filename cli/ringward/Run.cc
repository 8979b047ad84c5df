// SPDX-License-Identifier: Apache-2.0
#include "cli/ringward/Run.h"

#include <algorithm>
#include <array>
#include <exception>
#include <string_view>
#include <utility>

#include "cli/quillctl/Texts.h"
#include "cli/ringward/ChangeCommands.h"
#include "cli/ringward/Failure.h"
#include "cli/ringward/ShowCommands.h"
#include "cli/ringward/TreeCommands.h"
#include "cli/ringward/Watch.h"

namespace RingwardCli {

namespace {

using Command = void (*)(Context&);

constexpr std::array kCommands{
    std::pair<std::string_view, Command>{"show", &show},
    std::pair<std::string_view, Command>{"get", &getValue},
    std::pair<std::string_view, Command>{"set", &setValue},
    std::pair<std::string_view, Command>{"del", &delElement},
    std::pair<std::string_view, Command>{"ls", &listNodes},
    std::pair<std::string_view, Command>{"call", &callFunction},
    std::pair<std::string_view, Command>{"watch", &watch},
    std::pair<std::string_view, Command>{"clear counters", &clearCounters},
    std::pair<std::string_view, Command>{"enable", &enable},
    std::pair<std::string_view, Command>{"disable", &disable},
    std::pair<std::string_view, Command>{"vlan add", &addVlans},
    std::pair<std::string_view, Command>{"vlan del", &delVlans},
    std::pair<std::string_view, Command>{"exclude add", &addExclude},
    std::pair<std::string_view, Command>{"exclude del", &delExclude},
};

ExitStatus runCommand(Context& context) {
  try {
    const auto found = std::find_if(kCommands.begin(), kCommands.end(), [&](const auto& entry) {
      return entry.first == context.arguments().command;
    });
    found->second(context);
    context.out() << std::flush;
    if (!context.out()) throw Failure(ExitStatus::failed, "cannot write the output");
    return ExitStatus::done;
  } catch (const Failure& failure) {
    context.out() << std::flush;
    context.note(failure.what());
    return failure.status();
  } catch (const std::exception& exception) {
    context.note(Quillctl::printable(exception.what()));
    return ExitStatus::failed;
  }
}

}  // namespace

int run(int argc, const char* const* argv, Vex::EpollActivityManager& loop, std::ostream& out,
        std::ostream& err, double patience) {
  auto parsed = parseArguments(argc, argv);
  if (const auto* const early = std::get_if<EarlyExit>(&parsed)) {
    (early->status == 0 ? out : err) << early->text << std::flush;
    return early->status;
  }
  const Vex::CurrentActivityManager current(loop);
  Context context(std::get<Arguments>(std::move(parsed)), out, err, loop, patience);
  return static_cast<int>(runCommand(context));
}

}  // namespace RingwardCli
