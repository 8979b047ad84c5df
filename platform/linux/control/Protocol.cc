// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/control/Protocol.h"

#include <algorithm>
#include <concepts>
#include <limits>

#include "runtime/vex/Exception.h"

namespace Platform::Linux::Control {

namespace {

constexpr std::size_t kMaxText = std::numeric_limits<std::uint16_t>::max();
constexpr std::size_t kMaxRequestTexts = std::numeric_limits<std::uint8_t>::max();
constexpr std::size_t kMaxAnswerTexts = std::numeric_limits<std::uint16_t>::max();
constexpr std::size_t kRequestHead = 6;
constexpr std::size_t kAnswerHead = 8;

// Appends fields, the most significant byte of a number first.
class FieldWriter {
 public:
  template <std::unsigned_integral Number>
  FieldWriter& number(Number value) {
    for (std::size_t i = sizeof value; i-- > 0;) {
      out_.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    }
    return *this;
  }
  FieldWriter& raw(std::string_view bytes) {
    out_.insert(out_.end(), bytes.begin(), bytes.end());
    return *this;
  }
  FieldWriter& text(std::string_view bytes) {
    VEX_ASSERT(bytes.size() <= kMaxText);
    return number(static_cast<std::uint16_t>(bytes.size())).raw(bytes);
  }
  Buffer take() {
    VEX_ASSERT(out_.size() <= kMaxBody);
    return std::move(out_);
  }

 private:
  Buffer out_;
};

class FieldReader {
 public:
  FieldReader(const char* frame, Bytes body) : frame_(frame), rest_(body), size_(body.size()) {}

  template <std::unsigned_integral Number>
  Number number(const char* field) {
    Number value = 0;
    for (const std::uint8_t byte : take(field, sizeof value)) {
      value = static_cast<Number>(std::uint64_t{value} << 8 | byte);
    }
    return value;
  }
  std::string_view raw(const char* field, std::size_t size) {
    const Bytes bytes = take(field, size);
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
  }
  std::string text(const char* field) {
    return std::string(raw(field, number<std::uint16_t>(field)));
  }
  // `count` texts up to the end of the body.
  std::vector<std::string> texts(std::size_t count) {
    std::vector<std::string> result;
    result.reserve(std::min(count, rest_.size() / kTextOverhead));
    for (std::size_t i = 0; i < count; ++i) result.push_back(text("text"));
    if (!rest_.empty()) {
      fail(std::to_string(rest_.size()) + " bytes behind the last text, must be none");
    }
    return result;
  }
  [[noreturn]] void fail(const std::string& what) const {
    Vex::throwRangeException(std::string(frame_) + " at byte " +
                             std::to_string(size_ - rest_.size()) + ": " + what);
  }

 private:
  Bytes take(const char* field, std::size_t size) {
    if (rest_.size() < size) {
      fail(std::string(field) + " needs " + std::to_string(size) + " bytes, " +
           std::to_string(rest_.size()) + " are left");
    }
    const Bytes taken = rest_.first(size);
    rest_ = rest_.subspan(size);
    return taken;
  }

  const char* frame_;
  Bytes rest_;
  std::size_t size_;
};

// A number that has to be one of `First` to `Last`.
template <class Enum>
Enum enumerator(FieldReader& reader, const char* field, Enum first, Enum last) {
  const auto value = reader.number<std::uint8_t>(field);
  const auto least = static_cast<std::uint8_t>(first);
  const auto most = static_cast<std::uint8_t>(last);
  if (value < least || value > most) {
    reader.fail(std::string(field) + " " + std::to_string(value) + " not allowed, must be " +
                std::to_string(least) + " to " + std::to_string(most));
  }
  return static_cast<Enum>(value);
}

bool textsFit(const std::vector<std::string>& texts, std::size_t head, std::size_t most) noexcept {
  std::size_t size = head;
  for (const std::string& text : texts) {
    if (text.size() > kMaxText) return false;
    size += kTextOverhead + text.size();
  }
  return texts.size() <= most && size <= kMaxBody;
}

}  // namespace

Buffer helloBody(const Hello& hello) {
  return FieldWriter()
      .raw(kMagic)
      .number(hello.version)
      .number(static_cast<std::uint8_t>(hello.role))
      .number(hello.capabilities)
      .text(hello.text)
      .take();
}

Hello readHello(Bytes body) {
  FieldReader reader("hello", body);
  if (reader.raw("magic", kMagic.size()) != kMagic) reader.fail("the magic is not \"RINGWARD\"");
  Hello hello;
  hello.version = reader.number<std::uint16_t>("version");
  if (hello.version == 0) reader.fail("version 0 not allowed, must be 1 or above");
  hello.role = enumerator(reader, "role", Role::agent, Role::client);
  hello.capabilities = reader.number<std::uint32_t>("capabilities");
  hello.text = reader.text("text");
  return hello;
}

Buffer requestBody(const Request& request) {
  VEX_ASSERT(fits(request));
  FieldWriter writer;
  writer.number(request.id)
      .number(static_cast<std::uint8_t>(request.operation))
      .number(static_cast<std::uint8_t>(request.texts.size()));
  for (const std::string& text : request.texts) writer.text(text);
  return writer.take();
}

Request readRequest(Bytes body) {
  FieldReader reader("request", body);
  Request request;
  request.id = reader.number<std::uint32_t>("id");
  request.operation = enumerator(reader, "operation", Operation::get, Operation::subscribe);
  request.texts = reader.texts(reader.number<std::uint8_t>("count"));
  return request;
}

Buffer answerBody(const Answer& answer) {
  VEX_ASSERT(fits(answer));
  FieldWriter writer;
  writer.number(answer.id)
      .number(static_cast<std::uint8_t>(answer.status))
      .number(static_cast<std::uint8_t>(answer.more ? 1 : 0))
      .number(static_cast<std::uint16_t>(answer.texts.size()));
  for (const std::string& text : answer.texts) writer.text(text);
  return writer.take();
}

Answer readAnswer(Bytes body) {
  FieldReader reader("answer", body);
  Answer answer;
  answer.id = reader.number<std::uint32_t>("id");
  answer.status = enumerator(reader, "status", Status::done, Status::failed);
  const auto more = reader.number<std::uint8_t>("more");
  if (more > 1) reader.fail("more " + std::to_string(more) + " not allowed, must be 0 or 1");
  answer.more = more == 1;
  answer.texts = reader.texts(reader.number<std::uint16_t>("count"));
  return answer;
}

Buffer farewellBody(std::string_view reason) {
  return FieldWriter().text(reason.substr(0, kMaxText)).take();
}

std::string readFarewell(Bytes body) { return FieldReader("farewell", body).text("reason"); }

bool fits(const Request& request) noexcept {
  return textsFit(request.texts, kRequestHead, kMaxRequestTexts);
}

bool fits(const Answer& answer) noexcept {
  return textsFit(answer.texts, kAnswerHead, kMaxAnswerTexts);
}

}  // namespace Platform::Linux::Control
