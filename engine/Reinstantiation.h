// SPDX-License-Identifier: Apache-2.0
//
// The check of xIs on a collection of machines: an existing member must have been made with the
// arguments that are given now.
#pragma once

#include <sstream>
#include <string_view>

#include "runtime/vex/Exception.h"
#include "runtime/vex/Ptr.h"

namespace Ringward {

template <class T>
void showArgument(std::ostream& os, const T& value) {
  os << value;
}
template <class T>
void showArgument(std::ostream& os, const Vex::Ptr<T>& value) {
  os << static_cast<const void*>(value.get());
}
template <class T>
void showArgument(std::ostream& os, T* value) {
  os << static_cast<const void*>(value);
}

// Raises the name-in-use exception if the two differ. `attribute` is the name with an underscore.
template <class Given, class Present>
void requireSameArgument(std::string_view attribute, const Given& given, const Present& present) {
  if (given == present) return;
  std::ostringstream os;
  os << "Reinstantiating the pointer interface where constructor parameter attribute " << attribute
     << " has a different value of ";
  showArgument(os, given);
  os << " than the current value of ";
  showArgument(os, present);
  os << " not allowed";
  Vex::throwNameInUseException(os.str());
}

}  // namespace Ringward
