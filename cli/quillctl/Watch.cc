// SPDX-License-Identifier: Apache-2.0
#include "cli/quillctl/Watch.h"

#include <iomanip>
#include <sstream>

#include "cli/quillctl/Failure.h"
#include "cli/quillctl/StopSignals.h"
#include "quill/MounterSm.h"
#include "quill/QuillMap.h"

namespace Quillctl {

namespace {

// Waits for a table's header: only that tells which records the table has.
class TypeAwaiter final : public Quill::MounterBase {
 public:
  TypeAwaiter(Session& session, const std::string& path)
      : MounterBase(session.handler()),
        session_(session),
        path_(path),
        machine_(session.handler(), path, *this) {
    if (!machine_.ready()) {
      throw Failure(ExitStatus::refused, "cannot watch " + printable(path) + ": no inotify");
    }
    look();
  }

  bool known() const noexcept { return known_; }

  void notify(const std::string&) override {
    ++notifyCount_;
    look();
  }

 private:
  void look() { known_ = known_ || TableFacts(session_.handler(), path_).slots.identified(); }

  Session& session_;
  const std::string path_;
  bool known_ = false;
  Quill::MounterSm machine_;  // the last member: it may call notify() as soon as it stands
};

template <class Value>
class Watch {
 public:
  using Key = KeyOf<Value>;

  // `toldAbsent`: that there is no table has been said already.
  Watch(Session& session, const std::string& path, bool toldAbsent)
      : session_(session), told_(toldAbsent), map_(path, "quillctl-watch") {}
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;
  // The map tells of every key as gone when it goes: nothing of the table has.
  ~Watch() { ended_ = true; }

  void run(StopSignals& stop) {
    map_.notifierIs(this);
    map_.init(Quill::QuillType::shadow, false, 0);
    reportMounting();
    while (stop.came() == 0 && session_.out()) {
      session_.loop().runTurn(Vex::kNever);
      reportMounting();
    }
  }

  void notify(const Key& key) {
    if (ended_) return;
    bool found = false;
    const Value value = map_.lookup(key, found);
    if (session_.arguments().json) {
      Json json = found ? recordJson(value) : Json{{"key", RecordTraits<Value>::json(key)}};
      json["event"] = found ? "changed" : "gone";
      line(lineOf(json));
    } else {
      line(found ? recordText(value) + '\n' : keyText<Value>(key) + ": gone\n");
    }
  }

 private:
  using Map = Quill::QuillMap<Key, Value, Watch>;

  void line(const std::string& text) { session_.out() << text << std::flush; }

  // Tells, once, how the map is mounted when that has changed.
  void reportMounting() {
    const unsigned status = map_.mountStatus();
    const unsigned fenix = map_.fenixId();
    if (told_ && status == status_ && fenix == fenix_) return;
    const bool mounted = status != 0;
    const char* const event = !mounted ? "unmounted" : status == 2 ? "connected" : "mounted";
    if (session_.arguments().json) {
      Json json = {{"event", event}};
      if (mounted) json["entries"] = map_.members();
      line(lineOf(json));
    } else if (!mounted) {
      line(told_ ? "# the table is gone\n" : "# no table yet\n");
    } else {
      line("# the table is there, " + std::to_string(map_.members()) + " entries, " +
           (status == 2 ? "its writer lives\n" : "no writer\n"));
    }
    told_ = true;
    status_ = status;
    fenix_ = fenix;
  }

  Session& session_;
  bool ended_ = false;
  bool told_ = false;
  unsigned status_ = 0;
  unsigned fenix_ = 0;
  Map map_;
};

}  // namespace

void watchTable(Session& session) {
  const std::string path = session.tablePath();
  StopSignals stop(session.loop());
  bool toldAbsent = false;
  {
    TypeAwaiter awaiter(session, path);
    if (!awaiter.known()) {
      toldAbsent = true;
      session.out() << (session.arguments().json ? lineOf({{"event", "unmounted"}})
                                                 : std::string("# no table yet\n"))
                    << std::flush;
    }
    while (!awaiter.known()) {
      session.loop().runTurn(Vex::kNever);
      if (stop.came() != 0) return;
    }
  }
  const TableFacts facts = session.knownFacts();
  visitTable(facts, [&]<class Value>() { Watch<Value>(session, path, toldAbsent).run(stop); });
}

}  // namespace Quillctl
