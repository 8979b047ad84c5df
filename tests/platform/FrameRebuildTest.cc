// SPDX-License-Identifier: Apache-2.0
//
// What the kernel gives for a frame (data and auxiliary data, as measured on veth pairs) must
// become the frame that was sent.
#include "platform/linux/FrameRebuild.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace Platform::Linux {
namespace {

using Frame = std::vector<std::uint8_t>;

const Frame kAddresses{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x02, 0x11, 0x22, 0x33, 0x44, 0x55};

Frame operator+(Frame left, const Frame& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

tpacket_auxdata tag(std::uint16_t tci, std::uint16_t tpid,
                    std::uint32_t status = TP_STATUS_VLAN_VALID | TP_STATUS_VLAN_TPID_VALID) {
  tpacket_auxdata auxdata{};
  auxdata.tp_status = TP_STATUS_USER | status;
  auxdata.tp_vlan_tci = tci;
  auxdata.tp_vlan_tpid = tpid;
  return auxdata;
}

Frame rebuilt(const Frame& asRead, const tpacket_auxdata& auxdata) {
  Frame buffer = Frame(kFrameHeadroom, 0xEE) + asRead;
  const auto result = rebuildFrame(buffer, auxdata);
  return {result.begin(), result.end()};
}

TEST(FrameRebuild, UntaggedFrameIsLeftAsRead) {
  const Frame frame = kAddresses + Frame{0x88, 0xB7, 1, 2, 3};
  EXPECT_EQ(rebuilt(frame, tag(0xE064, 0x8100, 0)), frame);
}

TEST(FrameRebuild, RemovedTagIsPutBackBehindTheAddresses) {
  const Frame asRead = kAddresses + Frame{0x88, 0xB7, 1, 2, 3};
  EXPECT_EQ(rebuilt(asRead, tag(0xE064, 0x8100)),
            kAddresses + (Frame{0x81, 0x00, 0xE0, 0x64, 0x88, 0xB7, 1, 2, 3}));
}

TEST(FrameRebuild, ZeroControlFieldIsATagToo) {
  const Frame asRead = kAddresses + Frame{0x88, 0xB7};
  EXPECT_EQ(rebuilt(asRead, tag(0, 0x8100)), kAddresses + (Frame{0x81, 0, 0, 0, 0x88, 0xB7}));
}

TEST(FrameRebuild, ServiceTagKeepsItsType) {
  const Frame asRead = kAddresses + Frame{0x81, 0x00, 0x00, 0x07, 0x88, 0xB7};
  EXPECT_EQ(rebuilt(asRead, tag(0x2005, 0x88A8)),
            kAddresses + (Frame{0x88, 0xA8, 0x20, 0x05, 0x81, 0x00, 0x00, 0x07, 0x88, 0xB7}));
}

TEST(FrameRebuild, TagWithoutATypeIsACustomerTag) {
  const Frame asRead = kAddresses + Frame{0x88, 0xB7};
  EXPECT_EQ(rebuilt(asRead, tag(5, 0x9999, TP_STATUS_VLAN_VALID)),
            kAddresses + (Frame{0x81, 0x00, 0, 5, 0x88, 0xB7}));
}

TEST(FrameRebuild, FrameOfTwoAddressesOnlyGetsItsTag) {
  EXPECT_EQ(rebuilt(kAddresses, tag(1, 0x8100)), kAddresses + (Frame{0x81, 0x00, 0, 1}));
}

TEST(FrameRebuild, FrameShorterThanTwoAddressesIsLeftAsItIs) {
  for (std::size_t size = 0; size < kAddresses.size(); ++size) {
    const Frame part(kAddresses.begin(), kAddresses.begin() + static_cast<std::ptrdiff_t>(size));
    EXPECT_EQ(rebuilt(part, tag(1, 0x8100)), part) << size;
  }
}

TEST(FrameRebuild, BufferWithoutHeadroomGivesAnEmptyFrame) {
  for (std::size_t size = 0; size < kFrameHeadroom; ++size) {
    Frame buffer(size, 0);
    EXPECT_TRUE(rebuildFrame(buffer, tag(1, 0x8100)).empty()) << size;
  }
}

TEST(FrameRebuild, PayloadStaysWhereItIs) {
  Frame buffer = Frame(kFrameHeadroom, 0) + kAddresses + Frame(1500, 0x5A);
  const std::uint8_t* const payload = buffer.data() + kFrameHeadroom + kAddresses.size();
  const auto result = rebuildFrame(buffer, tag(1, 0x8100));
  EXPECT_EQ(result.data(), buffer.data());
  EXPECT_EQ(result.data() + kAddresses.size() + 4, payload);
  EXPECT_EQ(std::count(payload, payload + 1500, 0x5A), 1500);
}

}  // namespace
}  // namespace Platform::Linux
