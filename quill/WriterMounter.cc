// SPDX-License-Identifier: Apache-2.0
#include "quill/WriterMounter.h"

#include "quill/FenixFile.h"
#include "quill/Text.h"
#include "quill/Util.h"

namespace Quill {

WriterMounter::WriterMounter(Sable::Platform::DebugHandler& handler, Mountable& map)
    : MounterBase(handler), map_(map), mounterSm_(handler, map.fullName(), *this) {
  if (mounterSm_.ready()) return;
  const std::string text =
      textOf("WriterMounter::WriterMounter() unable to initialize mounterSm for rootPath: ",
             map.rootPath());
  trace(7, [&](std::ostream& os) { os << text; });
  raise<Sable::InvalidInitializeException>(text);
}

void WriterMounter::notify(const std::string& /*eventName*/) {
  const std::string rootPath = map_.rootPath();
  trace(7, [&](std::ostream& os) { os << "WriterMounter::notify() " << rootPath; });
  ++notifyCount_;
  const std::string report =
      Util::fileRead(debugHandler(), rootPath + "/corruption-detected", false);
  if (!report.empty() && report != lastCorruption_) {
    trace(7,
          [&](std::ostream& os) { os << "WriterMounter::notify() corruptDetected: " << report; });
    lastCorruption_ = report;
    if (!map_.validate()) {
      const char* const text = "WriterMounter::notify() failed quill validation";
      trace(7, [&](std::ostream& os) { os << text; });
      raise<CorruptionDetectedException>(text);
    }
    // The id is the same; that the file is replaced is what makes the readers mount again.
    FenixFile::write(debugHandler(), rootPath, map_.fenixId());
    trace(7, [](std::ostream& os) { os << "WriterMounter::notify() quill validation ok"; });
  }
  map_.validateFiles();
}

}  // namespace Quill
