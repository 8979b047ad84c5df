// SPDX-License-Identifier: Apache-2.0
#include "model/values/PacketEncapsulation.h"

namespace Ringward {

std::ostream& operator<<(std::ostream& os, const PacketEncapsulation& value) {
  return os << "Value('Ringward::PacketEncapsulation', ** {'mac': " << value.mac
            << ", 'vlanId': " << value.vlanId << ", 'senderIntfId': " << value.senderIntfId << "})";
}

}  // namespace Ringward
