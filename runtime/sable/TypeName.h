// SPDX-License-Identifier: Apache-2.0
//
// Sable::typeName: the name of a type as it stands in files, the same in every process that shares
// them, whatever its compiler and word size.
#pragma once

#include <string>
#include <string_view>
#include <typeinfo>

namespace Sable {

// The readable form of a name from std::type_info; the name itself if it cannot be read.
std::string demangled(const char* name);

// T::kTypeName if the type names itself, else the language's own name of the type. The latter is
// stable for plain classes; a template over an integer type such as `unsigned long` should name
// itself.
template <class T>
std::string typeName() {
  if constexpr (requires { std::string_view(T::kTypeName); }) {
    return std::string(T::kTypeName);
  } else {
    return demangled(typeid(T).name());
  }
}

}  // namespace Sable
