// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/control/Protocol.h"

#include <gtest/gtest.h>

#include <random>
#include <sstream>

#include "runtime/vex/Exception.h"

namespace Platform::Linux::Control {
namespace {

// "00 1f ..." as bytes.
Buffer bytesOf(const std::string& hex) {
  std::istringstream in(hex);
  Buffer bytes;
  for (unsigned byte = 0; in >> std::hex >> byte;) bytes.push_back(static_cast<std::uint8_t>(byte));
  return bytes;
}

Buffer framed(FrameType type, const Buffer& body) {
  Buffer bytes;
  frameTo(bytes, static_cast<std::uint8_t>(type), body);
  return bytes;
}

template <class Call>
std::string rangeError(const Call& call) {
  try {
    call();
  } catch (const Vex::RangeException& exception) {
    return exception.text();
  }
  return "no error";
}

TEST(ControlProtocol, BytesAreThoseOfTheDocumentation) {
  EXPECT_EQ(framed(FrameType::hello, helloBody({1, Role::client, kRequests, "example"})),
            bytesOf("00 00 00 19 10 52 49 4e 47 57 41 52 44 00 01 02 00 00 00 01 00 07 65 78 61 6d "
                    "70 6c 65"));
  EXPECT_EQ(framed(FrameType::request, requestBody({7, Operation::get, {"config/globalEnabled"}})),
            bytesOf("00 00 00 1d 11 00 00 00 07 01 01 00 14 63 6f 6e 66 69 67 2f 67 6c 6f 62 61 6c "
                    "45 6e 61 62 6c 65 64"));
  EXPECT_EQ(framed(FrameType::answer, answerBody({7, Status::done, false, {"false"}})),
            bytesOf("00 00 00 10 12 00 00 00 07 00 00 00 01 00 05 66 61 6c 73 65"));
}

TEST(ControlProtocol, WhatIsWrittenReadsBackEqual) {
  constexpr unsigned kSeed = 4711;
  SCOPED_TRACE(kSeed);
  std::mt19937 random(kSeed);
  const auto text = [&] {
    std::string made(random() % 300, ' ');
    for (char& c : made) c = static_cast<char>(random());
    return made;
  };
  for (int round = 0; round < 1000; ++round) {
    const Hello hello{static_cast<std::uint16_t>(1 + random() % 65535),
                      random() % 2 != 0 ? Role::agent : Role::client,
                      static_cast<std::uint32_t>(random()), text()};
    EXPECT_EQ(readHello(helloBody(hello)), hello);
    Request request{
        static_cast<std::uint32_t>(random()), static_cast<Operation>(1 + random() % 6), {}};
    for (std::size_t i = random() % 10; i > 0; --i) request.texts.push_back(text());
    EXPECT_EQ(readRequest(requestBody(request)), request);
    const Answer answer{static_cast<std::uint32_t>(random()), static_cast<Status>(random() % 3),
                        random() % 2 != 0, request.texts};
    EXPECT_EQ(readAnswer(answerBody(answer)), answer);
    const std::string reason = text();
    EXPECT_EQ(readFarewell(farewellBody(reason)), reason);
  }
}

TEST(ControlProtocol, ABodyThatIsCutAnywhereIsAnError) {
  const Buffer hello = helloBody({1, Role::client, 3, "example"});
  const Buffer request = requestBody({7, Operation::set, {"config/x", "true"}});
  const Buffer answer = answerBody({7, Status::failed, false, {"reason"}});
  for (std::size_t size = 0; size < hello.size(); ++size) {
    EXPECT_NE(rangeError([&] { readHello(Bytes(hello).first(size)); }), "no error") << size;
  }
  for (std::size_t size = 0; size < request.size(); ++size) {
    EXPECT_NE(rangeError([&] { readRequest(Bytes(request).first(size)); }), "no error") << size;
  }
  for (std::size_t size = 0; size < answer.size(); ++size) {
    EXPECT_NE(rangeError([&] { readAnswer(Bytes(answer).first(size)); }), "no error") << size;
  }
  EXPECT_EQ(rangeError([&] { readRequest(Bytes(request).first(3)); }),
            "request at byte 0: id needs 4 bytes, 3 are left");
}

TEST(ControlProtocol, ALaterHelloMaySayMore) {
  Buffer hello = helloBody({2, Role::agent, 3, "later"});
  hello.push_back(99);
  EXPECT_EQ(readHello(hello).text, "later");
}

TEST(ControlProtocol, NumbersOutsideTheirRangeAreNamed) {
  EXPECT_EQ(rangeError([] { readAnswer(bytesOf("0 0 0 1 3 0 0 0")); }),
            "answer at byte 5: status 3 not allowed, must be 0 to 2");
  EXPECT_EQ(rangeError([] { readAnswer(bytesOf("0 0 0 1 0 2 0 0")); }),
            "answer at byte 6: more 2 not allowed, must be 0 or 1");
  EXPECT_EQ(rangeError([] { readRequest(bytesOf("0 0 0 1 0 0")); }),
            "request at byte 5: operation 0 not allowed, must be 1 to 6");
}

TEST(ControlProtocol, WhatDoesNotFitIsKnownBefore) {
  const Request longest{1, Operation::get, {std::string(kMaxBody - 8, 'x')}};
  EXPECT_TRUE(fits(longest));
  EXPECT_EQ(readRequest(requestBody(longest)), longest);
  EXPECT_FALSE(fits(Request{1, Operation::get, {std::string(kMaxBody - 7, 'x')}}));
  EXPECT_FALSE(fits(Request{1, Operation::get, std::vector<std::string>(256)}));
  EXPECT_TRUE(fits(Answer{1, Status::done, false, std::vector<std::string>(256)}));
}

TEST(FrameReaderTest, FramesCutAnywhereComeOutWhole) {
  Buffer stream;
  frameTo(stream, 17, Buffer{1, 2, 3});
  frameTo(stream, 18, {});
  for (std::size_t cut = 0; cut <= stream.size(); ++cut) {
    FrameReader sut;
    std::vector<Buffer> got;
    const auto drain = [&] {
      while (const auto frame = sut.next()) {
        got.push_back({frame->type});
        got.back().insert(got.back().end(), frame->body.begin(), frame->body.end());
      }
    };
    sut.take(Bytes(stream).first(cut));
    drain();
    sut.take(Bytes(stream).subspan(cut));
    drain();
    EXPECT_EQ(got, (std::vector<Buffer>{{17, 1, 2, 3}, {18}})) << cut;
    EXPECT_EQ(sut.waiting(), 0u);
  }
}

TEST(FrameReaderTest, ALengthThatCannotBeIsRefusedBeforeItsBytesCome) {
  for (const Buffer& length :
       {Buffer{0, 0, 0, 0}, Buffer{0, 1, 0, 1}, Buffer{255, 255, 255, 255}}) {
    FrameReader sut;
    sut.take(Bytes(length).first(3));
    EXPECT_FALSE(sut.next().has_value());
    sut.take(Bytes(length).subspan(3));
    EXPECT_TRUE(sut.ready());
    EXPECT_NE(rangeError([&] { sut.next(); }).find(" not allowed, must be 1 to 65536"),
              std::string::npos);
  }
}

TEST(FrameReaderTest, TheLongestFrameFitsAndNoMoreIsTaken) {
  Buffer stream;
  frameTo(stream, 17, Buffer(kMaxBody, 7));
  FrameReader sut;
  sut.take(Bytes(stream).first(stream.size() - 1));
  EXPECT_EQ(sut.room(), 1u);
  sut.take(Bytes(stream).last(1));
  const auto frame = sut.next();
  ASSERT_TRUE(frame.has_value());
  EXPECT_EQ(frame->body.size(), kMaxBody);
}

}  // namespace
}  // namespace Platform::Linux::Control
