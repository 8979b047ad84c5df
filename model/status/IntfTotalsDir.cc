// SPDX-License-Identifier: Apache-2.0
#include "model/status/IntfTotalsDir.h"

template class VexQuill::VexQuillMap<
    Ringward::Status::IntfTotalsDir,
    VexQuill::VexQuillMapValueWrapper<Ringward::Status::IntfTotals, Portus::IntfId>,
    Portus::IntfId>;

namespace Ringward::Status {

IntfTotalsDir::IntfTotalsDir(const Vex::Name& name) : EntityOf(name) {
  intfTotals_.entity("intfTotals", this, &IntfTotalsDir::intfTotalsNotify);
  tableIs(intfTotals_);
}

IntfTotalsDir::~IntfTotalsDir() = default;

}  // namespace Ringward::Status
