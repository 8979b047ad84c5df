// SPDX-License-Identifier: Apache-2.0
//
// The store's reader and writer of each record type that quillctl knows. Their code is long, and
// most commands need both: it is compiled once, in Handles.cc.
#pragma once

#include "cli/quillctl/Records.h"
#include "quill/QuillReader.h"
#include "quill/QuillWriter.h"

namespace Quill {

extern template class QuillReader<Portus::IntfId, Ringward::Status::CounterIntf>;
extern template class QuillReader<Bridging::VlanIdOrNone, Ringward::Status::CounterVlan>;
extern template class QuillWriter<Portus::IntfId, Ringward::Status::CounterIntf>;
extern template class QuillWriter<Bridging::VlanIdOrNone, Ringward::Status::CounterVlan>;

}  // namespace Quill
