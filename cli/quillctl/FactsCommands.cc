// SPDX-License-Identifier: Apache-2.0
//
// The commands list and stat: what a table tells of itself, whatever its records are.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iomanip>
#include <sstream>

#include "cli/quillctl/ReadCommands.h"

namespace Quillctl {

namespace {

std::string fenixText(unsigned fenix) {
  std::ostringstream out;
  out << std::hex << std::setfill('0') << std::setw(8) << fenix;
  return out.str();
}

// The option's word for a known type, else the type's own name.
std::string typeText(const SlotsFacts& slots) {
  if (!slots.identified()) return "unreadable";
  std::string text = printable(slots.valueType);
  static_cast<void>(
      visitType(slots.valueType, [&]<class Value>() { text = RecordTraits<Value>::kOption; }));
  return text;
}

const char* aliveText(const OwnerFacts& owner) {
  if (!owner.known) return "unknown";
  return owner.alive ? "alive" : "gone";
}

Json ownerJson(const TableFacts& facts) {
  Json json = {{"name", printable(facts.owner.name)}, {"pid", facts.owner.pid}};
  json["alive"] = facts.owner.known ? Json(facts.owner.alive) : Json(nullptr);
  return json;
}

// What every file's object begins with.
Json fileJson(const FileFacts& file) {
  Json json = {{"present", file.error != ENOENT}};
  if (file.error != 0 && file.error != ENOENT) json["error"] = std::strerror(file.error);
  json["bytes"] = file.bytes;
  json["magic"] = printable(file.magic);
  json["version"] = file.version;
  json["fenix"] = fenixText(file.fenix);
  return json;
}

Json queueJson(const QueueFacts& queue) {
  Json json = fileJson(queue);
  json["minSeq"] = queue.minSeq;
  json["readers"] = queue.numReaders;
  json["generation"] = queue.generation;
  json["currentTable"] = queue.currentTable;
  json["notifications"] = queue.notifications;
  json["currentPos"] = queue.currentPos;
  json["lastSequence"] = queue.lastSequence;
  return json;
}

Json statJson(const TableFacts& facts) {
  Json slots = fileJson(facts.slots);
  slots["valueType"] = printable(facts.slots.valueType);
  slots["classType"] = printable(facts.slots.classType);
  slots["valueSize"] = facts.slots.valueSize;
  slots["slotSize"] = facts.slots.slotSize;
  slots["maxSlots"] = facts.slots.maxSlots;
  slots["checksum"] = facts.slots.hash;
  slots["checksumSound"] = facts.slots.hash == facts.slots.computedHash;
  slots["occupiedSlots"] = facts.slots.occupiedSlots;
  slots["freeSlots"] = facts.slots.freeSlots;
  slots["numSlots"] = facts.slots.numSlots;
  slots["growths"] = facts.slots.growths;
  Json buckets = fileJson(facts.buckets);
  buckets["numBuckets"] = facts.buckets.numBuckets;
  buckets["formattedBy"] = facts.buckets.formattedBy;
  return {{"table", printable(facts.name)},
          {"path", printable(facts.path)},
          {"fenix", fenixText(facts.fenix)},
          {"owner", ownerJson(facts)},
          {"corruptionReport", printable(facts.corruptionReport)},
          {"slots", std::move(slots)},
          {"buckets", std::move(buckets)},
          {"conquer1", queueJson(facts.queues[0])},
          {"conquer2", queueJson(facts.queues[1])}};
}

// The beginning of a file's line; false if there is no more to say.
bool fileLine(std::ostream& out, const char* name, const FileFacts& file) {
  out << std::left << std::setw(11) << name;
  if (file.error != 0) {
    out << std::strerror(file.error) << '\n';
    return false;
  }
  out << file.bytes << " bytes, " << printable(file.magic) << " version " << file.version
      << ", generation " << fenixText(file.fenix);
  return true;
}

void statText(std::ostream& out, const TableFacts& facts) {
  out << "table      " << printable(facts.name) << '\n'
      << "path       " << printable(facts.path) << '\n'
      << "generation " << (facts.fenix == 0 ? "none" : fenixText(facts.fenix)) << '\n'
      << "owner      " << facts.ownerText() << ", " << aliveText(facts.owner) << '\n';
  const SlotsFacts& slots = facts.slots;
  if (fileLine(out, "slots", slots)) {
    out << "\n           values " << printable(slots.valueType) << " of " << slots.valueSize
        << " bytes, slots of " << slots.slotSize << " bytes\n           class "
        << printable(slots.classType) << "\n           " << slots.occupiedSlots << " entries in "
        << slots.numSlots << " slots, made for " << slots.maxSlots << ", grown " << slots.growths
        << " times, checksum " << (slots.hash == slots.computedHash ? "sound" : "wrong") << '\n';
  }
  if (fileLine(out, "buckets", facts.buckets)) {
    out << "\n           " << facts.buckets.numBuckets << " chains, formatted by process "
        << facts.buckets.formattedBy << '\n';
  }
  for (std::size_t i = 0; i < facts.queues.size(); ++i) {
    const QueueFacts& queue = facts.queues[i];
    if (!fileLine(out, i == 0 ? "conquer.1" : "conquer.2", queue)) continue;
    out << "\n           position " << queue.currentPos << " of " << queue.notifications
        << ", last sequence " << queue.lastSequence
        << (facts.queues[0].currentTable == i ? ", current" : "") << '\n';
  }
  out << "queue      generation " << facts.queues[0].generation << ", pruned up to sequence "
      << facts.queues[0].minSeq << ", " << facts.queues[0].numReaders << " readers\n";
  if (!facts.corruptionReport.empty()) {
    out << "reported   " << printable(facts.corruptionReport) << '\n';
  }
}

}  // namespace

void listTables(Session& session) {
  const TableNames names = tableNames(session.handler(), session.arguments().root);
  std::vector<TableFacts> tables;
  std::size_t width = 5;
  for (const std::string& name : names.tables) {
    tables.emplace_back(session.handler(), Quill::tablePath(session.arguments().root, name));
    width = std::max(width, printable(name).size());
  }
  if (session.arguments().json) {
    Json list = Json::array();
    for (const TableFacts& facts : tables) {
      list.push_back({{"table", printable(facts.name)},
                      {"type", typeText(facts.slots)},
                      {"entries", facts.slots.occupiedSlots},
                      {"size", facts.slots.maxSlots},
                      {"owner", ownerJson(facts)}});
    }
    Json ignored = Json::array();
    for (const std::string& name : names.ignored) ignored.push_back(printable(name));
    session.out() << lineOf({{"root", printable(session.arguments().root)},
                             {"tables", std::move(list)},
                             {"ignored", std::move(ignored)}});
    return;
  }
  const auto line = [&](const std::string& name, const std::string& type, const auto& entries,
                        const auto& size, const std::string& owner) {
    session.out() << std::left << std::setw(static_cast<int>(width)) << name << "  "
                  << std::setw(11) << type << std::right << std::setw(9) << entries << std::setw(9)
                  << size << "  " << owner << '\n';
  };
  line("table", "type", "entries", "size", "owner");
  for (const TableFacts& facts : tables) {
    line(printable(facts.name), typeText(facts.slots), facts.slots.occupiedSlots,
         facts.slots.maxSlots, facts.ownerText() + ", " + aliveText(facts.owner));
  }
  for (const std::string& name : names.ignored) {
    session.out() << "# no table: " << printable(name) << '\n';
  }
}

void statTable(Session& session) {
  const TableFacts facts = session.facts();
  if (session.arguments().json) {
    session.out() << lineOf(statJson(facts));
  } else {
    statText(session.out(), facts);
  }
}

}  // namespace Quillctl
