// SPDX-License-Identifier: Apache-2.0
#include "cli/quillctl/Session.h"

#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

namespace Quillctl {

namespace {

std::string suggestion(Sable::Platform::DebugHandler& handler, const std::string& root,
                       const std::string& given) {
  try {
    const std::string near = nearest(given, tableNames(handler, root).tables);
    return near.empty() ? "; there is no table below " + printable(root)
                        : "; the nearest is " + inQuotes(near);
  } catch (const Failure& failure) {
    return std::string("; ") + failure.what();
  }
}

}  // namespace

void Session::note(const std::string& text) { err_ << "quillctl: " << text << '\n' << std::flush; }

std::string Session::tablePath() {
  const std::string& table = arguments_.table;
  try {
    const bool isPath = !table.empty() && table.front() == '/';
    const std::string path = isPath ? table : Quill::tablePath(arguments_.root, table);
    return Quill::RootPath(handler_, path, true).rootPath();
  } catch (const Vex::Exception& exception) {
    throw Failure(ExitStatus::usage,
                  "table " + inQuotes(table) + ": " + printable(exception.what()));
  }
}

TableFacts Session::facts() {
  TableFacts facts(handler_, tablePath());
  for (const int error : {facts.slots.error, facts.buckets.error}) {
    if (!systemFailed(error)) continue;
    throw Failure(ExitStatus::refused, "table " + inQuotes(arguments_.table) + ": cannot read " +
                                           printable(facts.path) + ": " + std::strerror(error));
  }
  if (!facts.exists()) {
    throw Failure(ExitStatus::missing, "no table " + inQuotes(arguments_.table) +
                                           suggestion(handler_, arguments_.root, arguments_.table));
  }
  return facts;
}

TableFacts Session::knownFacts() {
  TableFacts found = facts();
  const SlotsFacts& slots = found.slots;
  if (!slots.identified()) {
    const std::string why = slots.error != 0 ? std::strerror(slots.error) : "its header is damaged";
    throw Failure(ExitStatus::damaged, "table " + inQuotes(arguments_.table) +
                                           ": the file slots: " + why + "; see quillctl verify");
  }
  if (!visitType(slots.valueType, []<class Value>() {})) {
    throw Failure(ExitStatus::refused, "table " + inQuotes(arguments_.table) +
                                           " has records of the type " + inQuotes(slots.valueType) +
                                           "; " + arguments_.command + " knows only " +
                                           std::string(CounterIntf::kTypeName) + " and " +
                                           std::string(CounterVlan::kTypeName));
  }
  return found;
}

TableNames tableNames(Sable::Platform::DebugHandler& handler, const std::string& root) {
  const std::unique_ptr<DIR, int (*)(DIR*)> directory{opendir(root.c_str()), &closedir};
  if (!directory) {
    const int error = errno;
    const auto status = error == ENOENT ? ExitStatus::missing : ExitStatus::refused;
    throw Failure(status, "cannot read the root " + printable(root) + ": " + std::strerror(error));
  }
  TableNames names;
  while (const dirent* const entry = readdir(directory.get())) {
    const std::string file = entry->d_name;
    if (file == "." || file == "..") continue;
    const std::string name = Quill::decodedName(file);
    std::string path = root;
    path += '/';
    path += file;
    const bool isTable = !name.empty() && TableFacts(handler, path).exists();
    (isTable ? names.tables : names.ignored).push_back(isTable ? name : file);
  }
  std::sort(names.tables.begin(), names.tables.end());
  std::sort(names.ignored.begin(), names.ignored.end());
  return names;
}

}  // namespace Quillctl
