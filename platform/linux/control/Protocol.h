// SPDX-License-Identifier: Apache-2.0
//
// What agent and client say to each other on the control socket, beside the attribute log: the
// bodies of the frames from type 16 on, as values, to bytes and back. docs/formats.md, "Control
// socket", is the same for other languages. Pure functions: any thread.
//
// Invariants:
//  1. read...() of what ...Body() gave is an equal value.
//  2. read...() raises a range exception that names the field and the place for any other bytes,
//     reads nothing beyond the body and takes no memory that the body does not bear out.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/control/Frame.h"

namespace Platform::Linux::Control {

inline constexpr const char* kDefaultSocket = "/run/ringward/ringwardd.sock";
inline constexpr std::string_view kMagic = "RINGWARD";
inline constexpr std::uint16_t kProtocolVersion = 1;

// Types up to 15 belong to the attribute log.
inline constexpr std::uint8_t kFirstOwnType = 16;
enum class FrameType : std::uint8_t { hello = 16, request = 17, answer = 18, farewell = 19 };

enum class Role : std::uint8_t { agent = 1, client = 2 };

// Bits of Hello::capabilities. An unknown one means nothing.
inline constexpr std::uint32_t kRequests = 1;
inline constexpr std::uint32_t kAttributeLog = 2;
// In the agent's hello: who reads this may change what is writable.
inline constexpr std::uint32_t kYouMayWrite = 4;

// The first frame of either side; the client's comes first. What a later version puts behind the
// text is skipped.
struct Hello {
  std::uint16_t version = kProtocolVersion;
  Role role = Role::client;
  std::uint32_t capabilities = 0;
  std::string text;  // who speaks, for people: "ringwardd 0.1"
  bool operator==(const Hello&) const = default;
};

enum class Operation : std::uint8_t {
  get = 1,       // PATH -> TEXT
  set = 2,       // PATH TEXT ->
  del = 3,       // PATH ->
  ls = 4,        // PATH AFTER -> kLsFields texts for each node
  call = 5,      // PATH FUNCTION (NAME VALUE)... -> TEXT
  subscribe = 6  // ROOT... -> ; the attribute log of these roots follows
};

// Texts of one node in the answer to ls: name, kind, type, text, "1" if it is writable or "0",
// number of members.
inline constexpr std::size_t kLsFields = 6;

struct Request {
  std::uint32_t id = 0;  // the client's; comes back with the answer
  Operation operation = Operation::get;
  std::vector<std::string> texts;
  bool operator==(const Request&) const = default;
};

enum class Status : std::uint8_t {
  done = 0,
  refused = 1,  // the client lacks the right; one text, the reason
  failed = 2    // it cannot be done; one text, the reason
};

struct Answer {
  std::uint32_t id = 0;
  Status status = Status::done;
  bool more = false;  // of ls: the list goes on behind the last node
  std::vector<std::string> texts;
  bool operator==(const Answer&) const = default;
};

// REQUIRES of each: what it makes has at most kMaxBody bytes (fits()).
Buffer helloBody(const Hello& hello);
Buffer requestBody(const Request& request);
Buffer answerBody(const Answer& answer);
// The last frame before the agent closes: why.
Buffer farewellBody(std::string_view reason);

// Whether a request or an answer with these texts can be a frame: at most 255 texts in a request,
// 65,535 in an answer, each shorter than 64 KiB.
bool fits(const Request& request) noexcept;
bool fits(const Answer& answer) noexcept;

// Each text takes so many bytes more than its own.
inline constexpr std::size_t kTextOverhead = 2;

Hello readHello(Bytes body);
Request readRequest(Bytes body);
Answer readAnswer(Bytes body);
std::string readFarewell(Bytes body);

}  // namespace Platform::Linux::Control
