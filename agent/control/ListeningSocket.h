// SPDX-License-Identifier: Apache-2.0
//
// Agent::ListeningSocket: the file of the control socket and the descriptor that listens there.
//
// Activity thread only. Both go with the object; a file that is no longer ours stays.
//
// Invariants:
//  1. A socket on which somebody listens is never taken away, nor is a file that is no socket.
//  2. Two agents that start together cannot both take the path: whoever takes it holds a lock on
//     the file beside it ("PATH.lock", readable by its owner alone) for as long as it listens.
#pragma once

#include <sys/types.h>

#include <string>

#include "platform/linux/Fd.h"

namespace Agent {

class ListeningSocket {
 public:
  ListeningSocket() = default;
  ListeningSocket(const ListeningSocket&) = delete;
  ListeningSocket& operator=(const ListeningSocket&) = delete;
  ~ListeningSocket() { close(); }

  // Listens on `path`, with room for 128 who wait to be accepted; makes its directory (0755) if
  // that is missing, but not the one in which that stands. Everybody may connect (0666). Empty, or
  // why it cannot be; nothing is open then.
  // REQUIRES: nothing is open; the path is absolute.
  std::string open(const std::string& path);
  void close() noexcept;

  // -1 while nothing is open.
  int fd() const noexcept { return socket_.get(); }

 private:
  std::string lock();
  std::string listen();

  std::string path_;
  Platform::Linux::Fd lock_;
  Platform::Linux::Fd socket_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

}  // namespace Agent
