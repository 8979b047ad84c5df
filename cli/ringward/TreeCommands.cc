// SPDX-License-Identifier: Apache-2.0
#include "cli/ringward/TreeCommands.h"

#include <algorithm>
#include <iomanip>

#include "cli/quillctl/Texts.h"
#include "cli/ringward/Failure.h"

namespace RingwardCli {

using Quillctl::inQuotes;
using Quillctl::printable;

void getValue(Context& context) {
  const std::string text = context.agent().get(context.word(0));
  if (context.json()) return context.line({{"path", context.word(0)}, {"value", text}});
  context.out() << printable(text) << '\n';
}

void setValue(Context& context) {
  context.agent().set(context.word(0), context.word(1));
  if (context.json()) context.line({{"path", context.word(0)}, {"value", context.word(1)}});
}

void delElement(Context& context) {
  context.agent().del(context.word(0));
  if (context.json()) context.line({{"path", context.word(0)}, {"deleted", true}});
}

void listNodes(Context& context) {
  const std::string path = context.arguments().words.empty() ? "" : context.word(0);
  const std::vector<Node> nodes = context.agent().ls(path);
  if (context.json()) {
    Json list = Json::array();
    for (const Node& node : nodes) {
      list.push_back({{"name", node.name},
                      {"kind", node.kind},
                      {"type", node.type},
                      {"value", node.text},
                      {"writable", node.writable},
                      {"members", std::stoul("0" + node.members)}});
    }
    return context.line({{"path", path}, {"nodes", std::move(list)}});
  }
  std::size_t name = 0;
  std::size_t type = 0;
  for (const Node& node : nodes) {
    name = std::max(name, printable(node.name).size());
    type = std::max(type, printable(node.type).size());
  }
  for (const Node& node : nodes) {
    // A collection tells how many it has instead of a value.
    const std::string value = !node.text.empty() ? printable(node.text)
                                                 : (node.members.empty() || node.members == "0"
                                                        ? ""
                                                        : printable(node.members) + " members");
    context.out() << std::left << std::setw(static_cast<int>(name)) << printable(node.name) << "  "
                  << (node.writable ? "rw" : "r-") << "  " << std::setw(static_cast<int>(type))
                  << printable(node.type) << (value.empty() ? "" : "  ") << value << '\n';
  }
}

void callFunction(Context& context) {
  std::vector<std::string> texts{context.word(0), context.word(1)};
  for (std::size_t i = 2; i < context.arguments().words.size(); ++i) {
    const std::string& argument = context.word(i);
    const std::size_t equals = argument.find('=');
    if (equals == std::string::npos || equals == 0) {
      throw Failure(ExitStatus::usage,
                    "argument " + inQuotes(argument) + ": must be of the form NAME=VALUE");
    }
    texts.push_back(argument.substr(0, equals));
    texts.push_back(argument.substr(equals + 1));
  }
  const std::string text = context.agent().call(std::move(texts));
  if (context.json()) {
    return context.line(
        {{"path", context.word(0)}, {"function", context.word(1)}, {"value", text}});
  }
  if (!text.empty()) context.out() << printable(text) << '\n';
}

}  // namespace RingwardCli
