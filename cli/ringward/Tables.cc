// SPDX-License-Identifier: Apache-2.0
#include "cli/ringward/Tables.h"

#include <algorithm>
#include <iomanip>

#include "cli/quillctl/Reading.h"
#include "cli/quillctl/TableFacts.h"
#include "cli/quillctl/Texts.h"
#include "quill/RootPath.h"

namespace RingwardCli {

using Quillctl::inQuotes;
using Quillctl::printable;
using Ringward::Status::CounterVlan;
using Ringward::Status::IntfTotals;

namespace {

// Most columns have room for 2^53; wider counts push the line out, they are never cut.
constexpr int kColumn = 13;

template <class Value, class Key>
class TableReader {
 public:
  TableReader(const std::string& root, const char* name, std::vector<std::string>& missing)
      : name_(name), missing_(missing) {
    try {
      read(Quill::tablePath(root, name));
    } catch (const Quillctl::Failure& failure) {
      miss(failure.what());
    } catch (const Sable::Exception& exception) {
      miss(exception.msg());
    } catch (const Vex::Exception& exception) {
      miss(exception.text());
    }
  }
  std::vector<Value> take() { return std::move(values_); }

 private:
  void read(const std::string& path) {
    Sable::Platform::DebugHandler handler("ringward");
    const Quillctl::TableFacts facts(handler, path);
    if (!facts.exists()) return miss("there is no such table");
    if (facts.slots.valueType != Value::kTypeName) {
      return miss("its records are of the type " + inQuotes(facts.slots.valueType));
    }
    Quill::QuillReader<Key, Value> reader(handler, facts.path.c_str());
    if (!reader.initialize()) return miss("it cannot be read");
    Value value;
    Quill::IterHint hint;
    for (bool more = reader.first(value, hint); more; more = reader.next(value.key, value, hint)) {
      values_.push_back(value);
    }
    std::sort(values_.begin(), values_.end(),
              [](const Value& a, const Value& b) { return a.key < b.key; });
  }
  void miss(const std::string& why) { missing_.push_back(name_ + ": " + printable(why)); }

  const std::string name_;
  std::vector<std::string>& missing_;
  std::vector<Value> values_;
};

// Of the socket as a whole, which is no interface's.
std::string totalsName(const IntfTotals& totals) {
  return totals.key ? printable(totals.key.name()) : "(socket)";
}

std::string vlanName(const CounterVlan& counter) {
  return counter.key.value() == 0 ? "(none)" : std::to_string(counter.key.value());
}

template <class... Columns>
void row(std::ostream& out, std::size_t width, const std::string& name, const Columns&... columns) {
  out << std::left << std::setw(static_cast<int>(width)) << name << std::right;
  ((out << ' ' << std::setw(kColumn) << columns), ...);
  out << '\n';
}

}  // namespace

CounterTables readTables(const std::string& root) {
  CounterTables tables;
  tables.totals =
      TableReader<IntfTotals, Portus::IntfId>(root, kTotalsTable, tables.missing).take();
  tables.vlans =
      TableReader<CounterVlan, Bridging::VlanIdOrNone>(root, kVlanTable, tables.missing).take();
  return tables;
}

void showTables(Context& context, const CounterTables& tables) {
  for (const std::string& line : tables.missing) context.note("warning: table " + line);
  std::ostream& out = context.out();
  if (!tables.totals.empty()) {
    std::size_t width = 10;
    for (const IntfTotals& t : tables.totals) width = std::max(width, totalsName(t).size());
    row(out, width, "interface", "sent", "not sent", "received", "foreign", "malformed", "dropped");
    for (const IntfTotals& t : tables.totals) {
      row(out, width, totalsName(t), t.probesSent, t.sendErrors, t.probesReceived, t.foreignProbes,
          t.malformed, t.kernelDrops);
    }
  }
  if (!tables.vlans.empty()) {
    constexpr std::size_t kWidth = 10;
    row(out, kWidth, "VLAN", "tx", "rx", "rxOther");
    for (const CounterVlan& c : tables.vlans) row(out, kWidth, vlanName(c), c.tx, c.rx, c.rxOther);
  }
  if (tables.totals.empty() && tables.vlans.empty()) out << "nothing has been counted\n";
}

void tablesTo(Json& json, const CounterTables& tables) {
  Json intfs = Json::array();
  for (const IntfTotals& t : tables.totals) {
    intfs.push_back({{"name", t.key.name()},
                     {"probesSent", t.probesSent},
                     {"sendErrors", t.sendErrors},
                     {"probesReceived", t.probesReceived},
                     {"foreignProbes", t.foreignProbes},
                     {"malformed", t.malformed},
                     {"kernelDrops", t.kernelDrops}});
  }
  Json vlans = Json::array();
  for (const CounterVlan& c : tables.vlans) {
    vlans.push_back({{"vlan", c.key.value()}, {"tx", c.tx}, {"rx", c.rx}, {"rxOther", c.rxOther}});
  }
  json["interfaces"] = std::move(intfs);
  json["vlans"] = std::move(vlans);
  json["missing"] = tables.missing;
}

}  // namespace RingwardCli
