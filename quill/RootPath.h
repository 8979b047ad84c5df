// SPDX-License-Identifier: Apache-2.0
//
// Quill::RootPath: the directory of one table. A table is named either by a name, such as
// "ringward/packetCounter/counterIntf", which lies under the default root, or by the absolute path
// of its directory, as tablePath() makes it.
//
// An object belongs to one thread. It holds texts only; directories and files belong to the writer.
//
// Invariants:
//  1. A name becomes one component of a path, whatever bytes it has: it cannot leave the root, and
//  no
//     two names share a directory (encodedName()).
//  2. Readers make, change and remove nothing through this class.
#pragma once

#include <string>
#include <string_view>

#include "runtime/sable/Platform.h"

namespace Quill {

// The directory that holds the tables of this machine: the environment variable QUILL_ROOT if it is
// set to an absolute path (ignored in set-user-id programs), else "/run/ringward/tables".
std::string defaultRoot();

// A table's name as a file name: letters, digits, '_' and '-' stand for themselves, '.' too unless
// it comes first, '/' becomes ':', every other byte '%' and two upper-case hexadecimal digits.
// Raises Sable::InvalidInitializeException for an empty name and for one that needs more than 255
// bytes.
std::string encodedName(std::string_view name);
// The name that gives `fileName`, empty if none does.
std::string decodedName(std::string_view fileName);

// The path of the table `name` under `root`: what to give where a table's full name is asked for,
// if it does not lie under the default root. Raises as encodedName(), and for a root that is not an
// absolute path.
std::string tablePath(std::string_view root, std::string_view name);

class RootPath : private Sable::Debuggable {
 public:
  // `fullName` as above. `shared`: the table lies in files; without it the name is only a name and
  // may be anything. Raises Sable::InvalidInitializeException for a name that encodedName() refuses
  // and for an absolute path that is "/" or has a component ".." in it.
  RootPath(Sable::Platform::DebugHandler& handler, std::string_view fullName, bool shared);

  // The table's directory, without a '/' at its end.
  std::string rootPath() const { return path_; }
  // The table's name: decoded from the last component of the path.
  std::string quillName() const { return name_; }
  // The path of one of its files.
  std::string filePath(std::string_view fileName) const;

  // Makes the directory and what is missing above it, readable by everybody. Raises
  // Sable::InvalidInitializeException with the path and the system's reason.
  void makeDirectory() const;
  // Removes one file of the directory; a missing one is as good. Traces any other failure.
  void removeFile(std::string_view fileName) const;
  // Removes the store's own helper files (lock, kick socket, left-over ".*.new") and then the
  // directory, if it is empty. Traces a failure. REQUIRES: the writer lock is held.
  void cleanup() const;

 private:
  std::string path_;
  std::string name_;
};

}  // namespace Quill
