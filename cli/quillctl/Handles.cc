// SPDX-License-Identifier: Apache-2.0
#include "cli/quillctl/Handles.h"

namespace Quill {

template class QuillReader<Portus::IntfId, Ringward::Status::CounterIntf>;
template class QuillReader<Bridging::VlanIdOrNone, Ringward::Status::CounterVlan>;
template class QuillWriter<Portus::IntfId, Ringward::Status::CounterIntf>;
template class QuillWriter<Bridging::VlanIdOrNone, Ringward::Status::CounterVlan>;

}  // namespace Quill
