// SPDX-License-Identifier: Apache-2.0
//
// Redis: a server process, asked over a Unix socket, one request at a time. The server is started
// here, on a socket in the benchmark's own directory, without any port and without persistence, and
// ended by its process id. It is asked for a thousand records of each table, since each answer
// takes two wake-ups, and has no table of a million.
#include <hiredis/hiredis.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include "bench/store/Contestant.h"

namespace StoreBench {
namespace {

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "StoreBench: Redis: %s\n", what);
  std::exit(1);
}

class Server {
 public:
  Server() : pid_(fork()) {
    if (pid_ < 0) fail("no process");
    if (pid_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);  // also where this process is killed
      const std::string directory = tableRoot();
      execl(REDIS_SERVER, "redis-server", "--port", "0", "--unixsocket", socket_.c_str(), "--save",
            "", "--appendonly", "no", "--logfile", "/dev/null", "--dir", directory.c_str(),
            static_cast<char*>(nullptr));
      _exit(127);
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (access(socket_.c_str(), F_OK) != 0) {
      if (std::chrono::steady_clock::now() > deadline) fail("the server does not listen");
      std::this_thread::yield();
    }
  }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;
  ~Server() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  const std::string& socket() const { return socket_; }

 private:
  const std::string socket_ = tableRoot() + "/redis";
  pid_t pid_;
};

struct Release {
  void operator()(redisReply* reply) const { freeReplyObject(reply); }
  void operator()(redisContext* context) const { redisFree(context); }
};
using Reply = std::unique_ptr<redisReply, Release>;

class RedisTable {
 public:
  static constexpr std::size_t kVisits = 1'000;
  static constexpr std::size_t kMaxRecords = 65'536;
  static constexpr bool kWaits = true;

  explicit RedisTable(std::size_t) {
    static const Server server;
    connection_.reset(redisConnectUnix(server.socket().c_str()));
    if (connection_ == nullptr || connection_->err != 0) fail("no connection");
    answer(redisCommand(connection_.get(), "FLUSHALL"));
  }
  // Many requests under way at once.
  void load(const Keys& keys) {
    for (std::uint32_t begin = 0; begin < keys.count(); begin += kVisits) {
      const auto end =
          static_cast<std::uint32_t>(std::min<std::size_t>(begin + kVisits, keys.count()));
      for (std::uint32_t place = begin; place < end; ++place) {
        const Record record{keys.byPlace[place], place, 0, 0};
        redisAppendCommand(connection_.get(), "SET %b %b", &record.key, sizeof record.key, &record,
                           sizeof record);
      }
      for (std::uint32_t place = begin; place < end; ++place) {
        void* reply = nullptr;
        redisGetReply(connection_.get(), &reply);
        answer(reply);
      }
    }
  }
  void insert(std::uint32_t place, const IntfId& key) { store({key, place, 0, 0}); }
  const Record* lookup(std::uint32_t, const IntfId& key) {
    const Reply reply = answer(redisCommand(connection_.get(), "GET %b", &key, sizeof key));
    if (reply->type != REDIS_REPLY_STRING || reply->len != sizeof copy_) return nullptr;
    std::memcpy(&copy_, reply->str, sizeof copy_);
    return &copy_;
  }
  void update(std::uint32_t, const IntfId& key, std::uint32_t value) {
    store({key, value, value, value});
  }
  void remove(std::uint32_t, const IntfId& key) {
    answer(redisCommand(connection_.get(), "DEL %b", &key, sizeof key));
  }

 private:
  Reply answer(void* reply) {
    if (reply == nullptr) fail("no answer");
    Reply owned(static_cast<redisReply*>(reply));
    if (owned->type == REDIS_REPLY_ERROR) fail(owned->str);
    return owned;
  }
  void store(const Record& record) {
    answer(redisCommand(connection_.get(), "SET %b %b", &record.key, sizeof record.key, &record,
                        sizeof record));
  }

  std::unique_ptr<redisContext, Release> connection_;
  Record copy_;
};

const bool registered = registerTable<RedisTable>("redis");

}  // namespace
}  // namespace StoreBench
