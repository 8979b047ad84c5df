// SPDX-License-Identifier: Apache-2.0
//
// What each key of the configuration file means: which values it may have, which field of the
// Configuration it sets, and which known key was probably meant by an unknown one.
//
// A pure function without state: any thread may call it. The caller owns the result, which keeps
// nothing of the table.
#pragma once

#include <string>

#include "agent/ConfigurationReader.h"
#include "agent/Toml.h"

namespace Agent {

// The configuration that a parsed file asks for, or every error that its keys and values have;
// `file` is only a name for the errors.
ConfigurationResult readKeys(const toml::table& root, const std::string& file);

}  // namespace Agent
