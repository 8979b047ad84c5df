// SPDX-License-Identifier: Apache-2.0
//
// Any bytes as the text of any value: the reader returns or raises RangeException, and what it
// accepts it writes in a form that reads back to the same form.
//
// The input: a byte that chooses the type, then the text.
#include <string>
#include <string_view>

#include "fuzz/Input.h"
#include "model/status/CounterIntf.h"
#include "model/status/CounterVlan.h"
#include "model/status/IntfAndVlan.h"
#include "model/values/PacketEncapsulation.h"
#include "model/values/Payload.h"

namespace {

using Fuzz::require;

template <class T>
void read(std::string_view text) {
  try {
    const auto written = Vex::valueToStrep(Vex::strepToValue<T>(Vex::String8(text)));
    require(Vex::valueToStrep(Vex::strepToValue<T>(written)) == written);
  } catch (const Vex::RangeException& e) {
    require(!e.text().empty());
    return;
  }
}

template <class T>
void readKey(std::string_view text) {
  try {
    const std::string key = Vex::keyToText(Vex::keyFromText<T>(text));
    require(Vex::keyToText(Vex::keyFromText<T>(key)) == key);
  } catch (const Vex::RangeException& e) {
    require(!e.text().empty());
    return;
  }
}

// Text that was written is never refused.
void writeAny(std::string_view bytes) {
  const std::string any(bytes);
  require(Vex::strepToValue<std::string>(Vex::valueToStrep(any)) == any);
}

constexpr void (*kReaders[])(std::string_view) = {
    read<Ringward::Oui>,
    read<Ringward::PacketEncapsulation>,
    read<Ringward::Status::CounterIntf>,
    read<Ringward::Status::CounterVlan>,
    read<Ringward::Status::IntfAndVlan>,
    read<Ringward::Payload>,
    read<Vex::LinkQueueMetadata>,
    read<std::uint8_t>,
    read<std::uint32_t>,
    read<std::uint64_t>,
    read<double>,
    read<bool>,
    read<std::string>,
    read<Portus::EthAddr>,
    read<Portus::IntfId>,
    readKey<Portus::IntfId>,
    readKey<Bridging::VlanId>,
    readKey<Bridging::VlanIdOrNone>,
    readKey<std::uint32_t>,
    writeAny,
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Fuzz::Input input({data, size});
  const auto reader = input.oneOf(kReaders);
  Fuzz::Exactly text(input.takeAll());
  const auto bytes = text.bytes();
  reader({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
  return 0;
}
