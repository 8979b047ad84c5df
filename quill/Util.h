// SPDX-License-Identifier: Apache-2.0
//
// Quill::Util: the small services of the table store: ids of generations, the writer lock, the
// owner's name, files that are read and replaced as a whole, the hash of bytes.
//
// Any thread, except where it is said. Nothing here raises unless it is said.
#pragma once

#include <string>
#include <string_view>

#include "quill/RootPath.h"
#include "runtime/sable/Platform.h"

namespace Quill {

class Util {
 public:
  // Files of a table that hold texts are not read further than this, nor written longer than
  // kMaxReport for a corruption report.
  static constexpr std::size_t kMaxFileText = 65'536;
  static constexpr std::size_t kMaxReport = 4'096;

  // The process id in the upper half, the instance in the lower one; 0xFFFFFFFF where that is 0.
  static void encodeFenix(unsigned short pid, unsigned short instance, unsigned& out) noexcept;

  // Takes the exclusive lock of a table, whose directory must exist; never waits. A handle for
  // releaseWriterLock(), or -1 with the reason in errno: EAGAIN if another writer holds it. It is a
  // record lock of the process (fcntl F_SETLK on the file `lock`), so that it dies with the process
  // and with nothing else, children of a fork included; a second writer in this process is refused
  // by a list of what the process holds.
  static int acquireWriterLock(Sable::Platform::DebugHandler& handler, const RootPath& root);
  static void releaseWriterLock(Sable::Platform::DebugHandler& handler, int handle) noexcept;

  // Holds the writer lock for a scope. `held` is the handle of a lock that the caller has already,
  // or -1: then the guard takes the lock itself, and gives back what it took.
  class AutoLock : private Sable::Debuggable {
   public:
    // Raises Sable::InvalidInitializeException that names the owner if somebody else holds the
    // lock.
    AutoLock(Sable::Platform::DebugHandler& handler, const RootPath& root, int held);
    AutoLock(const AutoLock&) = delete;
    AutoLock& operator=(const AutoLock&) = delete;
    ~AutoLock();

   private:
    int taken_;
  };

  // Says in `last-owner` who writes this table: this program's name and process id. Answers 0 or an
  // error number.
  static int writeOwner(const std::string& rootPath);
  // The process id of the last writer, and its name; 0 and an empty name if nobody is known.
  static int readOwnerPid(Sable::Platform::DebugHandler& handler, const std::string& rootPath,
                          std::string& ownerName);
  // "<name>:<pid>" of the last writer.
  static std::string ownerText(Sable::Platform::DebugHandler& handler, const std::string& rootPath);

  // The text of a regular file, at most kMaxFileText bytes of it; empty if there is none or it
  // cannot be read. `traceMissing`: a missing file is worth a trace.
  static std::string fileRead(Sable::Platform::DebugHandler& handler, const std::string& path,
                              bool traceMissing);
  // The same, and in `error` why there is no text: 0 if there is one, else an error number; EINVAL
  // for what is no regular file.
  static std::string fileRead(Sable::Platform::DebugHandler& handler, const std::string& path,
                              bool traceMissing, int& error);
  // Puts a file into `directory` in one step: whoever opens it sees the old text or the new one. 0
  // or an error number.
  static int fileReplace(const std::string& directory, std::string_view fileName,
                         std::string_view text);
  // The size of a file in bytes, 0 if there is none; at most 2^32 - 1.
  static unsigned memSize(Sable::Platform::DebugHandler& handler, const std::string& path);

  // Records what a reader found wrong, for the writer to look at; at most kMaxReport bytes. A
  // reader that may not write there traces it and goes on.
  static void writeCorruptionFile(Sable::Platform::DebugHandler& handler,
                                  const std::string& rootPath, const std::string& message) noexcept;

  // 32-bit hash of bytes: FNV-1a with a finaliser. It stands in files: never change it.
  static unsigned hash(const char* bytes, unsigned size) noexcept;
  static unsigned hash(std::string_view text) noexcept;

  // Counts up from 0 and answers the low 16 bits of the count before.
  static unsigned short nextInstance(unsigned& counter);
};

}  // namespace Quill
